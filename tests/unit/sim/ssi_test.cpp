// The simulated SSI modules and the serial flash socket on SSI2 (chip selects PB5 and PE4):
// JEDEC identification, selection by the chip-select pads, frame timing and the receive FIFO.
#include "sim_test.h"

#include "driverlib/gpio.h"
#include "driverlib/ssi.h"
#include "inc/hw_memmap.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

class SsiFlashTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        GPIOPinTypeGPIOOutput(GPIO_PORTB_BASE, GPIO_PIN_5);
        GPIOPinTypeGPIOOutput(GPIO_PORTE_BASE, GPIO_PIN_4);
        GPIOPinWrite(GPIO_PORTB_BASE, GPIO_PIN_5, GPIO_PIN_5);
        GPIOPinWrite(GPIO_PORTE_BASE, GPIO_PIN_4, GPIO_PIN_4);
        GPIOPinTypeSSI(GPIO_PORTB_BASE, GPIO_PIN_4 | GPIO_PIN_6 | GPIO_PIN_7);
        SSIConfigSetExpClk(SSI2_BASE, 50000000, SSI_FRF_MOTO_MODE_0, SSI_MODE_MASTER, 1000000, 8);
        SSIEnable(SSI2_BASE);
    }
    void TearDown() override { sim::set_flash_jedec(0xEF, 0x40, 0x17); }

    // Sends the bytes as one selected transaction and returns what came back.
    static std::vector<uint8_t> transact(uint32_t cs_port, uint8_t cs_pin, const std::vector<uint8_t>& out) {
        GPIOPinWrite(cs_port, cs_pin, 0);
        for (uint8_t b : out) {
            SSIDataPut(SSI2_BASE, b);
        }
        while (SSIBusy(SSI2_BASE)) {
        }
        GPIOPinWrite(cs_port, cs_pin, cs_pin);
        std::vector<uint8_t> in;
        uint32_t v = 0;
        while (SSIDataGetNonBlocking(SSI2_BASE, &v)) {
            in.push_back(static_cast<uint8_t>(v));
        }
        return in;
    }
};

TEST_F(SsiFlashTest, JedecIdOfTheFittedChip) {
    EXPECT_EQ(transact(GPIO_PORTB_BASE, GPIO_PIN_5, {0x9F, 0xFF, 0xFF, 0xFF}),
              (std::vector<uint8_t>{0xFF, 0xEF, 0x40, 0x17}));
    sim::set_flash_jedec(0xC2, 0x20, 0x16);
    EXPECT_EQ(transact(GPIO_PORTB_BASE, GPIO_PIN_5, {0x9F, 0xFF}), (std::vector<uint8_t>{0xFF, 0xC2}));
}

TEST_F(SsiFlashTest, AnEmptySocketOrAnUnselectedChipReadsAllOnes) {
    sim::set_flash_jedec(0, 0, 0);
    EXPECT_EQ(transact(GPIO_PORTB_BASE, GPIO_PIN_5, {0x9F, 0xFF}), (std::vector<uint8_t>{0xFF, 0xFF}));
    sim::set_flash_jedec(0xEF, 0x40, 0x17);
    EXPECT_EQ(transact(GPIO_PORTE_BASE, GPIO_PIN_4, {0x9F, 0xFF}), (std::vector<uint8_t>{0xFF, 0xFF}));

    // Without its select low the chip sees nothing, and a command starts afresh at every select.
    SSIDataPut(SSI2_BASE, 0x9F);
    SSIDataPut(SSI2_BASE, 0xFF);
    while (SSIBusy(SSI2_BASE)) {
    }
    uint32_t v = 0;
    while (SSIDataGetNonBlocking(SSI2_BASE, &v)) {
        EXPECT_EQ(v, 0xFFu);
    }
    EXPECT_EQ(transact(GPIO_PORTB_BASE, GPIO_PIN_5, {0xFF, 0x9F}), (std::vector<uint8_t>{0xFF, 0xFF}));
}

TEST_F(SsiFlashTest, WriteEnableTakesEffectWhenTheSelectRises) {
    EXPECT_EQ(transact(GPIO_PORTB_BASE, GPIO_PIN_5, {0x05, 0xFF}), (std::vector<uint8_t>{0xFF, 0x00}));
    transact(GPIO_PORTB_BASE, GPIO_PIN_5, {0x06});
    EXPECT_EQ(transact(GPIO_PORTB_BASE, GPIO_PIN_5, {0x05, 0xFF, 0xFF}),
              (std::vector<uint8_t>{0xFF, 0x02, 0x02}));
}

TEST_F(SsiFlashTest, FramesTakeEightBitTimesAndTheFifosHoldEight) {
    uint64_t t0 = sim::now_ns();
    GPIOPinWrite(GPIO_PORTB_BASE, GPIO_PIN_5, 0);
    for (int i = 0; i < 4; ++i) {
        SSIDataPut(SSI2_BASE, 0xFF);
    }
    while (SSIBusy(SSI2_BASE)) {
    }
    EXPECT_NEAR(static_cast<double>(sim::now_ns() - t0), 32000.0, 1000.0); // 4 x 8 bits at 1 MHz

    // Twelve frames without reading: the receive FIFO keeps the first eight and flags the overrun.
    uint32_t v = 0;
    while (SSIDataGetNonBlocking(SSI2_BASE, &v)) {
    }
    SSIIntClear(SSI2_BASE, SSI_RXOR);
    for (int i = 0; i < 12; ++i) {
        SSIDataPut(SSI2_BASE, 0xFF);
    }
    while (SSIBusy(SSI2_BASE)) {
    }
    int received = 0;
    while (SSIDataGetNonBlocking(SSI2_BASE, &v)) {
        ++received;
    }
    EXPECT_EQ(received, 8);
    EXPECT_TRUE(SSIIntStatus(SSI2_BASE, false) & SSI_RXOR);
    GPIOPinWrite(GPIO_PORTB_BASE, GPIO_PIN_5, GPIO_PIN_5);
}

TEST_F(SsiFlashTest, BlockingCallsWaitForTheFrames) {
    GPIOPinWrite(GPIO_PORTB_BASE, GPIO_PIN_5, 0);
    uint64_t t0 = sim::now_ns();
    for (int i = 0; i < 10; ++i) { // one in the shifter, eight in the FIFO; the tenth waits a frame
        SSIDataPut(SSI2_BASE, i == 0 ? 0x9F : 0xFF);
    }
    EXPECT_GE(sim::now_ns() - t0, 8000u);
    uint32_t v = 0;
    SSIDataGet(SSI2_BASE, &v);
    SSIDataGet(SSI2_BASE, &v);
    EXPECT_EQ(v, 0xEFu);
    GPIOPinWrite(GPIO_PORTB_BASE, GPIO_PIN_5, GPIO_PIN_5);
}

} // namespace
