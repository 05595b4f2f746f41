// The pass of a port-3 instrument driver (see port3.h). Each step returns at once, so the sample
// cycle's ADC readings go on while the instrument takes its time.
#include "instruments/port3.h"

#include <cstdio>
#include <cstring>

#include "storage/fault_note.h"
#include "board/timebase.h"
#include "instruments/inst_text.h"
#include "ports/uarts.h"

#include "driverlib/sysctl.h"

char uart3_prn_buf[UART3_PRN_BUF_SIZE] = {};
uart3Driver port3 = {};

namespace {

constexpr uint32_t port = 3;
constexpr uint32_t uart_clock = 16000000; // the precision internal oscillator
// The pause of a step that found nothing to do: about 100 us at 50 MHz (three cycles a count), under
// one character time even at the radiometer's 57600 baud (174 us), while a caller stepping back to
// back does not spin millions of times through a multi-second wait.
constexpr uint32_t idle_pause_counts = 1667;
// Bytes handled per step at most, so one step stays short however fast an instrument babbles.
constexpr uint32_t bytes_per_step = 64;

uint32_t ticks_since(uint32_t since) {
    return Timer_10ms(0) - since;
}

int finish_failed(const port3Instrument& inst, const char* why) {
    inst_blank_fields(uart3_prn_buf, sizeof uart3_prn_buf, inst.fields);
    char text[120];
    snprintf(text, sizeof text, "Port 3 %s: %s", inst.name, why);
    fault_note(FAULT_PORT3, text);
    port3.state = PORT3_STATE_FAILED;
    return PORT3_STATE_IDLE;
}

int start(const port3Instrument& inst) {
    port3.lineLen = 0;
    port3.overlong = false;
    port3.heard = false;
    port3.line[0] = '\0';
    inst_blank_fields(uart3_prn_buf, sizeof uart3_prn_buf, inst.fields);
    if (!uart_init(port, inst.baud, uart_clock)) {
        return finish_failed(inst, "serial port 3 cannot be opened");
    }
    uart_flush_rx(port); // a reply that came too late for an earlier pass
    if (inst.wake != nullptr) {
        uart_puts(port, inst.wake);
    }
    port3.old_tick10ms = Timer_10ms(0);
    port3.state = PORT3_STATE_WAKE_WAIT;
    return PORT3_STATE_WAKE_WAIT;
}

int ask(const port3Instrument& inst) {
    uart_service(port);
    if (inst.wake != nullptr && ticks_since(port3.old_tick10ms) < inst.wake_ticks) {
        SysCtlDelay(idle_pause_counts);
        return PORT3_STATE_WAKE_WAIT;
    }
    uart_flush_rx(port); // what the wake brought back (a prompt)
    if (inst.command != nullptr) {
        uart_puts(port, inst.command);
    }
    port3.old_tick10ms = Timer_10ms(0);
    port3.state = PORT3_STATE_RECEIVE;
    return PORT3_STATE_RECEIVE;
}

// A whole line came in: the reply, or something to skip.
bool line_is_reply(const port3Instrument& inst) {
    size_t n = strlen(inst.prefix);
    return !port3.overlong && port3.lineLen >= n && strncmp(port3.line, inst.prefix, n) == 0;
}

void take_byte(char c) {
    if (port3.lineLen + 1 < sizeof port3.line) {
        port3.line[port3.lineLen++] = c;
        port3.line[port3.lineLen] = '\0';
        return;
    }
    port3.overlong = true;
}

int receive(const port3Instrument& inst) {
    for (uint32_t i = 0; i < bytes_per_step; i++) {
        int32_t c = uart_getc(port);
        if (c < 0) {
            break;
        }
        port3.heard = true;
        if (c != '\r' && c != '\n') {
            take_byte(static_cast<char>(c));
            continue;
        }
        if (line_is_reply(inst)) {
            port3.state = PORT3_STATE_REPLY;
            return PORT3_STATE_REPLY;
        }
        port3.lineLen = 0;
        port3.overlong = false;
        port3.line[0] = '\0';
    }
    if (ticks_since(port3.old_tick10ms) >= inst.timeout_ticks) {
        return finish_failed(inst, port3.heard ? "no reply understood, check its settings and baud rate"
                                               : "not responding, check connection and port 3 setting");
    }
    SysCtlDelay(idle_pause_counts);
    return PORT3_STATE_RECEIVE;
}

} // namespace

int port3_stateMachine(const port3Instrument& inst, int state) {
    port3.state = state;
    switch (state) {
    case PORT3_STATE_START:
        return start(inst);
    case PORT3_STATE_WAKE_WAIT:
        return ask(inst);
    case PORT3_STATE_RECEIVE:
        return receive(inst);
    default:
        return PORT3_STATE_IDLE;
    }
}

int port3_finish(const port3Instrument& inst, bool parsed) {
    if (!parsed) {
        return finish_failed(inst, "reply not understood");
    }
    fault_clear(FAULT_PORT3);
    port3.state = PORT3_STATE_IDLE;
    return PORT3_STATE_IDLE;
}

bool port3_set_fields(const char* const* fields, uint32_t count) {
    return inst_join_fields(uart3_prn_buf, sizeof uart3_prn_buf, fields, count);
}
