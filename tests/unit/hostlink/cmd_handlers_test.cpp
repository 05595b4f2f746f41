// Settings handlers of the command line on the simulated board: the switches and their pairing with
// the means, time stamps, period, clock, file name, presets, storage, sample number and streaming,
// with the received line placed in rx0 as the receive machine leaves it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "board/pinmux.h"
#include "records/system.h"
#include "storage/settings.h"
#include "driverlib/hibernate.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "hostlink/cmd_handlers.h"
#include "hostlink/serial.h"
#include "measure/sample.h"
#include "measure/sample_line.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "test_board.h"
#include "storage/config.h"
#include "storage/presets.h"
#include "storage/i2c_fram.h"

namespace {

void start_board(void) {
    test_board::start_clocks();
    SysCtlPeripheralEnable(SYSCTL_PERIPH_EEPROM0); // as retrieveSysDataVariables opens it
    i2c0_init(0);
    fram_init();
    HibernateEnableExpClk(SysCtlClockGet());
    HibernateRTCEnable();
}

uint32_t utc(int year, int month, int day, int hour, int minute, int second) {
    struct tm t {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    return static_cast<uint32_t>(timegm(&t));
}

// What a call printed.
std::string printed(void (*fn)()) {
    wait_consoleTx();
    sim::test::clear_console_output();
    fn();
    wait_consoleTx();
    return sim::test::console_output();
}

// Runs a handler on a received line. The bytes after the line's NUL are left dirty on purpose, so a
// handler that reads past the end of the line shows it.
std::string on_line(const std::string& text, void (*handler)()) {
    memset(rx0.buf, 'z', sizeof rx0.buf);
    memcpy(rx0.buf, text.c_str(), text.size() + 1);
    rx0.indx = static_cast<uint32_t>(text.size());
    return printed(handler);
}

std::string file_name() {
    const char* name = reinterpret_cast<const char*>(sys_data.fileName);
    return std::string(name, strnlen(name, sizeof sys_data.fileName));
}

class CmdHandlers : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        sim::test::reset_board();
        memset(&sys_data, 0, sizeof sys_data);
        memset(&sys_samp, 0, sizeof sys_samp);
        ASSERT_TRUE(sim::test::run(start_board).returned);
        initSysDataVariables();
        sys_samp.initNum = SYS_SAMP_INIT_NUM;
        UARTEchoSet(false);
    }
};

// Every switch on its own entry: "1" and the value 1 turn it on, anything else off; the getter
// prints it bare. Every change reaches the stored record.
TEST_F(CmdHandlers, SwitchSettersAndGetters) {
    struct Switch {
        void (*set)(uint8_t);
        void (*get)();
        uint32_t index;
    };
    for (const Switch& s : {Switch{cmd_set_vtherm, cmd_get_vtherm, 2},
                            {cmd_set_vtherm_std, cmd_get_vtherm_std, 3},
                            {cmd_set_tempc, cmd_get_tempc, 4},
                            {cmd_set_vrsi, cmd_get_vrsi, 5},
                            {cmd_set_vrsi_std, cmd_get_vrsi_std, 6},
                            {cmd_set_vrse, cmd_get_vrse, 8},
                            {cmd_set_vrse_std, cmd_get_vrse_std, 9},
                            {cmd_set_vk, cmd_get_vk, 15},
                            {cmd_set_vk_std, cmd_get_vk_std, 16},
                            {cmd_set_ik, cmd_get_ik, 17},
                            {cmd_set_ib, cmd_get_ib, 18},
                            {cmd_set_vbat, cmd_get_vbat, 19},
                            {cmd_set_cfg_sampnum, cmd_get_cfg_sampnum, 0},
                            {cmd_set_biaspos, cmd_get_biaspos, 20},
                            {cmd_set_biasneg, cmd_get_biasneg, 21}}) {
        SCOPED_TRACE("data_cfg[" + std::to_string(s.index) + "]");
        s.set('1');
        EXPECT_EQ(printed(s.get), "1");
        s.set('0');
        EXPECT_EQ(printed(s.get), "0");
        s.set(1);
        EXPECT_EQ(sys_data.data_cfg[s.index], 1);
        retrieveSysDataVariables();
        EXPECT_EQ(sys_data.data_cfg[s.index], 1) << "stored";
        s.set('2');
        EXPECT_EQ(sys_data.data_cfg[s.index], 0);
    }
}

// A deviation switched on brings its mean along; switched off it leaves the mean on. The counter
// electrode's deviation never touches its mean.
TEST_F(CmdHandlers, DeviationSwitchesAndTheirMeans) {
    struct Pair {
        void (*set)(uint8_t);
        uint32_t own, mean;
    };
    for (const Pair& p : {Pair{cmd_set_vrsi_std, 6, 5},
                          {cmd_set_vrse_std, 9, 8},
                          {cmd_set_vtherm_std, 3, 2},
                          {cmd_set_tempc, 4, 2}}) {
        sys_data.data_cfg[p.mean] = 0;
        p.set('1');
        EXPECT_EQ(sys_data.data_cfg[p.own] * 10 + sys_data.data_cfg[p.mean], 11) << p.own;
        p.set('0');
        EXPECT_EQ(sys_data.data_cfg[p.own] * 10 + sys_data.data_cfg[p.mean], 1) << p.own;
    }
    sys_data.data_cfg[15] = 0;
    cmd_set_vk_std('1');
    EXPECT_EQ(sys_data.data_cfg[15], 0);
}

// 1 calendar time, 2 milliseconds on the host's epoch constant right-aligned in 13, else off.
TEST_F(CmdHandlers, TimestampModes) {
    cmd_set_timestamp('1');
    EXPECT_EQ(printed(cmd_get_timestamp), "1");
    HibernateRTCSet(utc(2026, 3, 4, 5, 6, 7));
    EXPECT_EQ(printed([] { cmd_test_timestamp(1); }), "03/04/2026 05:06:07");

    cmd_set_timestamp(2);
    EXPECT_EQ(sys_data.data_cfg[CFG_TIMESTAMP], 2);
    cmd_set_timestamp('2');
    HibernateRTCSet(3000000000u);
    EXPECT_EQ(printed([] { cmd_test_timestamp(1); }), " 791036398000");
    HibernateRTCSet(2208963603u);
    EXPECT_EQ(printed([] { cmd_test_timestamp(1); }), "         1000");
    // Before 2040 the count wraps in 64 bits: all twenty digits are printed, as in the data line.
    HibernateRTCSet(utc(2026, 3, 4, 5, 6, 7));
    char line_form[32];
    format_ms_timestamp(line_form, sizeof line_form, HibernateRTCGet());
    EXPECT_EQ(strlen(line_form), 20u);
    EXPECT_EQ(printed([] { cmd_test_timestamp(1); }), line_form);

    cmd_set_timestamp('3');
    EXPECT_EQ(sys_data.data_cfg[CFG_TIMESTAMP], 0);
    EXPECT_EQ(printed([] { cmd_test_timestamp(1); }), "");
}

TEST_F(CmdHandlers, PeriodLimitsAndAlignment) {
    const std::string enter = "\r\nEnter seconds greater than or equal to 0 and less than 3600\r\n";
    const std::string too_long = "\r\nEnter time less than or equal to 3600 sec";
    EXPECT_EQ(on_line("per 20", cmd_set_period), "");
    EXPECT_EQ(printed(cmd_get_period), "20");
    sys_data.sample_aligned = 1;
    EXPECT_EQ(on_line("period 7", cmd_set_period),
              "\r\nAligned=Y, sample period must evenly divide hour (e.g. 5, 10, 15, 20, 30 minutes)");
    EXPECT_EQ(sys_data.sampling_period, 20u);
    EXPECT_EQ(on_line("setperiod 900", cmd_set_period), "");
    EXPECT_EQ(sys_data.sampling_period, 900u);
    EXPECT_EQ(on_line("period 0", cmd_set_period), "");
    EXPECT_EQ(sys_data.sampling_period, 0u);

    sys_data.sample_aligned = 0;
    EXPECT_EQ(on_line("period 3601", cmd_set_period), too_long);
    EXPECT_EQ(on_line("period 99999999999999", cmd_set_period), too_long);
    EXPECT_EQ(on_line("period", cmd_set_period), enter);
    EXPECT_EQ(on_line("setperiod x", cmd_set_period), enter);
    EXPECT_EQ(sys_data.sampling_period, 0u);
    // A full buffer without its NUL is read no further than the buffer.
    memset(rx0.buf, '5', sizeof rx0.buf);
    EXPECT_EQ(printed(cmd_set_period), enter);
    EXPECT_EQ(printed(cmd_set_time), "NAK\r\n");
    EXPECT_EQ(on_line("period 007", cmd_set_period), "");
    retrieveSysDataVariables();
    EXPECT_EQ(sys_data.sampling_period, 7u) << "stored";
}

// A good line sets the RTC exactly (UTC); a well-shaped time with a field out of range is dropped
// silently; a line of another shape gets NAK.
TEST_F(CmdHandlers, SetAndGetTime) {
    EXPECT_EQ(on_line("time 12/25/24 10:30:15", cmd_set_time), "");
    EXPECT_EQ(HibernateRTCGet(), utc(2024, 12, 25, 10, 30, 15));
    EXPECT_EQ(on_line("settime 02/29/28 23:59:59", cmd_set_time), "");
    EXPECT_EQ(HibernateRTCGet(), utc(2028, 2, 29, 23, 59, 59));
    EXPECT_EQ(on_line("time 01/01/00 00:00:00", cmd_set_time), "");
    EXPECT_EQ(HibernateRTCGet(), utc(2000, 1, 1, 0, 0, 0));
    EXPECT_EQ(printed(cmd_get_time), "01/01/2000 00:00:00");

    const uint32_t before = HibernateRTCGet();
    for (const char* ignored :
         {"time 13/01/24 10:00:00", "time 00/10/24 10:00:00", "time 10/32/24 10:00:00",
          "time 10/10/24 24:00:00", "time 10/10/24 10:60:00", "time 10/10/24 10:00:62"}) {
        EXPECT_EQ(on_line(ignored, cmd_set_time), "") << ignored;
    }
    for (const char* refused : {"time 12252410:00:00", "time 3/01/99 12:00:00", "time 12/25/24 10.00.00",
                                "time 12/25/24", "settime", "time 1a/2b/24 10:00:00"}) {
        EXPECT_EQ(on_line(refused, cmd_set_time), "NAK\r\n") << refused;
    }
    EXPECT_LE(HibernateRTCGet() - before, 1u) << "the clock was left alone";
}

TEST_F(CmdHandlers, FileName) {
    EXPECT_EQ(on_line("setfilename abcdefgh.txt", cmd_set_filename), "");
    EXPECT_EQ(printed(cmd_get_filename), "abcdefgh.txt");
    // From the first letter after the blank to the next blank.
    EXPECT_EQ(on_line("filename  2log.csv trailing", cmd_set_filename), "");
    EXPECT_EQ(file_name(), "log.csv");
    EXPECT_EQ(on_line("setfilename abcdefghi.txt", cmd_set_filename),
              "filename is too long, needs to be 8.3 format\r\n");
    EXPECT_EQ(on_line("setfilename", cmd_set_filename), "NAK\r\n");
    // Names the card would refuse are refused here, before every sample fails to be written.
    for (const char* bad :
         {"filename a*b?.txt", "filename a/b", "filename data.text", "filename a.b.c", "filename ab:c.txt"}) {
        std::string said = on_line(bad, cmd_set_filename);
        EXPECT_NE(said.find("is not an 8.3 name"), std::string::npos) << bad << ": " << said;
        EXPECT_EQ(file_name(), "log.csv") << bad;
    }
    retrieveSysDataVariables();
    EXPECT_EQ(file_name(), "log.csv");
}

// Each preset word selects its preset ("m2m corrib" is not taken for "corrib"); "test" is not
// available and other words are refused, both leaving the switches alone.
TEST_F(CmdHandlers, ConfigPresets) {
    struct Preset {
        const char* line;
        void (*preset)();
    };
    for (const Preset& p : {Preset{"config glider", config_data_fields_glider},
                            {"config wirewalker", config_data_fields_wirewalker},
                            {"config tessel", config_data_fields_tessel},
                            {"config corrib", config_data_fields_corrib},
                            {"config m2m corrib", config_data_fields_m2m_corrib},
                            {"config brisa", config_data_fields_brisa},
                            {"config all", config_data_fields_all},
                            {"config 1", config_data_fields_all},
                            {"config none", config_data_fields_none},
                            {"config 0", config_data_fields_none}}) {
        memset(sys_data.data_cfg, 7, sizeof sys_data.data_cfg);
        p.preset();
        unsigned char want[DATA_CFG_SIZE];
        memcpy(want, sys_data.data_cfg, sizeof want);
        memset(sys_data.data_cfg, 7, sizeof sys_data.data_cfg);
        on_line(p.line, cmd_set_config);
        EXPECT_EQ(memcmp(sys_data.data_cfg, want, sizeof want), 0) << p.line;
    }
    unsigned char before[DATA_CFG_SIZE];
    memcpy(before, sys_data.data_cfg, sizeof before);
    EXPECT_EQ(on_line("config test", cmd_set_config), "not available\r\n");
    EXPECT_EQ(on_line("config sailboat", cmd_set_config), "NAK\r\n");
    EXPECT_EQ(on_line("config", cmd_set_config), "NAK\r\n");
    EXPECT_EQ(memcmp(sys_data.data_cfg, before, sizeof before), 0);
}

// "config port3" and "config port4" select an instrument by code or name and store it; anything the
// port does not take is refused with what it takes, the setting left alone.
TEST_F(CmdHandlers, ConfigPortInstruments) {
    EXPECT_EQ(on_line("config port3 optode", cmd_set_config), "Port 3 instrument = 1, stored\r\n");
    EXPECT_EQ(on_line("config port3 4", cmd_set_config), "Port 3 instrument = 4, stored\r\n");
    EXPECT_EQ(on_line("config port4 aand5860", cmd_set_config), "Port 4 instrument = 7, stored\r\n");
    memset(sys_data.data_cfg, 0, sizeof sys_data.data_cfg);
    retrieveSysDataVariables();
    EXPECT_EQ(sys_data.data_cfg[CFG_UART3_INST], 4);
    EXPECT_EQ(sys_data.data_cfg[CFG_UART4_INST], 7);
    for (const char* bad : {"config port3 5", "config port3 opt", "config port3 ", "config port3 12"}) {
        EXPECT_EQ(on_line(bad, cmd_set_config),
                  "Port 3 takes 0 none, 1 optode, 2 ocr, 3 brisa or 4 picoph\r\nNAK\r\n")
            << bad;
    }
    for (const char* bad : {"config port4 4", "config port4 sbe", "config port4 0"}) {
        EXPECT_EQ(on_line(bad, cmd_set_config), "Port 4 takes 5 none, 6 sbe37 or 7 aand5860\r\nNAK\r\n")
            << bad;
    }
    EXPECT_EQ(sys_data.data_cfg[CFG_UART3_INST], 4);
    EXPECT_EQ(sys_data.data_cfg[CFG_UART4_INST], 7);
}

// "store 1" and "microsd 1" switch card logging; reading the switch turns it on in memory only.
// Only a clear 0 or 1 (or off, on) switches it: noise on the line leaves logging as it was.
TEST_F(CmdHandlers, StoreSwitchAndTheReadingQuirk) {
    on_line("store 1", cmd_set_store);
    EXPECT_EQ(sys_data.app_cfg[APPCFG_MICROSD_ENABLE], 1);
    on_line("microsd 0", cmd_set_store);
    EXPECT_EQ(sys_data.app_cfg[APPCFG_MICROSD_ENABLE], 0);
    on_line("microsd 1", cmd_set_store);
    EXPECT_EQ(sys_data.app_cfg[APPCFG_MICROSD_ENABLE], 1);
    // A clear value in other spellings is taken; anything else is refused and changes nothing.
    for (const char* off : {"store  0", "store,0", "microsd off", "store 0 "}) {
        sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 1;
        EXPECT_EQ(on_line(off, cmd_set_store), "") << off;
        EXPECT_EQ(sys_data.app_cfg[APPCFG_MICROSD_ENABLE], 0) << off;
    }
    for (const char* noise : {"store  1x", "store x", "microsd o", "store 10", "store 1 0", "store 2"}) {
        EXPECT_EQ(on_line(noise, cmd_set_store), "store takes 0 or 1 (off or on); card logging stays off\r\n")
            << noise;
        EXPECT_EQ(sys_data.app_cfg[APPCFG_MICROSD_ENABLE], 0) << noise;
    }
    EXPECT_EQ(on_line("microsd on", cmd_set_store), "");
    EXPECT_EQ(sys_data.app_cfg[APPCFG_MICROSD_ENABLE], 1);
    on_line("store 0", cmd_set_store);
    EXPECT_EQ(printed(cmd_get_store), "0");
    EXPECT_EQ(printed(cmd_get_store), "1");
    retrieveSysDataVariables();
    EXPECT_EQ(sys_data.app_cfg[APPCFG_MICROSD_ENABLE], 0) << "the stored switch is unchanged";
}

TEST_F(CmdHandlers, SampleNumberAndStreaming) {
    sys_samp.current_sample = 41;
    EXPECT_EQ(printed(cmd_test_sampnum), "#0000041\r\n");
    EXPECT_EQ(printed(cmd_set_sampnum), "#0000000\r\n");
    sys_samp.current_sample = 99;
    retrieveSysSampFRAMVariables();
    EXPECT_EQ(sys_samp.current_sample, 0u) << "the reset reached FRAM";

    cmd_test_sample(7);
    EXPECT_EQ(barfSampleTime, 7u);
    EXPECT_EQ(databarFlg, 1u);
}

// The test forms: plain readings 500 ms apart, statistics of 5 for the deviation words.
TEST_F(CmdHandlers, TestFormsRunTheLiveReadings) {
    EXPECT_EQ(printed([] { cmd_test_vrsi(1); }).rfind("\r\nVrsi (V): 10 readings 500 ms apart", 0), 0u);
    EXPECT_EQ(printed([] {
                  cmd_test_vtherm_std(1);
              }).rfind("\r\nVtherm (V): 10 lines of mean and standard deviation of 5 readings", 0),
              0u);
    EXPECT_EQ(printed([] { cmd_test_biasneg(1); }).rfind("\r\nBias battery - (V)", 0), 0u);
}

} // namespace
