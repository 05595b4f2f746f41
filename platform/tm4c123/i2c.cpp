// I2C masters of the TM4C123: SCL timing, the slave address, data and the MCS command/status register.
#include "driverlib/i2c.h"

#include "inc/hw_i2c.h"
#include "inc/hw_types.h"

extern "C" {

// SCL period = 2 * (1 + TPR) * 10 system clocks (6 low + 4 high).
void I2CMasterInitExpClk(uint32_t ui32Base, uint32_t ui32I2CClk, bool bFast) {
    I2CMasterEnable(ui32Base);
    uint32_t scl_hz = bFast ? 400000 : 100000;
    uint32_t tpr = (ui32I2CClk + 2 * 10 * scl_hz - 1) / (2 * 10 * scl_hz);
    tpr = tpr ? tpr - 1 : 0;
    HWREG(ui32Base + I2C_O_MTPR) = tpr & I2C_MTPR_TPR_M;
}

void I2CMasterEnable(uint32_t ui32Base) {
    HWREG(ui32Base + I2C_O_MCR) |= I2C_MCR_MFE;
}

void I2CMasterDisable(uint32_t ui32Base) {
    HWREG(ui32Base + I2C_O_MCR) &= ~I2C_MCR_MFE;
}

void I2CMasterSlaveAddrSet(uint32_t ui32Base, uint8_t ui8SlaveAddr, bool bReceive) {
    HWREG(ui32Base + I2C_O_MSA) = (static_cast<uint32_t>(ui8SlaveAddr) << 1) | (bReceive ? I2C_MSA_RS : 0);
}

void I2CMasterDataPut(uint32_t ui32Base, uint8_t ui8Data) {
    HWREG(ui32Base + I2C_O_MDR) = ui8Data;
}

uint32_t I2CMasterDataGet(uint32_t ui32Base) {
    return HWREG(ui32Base + I2C_O_MDR);
}

void I2CMasterControl(uint32_t ui32Base, uint32_t ui32Cmd) {
    HWREG(ui32Base + I2C_O_MCS) = ui32Cmd;
}

bool I2CMasterBusy(uint32_t ui32Base) {
    return (HWREG(ui32Base + I2C_O_MCS) & I2C_MCS_BUSY) != 0;
}

bool I2CMasterBusBusy(uint32_t ui32Base) {
    return (HWREG(ui32Base + I2C_O_MCS) & I2C_MCS_BUSBSY) != 0;
}

// Error bits are valid only once the controller is idle.
uint32_t I2CMasterErr(uint32_t ui32Base) {
    uint32_t status = HWREG(ui32Base + I2C_O_MCS);
    if (status & I2C_MCS_BUSY) {
        return I2C_MASTER_ERR_NONE;
    }
    if (status & I2C_MCS_CLKTO) {
        return I2C_MASTER_ERR_CLK_TOUT;
    }
    if (status & (I2C_MCS_ERROR | I2C_MCS_ARBLST)) {
        return status & (I2C_MCS_ARBLST | I2C_MCS_DATACK | I2C_MCS_ADRACK);
    }
    return I2C_MASTER_ERR_NONE;
}

void I2CMasterTimeoutSet(uint32_t ui32Base, uint32_t ui32Value) {
    HWREG(ui32Base + I2C_O_MCLKOCNT) = ui32Value;
}

uint32_t I2CMasterLineStateGet(uint32_t ui32Base) {
    return HWREG(ui32Base + I2C_O_MBMON);
}

} // extern "C"
