// Machine-to-machine session.
//
// Placeholder module: the record, its initialisation, the line-timing commands and the menu key
// reader are complete; handle_m2m_comm only swallows bytes until the receive state machine and the
// command line replace it.
#include "hostlink/serial.h"

#include <cstring>

#include "core/board_util.h"
#include "core/timebase.h"
#include "ports/uartstdio.h"

rxStateMach rx0 = {};

void m2m_statemachine_init(void) {
    UARTEchoSet(false);
    rx0.state = 0;
    rx0.cmd = 0;
    rx0.cnt = 0;
    rx0.cr_cnt = 0;
    rx0.indx = 0;
    rx0.tick_ms_delta = 0;
    rx0.tick_ms_start = Timer_1ms(0);
    rx0.tick_ms_now = rx0.tick_ms_start;
    memset(rx0.buf, 0, sizeof(rx0.buf));
    uprintf("\r\n>");
}

void apf_set_m2m_timeout(void) {
    rx0.tick_ms_delim = 250;
}

void apf_set_h2m_timeout(uint32_t seconds) {
    rx0.tick_ms_delim = 1000 * seconds;
}

// Placeholder: reads and discards one byte. 1 when a byte was read, 0 when none waited.
int32_t handle_m2m_comm(void) {
    if (!UARTrdy()) {
        return 0;
    }
    rx0.byte = getChar();
    return 1;
}

uint8_t get_key_m2m(void) {
    for (;;) {
        if (UARTPeek('\r') >= 0) {
            char line[5];
            UARTgets(line, sizeof(line));
            return static_cast<uint8_t>(line[0]);
        }
        if (UARTPeek('U') >= 0) {
            UARTEchoSet(false);
            while ((handle_m2m_comm() & 0xFF) != 1) {
                wdog_pet();
            }
            UARTEchoSet(true);
            return 1;
        }
        wdog_pet();
    }
}
