// Console input on its way to UART0: keys and the harness's typing queued in the shared state and
// delivered one character time apart at the console's baud rate, with pauses where an answer waits
// for the board to act.
#include "runtime_internal.h"

#include <algorithm>
#include <iterator>

namespace sim {

namespace {

// When the byte at typed_pos may arrive: one character time after the one before it, and no earlier
// than a pause that starts at it.
uint64_t next_byte_ns(const Shared& s) {
    uint64_t t = s.typed_next_ns;
    for (uint32_t i = 0; i < s.typed_holds; ++i) {
        if (s.typed_pos == s.typed_hold_pos[i]) {
            t = std::max(t, s.typed_hold_ns[i]);
        }
    }
    return t;
}

} // namespace

uint64_t typed_due_ns() {
    const Shared& s = shared();
    return s.typed_pos < s.typed_len ? next_byte_ns(s) : never;
}

void deliver_typed(uint64_t now) {
    Shared& s = shared();
    while (s.typed_pos < s.typed_len && next_byte_ns(s) <= now) {
        s.typed_next_ns = next_byte_ns(s);
        uart_receive(0, static_cast<uint8_t>(s.typed[s.typed_pos++]));
        s.typed_next_ns += console_char_ns();
    }
    if (s.typed_pos == s.typed_len) {
        s.typed_pos = s.typed_len = 0;
        s.typed_holds = 0;
    }
}

uint64_t console_char_ns() {
    uint32_t baud = uart_baud(0);
    if (baud == 0) {
        baud = 115200;
    }
    return 10 * ns_per_s / baud; // start bit, eight data bits, stop bit
}

void type_console(const std::string& text) {
    Shared& s = shared();
    if (s.typed_pos == s.typed_len) {
        s.typed_pos = s.typed_len = 0;
        s.typed_holds = 0;
        s.typed_next_ns = s.now_ns + console_char_ns();
    }
    for (char ch : text) {
        if (s.typed_len == sizeof s.typed) {
            message("typed input longer than %zu bytes: the rest is dropped", sizeof s.typed);
            return;
        }
        s.typed[s.typed_len++] = ch;
    }
}

void type_console_after(uint64_t delay_ns, const std::string& text) {
    Shared& s = shared();
    if (s.typed_pos == s.typed_len) {
        s.typed_pos = s.typed_len = 0;
        s.typed_next_ns = s.now_ns + console_char_ns();
    }
    if (s.typed_holds == std::size(s.typed_hold_pos)) {
        message("more than %zu pauses in typed input: the text is dropped", std::size(s.typed_hold_pos));
        return;
    }
    s.typed_hold_pos[s.typed_holds] = s.typed_len;
    s.typed_hold_ns[s.typed_holds] = s.now_ns + delay_ns;
    ++s.typed_holds;
    for (char ch : text) {
        if (s.typed_len == sizeof s.typed) {
            return;
        }
        s.typed[s.typed_len++] = ch;
    }
}

} // namespace sim
