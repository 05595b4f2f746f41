// The FRAM on I2C0, seen through the device's memory: transfers land at the addressed bytes and
// nowhere else, reads of every length come back whole, the map and operator tests behave, a FRAM
// that does not answer changes nothing in RAM, and the caller's interrupt mask is kept.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "board/i2c0.h"
#include "records/system.h"
#include "driverlib/sysctl.h"
#include "records/apf.h"
#include "measure/sample.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "storage/i2c_fram.h"

namespace {

class Fram : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        // Every delay toggles the watchdog's feed line (PF1): its port is clocked, as after the
        // firmware's pin set-up.
        SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOF);
        UARTStdioConfig(0, 115200, 16000000);
        i2c0_init(0);
        sim::test::clear_console_output();
    }
    static std::string out() {
        wait_consoleTx();
        return sim::test::console_output();
    }
    static uint8_t* mem() { return sim::fram_bytes(); }
};

TEST_F(Fram, ProbeWritesItsPatternAtZero) {
    memset(mem(), 0x11, 8);
    EXPECT_EQ(fram_probe(), FRAM_PROBE_OK);
    const uint8_t pattern[4] = {0x55, 0xAA, 0x55, 0xAA};
    EXPECT_EQ(0, memcmp(mem(), pattern, 4));
    EXPECT_EQ(mem()[4], 0x11);

    EXPECT_EQ(fram_init(), 0u);
    EXPECT_EQ(out(), "");
}

TEST_F(Fram, WriteLandsAtTheSixteenBitAddressOnly) {
    memset(mem() + 0x1230, 0xEE, 0x20);
    uint8_t data[5] = {1, 2, 3, 4, 5};
    EXPECT_EQ(fram_write(0x1234, data, sizeof data), 5u);
    EXPECT_EQ(0, memcmp(mem() + 0x1234, data, sizeof data));
    EXPECT_EQ(mem()[0x1233], 0xEE);
    EXPECT_EQ(mem()[0x1239], 0xEE); // no byte after the last one

    uint8_t one = 0x77;
    fram_write(0x0100, &one, 1);
    EXPECT_EQ(mem()[0x0100], 0x77);
    EXPECT_EQ(mem()[0x0101], 0x00);

    // A count of 0 sends only the memory address: nothing is written.
    std::vector<uint8_t> before(mem(), mem() + 0x2000);
    fram_write(0x1234, data, 0);
    EXPECT_EQ(0, memcmp(before.data(), mem(), before.size()));
}

TEST_F(Fram, ReadsOfEveryLengthComeBackWhole) {
    for (uint32_t i = 0; i < 600; i++) {
        mem()[0x0300 + i] = static_cast<uint8_t>(i * 7 + 3);
    }
    for (uint32_t len : {1u, 2u, 3u, 364u, 600u}) {
        std::vector<uint8_t> buf(len + 1, 0xCC);
        EXPECT_EQ(fram_read(0x0300, buf.data(), len), len);
        EXPECT_EQ(0, memcmp(buf.data(), mem() + 0x0300, len)) << len;
        EXPECT_EQ(buf[len], 0xCC) << "read past the count, " << len;
    }
    // high address byte first: 0x0102 is not 0x0201
    mem()[0x0102] = 0xA1;
    mem()[0x0201] = 0xB2;
    uint8_t b = 0;
    fram_read(0x0102, &b, 1);
    EXPECT_EQ(b, 0xA1);
}

TEST_F(Fram, RecordsGoToTheirPlacesInTheMap) {
    memset(&apf, 0, sizeof apf);
    apf.sys_serial_num = 1234;
    apf.CTD_Depth = 12.5f;
    memset(&sampl, 0, sizeof sampl);
    sampl.timestamp = 0x01020304;
    sampl.spare3 = -1.0f;
    fram_apf_store_all();
    EXPECT_EQ(0, memcmp(mem() + 0x0100, &apf, 364));
    EXPECT_EQ(0, memcmp(mem() + 0x0080, &sampl, 96));

    memset(&sys_samp, 0, sizeof sys_samp);
    sys_samp.initNum = SYS_SAMP_INIT_NUM;
    sys_samp.current_sample = 17;
    fram_sys_samp_store();
    EXPECT_EQ(0, memcmp(mem() + 0x0040, &sys_samp, 60));
    EXPECT_EQ(mem()[0x0040 + 60], 0);

    uint8_t line[] = "0x1234,pH,line";
    fram_apf_dbuf_store(line, sizeof line);
    EXPECT_EQ(0, memcmp(mem() + 0x0400, line, sizeof line));
    uint8_t back[sizeof line] = {};
    fram_apf_dbuf_retrieve(back, sizeof back);
    EXPECT_EQ(0, memcmp(back, line, sizeof line));

    memset(&apf, 0, sizeof apf);
    fram_apf_vars_retrieve();
    EXPECT_EQ(apf.sys_serial_num, 1234u);
    EXPECT_EQ(apf.CTD_Depth, 12.5f);
}

TEST_F(Fram, AFramThatDoesNotAnswerChangesNothingInRam) {
    sim::test::set_scenario("board.fram", "0");
    EXPECT_EQ(fram_probe(), 0u);
    EXPECT_EQ(fram_init(), 1u);
    EXPECT_EQ(out(), "\r\nERROR: FRAM fails probe, do not deploy until resolved\r\n");

    uint8_t buf[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(fram_read(0x0300, buf, sizeof buf), 0u);
    EXPECT_EQ(buf[0], 0xEE);
    EXPECT_EQ(fram_write(0x0300, buf, sizeof buf), 0u);

    memset(&apf, 0, sizeof apf);
    apf.sys_serial_num = 77;
    memset(&sampl, 0, sizeof sampl);
    sampl.timestamp = 1234;
    fram_apf_vars_retrieve();
    fram_last_samp_retrieve();
    EXPECT_EQ(apf.sys_serial_num, 77u);
    EXPECT_EQ(sampl.timestamp, 1234u);
    // A line left in the buffer is not passed off as the stored one.
    uint8_t line[] = "stale";
    fram_apf_dbuf_retrieve(line, sizeof line);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(line), sizeof line), std::string(sizeof line, '\0'));

    sim::test::clear_console_output();
    EXPECT_EQ(fram_soak_test(3), 1u);
    EXPECT_EQ(out(), "fram soak test start\r\nErr: FRAM does not answer\r\n");
    EXPECT_EQ(apf.sys_serial_num, 77u);

    // Fitted again, it answers at once: the refusals left the bus free.
    sim::test::set_scenario("board.fram", "1");
    EXPECT_EQ(fram_probe(), FRAM_PROBE_OK);
    for (uint32_t a = 0x0300; a < 0x0304; a++) {
        EXPECT_EQ(mem()[a], 0) << a;
    }
}

// A caller that runs with interrupts masked (a handler, a critical section) must find them masked
// after each FRAM call, and a caller with them enabled must find them enabled.
TEST_F(Fram, TheCallersInterruptMaskIsKept) {
    uint8_t buf[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    for (bool masked : {true, false}) {
        if (masked) {
            sim::int_master_disable();
        } else {
            sim::int_master_enable();
        }
        fram_write(0x0200, buf, sizeof buf);
        EXPECT_EQ(sim::int_masked(), masked);
        fram_read(0x0200, buf, sizeof buf);
        EXPECT_EQ(sim::int_masked(), masked);
        EXPECT_EQ(fram_probe(), FRAM_PROBE_OK);
        EXPECT_EQ(sim::int_masked(), masked);
    }
}

TEST_F(Fram, OperatorTestWritesAndReadsItsRamps) {
    EXPECT_EQ(fram_test(), 0u);
    const std::string o = out();
    const char* headings[] = {
        "\r\n1st block of 128, write 127 to 0\r\n7f 7e 7d",
        "\r\n2nd block of 128, write 0 to 127\r\n00 01 02",
        "\r\n3rd block of 128, write 255 to 128\r\nff fe fd",
        "\r\n4th block of 128, write 128 to 255\r\n80 81 82",
        "\r\n1st block of 128, read:\r\n7f 7e",
        "\r\n4th block of 128, read:\r\n80 81",
    };
    size_t at = 0;
    for (const char* h : headings) {
        size_t found = o.find(h, at);
        ASSERT_NE(found, std::string::npos) << h;
        at = found;
    }
    // the records of the map are not in the scratch area
    for (uint32_t a = 0; a < 0x0400 + PRNBUF_SIZE; a++) {
        ASSERT_EQ(mem()[a], 0) << a;
    }
}

TEST_F(Fram, SoakTestRunsItsRoundsAndPutsTheRecordsBack) {
    memset(&apf, 0, sizeof apf);
    apf.sys_error_ctr = 55;
    apf.sys_serial_num = 42;
    memset(&sampl, 0, sizeof sampl);
    sampl.fVrsi_std = 0.25f;
    memset(mem() + 0x0080, 0x5A, 96 + 32 + 364);
    std::vector<uint8_t> before(mem(), mem() + 0x0400);

    EXPECT_EQ(fram_soak_test(3), 0u);
    const std::string o = out();
    EXPECT_EQ(o.rfind("fram soak test start", 0), 0u);
    EXPECT_NE(o.find("[0000002]\b\b\b\b\b\b\b\b\b"), std::string::npos);
    EXPECT_EQ(o.find("[0000003]"), std::string::npos);
    EXPECT_EQ(o.find("Err:"), std::string::npos);

    EXPECT_EQ(0, memcmp(before.data(), mem(), before.size()));
    EXPECT_EQ(apf.sys_error_ctr, 55u);
    EXPECT_EQ(apf.sys_serial_num, 42u);
    EXPECT_EQ(sampl.fVrsi_std, 0.25f);
}

TEST_F(Fram, SoakTestStopsOnAKey) {
    sim::test::type("x");
    sim::test::advance_s(0.01);
    EXPECT_EQ(fram_soak_test(1000000), 0u);
    EXPECT_EQ(out().find("[0000000]"), std::string::npos);
}

} // namespace
