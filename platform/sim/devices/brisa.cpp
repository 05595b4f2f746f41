// The Brisa, a DuraFET pH instrument with a command console, on port 3 (UART3, 9600 baud, 8N1).
//
// Asleep, it ignores everything but a carriage return, which wakes it: it answers "\r\nS>". Awake,
// it echoes what it receives (a carriage return as CR LF) and collects a command line; "ts", in any
// case, takes a sample and sends one line 3.0 s after the command's carriage return, then the prompt
// "S>". An empty line gets the prompt, anything else "?cmd S>". Two minutes after the last command
// it goes back to sleep.
//
// The sample line has 14 tab-separated fields and ends in CR LF:
//   #0000001  sample number, from 1 at every power-on
//   MM/DD/YYYY HH:MM:SS  the board's RTC when the command came (the instrument keeps the same time)
//   bias battery + (V), board temperature (degC), humidity (%, whole), thermistor volts and their
//   standard deviation, DuraFET temperature (degC), Vrse (V) and its standard deviation, Vk (V) and
//   its standard deviation, Ik and Ib (the current-sense voltages, uV)
// as "#%07u\t%s\t%8.2f\t%8.2f\t%8u\t%8.6f\t%8.6f\t%8.3f\t%8.6f\t%8.6f\t%8.6f\t%8.6f\t%8.2f\t%8.3f".
// The figures are the board's own for the same scenario: `bias.pos`, `board.temp`,
// `board.humidity`, and the electrode voltages of the bath (bath.h) for the thermistor, Vrse, Vk,
// Ik and Ib, so the instrument reports the pH and temperature the board would measure. The standard
// deviations are small and steady.
//
// `port3` = `brisa` and its variants: `-silent` never answers; `-garbage` answers the sample request
// with noise; `-slow` sends the sample 10 s late; `-short` sends half the sample line and nothing
// more. Echo and prompts are the same in every variant that answers.
#include "bath.h"
#include "serial_instrument.h"
#include "sim.h"

#include <cstdio>
#include <ctime>
#include <string>

namespace sim::dev {

namespace {

constexpr uint64_t sleep_timeout_ns = 120 * ns_per_s;
constexpr uint64_t sample_time_ns = 3000 * ns_per_ms;

struct Brisa {
    SerialLine line{3, 9600};
    Console console;
    uint32_t samples = 0;
};

Brisa g_brisa;

std::string rtc_text() {
    time_t t = static_cast<time_t>(hib().rtc_seconds);
    struct tm utc {};
    gmtime_r(&t, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%m/%d/%Y %H:%M:%S", &utc);
    return text;
}

std::string sample_line() {
    BathVolts v = bath_volts();
    char text[256];
    std::snprintf(
        text, sizeof text,
        "#%07u\t%s\t%8.2f\t%8.2f\t%8u\t%8.6f\t%8.6f\t%8.3f\t%8.6f\t%8.6f\t%8.6f\t%8.6f\t%8.2f\t%8.3f\r\n",
        static_cast<unsigned>(++g_brisa.samples), rtc_text().c_str(), scenario_num("bias.pos", 3.6),
        scenario_num("board.temp", 20.0), static_cast<unsigned>(scenario_num("board.humidity", 35) + 0.5),
        v.vtherm, 0.000012, scenario_num("bath.temp", 15.0), v.vrse, 0.000021, v.vk, 0.000015, v.ik * 1e6,
        v.ib * 1e6);
    return text;
}

uint64_t sample_ns() {
    return sample_time_ns;
}

const PromptConsole g_prompt = {&g_brisa.line, &g_brisa.console, sleep_timeout_ns,
                                "\r\nS>",      sample_ns,        sample_line};

void receive(Variant v, uint8_t byte, uint64_t now) {
    prompt_receive(g_prompt, v, byte, now);
}

void power_on() {
    g_brisa = Brisa{};
}

} // namespace

const InstrumentModel brisa_model = {"brisa", 3, &g_brisa.line, power_on, receive, nullptr, nullptr};

} // namespace sim::dev
