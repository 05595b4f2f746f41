// The instrument serial ports UART2 to UART7: their interrupt handlers, and the driver of port 4 (the
// CTD port), whose received bytes collect in a ring buffer that the CTD state machines read from the
// main loop.
#pragma once

#include <cstdint>

// Holds several CTD reply lines, so a reply survives the long gaps between two state-machine steps.
constexpr uint32_t UART4_RX_BUFFER_SIZE = 128;

// Sets up UART4 (8N1, FIFOs, receive interrupts) and empties its receive ring. srcClock 16000000
// selects the precision internal oscillator as the baud clock, any other value the system clock.
void uart4_init(uint32_t baud, uint32_t srcClock);
// Echo of received bytes back to the instrument; off after uart4_init.
void uart4_echo_set(bool enable);
// Moves bytes from the receive FIFO into the ring, as the interrupt would. The readers below call it,
// so polling loops see bytes even with interrupts masked, and each poll touches the hardware.
void uart4_service(void);
// Number of received bytes waiting in the ring.
uint32_t uart4_rx_avail(void);
// The next received byte, or -1 when none waits.
int32_t uart4_getc(void);
// Discards the received bytes, those still in the hardware FIFO included.
void uart4_flush_rx(void);
// Sends bytes unchanged; waits for room in the transmit FIFO.
void uart4_write(const char* buf, uint32_t len);
// Waits until the last bit has left the UART (bounded, so a stopped UART does not hang the caller).
void uart4_flush_tx(void);

extern "C" {
void uart2_isr(void);
void uart3_isr(void);
void uart4_isr(void);
void uart5_isr(void);
void uart6_isr(void);
void uart7_isr(void);
}
