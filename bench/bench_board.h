// The simulated board brought up the way the firmware's start-up does, for the benchmarks.
#pragma once

#include "board/bme280.h"
#include "board/i2c0.h"
#include "board/pcal6416.h"
#include "board/pinmux.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "storage/i2c_fram.h"

namespace bench {

// 50 MHz, the 1 ms SysTick, interrupts on and the I2C bus.
inline void start_clocks(void) {
    SysCtlClockSet(SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
    init_TM4C123GH6PM_64pin();
    SysTickPeriodSet(SysCtlClockGet() / 1000);
    SysTickIntEnable();
    SysTickEnable();
    IntMasterEnable();
    i2c0_init(0);
}

// The clocks, then the FRAM, the housing sensor and the I/O expander.
inline void start_board(void) {
    start_clocks();
    fram_init();
    bme280_init();
    pcal6416_init();
}

} // namespace bench
