// The console layer on UART0: interrupt-driven transmit and receive ring buffers with printf-style
// output, line input with optional echo, and the small helpers the menus and the host link poll.
// Bytes are sent exactly as given: texts carry their own "\r\n".
#pragma once

#include <cstdint>

// Ring sizes (powers of two). The transmit ring holds a few sample lines; longer texts wait for room.
constexpr uint32_t UART_TX_BUFFER_SIZE = 1024;
constexpr uint32_t UART_RX_BUFFER_SIZE = 256;
// Longest text one uprintf/dbg_printf call formats (a sample line is up to 1540 characters).
constexpr uint32_t UART_PRINTF_BUFFER_SIZE = 1600;

// Sets up UART0 as the console (8N1, FIFOs, receive interrupts). srcClock 16000000 selects the
// precision internal oscillator as the baud clock, any other value the system clock. Calling it again
// first lets pending output leave at the old rate. Ports other than 0 are ignored.
void UARTStdioConfig(uint32_t port, uint32_t baud, uint32_t srcClock);

// Formats into a bounded buffer and sends it; returns the number of bytes queued.
int uprintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// The shared text buffer for whole lines built before they go out (a sample line, a calibration
// export, a float-controller reply): one buffer, as RAM is short.
inline constexpr uint32_t PRNBUF_SIZE = 1540;
extern char prnBuf[PRNBUF_SIZE];

// Debug output on: dbg_printf prints. A copy of sys_data.debug_flag, set at start-up.
extern uint32_t dbg_flag;
// uprintf only while dbg_flag is set; returns 0 otherwise.
int dbg_printf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Queues len bytes unchanged; waits for room while the transmit ring is full. Returns the bytes queued
// (0 before UARTStdioConfig: there is no console to send on yet).
int UARTwrite(const char* buf, uint32_t len);

// Reads one line (up to CR or LF, which is consumed but not stored) into buf, NUL-terminated, at most
// len - 1 characters; the rest of a longer line is dropped. Waits for the line end. Returns the count.
int UARTgets(char* buf, uint32_t len);
// Position of c among the received bytes waiting to be read, or -1.
int UARTPeek(unsigned char c);
// Discards all received input.
void UARTFlushRx(void);
// discard: drops pending output; otherwise waits until the transmit ring is empty.
void UARTFlushTx(bool discard);
// Echo of typed characters (with backspace editing and CR shown as CR LF). On by default.
void UARTEchoSet(bool enable);
// Non-zero when a received byte waits.
int UARTrdy(void);
// Waits for one received byte and returns it.
unsigned char getChar(void);
// Waits until all output, including the last stop bit, has left the UART.
void wait_consoleTx(void);
int UARTRxBytesAvail(void);
int UARTTxBytesFree(void);

extern "C" void UARTStdioIntHandler(void);
