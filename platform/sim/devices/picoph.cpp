// The PyroScience Pico-pH optical pH meter on port 3 (UART3, 19200 baud, 8N1), with its legacy
// command set.
//
// It is always awake and echoes nothing. It collects a command up to a carriage return (line feeds
// are ignored). "MEA C S" (channel C, sensor bits S; the board sends "MEA 1 47") measures and
// answers 0.4 s after the carriage return with the command and eighteen results, separated by
// single blanks and ended by a carriage return alone:
//   MEA 1 47 R0 R1 ... R17\r
// R0 status (0), R1 the phase angle dphi (m-degrees), R2..R4 0, R5 the sample temperature
// (m-degC), R6 the case temperature (m-degC), R7 the signal intensity, R8 the ambient light,
// R9 the pressure (ubar), R10 the humidity (m-%RH), R11 the resistor temperature (m-degC),
// R12 R13 0, R14 the pH (m-pH), R15..R17 0. Anything else gets "#ERRO -21\r" (unknown command) at
// once, one character time after the carriage return.
//
// The sample is `bath.temp` and `bath.ph`, the case `board.temp` and `board.humidity`. The phase
// falls with pH along the indicator's titration curve: 50 degrees in acid, 20 in base, its middle at
// pH 7.5 (pKa). Intensity (150000), ambient light (300), pressure (1013250 ubar) and the resistor
// (25000 m-degC) are steady.
//
// `port3` = `picoph` and its variants: `-silent` never answers; `-garbage` answers with noise;
// `-slow` answers 10 s late; `-short` sends half the answer and nothing more.
#include "serial_instrument.h"
#include "sim.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

namespace sim::dev {

namespace {

constexpr uint64_t measure_ns = 400 * ns_per_ms;
constexpr double phase_acid_deg = 50.0;
constexpr double phase_base_deg = 20.0;
constexpr double pka = 7.5;

struct PicoPh {
    SerialLine line{3, 19200};
    Console console;
};

PicoPh g_pico;

long milli(double value) {
    return std::lround(value * 1000.0);
}

bool whole_number(const std::string& word, long* value) {
    char* end = nullptr;
    *value = std::strtol(word.c_str(), &end, 10);
    return !word.empty() && *end == '\0';
}

// "MEA C S" exactly: three words, the last two whole numbers.
bool parse_mea(const std::string& cmd, long* channel, long* sensors) {
    std::istringstream words(cmd);
    std::string mea, c, s, extra;
    if (!(words >> mea >> c >> s) || (words >> extra) || mea != "MEA") {
        return false;
    }
    return whole_number(c, channel) && whole_number(s, sensors);
}

std::string results(long channel, long sensors) {
    double ph = scenario_num("bath.ph", 8.0);
    double dphi = phase_base_deg + (phase_acid_deg - phase_base_deg) / (1.0 + std::pow(10.0, ph - pka));
    long r[18] = {};
    r[1] = milli(dphi);
    r[5] = milli(scenario_num("bath.temp", 15.0));
    r[6] = milli(scenario_num("board.temp", 20.0));
    r[7] = 150000;
    r[8] = 300;
    r[9] = 1013250;
    r[10] = milli(scenario_num("board.humidity", 35));
    r[11] = 25000;
    r[14] = milli(ph);
    std::string text = "MEA " + std::to_string(channel) + " " + std::to_string(sensors);
    for (long v : r) {
        text += " " + std::to_string(v);
    }
    return text + "\r";
}

void receive(Variant v, uint8_t byte, uint64_t now) {
    if (!console_collect(g_pico.console, byte)) {
        return;
    }
    std::string cmd = g_pico.console.command;
    g_pico.console.command.clear();
    long channel = 0;
    long sensors = 0;
    if (!parse_mea(cmd, &channel, &sensors)) {
        line_reply(g_pico.line, v, "#ERRO -21\r", now + answer_delay_ns(v, char_ns(g_pico.line)));
        return;
    }
    line_reply(g_pico.line, v, results(channel, sensors), now + answer_delay_ns(v, measure_ns));
}

void power_on() {
    g_pico = PicoPh{};
}

} // namespace

const InstrumentModel picoph_model = {"picoph", 3, &g_pico.line, power_on, receive, nullptr, nullptr};

} // namespace sim::dev
