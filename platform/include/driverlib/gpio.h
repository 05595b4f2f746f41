/* Our own declaration of the TivaWare API subset: GPIO ports. */
#ifndef DRIVERLIB_GPIO_H
#define DRIVERLIB_GPIO_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define GPIO_PIN_0 0x00000001
#define GPIO_PIN_1 0x00000002
#define GPIO_PIN_2 0x00000004
#define GPIO_PIN_3 0x00000008
#define GPIO_PIN_4 0x00000010
#define GPIO_PIN_5 0x00000020
#define GPIO_PIN_6 0x00000040
#define GPIO_PIN_7 0x00000080

/* GPIODirModeSet(). */
#define GPIO_DIR_MODE_IN 0x00000000
#define GPIO_DIR_MODE_OUT 0x00000001
#define GPIO_DIR_MODE_HW 0x00000002

/* GPIOIntTypeSet(). */
#define GPIO_FALLING_EDGE 0x00000000
#define GPIO_RISING_EDGE 0x00000004
#define GPIO_BOTH_EDGES 0x00000001
#define GPIO_LOW_LEVEL 0x00000002
#define GPIO_HIGH_LEVEL 0x00000006
#define GPIO_DISCRETE_INT 0x00010000

/* GPIOPadConfigSet(): drive strength. */
#define GPIO_STRENGTH_2MA 0x00000001
#define GPIO_STRENGTH_4MA 0x00000002
#define GPIO_STRENGTH_6MA 0x00000065
#define GPIO_STRENGTH_8MA 0x00000066
#define GPIO_STRENGTH_8MA_SC 0x0000006E
#define GPIO_STRENGTH_10MA 0x00000075
#define GPIO_STRENGTH_12MA 0x00000077

/* GPIOPadConfigSet(): pad type. */
#define GPIO_PIN_TYPE_STD 0x00000008
#define GPIO_PIN_TYPE_STD_WPU 0x0000000A
#define GPIO_PIN_TYPE_STD_WPD 0x0000000C
#define GPIO_PIN_TYPE_OD 0x00000009
#define GPIO_PIN_TYPE_ANALOG 0x00000000
#define GPIO_PIN_TYPE_WAKE_HIGH 0x00000208
#define GPIO_PIN_TYPE_WAKE_LOW 0x00000108

/* GPIOIntEnable() and friends. */
#define GPIO_INT_PIN_0 0x00000001
#define GPIO_INT_PIN_1 0x00000002
#define GPIO_INT_PIN_2 0x00000004
#define GPIO_INT_PIN_3 0x00000008
#define GPIO_INT_PIN_4 0x00000010
#define GPIO_INT_PIN_5 0x00000020
#define GPIO_INT_PIN_6 0x00000040
#define GPIO_INT_PIN_7 0x00000080
#define GPIO_INT_DMA 0x00000100

void GPIODirModeSet(uint32_t ui32Port, uint8_t ui8Pins, uint32_t ui32PinIO);
uint32_t GPIODirModeGet(uint32_t ui32Port, uint8_t ui8Pin);
void GPIOPadConfigSet(uint32_t ui32Port, uint8_t ui8Pins, uint32_t ui32Strength, uint32_t ui32PadType);
void GPIOPadConfigGet(uint32_t ui32Port, uint8_t ui8Pin, uint32_t* pui32Strength, uint32_t* pui32PadType);
int32_t GPIOPinRead(uint32_t ui32Port, uint8_t ui8Pins);
void GPIOPinWrite(uint32_t ui32Port, uint8_t ui8Pins, uint8_t ui8Val);
void GPIOPinConfigure(uint32_t ui32PinConfig);
// Opens the commit register of a locked pin (PD7, PF0 on the TM4C123) so that it can be configured.
void GPIOUnlockPin(uint32_t ui32Port, uint8_t ui8Pins);
void GPIOPinTypeGPIOInput(uint32_t ui32Port, uint8_t ui8Pins);
void GPIOPinTypeGPIOOutput(uint32_t ui32Port, uint8_t ui8Pins);
void GPIOPinTypeGPIOOutputOD(uint32_t ui32Port, uint8_t ui8Pins);
void GPIOPinTypeUART(uint32_t ui32Port, uint8_t ui8Pins);
void GPIOPinTypeSSI(uint32_t ui32Port, uint8_t ui8Pins);
void GPIOPinTypeI2C(uint32_t ui32Port, uint8_t ui8Pins);
void GPIOPinTypeI2CSCL(uint32_t ui32Port, uint8_t ui8Pins);
void GPIOPinTypeADC(uint32_t ui32Port, uint8_t ui8Pins);
void GPIOPinTypePWM(uint32_t ui32Port, uint8_t ui8Pins);
void GPIOPinTypeTimer(uint32_t ui32Port, uint8_t ui8Pins);
void GPIOIntTypeSet(uint32_t ui32Port, uint8_t ui8Pins, uint32_t ui32IntType);
void GPIOIntEnable(uint32_t ui32Port, uint32_t ui32IntFlags);
void GPIOIntDisable(uint32_t ui32Port, uint32_t ui32IntFlags);
uint32_t GPIOIntStatus(uint32_t ui32Port, bool bMasked);
void GPIOIntClear(uint32_t ui32Port, uint32_t ui32IntFlags);

#ifdef __cplusplus
}
#endif

#endif
