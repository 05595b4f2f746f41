// The board's vector table: fixed in flash on the chip, installed here at every reset. The handlers
// are the firmware's own.
#include "runtime.h"

extern "C" {
void SysTickHandler(void);
void UARTStdioIntHandler(void);
void uart2_isr(void);
void uart3_isr(void);
void uart4_isr(void);
void uart5_isr(void);
void uart6_isr(void);
void uart7_isr(void);
void faultISR_handler(void);
}

namespace sim {

void install_vectors() {
    register_vector(3, faultISR_handler);
    register_vector(15, SysTickHandler);
    register_vector(21, UARTStdioIntHandler);
    register_vector(49, uart2_isr);
    register_vector(75, uart3_isr);
    register_vector(76, uart4_isr);
    register_vector(77, uart5_isr);
    register_vector(78, uart6_isr);
    register_vector(79, uart7_isr);
}

} // namespace sim
