// The board's I2C0 master as the chip models see it, driven by raw TivaWare master calls.
#pragma once

#include "driverlib/i2c.h"
#include "driverlib/sysctl.h"
#include "inc/hw_memmap.h"

#include <cstdint>
#include <vector>

namespace i2c_master {

// I2C0 at 400 kHz from the 50 MHz system clock.
inline void open() {
    SysCtlPeripheralEnable(SYSCTL_PERIPH_I2C0);
    I2CMasterInitExpClk(I2C0_BASE, 50000000, true);
}

inline void command(uint32_t cmd) {
    I2CMasterControl(I2C0_BASE, cmd);
    while (I2CMasterBusy(I2C0_BASE)) {
    }
}

// One write transfer of `bytes` to the chip at `addr`.
inline void send(uint8_t addr, const std::vector<uint8_t>& bytes) {
    I2CMasterSlaveAddrSet(I2C0_BASE, addr, false);
    for (size_t i = 0; i < bytes.size(); ++i) {
        I2CMasterDataPut(I2C0_BASE, bytes[i]);
        const bool last = i + 1 == bytes.size();
        command(i == 0 ? I2C_MASTER_CMD_BURST_SEND_START
                       : (last ? I2C_MASTER_CMD_BURST_SEND_FINISH : I2C_MASTER_CMD_BURST_SEND_CONT));
    }
}

} // namespace i2c_master
