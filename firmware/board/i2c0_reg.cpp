// Polled register transfers on I2C0. Interrupts stay masked for the whole frame, as for the FRAM, so
// that no handler reaches the bus mid-frame. A chip that does not acknowledge ends the frame with a
// stop at once: a missing chip costs one address byte, never a hang.
#include "board/i2c0_reg.h"

#include "board/i2c0.h"

#include "driverlib/i2c.h"
#include "driverlib/interrupt.h"
#include "inc/hw_memmap.h"

namespace {

// Runs one master command and reports whether the chip acknowledged.
bool command(uint32_t cmd) {
    I2CMasterControl(I2C0_BASE, cmd);
    i2c0_wait_master();
    return I2CMasterErr(I2C0_BASE) == I2C_MASTER_ERR_NONE;
}

bool send(uint8_t byte, uint32_t cmd) {
    I2CMasterDataPut(I2C0_BASE, byte);
    return command(cmd);
}

// Releases the bus after a refused byte and gives the interrupt mask back.
int32_t fail(bool was_masked) {
    command(I2C_MASTER_CMD_BURST_SEND_ERROR_STOP);
    if (!was_masked) {
        IntMasterEnable();
    }
    return -1;
}

int32_t done(bool was_masked) {
    if (!was_masked) {
        IntMasterEnable();
    }
    return 0;
}

// A refused command that carried the stop itself: the bus is already free.
int32_t refused(bool was_masked) {
    done(was_masked);
    return -1;
}

} // namespace

int32_t i2c0_reg_write(uint8_t addr, uint8_t reg, const uint8_t* data, uint32_t len) {
    const bool was_masked = IntMasterDisable();
    I2CMasterSlaveAddrSet(I2C0_BASE, addr, false);
    if (len == 0) {
        if (!send(reg, I2C_MASTER_CMD_SINGLE_SEND)) {
            return refused(was_masked);
        }
        return done(was_masked);
    }
    if (!send(reg, I2C_MASTER_CMD_BURST_SEND_START)) {
        return fail(was_masked);
    }
    for (uint32_t i = 0; i < len; i++) {
        const bool last = i + 1 == len;
        if (!send(data[i], last ? I2C_MASTER_CMD_BURST_SEND_FINISH : I2C_MASTER_CMD_BURST_SEND_CONT)) {
            return last ? refused(was_masked) : fail(was_masked);
        }
    }
    return done(was_masked);
}

int32_t i2c0_reg_read(uint8_t addr, uint8_t reg, uint8_t* data, uint32_t len) {
    if (len == 0) {
        return 0;
    }
    const bool was_masked = IntMasterDisable();
    I2CMasterSlaveAddrSet(I2C0_BASE, addr, false);
    if (!send(reg, I2C_MASTER_CMD_BURST_SEND_START)) {
        return fail(was_masked);
    }
    // Repeated start, now reading.
    I2CMasterSlaveAddrSet(I2C0_BASE, addr, true);
    if (len == 1) {
        if (!command(I2C_MASTER_CMD_SINGLE_RECEIVE)) {
            return refused(was_masked);
        }
        data[0] = static_cast<uint8_t>(I2CMasterDataGet(I2C0_BASE));
        return done(was_masked);
    }
    if (!command(I2C_MASTER_CMD_BURST_RECEIVE_START)) {
        return fail(was_masked);
    }
    data[0] = static_cast<uint8_t>(I2CMasterDataGet(I2C0_BASE));
    for (uint32_t i = 1; i < len; i++) {
        const bool last = i + 1 == len;
        command(last ? I2C_MASTER_CMD_BURST_RECEIVE_FINISH : I2C_MASTER_CMD_BURST_RECEIVE_CONT);
        data[i] = static_cast<uint8_t>(I2CMasterDataGet(I2C0_BASE));
    }
    return done(was_masked);
}
