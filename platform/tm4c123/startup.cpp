// Start-up of the TM4C123GH6PM: the vector table at address 0 and the reset path that prepares
// memory and the FPU before main() runs. The table is fixed in flash; nothing is registered later.
#include <array>
#include <stdint.h>

#include "board_vectors.h"
#include "driverlib/fpu.h"
#include "inc/hw_ints.h"

// Symbols from the linker script.
extern "C" uint32_t __stack_top[];
extern "C" uint32_t __data_load[];
extern "C" uint32_t __data_start[];
extern "C" uint32_t __data_end[];
extern "C" uint32_t __bss_start[];
extern "C" uint32_t __bss_end[];

// The firmware's entry point; its handlers come with board_vectors.h.
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
    for (const BoardVector& v : board_vectors) {
        h[v.number - 1] = v.handler;
    }
    return h;
}

// Reset, NMI and the hard fault are the start-up code's own: the firmware's list must leave them alone.
static constexpr bool board_vectors_fit() {
    for (const BoardVector& v : board_vectors) {
        if (v.number <= FAULT_HARD || v.number >= NUM_INTERRUPTS) {
            return false;
        }
    }
    return true;
}
static_assert(board_vectors_fit(), "a firmware handler on a vector the start-up code owns or the chip lacks");

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
