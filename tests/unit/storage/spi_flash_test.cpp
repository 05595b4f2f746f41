// The serial flash probe on SSI2: the JEDEC manufacturer byte of each socket position, with the
// chip selects released afterwards.
#include <gtest/gtest.h>

#include <string>

#include "ports/uartstdio.h"
#include "sim_test.h"
#include "board/pinmux.h"
#include "storage/spi_flash.h"

#include "inc/hw_memmap.h"

namespace {

class Flash : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        init_TM4C123GH6PM_64pin(); // opens the locked PF0 that switches the flash supply
        sim::test::clear_console_output();
    }
    static std::string out() {
        wait_consoleTx();
        return sim::test::console_output();
    }
};

TEST_F(Flash, ProbeReadsTheManufacturerOfEachChip) {
    sim::set_flash_jedec(0xC2, 0x20, 0x17);
    spi_flash_open();
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTF_BASE, 0x01)); // flash supply on
    EXPECT_EQ(spi_flash_probe(0), 0xC2);
    EXPECT_EQ(spi_flash_probe(1), 0xFF); // empty position: the line floats high
    EXPECT_EQ(out(), "chipId 0xc2\r\nchipId 0xff\r\n");
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTB_BASE, FLASH_CS0_PIN));
    EXPECT_TRUE(sim::gpio_level(GPIO_PORTE_BASE, FLASH_CS1_PIN));
}

TEST_F(Flash, DeveloperTestShowsIdAndStatusOfBothPositions) {
    sim::set_flash_jedec(0xEF, 0x40, 0x17);
    spi_flash_test();
    EXPECT_EQ(out(), "chipId 0xef\r\nstatusReg 0x00\r\nchipId 0xff\r\nstatusReg 0xff\r\n");
}

} // namespace
