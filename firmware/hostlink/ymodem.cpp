// YMODEM on the console: the batch receiver (to the card or to memory for calibration files), the
// sender of a card file, and the two console commands. The console's echo is off while the line
// carries binary blocks; every wait is bounded and the watchdog is fed at least once per block.
#include "hostlink/ymodem.h"

#include <cstdio>
#include <cstring>

#include "board/board_util.h"

#include "records/system.h"
#include "storage/settings.h"
#include "board/timebase.h"
#include "driverlib/hibernate.h"
#include "driverlib/sysctl.h"
#include "ports/uartstdio.h"
#include "storage/calfile.h"
#include "storage/fatfs/ff.h"
#include "storage/microsd.h"
#include "storage/sd_append.h"

namespace {

constexpr uint8_t SOH = 0x01;
constexpr uint8_t STX = 0x02;
constexpr uint8_t CTRL_C = 0x03;
constexpr uint8_t EOT = 0x04;
constexpr uint8_t ACK = 0x06;
constexpr uint8_t NAK = 0x15;
constexpr uint8_t CAN = 0x18;
constexpr uint8_t CPMEOF = 0x1A; // pads the last block of a file
constexpr uint8_t CRC_REQUEST = 'C';

constexpr uint32_t SHORT_BLOCK = 128;
constexpr uint32_t LONG_BLOCK = 1024;

constexpr uint32_t C_INTERVAL_MS = 1000;     // between the receiver's 'C's while nothing comes
constexpr uint32_t BLOCK_TIMEOUT_MS = 10000; // for a block (or a reply) to begin
constexpr uint32_t BYTE_TIMEOUT_MS = 1000;   // between two bytes of a block
// For the ACK of the empty block 0 that ends a batch. The file is complete by then, and a receiver
// that flushes its line as it exits can lose that ACK: silence counts as the end.
constexpr uint32_t CLOSING_ACK_MS = 1000;
constexpr uint32_t MAX_ERRORS = 10;     // in a row, for one block
constexpr uint32_t QUIET_MS = 250;      // of silence that ends a purge
constexpr uint32_t PURGE_MAX_MS = 5000; // a line that never goes quiet is left as it is
// SysCtlDelay counts three cycles: about 100 us at 50 MHz. Between polls of an idle line; the
// console's receive interrupt keeps filling its ring meanwhile.
constexpr uint32_t IDLE_PAUSE_COUNTS = 1667;

// Longest received name kept (the rest is dropped); 8.3 names on the card.
constexpr uint32_t NAME_MAX = 63;
constexpr uint32_t CARD_NAME_SIZE = 14; // "/" + 8 + "." + 3 + NUL
// A received file is written here and takes its name only once it has arrived whole, so that a
// transfer that fails never costs the file it was to replace.
constexpr char RECEIVE_PATH[] = "/~YMODEM.TMP";
// The longest extension a shortened name keeps ("." included).
constexpr size_t EXT_KEEP = 8;

// One block as it travels (start byte, number, complement, data, CRC), for both directions: one
// transfer runs at a time.
constexpr uint32_t FRAME_HEAD = 3;
constexpr uint32_t FRAME_EXTRA = FRAME_HEAD + 2;
uint8_t frame[LONG_BLOCK + FRAME_EXTRA];
uint8_t* const block_data = frame + FRAME_HEAD;
// The file of the memory mode, and the copy of a ".cal" file received to the card.
char memory_file[YMODEM_MEMORY_MAX];
// The file being written or sent: the card's shared file object while a transfer holds it.
FIL* ymodem_fil = nullptr;

FRESULT close_card_file(void) {
    FRESULT fr = ymodem_fil != nullptr ? f_close(ymodem_fil) : FR_INVALID_OBJECT;
    if (ymodem_fil != nullptr) {
        sd_file_give();
        ymodem_fil = nullptr;
    }
    return fr;
}

FRESULT open_card_file(const char* path, BYTE mode) {
    ymodem_fil = sd_file_take();
    FRESULT fr = ymodem_fil != nullptr ? f_open(ymodem_fil, path, mode) : FR_LOCKED;
    if (fr != FR_OK) {
        close_card_file();
    }
    return fr;
}

// ---------------------------------------------------------------- line

uint32_t elapsed_ms(uint32_t start) {
    return Timer_1ms(0) - start;
}

// The next byte from the console, or -1 when none came within timeout_ms.
int32_t read_byte(uint32_t timeout_ms) {
    uint32_t start = Timer_1ms(0);
    while (!UARTrdy()) {
        if (elapsed_ms(start) >= timeout_ms) {
            return -1;
        }
        SysCtlDelay(IDLE_PAUSE_COUNTS);
    }
    return getChar();
}

void send_byte(uint8_t b) {
    char c = static_cast<char>(b);
    UARTwrite(&c, 1);
}

void send_cancel(void) {
    const char cancel[] = {static_cast<char>(CAN), static_cast<char>(CAN)};
    UARTwrite(cancel, sizeof cancel);
    wait_consoleTx();
}

// Discards input until the line has been quiet for QUIET_MS (at most PURGE_MAX_MS). True when the
// discarded bytes held CAN CAN: the sender cancelled in the middle of a block.
bool purge_line(void) {
    uint32_t start = Timer_1ms(0);
    bool cancelled = false;
    int32_t previous = -1;
    for (;;) {
        int32_t c = read_byte(QUIET_MS);
        if (c < 0 || elapsed_ms(start) >= PURGE_MAX_MS) {
            break;
        }
        cancelled = cancelled || (c == CAN && previous == CAN);
        previous = c;
    }
    UARTFlushRx();
    return cancelled;
}

// CRC-16 with polynomial 0x1021 and initial value 0 (the XMODEM CRC).
uint16_t crc16(const uint8_t* data, uint32_t len) {
    uint16_t crc = 0;
    for (uint32_t i = 0; i < len; i++) {
        crc = static_cast<uint16_t>(crc ^ (data[i] << 8));
        for (int bit = 0; bit < 8; bit++) {
            crc =
                (crc & 0x8000) ? static_cast<uint16_t>((crc << 1) ^ 0x1021) : static_cast<uint16_t>(crc << 1);
        }
    }
    return crc;
}

// ---------------------------------------------------------------- blocks in

enum class Packet { data, eot, cancel, timeout, bad };

// True when bytes hold a run of at least `run` CANs.
bool has_cancel(const uint8_t* bytes, uint32_t len, uint32_t run = 2) {
    uint32_t count = 0;
    for (uint32_t i = 0; i < len; i++) {
        count = bytes[i] == CAN ? count + 1 : 0;
        if (count >= run) {
            return true;
        }
    }
    return false;
}

// A whole frame that fails its check and holds a run of this many CANs is a sender's cancel sequence
// (ten CANs) that landed inside the frame; in a block merely damaged such a run is all but impossible.
constexpr uint32_t CANCEL_RUN_IN_FRAME = 4;

// Waits up to timeout_ms for a block to begin and reads it into frame: number and size on success.
// Stray bytes before the block are ignored; Ctrl-C or CAN CAN there cancel. A sender that cancels
// while a block is on its way sends CANs and stops: a block cut short that holds CAN CAN is taken
// as that cancel.
Packet receive_packet(uint32_t timeout_ms, uint8_t& num, uint32_t& size) {
    uint32_t start = Timer_1ms(0);
    for (;;) {
        uint32_t spent = elapsed_ms(start);
        if (spent >= timeout_ms) {
            return Packet::timeout;
        }
        int32_t c = read_byte(timeout_ms - spent);
        if (c < 0) {
            return Packet::timeout;
        }
        if (c == SOH || c == STX) {
            size = c == SOH ? SHORT_BLOCK : LONG_BLOCK;
            frame[0] = static_cast<uint8_t>(c);
            break;
        }
        if (c == EOT) {
            return Packet::eot;
        }
        if (c == CTRL_C || (c == CAN && read_byte(BYTE_TIMEOUT_MS) == CAN)) {
            return Packet::cancel;
        }
    }
    uint32_t end = size + FRAME_EXTRA;
    for (uint32_t i = 1; i < end; i++) {
        int32_t c = read_byte(BYTE_TIMEOUT_MS);
        if (c < 0) {
            return has_cancel(frame + 1, i - 1) ? Packet::cancel : Packet::bad;
        }
        frame[i] = static_cast<uint8_t>(c);
    }
    uint16_t crc = static_cast<uint16_t>((frame[end - 2] << 8) | frame[end - 1]);
    if ((frame[1] ^ frame[2]) != 0xFF || crc16(block_data, size) != crc) {
        return has_cancel(frame + 1, end - 1, CANCEL_RUN_IN_FRAME) ? Packet::cancel : Packet::bad;
    }
    num = frame[1];
    return Packet::data;
}

// ---------------------------------------------------------------- names

bool ends_with_cal(const char* name) {
    size_t len = strlen(name);
    if (len < 4) {
        return false;
    }
    const char* ext = name + len - 4;
    return ext[0] == '.' && (ext[1] | 0x20) == 'c' && (ext[2] | 0x20) == 'a' && (ext[3] | 0x20) == 'l';
}

bool short_name_char(char c) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) {
        return true;
    }
    return c != '\0' && strchr("!#$%&'()-@^_`{}~", c) != nullptr;
}

// Appends at most max characters of [from, to) to out, unusable ones as '_'.
char* put_short_part(char* out, const char* from, const char* to, uint32_t max) {
    for (uint32_t i = 0; from + i < to && i < max; i++) {
        *out++ = short_name_char(from[i]) ? from[i] : '_';
    }
    return out;
}

// The card path for a received name: "/" and an 8.3 name made from it.
void card_path_of(const char* name, char* path) {
    const char* dot = strrchr(name, '.');
    const char* base_end = dot != nullptr ? dot : name + strlen(name);
    char* out = path;
    *out++ = '/';
    if (base_end == name) {
        const char fallback[] = "FILE";
        out = put_short_part(out, fallback, fallback + sizeof fallback - 1, 8);
    } else {
        out = put_short_part(out, name, base_end, 8);
    }
    if (dot != nullptr && dot[1] != '\0') {
        *out++ = '.';
        out = put_short_part(out, dot + 1, dot + strlen(dot), 3);
    }
    *out = '\0';
}

// ---------------------------------------------------------------- receiving

enum class Outcome { ok, cancelled, timeout, failed };

struct RxFile {
    char name[NAME_MAX + 1];   // as sent, without a path
    char path[CARD_NAME_SIZE]; // on the card
    bool has_size;
    uint32_t size;
    uint32_t received; // bytes kept so far
    bool on_card;      // the card file is open
    bool in_memory;    // memory_file holds the file so far
    bool calibration;  // to be loaded into sys_data
};

struct RxBatch {
    uint32_t mode;
    uint32_t files;
    RxFile file; // the current file
    char first_name[NAME_MAX + 1];
    uint32_t first_size;
    bool cal_loaded;
};

RxBatch rx;
// Why a transfer failed, shown once the line is free again.
char failure_text[96];

void fail_message(const char* fmt, const char* arg) {
    snprintf(failure_text, sizeof failure_text, fmt, arg);
}

// Reads block 0's name and size (decimal, up to the first character that is not a digit). A name
// without its terminator in the block is taken as far as it goes.
void parse_header(RxFile& f, uint32_t block_size) {
    memset(&f, 0, sizeof f);
    const char* text = reinterpret_cast<const char*>(block_data);
    size_t name_len = 0;
    while (name_len < block_size && text[name_len] != '\0') {
        name_len++;
    }
    const char* name = text;
    for (size_t i = 0; i < name_len; i++) {
        if (text[i] == '/' || text[i] == '\\') {
            name = text + i + 1;
        }
    }
    size_t keep = static_cast<size_t>(text + name_len - name);
    // A name too long to keep keeps its start and its extension, which says what the file is.
    size_t ext = 0;
    if (keep > NAME_MAX) {
        for (size_t i = keep; i > 0 && keep - i < EXT_KEEP; i--) {
            if (name[i - 1] == '.') {
                ext = keep - (i - 1);
                break;
            }
        }
    }
    size_t head = keep > NAME_MAX ? NAME_MAX - ext : keep;
    memcpy(f.name, name, head);
    memcpy(f.name + head, name + keep - ext, ext);
    f.name[head + ext] = '\0';
    const char* p = text + name_len + 1;
    const char* end = text + block_size;
    uint64_t size = 0;
    uint32_t digits = 0;
    for (; p < end && digits < 10 && *p >= '0' && *p <= '9'; p++, digits++) {
        size = size * 10 + static_cast<uint32_t>(*p - '0');
    }
    if (digits > 0) {
        f.has_size = true;
        f.size = size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size);
    }
}

// Prepares the file block 0 announced. False (with a message) when it is refused.
bool open_file(RxFile& f) {
    bool cal_name = ends_with_cal(f.name);
    if (rx.mode == YMODEM_TO_MEMORY) {
        if (rx.files > 0) {
            fail_message("only one file is taken into memory: %s refused", f.name);
            return false;
        }
        if (f.has_size && f.size > YMODEM_MEMORY_MAX) {
            fail_message("%s is too large for memory", f.name);
            return false;
        }
        f.in_memory = true;
        f.calibration = calFileFlg != 0 || cal_name;
        return true;
    }
    card_path_of(f.name, f.path);
    FRESULT fr = open_card_file(RECEIVE_PATH, FA_WRITE | FA_CREATE_ALWAYS);
    if (fr != FR_OK) {
        snprintf(failure_text, sizeof failure_text, "f_open error: %s", StringFromFresult(fr));
        return false;
    }
    f.on_card = true;
    f.calibration = cal_name;
    f.in_memory = cal_name && !(f.has_size && f.size > YMODEM_MEMORY_MAX);
    return true;
}

// Keeps one data block. False (with a message) when it cannot be kept.
bool store_block(RxFile& f, uint32_t len) {
    if (f.has_size) {
        uint32_t left = f.size - f.received;
        len = len < left ? len : left;
    }
    if (f.in_memory) {
        if (f.received + len > YMODEM_MEMORY_MAX) {
            if (!f.on_card) {
                fail_message("%s is too large for memory", f.name);
                return false;
            }
            f.in_memory = false; // still written to the card, but not loaded
        } else {
            memcpy(memory_file + f.received, block_data, len);
        }
    }
    if (f.on_card && len > 0) {
        UINT written = 0;
        FRESULT fr = f_write(ymodem_fil, block_data, len, &written);
        if (fr != FR_OK || written != len) {
            snprintf(failure_text, sizeof failure_text, "f_write error: %s",
                     StringFromFresult(fr != FR_OK ? fr : FR_DENIED));
            return false;
        }
    }
    f.received += len;
    return true;
}

// Closes the card file. One that arrived whole replaces the file of its name; one that did not is
// removed, and the file it was to replace stays as it was.
bool close_file(RxFile& f, bool whole) {
    if (!f.on_card) {
        return true;
    }
    f.on_card = false;
    FRESULT fr = close_card_file();
    if (!whole || fr != FR_OK) {
        f_unlink(RECEIVE_PATH);
        sd_append_space_freed();
        if (fr != FR_OK) {
            snprintf(failure_text, sizeof failure_text, "f_close error: %s", StringFromFresult(fr));
        }
        return false;
    }
    if (strcmp(f.path, RECEIVE_PATH) == 0) {
        return true;
    }
    fr = f_unlink(f.path);
    if (fr == FR_OK) {
        sd_append_space_freed();
    }
    if (fr == FR_OK || fr == FR_NO_FILE) {
        fr = f_rename(RECEIVE_PATH, f.path);
    }
    if (fr != FR_OK) {
        snprintf(failure_text, sizeof failure_text, "%s could not replace %s: %s", RECEIVE_PATH + 1,
                 f.path + 1, StringFromFresult(fr));
        return false;
    }
    return true;
}

// The receiver's answer to a damaged or missing block: NAK once the line is quiet, or the end of
// the transfer after too many errors in a row, or a cancel that came while the line went quiet.
enum class Retry { asked, too_many, cancelled };

Retry ask_again(uint32_t& errors, uint8_t answer) {
    if (++errors >= MAX_ERRORS) {
        return Retry::too_many;
    }
    if (purge_line()) {
        return Retry::cancelled;
    }
    send_byte(answer);
    return Retry::asked;
}

// Receives the data blocks of one file, after its block 0 was acknowledged.
Outcome receive_data(RxFile& f) {
    uint8_t expected = 1;
    uint32_t errors = 0;
    bool eot_seen = false;
    send_byte(CRC_REQUEST);
    for (;;) {
        wdog_pet();
        uint8_t num = 0;
        uint32_t size = 0;
        Packet p = receive_packet(BLOCK_TIMEOUT_MS, num, size);
        switch (p) {
        case Packet::cancel:
            return Outcome::cancelled;
        case Packet::timeout:
        case Packet::bad:
            // Nothing before the first data block: the sender may have missed the 'C'.
            switch (
                ask_again(errors, p == Packet::timeout && expected == 1 && !eot_seen ? CRC_REQUEST : NAK)) {
            case Retry::asked:
                continue;
            case Retry::cancelled:
                return Outcome::cancelled;
            case Retry::too_many:
                break;
            }
            fail_message("%s", p == Packet::timeout ? "the sender went silent" : "too many errors");
            return p == Packet::timeout ? Outcome::timeout : Outcome::failed;
        case Packet::eot:
            if (!eot_seen) {
                eot_seen = true;
                send_byte(NAK);
                continue;
            }
            send_byte(ACK);
            return Outcome::ok;
        case Packet::data:
            break;
        }
        eot_seen = false;
        if (num == static_cast<uint8_t>(expected - 1)) {
            send_byte(ACK); // our ACK was lost: the sender repeats the block
            continue;
        }
        if (num != expected) {
            fail_message("%s", "block out of sequence");
            return Outcome::failed;
        }
        if (!store_block(f, size)) {
            return Outcome::failed;
        }
        send_byte(ACK);
        expected++;
        errors = 0;
    }
}

// Hands a whole file to the calibration reader and stores the settings.
void load_calibration(const RxFile& f) {
    if (parse_cal_packet(memory_file, f.received) != 0) {
        return;
    }
    set_cal_filename(f.name);
    storeSysDataVariables();
    rx.cal_loaded = true;
}

// Waits for block 0, asking with 'C' once a second for up to `tries` seconds. Data on success.
Packet receive_header(uint32_t tries, uint32_t& size) {
    uint32_t errors = 0;
    for (uint32_t i = 0; i < tries; i++) {
        wdog_pet();
        send_byte(errors > 0 ? NAK : CRC_REQUEST);
        uint8_t num = 0;
        Packet p = receive_packet(C_INTERVAL_MS, num, size);
        if (p == Packet::data && num == 0) {
            return p;
        }
        if (p == Packet::cancel) {
            return p;
        }
        if (p == Packet::eot) {
            send_byte(ACK); // the end of the previous file again: our ACK was lost
            continue;
        }
        if (p == Packet::bad) {
            if (++errors >= MAX_ERRORS) {
                return p;
            }
            if (purge_line()) {
                return Packet::cancel;
            }
        }
    }
    return Packet::timeout;
}

Outcome receive_batch(void) {
    uint32_t tries = YMODEM_START_WAIT_S;
    for (;;) {
        uint32_t size = 0;
        Packet p = receive_header(tries, size);
        tries = MAX_ERRORS; // the next block 0 follows the previous file at once
        if (p == Packet::cancel) {
            return Outcome::cancelled;
        }
        if (p == Packet::timeout) {
            fail_message("%s", rx.files == 0 ? "no sender" : "the sender went silent");
            return Outcome::timeout;
        }
        if (p != Packet::data) {
            fail_message("%s", "too many errors");
            return Outcome::failed;
        }
        RxFile& f = rx.file;
        parse_header(f, size);
        if (block_data[0] == '\0') {
            send_byte(ACK); // the empty block 0: the batch is complete
            return Outcome::ok;
        }
        if (!open_file(f)) {
            return Outcome::failed;
        }
        send_byte(ACK);
        Outcome o = receive_data(f);
        if (!close_file(f, o == Outcome::ok) || o != Outcome::ok) {
            return o == Outcome::ok ? Outcome::failed : o;
        }
        if (f.calibration && f.in_memory) {
            load_calibration(f);
        }
        if (rx.files == 0) {
            memcpy(rx.first_name, f.name, sizeof rx.first_name);
            rx.first_size = f.received;
        }
        rx.files++;
    }
}

void report_receive(Outcome o) {
    if (o == Outcome::ok && rx.files > 0) {
        uprintf("\r\nymodem: received %s, %lu bytes", rx.first_name,
                static_cast<unsigned long>(rx.first_size));
        if (rx.files > 1) {
            uprintf(" (and %lu more files)", static_cast<unsigned long>(rx.files - 1));
        }
        uprintf("\r\n");
    } else if (o == Outcome::ok) {
        uprintf("\r\nymodem: no file received\r\n");
    } else if (o == Outcome::cancelled) {
        uprintf("\r\nymodem: cancelled\r\n");
    } else {
        uprintf("\r\nymodem: %s, transfer ended\r\n", failure_text);
    }
    if (rx.cal_loaded) {
        uprintf("calibration loaded from %s\r\n", reinterpret_cast<const char*>(sys_data.cal_filename));
    }
}

// ---------------------------------------------------------------- sending

// Waits for the receiver's 'C'. Ctrl-C or CAN CAN cancel.
Outcome wait_crc_request(uint32_t seconds) {
    for (uint32_t i = 0; i < seconds; i++) {
        wdog_pet();
        uint32_t start = Timer_1ms(0);
        while (elapsed_ms(start) < C_INTERVAL_MS) {
            int32_t c = read_byte(C_INTERVAL_MS - elapsed_ms(start));
            if (c == CRC_REQUEST) {
                return Outcome::ok;
            }
            if (c == CTRL_C || (c == CAN && read_byte(BYTE_TIMEOUT_MS) == CAN)) {
                return Outcome::cancelled;
            }
        }
    }
    return Outcome::timeout;
}

// Waits for the answer to a block or an EOT: ACK, a request to send again (NAK or 'C'), cancel.
enum class Reply { ack, again, cancel, timeout };

Reply wait_reply(uint32_t timeout_ms) {
    uint32_t start = Timer_1ms(0);
    while (elapsed_ms(start) < timeout_ms) {
        int32_t c = read_byte(timeout_ms - elapsed_ms(start));
        if (c == ACK) {
            return Reply::ack;
        }
        if (c == NAK || c == CRC_REQUEST) {
            return Reply::again;
        }
        if (c == CTRL_C || (c == CAN && read_byte(BYTE_TIMEOUT_MS) == CAN)) {
            return Reply::cancel;
        }
    }
    return Reply::timeout;
}

// Sends block `num` of len bytes from block_data until it is acknowledged. The closing block
// gives up waiting early and counts silence as its ACK.
Outcome send_block(uint8_t num, uint32_t len, bool closing = false) {
    uint16_t crc = crc16(block_data, len);
    frame[0] = len == SHORT_BLOCK ? SOH : STX;
    frame[1] = num;
    frame[2] = static_cast<uint8_t>(~num);
    frame[FRAME_HEAD + len] = static_cast<uint8_t>(crc >> 8);
    frame[FRAME_HEAD + len + 1] = static_cast<uint8_t>(crc & 0xFF);
    for (uint32_t tries = 0; tries < MAX_ERRORS; tries++) {
        wdog_pet();
        UARTFlushRx(); // a stale 'C' must not read as a request to send this block again
        UARTwrite(reinterpret_cast<const char*>(frame), len + FRAME_EXTRA);
        Reply r = wait_reply(closing ? CLOSING_ACK_MS : BLOCK_TIMEOUT_MS);
        if (r == Reply::ack || (closing && r == Reply::timeout)) {
            return Outcome::ok;
        }
        if (r == Reply::cancel) {
            return Outcome::cancelled;
        }
    }
    return Outcome::failed;
}

Outcome send_eot(void) {
    for (uint32_t tries = 0; tries < MAX_ERRORS; tries++) {
        wdog_pet();
        UARTFlushRx();
        send_byte(EOT);
        Reply r = wait_reply(BLOCK_TIMEOUT_MS);
        if (r == Reply::ack) {
            return Outcome::ok;
        }
        if (r == Reply::cancel) {
            return Outcome::cancelled;
        }
    }
    return Outcome::failed;
}

// Block 0 with the name, the size and a modification time (octal seconds; the card keeps no
// time we could read back, so the time of sending), or the empty block 0 that ends the batch.
Outcome send_header(const char* name, uint32_t size) {
    memset(block_data, 0, SHORT_BLOCK);
    if (name != nullptr) {
        int n = snprintf(reinterpret_cast<char*>(block_data), SHORT_BLOCK, "%s", name);
        uint32_t at = static_cast<uint32_t>(n) + 1;
        if (at < SHORT_BLOCK) {
            snprintf(reinterpret_cast<char*>(block_data) + at, SHORT_BLOCK - at, "%lu %lo",
                     static_cast<unsigned long>(size), static_cast<unsigned long>(HibernateRTCGet()));
        }
    }
    return send_block(0, SHORT_BLOCK, name == nullptr);
}

Outcome send_file(const char* name, uint32_t size, uint32_t& sent) {
    Outcome o = wait_crc_request(YMODEM_START_WAIT_S);
    if (o != Outcome::ok) {
        return o;
    }
    if ((o = send_header(name, size)) != Outcome::ok) {
        return o;
    }
    if ((o = wait_crc_request(BLOCK_TIMEOUT_MS / 1000)) != Outcome::ok) {
        return o;
    }
    uint8_t num = 1;
    for (;;) {
        UINT got = 0;
        FRESULT fr = f_read(ymodem_fil, block_data, LONG_BLOCK, &got);
        if (fr != FR_OK) {
            snprintf(failure_text, sizeof failure_text, "f_read error: %s", StringFromFresult(fr));
            return Outcome::failed;
        }
        if (got == 0) {
            break;
        }
        uint32_t len = got <= SHORT_BLOCK ? SHORT_BLOCK : LONG_BLOCK;
        memset(block_data + got, CPMEOF, len - got);
        if ((o = send_block(num++, len)) != Outcome::ok) {
            return o;
        }
        sent += got;
    }
    if ((o = send_eot()) != Outcome::ok) {
        return o;
    }
    if ((o = wait_crc_request(BLOCK_TIMEOUT_MS / 1000)) != Outcome::ok) {
        return o;
    }
    return send_header(nullptr, 0);
}

int32_t result_of(Outcome o, int32_t ok_value) {
    switch (o) {
    case Outcome::ok:
        return ok_value;
    case Outcome::cancelled:
        return YMODEM_CANCELLED;
    case Outcome::timeout:
        return YMODEM_TIMEOUT;
    case Outcome::failed:
        break;
    }
    return YMODEM_FAILED;
}

// Back to the console after a transfer: a peer that may still be waiting is told the transfer is
// over, the line is let go quiet, nothing stays pending, echo is on again.
void end_transfer(Outcome o) {
    if (o != Outcome::ok) {
        send_cancel();
    }
    purge_line();
    UARTEchoSet(true);
}

} // namespace

int32_t ymodem_receive(uint32_t mode) {
    memset(&rx, 0, sizeof rx);
    failure_text[0] = '\0';
    rx.mode = mode;
    if (mode == YMODEM_TO_CARD && microSD_flg == 0) {
        calFileFlg = 0;
        uprintf("ymodem: no microSD card, nothing received\r\n");
        return YMODEM_FAILED;
    }
    UARTEchoSet(false);
    UARTFlushRx();
    Outcome o = receive_batch();
    if (o != Outcome::ok && rx.file.on_card) {
        close_file(rx.file, false);
    }
    end_transfer(o);
    calFileFlg = 0;
    report_receive(o);
    wait_consoleTx();
    return result_of(o, static_cast<int32_t>(rx.first_size));
}

int32_t ymodem_send(const char* name) {
    const char* path = strcmp(name, "ys") == 0 ? reinterpret_cast<const char*>(sys_data.fileName) : name;
    if (microSD_flg == 0) {
        uprintf("ymodem: no microSD card, nothing sent\r\n");
        return YMODEM_FAILED;
    }
    FRESULT fr = open_card_file(path, FA_READ);
    if (fr != FR_OK) {
        uprintf("ymodem: cannot open %s: %s\r\n", path, StringFromFresult(fr));
        return YMODEM_FAILED;
    }
    uint32_t size = f_size(ymodem_fil);
    uprintf("ymodem: sending %s, %lu bytes; start the YMODEM receiver (Ctrl-C to cancel)\r\n", path,
            static_cast<unsigned long>(size));
    wait_consoleTx();
    // No flush here: the receiver's first 'C' may already be waiting.
    UARTEchoSet(false);
    // The header carries the name without its directory.
    const char* slash = strrchr(path, '/');
    uint32_t sent = 0;
    snprintf(failure_text, sizeof failure_text, "%s", "too many errors");
    Outcome o = send_file(slash != nullptr ? slash + 1 : path, size, sent);
    close_card_file();
    end_transfer(o);
    if (o == Outcome::ok) {
        uprintf("\r\nymodem: sent %s, %lu bytes\r\n", path, static_cast<unsigned long>(sent));
    } else if (o == Outcome::cancelled) {
        uprintf("\r\nymodem: cancelled\r\n");
    } else if (o == Outcome::timeout) {
        uprintf("\r\nymodem: no receiver, transfer ended\r\n");
    } else {
        uprintf("\r\nymodem: %s, transfer ended\r\n", failure_text);
    }
    wait_consoleTx();
    return result_of(o, 0);
}

// arg is the command's selector code; the file is always the data file for now.
void cmd_ymodem_send(uint32_t arg) {
    uprintf("ymodem send not parsing filename yet, serial_cmd_fxn\r\n");
    ymodem_send("ys");
}

void cmd_ymodem_receive(void) {
    calFileFlg = 0;
    uprintf("ymodem: waiting for the sender (Ctrl-C to cancel)\r\n");
    wait_consoleTx();
    ymodem_receive(YMODEM_TO_CARD);
}
