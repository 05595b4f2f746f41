// The simulated I2C0 master and the FRAM on its bus, driven through the TivaWare calls the way a
// polled driver does it (memory address high byte first, burst sends and receives, repeated start)
// and through the master's registers as the emulated processor drives them.
#include "devices.h"
#include "registers.h"
#include "runtime.h"
#include "sim_test.h"

#include "driverlib/i2c.h"
#include "driverlib/sysctl.h"
#include "inc/hw_i2c.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

constexpr uint8_t fram = 0x50;

void wait_idle() {
    while (I2CMasterBusy(I2C0_BASE)) {
    }
}

void send(uint32_t command, uint8_t byte) {
    I2CMasterDataPut(I2C0_BASE, byte);
    I2CMasterControl(I2C0_BASE, command);
    wait_idle();
}

void fram_write(uint16_t address, const std::vector<uint8_t>& data) {
    I2CMasterSlaveAddrSet(I2C0_BASE, fram, false);
    send(I2C_MASTER_CMD_BURST_SEND_START, static_cast<uint8_t>(address >> 8));
    send(I2C_MASTER_CMD_BURST_SEND_CONT, static_cast<uint8_t>(address));
    for (size_t i = 0; i < data.size(); ++i) {
        bool last = i + 1 == data.size();
        send(last ? I2C_MASTER_CMD_BURST_SEND_FINISH : I2C_MASTER_CMD_BURST_SEND_CONT, data[i]);
    }
}

std::vector<uint8_t> fram_read(uint16_t address, size_t count) {
    I2CMasterSlaveAddrSet(I2C0_BASE, fram, false);
    send(I2C_MASTER_CMD_BURST_SEND_START, static_cast<uint8_t>(address >> 8));
    send(I2C_MASTER_CMD_BURST_SEND_CONT, static_cast<uint8_t>(address));
    I2CMasterSlaveAddrSet(I2C0_BASE, fram, true);
    std::vector<uint8_t> out;
    for (size_t i = 0; i < count; ++i) {
        uint32_t command = I2C_MASTER_CMD_BURST_RECEIVE_CONT;
        if (count == 1) {
            command = I2C_MASTER_CMD_SINGLE_RECEIVE;
        } else if (i == 0) {
            command = I2C_MASTER_CMD_BURST_RECEIVE_START;
        } else if (i + 1 == count) {
            command = I2C_MASTER_CMD_BURST_RECEIVE_FINISH;
        }
        I2CMasterControl(I2C0_BASE, command);
        wait_idle();
        out.push_back(static_cast<uint8_t>(I2CMasterDataGet(I2C0_BASE)));
    }
    return out;
}

class I2cFramTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        SysCtlPeripheralEnable(SYSCTL_PERIPH_I2C0);
        I2CMasterInitExpClk(I2C0_BASE, 50000000, false);
    }
};

TEST_F(I2cFramTest, BytesWrittenAtAnAddressReadBackBySingleAndBurstReceive) {
    std::vector<uint8_t> data = {0x55, 0xAA, 0x55, 0xAA, 0x01, 0x02};
    fram_write(0x0040, data);
    EXPECT_EQ(sim::fram_bytes()[0x0040], 0x55);
    EXPECT_EQ(sim::fram_bytes()[0x0045], 0x02);
    EXPECT_EQ(sim::fram_bytes()[0x0046], 0x00);

    EXPECT_EQ(fram_read(0x0041, 1), std::vector<uint8_t>{0xAA});
    EXPECT_EQ(fram_read(0x0040, 2), (std::vector<uint8_t>{0x55, 0xAA}));
    EXPECT_EQ(fram_read(0x0040, 6), data);
    EXPECT_EQ(I2CMasterErr(I2C0_BASE), static_cast<uint32_t>(I2C_MASTER_ERR_NONE));
    EXPECT_FALSE(I2CMasterBusBusy(I2C0_BASE));
}

TEST_F(I2cFramTest, AddressIncrementWrapsAtTheEndOfTheMemory) {
    fram_write(0x7FFE, {1, 2, 3, 4});
    EXPECT_EQ(sim::fram_bytes()[0x7FFE], 1);
    EXPECT_EQ(sim::fram_bytes()[0x7FFF], 2);
    EXPECT_EQ(sim::fram_bytes()[0x0000], 3);
    EXPECT_EQ(sim::fram_bytes()[0x0001], 4);
    EXPECT_EQ(fram_read(0x7FFF, 3), (std::vector<uint8_t>{2, 3, 4}));
    // The top address bit is not decoded.
    EXPECT_EQ(fram_read(0xFFFE, 1), std::vector<uint8_t>{1});
}

TEST_F(I2cFramTest, ContentsSurviveAPowerCycle) {
    fram_write(0x0100, {9, 8, 7});
    sim::test::power_on(sim::WakeSource::power);
    SysCtlPeripheralEnable(SYSCTL_PERIPH_I2C0);
    I2CMasterInitExpClk(I2C0_BASE, 50000000, true);
    EXPECT_EQ(fram_read(0x0100, 3), (std::vector<uint8_t>{9, 8, 7}));
}

TEST_F(I2cFramTest, AnAddressNobodyAnswersIsReportedAfterTheTransfer) {
    I2CMasterSlaveAddrSet(I2C0_BASE, 0x51, false);
    I2CMasterDataPut(I2C0_BASE, 0);
    I2CMasterControl(I2C0_BASE, I2C_MASTER_CMD_BURST_SEND_START);
    EXPECT_EQ(I2CMasterErr(I2C0_BASE), static_cast<uint32_t>(I2C_MASTER_ERR_NONE)); // still busy
    wait_idle();
    EXPECT_EQ(I2CMasterErr(I2C0_BASE), static_cast<uint32_t>(I2C_MASTER_ERR_ADDR_ACK));
    EXPECT_TRUE(I2CMasterBusBusy(I2C0_BASE)); // the master holds the bus until told to stop
    I2CMasterControl(I2C0_BASE, I2C_MASTER_CMD_BURST_SEND_ERROR_STOP);
    wait_idle();
    EXPECT_FALSE(I2CMasterBusBusy(I2C0_BASE));

    // A receive from nobody reads the idle bus.
    I2CMasterSlaveAddrSet(I2C0_BASE, 0x51, true);
    I2CMasterControl(I2C0_BASE, I2C_MASTER_CMD_SINGLE_RECEIVE);
    wait_idle();
    EXPECT_EQ(I2CMasterErr(I2C0_BASE), static_cast<uint32_t>(I2C_MASTER_ERR_ADDR_ACK));
}

// A start with the address byte and one data byte is 1 + 9 + 9 SCL periods; the received byte only
// shows once the master is done, so a driver must wait for the busy flag.
TEST_F(I2cFramTest, TransfersTakeTheirBitTimesAtTheConfiguredRate) {
    sim::fram_bytes()[0x0200] = 0x77;
    fram_write(0x0200, {}); // sets the address pointer
    I2CMasterControl(I2C0_BASE, I2C_MASTER_CMD_BURST_SEND_STOP);
    wait_idle();

    I2CMasterSlaveAddrSet(I2C0_BASE, fram, true);
    uint64_t t0 = sim::now_ns();
    I2CMasterControl(I2C0_BASE, I2C_MASTER_CMD_SINGLE_RECEIVE);
    EXPECT_NE(I2CMasterDataGet(I2C0_BASE), 0x77u);
    wait_idle();
    uint64_t standard = sim::now_ns() - t0;
    EXPECT_EQ(I2CMasterDataGet(I2C0_BASE), 0x77u);
    EXPECT_NEAR(static_cast<double>(standard), 200000.0, 2000.0); // 20 periods of 10 us

    I2CMasterInitExpClk(I2C0_BASE, 50000000, true);
    t0 = sim::now_ns();
    I2CMasterControl(I2C0_BASE, I2C_MASTER_CMD_SINGLE_RECEIVE);
    wait_idle();
    uint64_t fast = sim::now_ns() - t0;
    EXPECT_NEAR(static_cast<double>(fast), 56000.0, 1000.0); // 20 periods of 2.8 us
}

// ---------------------------------------------------------------- register door

uint32_t reg(uint32_t offset) {
    return sim::dev::i2c_reg_read(0, offset);
}

void set_reg(uint32_t offset, uint32_t value) {
    sim::dev::i2c_reg_write(0, offset, value);
}

class I2cRegisterTest : public ::testing::Test {
  protected:
    // The master enabled and set to 100 kHz from the system clock, as the image's driver does.
    void SetUp() override {
        sim::test::reset_board();
        uint32_t clock = sim::system_clock_hz();
        uint32_t tpr = (clock + 2 * 10 * 100000 - 1) / (2 * 10 * 100000) - 1;
        set_reg(I2C_O_MCR, I2C_MCR_MFE);
        set_reg(I2C_O_MTPR, tpr);
        period_ns = 20ull * (tpr + 1) * sim::ns_per_s / clock;
    }

    // Runs a command and lets time pass while the master reports busy; returns how long that was.
    // The status is checked to stay busy up to the last nanosecond.
    uint64_t command(uint32_t cmd) {
        uint64_t t0 = sim::now_ns();
        set_reg(I2C_O_MCS, cmd);
        uint64_t done = sim::dev::i2c_next_event_ns();
        if (done == UINT64_MAX) {
            return 0;
        }
        sim::advance_ns(done - 1 - sim::now_ns());
        EXPECT_NE(reg(I2C_O_MCS) & I2C_MCS_BUSY, 0u) << "busy until the last bit is out";
        sim::advance_ns(1);
        EXPECT_EQ(reg(I2C_O_MCS) & I2C_MCS_BUSY, 0u);
        EXPECT_EQ(sim::dev::i2c_next_event_ns(), UINT64_MAX);
        return sim::now_ns() - t0;
    }

    void send(uint32_t cmd, uint8_t byte, uint64_t periods) {
        set_reg(I2C_O_MDR, byte);
        EXPECT_EQ(command(cmd), periods * period_ns);
        EXPECT_EQ(reg(I2C_O_MCS) & I2C_MCS_ERROR, 0u);
    }

    uint64_t period_ns = 0;
};

constexpr uint32_t start_run = I2C_MCS_START | I2C_MCS_RUN;

TEST_F(I2cRegisterTest, FramWriteAndReadBackThroughMsaMdrAndMcs) {
    // Start with the address byte (1 + 9 periods), each further byte 9, the stop 1.
    set_reg(I2C_O_MSA, fram << 1);
    send(start_run, 0x01, 1 + 9 + 9);
    send(I2C_MCS_RUN, 0x23, 9);
    send(I2C_MCS_RUN | I2C_MCS_STOP, 0xA5, 9 + 1);
    EXPECT_EQ(sim::fram_bytes()[0x0123], 0xA5);
    EXPECT_EQ(reg(I2C_O_MCS), static_cast<uint32_t>(I2C_MCS_IDLE));

    set_reg(I2C_O_MSA, fram << 1);
    send(start_run, 0x01, 1 + 9 + 9);
    send(I2C_MCS_RUN, 0x23, 9);
    EXPECT_EQ(reg(I2C_O_MCS), static_cast<uint32_t>(I2C_MCS_BUSBSY)) << "the master holds the bus";
    set_reg(I2C_O_MSA, (fram << 1) | I2C_MSA_RS);
    EXPECT_EQ(reg(I2C_O_MSA), (fram << 1) | I2C_MSA_RS);
    set_reg(I2C_O_MCS, start_run | I2C_MCS_STOP);
    EXPECT_EQ(reg(I2C_O_MDR), 0x23u) << "the received byte shows only when the master is done";
    sim::advance_ns(sim::dev::i2c_next_event_ns() - sim::now_ns());
    EXPECT_EQ(reg(I2C_O_MDR), 0xA5u);
    EXPECT_EQ(reg(I2C_O_MCS), static_cast<uint32_t>(I2C_MCS_IDLE));
}

TEST_F(I2cRegisterTest, AnUnansweredAddressIsReportedOnceTheAddressByteIsOut) {
    set_reg(I2C_O_MSA, 0x51 << 1);
    set_reg(I2C_O_MCS, start_run);
    EXPECT_EQ(reg(I2C_O_MCS), static_cast<uint32_t>(I2C_MCS_BUSY | I2C_MCS_BUSBSY)) << "no error while busy";
    sim::advance_ns(sim::dev::i2c_next_event_ns() - sim::now_ns());
    EXPECT_EQ(reg(I2C_O_MCS), static_cast<uint32_t>(I2C_MCS_ERROR | I2C_MCS_ADRACK | I2C_MCS_BUSBSY));

    // Every finished command raises the raw interrupt status; the mask gates the masked one.
    EXPECT_EQ(reg(I2C_O_MRIS), 1u);
    EXPECT_EQ(reg(I2C_O_MMIS), 0u);
    set_reg(I2C_O_MIMR, 1);
    EXPECT_EQ(reg(I2C_O_MMIS), 1u);
    set_reg(I2C_O_MICR, 1);
    EXPECT_EQ(reg(I2C_O_MRIS), 0u);

    EXPECT_EQ(command(I2C_MCS_STOP), period_ns);
    EXPECT_EQ(reg(I2C_O_MCS), static_cast<uint32_t>(I2C_MCS_IDLE));
}

TEST_F(I2cRegisterTest, ADisabledMasterTakesNoCommands) {
    set_reg(I2C_O_MCR, 0);
    set_reg(I2C_O_MSA, fram << 1);
    set_reg(I2C_O_MCS, start_run | I2C_MCS_STOP);
    EXPECT_EQ(reg(I2C_O_MCS), static_cast<uint32_t>(I2C_MCS_IDLE));
    EXPECT_EQ(sim::dev::i2c_next_event_ns(), UINT64_MAX);
}

void init_i2c0() {
    I2CMasterInitExpClk(I2C0_BASE, 50000000, false);
}

TEST(I2cClockTest, ACallOnAMasterWhoseClockIsOffIsABusFault) {
    sim::test::reset_board();
    sim::register_vector(FAULT_HARD, nullptr);
    sim::test::Outcome o = sim::test::run(init_i2c0);
    EXPECT_FALSE(o.returned);
    EXPECT_EQ(o.event, sim::PowerEvent::reset);
}

} // namespace
