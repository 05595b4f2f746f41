// The radiometer model on UART3: a frame a second from one second after the port opens, its channels
// from the bath, no events at all while the port is closed or the instrument is not fitted, frames
// skipped while the receiver is off, the scenario changed while the port is open, and the faulty
// variants.
#include "registers.h"
#include "sim/serial_port.h"

#include "inc/hw_uart.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using serial_port::Rx;

const std::string frame_at_10 = "SATFI40123\t10.0000\t9.5000\t8.0000\t6.0000\r\n";

class OcrModel : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::set_scenario("port3", "ocr"));
    }
    static std::string heard(double seconds) { return serial_port::text(serial_port::listen(3, seconds)); }
    static std::string repeat(const std::string& s, int n) {
        std::string out;
        for (int i = 0; i < n; ++i) {
            out += s;
        }
        return out;
    }
};

TEST_F(OcrModel, StreamsAFrameASecondFromOneSecondAfterThePortOpens) {
    serial_port::open(3, 57600);
    uint64_t opened = sim::now_ns();
    std::vector<Rx> rx = serial_port::listen(3, 3.5);
    ASSERT_EQ(serial_port::text(rx), repeat(frame_at_10, 3));
    size_t n = frame_at_10.size();
    for (int i = 0; i < 3; ++i) {
        double start_ms = double(rx[i * n].at_ns - opened) / 1e6;
        EXPECT_NEAR(start_ms, 1000.0 * (i + 1) + 1, 2.0) << "frame " << i;
    }
    double char_ms = double(rx[n - 1].at_ns - rx[0].at_ns) / double(n - 1) / 1e6;
    EXPECT_NEAR(char_ms, 10000.0 / 57600, 0.02);
}

TEST_F(OcrModel, ChannelsFollowTheLightAndInputIsIgnored) {
    sim::test::set_scenario("bath.light", "2.5");
    serial_port::open(3, 57600);
    serial_port::send(3, "anything\r\n");
    EXPECT_EQ(heard(1.5), "SATFI40123\t2.5000\t2.3750\t2.0000\t1.5000\r\n");
}

TEST_F(OcrModel, NoEventsWhileThePortIsClosed) {
    EXPECT_EQ(sim::devices_next_event_ns(), UINT64_MAX) << "never opened";
    sim::test::advance_s(5);
    serial_port::open(3, 57600);
    EXPECT_EQ(heard(1.5), frame_at_10);
    UARTDisable(UART3_BASE);
    EXPECT_EQ(sim::devices_next_event_ns(), UINT64_MAX) << "closed again";
    sim::test::advance_s(5.3);
    UARTEnable(UART3_BASE);
    uint64_t reopened = sim::now_ns();
    std::vector<Rx> rx = serial_port::listen(3, 1.5);
    ASSERT_EQ(serial_port::text(rx), frame_at_10);
    EXPECT_NEAR(double(rx[0].at_ns - reopened) / 1e6, 1001.0, 2.0) << "a fresh second from the reopening";

    for (const char* other : {"none", "ocr-silent", "optode"}) {
        sim::test::set_scenario("port3", other);
        EXPECT_EQ(sim::devices_next_event_ns(), UINT64_MAX) << other << " on an open port";
    }
}

TEST_F(OcrModel, FramesDueWhileTheReceiverIsOffAreNotSent) {
    serial_port::open(3, 57600);
    uint32_t ctl = sim::dev::uart_reg_read(3, UART_O_CTL);
    sim::dev::uart_reg_write(3, UART_O_CTL, ctl & ~UART_CTL_RXE);
    sim::test::advance_s(2.5);
    sim::dev::uart_reg_write(3, UART_O_CTL, ctl);
    EXPECT_EQ(heard(1.0), frame_at_10) << "the third second's frame only";
}

TEST_F(OcrModel, ScenarioChangesTakeEffectWhileThePortIsOpen) {
    sim::test::set_scenario("port3", "none");
    serial_port::open(3, 57600);
    EXPECT_EQ(heard(2.0), "");
    sim::test::set_scenario("port3", "ocr");
    EXPECT_EQ(heard(1.5), frame_at_10);
    sim::test::set_scenario("port3", "none");
    EXPECT_EQ(heard(2.0), "");
}

TEST_F(OcrModel, FaultyVariants) {
    sim::test::set_scenario("port3", "ocr-garbage");
    serial_port::open(3, 57600);
    std::string noise = heard(2.5);
    EXPECT_EQ(noise.size(), 80u) << "40 bytes a second";
    for (char c : noise) {
        EXPECT_GE(static_cast<uint8_t>(c), 0x80);
    }

    sim::test::reset_board();
    sim::test::set_scenario("port3", "ocr-short");
    serial_port::open(3, 57600);
    EXPECT_EQ(heard(2.5), repeat(frame_at_10.substr(0, frame_at_10.size() / 2), 2));

    sim::test::reset_board();
    sim::test::set_scenario("port3", "ocr-slow");
    serial_port::open(3, 57600);
    EXPECT_EQ(heard(10.9), "");
    EXPECT_EQ(heard(1.0), frame_at_10);

    sim::test::reset_board();
    sim::test::set_scenario("port3", "ocr-silent");
    serial_port::open(3, 57600);
    EXPECT_EQ(heard(2.5), "");
}

TEST_F(OcrModel, AtAnotherRateFramesArriveGarbled) {
    serial_port::open(3, 9600);
    std::string text = heard(1.5);
    EXPECT_EQ(text.size(), frame_at_10.size());
    for (char c : text) {
        EXPECT_GE(static_cast<uint8_t>(c), 0x80);
    }
}

} // namespace
