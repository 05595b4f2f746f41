// The files of a board directory that the runtime keeps: the hibernation module (`rtc`, a small
// text file a person can read and edit while the simulator is stopped), the world around the board
// (`scenario.ini`), and the --stats lines.
#include "board.h"

#include "runtime.h"
#include "script.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace sim::board {

namespace {

std::string trim(const std::string& s) {
    size_t a = s.find_first_not_of(" \t\r");
    if (a == std::string::npos) {
        return "";
    }
    size_t b = s.find_last_not_of(" \t\r");
    return s.substr(a, b - a + 1);
}

// `key = value` with an optional `#` comment; false for a line with neither.
bool split_line(const std::string& raw, std::string& key, std::string& value, bool& blank) {
    std::string line = raw;
    blank = false;
    size_t hash = std::string::npos;
    bool quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '"' && (i == 0 || line[i - 1] != '\\')) {
            quoted = !quoted;
        } else if (line[i] == '#' && !quoted) {
            hash = i;
            break;
        }
    }
    if (hash != std::string::npos) {
        line.resize(hash);
    }
    line = trim(line);
    if (line.empty()) {
        blank = true;
        return true;
    }
    size_t eq = line.find('=');
    if (eq == std::string::npos) {
        return false;
    }
    key = trim(line.substr(0, eq));
    value = trim(line.substr(eq + 1));
    return !key.empty();
}

bool read_file(const std::string& path, std::string& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream ss;
    ss << in.rdbuf();
    out = ss.str();
    return true;
}

bool parse_number(const std::string& v, uint64_t& out) {
    if (v.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    unsigned long long n = std::strtoull(v.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || v[0] == '-') {
        return false;
    }
    out = n;
    return true;
}

// Calls fn(line number, key, value) for each `key = value` line of the file; blank and comment
// lines are skipped. fn returns false for a value it refuses (having said why). False when the file
// cannot be read, has a malformed line, or fn refused a value: a board's state is taken whole or not
// at all.
bool for_each_setting(const std::string& path,
                      const std::function<bool(int n, const std::string& key, std::string& value)>& fn) {
    std::string text;
    if (!read_file(path, text)) {
        message("cannot read %s", path.c_str());
        return false;
    }
    std::istringstream in(text);
    std::string line;
    int n = 0;
    bool ok = true;
    while (std::getline(in, line)) {
        ++n;
        std::string key;
        std::string value;
        bool blank = false;
        if (!split_line(line, key, value, blank)) {
            message("%s:%d: not `key = value`", path.c_str(), n);
            ok = false;
            continue;
        }
        if (!blank && !fn(n, key, value)) {
            ok = false;
        }
    }
    return ok;
}

} // namespace

bool load_rtc(const std::string& path, HibState& h) {
    return for_each_setting(path, [&](int n, const std::string& key, std::string& value) {
        auto bad = [&](const char* why) {
            message("%s:%d: %s = %s: %s", path.c_str(), n, key.c_str(), value.c_str(), why);
            return false;
        };
        if (key == "data") {
            std::istringstream words(value);
            std::string w;
            int i = 0;
            for (; words >> w; ++i) {
                uint64_t v = 0;
                if (i >= 16 || !parse_number(w, v) || v > 0xFFFFFFFFu) {
                    return bad("sixteen 32-bit words");
                }
                h.data[i] = static_cast<uint32_t>(v);
            }
            return i == 16 ? true : bad("sixteen 32-bit words");
        }
        uint64_t v = 0;
        if (!parse_number(value, v)) {
            return bad("not a number");
        }
        uint64_t most = key == "trim"                                                     ? 0xFFFFu
                        : key == "rtc_sub_ns"                                             ? ns_per_s - 1
                        : key == "active" || key == "hibernating" || key == "rtc_enabled" ? 1u
                                                                                          : 0xFFFFFFFFu;
        if (v > most) {
            return bad(most == 1 ? "0 or 1" : most == 0xFFFFu ? "more than 16 bits" : "out of range");
        }
        if (key == "rtc_seconds") {
            h.rtc_seconds = static_cast<uint32_t>(v);
        } else if (key == "rtc_sub_ns") {
            h.rtc_sub_ns = v;
        } else if (key == "match0") {
            h.match0 = static_cast<uint32_t>(v);
        } else if (key == "trim") {
            h.trim = static_cast<uint32_t>(v);
        } else if (key == "ctl") {
            h.ctl = static_cast<uint32_t>(v);
        } else if (key == "ris") {
            h.ris = static_cast<uint32_t>(v);
        } else if (key == "im") {
            h.im = static_cast<uint32_t>(v);
        } else if (key == "active") {
            h.active = v != 0;
        } else if (key == "hibernating") {
            h.hibernating = v != 0;
        } else if (key == "rtc_enabled") {
            h.rtc_enabled = v != 0;
        } else {
            return bad("no such key");
        }
        return true;
    });
}

bool save_rtc(const std::string& path, const HibState& h) {
    std::string tmp = path + ".new";
    FILE* f = std::fopen(tmp.c_str(), "w");
    if (!f) {
        message("cannot write %s: %s", tmp.c_str(), std::strerror(errno));
        return false;
    }
    std::fprintf(f, "# The hibernation module of this board (battery-backed). hxc3-sim rewrites this file;\n"
                    "# edit it only while the simulator is stopped.\n");
    std::fprintf(f, "hibernating = %u   # 1: the chip is in hibernation and waits for its wake\n",
                 h.hibernating);
    std::fprintf(f, "active = %u        # the module is clocked (HibernateIsActive)\n", h.active);
    std::fprintf(f, "rtc_enabled = %u\n", h.rtc_enabled);
    std::fprintf(f, "rtc_seconds = %u   # %s UTC\n", h.rtc_seconds, format_utc(h.rtc_seconds).c_str());
    std::fprintf(f, "rtc_sub_ns = %llu\n", static_cast<unsigned long long>(h.rtc_sub_ns));
    std::fprintf(f, "match0 = %u        # %s UTC\n", h.match0, format_utc(h.match0).c_str());
    std::fprintf(f, "trim = 0x%04x\n", h.trim);
    std::fprintf(f, "ctl = 0x%08x       # wake conditions and enables\n", h.ctl);
    std::fprintf(f, "ris = 0x%08x       # raw interrupt status\n", h.ris);
    std::fprintf(f, "im = 0x%08x\n", h.im);
    std::fprintf(f, "data =");
    for (uint32_t w : h.data) {
        std::fprintf(f, " 0x%08x", w);
    }
    std::fprintf(f, "\n");
    // Written at every hibernation: the rename keeps it whole without waiting for the disk.
    bool ok = std::fflush(f) == 0;
    ok = std::fclose(f) == 0 && ok;
    if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
        message("cannot write %s: %s", path.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

bool load_scenario(const std::string& path) {
    if (!std::ifstream(path)) {
        return true; // no file: every key takes its default
    }
    return for_each_setting(path, [&](int n, const std::string& key, std::string& value) {
        if (!value.empty() && value[0] == '"') {
            size_t pos = 0;
            std::string unquoted;
            std::string error;
            if (!script::parse_text(value, pos, unquoted, error) || pos != value.size()) {
                message("%s:%d: %s", path.c_str(), n,
                        error.empty() ? "text after the quotes" : error.c_str());
                return false;
            }
            value = unquoted;
        }
        std::string why;
        if (!scenario_check(key, value, why)) {
            message("%s:%d: %s = %s: %s", path.c_str(), n, key.c_str(), value.c_str(), why.c_str());
            return false;
        }
        if (!scenario_set(key, value)) {
            message("%s:%d: key or value too long (or too many keys)", path.c_str(), n);
            return false;
        }
        scenario_apply(key);
        return true;
    });
}

std::string scenario_template() {
    return R"(# The world around this board, read at every start of hxc3-sim. `key = value` lines; `#` starts a
# comment. A missing key takes its default; the values below are the defaults. A script can change
# them for the rest of a run with `set KEY VALUE`.

# The water around the sensor.
# bath.ph = 8.000          # total-scale pH
# bath.temp = 15.0         # degrees C
# bath.sal = 35.0          # practical salinity

# The sensor's true standard potentials at 25 degrees C (V), the counter electrode (V) and the two
# current-sense voltages at the ADC (V).
# sensor.k0int = -0.4
# sensor.k0ext = -1.3
# sensor.vk = -0.9
# sensor.ik = 1.5e-5
# sensor.ib = 1.0e-6

# The ADC: Gaussian noise on every input (microvolts RMS, seeded and reproducible), its seed, and
# 1 for an ADC that never signals data-ready.
# adc.noise_uv = 0
# adc.seed = 1
# adc.stuck = 0

# The board: main battery (V), housing temperature (degrees C) and relative humidity (%), bias
# batteries (V).
# board.vbat = 12.0
# board.temp = 20.0
# board.humidity = 35
# bias.pos = 3.6
# bias.neg = -3.6

# Oxygen (umol/L) for the optode, the light (uW/cm^2/nm) the radiometer sees, and nitrate (umol/kg)
# for the UV spectrometer.
# bath.o2 = 250
# bath.light = 10.0
# bath.no3 = 0.0

# The instrument on port 3: none, optode, ocr, brisa or picoph, each also as NAME-silent,
# NAME-garbage, NAME-slow (answers 10 s late) or NAME-short (its reply cut half way).
# port3 = none

# The instrument on port 4: none, sbe37 or aand5860, with the same variants; port4.reply sets the
# exact SBE37 reply line (by default it is built from the bath); port4.delay the seconds from the
# SBE37's sample command to the reply (a slow instrument takes longer).
# port4 = none
# port4.reply = "..."
# port4.delay = 2.5

# The UV spectrometer on UART2: present, none (not fitted), silent (powered, never answers), garbage
# (answers with noise, its frames with a wrong checksum), lamp-fail (no light) or lamp-weak (5 %
# of its light); the Gaussian noise on every pixel (counts) and its seed.
# uvs = present
# uvs.noise = 4
# uvs.seed = 1

# The microSD card: present, absent or protected; and its kind: sdhc, sdsc, sdv1, mmc or badv2.
# card = present
# card.type = sdhc

# The next N hibernation requests fail to cut the power (the firmware's recovery path runs).
# hibernate.fail = 0

# The power fails as the Nth sector write from now reaches the card (once; 0: never).
# card.cut_after_writes = 0

# The load current the INA260 reports (A); the housing sensor's chip id (96 = 0x60, a BME280;
# another value is a different chip, 0 none fitted); 0 for an FRAM, INA260 or PCAL6416 not fitted.
# board.amps = 0.05
# board.bme280.id = 96
# board.fram = 1
# board.ina260 = 1
# board.pcal6416 = 1

# 0: the 16 MHz crystal does not oscillate; the clock set-up falls back to the internal oscillator.
# board.xtal = 1
)";
}

bool append_stats(const std::string& path, const std::string& line) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd < 0) {
        message("cannot write %s: %s", path.c_str(), std::strerror(errno));
        return false;
    }
    struct stat st {};
    std::string out;
    if (fstat(fd, &st) == 0 && st.st_size == 0) {
        out = std::string(stats_header) + "\n";
    }
    out += line + "\n";
    bool ok = write(fd, out.data(), out.size()) == static_cast<ssize_t>(out.size());
    close(fd);
    return ok;
}

bool parse_utc(const std::string& text, uint32_t& seconds) {
    struct tm t {};
    char rest = 0;
    int n = std::sscanf(text.c_str(), "%4d-%2d-%2d %2d:%2d:%2d%c", &t.tm_year, &t.tm_mon, &t.tm_mday,
                        &t.tm_hour, &t.tm_min, &t.tm_sec, &rest);
    if (n != 6 || t.tm_year < 1970 || t.tm_year > 2106 || t.tm_mon < 1 || t.tm_mon > 12 || t.tm_mday < 1 ||
        t.tm_mday > 31 || t.tm_hour > 23 || t.tm_min > 59 || t.tm_sec > 59) {
        return false;
    }
    int mday = t.tm_mday;
    t.tm_year -= 1900;
    t.tm_mon -= 1;
    time_t s = timegm(&t);
    if (s < 0 || s > static_cast<time_t>(UINT32_MAX) || t.tm_mday != mday) {
        return false; // out of range, or a day the month does not have
    }
    seconds = static_cast<uint32_t>(s);
    return true;
}

std::string format_utc(uint32_t seconds) {
    time_t s = static_cast<time_t>(seconds);
    struct tm t {};
    gmtime_r(&s, &t);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &t);
    return buf;
}

} // namespace sim::board
