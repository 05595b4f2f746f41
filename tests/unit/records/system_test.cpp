// The persisted records: their stored images, the factory defaults, the FRAM validity mark, the
// start-up checks and the configuration printouts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "board/i2c0.h"
#include "storage/microsd.h"
#include "records/system.h"
#include "storage/settings.h"
#include "driverlib/sysctl.h"
#include "records/apf.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "storage/i2c_fram.h"

namespace {

constexpr uint32_t T0 = 1767225600; // 2026-01-01 00:00:00 UTC

uint32_t le32(const uint8_t* p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

std::string text_at(const uint8_t* p) {
    return std::string(reinterpret_cast<const char*>(p));
}

class Records : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board(T0);
        memset(&sys_data, 0, sizeof sys_data);
        memset(&sys_samp, 0, sizeof sys_samp);
        memset(&apf, 0, sizeof apf);
        microSD_flg = 0;
        UARTStdioConfig(0, 115200, 16000000);
        i2c0_init(0);
        SysCtlPeripheralEnable(SYSCTL_PERIPH_EEPROM0); // as retrieveSysDataVariables opens it
        sim::test::clear_console_output();
    }
    static std::string out() {
        wait_consoleTx();
        return sim::test::console_output();
    }
    static void clear_out() {
        wait_consoleTx();
        sim::test::clear_console_output();
    }
    static const uint8_t* eeprom_image() { return sim::eeprom_bytes() + SYS_DATA_EEPROM_ADDR; }
    static const uint8_t* fram_sys_samp() { return sim::fram_bytes() + FRAM_SYS_SAMP_ADDR; }
};

// ---------------------------------------------------------------- stored images

TEST_F(Records, EepromImageHasTheStoredLayout) {
    sys_data.baud_rate = 115200;
    initSysDataVariables();
    sys_data.sampling_period = 0x01020304;
    sys_data.Vbias_trials = 7;
    sys_data.output = VERBOSE;
    sys_data.sample_aligned = 1;
    sys_data.k0int = -0.5f;
    sys_samp.initNum = SYS_SAMP_INIT_NUM;
    storeSysDataVariables();

    const uint8_t* e = eeprom_image();
    const uint8_t period[4] = {0x04, 0x03, 0x02, 0x01}; // little-endian
    EXPECT_EQ(0, memcmp(e, period, 4));
    EXPECT_EQ(le32(e + 8), 60u);
    float k0int;
    memcpy(&k0int, e + 28, 4);
    EXPECT_EQ(k0int, -0.5f);
    double c0;
    memcpy(&c0, e + 40, 8);
    EXPECT_EQ(c0, 340.9819863);
    EXPECT_EQ(le32(e + 160), 7u);
    EXPECT_EQ(e[172], VERBOSE);
    EXPECT_EQ(le32(e + 196), 115200u);
    EXPECT_EQ(e[200 + CFG_UART4_INST], 5);
    EXPECT_EQ(e[232 + APPCFG_MICROSD_ENABLE], 1);
    EXPECT_EQ(e[249], 1);
    EXPECT_EQ(text_at(e + 600), "v5.0.3 HXC3 revA");
    EXPECT_EQ(text_at(e + 632), "noname.txt");
    EXPECT_EQ(text_at(e + 648), "abc");
    EXPECT_EQ(text_at(e + 832), " "); // pump2_SN

    // Whatever the device keeps of the image, the part inside it reads back unchanged.
    const systemData stored = sys_data;
    memset(&sys_data, 0, sizeof sys_data);
    retrieveSysDataVariables();
    constexpr size_t inside = sim::eeprom_size - SYS_DATA_EEPROM_ADDR;
    EXPECT_EQ(0, memcmp(&sys_data, &stored, inside));
}

TEST_F(Records, FramImageOfSysSampHasTheStoredLayout) {
    sys_samp.state = DEPLOYED;
    sys_samp.nextWakeUp = T0 + 900;
    sys_samp.current_sample = 12;
    sys_samp.sensor_sal = 34.5f;
    sys_samp.initNum = SYS_SAMP_INIT_NUM;
    sys_samp.start_pump_cntdown = 3;
    EXPECT_EQ(storeSysSampFRAMVariables(), 0u);

    const uint8_t* f = fram_sys_samp();
    EXPECT_EQ(le32(f + 0), 1u);
    EXPECT_EQ(le32(f + 4), T0 + 900);
    EXPECT_EQ(le32(f + 12), 12u);
    float sal;
    memcpy(&sal, f + 20, 4);
    EXPECT_EQ(sal, 34.5f);
    const uint8_t mark[4] = {0xAA, 0x55, 0xAA, 0x55};
    EXPECT_EQ(0, memcmp(f + 40, mark, 4));
    EXPECT_EQ(le32(f + 56), 3u);
}

// ---------------------------------------------------------------- defaults

TEST_F(Records, DefaultsKeepTheLastWriteAndLeaveUntouchedFieldsAlone) {
    sys_data.baud_rate = 115200;
    sys_data.pump_spare[5] = 0xDEADBEEF;
    sys_data.spare[3] = 9.0f;
    sys_data.spare[4] = 4.5f;
    sys_data.qa.fram = 77;
    sys_data.debug_flag = 1;
    sys_samp.state = DEPLOYED;
    sys_samp.sensor_sal = 33.0f;
    sys_samp.current_sample = 99;
    sys_samp.pump1_cnt = 8;
    initSysDataVariables();

    // written twice, the second write wins
    EXPECT_EQ(sys_data.sample_aligned, 0);
    EXPECT_EQ(sys_data.TCSlope, 1.0f);
    EXPECT_EQ(sys_data.GMT, 0);
    // untouched by the defaults
    EXPECT_EQ(sys_data.pump_spare[5], 0xDEADBEEFu);
    EXPECT_EQ(sys_data.spare[4], 4.5f);
    EXPECT_EQ(sys_data.qa.fram, 77u);
    EXPECT_EQ(sys_samp.pump1_cnt, 8u);
    // cleared
    EXPECT_EQ(sys_data.spare[3], 0.0f);
    EXPECT_EQ(sys_data.debug_flag, 0u);
    EXPECT_EQ(sys_samp.state, IDLE);
    EXPECT_EQ(sys_samp.sensor_sal, 0.0f);
    EXPECT_EQ(sys_samp.current_sample, 0u);
    EXPECT_EQ(sys_samp.nextWakeUp, T0); // now + a sampling period of 0

    const unsigned char data_cfg[32] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1, 0, 0, 0, 1,
                                        1, 1, 1, 1, 1, 1, 1, 1, 0, 5, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(0, memcmp(sys_data.data_cfg, data_cfg, 32));
    const unsigned char app_cfg[16] = {0, 0, 1, 0, 1, 0};
    EXPECT_EQ(0, memcmp(sys_data.app_cfg, app_cfg, 16));

    EXPECT_EQ(sys_data.output, NORMAL);
    EXPECT_EQ(sys_data.fast_mode, 1u);
    EXPECT_EQ(sys_data.low_batt_volt, 9.2f);
    EXPECT_EQ(sys_data.k2int, -0.001455f);
    EXPECT_EQ(sys_data.shTherm_C, 6.535076315e-07);
    EXPECT_EQ(sys_data.default_sal, 35.0f);
    EXPECT_EQ(sys_data.Vtherm_trials, 5u);
    EXPECT_EQ(sys_data.Vbias_sps, 40u);
    EXPECT_EQ(sys_data.pump_seq_type, 1u);
    EXPECT_EQ(sys_data.pump1_cycles, 1u);
    EXPECT_EQ(sys_data.solenoid_hold_pwm, 40u);
    EXPECT_STREQ(reinterpret_cast<const char*>(sys_data.deploy_note), " ");
    EXPECT_STREQ(reinterpret_cast<const char*>(sys_data.cal_filename), " ");
    EXPECT_EQ(0, memcmp(sys_data.firmware_version, FIRMWARE_VERSION, 17));
    EXPECT_EQ(out(), ""); // already at 115200: nothing to say
}

TEST_F(Records, DefaultsBringTheConsoleBackTo115200) {
    sys_data.baud_rate = 9600;
    initSysDataVariables();
    EXPECT_EQ(out(), "Baud rate is changed to default: 115200\r\n");
    EXPECT_EQ(sys_data.baud_rate, 115200u);
}

// ---------------------------------------------------------------- FRAM validity mark

TEST_F(Records, BlankFramGetsDefaultsAndTheNextStoreWrites) {
    sys_data.baud_rate = 115200;
    retrieveSysDataVariables();

    const std::string o = out();
    const std::string mark_msg = "FRAM sys_samp.init, Num is not 0x55AA55AA.  Defaults assigned\r\n";
    const std::string apf_msg = "APF Set Defaults Into FRAM\r\n";
    ASSERT_NE(o.find(mark_msg), std::string::npos) << o;
    ASSERT_NE(o.find(apf_msg), std::string::npos) << o;
    EXPECT_LT(o.find(mark_msg), o.find("System Default Values loaded into FRAM!"));
    EXPECT_LT(o.find("DuraFET Default Values loaded into FRAM!"), o.find(apf_msg));

    EXPECT_EQ(sys_samp.state, IDLE);
    EXPECT_EQ(sys_samp.current_sample, 0u);
    EXPECT_EQ(sys_samp.nextWakeUp, 0u);
    EXPECT_EQ(sys_samp.initNum, SYS_SAMP_INIT_NUM);
    EXPECT_EQ(le32(fram_sys_samp() + 40), SYS_SAMP_INIT_NUM);

    // The float-controller defaults are in FRAM, in legacy pH mode.
    apfGlobals stored;
    memcpy(&stored, sim::fram_bytes() + FRAM_APF_ADDR, sizeof stored);
    EXPECT_EQ(stored.sys_serial_num, 777u);
    EXPECT_EQ(stored.isus_spec_period, 1000u);
    EXPECT_EQ(stored.dura_samps_per_cal, 250u);
    EXPECT_EQ(stored.sys_sensor_mode, 0u);
    EXPECT_EQ(0, memcmp(&stored, &apf, sizeof apf));

    sys_samp.current_sample = 4;
    EXPECT_EQ(storeSysSampFRAMVariables(), 0u);
    EXPECT_EQ(le32(fram_sys_samp() + 12), 4u);

    // A valid image loads silently.
    clear_out();
    sys_samp.current_sample = 0;
    retrieveSysSampFRAMVariables();
    EXPECT_EQ(sys_samp.current_sample, 4u);
    EXPECT_EQ(out(), "");
}

TEST_F(Records, ClearedMarkSkipsOneStoreAndRestoresTheMark) {
    sys_samp.initNum = SYS_SAMP_INIT_NUM;
    sys_samp.current_sample = 1;
    ASSERT_EQ(storeSysSampFRAMVariables(), 0u);
    clear_out();

    sys_samp.initNum = 0;
    sys_samp.current_sample = 42;
    EXPECT_EQ(storeSysSampFRAMVariables(), 1u);
    EXPECT_EQ(out(), "FRAM sys_samp.init, Num is not 0x55AA55AA\r\n");
    EXPECT_EQ(sys_samp.initNum, SYS_SAMP_INIT_NUM);
    EXPECT_EQ(le32(fram_sys_samp() + 12), 1u); // not written

    EXPECT_EQ(storeSysSampFRAMVariables(), 0u);
    EXPECT_EQ(le32(fram_sys_samp() + 12), 42u);
}

// ---------------------------------------------------------------- checks

TEST_F(Records, ExecSwitcheroniAboveTwoIsReset) {
    for (unsigned char v : {0, 1, 2}) {
        sys_data.app_cfg[APPCFG_EXEC_SWITCHERONI] = v;
        EXPECT_EQ(verifySysDataVariables(), 1u);
        EXPECT_EQ(sys_data.app_cfg[APPCFG_EXEC_SWITCHERONI], v);
    }
    for (unsigned char v : {3, 255}) {
        sys_data.app_cfg[APPCFG_EXEC_SWITCHERONI] = v;
        EXPECT_EQ(verifySysDataVariables(), 0u);
        EXPECT_EQ(sys_data.app_cfg[APPCFG_EXEC_SWITCHERONI], 0);
    }
}

TEST_F(Records, RangeCheckToleratesOneErrorAndResetsOnTwo) {
    sys_data.baud_rate = 115200;
    initSysDataVariables();
    sys_data.baud_rate = 300;
    sys_data.Vrsi_trials = 0; // accepted
    sys_data.sampling_period = 600;
    sys_data_error_check();
    EXPECT_EQ(sys_data.baud_rate, 300u);
    EXPECT_EQ(sys_data.sampling_period, 600u);
    EXPECT_EQ(sys_data.Vrsi_trials, 0u);

    sys_data.Vrsi_sps = 0;
    sys_data_error_check();
    EXPECT_EQ(sys_data.baud_rate, 115200u);
    EXPECT_EQ(sys_data.Vrsi_sps, 20u);
    EXPECT_EQ(sys_data.sampling_period, 0u);
}

TEST_F(Records, RangeCheckCountsEachField) {
    sys_data.baud_rate = 115200;
    initSysDataVariables();
    sys_data.Vtherm_sps = 41;
    sys_data.Vrse_trials = 41;
    sys_data.sampling_period = 600;
    sys_data_error_check();
    EXPECT_EQ(sys_data.sampling_period, 0u) << "two errors must reset";

    initSysDataVariables();
    sys_data.low_batt_volt = 100.5f;
    sys_data.baud_rate = 230400;
    sys_data.sampling_period = 600;
    sys_data_error_check();
    EXPECT_EQ(sys_data.sampling_period, 0u) << "two errors must reset";
}

TEST_F(Records, ChecksumIsTheByteSum) {
    EXPECT_EQ(compute_sys_data_chksum(), 0u);
    reinterpret_cast<uint8_t*>(&sys_data)[700] = 0xFF;
    EXPECT_EQ(compute_sys_data_chksum(), 255u);
    memset(&sys_data, 0xFF, sizeof sys_data);
    EXPECT_EQ(compute_sys_data_chksum(), 1352u * 255u);
}

TEST_F(Records, VersionCheckComparesSeventeenBytes) {
    memcpy(sys_data.firmware_version, FIRMWARE_VERSION, 17);
    memcpy(sys_data.firmware_version + 17, "trailing", 8);
    eeprom_firmware_qa_check();
    EXPECT_EQ(out(), "");

    memset(sys_data.firmware_version, 0, sizeof sys_data.firmware_version);
    memcpy(sys_data.firmware_version, "v5.0.2 HXC3 revA", 17);
    const systemData before = sys_data;
    eeprom_firmware_qa_check();
    const std::string o = out();
    EXPECT_EQ(o.rfind("\r\n\r\n\r\n\r\n\r\n*************", 0), 0u) << o;
    EXPECT_NE(
        o.find("\r\n\r\n*  Version: v5.0.2 HXC3 revA, does not match firmware: v5.0.3 HXC3 revA\r\n\r\n"),
        std::string::npos);
    EXPECT_EQ(o.substr(o.size() - 90), std::string(88, '*') + "\r\n");
    EXPECT_EQ(0, memcmp(&before, &sys_data, sizeof sys_data));
}

TEST_F(Records, VersionCheckPrintsAnUnterminatedStoredText) {
    memset(sys_data.firmware_version, 'x', sizeof sys_data.firmware_version);
    memset(sys_data.fileName, 'y', sizeof sys_data.fileName);
    eeprom_firmware_qa_check();
    EXPECT_NE(out().find("*  Version: " + std::string(32, 'x') + ", does"), std::string::npos);
}

// ---------------------------------------------------------------- printouts

TEST_F(Records, SysDataPrintoutKeepsItsLabelsAndOrder) {
    sys_data.baud_rate = 115200;
    initSysDataVariables();
    sys_data.pump1_ontime = 30;
    sys_samp.sensor_sal = 34.25f;
    memcpy(sys_data.pump_SN, "P-1", 4);
    print_sys_data_structure();
    const std::string o = out();
    EXPECT_EQ(o.rfind("// ------ sys_data EEPROM structure, size = 1352 ---- \r\n", 0), 0u);
    EXPECT_NE(o.find("// averaging_interval: 60\r\n// pump1_ontime: 30\r\n// low_batt_volt: 9.20\r\n"),
              std::string::npos);
    EXPECT_NE(o.find("// quadTherm_c0: 340.98198630000\r\n// quadTherm_c2: -0.00009102570\r\n"
                     "// quadTherm_c3: -95.08806667000\r\n// quadTherm_c4: 0.96537027400\r\n"),
              std::string::npos);
    EXPECT_NE(o.find("// default_sal: 35.000000\r\n// sensor_sal: 34.250000\r\n"), std::string::npos);
    EXPECT_NE(o.find("// pump2_cycles: 0\r\n// pump2_ontime: 0\r\n"), std::string::npos);
    EXPECT_NE(o.find("// app_cfg[APPCFG_MICROSD_ENABLE]: 1\r\n"), std::string::npos);
    EXPECT_NE(o.find("// k0_HCl: 0.000000e+00\r\n"), std::string::npos);
    EXPECT_NE(o.find("// spare[24] : "), std::string::npos);
    EXPECT_NE(o.find("// pump1_SN: P-1\r\n// pump2_SN:  \r\n"), std::string::npos);
    EXPECT_EQ(o.find("// pump_SN"), std::string::npos);
}

TEST_F(Records, SysSampPrintout) {
    sys_samp.state = DEPLOYED;
    sys_samp.initNum = SYS_SAMP_INIT_NUM;
    sys_samp.AD24_std = 0.5f;
    print_sys_samp_data_structure();
    const std::string o = out();
    EXPECT_EQ(o.rfind("// ------ sys_samp FRAM volatile data structure, size = 60 ---- \r\n"
                      "// state:           1    0=IDLE,1=START,2=DEPLOYED,3=COMMAND\r\n",
                      0),
              0u);
    EXPECT_NE(o.find("// AD24_std:        0.500000    \r\n"), std::string::npos);
    EXPECT_NE(o.find("// initNum:         55aa55aa    \r\n"), std::string::npos);
    EXPECT_EQ(o.substr(o.size() - 30), "// start_pump_cntdown: 0    \r\n");
}

} // namespace
