// The float controller's command words: every reply, the refusals and what they leave in the float
// record and its FRAM copy, the CTD echo with and without the controller's acknowledgement, the pH
// sample reply with its CRC prefix, its line in the float log on the card, and "SL" sending the
// same line again, also after the board lost its RAM.
#include "float_commands.h"

namespace {

using namespace float_test;

TEST_F(FloatCommands, FixedReplies) {
    apf.sys_por_ctr = 12;
    apf.sys_reset_ctr = 3;
    apf.sys_reset_time = 1767000000;
    apf.sys_sensor_type = 4;
    apf.isus_spec_period = 400;
    apf.sys_sensor_mode = 2;
    apf.sys_error_ctr = 7;
    apf.sys_last_error = -110;
    apf.sys_error_time = 1767225000;
    watchDog.tickLongest = 1500;
    watchDog.tickTot = 90000;
    EXPECT_EQ(reply(apf_print_ping_response, "w"), "ACK\r\n");
    EXPECT_EQ(reply(apf_get_pc, "p"), "ACK,P,12,3,1767000000");
    EXPECT_EQ(reply(apf_get_sc, "s"), "Imp es Nada apf_get_sc\r\n");
    EXPECT_EQ(reply(apf_get_sensor_type, "q"), "ACK,Q,4");
    EXPECT_EQ(reply(apf_get_int_time, "tint,?"), "TINT,?,400");
    EXPECT_EQ(reply(apf_get_mode, "mode,?"), "ACK,MODE?,2");
    EXPECT_EQ(reply(apf_get_rtc, "rtc,?"), "ACK,RTC?,1767225600");
    EXPECT_EQ(reply(apf_xfer_se, "se"), "Imp es Nada apf_xfer_se, send error records\r\n");
    EXPECT_EQ(reply(apf_get_se, "se,?"), "ACK,SE?,7,-110,1767225000");
    EXPECT_EQ(reply(apf_off, "off"), "ACK,OFF");
    EXPECT_EQ(reply(apf_set_fit, "fit"), "Imp es Nada apf_set_fit\r\n");
    EXPECT_EQ(reply(apf_get_fit, "fit,?"), "Imp es Nada apf_get_fit\r\n");
    EXPECT_EQ(reply(apf_set_spectra, "spectra"), "Imp es Nada apf_set_spectra\r\n");
    EXPECT_EQ(reply(apf_get_spectra, "spectra,?"), "Imp es Nada apf_get_spectra\r\n");
    EXPECT_EQ(reply(apf_wdog_status, "wdog"), "DEV: wdog.longest = 1500, tot = 90000\r\n>");
    EXPECT_EQ(reply(apf_print_help, "h"),
              "Commands: W,M,E,P,S,T,C,Q,INIT,TINT,MODE,TS,T1,T2,SL,SE,SLP,OFF,RTC,FIT,CTD,BAKE,SPECTRA\r\n");
    EXPECT_EQ(reply(apf_get_sysinfo, "sys"),
              std::string("ACK,SYS,") + FIRMWARE_VERSION + ",777,12,3,1767000000,1767225600");
    sys_data.k0int = -0.4f;
    sys_data.k0ext = -1.3f;
    sys_data.k2int = -0.001f;
    sys_data.k2ext = -0.00125f;
    sys_data.TCOffset = 0.5f;
    sys_data.TCSlope = 1.0f;
    EXPECT_EQ(reply(apf_get_cal, "cal"),
              "ACK,CAL,-0.400000,-1.300000,-1.000000e-03,-1.250000e-03,0.500000,1.000000");
    EXPECT_EQ(reply(apf_dbg, "DBG,1"), "ACK,DBG,1");
    EXPECT_EQ(reply(apf_dbg, "DBG"), "ACK,DBG,0");
    EXPECT_EQ(reply(apf_dbg, "DBG,7"), "NAK,DBG,FormatErr");
    EXPECT_EQ(reply(apf_print_devStatus, "stat")
                  .rfind("Commands implemented: \r\n\r\n  W - ping for ACK\r\n\r\n", 0),
              0u);
}

// Without a card there is no spectrometer calibration: every nitrate word says so, counts it as a
// spectrometer error, and "SL" has nothing to send.
TEST_F(FloatCommands, NitrateWordsNameTheMissingCalibration) {
    apf.sys_sensor_mode = 1;
    EXPECT_EQ(reply(apf_take_sample_nitrate, "t1"), "NAK,T1,NoCard");
    EXPECT_EQ(reply(apf_bake_uv_lamp, "bake"), "NAK,BAKE,NoCard");
    EXPECT_EQ(reply(apf_get_cfg_isus, "c1"), "ACK,C1,1000,1,2,3,17,87,3,5000,1,0,1,30,0,NoCard");
    EXPECT_EQ(reply(apf_send_last_nitrate, "sl"), "apf_send_last_nitrate, byteCnt is 0\r\nNAK,SL");
    EXPECT_EQ(reply(apf_get_err, "e").substr(0, 8), "ACK,E,2,");
    EXPECT_EQ(stored().isus_error_ctr, 2u);
    EXPECT_EQ(stored().isus_last_error, -121);
    line("z");
    clear_out();
    uvs_dev_test(1);
    EXPECT_EQ(out(), "UV spectrometer test\r\nNAK,Z,NoCard");
}

// E, C and T answer for the sensor of the current mode and refuse the legacy mode.
TEST_F(FloatCommands, ModeGovernedReplies) {
    apf.isus_error_ctr = 4;
    apf.isus_error_time = 100;
    apf.dura_error_ctr = 5;
    apf.dura_error_time = 200;
    apf.isus_sample_time = 300;
    apf.dura_sample_time = 400;
    apf.sys_sensor_mode = 1;
    EXPECT_EQ(reply(apf_get_err, "e"), "ACK,E,4,100\n");
    EXPECT_EQ(reply(apf_get_acq_time, "t"), "ACK,T,300");
    EXPECT_EQ(reply(apf_get_cfg, "c").substr(0, 7), "ACK,C1,");
    apf.sys_sensor_mode = 2;
    EXPECT_EQ(reply(apf_get_err, "e"), "ACK,E,5,200\n");
    EXPECT_EQ(reply(apf_get_acq_time, "t"), "ACK,T,400");
    EXPECT_EQ(reply(apf_get_cfg, "c"), "ACK,C2,1,10,250,100,0,4");
    EXPECT_EQ(reply(apf_get_cfg_dura, "c2"), "ACK,C2,1,10,250,100,0,4");
    apf.sys_sensor_mode = 0;
    EXPECT_EQ(reply(apf_get_err, "e"), "NAK,E,InvalidModeValue: 0\n");
    EXPECT_EQ(reply(apf_get_acq_time, "t"), "NAK,T,InvalidModeValue: 0");
    EXPECT_EQ(reply(apf_get_cfg, "c"), "NAK,C,InvalidModeValue: 0\n");
}

TEST_F(FloatCommands, ModeSetAndRefused) {
    EXPECT_EQ(reply(apf_set_mode, "MODE,2"), "ACK,MODE,2");
    EXPECT_EQ(apf.sys_sensor_mode, 2u);
    EXPECT_TRUE(record_stored());
    EXPECT_EQ(reply(apf_set_mode, "MODE,0"), "ACK,MODE,0");
    EXPECT_EQ(stored().sys_sensor_mode, 0u);

    EXPECT_EQ(reply(apf_set_mode, "MODE,3"), "NAK,MODE,RangeErr [0,2]: 3");
    EXPECT_EQ(reply(apf_set_mode, "MODE,9"), "NAK,MODE,RangeErr [0,2]: 9");
    EXPECT_EQ(reply(apf_set_mode, "MODE"), "NAK,MODE,FormatErr");
    EXPECT_EQ(reply(apf_set_mode, "MODE2"), "NAK,MODE,FormatErr");
    EXPECT_EQ(reply(apf_set_mode, "MODE,"), "NAK,MODE,FormatErr");
    EXPECT_EQ(reply(apf_set_mode, "MODE,X"), "NAK,MODE,FormatErr");
    EXPECT_EQ(apf.sys_sensor_mode, 0u);
    EXPECT_EQ(stored().sys_sensor_mode, 0u);
}

// The limits are inclusive; a value out of range is refused but the record is still written.
TEST_F(FloatCommands, IntegrationTimeLimits) {
    EXPECT_EQ(reply(apf_set_int_time, "TINT,4000"), "ACK,TINT,4000");
    EXPECT_EQ(stored().isus_spec_period, 4000u);
    EXPECT_EQ(reply(apf_set_int_time, "TINT,4"), "ACK,TINT,4");
    EXPECT_EQ(stored().isus_spec_period, 4u);

    apf.sys_serial_num = 778; // an unsaved change that the refusal's store carries to FRAM
    EXPECT_EQ(reply(apf_set_int_time, "TINT,3"), "NAK,TINT,RangeErr [4,4000], 3");
    EXPECT_EQ(stored().sys_serial_num, 778u);
    EXPECT_EQ(reply(apf_set_int_time, "TINT,4001"), "NAK,TINT,RangeErr [4,4000], 4001");
    // At most six digits are read.
    EXPECT_EQ(reply(apf_set_int_time, "TINT,12345678"), "NAK,TINT,RangeErr [4,4000], 123456");
    EXPECT_EQ(reply(apf_set_int_time, "TINT"), "NAK,TINT,FormatErr");
    EXPECT_EQ(apf.isus_spec_period, 4u);
    EXPECT_TRUE(record_stored());
}

TEST_F(FloatCommands, SensorTypeOnlyOneToFour) {
    apf.sys_sensor_type = 3;
    EXPECT_EQ(reply(apf_set_sensor_type, "TYPE,0"), "ACK,Q,3");
    EXPECT_EQ(reply(apf_set_sensor_type, "TYPE,5"), "ACK,Q,3");
    EXPECT_EQ(reply(apf_set_sensor_type, "TYPE"), "ACK,Q,3");
    EXPECT_EQ(apf.sys_sensor_type, 3);
    EXPECT_EQ(reply(apf_set_sensor_type, "TYPE,2"), "ACK,Q,2");
    EXPECT_EQ(stored().sys_sensor_type, 2);
    // Only the low four bits of the character count: "a" (0x61) reads as 1.
    EXPECT_EQ(reply(apf_set_sensor_type, "TYPE,A"), "ACK,Q,1");
}

// A word that is only the beginning of a longer one ("typed", "modest") carries no argument: the
// setting stays as it was.
TEST_F(FloatCommands, WordsWithoutTheirCommaSetNothing) {
    apf.sys_sensor_type = 3;
    apf.sys_sensor_mode = 2;
    apf.isus_spec_period = 400;
    EXPECT_EQ(reply(apf_set_sensor_type, "TYPEDB"), "ACK,Q,3");
    EXPECT_EQ(reply(apf_set_mode, "MODEST,1"), "NAK,MODE,FormatErr");
    EXPECT_EQ(reply(apf_set_int_time, "TINTS,40"), "NAK,TINT,FormatErr");
    EXPECT_EQ(apf.sys_sensor_type, 3);
    EXPECT_EQ(apf.sys_sensor_mode, 2u);
    EXPECT_EQ(apf.isus_spec_period, 400u);
}

TEST_F(FloatCommands, ClockSetFromTheLine) {
    EXPECT_EQ(reply(apf_set_rtc, "RTC,1767300000"), "ACK,1767300000,1767300000");
    EXPECT_EQ(HibernateRTCGet(), 1767300000u);
    // Everything from position 14 on is ignored.
    EXPECT_EQ(reply(apf_set_rtc, "RTC,1767400000999"), "ACK,1767400000,1767400000");
    // Without a whole number that fits the clock the clock is left alone.
    for (const char* bad : {"RTC", "RTC,", "RTC,abc", "RTC,-5", "RTC,12x", "RTC,4294967296", "RTC 12"}) {
        EXPECT_EQ(reply(apf_set_rtc, bad), "NAK,RTC,FormatErr") << bad;
        EXPECT_LT(HibernateRTCGet() - 1767400000u, 2u) << bad;
    }
    EXPECT_EQ(reply(apf_set_rtc, "RTC,4294967295"), "ACK,4294967295,4294967295");
}

TEST_F(FloatCommands, InitLoadsDefaults) {
    apf.sys_sensor_type = 2;
    apf.isus_spec_period = 17;
    apf.dura_sample_ctr = 99;
    const std::string text = reply(apf_init_persistent_vars, "INIT");
    EXPECT_EQ(text.substr(text.size() - 8), "ACK,INIT");
    EXPECT_EQ(apf.sys_sensor_type, 4);
    EXPECT_EQ(apf.isus_spec_period, 1000u);
    EXPECT_EQ(apf.dura_sample_ctr, 0u);
    EXPECT_EQ(apf.dura_reset_flag, 1u);
    EXPECT_TRUE(record_stored());
}

// The controller echoes "ACK" within 3 s: the values are kept.
TEST_F(FloatCommands, CtdKeptAfterTheControllersAck) {
    line("CTD,1767225500,15.1234,35.0011,102.25");
    clear_out();
    sim::test::type("ACK");
    apf_set_ctd();
    EXPECT_EQ(out().rfind("ACK,CTD,1767225500,15.1234,35.0011,102.25", 0), 0u) << out();
    EXPECT_EQ(apf.CTD_Time, 1767225500u);
    EXPECT_FLOAT_EQ(apf.CTD_Temp, 15.1234f);
    EXPECT_FLOAT_EQ(apf.CTD_Salinity, 35.0011f);
    EXPECT_FLOAT_EQ(apf.CTD_Depth, 102.25f);
    EXPECT_EQ(apf.sys_error_ctr, 0u);
    EXPECT_TRUE(record_stored());
    EXPECT_EQ(reply(apf_get_ctd, "CTD,?"), "ACK,CTD?,1767225500,15.1234,35.0011,102.25\n");
}

// Silence after the echo clears the values and logs the failure.
TEST_F(FloatCommands, CtdClearedWithoutAck) {
    apf.CTD_Time = 5;
    apf.CTD_Temp = 10.0f;
    apf.sys_message_enable = 1;
    line("CTD,1767225500,15.1234,35.0011,102.25");
    clear_out();
    const uint64_t before = sim::now_ns();
    apf_set_ctd();
    EXPECT_GE(sim::now_ns() - before, 3000000000u) << "waits the full 3 s";
    EXPECT_EQ(out(), "ACK,CTD,1767225500,15.1234,35.0011,102.25CTD Command ACK Failure\r\n");
    EXPECT_EQ(apf.CTD_Time, 0u);
    EXPECT_EQ(apf.CTD_Temp, -1.0f);
    EXPECT_EQ(apf.CTD_Salinity, -1.0f);
    EXPECT_EQ(apf.CTD_Depth, -1.0f);
    EXPECT_EQ(apf.sys_last_error, -110);
    EXPECT_EQ(apf.sys_error_ctr, 1u);
    EXPECT_TRUE(record_stored());
    EXPECT_EQ(reply(apf_get_ctd, "CTD,?"), "ACK,CTD?,0,-1.0000,-1.0000,-1.00\n");

    // A line with fields missing is refused without waiting and without touching the values.
    EXPECT_EQ(reply(apf_set_ctd, "CTD,12,3.5"), "NAK,CTD,FormatErr");
    EXPECT_EQ(apf.sys_error_ctr, 1u);
}

// Numbers the CTD cannot report are refused before the echo, so no acknowledgement can store them;
// a time must be a whole number of seconds that fits the clock.
TEST_F(FloatCommands, CtdRefusesWhatNoCtdReports) {
    apf.CTD_Time = 5;
    apf.CTD_Temp = 10.0f;
    for (const char* bad : {"CTD,1,nan,35,10", "CTD,1,15,inf,10", "CTD,1,61,35,10", "CTD,1,-6,35,10",
                            "CTD,1,15,-0.5,10", "CTD,1,15,60.5,10", "CTD,1,15,35,1e30", "CTD,1,15,35,-11"}) {
        EXPECT_EQ(reply(apf_set_ctd, bad), "NAK,CTD,RangeErr") << bad;
    }
    for (const char* bad :
         {"CTD,-1,15,35,10", "CTD,+1,15,35,10", "CTD,4294967296,15,35,10", "CTDX,1,15,35,10"}) {
        EXPECT_EQ(reply(apf_set_ctd, bad), "NAK,CTD,FormatErr") << bad;
    }
    EXPECT_EQ(apf.CTD_Time, 5u);
    EXPECT_EQ(apf.CTD_Temp, 10.0f);
}

TEST_F(FloatCommands, SendLastBeforeAnySample) {
    EXPECT_EQ(reply(apf_send_last_pH, "sl"), "DBG: apf_send_last_pH, byteCnt is 0\r\nNAK,SL");
    // A count that does not describe a stored line is refused too.
    apf.sendlast_byteCnt = 1600;
    EXPECT_EQ(reply(apf_send_last_pH, "sl"), "NAK,SL");
}

// The reply: "0xHHHH," then "pH," with the clock's date and time and the sample's values. The CRC
// covers the line as it stood in the buffer when the log line was written, whose first seven bytes
// are left over from what the buffer held before.
TEST_F(FloatCommandsOnCard, PhReplyCrcAndLogLine) {
    sim::test::set_scenario("bath.ph", "7.9");
    sim::test::set_scenario("adc.noise_uv", "0");
    sys_data.data_cfg[CFG_CALC_PH_VRSE] = 1;
    apf.CTD_Depth = 55.5f;
    apf.CTD_Time = 1767225500;
    const std::string first = sample();
    ASSERT_GE(first.size(), 2u);
    EXPECT_EQ(first.substr(first.size() - 2), "\r\n");
    EXPECT_EQ(first.find('\r'), first.size() - 2) << "one line";
    const std::vector<std::string> f = split(first.substr(0, first.size() - 2), ',');
    ASSERT_EQ(f.size(), 22u) << first;
    EXPECT_EQ(f[1], "pH");
    EXPECT_EQ(f[2].substr(0, 9), "01/01/26 ");
    EXPECT_EQ(f[3], "41");    // sample number
    EXPECT_EQ(f[4], "55.50"); // the controller's depth
    EXPECT_NEAR(atof(f[5].c_str()), 7.9, 0.01);
    EXPECT_NEAR(atof(f[6].c_str()), 7.9, 0.01);
    EXPECT_EQ(f[8], "1767225500");
    EXPECT_NEAR(atof(f[14].c_str()), 15.0, 0.05); // bath temperature
    EXPECT_EQ(apf.dura_sample_ctr, 1u);
    EXPECT_EQ(apf.dura_sample_time, sampl.timestamp);
    EXPECT_EQ(sys_samp.current_sample, 42u);

    const std::string second = sample();
    const std::string log = card_file(APF_LOG_FILENAME);
    const std::vector<std::string> lines = split(log, '\n');
    ASSERT_EQ(lines.size(), 5u) << log; // two headers, two samples, the end after the last line end
    EXPECT_EQ(lines[0].rfind("Prefix,Type,Date Time,SampleNum,CTD Depth[dbar],pHint,", 0), 0u) << lines[0];
    EXPECT_EQ(lines[1].rfind("Prefix,Type,Date Time,SampleNum,CTD Depth[dbar],NO3[umol/kg],", 0), 0u);
    EXPECT_EQ(lines[4], "");
    for (int i : {2, 3}) {
        const std::string& reply_line = i == 2 ? first : second;
        const std::string& log_line = lines[i];
        SCOPED_TRACE(log_line);
        // The log line is the reply after its prefix, with the buffer's earlier first seven bytes
        // in front: here the start of the sample's own line ("#00000nn" cut to seven bytes).
        EXPECT_EQ(log_line.substr(7), reply_line.substr(7, reply_line.size() - 9));
        EXPECT_EQ(log_line.substr(0, 7), "#000004");
        char prefix[8];
        snprintf(prefix, sizeof prefix, "0x%04X,",
                 fCrc16Bit(reinterpret_cast<const uint8_t*>(log_line.c_str())));
        EXPECT_EQ(reply_line.substr(0, 7), prefix);
    }
    EXPECT_EQ(std::system(("fsck.fat -n " + image + " >/dev/null 2>&1").c_str()), 0);
}

// "SL" sends the last reply byte for byte, from FRAM, also once the RAM is gone.
TEST_F(FloatCommandsOnCard, SendLastRepeatsTheReply) {
    const std::string sent = sample();
    EXPECT_EQ(stored().sendlast_byteCnt, sent.size());
    EXPECT_EQ(reply(apf_send_last_pH, "sl"), sent);

    // A new power-on period: RAM as a fresh start leaves it, the record loaded from FRAM.
    sim::test::power_on(sim::WakeSource::power);
    ASSERT_TRUE(sim::test::run(test_board::start_board_with_sensors).returned);
    memset(&apf, 0, sizeof apf);
    memset(prnBuf, 0, sizeof prnBuf);
    GetVarsFromNVRAM();
    EXPECT_EQ(reply(apf_send_last_pH, "sl"), sent);
}

// Without a card the reply goes out all the same.
TEST_F(FloatCommands, PhReplyWithoutACard) {
    apf.sys_sensor_mode = 2;
    const std::string text = reply(apf_take_sample_pH, "t2");
    EXPECT_EQ(text.find(",pH,01/01/26 "), 6u) << text;
    EXPECT_EQ(apf.sendlast_byteCnt, text.size());
    EXPECT_EQ(OpenApfLogFile(2), 1u);
}

} // namespace
