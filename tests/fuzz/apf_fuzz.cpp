// The float controller's words and their numbers, one line at a time as the receive machine hands
// them to the command parser (lower case, at most 63 characters), on a board that has just started.
// The line after a "ctd," line is the controller's answer to the echo. A setting changes only by
// its own word and only to a value in its range; a refused clock setting leaves the clock alone.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "core/main.h"
#include "fuzz_board.h"
#include "records/apf.h"
#include "hostlink/serial.h"
#include "hostlink/serial_cmd.h"
#include "ports/uartstdio.h"
#include "driverlib/hibernate.h"

namespace {

constexpr size_t MAX_INPUT = 1024;
constexpr size_t MAX_LINES = 8;
constexpr double LINE_LIMIT_S = 4.0; // a reply, or the 3 s wait for the ACK of a CTD echo

struct Settings {
    uint32_t mode;
    uint8_t type;
    uint32_t tint;
    uint32_t ctd_time;
    float ctd[3];
    uint32_t rtc;
};

Settings settings(void) {
    return Settings{apf.sys_sensor_mode,
                    apf.sys_sensor_type,
                    apf.isus_spec_period,
                    apf.CTD_Time,
                    {apf.CTD_Temp, apf.CTD_Salinity, apf.CTD_Depth},
                    HibernateRTCGet()};
}

bool starts(const std::string& line, const char* word) {
    return line.compare(0, strlen(word), word) == 0;
}

// The CTD values a controller may set: finite, in the water, at most 12 km deep; or those a failed
// acknowledgement leaves.
bool ctd_values_valid(const Settings& s) {
    if (s.ctd_time == 0 && s.ctd[0] == -1.0f && s.ctd[1] == -1.0f && s.ctd[2] == -1.0f) {
        return true;
    }
    return std::isfinite(s.ctd[0]) && std::isfinite(s.ctd[1]) && std::isfinite(s.ctd[2]) &&
           s.ctd[0] >= -5.0f && s.ctd[0] <= 60.0f && s.ctd[1] >= 0.0f && s.ctd[1] <= 60.0f &&
           s.ctd[2] >= -10.0f && s.ctd[2] <= 12000.0f;
}

void check_line(const std::string& line, const Settings& before, const Settings& after, uint32_t elapsed_s) {
    const std::string& out = sim::test::console_output();
    bool init = starts(line, "init");
    if (!starts(line, "mode,") && !init) {
        fuzz::check(after.mode == before.mode, "the sensor mode changed without MODE,n");
    }
    fuzz::check(after.mode <= 2, "the sensor mode is outside 0..2");
    if (!starts(line, "type,") && !init) {
        fuzz::check(after.type == before.type, "the sensor type changed without TYPE,n");
    }
    if (after.type != before.type) {
        fuzz::check(after.type >= 1 && after.type <= 4, "the sensor type is outside 1..4");
    }
    if (!starts(line, "tint,") && !init) {
        fuzz::check(after.tint == before.tint, "the integration time changed without TINT,n");
    }
    if (after.tint != before.tint && !init) {
        fuzz::check(after.tint >= 4 && after.tint <= 4000, "the integration time is outside 4..4000");
    }
    bool ctd_word = starts(line, "ctd,") || init;
    if (!ctd_word) {
        fuzz::check(after.ctd_time == before.ctd_time && memcmp(after.ctd, before.ctd, sizeof after.ctd) == 0,
                    "the CTD values changed without CTD,...");
    } else if (memcmp(&after.ctd_time, &before.ctd_time, sizeof(uint32_t) + sizeof after.ctd) != 0) {
        fuzz::check(ctd_values_valid(after), "CTD,... stored values outside the water's range");
    }
    // The clock runs on by the seconds the line took, unless a clock word set it.
    bool clock_word = starts(line, "rtc,") || starts(line, "time ") || starts(line, "settime ");
    if (!clock_word || out.find("NAK,RTC") != std::string::npos) {
        fuzz::check(after.rtc - before.rtc <= elapsed_s + 1, "the clock moved without a clock word");
    }
}

std::string g_line;

void parse_line(void) {
    memset(rx0.buf, 0, sizeof rx0.buf);
    size_t n = std::min(g_line.size(), sizeof rx0.buf - 1);
    memcpy(rx0.buf, g_line.data(), n);
    rx0.indx = static_cast<uint32_t>(n);
    parse_rx0_buf();
}

// The receive machine's lower case; NUL, CR and LF cannot be in a line.
std::string lower_line(const std::string& text) {
    std::string s;
    for (char c : text) {
        s += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c == '\0' ? ' ' : c;
    }
    return s.substr(0, 63);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::factory_eeprom();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > MAX_INPUT) {
        return -1;
    }
    fuzz::factory_board();
    fuzz::check(sim::test::run([] {
                    init();
                    apf_set_m2m_timeout();
                }).returned,
                "init did not return");
    std::string text(reinterpret_cast<const char*>(data), size);
    size_t start = 0;
    for (size_t n = 0; n < MAX_LINES && start <= text.size(); ++n) {
        size_t end = text.find_first_of("\r\n", start);
        if (end == std::string::npos) {
            end = text.size();
        }
        g_line = lower_line(text.substr(start, end - start));
        start = end + 1;
        if (starts(g_line, "ctd,") && start <= text.size()) {
            size_t answer_end = text.find_first_of("\r\n", start);
            answer_end = answer_end == std::string::npos ? text.size() : answer_end;
            sim::test::type_after(0.05, text.substr(start, answer_end - start));
            start = answer_end + 1;
        }
        sim::test::clear_console_output();
        Settings before = settings();
        uint64_t t0 = sim::now_ns();
        sim::test::Outcome o = fuzz::run_for(parse_line, LINE_LIMIT_S);
        fuzz::check(o.returned || o.event != sim::PowerEvent::watchdog, "the watchdog reset the board");
        if (!o.returned) {
            return 0; // the word ended the session, or it is still at work
        }
        uint32_t elapsed = static_cast<uint32_t>((sim::now_ns() - t0) / sim::ns_per_s);
        check_line(g_line, before, settings(), elapsed);
        sim::test::run([] {
            UARTFlushRx();
            UARTFlushTx(true);
        });
    }
    return 0;
}
