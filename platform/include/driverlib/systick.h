/* Our own declaration of the TivaWare API subset: SysTick timer. */
#ifndef DRIVERLIB_SYSTICK_H
#define DRIVERLIB_SYSTICK_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

void SysTickEnable(void);
void SysTickDisable(void);
void SysTickIntEnable(void);
void SysTickIntDisable(void);
void SysTickPeriodSet(uint32_t ui32Period);
uint32_t SysTickPeriodGet(void);
uint32_t SysTickValueGet(void);

#ifdef __cplusplus
}
#endif

#endif
