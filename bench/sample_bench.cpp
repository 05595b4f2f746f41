// Awake time of one sample in virtual milliseconds (exact): the factory configuration without a CTD,
// with each instrument on port 3 or 4 answering and silent (a silent one costs its time-out), and with
// both ports' instruments silent. Next to it the floor that no implementation of the cycle can beat:
// the converter's conversion time at each channel's data rate plus the waits the cycle must keep
// (power-up of the isolated side, the multiplexer and bias-selector settling, the 151 ms settle of
// the housing sensors). The share outside those waits is what the firmware itself costs: SPI and
// I2C transfers, formatting, the console line and, with a CTD, the instrument's wake and reply.
#include "bench_board.h"
#include "sim_test.h"

#include "board/bme280.h"
#include "board/i2c0.h"
#include "board/pcal6416.h"
#include "board/pinmux.h"
#include "records/system.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "measure/sample.h"
#include "measure/pump.h"
#include "ports/uartstdio.h"
#include "storage/i2c_fram.h"

#include <benchmark/benchmark.h>

#include <cstring>

namespace {

// Conversion time of n conversions at a data rate, from the converter's data sheet (cycles of its
// 4.096 MHz oscillator): the first after a register write waits for the digital filter to settle,
// each later one takes one output period.
double conversions_ms(uint32_t n, uint32_t sps) {
    const uint32_t rates[10] = {5, 10, 20, 40, 80, 160, 320, 640, 1000, 2000};
    const double first_cycles[10] = {820265, 412201, 208169, 103106, 52098, 26594, 13314, 6946, 4674, 2370};
    const double next_cycles[10] = {816128, 408064, 204032, 102016, 51008, 25504, 12736, 6368, 4096, 2048};
    if (n == 0) {
        return 0.0;
    }
    int dr = 0;
    for (int i = 0; i < 10; i++) {
        if (rates[i] == sps) {
            dr = i;
        }
    }
    return (first_cycles[dr] + (n - 1) * next_cycles[dr]) / 4096.0;
}

// The floor of the factory configuration as the cycle takes it: the waits it must keep and the
// conversions of every enabled channel.
double floor_ms() {
    const unsigned char* cfg = sys_data.data_cfg;
    // 100 ms after power-up; inside the power-up the 2 ms, 10 ms reset pulse and 20 ms start-up.
    double wait = 100.0 + 2.0 + 10.0 + 20.0;
    double adc = 0.0;
    auto channel = [&](bool on, bool mux_wait, uint32_t trials, uint32_t sps) {
        if (on) {
            wait += mux_wait ? 10.0 : 0.0;
            adc += conversions_ms(trials, sps);
        }
    };
    channel(cfg[CFG_BIAS_BAT_NEG], true, sys_data.Vbias_trials, sys_data.Vbias_sps);
    channel(cfg[CFG_BIAS_BAT_POS], true, sys_data.Vbias_trials, sys_data.Vbias_sps);
    channel(cfg[CFG_I_SUBSTRATE], true, sys_data.Ib_trials, sys_data.Ib_sps);
    channel(cfg[CFG_I_COUNTER], true, sys_data.Ik_trials, sys_data.Ik_sps);
    channel(cfg[CFG_V_COUNTER_ELECT], true, sys_data.Vk_trials, sys_data.Vk_sps);
    channel(cfg[CFG_V_THERMISTOR], false, sys_data.Vtherm_trials, sys_data.Vtherm_sps);
    channel(cfg[CFG_VRSI_BIASED], true, sys_data.Vrsi_trials, sys_data.Vrsi_sps);
    channel(cfg[CFG_VRSI], true, sys_data.Vrsi_trials, sys_data.Vrsi_sps);
    channel(cfg[CFG_VRSE_BIASED], true, sys_data.Vrse_trials, sys_data.Vrse_sps);
    channel(cfg[CFG_VRSE], true, sys_data.Vrse_trials, sys_data.Vrse_sps);
    // The housing sensors wait for 151 ms after power-on; the ADC readings count toward it.
    double after_power_on = wait - (100.0 + 32.0) + adc;
    if (after_power_on < 151.0) {
        wait += 151.0 - after_power_on;
    }
    return wait + adc;
}

struct Setup {
    const char* port3;
    unsigned char uart3_inst;
    const char* port4;
    unsigned char uart4_inst;
};

void sample_once(benchmark::State& state, const Setup& setup) {
    double awake_ms = 0;
    double floor = 0;
    double tx_bytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        sim::test::reset_board();
        sim::test::run(bench::start_board);
        std::memset(&sys_samp, 0, sizeof sys_samp);
        initSysDataVariables();
        sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = 0;
        sys_data.data_cfg[CFG_UART3_INST] = setup.uart3_inst;
        sys_data.data_cfg[CFG_UART4_INST] = setup.uart4_inst;
        if (!sim::test::set_scenario("port3", setup.port3) ||
            !sim::test::set_scenario("port4", setup.port4)) {
            state.SkipWithError("the simulator refused the instrument");
            return;
        }
        pump_var_init();
        floor = floor_ms();
        wait_consoleTx();
        sim::test::clear_console_output();
        uint64_t t0 = sim::now_ns();
        state.ResumeTiming();
        get_sample(1, 0);
        awake_ms = static_cast<double>(sim::now_ns() - t0) / sim::ns_per_ms;
        tx_bytes = static_cast<double>(sim::test::console_output().size());
    }
    state.counters["awake_ms"] = awake_ms;
    state.counters["floor_ms"] = floor;
    state.counters["outside_waits_pct"] = 100.0 * (awake_ms - floor) / awake_ms;
    state.counters["tx_bytes"] = tx_bytes;
}

// The factory configuration: no CTD (port 4 code 5, the configured salinity).
void BM_SampleNoCtd(benchmark::State& state) {
    sample_once(state, {"none", 0, "none", 5});
}
BENCHMARK(BM_SampleNoCtd)->Unit(benchmark::kMillisecond)->Iterations(3);

// An SBE37 on port 4: its 900 ms wake delay and its reply run between the ADC readings.
void BM_SampleSbe37(benchmark::State& state) {
    sample_once(state, {"none", 0, "sbe37", 6});
}
BENCHMARK(BM_SampleSbe37)->Unit(benchmark::kMillisecond)->Iterations(3);

// Each instrument alone, answering and then silent.
const struct {
    const char* name;
    Setup setup;
} instruments[] = {
    {"optode", {"optode", 1, "none", 5}},
    {"optode-silent", {"optode-silent", 1, "none", 5}},
    {"ocr", {"ocr", 2, "none", 5}},
    {"ocr-silent", {"ocr-silent", 2, "none", 5}},
    {"brisa", {"brisa", 3, "none", 5}},
    {"brisa-silent", {"brisa-silent", 3, "none", 5}},
    {"picoph", {"picoph", 4, "none", 5}},
    {"picoph-silent", {"picoph-silent", 4, "none", 5}},
    {"sbe37-silent", {"none", 0, "sbe37-silent", 6}},
    {"aand5860", {"none", 0, "aand5860", 7}},
    {"aand5860-silent", {"none", 0, "aand5860-silent", 7}},
    {"brisa+sbe37", {"brisa", 3, "sbe37", 6}},
    {"all silent: brisa+sbe37", {"brisa-silent", 3, "sbe37-silent", 6}},
};

void BM_SampleInstrument(benchmark::State& state) {
    const auto& inst = instruments[state.range(0)];
    state.SetLabel(inst.name);
    sample_once(state, inst.setup);
}
BENCHMARK(BM_SampleInstrument)
    ->DenseRange(0, sizeof instruments / sizeof instruments[0] - 1)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

} // namespace
