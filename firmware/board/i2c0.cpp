// I2C0 bus set-up and its polled master transfers.
//
// Interrupts stay masked for the whole frame, so that no handler reaches the bus mid-frame, and are
// given back as they were found: a caller that runs with them masked keeps them masked. A chip that
// does not acknowledge ends the frame with a stop at once, so a missing chip costs one address byte,
// never a hang, and the next frame finds the bus free.
#include "board/i2c0.h"

#include "driverlib/gpio.h"
#include "driverlib/i2c.h"
#include "driverlib/interrupt.h"
#include "driverlib/pin_map.h"
#include "driverlib/sysctl.h"
#include "inc/hw_i2c.h"
#include "inc/hw_memmap.h"

namespace {

void wait_master() {
    while (I2CMasterBusy(I2C0_BASE)) {
    }
}

// Runs one master command; false when the chip did not acknowledge or the bus failed. A failed
// command that did not carry the stop leaves the bus held, so the stop goes out now.
bool step(uint32_t cmd) {
    I2CMasterControl(I2C0_BASE, cmd);
    wait_master();
    if (I2CMasterErr(I2C0_BASE) == I2C_MASTER_ERR_NONE) {
        return true;
    }
    if ((cmd & I2C_MCS_STOP) == 0) {
        I2CMasterControl(I2C0_BASE, I2C_MASTER_CMD_BURST_SEND_ERROR_STOP);
        wait_master();
    }
    return false;
}

// Command for byte i of the n a burst sends: the first opens the frame, and when `stop` the last
// closes it.
uint32_t send_command(uint32_t i, uint32_t n, bool stop) {
    const bool first = i == 0;
    const bool last = i + 1 == n;
    if (first && last && stop) {
        return I2C_MASTER_CMD_SINGLE_SEND;
    }
    if (first) {
        return I2C_MASTER_CMD_BURST_SEND_START;
    }
    if (last && stop) {
        return I2C_MASTER_CMD_BURST_SEND_FINISH;
    }
    return I2C_MASTER_CMD_BURST_SEND_CONT;
}

// Command for byte i of the n a burst receives: all but the last are acknowledged, so the chip lets
// go of the data line before the stop.
uint32_t receive_command(uint32_t i, uint32_t n) {
    const bool first = i == 0;
    const bool last = i + 1 == n;
    if (first && last) {
        return I2C_MASTER_CMD_SINGLE_RECEIVE;
    }
    if (first) {
        return I2C_MASTER_CMD_BURST_RECEIVE_START;
    }
    if (last) {
        return I2C_MASTER_CMD_BURST_RECEIVE_FINISH;
    }
    return I2C_MASTER_CMD_BURST_RECEIVE_CONT;
}

bool send_phase(uint8_t addr, const uint8_t* head, uint32_t head_len, const uint8_t* data, uint32_t len,
                bool stop) {
    const uint32_t n = head_len + len;
    I2CMasterSlaveAddrSet(I2C0_BASE, addr, false);
    for (uint32_t i = 0; i < n; i++) {
        I2CMasterDataPut(I2C0_BASE, i < head_len ? head[i] : data[i - head_len]);
        if (!step(send_command(i, n, stop))) {
            return false;
        }
    }
    return true;
}

bool receive_phase(uint8_t addr, uint8_t* data, uint32_t len) {
    I2CMasterSlaveAddrSet(I2C0_BASE, addr, true);
    for (uint32_t i = 0; i < len; i++) {
        if (!step(receive_command(i, len))) {
            return false;
        }
        data[i] = static_cast<uint8_t>(I2CMasterDataGet(I2C0_BASE));
    }
    return true;
}

int32_t finish(bool was_masked, bool ok) {
    if (!was_masked) {
        IntMasterEnable();
    }
    return ok ? 0 : -1;
}

} // namespace

void i2c0_init(uint32_t fast) {
    SysCtlPeripheralEnable(SYSCTL_PERIPH_I2C0);
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOB);
    while (!SysCtlPeripheralReady(SYSCTL_PERIPH_I2C0) || !SysCtlPeripheralReady(SYSCTL_PERIPH_GPIOB)) {
    }
    GPIOPinConfigure(GPIO_PB2_I2C0SCL);
    GPIOPinConfigure(GPIO_PB3_I2C0SDA);
    GPIOPinTypeI2CSCL(GPIO_PORTB_BASE, GPIO_PIN_2);
    GPIOPinTypeI2C(GPIO_PORTB_BASE, GPIO_PIN_3);
    I2CMasterInitExpClk(I2C0_BASE, SysCtlClockGet(), fast != 0);
}

int32_t i2c0_write(uint8_t addr, const uint8_t* head, uint32_t head_len, const uint8_t* data, uint32_t len) {
    if (head_len + len == 0) {
        return 0;
    }
    const bool was_masked = IntMasterDisable();
    return finish(was_masked, send_phase(addr, head, head_len, data, len, true));
}

int32_t i2c0_read(uint8_t addr, const uint8_t* head, uint32_t head_len, uint8_t* data, uint32_t len) {
    if (len == 0) {
        return 0;
    }
    const bool was_masked = IntMasterDisable();
    const bool ok = send_phase(addr, head, head_len, nullptr, 0, false) && receive_phase(addr, data, len);
    return finish(was_masked, ok);
}
