// Interrupt handlers of the instrument serial ports UART2 to UART7.
#pragma once

extern "C" {
void uart2_isr(void);
void uart3_isr(void);
void uart4_isr(void);
void uart5_isr(void);
void uart6_isr(void);
void uart7_isr(void);
}
