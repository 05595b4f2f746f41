// The Sea-Bird SBE37 MicroCAT on port 4 (UART4, 9600 baud, 8N1), as far as the board uses it.
//
// Asleep, the instrument ignores everything but a carriage return, which wakes it: it answers with
// its prompt "S>". Awake, it echoes what it receives (a carriage return as CR LF) and collects a
// command line; "ts" takes a sample and sends one line 2.5 s after the command's carriage return
// (a real SBE37 needs about 2 to 3 s per sample with its pressure sensor; `port4.delay` sets another
// time, for a slow one), followed by a new prompt.
// An empty line gets the prompt, anything else "?cmd" and the prompt. After two minutes without a
// command it goes back to sleep.
//
// The sample line is `port4.reply` followed by CR LF when that is set. Otherwise it is built from
// the bath: temperature, conductivity, salinity, date and time, separated by commas. The instrument
// is set up for a terse output that fits the controller's 15-character reply window, so the numbers
// carry as many decimals as fit (salinity first, as the pH computation uses it), and date and time
// are single digits (the controller does not use them). Conductivity follows from salinity and
// temperature by the practical salinity scale's temperature ratio, close enough for a reading that
// only has to look right.
//
// `port4` = `sbe37` and its variants: `-silent` never answers; `-garbage` answers the sample
// request with noise; `-slow` sends the sample 10 s late; `-short` sends half the sample line and
// nothing more. Echo and prompts are the same in every variant that answers.
#include "serial_instrument.h"
#include "sim.h"

#include <cstdio>
#include <string>

namespace sim::dev {

namespace {

constexpr uint64_t sleep_timeout_ns = 120 * ns_per_s;
constexpr size_t line_window = 14; // visible characters; the CR makes 15 stored by the controller

struct Sbe37 {
    SerialLine line{4, 9600};
    Console console;
};

Sbe37 g_sbe;

std::string bath_line() {
    double t = scenario_num("bath.temp", 15.0);
    double s = scenario_num("bath.sal", 35.0);
    double c = seawater_conductivity(s, t);
    // Decimals of temperature, conductivity and salinity, most precise first.
    static const int choices[][3] = {{4, 5, 4}, {3, 4, 4}, {2, 3, 4}, {2, 3, 3}, {1, 2, 3}, {1, 1, 3},
                                     {1, 1, 2}, {1, 0, 2}, {0, 0, 2}, {0, 0, 1}, {0, 0, 0}};
    char line[96] = "";
    for (const auto& d : choices) {
        std::snprintf(line, sizeof line, "%.*f,%.*f,%.*f,0,0", d[0], t, d[1], c, d[2], s);
        if (std::string(line).size() <= line_window) {
            break;
        }
    }
    return line;
}

uint64_t sample_ns() {
    return static_cast<uint64_t>(scenario_num("port4.delay", 2.5) * 1e9);
}

std::string sample() {
    std::string reply = scenario_str("port4.reply", "");
    return (reply.empty() ? bath_line() : reply) + "\r\n";
}

const PromptConsole g_prompt = {&g_sbe.line, &g_sbe.console, sleep_timeout_ns, "S>", sample_ns, sample};

void receive(Variant v, uint8_t byte, uint64_t now) {
    prompt_receive(g_prompt, v, byte, now);
}

void power_on() {
    g_sbe = Sbe37{};
}

} // namespace

// Conductivity in S/m of seawater at salinity s and temperature t (surface pressure): the standard
// seawater's 4.2914 S/m scaled by the temperature ratio rt(t), and roughly in proportion to s.
double seawater_conductivity(double s, double t) {
    double rt = 0.6766097 + t * (2.00564e-2 + t * (1.104259e-4 + t * (-6.9698e-7 + t * 1.0031e-9)));
    return 4.2914 * rt * s / 35.0;
}

const InstrumentModel sbe37_model = {"sbe37", 4, &g_sbe.line, power_on, receive, nullptr, nullptr};

} // namespace sim::dev
