// The microSD card in the slot on SSI0 (chip select PA3, active low): an SD or MMC card speaking the
// SPI-mode protocol byte by byte, backed by an image file.
//
// What the card does, as the SD Physical Layer specification describes SPI mode:
// - It powers up in SD mode and ignores the bus until CMD0 arrives with its chip select low and a
//   valid CRC; it is then in SPI mode and idle. Only CMD8 has its CRC checked afterwards.
// - Responses start on the second byte after a command frame (one 0xFF first). R1 carries the idle
//   bit until initialisation ends; in the idle state only CMD0, CMD1, CMD8, CMD55, ACMD41, CMD58 and
//   CMD59 are legal. Initialisation (ACMD41, or CMD1) answers "still idle" a few times, then ready.
//   A high-capacity card never gets ready unless the host sent CMD8 and set HCS in ACMD41.
// - Kinds: sdhc (version 2, block addressed, CCS set, CSD version 2), sdsc (version 2, byte
//   addressed, CSD version 1), sdv1 (no CMD8), mmc (no CMD8, no CMD55; CMD1), badv2 (an sdhc card
//   whose CMD8 echo carries a wrong check pattern). Byte addresses must be multiples of 512 (else
//   "address error"); an address past the capacity is a "parameter error".
// - Reads: R1, then 0xFF until the block is ready (access time), the start token 0xFE, the data
//   and its CRC16. CMD18 goes on block after block until CMD12, which is followed by one stuff byte,
//   R1 and a short busy period. A block past the end is answered with the error token "out of range".
// - Writes: R1, the host's token (0xFE; 0xFC per block of CMD25, 0xFD to stop), 512 bytes and two
//   CRC bytes (not checked: CRCs are off in SPI mode), then the data response (0x05 accepted, 0x0D
//   write error) and busy (0x00) while the block is programmed. Commands that arrive while the card is
//   busy are not taken.
// - `card = protected`: the socket has no write-protect line the driver could read, so the card
//   itself is write-protected: its CSD has TMP_WRITE_PROTECT set, every block written is refused with
//   the "write error" data response, and CMD13 then reports the WP violation.
// - `card = absent` (or no usable image): nothing drives the data line; every byte reads 0xFF.
//   A removed or swapped card comes back as a new card in SD mode.
#include "devices.h"
#include "runtime.h"
#include "sim.h"

#include "driverlib/gpio.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "inc/hw_memmap.h"
#include "storage/fatfs/ff.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sim::dev {

namespace {

constexpr uint32_t block_size = 512;
constexpr uint64_t access_ns = 50 * 1000;    // a block's data is ready this long after its command
constexpr uint64_t program_ns = 250 * 1000;  // programming one written block
constexpr uint64_t stop_busy_ns = 20 * 1000; // after CMD12 and after the stop token
constexpr int init_still_idle = 4;           // "still idle" answers before initialisation completes
constexpr size_t command_log_max = 1000000;

// R1 bits.
constexpr uint8_t r1_idle = 0x01;
constexpr uint8_t r1_crc_error = 0x08;
constexpr uint8_t r1_illegal = 0x04;
constexpr uint8_t r1_address_error = 0x20;
constexpr uint8_t r1_parameter_error = 0x40;
// Second byte of R2 (CMD13).
constexpr uint8_t r2_wp_violation = 0x20;
constexpr uint8_t r2_out_of_range = 0x80;
// Tokens.
constexpr uint8_t token_start = 0xFE;
constexpr uint8_t token_multi = 0xFC;
constexpr uint8_t token_stop = 0xFD;
constexpr uint8_t token_out_of_range = 0x08;
constexpr uint8_t response_accepted = 0x05;
constexpr uint8_t response_write_error = 0x0D;

enum class Kind { sdhc, sdsc, sdv1, mmc, badv2 };
enum class Slot { absent, present, write_protected };

uint8_t crc7(const uint8_t* data, size_t n) {
    uint8_t crc = 0;
    for (size_t i = 0; i < n; ++i) {
        for (int bit = 7; bit >= 0; --bit) {
            bool in = ((data[i] >> bit) & 1) != 0;
            bool top = (crc & 0x40) != 0;
            crc = static_cast<uint8_t>((crc << 1) & 0x7F);
            if (in != top) {
                crc ^= 0x09;
            }
        }
    }
    return crc;
}

uint16_t crc16(const uint8_t* data, size_t n) {
    uint16_t crc = 0;
    for (size_t i = 0; i < n; ++i) {
        crc ^= static_cast<uint16_t>(data[i] << 8);
        for (int bit = 0; bit < 8; ++bit) {
            crc = static_cast<uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
        }
    }
    return crc;
}

// ---------------------------------------------------------------- the image file

struct Image {
    std::string path;
    int fd = -1;
    uint64_t bytes = 0;

    void close_file() {
        if (fd >= 0) {
            ::close(fd);
        }
        fd = -1;
        bytes = 0;
        path.clear();
    }
    // Opens `p` afresh (its size may have changed since); false when it cannot be used.
    bool open_file(const std::string& p) {
        close_file();
        if (p.empty()) {
            return false;
        }
        int f = ::open(p.c_str(), O_RDWR);
        struct stat st {};
        if (f < 0 || fstat(f, &st) != 0) {
            if (errno != ENOENT) { // a board without an image simply has an empty slot
                message("card image %s: %s; the slot reads as empty", p.c_str(), std::strerror(errno));
            }
            if (f >= 0) {
                ::close(f);
            }
            return false;
        }
        fd = f;
        path = p;
        bytes = static_cast<uint64_t>(st.st_size);
        return true;
    }
    void read(uint32_t sector, uint8_t* out) const {
        std::memset(out, 0, block_size);
        ssize_t n = pread(fd, out, block_size, static_cast<off_t>(sector) * block_size);
        (void)n; // past the end of a sparse image: zeros
    }
    bool write(uint32_t sector, const uint8_t* in) const {
        return pwrite(fd, in, block_size, static_cast<off_t>(sector) * block_size) ==
               static_cast<ssize_t>(block_size);
    }
};

// ---------------------------------------------------------------- settings shared with the tests

std::string g_image_path; // set by sd_set_image; empty: board/sdcard.img in hxc3-sim
bool g_image_set = false;
uint64_t g_cut_after = 0;
std::vector<SdCommand> g_commands;

std::string image_path() {
    if (g_image_set) {
        return g_image_path;
    }
    return board_dir().empty() ? std::string() : board_dir() + "/sdcard.img";
}

// ---------------------------------------------------------------- the card

class Card final : public SpiDevice {
  public:
    void power_on() override {
        read_slot();
        open_image();
    }
    void select(bool selected) override {
        if (selected) {
            if (card_changes() != seen_changes_) {
                read_slot();
            }
            if (!spi_mode_) {
                kind_ = read_kind();
                sectors_ = card_sectors();
            }
            return;
        }
        frame_len_ = 0;
        out_.clear();
        read_.active = false;
    }
    uint8_t exchange(uint8_t mosi) override {
        if (card_changes() != seen_changes_) { // taken out or swapped in the middle of a transfer
            read_slot();
        }
        if (!usable()) {
            return 0xFF;
        }
        uint8_t miso = next_out();
        take_in(mosi);
        return miso;
    }
    void open_image() {
        image_.open_file(image_path());
        sectors_ = card_sectors();
    }
    // Identification runs at 400 kHz at most until initialisation reports the card ready; then
    // the default-speed limit of 25 MHz holds. An empty slot has no limit.
    uint32_t max_clock_hz() const override {
        if (!usable()) {
            return 0;
        }
        return idle_ ? 400000 : 25000000;
    }
    const char* name() const override { return "microSD card"; }

  private:
    // -------------------------------------------------------- state
    struct ReadStream {
        bool active = false;
        bool multi = false;
        bool reg = false; // a 16-byte register rather than a sector
        uint32_t sector = 0;
        uint64_t ready_ns = 0;
        int pos = -1; // -1: before the start token; then data, then the two CRC bytes
        int len = 0;
        uint16_t crc = 0;
        uint8_t data[block_size] = {};
    };
    enum class Receive { none, token, data };
    struct WriteStream {
        Receive state = Receive::none;
        bool multi = false;
        uint32_t sector = 0;
        int pos = 0;
        uint8_t data[block_size] = {};
    };

    Slot slot_ = Slot::absent;
    Kind kind_ = Kind::sdhc;
    uint32_t seen_changes_ = 0;
    Image image_;
    uint32_t sectors_ = 0; // the capacity the CSD reports

    bool spi_mode_ = false;
    bool idle_ = true;
    bool app_next_ = false;
    bool host_v2_ = false; // CMD8 seen since the last CMD0
    int init_answers_ = 0;
    uint8_t status_ = 0; // R2's second byte, cleared when read
    uint64_t busy_until_ = 0;
    uint8_t frame_[6] = {};
    int frame_len_ = 0;
    std::deque<uint8_t> out_;
    ReadStream read_;
    WriteStream write_;

    // -------------------------------------------------------- slot and kind

    void read_slot() {
        seen_changes_ = card_changes();
        std::string v = scenario_str("card", "present");
        if (v == "absent") {
            slot_ = Slot::absent;
        } else if (v == "protected") {
            slot_ = Slot::write_protected;
        } else {
            if (v != "present") {
                message("card = %s: not present, absent or protected; taken as present", v.c_str());
            }
            slot_ = Slot::present;
        }
        power_up_card();
        kind_ = read_kind();
        sectors_ = card_sectors();
    }

    static Kind read_kind() {
        std::string v = scenario_str("card.type", "sdhc");
        if (v == "sdsc") {
            return Kind::sdsc;
        }
        if (v == "sdv1") {
            return Kind::sdv1;
        }
        if (v == "mmc") {
            return Kind::mmc;
        }
        if (v == "badv2") {
            return Kind::badv2;
        }
        return Kind::sdhc;
    }

    void power_up_card() {
        spi_mode_ = false;
        go_idle();
        busy_until_ = 0;
        status_ = 0;
        frame_len_ = 0;
        out_.clear();
    }

    void go_idle() {
        idle_ = true;
        app_next_ = false;
        host_v2_ = false;
        init_answers_ = 0;
        read_ = ReadStream{};
        write_.state = Receive::none;
    }

    bool usable() const { return slot_ != Slot::absent && image_.fd >= 0 && sectors_ > 0; }
    bool high_capacity() const { return kind_ == Kind::sdhc || kind_ == Kind::badv2; }
    bool is_sd() const { return kind_ != Kind::mmc; }

    // The capacity the current kind's CSD can express, at most the image's size: version 2 counts
    // (C_SIZE + 1) x 512 KiB with a 22-bit C_SIZE, version 1 (C_SIZE + 1) x 2^(C_SIZE_MULT + 2) x
    // 2^READ_BL_LEN bytes with a 12-bit C_SIZE.
    uint32_t card_sectors() const {
        uint64_t sectors = image_.bytes / block_size;
        if (high_capacity()) {
            return static_cast<uint32_t>(std::min<uint64_t>(sectors / 1024, (1u << 22) - 1) * 1024);
        }
        uint32_t c_size = 0;
        uint32_t mult = 0;
        uint32_t bl_len = 9;
        return v1_geometry(sectors, c_size, mult, bl_len);
    }

    // The largest (C_SIZE + 1) << shift not above `sectors`, shift = READ_BL_LEN - 9 + C_SIZE_MULT + 2.
    static uint32_t v1_geometry(uint64_t sectors, uint32_t& c_size, uint32_t& mult, uint32_t& bl_len) {
        for (uint32_t shift = 2; shift <= 11; ++shift) {
            uint64_t units = sectors >> shift;
            if (units <= 4096 || shift == 11) {
                units = std::min<uint64_t>(units, 4096);
                if (units == 0) {
                    c_size = 0;
                    mult = 0;
                    bl_len = 9;
                    return 0;
                }
                c_size = static_cast<uint32_t>(units - 1);
                mult = shift - 2 <= 7 ? shift - 2 : 7;
                bl_len = 9 + (shift - 2 - mult);
                return static_cast<uint32_t>(units << shift);
            }
        }
        return 0;
    }

    // -------------------------------------------------------- registers

    void build_csd(uint8_t* csd) const {
        std::memset(csd, 0, 16);
        uint64_t sectors = image_.bytes / block_size;
        if (high_capacity()) {
            uint64_t units = std::min<uint64_t>(sectors / 1024, (1u << 22) - 1);
            uint32_t c_size = units > 0 ? static_cast<uint32_t>(units - 1) : 0;
            csd[0] = 0x40; // CSD version 2
            csd[1] = 0x0E; // TAAC
            csd[3] = 0x32; // TRAN_SPEED 25 MHz
            csd[4] = 0x5B; // CCC
            csd[5] = 0x59; // CCC, READ_BL_LEN 9
            csd[7] = static_cast<uint8_t>((c_size >> 16) & 0x3F);
            csd[8] = static_cast<uint8_t>(c_size >> 8);
            csd[9] = static_cast<uint8_t>(c_size);
            csd[10] = 0x7F; // ERASE_BLK_EN, SECTOR_SIZE
            csd[11] = 0x80;
            csd[12] = 0x0A; // R2W_FACTOR, WRITE_BL_LEN 9
            csd[13] = 0x40;
        } else {
            uint32_t c_size = 0;
            uint32_t mult = 0;
            uint32_t bl_len = 9;
            v1_geometry(sectors, c_size, mult, bl_len);
            // MMC cards report CSD structure 2 (version 1.2) and specification version 4.
            csd[0] = kind_ == Kind::mmc ? 0x90 : 0x00;
            csd[1] = 0x26;                             // TAAC
            csd[3] = kind_ == Kind::mmc ? 0x2A : 0x32; // TRAN_SPEED 20 or 25 MHz
            csd[4] = 0x5B;
            csd[5] = static_cast<uint8_t>(0x50 | bl_len);
            csd[6] = static_cast<uint8_t>(0x80 | ((c_size >> 10) & 0x03)); // READ_BL_PARTIAL
            csd[7] = static_cast<uint8_t>(c_size >> 2);
            csd[8] = static_cast<uint8_t>(((c_size & 0x03) << 6) | 0x3F); // VDD_R_CURR
            csd[9] = static_cast<uint8_t>(0xFC | ((mult >> 1) & 0x03));   // VDD_W_CURR
            csd[10] = static_cast<uint8_t>(((mult & 0x01) << 7) | 0x7F);
            csd[11] = 0x80;
            csd[12] = 0x0A;
            csd[13] = 0x40;
        }
        csd[14] = slot_ == Slot::write_protected ? 0x10 : 0x00; // TMP_WRITE_PROTECT
        csd[15] = static_cast<uint8_t>((crc7(csd, 15) << 1) | 1);
    }

    void build_cid(uint8_t* cid) const {
        std::memset(cid, 0, 16);
        cid[0] = 0x5A; // manufacturer
        if (kind_ == Kind::mmc) {
            cid[2] = 0x48; // OEM
            std::memcpy(cid + 3, "SIMMMC", 6);
            cid[9] = 0x10;  // revision 1.0
            cid[13] = 0x01; // serial number
            cid[14] = 0x1D; // January 2010 (4-bit year from 1997)
        } else {
            cid[1] = 'H';
            cid[2] = 'X';
            std::memcpy(cid + 3, "SIMSD", 5);
            cid[8] = 0x10;  // revision 1.0
            cid[12] = 0x01; // serial number
            cid[13] = 0x01; // January 2026 (year from 2000: 0x1A)
            cid[14] = 0xA1;
        }
        cid[15] = static_cast<uint8_t>((crc7(cid, 15) << 1) | 1);
    }

    void ocr(uint8_t* out) const {
        bool ready = !idle_;
        out[0] = static_cast<uint8_t>((ready ? 0x80 : 0) | (ready && high_capacity() ? 0x40 : 0));
        out[1] = 0xFF; // 2.7-3.6 V
        out[2] = 0x80;
        out[3] = 0x00;
    }

    // -------------------------------------------------------- what the card sends

    uint8_t next_out() {
        if (!out_.empty()) {
            uint8_t b = out_.front();
            out_.pop_front();
            return b;
        }
        if (read_.active) {
            return next_read_byte();
        }
        if (now_ns() < busy_until_) {
            return 0x00;
        }
        return 0xFF;
    }

    uint8_t next_read_byte() {
        ReadStream& r = read_;
        if (now_ns() < r.ready_ns) {
            return 0xFF;
        }
        if (r.pos < 0) {
            if (!r.reg) {
                if (r.sector >= sectors_) {
                    r.active = false;
                    status_ |= r2_out_of_range;
                    return token_out_of_range;
                }
                image_.read(r.sector, r.data);
                r.len = block_size;
            }
            r.crc = crc16(r.data, static_cast<size_t>(r.len));
            r.pos = 0;
            return token_start;
        }
        if (r.pos < r.len) {
            return r.data[r.pos++];
        }
        if (r.pos == r.len) {
            r.pos++;
            return static_cast<uint8_t>(r.crc >> 8);
        }
        uint8_t last = static_cast<uint8_t>(r.crc);
        if (!r.reg) {
            stats().sd_reads++;
        }
        if (r.multi) {
            r.sector++;
            r.pos = -1;
            r.ready_ns = now_ns() + access_ns;
        } else {
            r.active = false;
        }
        return last;
    }

    uint8_t r1() const { return idle_ ? r1_idle : 0x00; }

    // A response: the card answers on the second byte after the command.
    void reply(std::initializer_list<uint8_t> bytes) {
        out_.push_back(0xFF);
        out_.insert(out_.end(), bytes);
    }

    // -------------------------------------------------------- what the card receives

    void take_in(uint8_t mosi) {
        if (write_.state != Receive::none && take_write_byte(mosi)) {
            return;
        }
        if (frame_len_ == 0) {
            if ((mosi & 0xC0) != 0x40) {
                return; // not a command's start: 0xFF fill, or noise
            }
        }
        frame_[frame_len_++] = mosi;
        if (frame_len_ == 6) {
            frame_len_ = 0;
            execute();
        }
    }

    // True when the byte belonged to a write.
    bool take_write_byte(uint8_t mosi) {
        WriteStream& w = write_;
        if (w.state == Receive::token) {
            if (mosi == 0xFF) {
                return true;
            }
            if (mosi == (w.multi ? token_multi : token_start)) {
                w.state = Receive::data;
                w.pos = 0;
                return true;
            }
            if (w.multi && mosi == token_stop) {
                w.state = Receive::none;
                busy_until_ = now_ns() + stop_busy_ns;
                return true;
            }
            if ((mosi & 0xC0) == 0x40) {
                w.state = Receive::none; // a command instead of data ends the write
                return false;
            }
            return true;
        }
        if (w.pos < static_cast<int>(block_size)) {
            w.data[w.pos] = mosi;
        }
        w.pos++;
        if (w.pos == static_cast<int>(block_size) + 2) { // data and the CRC, which is not checked
            program();
        }
        return true;
    }

    void program() {
        WriteStream& w = write_;
        w.state = w.multi ? Receive::token : Receive::none;
        uint32_t sector = w.sector++;
        if (slot_ == Slot::write_protected) {
            status_ |= r2_wp_violation;
            out_.push_back(response_write_error);
            return;
        }
        if (sector >= sectors_ || !image_.write(sector, w.data)) {
            status_ |= r2_out_of_range;
            out_.push_back(response_write_error);
            return;
        }
        stats().sd_writes++;
        if ((g_cut_after != 0 && --g_cut_after == 0) || scripted_cut_due()) {
            power_off(PowerEvent::power_cycle);
        }
        out_.push_back(response_accepted);
        busy_until_ = now_ns() + program_ns;
    }

    // The scenario's card.cut_after_writes = k cuts the power as the k-th sector write from then on
    // reaches the card, once (the count lives with the scenario, so it runs on across power-on
    // periods until it is spent).
    static bool scripted_cut_due() {
        double left = scenario_num("card.cut_after_writes", 0);
        if (left < 1) {
            return false;
        }
        left -= 1;
        char text[24];
        std::snprintf(text, sizeof text, "%.0f", left);
        scenario_set("card.cut_after_writes", text);
        return left < 1;
    }

    void record(uint8_t index, uint32_t arg, bool app) {
        if (g_commands.size() < command_log_max) {
            g_commands.push_back(SdCommand{index, arg, app});
        }
    }

    void execute() {
        uint8_t cmd = frame_[0] & 0x3F;
        uint32_t arg = (static_cast<uint32_t>(frame_[1]) << 24) | (static_cast<uint32_t>(frame_[2]) << 16) |
                       (static_cast<uint32_t>(frame_[3]) << 8) | frame_[4];
        bool crc_ok = frame_[5] == static_cast<uint8_t>((crc7(frame_, 5) << 1) | 1);
        bool app = app_next_;
        app_next_ = false;
        record(cmd, arg, app);
        if (now_ns() < busy_until_) {
            return; // busy: the command is not taken
        }
        if (!spi_mode_) {
            if (cmd == 0 && crc_ok) { // in SD mode the CRC counts
                spi_mode_ = true;
                go_idle();
                reply({r1_idle});
            }
            return;
        }
        if (cmd == 8 && !crc_ok) {
            reply({static_cast<uint8_t>(r1() | r1_crc_error)});
            return;
        }
        if (app) {
            app_command(cmd, arg);
            return;
        }
        if (idle_ && cmd != 0 && cmd != 1 && cmd != 8 && cmd != 55 && cmd != 58 && cmd != 59) {
            reply({static_cast<uint8_t>(r1() | r1_illegal)});
            return;
        }
        command(cmd, arg);
    }

    void command(uint8_t cmd, uint32_t arg) {
        switch (cmd) {
        case 0:
            go_idle();
            reply({r1_idle});
            return;
        case 1:
            op_cond(arg);
            return;
        case 8:
            if_cond(arg);
            return;
        case 9:
        case 10:
            send_register(cmd);
            return;
        case 12:
            stop_transmission();
            return;
        case 13:
            reply({r1(), status_});
            status_ = 0;
            return;
        case 16:
            reply({static_cast<uint8_t>(high_capacity() || arg == block_size ? r1()
                                                                             : r1() | r1_parameter_error)});
            return;
        case 17:
        case 18:
            start_read(arg, cmd == 18);
            return;
        case 24:
        case 25:
            start_write(arg, cmd == 25);
            return;
        case 55:
            if (!is_sd()) {
                break;
            }
            app_next_ = true;
            reply({r1()});
            return;
        case 58: {
            uint8_t o[4];
            ocr(o);
            reply({r1(), o[0], o[1], o[2], o[3]});
            return;
        }
        case 59:
            reply({r1()});
            return;
        default:
            break;
        }
        reply({static_cast<uint8_t>(r1() | r1_illegal)});
    }

    void app_command(uint8_t cmd, uint32_t arg) {
        if (cmd == 41) {
            op_cond(arg);
        } else if (cmd == 23 && !idle_) {
            reply({r1()}); // the pre-erase count is only a hint
        } else {
            reply({static_cast<uint8_t>(r1() | r1_illegal)});
        }
    }

    void op_cond(uint32_t arg) {
        bool hcs = (arg & (1u << 30)) != 0;
        bool stuck = high_capacity() && !(host_v2_ && hcs); // the host would not understand it
        if (idle_ && !stuck && ++init_answers_ > init_still_idle) {
            idle_ = false;
        }
        reply({r1()});
    }

    void if_cond(uint32_t arg) {
        if (kind_ == Kind::sdv1 || kind_ == Kind::mmc) {
            reply({static_cast<uint8_t>(r1() | r1_illegal)});
            return;
        }
        host_v2_ = true;
        uint8_t voltage = ((arg >> 8) & 0x0F) == 0x01 ? 0x01 : 0x00;
        uint8_t pattern = static_cast<uint8_t>(arg);
        if (kind_ == Kind::badv2) {
            pattern = static_cast<uint8_t>(~pattern);
        }
        reply({r1(), 0x00, 0x00, voltage, pattern});
    }

    void send_register(uint8_t cmd) {
        read_ = ReadStream{};
        if (cmd == 9) {
            build_csd(read_.data);
        } else {
            build_cid(read_.data);
        }
        read_.active = true;
        read_.reg = true;
        read_.len = 16;
        read_.ready_ns = now_ns();
        reply({r1(), 0xFF});
    }

    void stop_transmission() {
        if (!read_.active || !read_.multi) {
            reply({static_cast<uint8_t>(r1() | r1_illegal)});
            return;
        }
        uint8_t stuff = next_read_byte(); // the data goes on for one more byte
        read_.active = false;
        out_.push_back(stuff);
        out_.push_back(r1());
        busy_until_ = now_ns() + stop_busy_ns;
    }

    // The sector a read or write command addresses; false with the R1 error bit otherwise.
    bool sector_of(uint32_t arg, uint32_t& sector, uint8_t& error) const {
        if (high_capacity()) {
            sector = arg;
        } else if (arg % block_size != 0) {
            error = r1_address_error;
            return false;
        } else {
            sector = arg / block_size;
        }
        if (sector >= sectors_) {
            error = r1_parameter_error;
            return false;
        }
        return true;
    }

    void start_read(uint32_t arg, bool multi) {
        uint32_t sector = 0;
        uint8_t error = 0;
        if (!sector_of(arg, sector, error)) {
            reply({static_cast<uint8_t>(r1() | error)});
            return;
        }
        read_ = ReadStream{};
        read_.active = true;
        read_.multi = multi;
        read_.sector = sector;
        read_.ready_ns = now_ns() + access_ns;
        reply({r1()});
    }

    void start_write(uint32_t arg, bool multi) {
        uint32_t sector = 0;
        uint8_t error = 0;
        if (!sector_of(arg, sector, error)) {
            reply({static_cast<uint8_t>(r1() | error)});
            return;
        }
        write_.state = Receive::token;
        write_.multi = multi;
        write_.sector = sector;
        reply({r1()});
    }
};

Card g_card;
bool g_attached = false;

[[noreturn]] void format_power_off(PowerEvent) {
    _exit(5);
}

// Writes each file into the root directory of the volume just made, as the firmware writes its own.
FRESULT write_card_files(const std::vector<CardFile>& files) {
    if (files.empty()) {
        return FR_OK;
    }
    static FATFS fs;
    FRESULT fr = f_mount(&fs, "", 1);
    for (size_t i = 0; fr == FR_OK && i < files.size(); ++i) {
        FIL f;
        fr = f_open(&f, files[i].name.c_str(), FA_WRITE | FA_CREATE_NEW);
        if (fr != FR_OK) {
            break;
        }
        UINT written = 0;
        fr = f_write(&f, files[i].text.data(), static_cast<UINT>(files[i].text.size()), &written);
        if (fr == FR_OK && written != files[i].text.size()) {
            fr = FR_DENIED; // the volume is full
        }
        FRESULT closed = f_close(&f);
        if (fr == FR_OK) {
            fr = closed;
        }
    }
    f_unmount("");
    return fr;
}

} // namespace

void sdcard_attach() {
    if (!g_attached) {
        g_attached = true;
        ssi_attach(0, &g_card, GPIO_PORTA_BASE, GPIO_PIN_3);
    }
}

} // namespace sim::dev

namespace sim {

void sd_set_image(const std::string& path) {
    dev::g_image_path = path;
    dev::g_image_set = true;
    dev::g_card.open_image();
}

void sd_cut_power_after_writes(uint64_t k) {
    dev::g_cut_after = k;
}

const std::vector<SdCommand>& sd_commands() {
    return dev::g_commands;
}

void sd_clear_commands() {
    dev::g_commands.clear();
}

void sd_reset() {
    dev::g_image_path.clear();
    dev::g_image_set = false;
    dev::g_cut_after = 0;
    dev::g_commands.clear();
    dev::g_card.open_image();
}

bool sd_make_image(const std::string& path, uint64_t bytes, uint8_t fmt, const std::vector<CardFile>& files) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        message("cannot create %s: %s", path.c_str(), std::strerror(errno));
        if (fd >= 0) {
            ::close(fd);
            unlink(path.c_str());
        }
        return false;
    }
    ::close(fd);
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        message("fork: %s", std::strerror(errno));
        unlink(path.c_str());
        return false;
    }
    if (pid == 0) {
        // A board of its own, with this image in the slot and the system tick running for the
        // driver's time-outs.
        use_shared(nullptr);
        clear_shared(0);
        shared().run_for_ns = 3600 * ns_per_s;
        set_board_dir("");
        set_host(Host{[](uint8_t) {}, nullptr, 0, dev::format_power_off});
        sd_set_image(path);
        devices_power_on();
        connect_console();
        begin_period(WakeSource::power);
        SysCtlClockSet(SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
        SysTickPeriodSet(SysCtlClockGet() / 1000);
        SysTickIntEnable();
        SysTickEnable();
        IntMasterEnable();
        static uint8_t work[32768];
        MKFS_PARM opt{};
        opt.fmt = static_cast<BYTE>(fmt | FM_SFD);
        // One FAT: a power cut between the updates of two copies would leave them disagreeing.
        opt.n_fat = 1;
        FRESULT fr = f_mkfs("", &opt, work, sizeof work);
        if (fr == FR_OK) {
            fr = dev::write_card_files(files);
        }
        _exit(fr == FR_OK ? 0 : 10 + static_cast<int>(fr));
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        if (code >= 10) {
            message("formatting %s failed: the FAT module returned %d", path.c_str(), code - 10);
        } else {
            message("formatting %s failed", path.c_str());
        }
        unlink(path.c_str());
        return false;
    }
    return true;
}

} // namespace sim
