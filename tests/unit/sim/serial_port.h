// The board's side of an instrument port for the instrument model tests: the UART opened at a
// chosen rate, text sent through it, and what arrives, with arrival times.
#pragma once

#include "sim.h"
#include "sim_test.h"

#include "driverlib/sysctl.h"
#include "driverlib/uart.h"
#include "inc/hw_memmap.h"

#include <cstdint>
#include <string>
#include <vector>

namespace serial_port {

struct Rx {
    uint64_t at_ns;
    char c;
};

// The UARTs' register blocks lie 4 KiB apart.
inline uint32_t base(int port) {
    return UART0_BASE + 0x1000u * static_cast<uint32_t>(port);
}

// An instrument port (UART2 to UART4) at `baud`, 8N1, from the 16 MHz precision oscillator as the
// firmware runs them.
inline void open(int port, uint32_t baud) {
    SysCtlPeripheralEnable(SYSCTL_PERIPH_UART0 + static_cast<uint32_t>(port));
    UARTClockSourceSet(base(port), UART_CLOCK_PIOSC);
    UARTConfigSetExpClk(base(port), 16000000, baud,
                        UART_CONFIG_WLEN_8 | UART_CONFIG_STOP_ONE | UART_CONFIG_PAR_NONE);
}

inline void send(int port, const std::string& text) {
    for (char c : text) {
        UARTCharPut(base(port), static_cast<unsigned char>(c));
    }
}

// The time the byte at `index` of text sent now has left the board (each takes one frame at baud).
inline uint64_t sent_at(size_t index, uint32_t baud) {
    return sim::now_ns() + (index + 1) * 10 * sim::ns_per_s / baud;
}

// What the port receives during the next `seconds`, read every `grid_s`.
inline std::vector<Rx> listen(int port, double seconds, double grid_s = 0.001) {
    std::vector<Rx> got;
    uint64_t end = sim::now_ns() + static_cast<uint64_t>(seconds * sim::ns_per_s);
    while (sim::now_ns() < end) {
        sim::test::advance_s(grid_s);
        while (UARTCharsAvail(base(port))) {
            got.push_back(Rx{sim::now_ns(), static_cast<char>(UARTCharGetNonBlocking(base(port)))});
        }
    }
    return got;
}

inline std::string text(const std::vector<Rx>& rx, size_t from = 0) {
    std::string s;
    for (size_t i = from; i < rx.size(); ++i) {
        s.push_back(rx[i].c);
    }
    return s;
}

// Sends text and returns what arrives during the next `seconds`.
inline std::string say(int port, const std::string& text, double seconds) {
    send(port, text);
    return serial_port::text(listen(port, seconds));
}

// The fields of a tab-separated line.
inline std::vector<std::string> split_tabs(const std::string& line) {
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t tab = line.find('\t'); tab != std::string::npos; tab = line.find('\t', start)) {
        out.push_back(line.substr(start, tab - start));
        start = tab + 1;
    }
    out.push_back(line.substr(start));
    return out;
}

} // namespace serial_port
