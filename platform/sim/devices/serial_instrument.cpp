// The serial instruments' shared mechanics (see serial_instrument.h), and the dispatch between the
// board's instrument ports and whatever models the scenario hangs on them.
//
// The scenario is read at every byte the board sends, so a script's `set port3 ...` takes effect at
// once. Bytes an instrument already sent keep coming after it is unplugged that way.
#include "serial_instrument.h"
#include "devices.h"
#include "sim.h"

#include <algorithm>
#include <cctype>
#include <cmath>

namespace sim::dev {

namespace {

constexpr double baud_tolerance = 0.03;
constexpr uint64_t slow_extra_ns = 10 * ns_per_s;
constexpr int garbage_len = 40;
constexpr size_t command_max = 32;

const InstrumentModel* const models[] = {&sbe37_model, &aand5860_model, &optode_model,
                                         &ocr_model,   &brisa_model,    &picoph_model};

const char* port_key(int port) {
    return port == 3 ? "port3" : "port4";
}

// Noise from a sender at another baud rate: every byte has its top bit set.
std::string noise_bytes(SerialLine& line) {
    std::string text;
    for (int i = 0; i < garbage_len; ++i) {
        line.noise = line.noise * 1103515245u + 12345u;
        text.push_back(static_cast<char>(0x80 | ((line.noise >> 16) & 0x7f)));
    }
    return text;
}

struct Suffix {
    const char* text;
    Variant variant;
};
const Suffix suffixes[] = {{"", Variant::normal},
                           {"-silent", Variant::silent},
                           {"-garbage", Variant::garbage},
                           {"-slow", Variant::slow},
                           {"-short", Variant::cut_short}};

std::string lower(const std::string& text) {
    std::string out;
    for (char c : text) {
        out.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    }
    return out;
}

// `echo_at`: when the echo of the command's carriage return is due; what follows at once goes
// after it.
void prompt_command(const PromptConsole& p, Variant v, uint64_t now, uint64_t echo_at) {
    std::string cmd = console_take(*p.console, now);
    if (cmd.empty()) {
        line_send(*p.line, "S>", echo_at);
        return;
    }
    if (cmd != "ts") {
        line_send(*p.line, "?cmd S>", echo_at);
        return;
    }
    uint64_t at = now + answer_delay_ns(v, p.sample_ns());
    line_reply(*p.line, v, p.sample(), at);
    if (v == Variant::normal || v == Variant::slow) {
        line_send(*p.line, "S>", at);
    }
}

} // namespace

Variant instrument_variant(const std::string& port_value, const char* name) {
    for (const Suffix& s : suffixes) {
        if (port_value == std::string(name) + s.text) {
            return s.variant;
        }
    }
    return Variant::absent;
}

uint64_t char_ns(const SerialLine& line) {
    return 10 * ns_per_s / line.baud;
}

bool in_tune(const SerialLine& line) {
    double board = uart_baud(line.port);
    return board > 0 && std::fabs(board - line.baud) <= baud_tolerance * line.baud;
}

uint8_t garbled(uint8_t byte) {
    return static_cast<uint8_t>(0x80 | (byte >> 1));
}

void line_send(SerialLine& line, const std::string& text, uint64_t at_ns) {
    if (text.empty()) {
        return;
    }
    auto it = line.out.begin();
    while (it != line.out.end() && (it->due_ns <= at_ns || it->sent > 0)) {
        ++it;
    }
    line.out.insert(it, SerialLine::Piece{at_ns, text});
}

void line_reply(SerialLine& line, Variant v, const std::string& text, uint64_t at_ns) {
    if (v == Variant::garbage) {
        line_send(line, noise_bytes(line), at_ns);
        return;
    }
    if (v == Variant::cut_short) {
        line_send(line, text.substr(0, text.size() / 2), at_ns);
        return;
    }
    line_send(line, text, at_ns);
}

uint64_t answer_delay_ns(Variant v, uint64_t usual_ns) {
    return v == Variant::slow ? usual_ns + slow_extra_ns : usual_ns;
}

uint64_t line_next_event_ns(const SerialLine& line) {
    return line.out.empty() ? UINT64_MAX : std::max(line.out.front().due_ns, line.free_ns);
}

void line_service(SerialLine& line, uint64_t now) {
    for (uint64_t t = line_next_event_ns(line); t <= now; t = line_next_event_ns(line)) {
        SerialLine::Piece& p = line.out.front();
        uint8_t b = static_cast<uint8_t>(p.text[p.sent++]);
        if (p.sent == p.text.size()) {
            line.out.pop_front();
        }
        line.free_ns = t + char_ns(line);
        if (line_open(line)) {
            uart_receive(line.port, in_tune(line) ? b : garbled(b));
        }
    }
}

bool line_open(const SerialLine& line) {
    return !line.driver_on || line.driver_on();
}

bool console_awake(Console& c, uint64_t now, uint64_t timeout_ns) {
    if (c.awake && now - c.last_ns >= timeout_ns) {
        c.awake = false;
    }
    return c.awake;
}

void console_wake(Console& c, uint64_t now) {
    c.awake = true;
    c.command.clear();
    c.last_ns = now;
}

bool console_collect(Console& c, uint8_t byte) {
    if (byte == '\r') {
        return true;
    }
    if (byte != '\n' && c.command.size() < command_max) {
        c.command.push_back(static_cast<char>(byte));
    }
    return false;
}

std::string console_take(Console& c, uint64_t now) {
    std::string cmd = lower(c.command);
    c.command.clear();
    c.last_ns = now;
    return cmd;
}

void prompt_receive(const PromptConsole& p, Variant v, uint8_t byte, uint64_t now) {
    uint64_t echo_at = now + char_ns(*p.line);
    if (!console_awake(*p.console, now, p.sleep_timeout_ns)) {
        if (byte == '\r') {
            console_wake(*p.console, now);
            line_send(*p.line, p.wake_text, echo_at);
        }
        return;
    }
    if (console_collect(*p.console, byte)) {
        line_send(*p.line, "\r\n", echo_at);
        prompt_command(p, v, now, echo_at);
        return;
    }
    if (byte != '\n') {
        line_send(*p.line, std::string(1, static_cast<char>(byte)), echo_at);
    }
}

void aanderaa_receive(const AanderaaConsole& a, Variant v, uint8_t byte, uint64_t now) {
    if (!console_awake(*a.console, now, a.sleep_timeout_ns)) {
        console_wake(*a.console, now);
        return;
    }
    if (a.echo) {
        line_send(*a.line, std::string(1, static_cast<char>(byte)), now + char_ns(*a.line));
    }
    if (!console_collect(*a.console, byte)) {
        return;
    }
    if (console_take(*a.console, now) == "do sample") {
        line_reply(*a.line, v, a.sample(), now + answer_delay_ns(v, a.sample_ns));
    }
}

void instruments_power_on() {
    for (const InstrumentModel* m : models) {
        m->power_on();
    }
}

uint64_t instruments_next_event_ns() {
    uint64_t t = UINT64_MAX;
    for (const InstrumentModel* m : models) {
        if (m->next_event_ns) {
            t = std::min(t, m->next_event_ns()); // first: it may drop what is on the line
        }
        t = std::min(t, line_next_event_ns(*m->line));
    }
    return t;
}

void instruments_service(uint64_t now) {
    for (const InstrumentModel* m : models) {
        if (m->service) {
            m->service(now);
        }
        line_service(*m->line, now);
    }
}

// A byte the board sent reaches the instruments on that port that listen, as they read it.
void instrument_tx(int port, uint8_t byte) {
    if (port == 2) {
        uvs_receive(byte, now_ns());
        return;
    }
    if (port != 3 && port != 4) {
        return;
    }
    std::string value = scenario_str(port_key(port), "none");
    for (const InstrumentModel* m : models) {
        if (m->port != port || !m->receive) {
            continue;
        }
        Variant v = instrument_variant(value, m->name);
        if (v == Variant::absent || v == Variant::silent) {
            continue;
        }
        m->receive(v, in_tune(*m->line) ? byte : garbled(byte), now_ns());
    }
}

} // namespace sim::dev
