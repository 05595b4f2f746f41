// The UV spectrometer model on UART2 as the board drives it: its supplies on the expander, its RS-232
// driver on PF4, the text commands, the scan frame, the spectra against its own calibration file
// and the bath, its faulty variants, the new card's calibration file and the supplies' on-times in
// --stats.
#include "devices.h"
#include "runtime.h"
#include "serial_instrument.h"
#include "sim/i2c_master.h"
#include "sim/serial_port.h"

#include "registers.h"

#include "driverlib/gpio.h"
#include "inc/hw_gpio.h"
#include "inc/hw_uart.h"
#include "storage/fatfs/ff.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using serial_port::Rx;

constexpr uint32_t baud = 115200;
constexpr double dark = 1000.0;

struct Frame {
    bool whole = false; // header, pixel count and length as they should be
    std::vector<uint16_t> counts;
    bool checksum_ok = false;
};

uint16_t word_at(const std::string& b, size_t i) {
    return static_cast<uint16_t>(static_cast<uint8_t>(b[i]) | static_cast<uint8_t>(b[i + 1]) << 8);
}

Frame parse_frame(const std::string& b) {
    Frame f;
    if (b.size() != 518 || b.substr(0, 2) != "\xA5\x5A" || word_at(b, 2) != 256) {
        return f;
    }
    f.whole = true;
    uint32_t sum = 0;
    for (size_t i = 4; i < 516; i += 2) {
        f.counts.push_back(word_at(b, i));
        sum += f.counts.back();
    }
    f.checksum_ok = word_at(b, 516) == (sum & 0xFFFF);
    return f;
}

// A row of the calibration file, and the file's wavelength polynomial.
struct CalRow {
    double eno3, esw, reference;
};
struct Calibration {
    std::map<std::string, std::string> headers; // H,key,rest
    std::map<int, CalRow> rows;
    double lambda_c[4] = {};
    double lambda(int p) const {
        return lambda_c[0] + p * (lambda_c[1] + p * (lambda_c[2] + p * lambda_c[3]));
    }
};

Calibration parse_calibration(const std::string& text) {
    Calibration cal;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("H,", 0) == 0) {
            size_t comma = line.find(',', 2);
            cal.headers[line.substr(2, comma - 2)] = line.substr(comma + 1);
            continue;
        }
        int p = 0;
        CalRow r{};
        if (std::sscanf(line.c_str(), "C,%d,%lf,%lf,%lf", &p, &r.eno3, &r.esw, &r.reference) == 4) {
            cal.rows[p] = r;
        }
    }
    std::sscanf(cal.headers["lambda"].c_str(), "%lf,%lf,%lf,%lf", &cal.lambda_c[0], &cal.lambda_c[1],
                &cal.lambda_c[2], &cal.lambda_c[3]);
    return cal;
}

// The published temperature dependence of seawater's UV absorbance.
double tcomp(double lambda, double t) {
    return (1.1500276 + 0.02840 * t) * std::exp((-0.3101349 + 0.001222 * t) * (lambda - 210.0));
}

class UvsModel : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::set_scenario("uvs.noise", "0"));
        i2c_master::open();
        i2c_master::send(0x20, {0x02, 0x00}); // port 0 low, then outputs
        i2c_master::send(0x20, {0x06, 0x00});
        serial_port::open(2, baud);
        SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOF);
        GPIOPinTypeGPIOOutput(GPIO_PORTF_BASE, GPIO_PIN_4);
        rts(true);
    }
    static void rts(bool on) { GPIOPinWrite(GPIO_PORTF_BASE, GPIO_PIN_4, on ? GPIO_PIN_4 : 0); }
    static void supplies(bool uvs, bool lamp) {
        i2c_master::send(0x20, {0x02, static_cast<uint8_t>((uvs ? 0x40 : 0) | (lamp ? 0x80 : 0))});
    }
    // Supply on and past its 250 ms start; the lamp on and warm when asked for.
    static void ready(bool lamp) {
        supplies(true, lamp);
        sim::test::advance_s(lamp ? 20.0 : 0.3);
    }
    static std::string say(const std::string& text, double seconds = 0.05) {
        return serial_port::say(2, text, seconds);
    }
    static Frame scan(double integration_s = 1.0) { return parse_frame(say("S\r", integration_s + 0.06)); }
    static void set(const std::string& key, const std::string& value) {
        ASSERT_TRUE(sim::test::set_scenario(key, value));
    }
};

TEST_F(UvsModel, AnswersOnlyWhenPoweredStartedAndItsDriverIsOn) {
    EXPECT_EQ(say("V\r"), "") << "supply off";
    supplies(true, false);
    EXPECT_EQ(say("V\r"), "") << "still starting";
    sim::test::advance_s(0.25);
    rts(false);
    EXPECT_EQ(say("V\r"), "") << "RTS low: it hears nothing";
    rts(true);

    serial_port::send(2, "v\r\n");
    uint64_t cr_at = serial_port::sent_at(1, baud);
    std::vector<Rx> rx = serial_port::listen(2, 0.05, 0.0001);
    ASSERT_EQ(serial_port::text(rx), "V,UVS1234,256,1.02\r\n");
    EXPECT_NEAR(double(rx[0].at_ns - cr_at) / 1e6, 2.0, 0.15) << "2 ms after the CR";

    serial_port::send(2, "V\r");
    sim::test::advance_s(0.001);
    rts(false); // the answer is on its way: it reaches nobody, and is not kept for later
    EXPECT_EQ(serial_port::text(serial_port::listen(2, 0.05)), "");
    rts(true);
    EXPECT_EQ(serial_port::text(serial_port::listen(2, 0.05)), "");

    EXPECT_EQ(say("T\r"), "T,20.00\r\n");
    set("board.temp", "-3.456");
    EXPECT_EQ(say("t\r"), "T,-3.46\r\n");
    EXPECT_EQ(say("Hello\r"), "E,Hello\r\n");
    EXPECT_EQ(say("\r"), "E,\r\n");
    EXPECT_EQ(say("abcdefghijklmnopqrstuvwxyz\r"), "E,abcdefghijklmnop\r\n") << "cut at 16";
    EXPECT_EQ(say("I,4\r"), "I,4\r\n");
    EXPECT_EQ(say("i,4000\r"), "I,4000\r\n");
    EXPECT_EQ(say("I,0250\r"), "I,250\r\n");
    for (const char* bad : {"I\r", "I,\r", "I,3\r", "I,4001\r", "I,-5\r", "I,1e3\r", "I,99999999999999\r"}) {
        EXPECT_EQ(say(bad), "E,I\r\n") << bad;
    }
}

// A scan takes the integration time set before it and 5 ms of readout; commands meanwhile are
// refused; a supply cut loses the scan and the integration time.
TEST_F(UvsModel, ScanTimingBusyAndSupplyCut) {
    ready(false);
    ASSERT_EQ(say("I,100\r"), "I,100\r\n");
    serial_port::send(2, "S\r");
    uint64_t cr_at = serial_port::sent_at(1, baud);
    EXPECT_EQ(say("I,200\r", 0.01), "E,BUSY\r\n");
    std::vector<Rx> rx = serial_port::listen(2, 0.2, 0.0001);
    ASSERT_EQ(rx.size(), 518u);
    EXPECT_NEAR(double(rx[0].at_ns - cr_at) / 1e6, 105.0, 0.15);
    EXPECT_NEAR(double(rx.back().at_ns - rx[0].at_ns) / 1e6, 517 * 10000.0 / baud, 0.15);
    Frame f = parse_frame(serial_port::text(rx));
    EXPECT_TRUE(f.whole);
    EXPECT_TRUE(f.checksum_ok);

    serial_port::send(2, "S\r");
    sim::test::advance_s(0.05);
    supplies(false, false);
    EXPECT_EQ(sim::dev::uvs_next_event_ns(), UINT64_MAX) << "an unpowered spectrometer costs no events";
    ready(false);
    EXPECT_EQ(say("V\r", 0.2), "V,UVS1234,256,1.02\r\n") << "the scan is lost, and so is the busy";
    serial_port::send(2, "S\r");
    cr_at = serial_port::sent_at(1, baud);
    rx = serial_port::listen(2, 1.1, 0.0001);
    ASSERT_EQ(rx.size(), 518u);
    EXPECT_NEAR(double(rx[0].at_ns - cr_at) / 1e6, 1005.0, 0.15) << "back to 1000 ms";
}

TEST_F(UvsModel, DarkScanIsDarkPlusSeededNoise) {
    set("uvs.noise", "4");
    ready(false);
    Frame a = scan();
    ASSERT_TRUE(a.whole);
    EXPECT_TRUE(a.checksum_ok);
    double sum = 0;
    double squares = 0;
    for (uint16_t c : a.counts) {
        sum += c;
        squares += (c - dark) * (c - dark);
    }
    EXPECT_NEAR(sum / 256, dark, 1.0);
    EXPECT_NEAR(std::sqrt(squares / 256), 4.0, 0.8);
    Frame b = scan();
    EXPECT_NE(a.counts, b.counts) << "every scan has noise of its own";

    // The same run again repeats the noise exactly; another seed does not.
    for (const char* seed : {"1", "2"}) {
        SetUp();
        set("uvs.noise", "4");
        set("uvs.seed", seed);
        ready(false);
        Frame again = scan();
        if (std::string(seed) == "1") {
            EXPECT_EQ(again.counts, a.counts);
        } else {
            EXPECT_NE(again.counts, a.counts);
        }
    }
}

// Through pure water (as near as the bath goes: the least salt it takes, no nitrate) a warm lamp
// gives dark plus the calibration's reference counts, in proportion to the integration time; the lamp
// warms up with a 0.4 s time constant; a weak lamp gives 5 %, a failed one none.
TEST_F(UvsModel, LightFollowsTheLampAndTheIntegrationTime) {
    Calibration cal = parse_calibration(sim::dev::uvs_calibration_file());
    set("bath.sal", "0.1");
    ready(true);
    Frame f = scan();
    ASSERT_TRUE(f.whole);
    for (int p = 80; p <= 100; ++p) { // above 240 nm, where 0.1 of salinity absorbs nothing
        EXPECT_NEAR(f.counts[p], dark + cal.rows[p].reference, 0.6) << p;
    }
    say("I,500\r");
    f = scan(0.5);
    EXPECT_NEAR(f.counts[100], dark + cal.rows[100].reference / 2, 0.6);
    say("I,4000\r");
    f = scan(4.0);
    EXPECT_EQ(f.counts[100], 65535) << "saturated";
    EXPECT_TRUE(f.checksum_ok);
    say("I,1000\r");

    supplies(true, false);
    sim::test::advance_s(1.0);
    supplies(true, true);
    uint64_t lamp_on = sim::now_ns();
    serial_port::send(2, "S\r");
    double tau_s = double(serial_port::sent_at(1, baud) - lamp_on) / 1e9 + 1.0;
    f = parse_frame(serial_port::text(serial_port::listen(2, 1.06)));
    ASSERT_TRUE(f.whole);
    EXPECT_NEAR((f.counts[100] - dark) / cal.rows[100].reference, 1.0 - std::exp(-tau_s / 0.4), 1e-4);

    sim::test::advance_s(10);
    set("uvs", "lamp-weak");
    f = scan();
    EXPECT_NEAR(f.counts[100], dark + 0.05 * cal.rows[100].reference, 0.6);
    set("uvs", "lamp-fail");
    f = scan();
    EXPECT_EQ(f.counts[100], dark);
    supplies(true, false);
    set("uvs", "present");
    f = scan();
    EXPECT_EQ(f.counts[100], dark) << "lamp supply off";
}

// The key check of the physics: the absorbance the board works out from a frame and the factory
// calibration file is nitrate's plus seawater's at the bath's temperature, nitrate in umol/L by
// the density of seawater.
TEST_F(UvsModel, AbsorbanceIsNitrateAndSeawaterAtTheBathsTemperature) {
    EXPECT_NEAR(sim::dev::seawater_density(0, 5), 999.96675, 1e-5); // UNESCO 1981 check values
    EXPECT_NEAR(sim::dev::seawater_density(35, 5), 1027.67547, 1e-5);
    EXPECT_NEAR(sim::dev::seawater_density(35, 25), 1023.34306, 1e-5);

    Calibration cal = parse_calibration(sim::dev::uvs_calibration_file());
    ready(true);
    struct Bath {
        double t, s, no3_umol_kg;
    };
    for (Bath b : {Bath{20, 35, 0}, Bath{20, 35, 30}, Bath{5, 35, 30}, Bath{25, 20, 45}}) {
        SCOPED_TRACE(std::to_string(b.t) + " degC, S " + std::to_string(b.s) + ", " +
                     std::to_string(b.no3_umol_kg));
        set("bath.temp", std::to_string(b.t));
        set("bath.sal", std::to_string(b.s));
        set("bath.no3", std::to_string(b.no3_umol_kg));
        double no3_umol_l = b.no3_umol_kg * sim::dev::seawater_density(b.s, b.t) / 1000.0;
        Frame f = scan();
        ASSERT_TRUE(f.whole);
        int compared = 0;
        for (const auto& [p, row] : cal.rows) {
            double over_dark = f.counts[p] - dark;
            if (over_dark < 2000) {
                continue; // too little light left to tell the absorbance from the rounding
            }
            double lambda = cal.lambda(p);
            double want = row.eno3 * no3_umol_l + row.esw * b.s * tcomp(lambda, b.t) / tcomp(lambda, 20.0);
            EXPECT_NEAR(-std::log10(over_dark / row.reference), want, 3e-4) << p;
            ++compared;
        }
        EXPECT_GT(compared, 70);
    }
}

TEST_F(UvsModel, FaultyVariants) {
    ready(true);
    set("uvs", "silent");
    EXPECT_EQ(say("V\r") + say("S\r", 1.1), "");
    set("uvs", "none");
    EXPECT_EQ(say("V\r") + say("S\r", 1.1), "");

    set("uvs", "garbage");
    std::string noise = say("V\r");
    EXPECT_GE(noise.size(), 30u);
    for (char c : noise) {
        EXPECT_GE(static_cast<uint8_t>(c), 0x80);
    }
    Frame f = scan();
    EXPECT_TRUE(f.whole);
    EXPECT_FALSE(f.checksum_ok);

    set("uvs", "present");
    serial_port::send(2, "S\r");
    sim::test::advance_s(0.5);
    set("uvs", "none"); // unplugged during the scan: no frame
    EXPECT_EQ(serial_port::text(serial_port::listen(2, 0.6)), "");
}

// The image on the emulated chip reaches the line driver and the port through their registers.
TEST_F(UvsModel, RegisterDoorReachesTheSameModel) {
    ready(false);
    sim::dev::gpio_reg_write(5, GPIO_O_DATA + (GPIO_PIN_4 << 2), 0);
    EXPECT_EQ(say("T\r"), "");
    sim::dev::gpio_reg_write(5, GPIO_O_DATA + (GPIO_PIN_4 << 2), GPIO_PIN_4);
    sim::dev::uart_reg_write(2, UART_O_DR, 'T');
    sim::dev::uart_reg_write(2, UART_O_DR, '\r');
    sim::test::advance_s(0.01);
    std::string got;
    while ((sim::dev::uart_reg_read(2, UART_O_FR) & UART_FR_RXFE) == 0) {
        got.push_back(static_cast<char>(sim::dev::uart_reg_read(2, UART_O_DR)));
    }
    EXPECT_EQ(got, "T,20.00\r\n"); // fits the receive FIFO
}

TEST_F(UvsModel, CalibrationFileIsTheModelsAndGoesOnANewCard) {
    std::string text = sim::dev::uvs_calibration_file();
    EXPECT_EQ(text.rfind("# UV spectrometer calibration, UVS1234\n"
                         "H,serial,UVS1234\n"
                         "H,pixels,256\n"
                         "H,lambda,208.0,0.4,-1e-05,0\n"
                         "H,cal_temp,20.0\n"
                         "H,cal_integration,1000\n"
                         "H,tcomp,1.1500276,0.0284,-0.3101349,0.001222\n"
                         "C,10,5.178567e-03,7.152285e-02,21394.3\n",
                         0),
              0u)
        << text;
    EXPECT_NE(text.find("\nC,55,1.326414e-04,2.603203e-04,28261.5\n"), std::string::npos);
    std::string last = "\nC,100,1.283516e-07,9.595506e-07,31954.8\n";
    EXPECT_EQ(text.substr(text.size() - last.size()), last);
    EXPECT_EQ(parse_calibration(text).rows.size(), 91u);
    EXPECT_EQ(text.find('\r'), std::string::npos);

    std::string image = "/tmp/hxc3-uvs-card-" + std::to_string(getpid()) + ".img";
    ASSERT_TRUE(sim::sd_make_image(image, 64ull << 20, FM_FAT32, {{"UVSCAL.CSV", text}}));
    std::string copy = image + ".csv";
    EXPECT_EQ(std::system(("MTOOLS_SKIP_CHECK=1 mcopy -n -i " + image + " ::UVSCAL.CSV " + copy).c_str()), 0);
    std::ifstream in(copy, std::ios::binary);
    std::ostringstream got;
    got << in.rdbuf();
    EXPECT_EQ(got.str(), text);
    EXPECT_EQ(std::system(("fsck.fat -n " + image + " >/dev/null 2>&1").c_str()), 0);
    unlink(copy.c_str());
    unlink(image.c_str());
}

TEST_F(UvsModel, SupplyOnTimesGoToTheStatsLine) {
    sim::test::advance_s(1.0);
    supplies(true, false);
    sim::test::advance_s(0.5);
    supplies(true, true);
    sim::test::advance_s(0.25);
    supplies(true, false);
    sim::test::advance_s(0.25);
    supplies(false, true);
    sim::test::advance_s(1.0);
    std::vector<std::string> fields;
    std::istringstream line(sim::end_period());
    for (std::string f; std::getline(line, f, ',');) {
        fields.push_back(f);
    }
    ASSERT_EQ(fields.size(), 9u);
    // The I2C transfers take a little time of their own.
    double uvs_ms = std::atof(fields[7].c_str());
    double lamp_ms = std::atof(fields[8].c_str());
    EXPECT_NEAR(uvs_ms, 1000, 1);
    EXPECT_NEAR(lamp_ms, 1250, 1);
}

} // namespace
