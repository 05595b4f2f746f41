// Calibration coefficient files: reading the 20-line text from memory, the console forms of the
// stored calibration, and the card reader with its kept gaps.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "board/pinmux.h"
#include "records/system.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "test_board.h"
#include "storage/calfile.h"
#include "storage/microsd.h"

namespace {

// A complete calibration file as a sensor's factory sends it.
const char* const cal_lines[CAL_LINE_COUNT] = {
    "Sensor_SN,10042",      "ISFET_SN,F2371",      "ISE_SN,E0915",          "PT_Cal_date,2025-03-14",
    "k2_C0,-1.045000e-03",  "k2_C1,2.500000e-06",  "k2_C2,-7.250000e-08",   "k2_C3,1.000000e-10",
    "fP_0,1.000000e+00",    "fP_1,-2.000000e-02",  "fP_2,3.000000e-03",     "fP_3,-4.000000e-04",
    "fP_4,5.000000e-05",    "fP_5,-6.000000e-06",  "fP_6,7.000000e-07",     "k0_Cal_date,2025-04-01",
    "k0_HCl,-1.402500e+00", "k0_SW,-1.395000e+00", "k0std_SW,1.500000e-04", "service_date,2025-05-20",
};

std::string cal_text(const char* eol) {
    std::string text;
    for (const char* line : cal_lines) {
        text += line;
        text += eol;
    }
    return text;
}

// Parses exactly the bytes of text, from a buffer with nothing after them (no NUL either).
void parse(const std::string& text) {
    std::vector<char> buf(text.begin(), text.end());
    EXPECT_EQ(parse_cal_packet(buf.data(), static_cast<uint32_t>(buf.size())), 0u);
}

std::string field(const unsigned char* f) {
    return std::string(reinterpret_cast<const char*>(f));
}

// Fills every calibration field with a value that no file above contains.
void stale_calibration() {
    const char stale[] = "OLD";
    for (unsigned char* f : {sys_data.sensor_SN, sys_data.isfet_SN, sys_data.ise_SN}) {
        memcpy(f, stale, sizeof stale);
    }
    for (unsigned char* f : {sys_data.PT_Cal_date, sys_data.k0_Cal_date, sys_data.service_date}) {
        memcpy(f, stale, sizeof stale);
    }
    for (float& v : sys_data.K2_Cal) {
        v = 99.0f;
    }
    for (float& v : sys_data.fP_Cal) {
        v = 99.0f;
    }
    sys_data.k0_HCL = sys_data.k0_SW = sys_data.k0std_SW = 99.0f;
}

class CalFile : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        memset(&sys_data, 0, sizeof sys_data);
        UARTStdioConfig(0, 115200, 16000000);
        sim::test::clear_console_output();
    }
    static std::string out() {
        wait_consoleTx();
        return sim::test::console_output();
    }

    static void expect_factory_file_stored() {
        EXPECT_EQ(field(sys_data.sensor_SN), "10042");
        EXPECT_EQ(field(sys_data.isfet_SN), "F2371");
        EXPECT_EQ(field(sys_data.ise_SN), "E0915");
        EXPECT_EQ(field(sys_data.PT_Cal_date), "2025-03-14");
        EXPECT_FLOAT_EQ(sys_data.K2_Cal[0], -1.045e-3f);
        EXPECT_FLOAT_EQ(sys_data.K2_Cal[3], 1.0e-10f);
        EXPECT_FLOAT_EQ(sys_data.fP_Cal[0], 1.0f);
        EXPECT_FLOAT_EQ(sys_data.fP_Cal[6], 7.0e-7f);
        EXPECT_EQ(field(sys_data.k0_Cal_date), "2025-04-01");
        EXPECT_FLOAT_EQ(sys_data.k0_HCL, -1.4025f);
        EXPECT_FLOAT_EQ(sys_data.k0_SW, -1.395f);
        EXPECT_FLOAT_EQ(sys_data.k0std_SW, 1.5e-4f);
        EXPECT_EQ(field(sys_data.service_date), "2025-05-20");
    }
};

// ---------------------------------------------------------------- text in memory

TEST_F(CalFile, CrLfAndLfLineEndsReadTheSame) {
    for (const char* eol : {"\r\n", "\n"}) {
        SCOPED_TRACE(eol[0] == '\r' ? "CR LF" : "LF");
        stale_calibration();
        parse(cal_text(eol));
        expect_factory_file_stored();
    }
}

TEST_F(CalFile, OverlongValuesAreCutToTheirFieldsAndLaterLinesStayInPlace) {
    std::string text = cal_text("\r\n");
    auto replace = [&text](const std::string& from, const std::string& to) {
        text.replace(text.find(from), from.size(), to);
    };
    replace("Sensor_SN,10042", "Sensor_SN,ABCDEFGHIJKL");
    replace("PT_Cal_date,2025-03-14", "PT_Cal_date,2025-03-14T10:00Z");
    // Longer than a whole line: the rest of it must not become the next entry.
    replace("ISE_SN,E0915", "ISE_SN,E0915" + std::string(60, 'x'));
    parse(text);

    EXPECT_EQ(field(sys_data.sensor_SN), "ABCDEFG");
    EXPECT_EQ(field(sys_data.PT_Cal_date), "2025-03-14");
    EXPECT_EQ(field(sys_data.ise_SN), "E0915xx");
    EXPECT_FLOAT_EQ(sys_data.K2_Cal[0], -1.045e-3f);
    EXPECT_EQ(field(sys_data.service_date), "2025-05-20");
}

// A file is taken whole or not at all: whatever is wrong with it, the stored calibration stays as
// it was and the message names the first line that is not what its position asks for.
TEST_F(CalFile, BadFilesAreRefusedAndTheCalibrationKept) {
    auto with = [](const std::string& from, const std::string& to) {
        std::string text = cal_text("\r\n");
        text.replace(text.find(from), from.size(), to);
        return text;
    };
    std::string whole = cal_text("\n");
    std::string random(600, '\0');
    for (size_t i = 0; i < random.size(); i++) {
        random[i] = static_cast<char>((i * 7919u + 13u) % 251u);
    }
    struct Case {
        const char* what;
        std::string text;
        uint32_t line;
        const char* shown;
    };
    const Case cases[] = {
        {"empty", "", 1, "\"\" is not \"Sensor_SN,value\""},
        {"random bytes", random, 1, "is not \"Sensor_SN,value\""},
        {"wrong key", with("k2_C1,", "k2-C1,"), 6, "\"k2-C1,2.500000e-06\" is not \"k2_C1,value\""},
        {"not a number", with("fP_2,3", "fP_2,x"), 11, "is not \"fP_2,value\""},
        {"not finite", with("k0_SW,-1.395000e+00", "k0_SW,nan"), 18, "\"k0_SW,nan\""},
        {"empty text", with("ISE_SN,E0915", "ISE_SN,"), 3, "\"ISE_SN,\" is not \"ISE_SN,value\""},
        {"cut short", whole.substr(0, whole.find("k0_Cal_date")), 16, "\"\" is not \"k0_Cal_date,value\""},
        {"shifted by a line", "\r\n" + cal_text("\r\n"), 1, "is not \"Sensor_SN,value\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        stale_calibration();
        systemData before = sys_data;
        sim::test::clear_console_output();
        std::vector<char> buf(c.text.begin(), c.text.end());
        EXPECT_EQ(parse_cal_packet(buf.data(), static_cast<uint32_t>(buf.size())), c.line);
        EXPECT_EQ(memcmp(&sys_data, &before, sizeof before), 0);
        std::string text = out();
        EXPECT_NE(text.find("Calibration file refused: line " + std::to_string(c.line) + " "),
                  std::string::npos)
            << text;
        EXPECT_NE(text.find(c.shown), std::string::npos) << text;
        EXPECT_NE(text.find("the calibration is unchanged\r\n"), std::string::npos) << text;
    }

    // Only len bytes count, and a NUL ends the text early.
    stale_calibration();
    EXPECT_EQ(parse_cal_packet(whole.data(), static_cast<uint32_t>(whole.find("ISE_SN"))), 3u);
    whole[whole.find("PT_Cal")] = '\0';
    EXPECT_EQ(parse_cal_packet(whole.data(), static_cast<uint32_t>(whole.size())), 4u);
    EXPECT_EQ(parse_cal_packet(nullptr, 100), 1u);
    EXPECT_EQ(field(sys_data.sensor_SN), "OLD");
}

TEST_F(CalFile, ReceivedFileNameIsKeptUpTo31Characters) {
    set_cal_filename("DF384.cal");
    EXPECT_EQ(field(sys_data.cal_filename), "DF384.cal");
    set_cal_filename("a_very_long_calibration_file_name_2025.cal");
    EXPECT_EQ(field(sys_data.cal_filename), "a_very_long_calibration_file_na");
}

// ---------------------------------------------------------------- console forms

TEST_F(CalFile, ExportPrintsTheFileFormat) {
    set_cal_filename("DF384.cal");
    parse(cal_text("\r\n"));
    export_pH_sensor_cal_coeff();
    EXPECT_EQ(out(), "\r\nCal filename: DF384.cal\r\n\r\n" + cal_text("\r\n") + "\r\n");
}

TEST_F(CalFile, ExportedTextReadsBackAsTheSameCalibration) {
    // An operator makes a file by saving the console output: it must load to the same values.
    parse(cal_text("\n"));
    sys_data.K2_Cal[2] = -3.14159265e-7f;
    sys_data.fP_Cal[4] = 123456.789f;
    systemData before = sys_data;
    export_pH_sensor_cal_coeff();
    std::string text = out();
    text = text.substr(text.find("Sensor_SN"));

    memset(&sys_data, 0, sizeof sys_data);
    parse(text);
    EXPECT_EQ(field(sys_data.ise_SN), field(before.ise_SN));
    EXPECT_EQ(field(sys_data.service_date), field(before.service_date));
    for (int i = 0; i < 4; i++) {
        EXPECT_NEAR(sys_data.K2_Cal[i], before.K2_Cal[i], 1e-6 * std::abs(before.K2_Cal[i])) << i;
    }
    for (int i = 0; i < 7; i++) {
        EXPECT_NEAR(sys_data.fP_Cal[i], before.fP_Cal[i], 1e-6 * std::abs(before.fP_Cal[i])) << i;
    }
}

TEST_F(CalFile, RecordLineHasEveryValueTabSeparated) {
    parse(cal_text("\n"));
    get_pH_sensor_cal_coeff();
    EXPECT_EQ(out(), "10042\tF2371\tE0915\t2025-03-14\t"
                     "-1.045000e-03\t2.500000e-06\t-7.250000e-08\t1.000000e-10\t"
                     "1.000000e+00\t-2.000000e-02\t3.000000e-03\t-4.000000e-04\t5.000000e-05\t"
                     "-6.000000e-06\t7.000000e-07\t"
                     "2025-04-01\t-1.402500e+00\t-1.395000e+00\t1.500000e-04\t2025-05-20\r\n");
}

TEST_F(CalFile, UnterminatedStoredTextsPrintOnlyTheirField) {
    // A blank EEPROM (0xFF everywhere) must not make the printers read past a field.
    memset(&sys_data, 0xFF, sizeof sys_data);
    memcpy(sys_data.sensor_SN, "12345678", 8);
    get_pH_sensor_cal_coeff();
    std::string text = out();
    EXPECT_EQ(text.substr(0, 9), "12345678\t");
    EXPECT_EQ(text.substr(text.size() - 2), "\r\n");
}

// ---------------------------------------------------------------- card

void start_board(void) {
    test_board::start_clocks();
}

// A card formatted on a PC (FAT32) with the calibration file copied onto it by mtools.
class CalCard : public CalFile {
  protected:
    std::string dir;
    std::string image;

    void SetUp() override {
        CalFile::SetUp();
        ASSERT_TRUE(sim::test::run(start_board).returned);
        char name[] = "/tmp/hxc3-calfile-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
        image = dir + "/card.img";
        ASSERT_EQ(system(("mkfs.fat -C -F 32 " + image + " 65536 >/dev/null").c_str()), 0);
        sim::sd_set_image(image);
        ASSERT_EQ(init_uSDCard(), 0u);
        stale_calibration();
        sim::test::clear_console_output();
    }
    void TearDown() override {
        f_unmount("");
        sim::sd_set_image("");
        if (!dir.empty()) {
            EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
        }
    }
    void put_file(const std::string& text, const char* card_name = "DF384.CAL") {
        std::string host = dir + "/upload";
        FILE* f = fopen(host.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        fwrite(text.data(), 1, text.size(), f);
        fclose(f);
        std::string copy = "MTOOLS_SKIP_CHECK=1 mcopy -o -i " + image + " " + host + " ::/" + card_name;
        ASSERT_EQ(system(copy.c_str()), 0);
        // The mounted volume keeps sectors: after a change behind its back it is mounted afresh.
        f_unmount("");
        ASSERT_EQ(init_uSDCard(), 0u);
    }
};

TEST_F(CalCard, CardImportStoresOnlyWhatThisPathStores) {
    for (const char* eol : {"\r\n", "\n"}) {
        SCOPED_TRACE(eol[0] == '\r' ? "CR LF" : "LF");
        stale_calibration();
        memcpy(sys_data.ise_SN, "KEEP", 5);
        put_file(cal_text(eol));
        sim::test::clear_console_output();
        import_pH_sensor_cal_coeff();
        std::string size = std::to_string(cal_text(eol).size());
        EXPECT_EQ(out().rfind("importing DF384.cal, " + size + " bytes...\r\n", 0), 0u);

        EXPECT_EQ(field(sys_data.cal_filename), "DF384.cal");
        EXPECT_EQ(field(sys_data.sensor_SN), "10042");
        // The ISFET and ISE numbers share one holder on this path: the ISE value lands in isfet_SN.
        EXPECT_EQ(field(sys_data.isfet_SN), "E0915");
        EXPECT_EQ(field(sys_data.ise_SN), "KEEP");
        EXPECT_FLOAT_EQ(sys_data.K2_Cal[0], -1.045e-3f);
        EXPECT_FLOAT_EQ(sys_data.K2_Cal[3], 1.0e-10f);
        EXPECT_FLOAT_EQ(sys_data.fP_Cal[0], 1.0f);
        EXPECT_FLOAT_EQ(sys_data.fP_Cal[6], 7.0e-7f);
        EXPECT_EQ(field(sys_data.service_date), "2025-05-20");
        // Shown, but not stored.
        EXPECT_EQ(field(sys_data.PT_Cal_date), "OLD");
        EXPECT_EQ(field(sys_data.k0_Cal_date), "OLD");
        EXPECT_EQ(sys_data.k0_HCL, 99.0f);
        EXPECT_EQ(sys_data.k0_SW, 99.0f);
        EXPECT_EQ(sys_data.k0std_SW, 99.0f);
    }
}

TEST_F(CalCard, CardImportEchoesTheLinesThenShowsWhatWasRead) {
    std::string file = cal_text("\r\n");
    put_file(file);
    import_pH_sensor_cal_coeff();
    std::string expected = "importing DF384.cal, " + std::to_string(file.size()) + " bytes...\r\n" +
                           cal_text("\r\n") + "\r\n\r\n" +
                           "Filename: DF384.cal\r\n"
                           "Sensor_SN: 10042\r\n"
                           "ISFET_SN: E0915\r\n"
                           "ISE_SN: \r\n"
                           "PT_Cal_date: 2025-03-14\r\n"
                           "k2_C0: -1.045000e-03\r\nk2_C1: 2.500000e-06\r\nk2_C2: -7.250000e-08\r\n"
                           "k2_C3: 1.000000e-10\r\n"
                           "fP_0: 1.000000e+00\r\nfP_1: -2.000000e-02\r\nfP_2: 3.000000e-03\r\n"
                           "fP_3: -4.000000e-04\r\nfP_4: 5.000000e-05\r\nfP_5: -6.000000e-06\r\n"
                           "fP_6: 7.000000e-07\r\n"
                           "k0_Cal_date: 2025-04-01\r\n"
                           "k0_HCl: -1.402500e+00\r\nk0_SW: -1.395000e+00\r\nk0std_SW: 1.500000e-04\r\n"
                           "service_date: 2025-05-20\r\n"
                           "\r\n\r\n";
    EXPECT_EQ(out(), expected);
}

// A line longer than 24 bytes is cut and its rest read as the next line, which then fails its key:
// the file is refused and nothing is stored.
TEST_F(CalCard, CardLinesLongerThan24AreCutAndTheFileRefused) {
    std::string file = cal_text("\n");
    // The key and 18 characters of the value fill the 24 bytes; "-03" is read as line 6.
    file.replace(file.find("k2_C0,-1.045000e-03"), 19, "k2_C0,-1.04500000000000e-03");
    put_file(file);
    systemData before = sys_data;
    EXPECT_EQ(import_pH_sensor_cal_coeff(), 1u);
    std::string text = out();

    EXPECT_NE(text.find("\r\nk2_C0,-1.04500000000000e\r\n-03\r\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Calibration file refused: line 6 \"-03\" is not \"k2_C1,value\""), std::string::npos)
        << text;
    EXPECT_EQ(text.find("Filename: "), std::string::npos) << "nothing read is shown as taken";
    EXPECT_EQ(memcmp(&sys_data, &before, sizeof before), 0);

    // The serial number's 12 characters still fit the line; the field keeps 7.
    file = cal_text("\n");
    file.replace(0, file.find('\n'), "Sensor_SN,ABCDEFGHIJKL");
    put_file(file);
    EXPECT_EQ(import_pH_sensor_cal_coeff(), 0u);
    EXPECT_EQ(field(sys_data.sensor_SN), "ABCDEFG");
}

TEST_F(CalCard, MissingCardFileIsReportedByName) {
    put_file(cal_text("\r\n"), "DF385.CAL");
    systemData before = sys_data;
    EXPECT_EQ(import_pH_sensor_cal_coeff(), 1u);
    EXPECT_EQ(out(), "f_open error: FR_NO_FILE\r\n");
    EXPECT_EQ(memcmp(&sys_data, &before, sizeof before), 0);
}

} // namespace
