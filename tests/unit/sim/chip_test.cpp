// The target image on the emulated chip, one function of it at a time: the clock and delay timing,
// the clock set-up without a crystal, the SD card's and the console's bit clocks as the image's own
// drivers program them, faults, and interrupts that leave the interrupted code's registers intact
// (an IT block's condition included) and run their handlers outside it.
#include "chip.h"
#include "devices.h"
#include "runtime.h"
#include "sim_test.h"
#include "test_board.h"

#include "driverlib/ssi.h"
#include "driverlib/sysctl.h"
#include "driverlib/uart.h"
#include "inc/hw_memmap.h"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <iterator>
#include <unicorn/unicorn.h>

namespace {

using namespace sim;

constexpr uint32_t clock_50mhz = SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ;

class Chip : public ::testing::Test {
  protected:
    void SetUp() override {
        test::reset_board();
        static bool loaded = false;
        if (!loaded) {
            std::string error;
            ASSERT_TRUE(chip::load_image(HXC3_TARGET_IMAGE, error))
                << error << " (make target builds the image)";
            loaded = true;
        }
        ASSERT_TRUE(chip::power_on_reset());
    }

    uint32_t call(const char* fn, std::initializer_list<uint32_t> args) {
        uint32_t r = 0;
        EXPECT_TRUE(chip::call(fn, args, &r)) << fn << ": " << chip::last_fault();
        return r;
    }

    // Virtual milliseconds a call of the image takes.
    double call_ms(const char* fn, std::initializer_list<uint32_t> args) {
        uint64_t before = now_ns();
        call(fn, args);
        return static_cast<double>(now_ns() - before) / ns_per_ms;
    }

    void start_clock() {
        call("SysCtlClockSet", {clock_50mhz});
        ASSERT_EQ(call("SysCtlClockGet", {}), 50000000u);
    }

    // The clock, the pins (and with them the watchdog and LED lines) and the console, as the
    // image's start-up leaves them.
    void start_board() {
        start_clock();
        call("_Z23init_TM4C123GH6PM_64pinv", {});
        call("_Z15UARTStdioConfigmmm", {0, 115200, 16000000});
    }
};

TEST_F(Chip, DelayLoopTakesThreeCyclesACountAtEitherClock) {
    EXPECT_NEAR(call_ms("SysCtlDelay", {16667}), 16667.0 * 3 / 16000, 16667.0 * 3 / 16000 * 0.02);
    start_clock();
    EXPECT_EQ(system_clock_hz(), 50000000u);
    EXPECT_NEAR(call_ms("SysCtlDelay", {16667}), 1.0, 0.02);
    EXPECT_NEAR(call_ms("SysCtlDelay", {16667 * 1000}), 1000.0, 20.0);
}

TEST_F(Chip, DeadCrystalLeavesTheChipOnTheInternalOscillator) {
    test::set_scenario("board.xtal", "0");
    uint32_t r = 0;
    ASSERT_TRUE(chip::call("SysCtlClockSet", {clock_50mhz}, &r, 5ull * ns_per_s)) << chip::last_fault();
    EXPECT_EQ(system_clock_hz(), piosc_hz) << "the processor must keep a running clock";
    EXPECT_EQ(call("SysCtlClockGet", {}), piosc_hz) << "the firmware's dividers must see the real clock";
    EXPECT_EQ(call("SysCtlClockSetFailed", {}), 1u);
    EXPECT_NEAR(call_ms("SysCtlDelay", {16000 / 3 * 10}), 10.0, 0.2) << "the delay runs at 16 MHz";
}

TEST_F(Chip, ClockSetUpWithACrystalDoesNotReportAFailure) {
    start_clock();
    EXPECT_EQ(call("SysCtlClockSetFailed", {}), 0u);
}

TEST_F(Chip, SdCardBitClocksStayWithinTheCardsLimits) {
    start_clock();
    call("SysCtlPeripheralEnable", {SYSCTL_PERIPH_SSI0});
    for (uint32_t asked : {400000u, 1000000u, 12500000u, 25000000u}) {
        call("SSIConfigSetExpClk", {SSI0_BASE, 50000000, SSI_FRF_MOTO_MODE_0, SSI_MODE_MASTER, asked, 8});
        uint32_t rate = dev::ssi_bit_rate_hz(0);
        EXPECT_LE(rate, asked) << "asked for " << asked;
        EXPECT_GE(rate, asked * 0.9) << "asked for " << asked;
    }
    // The card driver's own start: identification at its slow clock, then the data clock.
    std::string card = test_board::make_card_image("chip-card");
    ASSERT_FALSE(card.empty());
    sd_set_image(card);
    EXPECT_EQ(call("disk_initialize", {0}), 0u);
    EXPECT_EQ(dev::ssi_clock_violations(), 0u);
    EXPECT_LE(dev::ssi_bit_rate_hz(0), 25000000u);
    EXPECT_GT(dev::ssi_bit_rate_hz(0), 400000u);
    sd_set_image("");
    std::remove(card.c_str());
}

TEST_F(Chip, EveryConsoleRateIsWithinTwoPercent) {
    start_clock();
    for (uint32_t baud : {4800u, 9600u, 19200u, 38400u, 57600u, 115200u}) {
        call("_Z15UARTStdioConfigmmm", {0, baud, 16000000});
        double actual = dev::uart_actual_baud(0);
        EXPECT_NEAR(actual, baud, baud * 0.02) << "console at " << baud;
    }
}

TEST_F(Chip, FaultsRunTheImagesHandlerAndAreReported) {
    start_board();
    test::clear_console_output();

    uint32_t r = 0;
    EXPECT_FALSE(chip::call("UARTCharPutNonBlocking", {UART2_BASE, 'x'}, &r, 2 * ns_per_s));
    EXPECT_EQ(chip::faults(), 1u);
    EXPECT_NE(chip::last_fault().find("UART2 accessed while its clock is off"), std::string::npos)
        << chip::last_fault();
    EXPECT_NE(chip::last_fault().find("address 0x4000E018"), std::string::npos) << chip::last_fault();
    EXPECT_NE(test::console_output().find("Quillon Crash!!!"), std::string::npos) << test::console_output();

    EXPECT_FALSE(chip::call("strlen", {0x00300000}, &r, 2 * ns_per_s));
    EXPECT_NE(chip::last_fault().find("read of unmapped address at PC"), std::string::npos)
        << chip::last_fault();
    EXPECT_NE(chip::last_fault().find("address 0x00300000"), std::string::npos) << chip::last_fault();

    uint32_t scratch = 0x20006000;
    chip::write_word(scratch, 0xDEFEDEFE); // udf
    EXPECT_FALSE(chip::call_at(scratch, {}, &r, 2 * ns_per_s));
    EXPECT_NE(chip::last_fault().find("undefined instruction"), std::string::npos) << chip::last_fault();
    EXPECT_EQ(chip::faults(), 3u);
}

// The stack reserve's lower end, from the image's symbols.
uint32_t stack_limit() {
    uint32_t v = 0;
    EXPECT_TRUE(chip::find_symbol(chip::image(), "__stack_limit", v));
    return v;
}

TEST_F(Chip, AStackBelowItsReserveIsAFault) {
    start_board();
    call("SysTickPeriodSet", {300});
    call("SysTickIntEnable", {});
    call("SysTickEnable", {});
    // Calls run on the current stack: put it just above the limit, so that the next exception
    // frame lands below it.
    chip::set_register(UC_ARM_REG_SP, stack_limit() + 16);
    chip::set_register(UC_ARM_REG_S0, 0);
    chip::set_register(UC_ARM_REG_S1, 0);
    uint32_t r = 0;
    EXPECT_FALSE(chip::call("_Z10calc_pHintff", {}, &r, 2 * ns_per_s));
    EXPECT_NE(chip::last_fault().find("stack overflow"), std::string::npos) << chip::last_fault();
}

float as_float(uint32_t bits) {
    float f = 0;
    std::memcpy(&f, &bits, 4);
    return f;
}

uint32_t bits_of(float f) {
    uint32_t b = 0;
    std::memcpy(&b, &f, 4);
    return b;
}

// A floating-point computation interrupted every hundred cycles by SysTick gives the same bits as
// one that runs alone: the handlers leave the core and FPU registers as they found them.
TEST_F(Chip, InterruptsPreserveTheInterruptedRegisters) {
    start_board();
    auto ph = [&]() {
        chip::set_register(UC_ARM_REG_S0, bits_of(-0.9123f));
        chip::set_register(UC_ARM_REG_S1, bits_of(14.25f));
        call("_Z10calc_pHintff", {});
        return chip::get_register(UC_ARM_REG_S0);
    };
    uint32_t alone = ph();
    uint64_t taken = chip::exceptions_taken();
    call("SysTickPeriodSet", {300}); // a few interrupts in every computation, at varying points
    call("SysTickIntEnable", {});
    call("SysTickEnable", {});
    for (int i = 0; i < 30; ++i) {
        uint32_t interrupted = ph();
        ASSERT_EQ(interrupted, alone)
            << as_float(interrupted) << " against " << as_float(alone) << " in run " << i;
    }
    EXPECT_GT(chip::exceptions_taken() - taken, 60u);
    EXPECT_TRUE(std::isfinite(as_float(alone)));
    EXPECT_GT(chip::stack_high_water(), 32u);
    EXPECT_LT(chip::stack_high_water(), 8192u);
}

// Unicorn ends a translated block at each 1 KiB page, also between an IT instruction and the ones it
// makes conditional, and an interrupt is taken there. Scratch code in RAM puts an ITE across a page
// boundary and pends SysTick just before it; a handler of its own, at SysTick's vector, stores a
// flag through an address its first instruction loads and changes the GE flags.
TEST_F(Chip, AnInterruptInsideAnItBlockRunsItsHandlerUnconditionally) {
    constexpr uint32_t page = 0x20007000;
    constexpr uint32_t code = page - 8;
    constexpr uint32_t handler = page + 0x100;
    constexpr uint32_t flag = page + 0x200;
    constexpr uint32_t decoy = page + 0x204;
    const uint16_t body[] = {
        0x6001, // str r1, [r0]: ICSR's PENDSTSET
        0x2a00, // cmp r2, #0: Z set
        0xbf0c, // ite eq
        0x2401, // moveq r4, #1: the page's last instruction
        0x2501, // movne r5, #1: the next page's first
        0x4770, // bx lr
    };
    const uint16_t isr[] = {
        0x4b02,         // ldr r3, [pc, #8]: the flag's address
        0x2201,         // movs r2, #1
        0x601a,         // str r2, [r3]
        0xfa82, 0xf242, // uadd8 r2, r2, r2: GE cleared
        0x4770,         // bx lr
    };
    auto put = [](uint32_t at, const uint16_t* half, size_t n) {
        for (size_t i = 0; i < n; i += 2) {
            uint32_t hi = i + 1 < n ? half[i + 1] : 0xbf00; // nop
            chip::write_word(at + 2 * static_cast<uint32_t>(i), half[i] | (hi << 16));
        }
    };
    put(code, body, std::size(body));
    put(handler, isr, std::size(isr));
    chip::write_word(handler + 12, flag);
    chip::write_word(flag, 0);
    chip::write_word(decoy, 0);
    chip::write_word(15 * 4, handler | 1); // SysTick's vector (the next reset reloads the flash)
    chip::set_register(UC_ARM_REG_R4, 0);
    chip::set_register(UC_ARM_REG_R5, 0);
    chip::set_register(UC_ARM_REG_XPSR_NZCVQG, 0x010F0000); // GE all set

    uint64_t taken = chip::exceptions_taken();
    uint32_t r = 0;
    ASSERT_TRUE(chip::call_at(code, {0xE000ED04, 1u << 26, 0, decoy}, &r, ns_per_s)) << chip::last_fault();
    EXPECT_EQ(chip::exceptions_taken() - taken, 1u);
    EXPECT_EQ(chip::read_word(flag), 1u) << "the handler's first instruction was skipped";
    EXPECT_EQ(chip::read_word(decoy), 0u);
    EXPECT_EQ(chip::get_register(UC_ARM_REG_R4), 1u);
    EXPECT_EQ(chip::get_register(UC_ARM_REG_R5), 0u)
        << "the IT block's condition was lost across the handler";
    EXPECT_EQ(chip::get_register(UC_ARM_REG_XPSR) & 0x000F0000, 0x000F0000u)
        << "the handler's GE flags leaked";
}

} // namespace
