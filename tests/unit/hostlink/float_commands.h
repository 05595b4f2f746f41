// The fixtures of the float-command tests: a started board with the float record at its defaults,
// a handler run on a line as the receive machine leaves it, the console output it sent and the
// record in FRAM; and the same board with a card.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <unistd.h>
#include <vector>

#include "board/bme280.h"
#include "board/i2c0.h"
#include "board/pcal6416.h"
#include "board/pinmux.h"
#include "board/board_util.h"

#include "records/system.h"
#include "driverlib/hibernate.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "storage/apf_vars.h"
#include "hostlink/apf_cmd.h"
#include "hostlink/serial.h"
#include "measure/apf_math.h"
#include "measure/sample.h"
#include "records/sample.h"
#include "measure/pump.h"
#include "ports/uartstdio.h"
#include "sim_test.h"
#include "test_board.h"
#include "spectrometer/uvs.h"
#include "storage/i2c_fram.h"
#include "storage/microsd.h"

namespace float_test {

using test_board::run_shell;

constexpr uint32_t T0 = 1767225600; // 2026-01-01 00:00:00 UTC

inline std::vector<std::string> split(const std::string& text, char sep) {
    std::vector<std::string> parts;
    size_t from = 0;
    for (;;) {
        size_t at = text.find(sep, from);
        parts.push_back(text.substr(from, at - from));
        if (at == std::string::npos) {
            return parts;
        }
        from = at + 1;
    }
}

class FloatCommands : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        sim::test::reset_board(T0);
        memset(&sys_data, 0, sizeof sys_data);
        memset(&sys_samp, 0, sizeof sys_samp);
        memset(&sampl, 0, sizeof sampl);
        memset(&apf, 0, sizeof apf);
        memset(prnBuf, 0, sizeof prnBuf);
        microSD_flg = 0;
        dbg_flag = 0;
        uvs_cal_state = UvsCalState::not_loaded;
        Zcoefs = 0;
        ASSERT_TRUE(sim::test::run(test_board::start_board_with_sensors).returned);
        sys_data.baud_rate = 115200;
        initSysDataVariables();
        sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 0;
        sys_samp.initNum = SYS_SAMP_INIT_NUM;
        sys_samp.current_sample = 41;
        pump_var_init();
        SetSysDefaultsIntoNVRAM();
        SetIsusDefaultsIntoNVRAM();
        SetDuraDefaultsIntoNVRAM();
        fram_apf_vars_store();
        clear_out();
    }
    static std::string out() {
        wait_consoleTx();
        return sim::test::console_output();
    }
    static void clear_out() {
        wait_consoleTx();
        sim::test::clear_console_output();
    }
    // The line as the receive machine leaves it: lower case, NUL-terminated, indx its length.
    static void line(const char* text) {
        memset(rx0.buf, 0, sizeof rx0.buf);
        size_t n = strnlen(text, sizeof rx0.buf - 1);
        for (size_t i = 0; i < n; i++) {
            rx0.buf[i] = static_cast<uint8_t>(tolower(static_cast<unsigned char>(text[i])));
        }
        rx0.indx = static_cast<uint32_t>(n);
    }
    // Runs a handler on a line and returns what it sent.
    static std::string reply(void (*handler)(), const char* text = "") {
        line(text);
        clear_out();
        handler();
        return out();
    }
    static apfGlobals stored() {
        apfGlobals a;
        memcpy(&a, sim::fram_bytes() + FRAM_APF_ADDR, sizeof a);
        return a;
    }
    static bool record_stored() {
        apfGlobals a = stored();
        return memcmp(&a, &apf, sizeof a) == 0;
    }
};

class FloatCommandsOnCard : public FloatCommands {
  protected:
    std::string image;

    void SetUp() override {
        FloatCommands::SetUp();
        image = test_board::make_card_image("apf");
        ASSERT_FALSE(image.empty());
        sim::sd_set_image(image);
        ASSERT_EQ(init_uSDCard(), 0u);
        microSD_flg = 1;
        sys_data.data_cfg[CFG_SAMPLE_NUM] = 1;
        apf.sys_sensor_mode = 2;
        clear_out();
    }
    void TearDown() override {
        f_unmount("");
        sim::sd_set_image("");
        unlink(image.c_str());
    }
    std::string card_file(const char* name) const {
        return run_shell("MTOOLS_SKIP_CHECK=1 mtype -i " + image + " ::" + name + " 2>/dev/null");
    }
    // One pH sample; returns its reply.
    static std::string sample() {
        clear_out();
        apf_take_sample_pH();
        return out();
    }
};

} // namespace float_test
