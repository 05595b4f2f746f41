/* Our own declaration of the TivaWare API subset: floating-point unit control. */
#ifndef DRIVERLIB_FPU_H
#define DRIVERLIB_FPU_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

void FPUEnable(void);
void FPUDisable(void);
void FPUStackingEnable(void);
void FPULazyStackingEnable(void);
void FPUStackingDisable(void);

#ifdef __cplusplus
}
#endif

#endif
