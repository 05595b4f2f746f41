// Start-up of the TM4C123GH6PM: the vector table at address 0 and the reset path that prepares
// memory and the FPU before main() runs. The table is fixed in flash; nothing is registered later.
#include <array>
#include <stdint.h>

#include "driverlib/fpu.h"
#include "inc/hw_ints.h"

// Symbols from the linker script.
extern "C" uint32_t __stack_top[];
extern "C" uint32_t __data_load[];
extern "C" uint32_t __data_start[];
extern "C" uint32_t __data_end[];
extern "C" uint32_t __bss_start[];
extern "C" uint32_t __bss_end[];

// Firmware handlers and entry point.
extern "C" void SysTickHandler(void);
extern "C" void UARTStdioIntHandler(void);
extern "C" void uart2_isr(void);
extern "C" void uart3_isr(void);
extern "C" void uart4_isr(void);
extern "C" void uart5_isr(void);
extern "C" void uart6_isr(void);
extern "C" void uart7_isr(void);
extern "C" void faultISR_handler(void);
extern "C" void __libc_init_array(void);
int main(void);

extern "C" void ResetISR(void);
extern "C" void NmiSR(void);
extern "C" void FaultISR(void);
extern "C" void IntDefaultHandler(void);

using Handler = void (*)(void);

// Vector 0 is the initial stack pointer; handlers follow from vector 1.
struct VectorTable {
    uint32_t* initial_sp;
    std::array<Handler, NUM_INTERRUPTS - 1> handlers;
};

static constexpr std::array<Handler, NUM_INTERRUPTS - 1> make_handlers() {
    std::array<Handler, NUM_INTERRUPTS - 1> h{};
    for (Handler& entry : h) {
        entry = IntDefaultHandler;
    }
    h[1 - 1] = ResetISR;
    h[FAULT_NMI - 1] = NmiSR;
    h[FAULT_HARD - 1] = FaultISR;
    h[FAULT_SYSTICK - 1] = SysTickHandler;
    h[INT_UART0 - 1] = UARTStdioIntHandler;
    h[INT_UART2 - 1] = uart2_isr;
    h[INT_UART3 - 1] = uart3_isr;
    h[INT_UART4 - 1] = uart4_isr;
    h[INT_UART5 - 1] = uart5_isr;
    h[INT_UART6 - 1] = uart6_isr;
    h[INT_UART7 - 1] = uart7_isr;
    return h;
}

extern "C" {
__attribute__((section(".isr_vectors"), used)) constinit const VectorTable g_vectors = {__stack_top,
                                                                                        make_handlers()};
}
static_assert(sizeof(VectorTable) == NUM_INTERRUPTS * 4, "the TM4C123 vector table has 155 words");

extern "C" void ResetISR(void) {
    // The FPU first, before any code (library copies, constructors) may touch an FP register.
    FPUEnable();
    FPULazyStackingEnable();

    const uint32_t* src = __data_load;
    for (uint32_t* dst = __data_start; dst < __data_end;) {
        *dst++ = *src++;
    }
    for (uint32_t* dst = __bss_start; dst < __bss_end;) {
        *dst++ = 0;
    }

    __libc_init_array();
    main();
    for (;;) {
    }
}

extern "C" void NmiSR(void) {
    for (;;) {
    }
}

extern "C" void FaultISR(void) {
    faultISR_handler();
    for (;;) {
    }
}

extern "C" void IntDefaultHandler(void) {
    for (;;) {
    }
}
