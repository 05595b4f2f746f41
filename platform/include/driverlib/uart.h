/* Our own declaration of the TivaWare API subset: UARTs. */
#ifndef DRIVERLIB_UART_H
#define DRIVERLIB_UART_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define UART_INT_9BIT 0x00001000
#define UART_INT_OE 0x00000400
#define UART_INT_BE 0x00000200
#define UART_INT_PE 0x00000100
#define UART_INT_FE 0x00000080
#define UART_INT_RT 0x00000040
#define UART_INT_TX 0x00000020
#define UART_INT_RX 0x00000010
#define UART_INT_DSR 0x00000008
#define UART_INT_DCD 0x00000004
#define UART_INT_CTS 0x00000002
#define UART_INT_RI 0x00000001

#define UART_CONFIG_WLEN_MASK 0x00000060
#define UART_CONFIG_WLEN_8 0x00000060
#define UART_CONFIG_WLEN_7 0x00000040
#define UART_CONFIG_WLEN_6 0x00000020
#define UART_CONFIG_WLEN_5 0x00000000
#define UART_CONFIG_STOP_MASK 0x00000008
#define UART_CONFIG_STOP_ONE 0x00000000
#define UART_CONFIG_STOP_TWO 0x00000008
#define UART_CONFIG_PAR_MASK 0x00000086
#define UART_CONFIG_PAR_NONE 0x00000000
#define UART_CONFIG_PAR_EVEN 0x00000006
#define UART_CONFIG_PAR_ODD 0x00000002
#define UART_CONFIG_PAR_ONE 0x00000082
#define UART_CONFIG_PAR_ZERO 0x00000086

#define UART_FIFO_TX1_8 0x00000000
#define UART_FIFO_TX2_8 0x00000001
#define UART_FIFO_TX4_8 0x00000002
#define UART_FIFO_TX6_8 0x00000003
#define UART_FIFO_TX7_8 0x00000004
#define UART_FIFO_RX1_8 0x00000000
#define UART_FIFO_RX2_8 0x00000008
#define UART_FIFO_RX4_8 0x00000010
#define UART_FIFO_RX6_8 0x00000018
#define UART_FIFO_RX7_8 0x00000020

#define UART_TXINT_MODE_FIFO 0x00000000
#define UART_TXINT_MODE_EOT 0x00000010

#define UART_CLOCK_SYSTEM 0x00000000
#define UART_CLOCK_PIOSC 0x00000005

#define UART_RXERROR_OVERRUN 0x00000008
#define UART_RXERROR_BREAK 0x00000004
#define UART_RXERROR_PARITY 0x00000002
#define UART_RXERROR_FRAMING 0x00000001

void UARTConfigSetExpClk(uint32_t ui32Base, uint32_t ui32UARTClk, uint32_t ui32Baud, uint32_t ui32Config);
void UARTConfigGetExpClk(uint32_t ui32Base, uint32_t ui32UARTClk, uint32_t* pui32Baud, uint32_t* pui32Config);
void UARTEnable(uint32_t ui32Base);
void UARTDisable(uint32_t ui32Base);
void UARTFIFOEnable(uint32_t ui32Base);
void UARTFIFODisable(uint32_t ui32Base);
void UARTFIFOLevelSet(uint32_t ui32Base, uint32_t ui32TxLevel, uint32_t ui32RxLevel);
void UARTFIFOLevelGet(uint32_t ui32Base, uint32_t* pui32TxLevel, uint32_t* pui32RxLevel);
void UARTTxIntModeSet(uint32_t ui32Base, uint32_t ui32Mode);
uint32_t UARTTxIntModeGet(uint32_t ui32Base);
bool UARTCharsAvail(uint32_t ui32Base);
bool UARTSpaceAvail(uint32_t ui32Base);
int32_t UARTCharGetNonBlocking(uint32_t ui32Base);
int32_t UARTCharGet(uint32_t ui32Base);
bool UARTCharPutNonBlocking(uint32_t ui32Base, unsigned char ucData);
void UARTCharPut(uint32_t ui32Base, unsigned char ucData);
void UARTBreakCtl(uint32_t ui32Base, bool bBreakState);
bool UARTBusy(uint32_t ui32Base);
void UARTIntEnable(uint32_t ui32Base, uint32_t ui32IntFlags);
void UARTIntDisable(uint32_t ui32Base, uint32_t ui32IntFlags);
uint32_t UARTIntStatus(uint32_t ui32Base, bool bMasked);
void UARTIntClear(uint32_t ui32Base, uint32_t ui32IntFlags);
uint32_t UARTRxErrorGet(uint32_t ui32Base);
void UARTRxErrorClear(uint32_t ui32Base);
void UARTClockSourceSet(uint32_t ui32Base, uint32_t ui32Source);
uint32_t UARTClockSourceGet(uint32_t ui32Base);

#ifdef __cplusplus
}
#endif

#endif
