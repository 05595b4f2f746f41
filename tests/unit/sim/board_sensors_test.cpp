// The board-sensor models on I2C0 at register level, driven by raw TivaWare master calls: the
// BME280's forced-mode timing, skipped readings and paired register writes, the PCAL6416's register
// pairs, and the INA260's configuration reset and power-down.
#include "devices.h"
#include "sim/i2c_master.h"
#include "sim_test.h"

#include "driverlib/i2c.h"
#include "driverlib/sysctl.h"
#include "inc/hw_memmap.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using i2c_master::command;
using i2c_master::send;

std::vector<uint8_t> receive(uint8_t addr, uint8_t reg, size_t count) {
    I2CMasterSlaveAddrSet(I2C0_BASE, addr, false);
    I2CMasterDataPut(I2C0_BASE, reg);
    command(I2C_MASTER_CMD_BURST_SEND_START);
    I2CMasterSlaveAddrSet(I2C0_BASE, addr, true);
    std::vector<uint8_t> out;
    for (size_t i = 0; i < count; ++i) {
        command(i == 0 ? I2C_MASTER_CMD_BURST_RECEIVE_START
                       : (i + 1 == count ? I2C_MASTER_CMD_BURST_RECEIVE_FINISH
                                         : I2C_MASTER_CMD_BURST_RECEIVE_CONT));
        out.push_back(static_cast<uint8_t>(I2CMasterDataGet(I2C0_BASE)));
    }
    return out;
}

class BoardSensorModels : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        i2c_master::open();
    }
};

TEST_F(BoardSensorModels, Bme280ForcedMeasurementTiming) {
    EXPECT_EQ(receive(0x76, 0xD0, 1)[0], 0x60);
    EXPECT_EQ(receive(0x76, 0xFD, 2), (std::vector<uint8_t>{0x80, 0x00})); // nothing measured yet
    // One transfer, register and data alternating: humidity x1, then temperature and pressure x1 in
    // forced mode.
    send(0x76, {0xF2, 0x01, 0xF4, 0x25});
    const uint64_t t0 = sim::now_ns();
    EXPECT_EQ(receive(0x76, 0xF3, 1)[0] & 0x08, 0x08);
    // 1.25 + 3 * 2.3 + 2 * 0.575 ms at most.
    while (receive(0x76, 0xF3, 1)[0] & 0x08) {
        ASSERT_LT(sim::now_ns() - t0, 20 * sim::ns_per_ms);
    }
    const double took_ms = double(sim::now_ns() - t0) / sim::ns_per_ms;
    EXPECT_GT(took_ms, 9.2);
    EXPECT_LT(took_ms, 9.6);
    EXPECT_EQ(receive(0x76, 0xF4, 1)[0], 0x24) << "back to sleep";
    const std::vector<uint8_t> data = receive(0x76, 0xF7, 8);
    EXPECT_NE(data[6] << 8 | data[7], 0x8000);
    EXPECT_EQ(data[5] & 0x0F, 0) << "16-bit temperature at single oversampling";

    // Humidity skipped: its register reads the skipped value.
    send(0x76, {0xF2, 0x00});
    send(0x76, {0xF4, 0x21});
    sim::advance_ns(5 * sim::ns_per_ms);
    EXPECT_EQ(receive(0x76, 0xFD, 2), (std::vector<uint8_t>{0x80, 0x00}));
}

TEST_F(BoardSensorModels, Pcal6416RegisterPairs) {
    send(0x20, {0x06, 0x0F, 0xF0});       // configuration 0 and 1
    send(0x20, {0x02, 0xA5, 0x5A, 0x03}); // output 0, output 1, output 0 again
    EXPECT_EQ(receive(0x20, 0x02, 3), (std::vector<uint8_t>{0x03, 0x5A, 0x03}));
    // Inputs read the pull-ups, outputs their bits.
    EXPECT_EQ(sim::dev::pcal6416_pin_levels(), 0xFA0F);
    EXPECT_EQ(receive(0x20, 0x00, 2), (std::vector<uint8_t>{0x0F, 0xFA}));
}

TEST_F(BoardSensorModels, Ina260ResetAndPowerDown) {
    EXPECT_EQ(receive(0x40, 0xFE, 2), (std::vector<uint8_t>{0x54, 0x49}));
    send(0x40, {0x00, 0x63, 0x24}); // power-down after triggered conversions
    sim::test::set_scenario("board.vbat", "7.5");
    EXPECT_EQ(receive(0x40, 0x02, 2), (std::vector<uint8_t>{0x25, 0x80})) << "12 V held";
    send(0x40, {0x00, 0x80, 0x00});
    EXPECT_EQ(receive(0x40, 0x00, 2), (std::vector<uint8_t>{0x61, 0x27}));
    EXPECT_EQ(receive(0x40, 0x02, 2), (std::vector<uint8_t>{0x17, 0x70})); // 6000 steps
}

} // namespace
