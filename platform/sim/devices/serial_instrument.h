// What the instruments on the board's serial ports 3 and 4 have in common: the scenario's names for
// them and their faulty variants, the instrument's end of the line (its bytes on their way to the
// board, one character time apart, garbled when the board's UART runs at another baud rate), the
// command line a sleeping instrument collects, and the table of models that serial_instrument.cpp
// drives for devices.cpp.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

namespace sim::dev {

// What a port's scenario value says of one instrument: not this one, or this one working, never
// answering, answering with noise from another baud rate, answering 10 s late, or cutting its
// answer off half way (`NAME`, `NAME-silent`, `NAME-garbage`, `NAME-slow`, `NAME-short`).
enum class Variant { absent, normal, silent, garbage, slow, cut_short };
Variant instrument_variant(const std::string& port_value, const char* name);

// The instrument's end of its serial line: 8N1 at `baud`, and what it has sent that has not yet
// reached the board. Each piece of text is due at a time (when its first byte's stop bit ends, at
// the earliest); pieces go out in the order of those times, a piece once begun is finished first,
// and the bytes follow one another one character time apart. So an echo goes out at once even while
// a measurement's answer waits for its time. A line with a `driver_on` test passes bytes only while
// it says so (a line driver the board switches); bytes sent while it is off are lost.
struct SerialLine {
    SerialLine(int port_number, uint32_t bits_per_s, bool (*driver)() = nullptr)
        : port(port_number), baud(bits_per_s), driver_on(driver) {}
    int port;
    uint32_t baud;
    bool (*driver_on)();
    struct Piece {
        uint64_t due_ns;
        std::string text;
        size_t sent = 0;
    };
    std::deque<Piece> out;
    uint64_t free_ns = 0; // the earliest the next byte can arrive after the last one
    uint32_t noise = 1;   // state of the noise a garbage variant sends
};

// Start bit, 8 data bits, stop bit.
uint64_t char_ns(const SerialLine& line);
// The board's UART is on and runs within 3 % of the instrument's rate, so each side reads what
// the other sends.
bool in_tune(const SerialLine& line);
// A byte as the other side reads it: itself in tune, else what a receiver sampling at the wrong
// rate makes of it, always with the top bit set (never a command character or a line end).
uint8_t garbled(uint8_t byte);
// Queues text whose first byte arrives at `at_ns`, or as soon after as the line is free. Text due
// at the same time as text already queued goes after it.
void line_send(SerialLine& line, const std::string& text, uint64_t at_ns);
// Queues an answer as the variant sends it: noise instead (about 40 bytes from another baud rate,
// no line end), or only its first half; a slow variant's delay is answer_delay_ns's business.
void line_reply(SerialLine& line, Variant v, const std::string& text, uint64_t at_ns);
// How long the variant takes to answer an instrument that normally takes `usual_ns`.
uint64_t answer_delay_ns(Variant v, uint64_t usual_ns);
uint64_t line_next_event_ns(const SerialLine& line);
// Hands the board every byte that has arrived by `now`.
void line_service(SerialLine& line, uint64_t now);
// Whether a byte the board sends now reaches the instrument (its line driver is on).
bool line_open(const SerialLine& line);

// The command side of an instrument that sleeps between commands.
struct Console {
    bool awake = false;
    std::string command;
    uint64_t last_ns = 0; // the last command, or the wake
};
// Whether it is still awake: it falls asleep `timeout_ns` after the last command.
bool console_awake(Console& c, uint64_t now, uint64_t timeout_ns);
void console_wake(Console& c, uint64_t now);
// Adds a byte to the command; true when a carriage return ends it. Line feeds are ignored, and a
// command longer than any the instrument knows is cut.
bool console_collect(Console& c, uint8_t byte);
// The finished command, lower case, counted as the last command.
std::string console_take(Console& c, uint64_t now);

// An instrument with a Sea-Bird style console (the SBE37, the Brisa). Asleep, it ignores all but a
// carriage return, which wakes it with `wake_text`. Awake, it echoes what it receives (a carriage
// return as CR LF) and collects a command: "ts" sends `sample()` (a line with its CR LF) after
// `sample_ns()`, then the prompt "S>"; an empty line gets "S>", anything else "?cmd S>".
struct PromptConsole {
    SerialLine* line;
    Console* console;
    uint64_t sleep_timeout_ns;
    const char* wake_text;
    uint64_t (*sample_ns)();
    std::string (*sample)();
};
// The variant shapes the sample line; no prompt follows noise or a line cut short.
void prompt_receive(const PromptConsole& p, Variant v, uint8_t byte, uint64_t now);

// Conductivity in S/m of seawater at practical salinity s and temperature t in degrees C, at the
// surface (sbe37.cpp; the CTDs share it).
double seawater_conductivity(double s, double t);
// Density in kg/m3 of seawater at practical salinity s and temperature t in degrees C, at one
// atmosphere (uvs.cpp).
double seawater_density(double s, double t);

// An Aanderaa sensor's console (the optode, the 5860). Asleep, any character wakes it and is lost.
// Awake, it echoes every byte as it is when `echo` is set, and collects a command: "do sample", in
// any case, sends `sample()` after `sample_ns`; anything else gets nothing.
struct AanderaaConsole {
    SerialLine* line;
    Console* console;
    uint64_t sleep_timeout_ns;
    bool echo;
    uint64_t sample_ns;
    std::string (*sample)();
};
void aanderaa_receive(const AanderaaConsole& a, Variant v, uint8_t byte, uint64_t now);

// One instrument model. `receive` gets each byte the board sends while the scenario puts the
// instrument (in a variant that listens) on its port, as the instrument heard it; `next_event_ns`
// and `service` are for events of its own besides its bytes on the line (may be null).
struct InstrumentModel {
    const char* name; // as the port's scenario key names it
    int port;
    SerialLine* line;
    void (*power_on)();
    void (*receive)(Variant v, uint8_t byte, uint64_t now);
    uint64_t (*next_event_ns)();
    void (*service)(uint64_t now);
};
extern const InstrumentModel sbe37_model;
extern const InstrumentModel aand5860_model;
extern const InstrumentModel optode_model;
extern const InstrumentModel ocr_model;
extern const InstrumentModel brisa_model;
extern const InstrumentModel picoph_model;

} // namespace sim::dev
