// Machine-to-machine session on the console.
//
// A float controller and a person at a terminal share one line. handle_m2m_comm takes one byte per
// call and builds the line in rx0: a line ends on a carriage return or on tick_ms_delim milliseconds
// of silence (250 ms for a controller, seconds for a person), then goes to the command parser. Four
// carriage returns on an idle line open the operator menu; frames that start with "<" or 0xAA belong
// to other equipment on the line and are swallowed unparsed.
#include "hostlink/serial.h"

#include <cstring>

#include "board/board_util.h"
#include "board/timebase.h"
#include "driverlib/hibernate.h"
#include "records/apf.h"
#include "hostlink/serial_cmd.h"
#include "ports/uartstdio.h"
#include "spectrometer/uvs.h"

rxStateMach rx0 = {};

namespace {

constexpr uint8_t CR = 13;
constexpr uint8_t BACKSPACE = 8;
constexpr uint8_t DEL = 0x7F;
constexpr uint8_t FRAME_START = '<';
constexpr uint8_t FRAME_START_BIN = 0xAA;
constexpr uint32_t LINE_LAST = sizeof(rx0.buf) - 1; // the 64th and later bytes all land here

constexpr uint32_t STATE_IDLE = 0;
constexpr uint32_t STATE_BREAK_IN = 1;
constexpr uint32_t STATE_TEXT = 2;
constexpr uint32_t STATE_FRAME = 3;

// Carriage returns in a row that open the operator menu.
constexpr uint32_t BREAK_IN_CRS = 4;

constexpr uint32_t CODE_NONE = 0;
constexpr uint32_t CODE_TS = 3;
constexpr uint32_t CODE_SL = 5;
constexpr uint32_t CODE_SLEEP = 10;
constexpr uint32_t CODE_MENU = 83;
constexpr uint32_t CODE_OFF = 113;

bool is_letter(uint8_t c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

uint8_t to_lower(uint8_t c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<uint8_t>(c + ('a' - 'A')) : c;
}

uint8_t to_upper(uint8_t c) {
    return (c >= 'a' && c <= 'z') ? static_cast<uint8_t>(c - ('a' - 'A')) : c;
}

// The first letters of the command words; A, J, K, U and X begin none and are refused.
bool starts_a_command(uint8_t c) {
    c = to_lower(c);
    return (c >= 'b' && c <= 'i') || (c >= 'l' && c <= 't') || c == 'v' || c == 'w' || c == 'y' || c == 'z';
}

void echo(uint8_t c) {
    char ch = static_cast<char>(c);
    UARTwrite(&ch, 1);
}

void reset(void) {
    rx0.state = STATE_IDLE;
    m2m_statemachine_init();
}

// Stores a byte of the line; once the buffer is full every further byte replaces the last one.
void store(uint8_t c) {
    rx0.buf[rx0.indx] = c;
    if (rx0.indx < LINE_LAST) {
        rx0.indx++;
        rx0.buf[rx0.indx] = 0;
    }
    rx0.tick_ms_start = rx0.tick_ms_now;
}

int32_t idle_byte(uint8_t c) {
    if (c == CR) {
        print_prompt();
        rx0.cr_cnt++;
        if (rx0.cr_cnt >= BREAK_IN_CRS) {
            rx0.cr_cnt = 0;
            rx0.state = STATE_BREAK_IN;
            UARTEchoSet(true);
        }
        return 1;
    }
    if (c == FRAME_START || c == FRAME_START_BIN) {
        rx0.state = STATE_FRAME;
        rx0.cmd = 0;
        rx0.indx = 0;
        rx0.cr_cnt = 0;
        rx0.tick_ms_start = rx0.tick_ms_now;
        return 1;
    }
    if (starts_a_command(c)) {
        echo(c);
        rx0.cr_cnt = 0;
        rx0.cmd = 0;
        rx0.state = STATE_TEXT;
        rx0.tick_ms_start = rx0.tick_ms_now;
        rx0.buf[0] = to_lower(c);
        rx0.indx = 1;
        rx0.buf[1] = 0;
        return 1;
    }
    print_NAK();
    reset();
    return 1;
}

// The byte after the fourth carriage return, whatever it is, opens the menu. Instruments left
// powered by an interrupted controller session are switched off first.
int32_t break_in(void) {
    if (apf.isus_spec_pwr == 1) {
        uvs_spec_power(0);
        apf.isus_spec_pwr = uvs_spec_on ? 1 : 0;
        uprintf("\n  Spectrometer Power was left ON! Powering DOWN...\n");
    }
    if (apf.isus_lamp_pwr == 1) {
        uvs_lamp_power(0);
        apf.isus_lamp_pwr = uvs_lamp_on ? 1 : 0;
        uprintf("\n  Fiberlight Power was left ON! Powering DOWN...\n");
    }
    m2m_open_menu();
    reset();
    return 1;
}

// True for the commands after which the board goes back to sleep: the sleep words, "off", and a
// sample request or resend in legacy mode, where the controller powers the board per sample.
bool ends_session(uint32_t code) {
    if (code == CODE_SLEEP || code == CODE_OFF) {
        return true;
    }
    return (code == CODE_TS || code == CODE_SL) && apf.sys_sensor_mode == 0;
}

int32_t end_of_line(void) {
    uprintf("\r\n");
    uint32_t code = parse_rx0_buf();
    if (code == CODE_NONE) {
        print_NAK();
        reset();
        return STATE_TEXT;
    }
    if (ends_session(code)) {
        return -1;
    }
    if (code == CODE_MENU) {
        reset(); // the prompt comes out twice after the menu
    }
    reset();
    return STATE_TEXT;
}

int32_t text_byte(uint8_t c) {
    if (c == CR) {
        return end_of_line();
    }
    if (c == BACKSPACE || c == DEL) {
        uprintf("\b \b");
        if (rx0.indx > 0) {
            rx0.indx--;
        }
        rx0.buf[rx0.indx] = 0;
        rx0.tick_ms_start = rx0.tick_ms_now;
        return STATE_TEXT;
    }
    echo(c);
    store(to_lower(c));
    return STATE_TEXT;
}

int32_t frame_byte(uint8_t c) {
    if (c == FRAME_START || c == FRAME_START_BIN) {
        rx0.tick_ms_start = rx0.tick_ms_now;
        return STATE_FRAME;
    }
    if (is_letter(c)) {
        store(to_lower(c));
        return STATE_FRAME;
    }
    reset();
    return STATE_FRAME;
}

// A controller that finds the menu open sends "U", which the receive machine refuses; the refusal
// hands the key back to the menu. The menu may itself be running inside the receive machine (opened
// by the fourth Enter, or by "m" on the command line), so the machine restarts from idle first:
// otherwise its open line or break-in state would take the byte and open a menu within this one.
// From idle every byte is handled at once, so this never waits.
void refuse_in_menu(void) {
    UARTEchoSet(false);
    rx0.state = STATE_IDLE;
    rx0.cr_cnt = 0;
    rx0.indx = 0;
    memset(rx0.buf, 0, sizeof(rx0.buf));
    handle_m2m_comm();
    UARTEchoSet(true);
}

} // namespace

uint32_t deployDelay = 30;

namespace {
void (*menu_entry)(void) = nullptr;
} // namespace

void m2m_set_menu(void (*open_menu)(void)) {
    menu_entry = open_menu;
}

void m2m_open_menu(void) {
    if (menu_entry != nullptr) {
        menu_entry();
    }
}

void m2m_statemachine_init(void) {
    UARTEchoSet(false);
    rx0.state = 0;
    rx0.cmd = 0;
    rx0.cnt = 0;
    rx0.cr_cnt = 0;
    rx0.indx = 0;
    rx0.tick_ms_delta = 0;
    rx0.tick_ms_start = Timer_1ms(0);
    rx0.tick_ms_now = rx0.tick_ms_start;
    memset(rx0.buf, 0, sizeof(rx0.buf));
    print_prompt();
}

void apf_set_m2m_timeout(void) {
    rx0.tick_ms_delim = 250;
}

void apf_set_h2m_timeout(uint32_t seconds) {
    rx0.tick_ms_delim = 1000 * seconds;
}

int32_t handle_m2m_comm(void) {
    rx0.tick_ms_now = Timer_1ms(0);
    bool silence = false;
    if (rx0.indx != 0) {
        rx0.tick_ms_delta = rx0.tick_ms_now - rx0.tick_ms_start;
        silence = rx0.tick_ms_delta >= rx0.tick_ms_delim;
    }
    if (silence) {
        // A pause ends the line as a carriage return would, but never counts towards the menu.
        rx0.byte = CR;
        rx0.cr_cnt = 0;
    } else {
        if (!UARTrdy()) {
            return 0;
        }
        rx0.byte = getChar();
        rx0.cnt++;
    }

    switch (rx0.state) {
    case STATE_IDLE:
        return idle_byte(rx0.byte);
    case STATE_BREAK_IN:
        return break_in();
    case STATE_TEXT:
        return text_byte(rx0.byte);
    case STATE_FRAME:
        return frame_byte(rx0.byte);
    case 4:
    case 5:
        return static_cast<int32_t>(rx0.state);
    default:
        reset();
        return 1;
    }
}

uint8_t get_key_m2m(void) {
    return get_key_m2m_until(rtc_deadline(MENU_KEY_TIMEOUT_S));
}

uint8_t get_key_m2m_until(const RtcDeadline& deadline) {
    for (;;) {
        if (UARTPeek('\r') >= 0) {
            char line[5];
            UARTgets(line, sizeof(line));
            return static_cast<uint8_t>(line[0]);
        }
        if (UARTPeek('U') >= 0) {
            refuse_in_menu();
            return 1;
        }
        if (rtc_deadline_passed(deadline)) {
            return 0;
        }
        wdog_pet();
    }
}

int32_t MatchACK(char* text) {
    char* end = strchr(text, '\r');
    if (end != nullptr) {
        *end = '\0';
    }
    end = strchr(text, '\n');
    if (end != nullptr) {
        *end = '\0';
    }
    for (char* p = text; *p != '\0'; p++) {
        *p = static_cast<char>(to_upper(static_cast<uint8_t>(*p)));
    }
    if (strlen(text) != 3) {
        return -1;
    }
    if (strstr(text, "ACK") != nullptr) {
        return 6;
    }
    if (strstr(text, "NAK") != nullptr) {
        return 21;
    }
    return -1;
}

int32_t waitACK(uint32_t timeout_ms) {
    char reply[4] = {};
    uint32_t count = 0;
    uint32_t start = Timer_1ms(0);
    while (Timer_1ms(0) - start <= timeout_ms) {
        wdog_pet();
        if (!UARTrdy()) {
            continue;
        }
        unsigned char c = getChar();
        if (c < 'A' || c > 'z') {
            uprintf("DBG: illegal char %c\r\n", c);
            return 0;
        }
        c = static_cast<unsigned char>(c & ~0x20u);
        uprintf("DBG: good char %c\r\n", c);
        if (count == 3) {
            uprintf("DBG: string too big, %c\r\n", c);
            return 0;
        }
        reply[count++] = static_cast<char>(c);
        if (count == 3 && strcmp(reply, "ACK") == 0) {
            uprintf("DBG: good ACK\r\n");
            return 1;
        }
        start = Timer_1ms(0);
    }
    return -1;
}
