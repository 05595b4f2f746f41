// The data file's headers: the exact text of the metadata header, the data-field block and the data
// header for each configuration (golden files in golden/), their file copies and failure messages,
// the upload of logged data from next_gdata_fptr, and the data-field presets.
//
// Golden files are compared byte for byte. After a deliberate change of a header, check the new text
// line by line, then rewrite them with HXC3_UPDATE_GOLDEN=1 set in the environment.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include "board/i2c0.h"
#include "board/pinmux.h"

#include "records/system.h"
#include "storage/settings.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "test_board.h"
#include "storage/config.h"
#include "storage/presets.h"
#include "storage/i2c_fram.h"
#include "storage/microsd.h"

namespace {

using test_board::run_shell;

constexpr uint32_t T0 = 1767225600; // 2026-01-01 00:00:00 UTC

void set_text(unsigned char* field, size_t size, const char* text) {
    memset(field, 0, size);
    strncpy(reinterpret_cast<char*>(field), text, size - 1);
}
#define SET_TEXT(field, text) set_text(field, sizeof(field), text)

class DataFile : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        sim::test::reset_board(T0);
        memset(&sys_data, 0, sizeof sys_data);
        memset(&sys_samp, 0, sizeof sys_samp);
        microSD_flg = 0;
        UARTStdioConfig(0, 115200, 16000000);
        i2c0_init(0);
        SysCtlPeripheralEnable(SYSCTL_PERIPH_EEPROM0); // as retrieveSysDataVariables opens it
        sys_data.baud_rate = 115200;
        initSysDataVariables();
        sys_samp.initNum = SYS_SAMP_INIT_NUM;
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
    static std::string console_metadata() {
        clear_out();
        EXPECT_FALSE(print_metadata_header());
        return out();
    }
    static std::string console_data_header() {
        clear_out();
        EXPECT_FALSE(print_data_header());
        return out();
    }
    // A deployed instrument with every identity and calibration field filled.
    static void fill_identity() {
        sys_data.deploy_time = T0 + 1;
        sys_data.sampling_period = 900;
        SET_TEXT(sys_data.fileName, "HXC0042.TXT");
        SET_TEXT(sys_data.user, "jdm");
        SET_TEXT(sys_data.board_SN, "HXC3-0042");
        SET_TEXT(sys_data.mcap_SN, "MC-17");
        SET_TEXT(sys_data.sensor_SN, "S1234");
        SET_TEXT(sys_data.isfet_SN, "I5678");
        SET_TEXT(sys_data.ise_SN, "E9012");
        SET_TEXT(sys_data.optode_SN, "OPT-4831");
        SET_TEXT(sys_data.ctd_SN, "SBE37-11111");
        SET_TEXT(sys_data.pump_SN, "P1-001");
        SET_TEXT(sys_data.pump2_SN, "P2-002");
        SET_TEXT(sys_data.package_name, "Mooring M2");
        SET_TEXT(sys_data.package_fab_note, "rebuilt 2025-11");
        SET_TEXT(sys_data.deploy_note, "Monterey Bay, 20 m");
        SET_TEXT(sys_data.cal_filename, "DF384.cal");
        SET_TEXT(sys_data.PT_Cal_date, "2025/10/01");
        SET_TEXT(sys_data.k0_Cal_date, "2025/10/15");
        SET_TEXT(sys_data.service_date, "2025/09/30");
        for (int i = 0; i < 4; i++) {
            sys_data.K2_Cal[i] = -0.001f * static_cast<float>(i + 1);
        }
        for (int i = 0; i < 7; i++) {
            sys_data.fP_Cal[i] = 1.5e-3f * static_cast<float>(i) - 2.0f;
        }
        sys_data.k0_HCL = -1.39894f;
        sys_data.k0_SW = -1.40123f;
        sys_data.k0std_SW = 0.00021f;
        sys_data.offset_Ik = 3;
        sys_data.offset_Ib = 12;
    }
};

// ---------------------------------------------------------------- metadata header, console copy

TEST_F(DataFile, MetadataHeaderOfFactoryDefaults) {
    test_board::expect_golden(__FILE__, "metadata_defaults.txt", console_metadata());
}

// Steinhart-Hart coefficients, with the other two-way choices on their non-default side: hour
// alignment, verbose output, GMT, an experimental duty cycle, and every identity field filled.
TEST_F(DataFile, MetadataHeaderSteinhartHart) {
    fill_identity();
    sys_data.app_cfg[APPCFG_TEMPC_SH_ALG] = 1;
    sys_data.sample_aligned = 1;
    sys_data.output = VERBOSE;
    sys_data.GMT = 1;
    sys_data.sampleCnt_duty_on = 4;
    sys_data.sampleCnt_duty_off = 8;
    test_board::expect_golden(__FILE__, "metadata_steinhart_hart.txt", console_metadata());
}

TEST_F(DataFile, MetadataHeaderPumpVariants) {
    fill_identity();
    sys_data.pump1_ontime = 30;
    sys_data.pump2_ontime = 45;
    sys_data.pump1_cycles = 2;
    sys_data.pump2_cycles = 3;

    sys_data.pump_seq_type = 1;
    sys_data.test_mode = 1;
    sys_data.start_pump_time = T0 + 3600 + 61;
    test_board::expect_golden(__FILE__, "metadata_pump_single_test.txt", console_metadata());

    sys_data.test_mode = 0;
    sys_data.start_pump_time = 0;
    sys_data.pump_seq_type = 2;
    test_board::expect_golden(__FILE__, "metadata_pump_beamsv1.txt", console_metadata());

    sys_data.pump_seq_type = 5; // BEAMSV2 and then SELFCAL
    test_board::expect_golden(__FILE__, "metadata_pump_selfcal.txt", console_metadata());
}

// Lines that appear only for some values: the pump's sequence types, the output modes.
TEST_F(DataFile, MetadataHeaderConditionalLines) {
    sys_data.pump_seq_type = 5; // no on-time: no pump, whatever the type
    std::string text = console_metadata();
    EXPECT_NE(text.find("// Vbias sps,trials: \t40, 1\r\n// Pump on time (s):\t0\r\n// Low battery voltage:"),
              std::string::npos);
    EXPECT_EQ(text.find("Pump seq type"), std::string::npos);

    sys_data.pump1_ontime = 10;
    sys_data.pump_seq_type = 3;
    text = console_metadata();
    EXPECT_NE(
        text.find("// Pump start delay: \t0\r\n// Pump seq type:   \t2PUMP_BEAMSV2\r\n// Pump1 on time"),
        std::string::npos);
    EXPECT_EQ(text.find("SELFCAL"), std::string::npos);

    sys_data.pump_seq_type = 0; // unknown type: the start line alone
    text = console_metadata();
    EXPECT_NE(text.find("// Pump start delay: \t0\r\n// Low battery voltage:"), std::string::npos);

    sys_data.output = static_cast<output_mode>(3);
    text = console_metadata();
    EXPECT_EQ(text.find("Output mode"), std::string::npos);
    EXPECT_NE(text.find("// Low battery voltage:\t9.2\r\n// Deploy time:   \t1970/01/01 00:00:00\r\n"),
              std::string::npos);
}

// Texts stored without their NUL (a damaged record) are cut at the field's end.
TEST_F(DataFile, UnterminatedTextsStayInTheirField) {
    memset(sys_data.user, 'u', sizeof sys_data.user);
    memset(sys_data.deploy_note, 'n', sizeof sys_data.deploy_note);
    const std::string text = console_metadata();
    EXPECT_NE(text.find("// User initials: \tuuuuuuuu\r\n// Board SN:"), std::string::npos);
    EXPECT_NE(text.find("// Deploy note:   \t" + std::string(80, 'n') + "\r\n// MicroSD"), std::string::npos);
}

// ---------------------------------------------------------------- data-field block

TEST_F(DataFile, DataFieldBlockAloneHasNoPrefix) {
    clear_out();
    print_config_data_fields();
    const std::string block = out();
    test_board::expect_golden(__FILE__, "data_fields_defaults.txt", block);
    // Inside the metadata header the same lines carry "// ".
    std::string padded;
    std::istringstream lines(block);
    for (std::string line; std::getline(lines, line);) {
        padded += "// " + line + "\n";
    }
    EXPECT_NE(console_metadata().find(padded), std::string::npos);
}

TEST_F(DataFile, DataFieldBlockEpochMilliseconds) {
    sys_data.data_cfg[CFG_TIMESTAMP] = 2;
    clear_out();
    print_config_data_fields();
    EXPECT_NE(out().find("A -- Sample Num               = 1\r\n"
                         "B -- MM/DD/YYYY HH:MM:SS      = 2,  Epoch millisec\r\n\r\n"
                         "D -- Bias Battery Pos         = 1\r\n"),
              std::string::npos);
}

// ---------------------------------------------------------------- data header

TEST_F(DataFile, DataHeaderColumns) {
    test_board::expect_golden(__FILE__, "data_header_defaults.txt", console_data_header());

    memset(sys_data.data_cfg, 1, CFG_UART3_INST);
    sys_data.data_cfg[CFG_UART3_INST] = 1; // optode
    sys_data.data_cfg[CFG_UART4_INST] = 6; // SBE37
    sys_data.pump_seq_type = 2;
    test_board::expect_golden(__FILE__, "data_header_all.txt", console_data_header());

    memset(sys_data.data_cfg, 0, sizeof sys_data.data_cfg);
    sys_data.pump_seq_type = 1;
    EXPECT_EQ(console_data_header(), "\r\n");

    sys_data.data_cfg[CFG_TIMESTAMP] = 2;
    EXPECT_EQ(console_data_header(), "Epoch millisec\t\r\n");
    sys_data.data_cfg[CFG_TIMESTAMP] = 3; // no time column
    EXPECT_EQ(console_data_header(), "\r\n");
}

// The instrument groups, each after the board's own columns and before the pump column.
TEST_F(DataFile, DataHeaderInstrumentGroups) {
    memset(sys_data.data_cfg, 0, sizeof sys_data.data_cfg);
    sys_data.data_cfg[CFG_SAMPLE_NUM] = 1;
    sys_data.pump_seq_type = 2;
    std::string headers;
    for (uint8_t port3 = 0; port3 <= 5; port3++) {
        sys_data.data_cfg[CFG_UART3_INST] = port3;
        sys_data.data_cfg[CFG_UART4_INST] = static_cast<uint8_t>(port3 + 3); // 3..8: only 6, 7 have columns
        headers += console_data_header();
    }
    test_board::expect_golden(__FILE__, "data_header_instruments.txt", headers);

    // The longest header there is fits whole.
    memset(sys_data.data_cfg, 1, CFG_UART3_INST);
    sys_data.data_cfg[CFG_UART3_INST] = 3;
    sys_data.data_cfg[CFG_UART4_INST] = 7;
    const std::string longest = console_data_header();
    const std::string tail = "Density \tSSpeed\t   Pump\t\r\n";
    ASSERT_GT(longest.size(), tail.size());
    EXPECT_EQ(longest.substr(longest.size() - tail.size()), tail);
}

// ---------------------------------------------------------------- no card

// Without a mounted card every writer reports the failed open once, returns true and still
// completes its console copy; the upload reports it too.
TEST_F(DataFile, CardMissing) {
    const std::string metadata = console_metadata();
    const std::string data_header = console_data_header();
    sys_samp.next_gdata_fptr = 1234;

    clear_out();
    EXPECT_TRUE(print_write_metadata_header(1, 1));
    std::string text = out();
    ASSERT_EQ(text.rfind("f_open error: ", 0), 0u) << text;
    const size_t end = text.find("\r\n");
    EXPECT_EQ(text.substr(end + 2), metadata);
    const std::string message = text.substr(0, end + 2);
    EXPECT_EQ(text.find("f_open error", 1), std::string::npos);

    clear_out();
    EXPECT_TRUE(write_metadata_header());
    EXPECT_EQ(out(), message);

    clear_out();
    EXPECT_TRUE(print_write_data_header(1, 1));
    EXPECT_EQ(out(), data_header + message);
    EXPECT_TRUE(print_write_config_data_fields(0, 1, 1));
    EXPECT_EQ(sys_samp.next_gdata_fptr, 1234u);

    clear_out();
    EXPECT_EQ(get_data(), 1u);
    EXPECT_EQ(out(), message);
    EXPECT_EQ(sys_samp.next_gdata_fptr, 1234u);

    sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 0;
    clear_out();
    EXPECT_EQ(get_data(), 1u);
    EXPECT_EQ(out(), "get_data() not supported with microSD disabled\r\n");
}

// ---------------------------------------------------------------- presets

class Presets : public DataFile {
  protected:
    // Runs a preset on a record whose switches and ADC settings are all off their defaults, and
    // checks that it restores the ADC defaults and stores sys_data.
    static std::string header_after(void (*preset)(void)) {
        memset(sys_data.data_cfg, 9, sizeof sys_data.data_cfg);
        sys_data.data_cfg[CFG_UART3_INST] = 2;
        sys_data.data_cfg[CFG_UART4_INST] = 5;
        sys_data.Vrsi_sps = 5;
        sys_data.Vbias_trials = 9;
        sys_data.pump_seq_type = 1;
        preset();
        EXPECT_EQ(sys_data.Vrsi_sps, 20u);
        EXPECT_EQ(sys_data.Vbias_trials, 1u);
        // The EEPROM keeps the record's first 1024 bytes, the switches among them.
        EXPECT_EQ(0, memcmp(sim::eeprom_bytes() + SYS_DATA_EEPROM_ADDR, &sys_data,
                            sim::eeprom_size - SYS_DATA_EEPROM_ADDR));
        return console_data_header();
    }
};

TEST_F(Presets, AllAndNone) {
    EXPECT_EQ(header_after(config_data_fields_all),
              " SampNum\t     MM/DD/YYYY HH:MM:SS\tVbatMain\tVbiasPos\tVbiasNeg\t TC_cont\tHumidity\t"
              "  Vtherm\tVthrmStd\t TC_Dfet\t    Vrsi\tVrsi_std\tpHintEst\t    Vrse\tVrse_std\tpHextEst\t"
              "  Vrsi_B\tVrsiBstd\t  Vrse_B\tVrseBstd\t      Vk\t  Vk_std\t      Ik\t      Ib\t"
              "OCR_PN  \tChan_1 \tChan_2 \tChan_3 \tChan_4 \t\r\n"); // instruments kept
    EXPECT_EQ(header_after(config_data_fields_none), "\r\n");
    EXPECT_EQ(sys_data.data_cfg[CFG_UART3_INST], 0);
    EXPECT_EQ(sys_data.data_cfg[CFG_UART4_INST], 5) << "no CTD: the default salinity";
}

TEST_F(Presets, Platforms) {
    EXPECT_EQ(header_after(config_data_fields_glider),
              " SampNum\tEpoch millisec\t  Vtherm\t TC_Dfet\t    Vrsi\tpHintEst\t    Vrse\tpHextEst\t"
              "      Vk\t      Ik\t      Ib\t\r\n");
    EXPECT_EQ(header_after(config_data_fields_wirewalker),
              " SampNum\t     MM/DD/YYYY HH:MM:SS\tVbatMain\t  Vtherm\t TC_Dfet\t    Vrsi\tVrsi_std\t"
              "pHintEst\t    Vrse\tVrse_std\tpHextEst\t      Vk\t      Ik\t      Ib\t"
              "TC_MCat\tCond\tPres\tpSal\tDate_MC\tTime_MC\t\r\n");
    EXPECT_EQ(header_after(config_data_fields_tessel),
              " SampNum\t     MM/DD/YYYY HH:MM:SS\tVbatMain\tVbiasPos\tVbiasNeg\t TC_cont\tHumidity\t"
              "  Vtherm\tVthrmStd\t TC_Dfet\t    Vrsi\tVrsi_std\tpHintEst\t    Vrse\tVrse_std\tpHextEst\t"
              "      Vk\t  Vk_std\t      Ik\t      Ib\tTC_MCat\tCond\tPres\tpSal\tDate_MC\tTime_MC\t\r\n");
    EXPECT_EQ(header_after(config_data_fields_corrib),
              " SampNum\t     MM/DD/YYYY HH:MM:SS\tVbatMain\tVbiasPos\tVbiasNeg\t TC_cont\tHumidity\t"
              "  Vtherm\t TC_Dfet\t    Vrsi\tpHintEst\t    Vrse\tpHextEst\t      Vk\t      Ik\t      Ib\t"
              "MEA  \tChan \tSensors \tErrors \tdphi \t0 \t0 \t0 \tTC_samp \tTC_case \tsigInt \t"
              "ambLight \tPres \tHum \tTO_res \t0 \t0 \tpH \t0 \t0 \t0 \t\r\n");
    EXPECT_EQ(header_after(config_data_fields_m2m_corrib),
              " SampNum\tEpoch millisec\t  Vtherm\t TC_Dfet\t    Vrsi\tpHintEst\t    Vrse\tpHextEst\t"
              "MEA  \tChan \tSensors \tErrors \tdphi \t0 \t0 \t0 \tTC_samp \tTC_case \tsigInt \t"
              "ambLight \tPres \tHum \tTO_res \t0 \t0 \tpH \t0 \t0 \t0 \t\r\n");
    EXPECT_EQ(header_after(config_data_fields_brisa),
              " SampNum\t     MM/DD/YYYY HH:MM:SS\tVbatMain\t"
              " SampNum\tMM/DD/YYYY HH:MM:SS\tVbiasPos\t TC_cont\tHumidity\t  Vtherm\tVthrmStd\t"
              " TC_Dfet\t    Vrse\tVrse_std\t      Vk\t  Vk_std\t      Ik \t      Ib\t\r\n");
}

// ---------------------------------------------------------------- on the card

// Clock, pins, console and the millisecond tick that times the card driver out.
void start_board(void) {
    test_board::start_clocks();
}

// The file text spells the thermistor labels in capitals where the console has lower case.
std::string as_filed(std::string console) {
    for (size_t at = console.find("// s-h "); at != std::string::npos; at = console.find("// s-h ", at)) {
        console.replace(at, 7, "// S-H ");
    }
    return console;
}

// A 64 MiB FAT32 card made on a PC, mounted, with logging on and the factory name noname.txt.
class DataFileOnCard : public DataFile {
  protected:
    std::string image;

    void SetUp() override {
        DataFile::SetUp();
        ASSERT_TRUE(sim::test::run(start_board).returned);
        image = test_board::make_card_image("config");
        ASSERT_FALSE(image.empty());
        sim::sd_set_image(image);
        ASSERT_EQ(init_uSDCard(), 0u);
        clear_out();
    }
    void TearDown() override {
        sim::sd_set_image("");
        unlink(image.c_str());
    }
    std::string card_file(const char* name) const {
        return run_shell("MTOOLS_SKIP_CHECK=1 mtype -i " + image + " ::" + name + " 2>&1");
    }
    bool card_is_clean() const {
        return std::system(("fsck.fat -n " + image + " >/dev/null 2>&1").c_str()) == 0;
    }
    static uint32_t stored_gdata_fptr() {
        uint32_t fptr;
        memcpy(&fptr, sim::fram_bytes() + FRAM_SYS_SAMP_ADDR + offsetof(systemSamplingData, next_gdata_fptr),
               sizeof fptr);
        return fptr;
    }
    static std::string uploaded() {
        clear_out();
        EXPECT_EQ(get_data(), 0u);
        return out();
    }
};

// Two deployments' headers appended to one file: the file holds the console text (with the
// capital thermistor labels), and next_gdata_fptr marks the end of the last header written.
TEST_F(DataFileOnCard, HeadersAppendedAsOnTheConsole) {
    EXPECT_FALSE(print_write_metadata_header(1, 1));
    const std::string first = out();
    EXPECT_EQ(first, test_board::read_file(test_board::golden_path(__FILE__, "metadata_defaults.txt")));
    std::string file = as_filed(first);
    EXPECT_NE(file, first);
    EXPECT_EQ(sys_samp.next_gdata_fptr, file.find("// A -- Sample Num"));
    EXPECT_EQ(card_file("NONAME.TXT"), file);

    sys_data.app_cfg[APPCFG_TEMPC_SH_ALG] = 1;
    sys_data.pump1_ontime = 20;
    sys_data.start_pump_time = T0 + 600;
    clear_out();
    EXPECT_FALSE(print_write_metadata_header(1, 1));
    const std::string second = out();
    EXPECT_EQ(sys_samp.next_gdata_fptr, file.size() + as_filed(second).find("// A -- Sample Num"));
    file += as_filed(second);

    clear_out();
    EXPECT_FALSE(print_write_data_header(1, 1));
    const std::string data_header = out();
    EXPECT_EQ(data_header,
              test_board::read_file(test_board::golden_path(__FILE__, "data_header_defaults.txt")));
    file += data_header;
    EXPECT_EQ(sys_samp.next_gdata_fptr, file.size());
    EXPECT_EQ(card_file("NONAME.TXT"), file);

    // The file-only forms write the same text and print nothing.
    clear_out();
    EXPECT_FALSE(write_metadata_header());
    EXPECT_FALSE(write_data_header());
    EXPECT_EQ(out(), "");
    EXPECT_EQ(card_file("NONAME.TXT"), file + as_filed(second) + data_header);
    EXPECT_TRUE(card_is_clean());
}

// With logging off not one command goes to the card, and the console copies are complete.
TEST_F(DataFileOnCard, LoggingOffSendsNothingToTheCard) {
    sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 0;
    const std::string console_only = console_metadata() + console_data_header();
    sys_samp.next_gdata_fptr = 1234;
    sim::sd_clear_commands();
    clear_out();
    EXPECT_FALSE(print_write_metadata_header(1, 1));
    EXPECT_FALSE(print_write_data_header(1, 1));
    EXPECT_FALSE(write_metadata_header());
    EXPECT_FALSE(write_data_header());
    EXPECT_FALSE(print_write_config_data_fields(0, 1, 1));
    EXPECT_TRUE(sim::sd_commands().empty());
    EXPECT_EQ(out(), console_only);
    EXPECT_EQ(sys_samp.next_gdata_fptr, 1234u);
}

// A card pulled after the mount: each writer reports the failed open or seek once, returns true
// and completes its console copy; the file position stays where it was.
TEST_F(DataFileOnCard, CardPulled) {
    EXPECT_FALSE(write_metadata_header());
    const uint32_t fptr = sys_samp.next_gdata_fptr;
    const std::string metadata = console_metadata();
    sim::test::set_scenario("card", "absent");

    clear_out();
    EXPECT_TRUE(print_write_metadata_header(1, 1));
    const std::string text = out();
    const size_t end = text.find("\r\n");
    ASSERT_NE(end, std::string::npos);
    const std::string message = text.substr(0, end + 2);
    EXPECT_TRUE(message.starts_with("f_open error: FR_") || message.starts_with("f_lseek error: FR_"))
        << message;
    EXPECT_EQ(text.substr(end + 2), metadata);

    clear_out();
    EXPECT_TRUE(print_write_data_header(0, 1));
    EXPECT_TRUE(out().find(" error: FR_") != std::string::npos);
    EXPECT_EQ(sys_samp.next_gdata_fptr, fptr);
}

// gdata sends what was logged since the data header, and each later gdata what came after.
TEST_F(DataFileOnCard, UploadFromNextGdataFptr) {
    EXPECT_FALSE(write_metadata_header());
    EXPECT_FALSE(write_data_header());
    const std::string lines = "#0000001\t8.012\r\n#0000002\t8.013\r\n#0000003\t8.011\r\n";
    appendBufferToSDCard(lines.c_str());
    EXPECT_EQ(uploaded(), lines);
    const std::string file = card_file("NONAME.TXT");
    EXPECT_EQ(sys_samp.next_gdata_fptr, file.size());
    EXPECT_EQ(stored_gdata_fptr(), file.size());
    EXPECT_EQ(uploaded(), "");

    // Many sectors and clusters' worth, sent whole and in order.
    std::string more;
    for (int i = 4; i < 404; i++) {
        char line[128];
        snprintf(line, sizeof line, "#%07d\t%s\r\n", i,
                 std::string(90, static_cast<char>('a' + i % 26)).c_str());
        appendBufferToSDCard(line);
        more += line;
    }
    EXPECT_EQ(uploaded(), more);

    // A position beyond the end (the file was replaced) sends the whole file.
    sys_samp.next_gdata_fptr = 0xFFFFFF00;
    EXPECT_EQ(uploaded(), file + more);
    EXPECT_EQ(sys_samp.next_gdata_fptr, file.size() + more.size());

    SET_TEXT(sys_data.fileName, "NONE.TXT");
    clear_out();
    EXPECT_EQ(get_data(), 1u);
    EXPECT_EQ(out(), "f_open error: FR_NO_FILE\r\n");
}

} // namespace
