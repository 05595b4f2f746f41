// UARTs of the TM4C123: baud-rate divisors, frame format, FIFOs and interrupt flags.
#include "driverlib/uart.h"

#include "inc/hw_types.h"
#include "inc/hw_uart.h"

extern "C" {

void UARTConfigSetExpClk(uint32_t ui32Base, uint32_t ui32UARTClk, uint32_t ui32Baud, uint32_t ui32Config) {
    if (ui32Baud == 0) {
        return;
    }
    UARTDisable(ui32Base);

    // Above clock/16 the UART samples at 8x (HSE), which doubles the rate of a given divisor.
    if (ui32Baud * 16 > ui32UARTClk) {
        HWREG(ui32Base + UART_O_CTL) |= UART_CTL_HSE;
        ui32Baud /= 2;
    } else {
        HWREG(ui32Base + UART_O_CTL) &= ~UART_CTL_HSE;
    }

    // Divisor in 1/64ths, rounded: clock / (16 * baud) * 64 = clock * 4 / baud.
    uint32_t div = static_cast<uint32_t>(((static_cast<uint64_t>(ui32UARTClk) * 8) / ui32Baud + 1) / 2);
    HWREG(ui32Base + UART_O_IBRD) = div / 64;
    HWREG(ui32Base + UART_O_FBRD) = div % 64;

    // LCRH is written after the divisors: the write latches them.
    HWREG(ui32Base + UART_O_LCRH) = ui32Config;
    HWREG(ui32Base + UART_O_FR) = 0;
    UARTEnable(ui32Base);
}

void UARTConfigGetExpClk(uint32_t ui32Base, uint32_t ui32UARTClk, uint32_t* pui32Baud,
                         uint32_t* pui32Config) {
    uint32_t div = HWREG(ui32Base + UART_O_IBRD) * 64 + HWREG(ui32Base + UART_O_FBRD);
    uint32_t baud = div ? static_cast<uint32_t>((static_cast<uint64_t>(ui32UARTClk) * 4) / div) : 0;
    if (HWREG(ui32Base + UART_O_CTL) & UART_CTL_HSE) {
        baud *= 2;
    }
    if (pui32Baud) {
        *pui32Baud = baud;
    }
    if (pui32Config) {
        *pui32Config = HWREG(ui32Base + UART_O_LCRH) &
                       (UART_LCRH_SPS | UART_LCRH_WLEN_M | UART_LCRH_STP2 | UART_LCRH_EPS | UART_LCRH_PEN);
    }
}

void UARTEnable(uint32_t ui32Base) {
    HWREG(ui32Base + UART_O_LCRH) |= UART_LCRH_FEN;
    HWREG(ui32Base + UART_O_CTL) |= UART_CTL_UARTEN | UART_CTL_TXE | UART_CTL_RXE;
}

// Lets the frame in progress finish before the UART stops.
void UARTDisable(uint32_t ui32Base) {
    while (HWREG(ui32Base + UART_O_FR) & UART_FR_BUSY) {
    }
    HWREG(ui32Base + UART_O_LCRH) &= ~UART_LCRH_FEN;
    HWREG(ui32Base + UART_O_CTL) &= ~(UART_CTL_UARTEN | UART_CTL_TXE | UART_CTL_RXE);
}

void UARTFIFOEnable(uint32_t ui32Base) {
    HWREG(ui32Base + UART_O_LCRH) |= UART_LCRH_FEN;
}

void UARTFIFODisable(uint32_t ui32Base) {
    HWREG(ui32Base + UART_O_LCRH) &= ~UART_LCRH_FEN;
}

void UARTFIFOLevelSet(uint32_t ui32Base, uint32_t ui32TxLevel, uint32_t ui32RxLevel) {
    HWREG(ui32Base + UART_O_IFLS) = (ui32TxLevel & UART_IFLS_TX_M) | (ui32RxLevel & UART_IFLS_RX_M);
}

void UARTFIFOLevelGet(uint32_t ui32Base, uint32_t* pui32TxLevel, uint32_t* pui32RxLevel) {
    uint32_t ifls = HWREG(ui32Base + UART_O_IFLS);
    if (pui32TxLevel) {
        *pui32TxLevel = ifls & UART_IFLS_TX_M;
    }
    if (pui32RxLevel) {
        *pui32RxLevel = ifls & UART_IFLS_RX_M;
    }
}

void UARTTxIntModeSet(uint32_t ui32Base, uint32_t ui32Mode) {
    uint32_t ctl = HWREG(ui32Base + UART_O_CTL) & ~UART_CTL_EOT;
    HWREG(ui32Base + UART_O_CTL) = ctl | (ui32Mode & UART_CTL_EOT);
}

uint32_t UARTTxIntModeGet(uint32_t ui32Base) {
    return HWREG(ui32Base + UART_O_CTL) & UART_CTL_EOT;
}

bool UARTCharsAvail(uint32_t ui32Base) {
    return (HWREG(ui32Base + UART_O_FR) & UART_FR_RXFE) == 0;
}

bool UARTSpaceAvail(uint32_t ui32Base) {
    return (HWREG(ui32Base + UART_O_FR) & UART_FR_TXFF) == 0;
}

int32_t UARTCharGetNonBlocking(uint32_t ui32Base) {
    if (HWREG(ui32Base + UART_O_FR) & UART_FR_RXFE) {
        return -1;
    }
    return static_cast<int32_t>(HWREG(ui32Base + UART_O_DR));
}

int32_t UARTCharGet(uint32_t ui32Base) {
    while (HWREG(ui32Base + UART_O_FR) & UART_FR_RXFE) {
    }
    return static_cast<int32_t>(HWREG(ui32Base + UART_O_DR));
}

bool UARTCharPutNonBlocking(uint32_t ui32Base, unsigned char ucData) {
    if (HWREG(ui32Base + UART_O_FR) & UART_FR_TXFF) {
        return false;
    }
    HWREG(ui32Base + UART_O_DR) = ucData;
    return true;
}

void UARTCharPut(uint32_t ui32Base, unsigned char ucData) {
    while (HWREG(ui32Base + UART_O_FR) & UART_FR_TXFF) {
    }
    HWREG(ui32Base + UART_O_DR) = ucData;
}

void UARTBreakCtl(uint32_t ui32Base, bool bBreakState) {
    if (bBreakState) {
        HWREG(ui32Base + UART_O_LCRH) |= UART_LCRH_BRK;
    } else {
        HWREG(ui32Base + UART_O_LCRH) &= ~UART_LCRH_BRK;
    }
}

bool UARTBusy(uint32_t ui32Base) {
    return (HWREG(ui32Base + UART_O_FR) & UART_FR_BUSY) != 0;
}

void UARTIntEnable(uint32_t ui32Base, uint32_t ui32IntFlags) {
    HWREG(ui32Base + UART_O_IM) |= ui32IntFlags;
}

void UARTIntDisable(uint32_t ui32Base, uint32_t ui32IntFlags) {
    HWREG(ui32Base + UART_O_IM) &= ~ui32IntFlags;
}

uint32_t UARTIntStatus(uint32_t ui32Base, bool bMasked) {
    return HWREG(ui32Base + (bMasked ? UART_O_MIS : UART_O_RIS));
}

void UARTIntClear(uint32_t ui32Base, uint32_t ui32IntFlags) {
    HWREG(ui32Base + UART_O_ICR) = ui32IntFlags;
}

uint32_t UARTRxErrorGet(uint32_t ui32Base) {
    return HWREG(ui32Base + UART_O_RSR) & 0x0000000F;
}

void UARTRxErrorClear(uint32_t ui32Base) {
    HWREG(ui32Base + UART_O_ECR) = 0;
}

void UARTClockSourceSet(uint32_t ui32Base, uint32_t ui32Source) {
    HWREG(ui32Base + UART_O_CC) = ui32Source;
}

uint32_t UARTClockSourceGet(uint32_t ui32Base) {
    return HWREG(ui32Base + UART_O_CC);
}

} // extern "C"
