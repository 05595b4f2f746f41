// The simulated SSI modules and the serial flash socket on SSI2 (chip selects PB5 and PE4):
// JEDEC identification, selection by the chip-select pads, frame timing and the receive FIFO; the
// same model through its registers, where the bit rate follows the prescaler, the serial clock rate
// and the module clock; the microSD card's clock limit; and the bus fault of a call on a module
// whose clock is off.
#include "devices.h"
#include "registers.h"
#include "runtime.h"
#include "sim_test.h"
#include "test_board.h"

#include "board/board_util.h"
#include "driverlib/gpio.h"
#include "driverlib/ssi.h"
#include "driverlib/sysctl.h"
#include "inc/hw_ints.h"
#include "inc/hw_memmap.h"
#include "inc/hw_ssi.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

class SsiFlashTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        SysCtlClockSet(SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
        SysCtlPeripheralEnable(SYSCTL_PERIPH_SSI2);
        SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOB);
        SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOE);
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

// ---------------------------------------------------------------- the register door

constexpr uint64_t mib = 1024 * 1024;
constexpr uint32_t fifo_depth = 8;

uint32_t reg(int module, uint32_t offset) {
    return sim::dev::ssi_reg_read(module, offset);
}

void set_reg(int module, uint32_t offset, uint32_t value) {
    sim::dev::ssi_reg_write(module, offset, value);
}

// The emulated processor moves virtual time on by itself; the model must show that time's state
// without the runtime having serviced it.
void run_cycles_for(uint64_t ns) {
    sim::shared().now_ns += ns;
}

void set_fifty_megahertz() {
    SysCtlClockSet(SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
}

class SsiRegisterTest : public ::testing::Test {
  protected:
    void SetUp() override { sim::test::reset_board(); }
};

TEST_F(SsiRegisterTest, TheBitRateFollowsPrescalerSerialClockRateAndModuleClock) {
    set_reg(2, SSI_O_CPSR, 5);
    EXPECT_EQ(reg(2, SSI_O_CPSR), 4u); // the prescaler is even
    set_reg(2, SSI_O_CR0, (24u << SSI_CR0_SCR_S) | 7);
    EXPECT_EQ(sim::dev::ssi_bit_rate_hz(2), 160000u); // 16 MHz / (4 x 25)
    set_fifty_megahertz();
    EXPECT_EQ(sim::dev::ssi_bit_rate_hz(2), 500000u);
    set_reg(2, SSI_O_CC, SSI_CLOCK_PIOSC);
    EXPECT_EQ(sim::dev::ssi_bit_rate_hz(2), 160000u);
    set_reg(2, SSI_O_CC, SSI_CLOCK_SYSTEM);

    // The API door writes what the chip's driver writes, and leaves the module off like it.
    SysCtlPeripheralEnable(SYSCTL_PERIPH_SSI2);
    SSIEnable(SSI2_BASE);
    SSIConfigSetExpClk(SSI2_BASE, SysCtlClockGet(), SSI_FRF_MOTO_MODE_1, SSI_MODE_MASTER, 1000000, 8);
    EXPECT_EQ(reg(2, SSI_O_CPSR), 2u);
    EXPECT_EQ(reg(2, SSI_O_CR0), (24u << SSI_CR0_SCR_S) | SSI_CR0_SPH | 7);
    EXPECT_EQ(reg(2, SSI_O_CR1), 0u);
    EXPECT_EQ(sim::dev::ssi_bit_rate_hz(2), 1000000u);

    // Four frames of eight bits at 1 MHz, with nothing selected: the line floats high.
    set_reg(2, SSI_O_CR1, SSI_CR1_SSE);
    for (int i = 0; i < 4; ++i) {
        set_reg(2, SSI_O_DR, 0x9F);
    }
    run_cycles_for(31999);
    EXPECT_TRUE(reg(2, SSI_O_SR) & SSI_SR_BSY);
    run_cycles_for(1);
    EXPECT_EQ(reg(2, SSI_O_SR), static_cast<uint32_t>(SSI_SR_TFE | SSI_SR_TNF | SSI_SR_RNE));
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(reg(2, SSI_O_DR), 0xFFu);
    }
    EXPECT_FALSE(reg(2, SSI_O_SR) & SSI_SR_RNE);
}

TEST_F(SsiRegisterTest, StatusAndInterruptFlags) {
    set_reg(2, SSI_O_CPSR, 2);
    set_reg(2, SSI_O_CR0, (7u << SSI_CR0_SCR_S) | 7); // 1 MHz at 16 MHz
    EXPECT_EQ(reg(2, SSI_O_SR), static_cast<uint32_t>(SSI_SR_TFE | SSI_SR_TNF));
    EXPECT_EQ(reg(2, SSI_O_RIS), static_cast<uint32_t>(SSI_TXFF)); // transmit FIFO half empty or less

    // Disabled, the module keeps what is written: full at eight, the ninth is lost.
    for (int i = 0; i < 9; ++i) {
        set_reg(2, SSI_O_DR, static_cast<uint32_t>(i));
    }
    EXPECT_EQ(reg(2, SSI_O_SR), static_cast<uint32_t>(SSI_SR_BSY));
    EXPECT_EQ(reg(2, SSI_O_RIS), 0u);

    set_reg(2, SSI_O_IM, SSI_RXFF | SSI_RXOR);
    set_reg(2, SSI_O_CR1, SSI_CR1_SSE);
    run_cycles_for(fifo_depth * 8000);
    EXPECT_EQ(reg(2, SSI_O_SR), static_cast<uint32_t>(SSI_SR_TFE | SSI_SR_TNF | SSI_SR_RNE | SSI_SR_RFF));
    EXPECT_EQ(reg(2, SSI_O_MIS), static_cast<uint32_t>(SSI_RXFF));
    EXPECT_TRUE(sim::core().pending.test(INT_SSI2));

    // One frame more overruns the receive FIFO; clearing the overrun leaves the level flag.
    set_reg(2, SSI_O_DR, 0xAA);
    run_cycles_for(8000);
    EXPECT_EQ(reg(2, SSI_O_MIS), static_cast<uint32_t>(SSI_RXFF | SSI_RXOR));
    set_reg(2, SSI_O_ICR, SSI_RXOR | SSI_RXFF);
    EXPECT_EQ(reg(2, SSI_O_MIS), static_cast<uint32_t>(SSI_RXFF));
    for (uint32_t i = 0; i < fifo_depth; ++i) {
        reg(2, SSI_O_DR);
    }
    EXPECT_EQ(reg(2, SSI_O_MIS), 0u);
    EXPECT_FALSE(sim::core().pending.test(INT_SSI2));
}

// ---------------------------------------------------------------- the microSD card's clock limit

int g_frames = 0;

uint8_t xchg(uint8_t out) {
    uint32_t in = 0;
    SSIDataPut(SSI0_BASE, out);
    SSIDataGet(SSI0_BASE, &in);
    ++g_frames;
    return static_cast<uint8_t>(in);
}

void select_card(bool on) {
    GPIOPinWrite(GPIO_PORTA_BASE, GPIO_PIN_3, on ? 0 : GPIO_PIN_3);
}

// A command frame (its CRC matters only for CMD0 and CMD8), then R1.
uint8_t command(const std::vector<uint8_t>& frame) {
    for (uint8_t b : frame) {
        xchg(b);
    }
    for (int n = 0; n < 8; ++n) {
        uint8_t r = xchg(0xFF);
        if (!(r & 0x80)) {
            return r;
        }
    }
    return 0xFF;
}

const std::vector<uint8_t> cmd0 = {0x40, 0, 0, 0, 0, 0x95};
const std::vector<uint8_t> cmd8 = {0x48, 0, 0, 0x01, 0xAA, 0x87};
const std::vector<uint8_t> cmd55 = {0x77, 0, 0, 0, 0, 0x65};
const std::vector<uint8_t> acmd41_hcs = {0x69, 0x40, 0, 0, 0, 0x77};

size_t count_of(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++n;
    }
    return n;
}

class SsiCardClockTest : public ::testing::Test {
  protected:
    std::string image;

    void SetUp() override {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run(test_board::start_clocks).returned); // 50 MHz
        image = test_board::make_blank_card("ssi-card", 16 * mib);
        ASSERT_FALSE(image.empty());
        sim::sd_set_image(image);
        SysCtlPeripheralEnable(SYSCTL_PERIPH_SSI0);
        GPIOPinTypeSSI(GPIO_PORTA_BASE, GPIO_PIN_2 | GPIO_PIN_4 | GPIO_PIN_5);
        GPIOPinTypeGPIOOutput(GPIO_PORTA_BASE, GPIO_PIN_3);
        select_card(false);
        g_frames = 0;
    }
    void TearDown() override {
        sim::sd_set_image("");
        unlink(image.c_str());
    }

    // SSI0 as a master at 50 MHz / (2 x (1 + scr)), eight-bit frames in mode 0.
    static void set_rate(uint32_t scr) {
        set_reg(0, SSI_O_CR1, 0);
        set_reg(0, SSI_O_CPSR, 2);
        set_reg(0, SSI_O_CR0, (scr << SSI_CR0_SCR_S) | 7);
        set_reg(0, SSI_O_CR1, SSI_CR1_SSE);
    }
};

TEST_F(SsiCardClockTest, IdentificationAbove400KilohertzIsReportedOnce) {
    set_rate(63);
    EXPECT_EQ(sim::dev::ssi_bit_rate_hz(0), 390625u);
    testing::internal::CaptureStderr();
    select_card(true);
    EXPECT_EQ(command(cmd0), 0x01);
    EXPECT_EQ(sim::dev::ssi_clock_violations(), 0u);

    // 50 MHz / 124, what rounding the divisor for 400 kHz down gives.
    set_rate(61);
    EXPECT_EQ(sim::dev::ssi_bit_rate_hz(0), 403225u);
    g_frames = 0;
    EXPECT_EQ(command(cmd0), 0x01);
    EXPECT_EQ(command(cmd0), 0x01);
    EXPECT_EQ(sim::dev::ssi_clock_violations(), static_cast<uint32_t>(g_frames));

    // A card that is not selected does not see the clock.
    select_card(false);
    uint32_t before = sim::dev::ssi_clock_violations();
    xchg(0xFF);
    EXPECT_EQ(sim::dev::ssi_clock_violations(), before);

    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(count_of(err, "SSI0 bit clock 403225 Hz exceeds the microSD card's limit of 400000 Hz"), 1u)
        << err;
    EXPECT_EQ(count_of(err, "exceeds"), 1u) << err;

    // Every power-on period reports afresh.
    sim::test::power_on(sim::WakeSource::power);
    EXPECT_EQ(sim::dev::ssi_clock_violations(), 0u);
}

TEST_F(SsiCardClockTest, AReadyCardTakesItsFullSpeed) {
    set_rate(63);
    select_card(true);
    ASSERT_EQ(command(cmd0), 0x01);
    ASSERT_EQ(command(cmd8), 0x01);
    xchg(0xFF); // the rest of R7
    xchg(0xFF);
    xchg(0xFF);
    xchg(0xFF);
    uint8_t r1 = 0x01;
    for (int i = 0; i < 20 && r1 == 0x01; ++i) {
        command(cmd55);
        r1 = command(acmd41_hcs);
    }
    ASSERT_EQ(r1, 0x00);

    set_rate(1);                                        // 12.5 MHz
    EXPECT_EQ(command({0x7A, 0, 0, 0, 0, 0xFD}), 0x00); // CMD58
    set_rate(0);                                        // 25 MHz, the default-speed limit itself
    for (int i = 0; i < 8; ++i) {
        xchg(0xFF);
    }
    EXPECT_EQ(sim::dev::ssi_clock_violations(), 0u);
}

// ---------------------------------------------------------------- clock gating

// The clocks as the firmware starts them, and the watchdog armed.
void start_board(void) {
    test_board::start_clocks();
    wdog_init();
}

void put_on_ssi1(void) {
    SSIDataPut(SSI1_BASE, 0xFF);
}

// The chip answers with a bus fault: the firmware's fault handler reports it and stops, and the
// watchdog ends the period.
TEST(SsiClockTest, ACallOnAnUnclockedModuleIsABusFault) {
    sim::test::reset_board();
    ASSERT_TRUE(sim::test::run(start_board).returned);
    sim::test::clear_console_output();
    sim::test::Outcome o = sim::test::run(put_on_ssi1);
    EXPECT_FALSE(o.returned);
    EXPECT_EQ(o.event, sim::PowerEvent::watchdog);
    EXPECT_NE(sim::test::console_output().find("Crash"), std::string::npos);
}

} // namespace
