// One nitrate sample as the float asks for it ("T1"), in virtual time on the simulated board with
// the factory settings: the board's awake time, how long the spectrometer and its lamp were powered,
// and the energy under a stated current model (all from 12 V): the board awake 50 mA (what the
// simulated INA260 reports), the spectrometer 60 mA while powered, its deuterium lamp 500 mA while
// on. The figures are exact and repeatable; the model is an assumption to replace with measured
// currents.
#include "devices.h"
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
#include "storage/apf_vars.h"
#include "hostlink/apf_cmd.h"
#include "measure/sample.h"
#include "ports/uartstdio.h"
#include "spectrometer/uvs.h"
#include "storage/fatfs/ff.h"
#include "storage/i2c_fram.h"
#include "storage/microsd.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr double supply_v = 12.0;
constexpr double board_a = 0.050;
constexpr double spectrometer_a = 0.060;
constexpr double lamp_a = 0.500;

void BM_NitrateSample(benchmark::State& state) {
    char name[] = "/tmp/hxc3-bench-no3-XXXXXX";
    int fd = mkstemp(name);
    if (fd < 0) {
        state.SkipWithError("no card image");
        return;
    }
    close(fd);
    sim::test::reset_board();
    if (!sim::sd_make_image(name, 64ull << 20, FM_FAT32,
                            {{"UVSCAL.CSV", sim::dev::uvs_calibration_file()}})) {
        state.SkipWithError("cannot format the card image");
        return;
    }
    sim::sd_set_image(name);
    sim::test::run(bench::start_board);
    initSysDataVariables();
    SetDefaultsIntoNVRAM();
    init_uSDCard();
    microSD_flg = 1;
    apf.sys_sensor_mode = 1;
    apf.CTD_Time = 1767225500;
    apf.CTD_Temp = 10.0f;
    apf.CTD_Salinity = 35.0f;
    apf.CTD_Depth = 500.0f;
    sim::test::set_scenario("bath.no3", "20");
    double awake_ms = 0;
    double uvs_ms = 0;
    double lamp_ms = 0;
    for (auto _ : state) {
        wait_consoleTx();
        sim::test::clear_console_output();
        sim::stats() = sim::PeriodStats{};
        uint64_t t0 = sim::now_ns();
        sim::test::run(apf_take_sample_nitrate);
        wait_consoleTx();
        uint64_t now = sim::now_ns();
        awake_ms = static_cast<double>(now - t0) / sim::ns_per_ms;
        uvs_ms = static_cast<double>(sim::on_time_ns(sim::stats().uvs_supply, now)) / sim::ns_per_ms;
        lamp_ms = static_cast<double>(sim::on_time_ns(sim::stats().lamp_supply, now)) / sim::ns_per_ms;
    }
    if (sim::test::console_output().rfind("0xFFFF,NO3,", 0) != 0) {
        state.SkipWithError(sim::test::console_output().c_str());
    }
    state.counters["awake_ms"] = awake_ms;
    state.counters["spectrometer_ms"] = uvs_ms;
    state.counters["lamp_ms"] = lamp_ms;
    state.counters["energy_J"] =
        supply_v * (board_a * awake_ms + spectrometer_a * uvs_ms + lamp_a * lamp_ms) / 1000.0;
    f_unmount("");
    sim::sd_set_image("");
    unlink(name);
}
BENCHMARK(BM_NitrateSample)->Unit(benchmark::kMillisecond)->Iterations(1);

} // namespace
