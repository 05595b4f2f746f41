// The instrument serial ports UART2 to UART7: interrupt-driven receive rings that the instrument
// drivers read from the main loop, transmission, echo and a count of lost bytes. Also the set-up
// every UART of the board goes through, the console's included.
//
// On the 64-pin package UART5 (PE4/PE5) and UART7 (PE0/PE1) only have pins that this board uses for
// other lines (the serial flash's second select and its supply switch; the isolated supply enable and
// the ADC's data-ready), so those two ports are not brought out: uart_init refuses them and their
// interrupt handlers only clear what would keep them pending. Ports 2 (PD6/PD7), 3 (PC6/PC7), 4
// (PC4/PC5) and 6 (PD4/PD5) work.
#pragma once

#include <cstdint>

// Each ring holds a whole instrument reply (the longest, the optode's, is about 200 characters), so a
// reply survives the long gaps between two state-machine steps.
constexpr uint32_t UART_RX_RING_SIZE = 256;

// Clocks a peripheral (a UART, the GPIO port of its pins) and waits, bounded, until it is ready.
void uart_peripheral_on(uint32_t periph);
// Sets up the UART at `base`: its clock gate `periph` on, 8N1 at `baud`, FIFOs on with both interrupt
// levels at 1/8, pending interrupts and receive errors cleared, then the interrupt sources
// `int_flags` enabled and the UART on. srcClock 16000000 selects the precision internal oscillator
// as the baud clock, any other value the system clock. The NVIC entry is left to the caller.
void uart_setup(uint32_t base, uint32_t periph, uint32_t baud, uint32_t srcClock, uint32_t int_flags);

// Whether a port number names a UART this board brings out.
bool uart_port_usable(uint32_t port);
// Sets the port up (8N1, FIFOs, receive interrupts) and empties its ring; echo off. srcClock 16000000
// selects the precision internal oscillator as the baud clock, any other value the system clock.
// False, with nothing touched, for a port the board does not bring out.
bool uart_init(uint32_t port, uint32_t baud, uint32_t srcClock);
// Echo of received bytes back to the instrument.
void uart_echo_set(uint32_t port, bool enable);
// Moves bytes from the receive FIFO into the ring, as the interrupt would. The readers below call it,
// so polling loops see bytes even with interrupts masked, and each poll touches the hardware.
void uart_service(uint32_t port);
// Number of received bytes waiting in the ring.
uint32_t uart_rx_avail(uint32_t port);
// The next received byte, or -1 when none waits.
int32_t uart_getc(uint32_t port);
// Discards the received bytes, those still in the hardware FIFO included.
void uart_flush_rx(uint32_t port);
// Sends bytes unchanged, waiting (bounded) for room in the transmit FIFO.
void uart_putc(uint32_t port, char c);
void uart_puts(uint32_t port, const char* text);
// Waits until the last bit has left the UART (bounded, so a stopped UART does not hang the caller).
void uart_flush_tx(uint32_t port);
// Received bytes lost since uart_init: a full ring, or a full hardware FIFO (overrun).
uint32_t uart_overruns(uint32_t port);

extern "C" {
void uart2_isr(void);
void uart3_isr(void);
void uart4_isr(void);
void uart5_isr(void);
void uart6_isr(void);
void uart7_isr(void);
}
