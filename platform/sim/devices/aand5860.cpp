// The Aanderaa 5860 conductivity sensor on port 4 (UART4, 9600 baud, 8N1), set up for output of
// numbers only.
//
// Asleep, any character wakes it; that character is lost (it is not part of a command) and nothing
// is sent. Awake, it echoes nothing and collects a command line ended by a carriage return (the line
// feed after it is ignored). "do sample", in any case, measures and sends one line, all in one
// piece, 1.0 s after the carriage return:
//   5860\t567\t<conductivity mS/cm>\t<temperature degC>\t<salinity>\t<density kg/m3>\t
//   <speed of sound m/s>\r\n
// (every number with three decimals). Any other command gets nothing. It goes back to sleep a minute
// after the last command.
//
// The water is `bath.temp` and `bath.sal`. Conductivity is the SBE37 model's (S/m, times ten for
// mS/cm). Density is fresh water's parabola around its 4 degree maximum plus 0.77 kg/m3 per unit of
// salinity, within about 1 kg/m3 of seawater's at the surface; the speed of sound is Medwin's
// simple formula at the surface.
//
// `port4` = `aand5860` and its variants: `-silent` never answers; `-garbage` answers the sample with
// noise; `-slow` 10 s late; `-short` sends half the line and nothing more.
#include "serial_instrument.h"
#include "sim.h"

#include <cstdio>
#include <string>

namespace sim::dev {

namespace {

constexpr uint64_t sleep_timeout_ns = 60 * ns_per_s;
constexpr uint64_t sample_ns = 1000 * ns_per_ms;

struct Aand5860 {
    SerialLine line{4, 9600};
    Console console;
};

Aand5860 g_aand;

double density(double s, double t) {
    return 1000.0 - 0.0065 * (t - 4.0) * (t - 4.0) + 0.77 * s;
}

double sound_speed(double s, double t) {
    return 1449.2 + 4.6 * t - 0.055 * t * t + 0.00029 * t * t * t + (1.34 - 0.01 * t) * (s - 35.0);
}

std::string sample_line() {
    double t = scenario_num("bath.temp", 15.0);
    double s = scenario_num("bath.sal", 35.0);
    char text[160];
    std::snprintf(text, sizeof text, "5860\t567\t%.3f\t%.3f\t%.3f\t%.3f\t%.3f\r\n",
                  10.0 * seawater_conductivity(s, t), t, s, density(s, t), sound_speed(s, t));
    return text;
}

const AanderaaConsole g_console = {&g_aand.line, &g_aand.console, sleep_timeout_ns,
                                   false,        sample_ns,       sample_line};

void receive(Variant v, uint8_t byte, uint64_t now) {
    aanderaa_receive(g_console, v, byte, now);
}

void power_on() {
    g_aand = Aand5860{};
}

} // namespace

const InstrumentModel aand5860_model = {"aand5860", 4, &g_aand.line, power_on, receive, nullptr, nullptr};

} // namespace sim::dev
