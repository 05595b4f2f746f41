// The console command line: the received line rx0.buf is matched against an ordered table of command
// words and the first match runs its handler.
//
// Each word is compared over its own length, so a longer line that begins with a word matches it;
// the order of the table therefore decides which of two overlapping words wins, and several rows
// are there only to be shadowed by an earlier one. Single-letter words (and "se") match only a line
// that is exactly that word.
#include "hostlink/serial_cmd.h"

#include <cstring>

#include "records/system.h"
#include "storage/settings.h"
#include "records/apf.h"
#include "hostlink/apf_cmd.h"
#include "hostlink/cmd_handlers.h"
#include "hostlink/serial.h"
#include "hostlink/ymodem.h"
#include "measure/sample.h"
#include "measure/sample_line.h"
#include "measure/pump.h"
#include "ports/uartstdio.h"
#include "spectrometer/uvs.h"
#include "storage/calfile.h"
#include "storage/config.h"
#include "storage/file_shell.h"
#include "storage/i2c_fram.h"

uint32_t sample_select = 0;

namespace {

// A data-output switch word: ",s" calls the setter with the byte four places after the selector,
// ",g" the getter, anything else the test routine. The selector normally follows the word itself;
// two words read it elsewhere (see their rows).
struct FlagWord {
    uint32_t set_at; // position of the "s" selector; the setter's byte is at set_at + 4
    uint32_t get_at; // position of the "g" selector
    void (*set)(uint8_t);
    void (*get)(void);
    void (*test)(uint8_t);
    uint32_t set_code;
    uint32_t get_code;
    uint32_t test_code;
};

struct CmdWord {
    const char* word;
    uint32_t n;            // characters compared
    bool whole;            // the line must end after the word
    uint32_t code;         // rows with one handler
    void (*handler)(void); // and its handler
    const FlagWord* flag;  // switch rows
    uint32_t (*run)(void); // rows that choose their code from the line; they run the handler
};

const char* line(void) {
    return reinterpret_cast<const char*>(rx0.buf);
}

bool is_digit(uint8_t c) {
    return c >= '0' && c <= '9';
}

uint32_t store_code(uint32_t code) {
    rx0.cmd = code;
    return code;
}

uint32_t run_flag(const FlagWord& f) {
    if (rx0.buf[f.set_at] == 's') {
        store_code(f.set_code);
        f.set(rx0.buf[f.set_at + 4]);
        return f.set_code;
    }
    if (rx0.buf[f.get_at] == 'g') {
        store_code(f.get_code);
        f.get();
        return f.get_code;
    }
    store_code(f.test_code);
    f.test(1);
    return f.test_code;
}

// Selector right after a word of `len` letters.
constexpr FlagWord flag(uint32_t len, void (*set)(uint8_t), void (*get)(void), void (*test)(uint8_t),
                        uint32_t s, uint32_t g, uint32_t t) {
    return FlagWord{len + 1, len + 1, set, get, test, s, g, t};
}

// "biasneg" reads its selector where a four-letter word would have it, so every form runs the test;
// "biaspos" finds its "s" but looks for "g" inside the word itself. Both are kept as they are.
constexpr FlagWord biasneg_flag{5, 5, cmd_set_biasneg, cmd_get_biasneg, cmd_test_biasneg, 27, 26, 28};
constexpr FlagWord biaspos_flag{8, 5, cmd_set_biaspos, cmd_get_biaspos, cmd_test_biaspos, 30, 29, 31};
constexpr FlagWord ik_flag = flag(2, cmd_set_ik, cmd_get_ik, cmd_test_ik, 36, 35, 37);
constexpr FlagWord ib_flag = flag(2, cmd_set_ib, cmd_get_ib, cmd_test_ib, 33, 32, 34);
constexpr FlagWord tempc_flag = flag(5, cmd_set_tempc, cmd_get_tempc, cmd_test_tempc, 51, 50, 52);
constexpr FlagWord timestamp_flag =
    flag(9, cmd_set_timestamp, cmd_get_timestamp, cmd_test_timestamp, 25, 24, 89);
constexpr FlagWord vbat_flag = flag(4, cmd_set_vbat, cmd_get_vbat, cmd_test_vbat, 70, 69, 71);
constexpr FlagWord vk_std_flag = flag(6, cmd_set_vk_std, cmd_get_vk_std, cmd_test_vk_std, 44, 43, 91);
constexpr FlagWord vk_flag = flag(2, cmd_set_vk, cmd_get_vk, cmd_test_vk, 41, 40, 42);
constexpr FlagWord vrsi_std_flag = flag(8, cmd_set_vrsi_std, cmd_get_vrsi_std, cmd_test_vrsi_std, 57, 56, 87);
constexpr FlagWord vrse_std_flag = flag(8, cmd_set_vrse_std, cmd_get_vrse_std, cmd_test_vrse_std, 65, 64, 88);
constexpr FlagWord vrsi_flag = flag(4, cmd_set_vrsi, cmd_get_vrsi, cmd_test_vrsi, 54, 53, 55);
constexpr FlagWord vrse_flag = flag(4, cmd_set_vrse, cmd_get_vrse, cmd_test_vrse, 62, 61, 63);
constexpr FlagWord vtherm_std_flag =
    flag(10, cmd_set_vtherm_std, cmd_get_vtherm_std, cmd_test_vtherm_std, 49, 48, 92);
constexpr FlagWord vtherm_flag = flag(6, cmd_set_vtherm, cmd_get_vtherm, cmd_test_vtherm, 46, 45, 47);

// ---------------------------------------------------------------- rows that choose their code

uint32_t run_config(void) {
    if (rx0.indx < 7) {
        store_code(81);
        print_config();
        return 81;
    }
    if (rx0.buf[7] == 'h') {
        store_code(77);
        cmd_help_config();
        return 77;
    }
    store_code(82);
    cmd_set_config();
    return 82;
}

uint32_t run_filename(void) {
    if (rx0.indx <= 10) {
        store_code(18);
        cmd_get_filename();
        return 18;
    }
    store_code(19);
    cmd_set_filename();
    return 19;
}

void show_metadata_header(void) {
    print_metadata_header();
}

// Host-to-module line time-out of 2, 3 or 4 seconds by the number of extra "h"s, then the
// float-controller command card.
uint32_t run_hh(void) {
    uint32_t seconds = 2;
    if (rx0.buf[3] == 'h' && rx0.buf[4] == 'h') {
        seconds = 4;
    } else if (rx0.buf[3] == 'h' && rx0.buf[4] == 0) {
        seconds = 3;
    }
    store_code(149);
    apf_set_h2m_timeout(seconds);
    uprintf("term time = %u msec\r\n", static_cast<unsigned>(seconds * 1000));
    print_cmd_big_help();
    return 149;
}

uint32_t run_help(void) {
    store_code(13);
    apf_set_h2m_timeout(1);
    print_cmd_help();
    return 13;
}

uint32_t run_h2m(void) {
    store_code(132);
    apf_set_h2m_timeout(1);
    return 132;
}

uint32_t run_h(void) {
    store_code(132);
    apf_set_h2m_timeout(1);
    apf_print_help();
    return 132;
}

// "ls" and its arguments, split at blanks, as the file shell's command takes them.
uint32_t run_ls(void) {
    store_code(136);
    char words[sizeof(rx0.buf) + 1];
    strncpy(words, line(), sizeof(words) - 1);
    words[sizeof(words) - 1] = '\0';
    char* argv[FILE_SHELL_MAX_ARGS + 1] = {};
    int argc = 0;
    char* p = words;
    while (*p != '\0' && argc < static_cast<int>(FILE_SHELL_MAX_ARGS)) {
        while (*p == ' ' || *p == '\t') {
            *p++ = '\0';
        }
        if (*p == '\0') {
            break;
        }
        argv[argc++] = p;
        while (*p != '\0' && *p != ' ' && *p != '\t') {
            p++;
        }
    }
    Cmd_ls(argc, argv);
    return 136;
}

uint32_t run_microsd(void) {
    if (rx0.indx < 8) {
        store_code(84);
        cmd_get_store();
        return 84;
    }
    store_code(85);
    cmd_set_store();
    return 85;
}

uint32_t run_menu(void) {
    store_code(83);
    m2m_open_menu();
    return 83;
}

// "per 20" sets, "per" and "period" print, anything longer sets. A one-digit value after "per "
// reads as a request for the period: the digit test looks one place too far, as it always has.
uint32_t run_period(void) {
    if (rx0.buf[3] == ' ' && is_digit(rx0.buf[5])) {
        store_code(15);
        cmd_set_period();
        return 15;
    }
    if (rx0.indx <= 7) {
        store_code(14);
        cmd_get_period();
        return 14;
    }
    store_code(15);
    cmd_set_period();
    return 15;
}

// Streaming interval from the line: "sample 30" streams every 3 s (the digit tested is not the one
// read), anything else every 5 s.
uint32_t run_sample(void) {
    uint32_t n = 5;
    if (is_digit(rx0.buf[8])) {
        n = rx0.buf[7] & 0x0F;
    }
    store_code(93);
    cmd_test_sample(n);
    return 93;
}

uint32_t run_sampnum(void) {
    if (rx0.buf[8] == 's') {
        store_code(23);
        cmd_set_cfg_sampnum(rx0.buf[12]);
        return 23;
    }
    if (rx0.buf[8] == 'g') {
        store_code(22);
        cmd_get_cfg_sampnum();
        return 22;
    }
    store_code(90);
    if (rx0.indx > 7) {
        cmd_set_sampnum();
    } else {
        cmd_test_sampnum();
    }
    return 90;
}

void end_streaming(void) {
    databarFlg = 0;
}

uint32_t run_slp(void) {
    store_code(121);
    apf_slp_sleep();
    return store_code(10);
}

uint32_t run_sl(void) {
    store_code(5);
    switch (apf.sys_sensor_mode) {
    case 0:
        uprintf("serial sl apf_send_last_sample\r\n");
        send_last_sample();
        break;
    case 1:
        apf_send_last_nitrate();
        break;
    case 2:
        uprintf("serial sl apf_send_last_ph\r\n");
        apf_send_last_pH();
        break;
    default:
        break;
    }
    return 5;
}

// A sample kept on the card only; its line waits in FRAM for "sl".
uint32_t run_ss(void) {
    store_code(4);
    pump_and_sample(0, 1);
    fram_last_samp_store();
    return 4;
}

uint32_t run_store(void) {
    if (rx0.indx > 5) {
        store_code(85);
        cmd_set_store();
        return 85;
    }
    store_code(84);
    cmd_get_store();
    return 84;
}

uint32_t run_time(void) {
    if (rx0.indx > 6) {
        store_code(12);
        cmd_set_time();
        return 12;
    }
    store_code(11);
    cmd_get_time();
    return 11;
}

uint32_t run_ts(void) {
    store_code(3);
    if (apf.sys_sensor_mode == 0) {
        pump_and_sample(1, 1);
    } else if (apf.sys_sensor_mode == 1) {
        apf_take_sample_nitrate();
    } else {
        apf_take_sample_pH();
    }
    return 3;
}

uint32_t run_t0(void) {
    store_code(145);
    pump_and_sample(1, 1);
    return 145;
}

uint32_t run_t1(void) {
    store_code(128);
    sample_select = 1;
    apf_take_sample_nitrate();
    return 128;
}

uint32_t run_t2(void) {
    store_code(129);
    sample_select = 2;
    apf_take_sample_pH();
    return 129;
}

uint32_t run_ys(void) {
    store_code(143);
    cmd_ymodem_send(3);
    return 143;
}

uint32_t run_z(void) {
    store_code(147);
    uvs_dev_test(1);
    return 147;
}

// ---------------------------------------------------------------- the table, in matching order

constexpr CmdWord word(const char* w, uint32_t n, uint32_t code, void (*handler)(void)) {
    return CmdWord{w, n, false, code, handler, nullptr, nullptr};
}
constexpr CmdWord alone(const char* w, uint32_t n, uint32_t code, void (*handler)(void)) {
    return CmdWord{w, n, true, code, handler, nullptr, nullptr};
}
constexpr CmdWord switch_word(const char* w, uint32_t n, const FlagWord* f) {
    return CmdWord{w, n, false, 0, nullptr, f, nullptr};
}
constexpr CmdWord chooser(const char* w, uint32_t n, uint32_t (*run)(void)) {
    return CmdWord{w, n, false, 0, nullptr, nullptr, run};
}
constexpr CmdWord chooser_alone(const char* w, uint32_t n, uint32_t (*run)(void)) {
    return CmdWord{w, n, true, 0, nullptr, nullptr, run};
}

const CmdWord commands[] = {
    word("bake", 4, 100, apf_bake_uv_lamp),
    switch_word("biasneg", 7, &biasneg_flag),
    switch_word("biaspos", 7, &biaspos_flag),
    alone("c", 1, 101, apf_get_cfg),
    word("c1", 2, 103, apf_get_cfg_isus),
    word("c2", 2, 102, apf_get_cfg_dura),
    word("cal", 3, 104, apf_get_cal),
    chooser("config", 6, run_config),
    word("ctd,?", 5, 106, apf_get_ctd),
    word("ctd", 3, 105, apf_set_ctd),
    word("dev", 3, 148, apf_print_devStatus),
    word("dbg", 3, 151, apf_dbg),
    alone("e", 1, 107, apf_get_err),
    word("ec", 2, 7, export_pH_sensor_cal_coeff),
    chooser("file", 4, run_filename),
    chooser("getfil", 6, run_filename),
    word("files", 5, 86, cmd_filesystem), // never reached: "file" above takes "filesystem"
    word("fit,?", 5, 109, apf_get_fit),
    word("fit", 3, 108, apf_set_fit),
    word("gc", 2, 6, get_pH_sensor_cal_coeff),
    word("getper", 6, 14, cmd_get_period),
    word("gh", 2, 8, get_header),
    word("gm", 2, 9, show_metadata_header),
    chooser("hh", 2, run_hh),
    chooser("help", 4, run_help),
    chooser("h2m", 3, run_h2m),
    chooser_alone("h", 1, run_h),
    switch_word("ik", 2, &ik_flag),
    switch_word("ib", 2, &ib_flag),
    word("init", 4, 110, apf_init_persistent_vars),
    chooser("ls", 2, run_ls),
    chooser("microsd", 7, run_microsd),
    word("mode,?", 6, 112, apf_get_mode),
    word("mode", 4, 111, apf_set_mode),
    word("m2m", 3, 133, apf_set_m2m_timeout),
    chooser_alone("m", 1, run_menu),
    word("off", 3, 113, apf_off),
    alone("p", 1, 114, apf_get_pc),
    chooser("per", 3, run_period),
    alone("q", 1, 115, apf_get_sensor_type),
    word("rtc,?", 5, 117, apf_get_rtc),
    word("rtc", 3, 116, apf_set_rtc),
    chooser("sample", 6, run_sample),
    chooser("sampnum", 7, run_sampnum),
    alone("s", 1, 118, apf_get_sc),
    word("setfil", 6, 19, cmd_set_filename),
    word("setper", 6, 15, cmd_set_period),
    word("setti", 5, 12, cmd_set_time),
    word("se,?", 4, 120, apf_get_se),
    alone("se", 2, 119, apf_xfer_se),
    word("sleep", 5, 10, end_streaming),
    word("nap", 3, 10, end_streaming),
    word("zz", 2, 10, end_streaming),
    word("zzz", 3, 10, end_streaming),
    word("quit", 4, 10, end_streaming),
    word("stop", 4, 10, end_streaming),
    word("exit", 4, 10, end_streaming),
    word("off", 3, 10, end_streaming),
    chooser("slp", 3, run_slp),
    chooser("sl", 2, run_sl),
    word("spectra,?", 9, 123, apf_get_spectra),
    word("spectra", 7, 122, apf_set_spectra),
    word("stat", 4, 148, apf_print_devStatus),
    chooser("ss", 2, run_ss),
    chooser("store", 5, run_store),
    word("sys", 3, 134, apf_get_sysinfo),
    alone("t", 1, 124, apf_get_acq_time),
    switch_word("tempc", 5, &tempc_flag),
    switch_word("timestamp", 9, &timestamp_flag),
    chooser("time", 4, run_time),
    chooser("getti", 5, run_time),
    word("tint,?", 6, 126, apf_get_int_time),
    word("tint", 4, 125, apf_set_int_time),
    chooser("ts", 2, run_ts),
    word("type", 4, 150, apf_set_sensor_type),
    chooser("t0", 2, run_t0),
    chooser("t1", 2, run_t1),
    chooser("t2", 2, run_t2),
    switch_word("vbat", 4, &vbat_flag),
    switch_word("vk_std", 6, &vk_std_flag),
    switch_word("vk", 2, &vk_flag),
    switch_word("vrsi_s", 6, &vrsi_std_flag),
    switch_word("vrse_s", 6, &vrse_std_flag),
    switch_word("vrsi", 4, &vrsi_flag),
    switch_word("vrse", 4, &vrse_flag),
    switch_word("vtherm_st", 9, &vtherm_std_flag),
    switch_word("vtherm", 6, &vtherm_flag),
    alone("w", 1, 127, apf_print_ping_response),
    word("wdog", 4, 146, apf_wdog_status),
    chooser("ys", 2, run_ys),
    word("yr", 2, 144, cmd_ymodem_receive),
    chooser_alone("z", 1, run_z),
};

bool matches(const CmdWord& c) {
    if (strncmp(line(), c.word, c.n) != 0) {
        return false;
    }
    return !c.whole || rx0.buf[c.n] == 0;
}

uint32_t run(const CmdWord& c) {
    if (c.flag != nullptr) {
        return run_flag(*c.flag);
    }
    if (c.run != nullptr) {
        return c.run();
    }
    store_code(c.code);
    c.handler();
    return c.code;
}

// One row of the float-controller command card.
void card_row(const char* label, const char* command, const char* reply) {
    uprintf("%21s:  %-10s %s\r\n", label, command, reply);
}

} // namespace

uint32_t parse_rx0_buf(void) {
    for (const CmdWord& c : commands) {
        if (matches(c)) {
            return run(c);
        }
    }
    return store_code(0);
}

void print_prompt(void) {
    uprintf("\r\n>");
}

void print_NAK(void) {
    uprintf("NAK\r\n");
}

void save(void) {
    storeSysDataVariables();
}

void print_cmd_version(void) {
    uprintf("%s\r\n", FIRMWARE_VERSION);
}

void print_cmd_help(void) {
    uprintf("\r\n** datalogger setup:  0 for off, 1 for on\r\n");
    uprintf(" time            time mm/dd/yy hh:mm:ss\r\n");
    uprintf(" period          period 900   (seconds, 0 to 3600)\r\n");
    uprintf(" config          config glider, config all, config none ...\r\n");
    uprintf(" filename        filename data.txt   (8.3)\r\n");
    uprintf(" microsd/store   store 1\r\n");
    uprintf(" align           configuration menu\r\n");
    uprintf("** commands:\r\n");
    uprintf(" help, sleep, deploy, ts, ss, sl, gc, ec, gh, eh\r\n");
    uprintf(" stop, exit, quit, <ctrl-c>\r\n");
    uprintf("vrsi set 1    vrsi get    vrsi    vrsi 0   vrsi 2000\r\n");
}

void print_cmd_big_help(void) {
    uprintf("\r\n");
    card_row("Ping", "W", "ACK");
    card_row("Main Menu", "M", "(the operator menu)");
    card_row("Error Counts", "E", "ACK,E,3,3033");
    card_row("Power Cycles", "P", "ACK,P,27,4,1767225600");
    card_row("Sample Count", "S", "Imp es Nada apf_get_sc");
    card_row("Acquisition Time", "T", "ACK,T,1767225600");
    card_row("Configuration", "C", "ACK,C2,1,10,0,100,25,2");
    card_row("Nitrate Config", "C1", "ACK,C1,1000,1,2,3,17,87,3,5000,1,0,1,30,91,UVS1234");
    card_row("pH Config", "C2", "ACK,C2,1,10,0,100,25,2");
    card_row("Calibration", "CAL", "ACK,CAL,-0.400000,-1.300000,...");
    card_row("Sensor Type", "Q", "ACK,Q,2");
    card_row("Set Sensor Type", "TYPE,2", "ACK,Q,2");
    card_row("Initialize Vars", "INIT", "ACK,INIT");
    card_row("Integration Time", "TINT,400", "ACK,TINT,400");
    card_row("Get Integ. Time", "TINT,?", "TINT,?,400");
    card_row("Sensor Mode", "MODE,2", "ACK,MODE,2");
    card_row("Get Sensor Mode", "MODE,?", "ACK,MODE?,2");
    card_row("Set Clock", "RTC,secs", "ACK,1767225600,1767225600");
    card_row("Get Clock", "RTC,?", "ACK,RTC?,1767225600");
    card_row("CTD Values", "CTD,t,T,S,D", "ACK,CTD,1767225600,15.0000,35.0000,100.00");
    card_row("Get CTD Values", "CTD,?", "ACK,CTD?,1767225600,15.0000,35.0000,100.00");
    card_row("Take Sample", "TS", "the reply of T2 (mode 2) or T1 (mode 1)");
    card_row("Nitrate Sample", "T1", "0xFFFF,NO3,01/01/26 00:00:12,1,100.00,25.031,...");
    card_row("pH Sample", "T2", "0x1A2B,pH,01/01/26 00:00:00,...");
    card_row("Send Last", "SL", "the last T1 or T2 reply again");
    card_row("Send Errors", "SE", "Imp es Nada apf_xfer_se, send error records");
    card_row("Error Summary", "SE,?", "ACK,SE?,2,-110,1767225600");
    card_row("Sleep", "SLP", "ACK,SLP");
    card_row("Power Off", "OFF", "ACK,OFF");
    card_row("Fit", "FIT", "Imp es Nada apf_set_fit");
    card_row("Spectra", "SPECTRA", "Imp es Nada apf_set_spectra");
    card_row("Bake Lamp", "BAKE", "ACK,BAKE,30,21450.3");
    card_row("System Info", "SYS", "ACK,SYS,v5.0.3 HXC3 revA,...");
    card_row("Watchdog", "WDOG", "DEV: wdog.longest = 1001, tot = 35012");
    card_row("Debug Output", "DBG,1", "ACK,DBG,1");
    card_row("Status", "STAT", "Commands implemented: ...");
    card_row("Help", "H", "Commands: W,M,E,P,S,T,C,Q,INIT,TINT,...");
}

void help_menu(void) {
    uprintf("\r\n\r\nMain Menu help\r\n");
    uprintf("  1 -- Configure     settings of the logger and its instruments\r\n");
    uprintf("  2 -- Test          sensor, board and instrument tests\r\n");
    uprintf("  3 -- Sleep         hibernate until a key wakes the board\r\n");
    uprintf("  4 -- Deploy        start a deployment: samples every period until 'stop'\r\n");
    uprintf("  5 -- Files         the microSD card: ls, cd, cat, mkdir, rm, mv, exit\r\n");
    uprintf("  6 -- Commandline   back to the command prompt '>' (also C)\r\n");
    uprintf("  7 -- VeskZone      developer tests\r\n");
    uprintf("  The menu sleeps after %u seconds without a key.\r\n", static_cast<unsigned>(deployDelay));
    uprintf("\r\nAt the '>' prompt (end each line with Enter):\r\n");
    uprintf("  help                     the command list; hh the float-controller card\r\n");
    uprintf("  m                        this menu; four Enters in a row also open it\r\n");
    uprintf("  time, period, filename   print a setting; add a value to set it\r\n");
    uprintf("  config                   the configuration summary\r\n");
    uprintf("  ts, ss, sl               take a sample, keep one, send the last one\r\n");
    uprintf("  sample                   stream samples every 5 seconds until sleep\r\n");
    uprintf("  gh, gm, gc, ec           metadata header, calibration coefficients\r\n");
    uprintf("  ls, ys, yr               list the card, send the data file, receive a file (YMODEM)\r\n");
    uprintf("  sleep, stop, exit, quit  end the session\r\n");
    uprintf("  Typed commands time out after 0.25 s of silence; help or h2m gives 1 s per key.\r\n");
}
