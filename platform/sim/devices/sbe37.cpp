// The Sea-Bird SBE37 MicroCAT on port 4 (UART4, 9600 baud, 8N1), as far as the board uses it.
//
// Asleep, the instrument ignores everything but a carriage return, which wakes it: it answers with
// its prompt "S>". Awake, it echoes what it receives (a carriage return as CR LF) and collects a
// command line; "ts" takes a sample and sends one line 2.5 s after the command's carriage return
// (a real SBE37 needs about 2 to 3 s per sample with its pressure sensor; `port4.delay` sets another
// time, for a slow one), followed by a new prompt.
// An empty line gets the prompt, anything else "?cmd" and the prompt. After two minutes without a
// command it goes back to sleep. Its bytes reach the board one character time (10 bits at 9600
// baud) apart.
//
// The sample line is `port4.reply` followed by CR LF when that is set. Otherwise it is built from
// the bath: temperature, conductivity, salinity, date and time, separated by commas. The instrument
// is set up for a terse output that fits the controller's 15-character reply window, so the numbers
// carry as many decimals as fit (salinity first, as the pH computation uses it), and date and time
// are single digits (the controller does not use them). Conductivity follows from salinity and
// temperature by the practical salinity scale's temperature ratio, close enough for a reading that
// only has to look right.
//
// The scenario's `port4` picks what hangs on the port: `sbe37`, `sbe37-silent` (never answers),
// `sbe37-garbage` (answers the sample request with noise: bytes from a different baud rate, no line
// end), or `none`. It is read at every byte, so a script's `set port4 ...` takes effect at once.
#include "devices.h"
#include "sim.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <deque>
#include <string>

namespace sim::dev {

namespace {

constexpr int sbe37_port = 4;
constexpr uint64_t char_ns = 10 * ns_per_s / 9600; // start bit, 8 data bits, stop bit
constexpr uint64_t sleep_timeout_ns = 120 * ns_per_s;
constexpr size_t line_window = 14; // visible characters; the CR makes 15 stored by the controller
constexpr size_t command_max = 32;
constexpr int garbage_len = 40;

enum class Kind { none, sbe37, silent, garbage };

struct Out {
    uint64_t at_ns;
    uint8_t byte;
};

struct Sbe37 {
    bool awake = false;
    std::string command;
    uint64_t last_command_ns = 0;
    std::deque<Out> out;
    uint64_t last_out_ns = 0; // when the latest queued byte arrives
    uint32_t noise = 1;
};

Sbe37 g_sbe;

Kind kind() {
    std::string k = scenario_str("port4", "none");
    if (k == "sbe37") {
        return Kind::sbe37;
    }
    if (k == "sbe37-silent") {
        return Kind::silent;
    }
    if (k == "sbe37-garbage") {
        return Kind::garbage;
    }
    return Kind::none;
}

// Queues text to arrive from `at_ns` on, after whatever is already on its way.
void send(const std::string& text, uint64_t at_ns) {
    uint64_t t = std::max(at_ns, g_sbe.out.empty() ? at_ns : g_sbe.last_out_ns + char_ns);
    for (char c : text) {
        g_sbe.out.push_back(Out{t, static_cast<uint8_t>(c)});
        g_sbe.last_out_ns = t;
        t += char_ns;
    }
}

// Conductivity in S/m of seawater at salinity s and temperature t (surface pressure): the standard
// seawater's 4.2914 S/m scaled by the temperature ratio rt(t), and roughly in proportion to s.
double conductivity(double s, double t) {
    double rt = 0.6766097 + t * (2.00564e-2 + t * (1.104259e-4 + t * (-6.9698e-7 + t * 1.0031e-9)));
    return 4.2914 * rt * s / 35.0;
}

std::string bath_line() {
    double t = scenario_num("bath.temp", 15.0);
    double s = scenario_num("bath.sal", 35.0);
    double c = conductivity(s, t);
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

std::string noise_bytes() {
    std::string text;
    for (int i = 0; i < garbage_len; ++i) {
        g_sbe.noise = g_sbe.noise * 1103515245u + 12345u;
        text.push_back(static_cast<char>(0x80 | ((g_sbe.noise >> 16) & 0x7f)));
    }
    return text;
}

uint64_t sample_delay_ns() {
    return static_cast<uint64_t>(scenario_num("port4.delay", 2.5) * 1e9);
}

void take_sample(Kind k, uint64_t now) {
    if (k == Kind::garbage) {
        send(noise_bytes(), now + sample_delay_ns());
        return;
    }
    std::string reply = scenario_str("port4.reply", "");
    if (reply.empty()) {
        reply = bath_line();
    }
    send(reply + "\r\n", now + sample_delay_ns());
    send("S>", now + sample_delay_ns());
}

void run_command(Kind k, uint64_t now) {
    std::string cmd;
    for (char c : g_sbe.command) {
        cmd.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    }
    g_sbe.command.clear();
    g_sbe.last_command_ns = now;
    if (cmd == "ts") {
        take_sample(k, now);
    } else if (cmd.empty()) {
        send("S>", now);
    } else {
        send("?cmd S>", now);
    }
}

void receive(uint8_t byte) {
    Kind k = kind();
    if (k == Kind::none || k == Kind::silent) {
        return;
    }
    uint64_t now = now_ns();
    if (g_sbe.awake && now - g_sbe.last_command_ns >= sleep_timeout_ns) {
        g_sbe.awake = false;
    }
    if (!g_sbe.awake) {
        if (byte == '\r') {
            g_sbe.awake = true;
            g_sbe.command.clear();
            g_sbe.last_command_ns = now;
            send("S>", now + char_ns);
        }
        return;
    }
    if (byte == '\r') {
        send("\r\n", now + char_ns);
        run_command(k, now);
        return;
    }
    if (byte == '\n') {
        return;
    }
    send(std::string(1, static_cast<char>(byte)), now + char_ns);
    if (g_sbe.command.size() < command_max) {
        g_sbe.command.push_back(static_cast<char>(byte));
    }
}

} // namespace

void sbe37_power_on() {
    g_sbe = Sbe37{};
}

uint64_t sbe37_next_event_ns() {
    return g_sbe.out.empty() ? UINT64_MAX : g_sbe.out.front().at_ns;
}

void sbe37_service(uint64_t now) {
    while (!g_sbe.out.empty() && g_sbe.out.front().at_ns <= now) {
        uint8_t b = g_sbe.out.front().byte;
        g_sbe.out.pop_front();
        uart_receive(sbe37_port, b);
    }
}

void instrument_tx(int port, uint8_t byte) {
    if (port == sbe37_port) {
        receive(byte);
    }
}

} // namespace sim::dev
