// The float controller's variables: defaults, the start-up counters and the float-side error log.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "board/i2c0.h"
#include "core/main.h"
#include "storage/microsd.h"
#include "storage/apf_vars.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "storage/i2c_fram.h"

namespace {

constexpr uint32_t T0 = 1767225600; // 2026-01-01 00:00:00 UTC

class FloatVars : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board(T0);
        memset(&apf, 0, sizeof apf);
        microSD_flg = 0;
        UARTStdioConfig(0, 115200, 16000000);
        i2c0_init(0);
        sim::test::clear_console_output();
    }
    static std::string out() {
        wait_consoleTx();
        return sim::test::console_output();
    }
    static apfGlobals stored() {
        apfGlobals a;
        memcpy(&a, sim::fram_bytes() + FRAM_APF_ADDR, sizeof a);
        return a;
    }
    static void put_stored(const apfGlobals& a) { memcpy(sim::fram_bytes() + FRAM_APF_ADDR, &a, sizeof a); }
    // A start as init_hxc makes it, with the hibernation module as given.
    static void start(uint8_t hib_active, uint32_t hib_status) {
        sim::hib().active = hib_active;
        sim::hib().ris = hib_status;
        sim::test::power_on(hib_active ? sim::WakeSource::reset : sim::WakeSource::power);
        UARTStdioConfig(0, 115200, 16000000);
        i2c0_init(0);
        apf.sys_por_flag = 1;
        init_apf_global_vars();
    }
};

TEST_F(FloatVars, DefaultsAreStoredAndLogged) {
    apf.sys_tmout = 1234;
    apf.sys_sensor_mode = 2;
    apf.sys_error_ctr = 9;
    SetDefaultsIntoNVRAM();

    EXPECT_EQ(out(), "\r\n\n  System Default Values loaded into FRAM!\n\r\n"
                     "\r\n  ISUS Default Values loaded into FRAM!\r\n"
                     "\r\n  DuraFET Default Values loaded into FRAM!\r\n");
    EXPECT_EQ(apf.sys_tmout, 1234u);    // deliberately not a default
    EXPECT_EQ(apf.sys_sensor_mode, 2u); // nor the mode
    EXPECT_EQ(apf.sys_sensor_type, 4);
    EXPECT_EQ(apf.sys_sf_limit, 256u);
    EXPECT_EQ(apf.isus_pixel_end, 87u);
    EXPECT_EQ(apf.no3_span, 45u);
    EXPECT_EQ(apf.dura_atod_delay, 100u);
    // the log entry that follows the defaults
    EXPECT_EQ(apf.sys_last_error, -116);
    EXPECT_EQ(apf.sys_error_ctr, 1u);
    EXPECT_EQ(apf.sys_error_time, T0);
    const apfGlobals f = stored();
    EXPECT_EQ(0, memcmp(&f, &apf, sizeof apf));
}

TEST_F(FloatVars, ErrorLogWithoutACard) {
    apf.sys_error_ctr = 3;
    EXPECT_EQ(LogErrorMsg("CTD Command ACK Failure", -110, 1), -110);
    EXPECT_EQ(out(), "CTD Command ACK Failure\r\n");
    EXPECT_EQ(apf.sys_last_error, -110);
    EXPECT_EQ(apf.sys_error_ctr, 4u);
    EXPECT_EQ(apf.sys_error_time, T0);
    EXPECT_EQ(stored().sys_error_ctr, 4u);

    sim::test::clear_console_output();
    LogErrorMsg("quiet", -1, 0);
    EXPECT_EQ(out(), "");
    EXPECT_EQ(stored().sys_last_error, -1);
}

TEST_F(FloatVars, PowerUpCountsAsPowerOnAndReset) {
    apfGlobals before{};
    before.sys_por_ctr = 5;
    before.sys_reset_ctr = 2;
    before.sys_reset_time = 100;
    before.sys_serial_num = 777;
    put_stored(before);

    start(0, 0);
    EXPECT_EQ(apf.sys_por_ctr, 6u);
    EXPECT_EQ(apf.sys_reset_ctr, 3u);
    EXPECT_EQ(apf.sys_reset_time, T0);
    EXPECT_EQ(apf.sys_serial_num, 777u); // loaded from FRAM
    EXPECT_EQ(stored().sys_por_ctr, 6u);
    EXPECT_EQ(stored().sys_reset_ctr, 3u);
}

TEST_F(FloatVars, HibernationWakesAreNotResets) {
    for (uint32_t status : {0x01u, 0x08u, 0x19u}) {
        memset(&apf, 0, sizeof apf);
        put_stored(apf);
        start(1, status);
        EXPECT_EQ(apf.sys_por_ctr, 1u) << status;
        EXPECT_EQ(apf.sys_reset_ctr, 0u) << status;
        // left for the wake classification
        EXPECT_EQ(sim::hib().ris, status);
    }
    for (uint32_t status : {0x00u, 0x10u, 0x90u}) {
        memset(&apf, 0, sizeof apf);
        put_stored(apf);
        start(1, status);
        EXPECT_EQ(apf.sys_reset_ctr, 1u) << status;
    }
}

TEST_F(FloatVars, StartWithoutThePowerOnFlagIsNotCounted) {
    put_stored(apfGlobals{});
    start(1, 0x08);
    EXPECT_EQ(apf.sys_por_ctr, 1u);
    apf.sys_por_flag = 0; // a second pass without a power event
    init_apf_global_vars();
    EXPECT_EQ(apf.sys_por_ctr, 1u);
}

} // namespace
