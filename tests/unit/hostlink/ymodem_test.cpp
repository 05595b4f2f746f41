// YMODEM on the console against a peer played by a console script: blocks are built here (with
// their own CRC) and the board's answers are expected byte for byte, so a wrong reply stops the peer.
// Files on the card are read back with mtools.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "board/i2c0.h"
#include "board/pinmux.h"
#include "menus/config_menu.h"

#include "records/system.h"
#include "storage/settings.h"
#include "driverlib/hibernate.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "hostlink/ymodem.h"
#include "ports/uartstdio.h"
#include "runtime.h"
#include "sim_test.h"
#include "storage/calfile.h"
#include "storage/microsd.h"

namespace {

const std::string ACK = "\x06";
const std::string NAK = "\x15";
const std::string EOT = "\x04";
const std::string CAN2 = "\x18\x18";

uint16_t crc_xmodem(const std::string& data) {
    uint16_t crc = 0;
    for (unsigned char c : data) {
        crc ^= static_cast<uint16_t>(c << 8);
        for (int i = 0; i < 8; i++) {
            crc =
                (crc & 0x8000) ? static_cast<uint16_t>((crc << 1) ^ 0x1021) : static_cast<uint16_t>(crc << 1);
        }
    }
    return crc;
}

// A block as it travels: SOH (128) or STX (1024), number, complement, padded data, CRC high byte first.
std::string block(uint8_t num, const std::string& data, size_t size, char pad = '\x1a') {
    std::string body = data;
    body.resize(size, pad);
    uint16_t crc = crc_xmodem(body);
    std::string b;
    b += size == 128 ? '\x01' : '\x02';
    b += static_cast<char>(num);
    b += static_cast<char>(~num);
    b += body;
    b += static_cast<char>(crc >> 8);
    b += static_cast<char>(crc & 0xff);
    return b;
}

std::string header(const std::string& name, const std::string& size) {
    return block(0, name + std::string(1, '\0') + size, 128, '\0');
}

const std::string end_of_batch = block(0, "", 128, '\0');

// Bytes of every value, so that control characters travel inside blocks too.
std::string binary(size_t n, unsigned seed) {
    std::string s;
    for (size_t i = 0; i < n; i++) {
        s += static_cast<char>((i * 7 + seed) & 0xff);
    }
    return s;
}

const char* const cal_text =
    "Sensor_SN,10042\r\nISFET_SN,F2371\r\nISE_SN,E0915\r\nPT_Cal_date,2025-03-14\r\n"
    "k2_C0,-1.045000e-03\r\nk2_C1,2.500000e-06\r\nk2_C2,-7.250000e-08\r\nk2_C3,1.000000e-10\r\n"
    "fP_0,1.000000e+00\r\nfP_1,-2.000000e-02\r\nfP_2,3.000000e-03\r\nfP_3,-4.000000e-04\r\n"
    "fP_4,5.000000e-05\r\nfP_5,-6.000000e-06\r\nfP_6,7.000000e-07\r\nk0_Cal_date,2025-04-01\r\n"
    "k0_HCl,-1.402500e+00\r\nk0_SW,-1.395000e+00\r\nk0std_SW,1.500000e-04\r\nservice_date,2025-05-20\r\n";

// The other end of the line: a console script of sends and expects, with a long wait at its end so
// that it never ends the board's power-on period while the firmware still runs.
class Peer {
  public:
    Peer& send(const std::string& t) { return add(sim::script::Op::send, t, 0); }
    Peer& expect(const std::string& t) { return add(sim::script::Op::expect, t, 0); }
    Peer& wait(double s) { return add(sim::script::Op::wait, "", static_cast<uint64_t>(s * 1e9)); }
    Peer& timeout(double s) { return add(sim::script::Op::timeout, "", static_cast<uint64_t>(s * 1e9)); }

    // The usual opening: expect the first 'C', send block 0, expect its ACK and the 'C' for data.
    Peer& open(const std::string& name, size_t size) {
        return expect("C").send(header(name, std::to_string(size))).expect(ACK + "C");
    }
    Peer& close_file() { return send(EOT).expect(NAK).send(EOT).expect(ACK); }
    Peer& end_batch() { return expect("C").send(end_of_batch).expect(ACK); }

    void start() {
        wait(3600);
        script_.name = "peer";
        sim::script::reset(sim::shared().script);
        sim::script::State& st = sim::shared().script;
        st.timeout_ns = 30 * sim::ns_per_s;
        sim::set_script(&script_);
    }
    // Every expect matched: the script stands at its final wait.
    bool done() const {
        const sim::script::State& st = sim::shared().script;
        return !st.failed && st.cursor + 1 == script_.commands.size();
    }

  private:
    Peer& add(sim::script::Op op, const std::string& text, uint64_t ns) {
        script_.commands.push_back(sim::script::Command{op, 0, text, "", ns});
        return *this;
    }
    sim::script::Script script_;
};

void start_board(void) {
    SysCtlClockSet(SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
    init_TM4C123GH6PM_64pin();
    SysCtlPeripheralEnable(SYSCTL_PERIPH_EEPROM0); // as retrieveSysDataVariables opens it
    SysTickPeriodSet(SysCtlClockGet() / 1000);
    SysTickIntEnable();
    SysTickEnable();
    IntMasterEnable();
    i2c0_init(0);
}

uint32_t g_mode;
int32_t g_result;

std::string field(const unsigned char* f) {
    return std::string(reinterpret_cast<const char*>(f));
}

class YModem : public ::testing::Test {
  protected:
    std::string dir;
    std::string image;

    void SetUp() override {
        sim::test::reset_board();
        ASSERT_TRUE(sim::test::run(start_board).returned);
        memset(&sys_data, 0, sizeof sys_data);
        memset(&sys_samp, 0, sizeof sys_samp); // no FRAM on this bench: sys_samp is never written
        sys_data.baud_rate = 115200;
        char name[] = "/tmp/hxc3-ymodem-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
        image = dir + "/card.img";
        ASSERT_EQ(system(("mkfs.fat -C -F 32 " + image + " 65536 >/dev/null").c_str()), 0);
        sim::sd_set_image(image);
        ASSERT_EQ(init_uSDCard(), 0u);
        microSD_flg = 1;
        calFileFlg = 0;
        sim::test::clear_console_output();
    }
    void TearDown() override {
        sim::set_script(nullptr);
        f_unmount("");
        sim::sd_set_image("");
        microSD_flg = 0;
        if (!dir.empty()) {
            EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
        }
    }

    static int32_t receive(uint32_t mode) {
        g_mode = mode;
        g_result = 99;
        EXPECT_TRUE(sim::test::run([] { g_result = ymodem_receive(g_mode); }).returned);
        return g_result;
    }
    static int32_t send_data_file() {
        g_result = 99;
        EXPECT_TRUE(sim::test::run([] {
                        cmd_ymodem_send(3);
                        g_result = 0;
                    }).returned);
        return g_result;
    }
    static std::string out() {
        sim::test::drain_console();
        return sim::test::console_output();
    }
    static double now_s() { return static_cast<double>(sim::now_ns()) / 1e9; }

    // A card file as mtools reads it; "<missing>" when it is not there.
    std::string card_file(const std::string& name) {
        std::string host = dir + "/read";
        unlink(host.c_str());
        std::string cmd =
            "MTOOLS_SKIP_CHECK=1 mcopy -n -i " + image + " ::/" + name + " " + host + " 2>/dev/null";
        if (system(cmd.c_str()) != 0) {
            return "<missing>";
        }
        FILE* f = fopen(host.c_str(), "rb");
        std::string s;
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
            s.append(buf, n);
        }
        fclose(f);
        return s;
    }
    void put_file(const std::string& name, const std::string& content) {
        std::string host = dir + "/upload";
        FILE* f = fopen(host.c_str(), "wb");
        fwrite(content.data(), 1, content.size(), f);
        fclose(f);
        f_unmount("");
        ASSERT_EQ(system(("MTOOLS_SKIP_CHECK=1 mcopy -o -i " + image + " " + host + " ::/" + name).c_str()),
                  0);
        ASSERT_EQ(init_uSDCard(), 0u);
    }
    // The console answers typed lines again: echo on, nothing stale in front of the line.
    static void expect_console_responsive() {
        sim::test::clear_console_output();
        sim::test::type("abc\r");
        static char line[16];
        ASSERT_TRUE(sim::test::run([] { UARTgets(line, sizeof line); }).returned);
        EXPECT_STREQ(line, "abc");
        EXPECT_EQ(out(), "abc\r\n");
    }
};

// ---------------------------------------------------------------- receiving to the card

TEST_F(YModem, BatchOfTwoFilesInLongAndShortBlocksLandsOnTheCardCutToTheirSizes) {
    std::string first = binary(1024 + 128 + 100, 3);
    std::string second = "time,pH\r\n1,8.01\r\n";
    Peer peer;
    peer.open("DATA.BIN", first.size())
        .send(block(1, first.substr(0, 1024), 1024))
        .expect(ACK)
        .send(block(2, first.substr(1024, 128), 128))
        .expect(ACK)
        .send(block(3, first.substr(1152), 128))
        .expect(ACK)
        .close_file()
        // A long name with a blank: shortened to 8.3 on the card. Size, date and mode as lrzsz sends them.
        .expect("C")
        .send(header("dir/run log 2026.csv", std::to_string(second.size()) + " 15133427760 100644 0 1 17"))
        .expect(ACK + "C")
        .send(block(1, second, 1024))
        .expect(ACK)
        .close_file()
        .end_batch();
    peer.start();

    EXPECT_EQ(receive(YMODEM_TO_CARD), static_cast<int32_t>(first.size()));
    EXPECT_TRUE(peer.done());
    EXPECT_NE(out().find("ymodem: received DATA.BIN, 1252 bytes (and 1 more files)\r\n"), std::string::npos);
    f_unmount("");
    EXPECT_EQ(card_file("DATA.BIN"), first);
    EXPECT_EQ(card_file("RUN_LOG_.CSV"), second);
    EXPECT_EQ(card_file("~YMODEM.TMP"), "<missing>");
}

// A name too long to keep keeps its extension: a long-named calibration file is still loaded, and
// a file that arrives whole replaces the one of its name.
TEST_F(YModem, ALongNameKeepsItsExtensionAndAWholeFileReplacesItsNamesake) {
    put_file("REPLACED.TXT", "old text\r\n");
    const std::string cal = cal_text;
    const std::string long_name = std::string(70, 'f') + ".cal";
    Peer peer;
    peer.open(long_name, cal.size())
        .send(block(1, cal.substr(0, 128), 128))
        .expect(ACK)
        .send(block(2, cal.substr(128), 1024))
        .expect(ACK)
        .close_file()
        .open("replaced.txt", 9)
        .send(block(1, "new text\n", 128))
        .expect(ACK)
        .close_file()
        .end_batch();
    peer.start();
    EXPECT_GT(receive(YMODEM_TO_CARD), 0);
    EXPECT_TRUE(peer.done());
    std::string o = out();
    EXPECT_NE(o.find("calibration loaded"), std::string::npos) << o;
    EXPECT_FLOAT_EQ(sys_data.k0_HCL, -1.4025f);
    f_unmount("");
    EXPECT_EQ(card_file("FFFFFFFF.CAL"), cal);
    EXPECT_EQ(card_file("REPLACED.TXT"), "new text\n");
}

TEST_F(YModem, DamagedRepeatedAndCutBlocksAreAskedForAgainAndKeptOnce) {
    std::string data = binary(256, 11);
    std::string b1 = block(1, data.substr(0, 128), 128);
    std::string bad_crc = b1;
    bad_crc[100] ^= 0x40;
    std::string bad_complement = b1;
    bad_complement[2] = 0x00;
    Peer peer;
    peer.open("TWO.BIN", data.size())
        .send(bad_crc)
        .expect(NAK)
        .send(bad_complement)
        .expect(NAK)
        .send(b1.substr(0, 60)) // the sender stalls inside the block
        .expect(NAK)
        .send(b1)
        .expect(ACK)
        .send(b1) // as if the ACK had been lost
        .expect(ACK)
        .send(block(2, data.substr(128), 128))
        .expect(ACK)
        .close_file()
        .end_batch();
    peer.start();

    EXPECT_EQ(receive(YMODEM_TO_CARD), 256);
    EXPECT_TRUE(peer.done());
    f_unmount("");
    EXPECT_EQ(card_file("TWO.BIN"), data);
}

// ---------------------------------------------------------------- ending early

// A file the transfer was to replace stays as it was, and nothing of the transfer stays behind.
TEST_F(YModem, SenderCancellingLeavesNoPartialFileAndAResponsiveConsole) {
    put_file("PART.BIN", "the file before\r\n");
    Peer peer;
    peer.open("PART.BIN", 2048).send(block(1, binary(1024, 1), 1024)).expect(ACK).send(CAN2);
    peer.start();

    EXPECT_EQ(receive(YMODEM_TO_CARD), YMODEM_CANCELLED);
    EXPECT_TRUE(peer.done());
    EXPECT_NE(out().find("\r\nymodem: cancelled\r\n"), std::string::npos);
    f_unmount("");
    EXPECT_EQ(card_file("PART.BIN"), "the file before\r\n");
    EXPECT_EQ(card_file("~YMODEM.TMP"), "<missing>");
    ASSERT_EQ(system(("MTOOLS_SKIP_CHECK=1 mdel -i " + image + " ::/PART.BIN").c_str()), 0);
    expect_console_responsive();

    SCOPED_TRACE("CANs inside a block that then stops, as lrzsz cancels");
    ASSERT_EQ(init_uSDCard(), 0u);
    sim::test::clear_console_output();
    Peer again;
    again.open("PART.BIN", 2048)
        .send(block(1, binary(1024, 1), 1024).substr(0, 300) + std::string(10, '\x18') +
              std::string(10, '\b'))
        .expect("ymodem: cancelled\r\n");
    again.start();
    double start = now_s();
    EXPECT_EQ(receive(YMODEM_TO_CARD), YMODEM_CANCELLED);
    EXPECT_TRUE(again.done());
    EXPECT_LT(now_s() - start, 3.0);
    f_unmount("");
    EXPECT_EQ(card_file("PART.BIN"), "<missing>");

    SCOPED_TRACE("CANs written between two pieces of a block, which then completes the frame");
    ASSERT_EQ(init_uSDCard(), 0u);
    sim::test::clear_console_output();
    const std::string whole = block(1, binary(1024, 1), 1024);
    Peer third;
    third.open("PART.BIN", 2048)
        .send(whole.substr(0, 300) + std::string(10, '\x18') + std::string(10, '\b') + whole.substr(300))
        .expect("ymodem: cancelled\r\n");
    third.start();
    EXPECT_EQ(receive(YMODEM_TO_CARD), YMODEM_CANCELLED);
    EXPECT_TRUE(third.done());
    f_unmount("");
    EXPECT_EQ(card_file("PART.BIN"), "<missing>");
}

TEST_F(YModem, CtrlCWhileWaitingForTheSenderCancelsAtOnce) {
    Peer peer;
    peer.expect("C").wait(2.5).send("\x03").expect(CAN2 + "\r\nymodem: cancelled\r\n");
    peer.start();

    EXPECT_EQ(receive(YMODEM_TO_CARD), YMODEM_CANCELLED);
    EXPECT_TRUE(peer.done());
    EXPECT_LT(now_s(), 5.0);
    // Three 'C's went out, one a second, before the Ctrl-C.
    std::string o = out();
    EXPECT_EQ(o.substr(0, 3), "CCC");
    expect_console_responsive();
}

TEST_F(YModem, SilenceEndsTheWaitForASenderAndAStalledTransfer) {
    {
        SCOPED_TRACE("nobody starts a sender");
        EXPECT_EQ(receive(YMODEM_TO_CARD), YMODEM_TIMEOUT);
        std::string o = out();
        EXPECT_EQ(o.substr(0, YMODEM_START_WAIT_S), std::string(YMODEM_START_WAIT_S, 'C'));
        EXPECT_NE(o.find("ymodem: no sender, transfer ended\r\n"), std::string::npos);
        EXPECT_NEAR(now_s(), YMODEM_START_WAIT_S, 2.0);
    }
    {
        SCOPED_TRACE("the sender goes silent after block 1");
        sim::test::clear_console_output();
        Peer peer;
        peer.open("STALL.BIN", 2048).send(block(1, binary(1024, 2), 1024)).expect(ACK);
        peer.start();
        double start = now_s();
        EXPECT_EQ(receive(YMODEM_TO_CARD), YMODEM_TIMEOUT);
        EXPECT_TRUE(peer.done());
        // Ten waits of ten seconds, nine NAKs between them.
        EXPECT_NEAR(now_s() - start, 100.0, 5.0);
        std::string o = out();
        EXPECT_NE(o.find(ACK + std::string(9, '\x15') + CAN2), std::string::npos);
        EXPECT_NE(o.find("ymodem: the sender went silent, transfer ended\r\n"), std::string::npos);
        f_unmount("");
        EXPECT_EQ(card_file("STALL.BIN"), "<missing>");
    }
}

TEST_F(YModem, RefusalsWithoutACardOutOfSequenceAndTooLargeForMemory) {
    {
        SCOPED_TRACE("no card");
        microSD_flg = 0;
        EXPECT_EQ(receive(YMODEM_TO_CARD), YMODEM_FAILED);
        EXPECT_EQ(out(), "ymodem: no microSD card, nothing received\r\n");
        microSD_flg = 1;
    }
    {
        SCOPED_TRACE("a block skipped");
        sim::test::clear_console_output();
        Peer peer;
        peer.open("SKIP.BIN", 512).send(block(2, "x", 128)).expect(CAN2);
        peer.start();
        EXPECT_EQ(receive(YMODEM_TO_CARD), YMODEM_FAILED);
        EXPECT_TRUE(peer.done());
        EXPECT_NE(out().find("ymodem: block out of sequence, transfer ended\r\n"), std::string::npos);
    }
    {
        SCOPED_TRACE("larger than the memory buffer");
        sim::test::clear_console_output();
        calFileFlg = 1;
        Peer peer;
        peer.expect("C").send(header("BIG.CAL", "4096")).expect(CAN2);
        peer.start();
        EXPECT_EQ(receive(YMODEM_TO_MEMORY), YMODEM_FAILED);
        EXPECT_TRUE(peer.done());
        EXPECT_EQ(calFileFlg, 0u);
        EXPECT_NE(out().find("ymodem: BIG.CAL is too large for memory, transfer ended\r\n"),
                  std::string::npos);
        EXPECT_EQ(field(sys_data.cal_filename), "");
    }
}

// ---------------------------------------------------------------- the calibration menu entry

// The operator answers yes and the terminal sends text (at least 129 bytes) as one file. The caller
// owns the peer: the simulation keeps playing its script after this returns.
void import_over_ymodem(Peer& peer, const char* name, const std::string& text) {
    peer.expect("[N]?")
        .send("y\r")
        .expect("*.cal file\r\n")
        .open(name, text.size())
        .send(block(1, text.substr(0, 128), 128))
        .expect(ACK)
        .send(block(2, text.substr(128), 1024))
        .expect(ACK)
        .close_file()
        .end_batch();
    peer.start();
    ASSERT_TRUE(sim::test::run(import_ymodem_cal_coeff).returned);
    EXPECT_TRUE(peer.done());
}

TEST_F(YModem, MenuImportTakesTheFileIntoMemoryWhateverItsName) {
    microSD_flg = 0; // memory mode needs no card
    Peer peer;
    import_over_ymodem(peer, "factory.txt", cal_text);
    std::string o = out();
    EXPECT_EQ(o.rfind("Transfer Cal file via Teraterm YMODEM? (Y/N) [N]?", 0), 0u);
    EXPECT_NE(o.find("OK!  Calling ymodem_receive...(Ctrl-C to cancel)\r\n"
                     "TeraTerm: File->Transfer->Ymodem->Send *.cal file\r\n"),
              std::string::npos);
    EXPECT_EQ(o.find("Note:"), std::string::npos);
    EXPECT_EQ(o.substr(o.size() - 4), "\r\n\r\n");
    EXPECT_EQ(field(sys_data.cal_filename), "factory.txt");
    EXPECT_EQ(field(sys_data.k0_Cal_date), "2025-04-01");
    EXPECT_FLOAT_EQ(sys_data.k0_HCL, -1.4025f);
    EXPECT_EQ(calFileFlg, 0u);
}

// A received file that is not a whole calibration is refused: the transfer itself succeeds, but the
// stored calibration and its file name stay as they were and nothing claims it was loaded.
TEST_F(YModem, MenuImportRefusesAFileThatIsNotAWholeCalibration) {
    microSD_flg = 0;
    memcpy(sys_data.cal_filename, "DF384.cal", 10);
    sys_data.k0_HCL = -1.5f;
    std::string text = cal_text;
    text.replace(text.find("k2_C1,"), 6, "k2-C1,");
    Peer peer;
    import_over_ymodem(peer, "shifted.cal", text);
    std::string o = out();
    EXPECT_NE(o.find("Calibration file refused: line 6 \"k2-C1,2.500000e-06\" is not \"k2_C1,value\""),
              std::string::npos)
        << o;
    EXPECT_EQ(o.find("calibration loaded"), std::string::npos);
    EXPECT_EQ(field(sys_data.cal_filename), "DF384.cal");
    EXPECT_EQ(sys_data.k0_HCL, -1.5f);
    EXPECT_EQ(field(sys_data.sensor_SN), "");
}

TEST_F(YModem, MenuImportAtASlowRateWaitsSixteenSecondsAfterACancel) {
    sys_data.baud_rate = 9600;
    Peer peer;
    peer.expect("[N]?").send("y\r").expect("workaround\r\nC").send("\x03");
    peer.start();
    ASSERT_TRUE(sim::test::run(import_ymodem_cal_coeff).returned);
    EXPECT_TRUE(peer.done());
    double end = now_s();
    std::string o = out();
    EXPECT_NE(o.find("   Note: 15 sec delay after transfer for slow baud ymodem workaround\r\n"),
              std::string::npos);
    std::string delays;
    for (int i = 0; i < 8; i++) {
        delays += "   delay...\r\n";
    }
    EXPECT_NE(o.find("ymodem: cancelled\r\n" + delays + "\r\n\r\n"), std::string::npos);
    EXPECT_GT(end, 16.0);
    EXPECT_EQ(calFileFlg, 0u);

    {
        SCOPED_TRACE("answered no");
        sim::test::clear_console_output();
        sim::test::type("n\r");
        ASSERT_TRUE(sim::test::run(import_ymodem_cal_coeff).returned);
        EXPECT_EQ(out(), "Transfer Cal file via Teraterm YMODEM? (Y/N) [N]?n\r\n");
    }
}

// ---------------------------------------------------------------- sending

TEST_F(YModem, DataFileGoesOutInBlocksWithItsNameAndSize) {
    std::string data = binary(1024 + 1024 + 100, 5);
    put_file("DATA.TXT", data);
    memcpy(sys_data.fileName, "DATA.TXT", 9);
    // Size, then the time of sending in octal seconds.
    char size_time[32];
    snprintf(size_time, sizeof size_time, "2148 %lo", static_cast<unsigned long>(HibernateRTCGet()));
    Peer peer;
    peer.expect("(Ctrl-C to cancel)\r\n")
        .send("C")
        .expect(header("DATA.TXT", size_time))
        .send(ACK + "C")
        .expect(block(1, data.substr(0, 1024), 1024))
        .send(NAK) // asked again
        .expect(block(1, data.substr(0, 1024), 1024))
        .send(ACK)
        .expect(block(2, data.substr(1024, 1024), 1024))
        .send(ACK)
        .expect(block(3, data.substr(2048), 128))
        .send(ACK)
        .expect(EOT)
        .send(NAK)
        .expect(EOT)
        .send(ACK + "C")
        .expect(end_of_batch)
        // No ACK: rb flushes its line as it exits, and the ACK can be lost on the way.
        .expect("ymodem: sent DATA.TXT, 2148 bytes\r\n");
    peer.start();
    EXPECT_EQ(send_data_file(), 0);
    EXPECT_TRUE(peer.done());
    EXPECT_EQ(out().rfind("ymodem send not parsing filename yet, serial_cmd_fxn\r\n"
                          "ymodem: sending DATA.TXT, 2148 bytes",
                          0),
              0u);
}

TEST_F(YModem, SendEndsCleanlyWhenTheFileIsMissingOrTheReceiverCancels) {
    memcpy(sys_data.fileName, "NONE.TXT", 9);
    EXPECT_EQ(ymodem_send("ys"), YMODEM_FAILED);
    EXPECT_EQ(out(), "ymodem: cannot open NONE.TXT: FR_NO_FILE\r\n");

    put_file("LOG.TXT", binary(3000, 9));
    sim::test::clear_console_output();
    Peer peer;
    peer.expect("(Ctrl-C to cancel)\r\n")
        .send("C")
        .expect(std::string("\x01\x00\xffLOG.TXT\0", 11))
        .send(ACK + "C")
        .expect("\x02\x01\xfe")
        .send(CAN2);
    peer.start();
    g_result = 99;
    ASSERT_TRUE(sim::test::run([] { g_result = ymodem_send("LOG.TXT"); }).returned);
    EXPECT_EQ(g_result, YMODEM_CANCELLED);
    EXPECT_TRUE(peer.done());
    EXPECT_NE(out().find("\r\nymodem: cancelled\r\n"), std::string::npos);
    expect_console_responsive();
}

} // namespace
