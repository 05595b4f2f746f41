// The Aanderaa 3830/3835 oxygen optode on port 3 (UART3, 9600 baud, 8N1), in its legacy output mode.
//
// Asleep, any character wakes it; that character is lost (it is not part of a command) and nothing
// is sent. Awake, it echoes every byte it receives as it is and collects a command line ended by a
// carriage return (line feeds are ignored). "Do Sample", in any case, measures and sends one line
// 1.5 s after the carriage return:
//   MEASUREMENT\t3830\t1234\tOxygen: \t<uM>\tSaturation: \t<%>\tTemperature: \t<degC>\t
//   DPhase: \t<deg>\tBPhase: \t<deg>\tRPhase: \t0.00\tBAmp: \t<mV>\tBPot: \t<mV>\tRAmp: \t0.00\t
//   RawTem.: \t<mV>\r\n
// (one line, every number with two decimals). Any other command gets nothing but its echo. It goes
// back to sleep a minute after the last command.
//
// The figures follow the bath: oxygen is `bath.o2` (umol/L), temperature `bath.temp`. Saturation
// is oxygen over its solubility in fresh water at that temperature (the optode's own setting is
// salinity 0), from the Garcia and Gordon fit with Benson and Krause's data (umol/kg, taken as
// umol/L). The phase follows a Stern-Volmer curve: 60 degrees without oxygen, about 34 at air
// saturation. The blue amplitude and potential are steady, the thermistor reading is a straight
// line (800 mV at 0 degrees C, 25 mV less per degree).
//
// `port3` = `optode` and its variants: `-silent` never answers; `-garbage` answers the sample with
// noise; `-slow` 10 s late; `-short` sends half the line and nothing more.
#include "serial_instrument.h"
#include "sim.h"

#include <cmath>
#include <cstdio>
#include <string>

namespace sim::dev {

namespace {

constexpr uint64_t sleep_timeout_ns = 60 * ns_per_s;
constexpr uint64_t sample_ns = 1500 * ns_per_ms;
constexpr double phase_no_oxygen_deg = 60.0;
constexpr double stern_volmer_per_um = 0.003;

struct Optode {
    SerialLine line{3, 9600};
    Console console;
};

Optode g_optode;

// Oxygen solubility in fresh water at t degrees C, umol/kg.
double solubility_um(double t) {
    static const double a[] = {5.80871, 3.20291, 4.17887, 5.10006, -9.86643e-2, 3.80369};
    double ts = std::log((298.15 - t) / (273.15 + t));
    double ln_c = 0;
    for (int i = 5; i >= 0; --i) {
        ln_c = ln_c * ts + a[i];
    }
    return std::exp(ln_c);
}

std::string measurement() {
    double o2 = scenario_num("bath.o2", 250.0);
    double t = scenario_num("bath.temp", 15.0);
    double saturation = 100.0 * o2 / solubility_um(t);
    double phase = phase_no_oxygen_deg / (1.0 + stern_volmer_per_um * o2);
    double raw_mv = 800.0 - 25.0 * t;
    char text[320];
    std::snprintf(text, sizeof text,
                  "MEASUREMENT\t3830\t1234\tOxygen: \t%.2f\tSaturation: \t%.2f\tTemperature: \t%.2f\t"
                  "DPhase: \t%.2f\tBPhase: \t%.2f\tRPhase: \t%.2f\tBAmp: \t%.2f\tBPot: \t%.2f\t"
                  "RAmp: \t%.2f\tRawTem.: \t%.2f\r\n",
                  o2, saturation, t, phase, phase, 0.0, 300.0, 20.0, 0.0, raw_mv);
    return text;
}

const AanderaaConsole g_console = {&g_optode.line, &g_optode.console, sleep_timeout_ns,
                                   true,           sample_ns,         measurement};

void receive(Variant v, uint8_t byte, uint64_t now) {
    aanderaa_receive(g_console, v, byte, now);
}

void power_on() {
    g_optode = Optode{};
}

} // namespace

const InstrumentModel optode_model = {"optode", 3, &g_optode.line, power_on, receive, nullptr, nullptr};

} // namespace sim::dev
