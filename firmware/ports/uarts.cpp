// Interrupt handlers of the instrument serial ports UART2 to UART7.
//
// For now a port that interrupts has its received bytes read and dropped and its interrupt cleared, so
// an instrument talking on an unused port cannot keep the processor in its handler. The receive ring
// buffers of the instrument ports come with the instrument drivers that read them.
#include "ports/uarts.h"

#include <cstdint>

#include "driverlib/uart.h"
#include "inc/hw_memmap.h"

namespace {

// More than a full 16-byte FIFO, so a byte arriving during the drain is taken as well.
constexpr uint32_t max_drain_reads = 32;

void drain_and_clear(uint32_t base) {
    uint32_t status = UARTIntStatus(base, true);
    UARTIntClear(base, status);
    for (uint32_t i = 0; i < max_drain_reads && UARTCharsAvail(base); i++) {
        UARTCharGetNonBlocking(base);
    }
}

} // namespace

extern "C" void uart2_isr(void) {
    drain_and_clear(UART2_BASE);
}
extern "C" void uart3_isr(void) {
    drain_and_clear(UART3_BASE);
}
extern "C" void uart4_isr(void) {
    drain_and_clear(UART4_BASE);
}
extern "C" void uart5_isr(void) {
    drain_and_clear(UART5_BASE);
}
extern "C" void uart6_isr(void) {
    drain_and_clear(UART6_BASE);
}
extern "C" void uart7_isr(void) {
    drain_and_clear(UART7_BASE);
}
