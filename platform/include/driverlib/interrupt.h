/* Our own declaration of the TivaWare API subset: NVIC interrupt control. */
#ifndef DRIVERLIB_INTERRUPT_H
#define DRIVERLIB_INTERRUPT_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

bool IntMasterEnable(void);
bool IntMasterDisable(void);
void IntEnable(uint32_t ui32Interrupt);
void IntDisable(uint32_t ui32Interrupt);
uint32_t IntIsEnabled(uint32_t ui32Interrupt);
void IntPrioritySet(uint32_t ui32Interrupt, uint8_t ui8Priority);
int32_t IntPriorityGet(uint32_t ui32Interrupt);
void IntPendSet(uint32_t ui32Interrupt);
void IntPendClear(uint32_t ui32Interrupt);

#ifdef __cplusplus
}
#endif

#endif
