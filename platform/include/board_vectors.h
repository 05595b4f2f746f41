// The firmware's interrupt handlers and the exceptions they serve: the one list that both the chip's
// vector table in flash and the simulated board's table, installed at every reset, are built from.
#pragma once

#include <stdint.h>

#include "inc/hw_ints.h"

extern "C" {
void SysTickHandler(void);
void UARTStdioIntHandler(void);
void uart2_isr(void);
void uart3_isr(void);
void uart4_isr(void);
void uart5_isr(void);
void uart6_isr(void);
void uart7_isr(void);
// Not in the list: each platform reaches it through its own hard-fault path (the chip's start-up
// code calls it from its fault vector; the simulator has no start-up code and installs it directly).
void faultISR_handler(void);
}

struct BoardVector {
    uint32_t number; // exception number as in hw_ints.h (FAULT_*, INT_*)
    void (*handler)(void);
};

constexpr BoardVector board_vectors[] = {
    {FAULT_SYSTICK, SysTickHandler}, {INT_UART0, UARTStdioIntHandler}, {INT_UART2, uart2_isr},
    {INT_UART3, uart3_isr},          {INT_UART4, uart4_isr},           {INT_UART5, uart5_isr},
    {INT_UART6, uart6_isr},          {INT_UART7, uart7_isr},
};
