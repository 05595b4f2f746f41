/* Our own declaration of the TivaWare API subset: synchronous serial interface (SPI). */
#ifndef DRIVERLIB_SSI_H
#define DRIVERLIB_SSI_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SSI_FRF_MOTO_MODE_0 0x00000000
#define SSI_FRF_MOTO_MODE_1 0x00000002
#define SSI_FRF_MOTO_MODE_2 0x00000001
#define SSI_FRF_MOTO_MODE_3 0x00000003
#define SSI_FRF_TI 0x00000010
#define SSI_FRF_NMW 0x00000020

#define SSI_MODE_MASTER 0x00000000
#define SSI_MODE_SLAVE 0x00000001
#define SSI_MODE_SLAVE_OD 0x00000002

#define SSI_CLOCK_SYSTEM 0x00000000
#define SSI_CLOCK_PIOSC 0x00000005

#define SSI_TXFF 0x00000008
#define SSI_RXFF 0x00000004
#define SSI_RXTO 0x00000002
#define SSI_RXOR 0x00000001

void SSIConfigSetExpClk(uint32_t ui32Base, uint32_t ui32SSIClk, uint32_t ui32Protocol, uint32_t ui32Mode,
                        uint32_t ui32BitRate, uint32_t ui32DataWidth);
void SSIEnable(uint32_t ui32Base);
void SSIDisable(uint32_t ui32Base);
void SSIDataPut(uint32_t ui32Base, uint32_t ui32Data);
int32_t SSIDataPutNonBlocking(uint32_t ui32Base, uint32_t ui32Data);
void SSIDataGet(uint32_t ui32Base, uint32_t* pui32Data);
int32_t SSIDataGetNonBlocking(uint32_t ui32Base, uint32_t* pui32Data);
bool SSIBusy(uint32_t ui32Base);
void SSIClockSourceSet(uint32_t ui32Base, uint32_t ui32Source);
uint32_t SSIClockSourceGet(uint32_t ui32Base);
void SSIIntEnable(uint32_t ui32Base, uint32_t ui32IntFlags);
void SSIIntDisable(uint32_t ui32Base, uint32_t ui32IntFlags);
uint32_t SSIIntStatus(uint32_t ui32Base, bool bMasked);
void SSIIntClear(uint32_t ui32Base, uint32_t ui32IntFlags);

#ifdef __cplusplus
}
#endif

#endif
