// The sample record: its FRAM image and the "last sample" line with its switchable columns.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "board/i2c0.h"
#include "records/system.h"
#include "measure/sample.h"
#include "records/sample.h"
#include "measure/sample_line.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "storage/i2c_fram.h"

namespace {

class Sample : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        sim::test::reset_board();
        memset(&sys_data, 0, sizeof sys_data);
        memset(&sys_samp, 0, sizeof sys_samp);
        memset(&sampl, 0, sizeof sampl);
        memset(prnBuf, 'z', sizeof prnBuf);
        UARTStdioConfig(0, 115200, 16000000);
        i2c0_init(0);
        sim::test::clear_console_output();
    }
    static std::string out() {
        wait_consoleTx();
        return sim::test::console_output();
    }
    static void fill_sample() {
        sampl.timestamp = 1767225600; // 2026-01-01 00:00:00
        sampl.fBiasNeg = -3.61f;
        sampl.fBiasPos = 3.58f;
        sampl.fIb = 0.0012f;
        sampl.fIk = 15.25f;
        sampl.fVk = -0.912345f;
        sampl.fVk_std = 0.000012f;
        sampl.fVtherm = 1.234567f;
        sampl.fVtherm_std = 0.000021f;
        sampl.fTempC = 15.0f;
        sampl.fVrsi = -0.987654f;
        sampl.fVrsi_std = 0.000031f;
        sampl.pHint = 8.0f;
        sampl.fVrse = -0.876543f;
        sampl.fVrse_std = 0.000041f;
        sampl.pHext = 7.95f;
        sampl.fVbat_main = 12.0f;
        sampl.fBrdTempC = 20.5f;
        sampl.uiHumidity = 35;
    }
};

TEST_F(Sample, FramImageIsTheRecordAt128) {
    fill_sample();
    sampl.sampNum = 0x0A0B0C0D;
    sampl.spare2 = 2.0f;
    fram_last_samp_store();
    const uint8_t* f = sim::fram_bytes() + 0x80;
    const uint8_t num[4] = {0x0D, 0x0C, 0x0B, 0x0A};
    EXPECT_EQ(0, memcmp(f, num, 4));
    uint32_t humidity;
    memcpy(&humidity, f + 80, 4);
    EXPECT_EQ(humidity, 35u);
    float spare2;
    memcpy(&spare2, f + 88, 4);
    EXPECT_EQ(spare2, 2.0f);
    EXPECT_EQ(sim::fram_bytes()[0x80 + 96], 0);

    const sampData written = sampl;
    memset(&sampl, 0, sizeof sampl);
    fram_last_samp_retrieve();
    EXPECT_EQ(0, memcmp(&sampl, &written, sizeof sampl));
}

TEST_F(Sample, AllSwitchesOffGiveAnEmptyLine) {
    fill_sample();
    fram_last_samp_store();
    print_sampl();
    EXPECT_STREQ(prnBuf, "");
    send_last_sample();
    EXPECT_EQ(out(), "");
}

TEST_F(Sample, DefaultColumnsInTheirFixedOrder) {
    sys_data.baud_rate = 115200;
    initSysDataVariables();
    sys_samp.current_sample = 5;
    fill_sample();
    print_sampl();
    EXPECT_STREQ(prnBuf, "#0000005\t01/01/2026 00:00:00\t"
                         "   12.00\t    3.58\t   -3.61\t   20.50\t      35\t"
                         "1.234567\t0.000021\t  15.000\t"
                         "-0.987654\t0.000031\t   8.000\t-0.876543\t0.000041\t"
                         "-0.912345\t0.000012\t   15.25\t   0.001\t");
    EXPECT_EQ(sampl.sampNum, 5u);
}

TEST_F(Sample, ExternalPhColumnFollowsTheVrseStd) {
    sys_data.data_cfg[CFG_VRSE_STD] = 1;
    sys_data.data_cfg[CFG_CALC_PH_VRSE] = 1;
    sys_data.data_cfg[CFG_V_COUNTER_ELECT] = 1;
    fill_sample();
    print_sampl();
    EXPECT_STREQ(prnBuf, "0.000041\t   7.950\t-0.912345\t");
}

TEST_F(Sample, TimeColumnForms) {
    sys_data.data_cfg[CFG_TIMESTAMP] = 2;
    sampl.timestamp = 2208963603;
    print_sampl();
    EXPECT_STREQ(prnBuf, "         1000\t");

    sampl.timestamp = 0; // wraps in unsigned 64-bit arithmetic
    print_sampl();
    EXPECT_STREQ(prnBuf, "18446741864745949616\t");

    sys_data.data_cfg[CFG_TIMESTAMP] = 3;
    print_sampl();
    EXPECT_STREQ(prnBuf, "\t");
}

TEST_F(Sample, LastSampleComesFromFramWithoutALineEnd) {
    sys_data.data_cfg[CFG_SAMPLE_NUM] = 1;
    sys_data.data_cfg[CFG_CALC_PH_VRSI] = 1;
    sys_samp.current_sample = 12;
    fill_sample();
    fram_last_samp_store();
    memset(&sampl, 0, sizeof sampl);

    send_last_sample();
    EXPECT_EQ(out(), "#0000012\t   8.000\t");
    EXPECT_EQ(print_sampBuf(), 18);
}

} // namespace
