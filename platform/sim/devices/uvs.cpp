// The UV spectrometer on UART2 (115200 baud, 8N1) that measures nitrate by its ultraviolet
// absorption, with the deuterium lamp that lights its sample cell.
//
// Wiring: its supply is the expander's port-0 pin 6, its lamp's pin 7 (high = on); PF4 driven high
// switches on the RS-232 driver of its port, without which it hears nothing and what it sends is
// lost. A supply cut makes it forget everything: integration time, a scan under way, what it was
// sending. It is ready 250 ms after its supply comes on (bytes before then are lost) and sends no
// banner.
//
// Commands are lines ended by CR (LF ignored, any case, cut after 16 characters), never echoed.
// Each text answer ends in CR LF and comes 2 ms after the command's CR:
//   V         V,UVS1234,256,1.02 (serial number, pixels, firmware version)
//   I,<ms>    sets the integration time, 4 to 4000 ms (1000 after power-up): I,<ms>; else E,I
//   T         T,<detector temperature, 2 decimals> (the housing's, `board.temp`)
//   S         a scan: the integration time, 5 ms of readout, then one binary frame:
//             A5 5A, the pixel count, the counts, the sum of the counts (mod 65536), each a
//             little-endian 16-bit word; anything sent until the frame starts gets E,BUSY
//   other     E,<the command as received>
//
// The spectrum follows the bath. Pixel p sees lambda = 208 + 0.4 p - 1e-5 p^2 nm and counts
//   dark + lamp * R(lambda) * t/1000 ms * 10^-A(lambda) + noise
// where R is the light through pure water over dark at 1000 ms, the lamp warms up as
// 1 - exp(-tau / 0.4 s) from its supply coming on (at the end of the integration), and the
// absorbance A adds nitrate (bath.no3, from umol/kg to umol/L by the seawater's density) and the
// bromide of seawater (per unit salinity at 20 degC, scaled to the bath's temperature by the
// published temperature dependence of seawater's UV absorbance). The noise is Gaussian
// (`uvs.noise` counts, seeded by `uvs.seed` and the scan's RTC time, so a run repeats exactly).
//
// `uvs`: present (default), none (not fitted), silent (powered, never answers), garbage (noise for
// every text answer, a frame with a wrong checksum), lamp-fail (no light), lamp-weak (5 % light).
#include "devices.h"
#include "serial_instrument.h"
#include "sim.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

namespace sim::dev {

namespace {

constexpr int pixels = 256;
constexpr double lambda_c[4] = {208.0, 0.4, -1.0e-5, 0.0}; // nm = c0 + c1 p + c2 p^2 + c3 p^3
constexpr double cal_temp_c = 20.0;
constexpr int cal_integration_ms = 1000;
// Temperature dependence of seawater's UV absorbance: f(lambda, T) = (a + b T) exp((c + d T) (lambda - 210)).
constexpr double tcomp[4] = {1.1500276, 0.02840, -0.3101349, 0.001222};
constexpr const char* serial_number = "UVS1234";
constexpr const char* firmware_version = "1.02";

constexpr uint64_t ready_ns = 250 * ns_per_ms;
constexpr uint64_t answer_ns = 2 * ns_per_ms;
constexpr uint64_t readout_ns = 5 * ns_per_ms;
constexpr size_t command_max = 16;
constexpr uint32_t default_integration_ms = 1000;
constexpr uint32_t min_integration_ms = 4;
constexpr uint32_t max_integration_ms = 4000;
constexpr double dark_counts = 1000.0;
constexpr double lamp_warm_up_s = 0.4;
constexpr double weak_lamp_share = 0.05;
constexpr int calibration_first_pixel = 10;
constexpr int calibration_last_pixel = 100;

constexpr int port_f = 5;
constexpr uint8_t rts_pin = 0x10;        // PF4
constexpr uint16_t supply_pin = 1u << 6; // expander port 0
constexpr uint16_t lamp_pin = 1u << 7;

enum class Kind { none, present, silent, garbage, lamp_fail, lamp_weak };

bool rts_asserted() {
    return gpio_driven_high(port_f, rts_pin);
}

struct Uvs {
    SerialLine line{2, 115200, rts_asserted};
    bool powered = false;
    uint64_t powered_ns = 0;
    bool lamp = false;
    uint64_t lamp_ns = 0;
    std::string command;
    uint32_t integration_ms = default_integration_ms;
    uint32_t scan_ms = 0;
    uint64_t scan_end_ns = UINT64_MAX; // the integration under way ends
    uint64_t busy_until_ns = 0;        // its readout ends
};

Uvs g_uvs;

Kind kind() {
    std::string v = scenario_str("uvs", "present");
    static const struct {
        const char* name;
        Kind kind;
    } names[] = {{"none", Kind::none},
                 {"silent", Kind::silent},
                 {"garbage", Kind::garbage},
                 {"lamp-fail", Kind::lamp_fail},
                 {"lamp-weak", Kind::lamp_weak}};
    for (const auto& n : names) {
        if (v == n.name) {
            return n.kind;
        }
    }
    return Kind::present;
}

// ---------------------------------------------------------------- the spectra

double wavelength_nm(int p) {
    return lambda_c[0] + p * (lambda_c[1] + p * (lambda_c[2] + p * lambda_c[3]));
}

// Counts over dark through pure water at the calibration's integration time.
double reference_counts(double lambda) {
    double x = (lambda - 250.0) / 45.0;
    return 32000.0 * (0.35 + 0.65 * std::exp(-x * x));
}

// Absorbance per umol/L of nitrate over the 1 cm path.
double nitrate_absorptivity(double lambda) {
    double x = (lambda - 201.0) / 14.0;
    return 0.0096 * std::exp(-x * x);
}

// Absorbance per unit of practical salinity at the calibration temperature.
double seawater_absorptivity(double lambda) {
    return 0.028 * std::exp(-(lambda - 215.0) / 3.2);
}

double temperature_factor(double lambda, double t) {
    return (tcomp[0] + tcomp[1] * t) * std::exp((tcomp[2] + tcomp[3] * t) * (lambda - 210.0));
}

double absorbance(double lambda, double no3_umol_l, double s, double t) {
    double sea = seawater_absorptivity(lambda) * temperature_factor(lambda, t) /
                 temperature_factor(lambda, cal_temp_c);
    return nitrate_absorptivity(lambda) * no3_umol_l + sea * s;
}

// The lamp's light at `at`, as a share of a warm lamp's.
double lamp_share(Kind k, uint64_t at) {
    if (!g_uvs.lamp || k == Kind::lamp_fail) {
        return 0.0;
    }
    double tau_s = at > g_uvs.lamp_ns ? static_cast<double>(at - g_uvs.lamp_ns) / ns_per_s : 0.0;
    double warm = 1.0 - std::exp(-tau_s / lamp_warm_up_s);
    return k == Kind::lamp_weak ? weak_lamp_share * warm : warm;
}

// Each scan draws its noise from the seed, the RTC time and the run's virtual time it ends at: a run
// repeats exactly, and no two scans share their noise (also before the firmware starts the RTC, or
// in another run of a board whose clock has moved on).
std::mt19937_64 scan_noise() {
    const HibState& h = hib();
    uint64_t seed = static_cast<uint64_t>(scenario_num("uvs.seed", 1));
    uint64_t now = now_ns();
    std::seed_seq seq{static_cast<uint32_t>(seed),
                      static_cast<uint32_t>(seed >> 32),
                      h.rtc_seconds,
                      static_cast<uint32_t>(h.rtc_sub_ns),
                      static_cast<uint32_t>(now),
                      static_cast<uint32_t>(now >> 32)};
    return std::mt19937_64(seq);
}

// A standard normal deviate by Box-Muller on the engine's own bits, the same on every library.
double gaussian(std::mt19937_64& rng) {
    double u1 = (static_cast<double>(rng() >> 11) + 1.0) / 9007199254740993.0;
    double u2 = static_cast<double>(rng() >> 11) / 9007199254740992.0;
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * M_PI * u2);
}

std::array<uint16_t, pixels> spectrum(Kind k, uint64_t at) {
    double t = scenario_num("bath.temp", 15.0);
    double s = scenario_num("bath.sal", 35.0);
    double no3_umol_l = scenario_num("bath.no3", 0.0) * seawater_density(s, t) / 1000.0;
    double light = lamp_share(k, at) * g_uvs.scan_ms / cal_integration_ms;
    double sigma = scenario_num("uvs.noise", 4.0);
    std::mt19937_64 rng = scan_noise();
    std::array<uint16_t, pixels> counts{};
    for (int p = 0; p < pixels; ++p) {
        double lambda = wavelength_nm(p);
        double c = dark_counts +
                   light * reference_counts(lambda) * std::pow(10.0, -absorbance(lambda, no3_umol_l, s, t));
        c = std::round(c + sigma * gaussian(rng));
        counts[p] = static_cast<uint16_t>(std::fmin(65535.0, std::fmax(0.0, c)));
    }
    return counts;
}

void put_word(std::string& out, uint32_t w) {
    out.push_back(static_cast<char>(w & 0xFF));
    out.push_back(static_cast<char>((w >> 8) & 0xFF));
}

std::string frame(const std::array<uint16_t, pixels>& counts, bool wrong_checksum) {
    std::string out = "\xA5\x5A";
    put_word(out, pixels);
    uint32_t sum = 0;
    for (uint16_t c : counts) {
        put_word(out, c);
        sum += c;
    }
    put_word(out, wrong_checksum ? sum + 1 : sum);
    return out;
}

// ---------------------------------------------------------------- commands

void answer(Kind k, const std::string& text, uint64_t now) {
    line_reply(g_uvs.line, k == Kind::garbage ? Variant::garbage : Variant::normal, text + "\r\n",
               now + answer_ns);
}

std::string upper(const std::string& text) {
    std::string out;
    for (char c : text) {
        out.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
    }
    return out;
}

// `cmd` is "I" or begins "I,": the digits after the comma, if they make a time it takes.
std::string set_integration(const std::string& cmd) {
    std::string digits = cmd.size() > 2 ? cmd.substr(2) : "";
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) {
        return "E,I";
    }
    unsigned long long ms = std::strtoull(digits.c_str(), nullptr, 10); // at most 14 digits
    if (ms < min_integration_ms || ms > max_integration_ms) {
        return "E,I";
    }
    g_uvs.integration_ms = static_cast<uint32_t>(ms);
    return "I," + std::to_string(ms);
}

std::string temperature() {
    char text[32];
    std::snprintf(text, sizeof text, "T,%.2f", scenario_num("board.temp", 20.0));
    return text;
}

void start_scan(uint64_t now) {
    g_uvs.scan_ms = g_uvs.integration_ms;
    g_uvs.scan_end_ns = now + g_uvs.scan_ms * ns_per_ms;
    g_uvs.busy_until_ns = g_uvs.scan_end_ns + readout_ns;
}

void run_command(Kind k, const std::string& cmd, uint64_t now) {
    if (now < g_uvs.busy_until_ns) {
        answer(k, "E,BUSY", now);
        return;
    }
    std::string up = upper(cmd);
    if (up == "V") {
        answer(k, std::string("V,") + serial_number + "," + std::to_string(pixels) + "," + firmware_version,
               now);
    } else if (up == "I" || up.rfind("I,", 0) == 0) {
        answer(k, set_integration(up), now);
    } else if (up == "T") {
        answer(k, temperature(), now);
    } else if (up == "S") {
        start_scan(now);
    } else {
        answer(k, "E," + cmd, now);
    }
}

// The frame of the scan whose integration ends now, after its readout; none from a spectrometer
// that is no longer there or no longer answers.
void finish_scan(uint64_t at) {
    g_uvs.scan_end_ns = UINT64_MAX;
    Kind k = kind();
    if (k == Kind::none || k == Kind::silent) {
        return;
    }
    line_send(g_uvs.line, frame(spectrum(k, at), k == Kind::garbage), at + readout_ns);
}

void forget() {
    g_uvs.powered = false;
    g_uvs.command.clear();
    g_uvs.integration_ms = default_integration_ms;
    g_uvs.scan_end_ns = UINT64_MAX;
    g_uvs.busy_until_ns = 0;
    g_uvs.line.out.clear();
}

} // namespace

// The density of seawater at one atmosphere by the international equation of state (EOS-80,
// UNESCO 1981): pure water's polynomial in t, then the salinity terms in S, S^1.5 and S^2.
double seawater_density(double s, double t) {
    double water =
        999.842594 +
        t * (6.793952e-2 + t * (-9.095290e-3 + t * (1.001685e-4 + t * (-1.120083e-6 + t * 6.536332e-9))));
    double b = 0.824493 + t * (-4.0899e-3 + t * (7.6438e-5 + t * (-8.2467e-7 + t * 5.3875e-9)));
    double c = -5.72466e-3 + t * (1.0227e-4 + t * -1.6546e-6);
    return water + b * s + c * s * std::sqrt(s) + 4.8314e-4 * s * s;
}

void uvs_power_on() {
    g_uvs = Uvs{};
}

uint64_t uvs_next_event_ns() {
    return std::min(g_uvs.scan_end_ns, line_next_event_ns(g_uvs.line));
}

void uvs_service(uint64_t now) {
    if (g_uvs.scan_end_ns <= now) {
        finish_scan(g_uvs.scan_end_ns);
    }
    line_service(g_uvs.line, now);
}

void uvs_receive(uint8_t byte, uint64_t now) {
    Kind k = kind();
    if (k == Kind::none || !line_open(g_uvs.line) || !g_uvs.powered || now < g_uvs.powered_ns + ready_ns) {
        return;
    }
    if (!in_tune(g_uvs.line)) {
        byte = garbled(byte);
    }
    if (byte == '\n') {
        return;
    }
    if (byte != '\r') {
        if (g_uvs.command.size() < command_max) {
            g_uvs.command.push_back(static_cast<char>(byte));
        }
        return;
    }
    std::string cmd;
    cmd.swap(g_uvs.command);
    if (k != Kind::silent) {
        run_command(k, cmd, now);
    }
}

void uvs_supplies_changed() {
    uint16_t on = pcal6416_driven_high();
    bool supply = (on & supply_pin) != 0;
    bool lamp = (on & lamp_pin) != 0;
    uint64_t now = now_ns();
    if (supply != g_uvs.powered) {
        on_time_switch(stats().uvs_supply, supply, now);
        if (supply) {
            g_uvs.powered = true;
            g_uvs.powered_ns = now;
        } else {
            forget();
        }
    }
    if (lamp != g_uvs.lamp) {
        on_time_switch(stats().lamp_supply, lamp, now);
        g_uvs.lamp = lamp;
        g_uvs.lamp_ns = now;
    }
}

std::string uvs_calibration_file() {
    char line[160];
    std::string text = std::string("# UV spectrometer calibration, ") + serial_number + "\n" + "H,serial," +
                       serial_number + "\n" + "H,pixels," + std::to_string(pixels) + "\n";
    std::snprintf(line, sizeof line, "H,lambda,%.1f,%g,%g,%g\nH,cal_temp,%.1f\nH,cal_integration,%d\n",
                  lambda_c[0], lambda_c[1], lambda_c[2], lambda_c[3], cal_temp_c, cal_integration_ms);
    text += line;
    std::snprintf(line, sizeof line, "H,tcomp,%.8g,%.8g,%.8g,%.8g\n", tcomp[0], tcomp[1], tcomp[2], tcomp[3]);
    text += line;
    for (int p = calibration_first_pixel; p <= calibration_last_pixel; ++p) {
        double lambda = wavelength_nm(p);
        std::snprintf(line, sizeof line, "C,%d,%.6e,%.6e,%.1f\n", p, nitrate_absorptivity(lambda),
                      seawater_absorptivity(lambda), reference_counts(lambda));
        text += line;
    }
    return text;
}

} // namespace sim::dev
