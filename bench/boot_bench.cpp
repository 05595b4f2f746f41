// Start-up and idle-session figures: how long the board is awake and how much it says, in virtual
// time (exact), and how fast the simulator plays it (wall time).
#include "sim_test.h"

#include <benchmark/benchmark.h>

int hxc3_main(void);

namespace {

// A new board boots, serves an idle session for 100 s and hibernates.
void BM_FirstBootIdleSession(benchmark::State& state) {
    double awake_ms = 0;
    double tx_bytes = 0;
    for (auto _ : state) {
        sim::test::reset_board();
        sim::test::run([] { hxc3_main(); });
        awake_ms = static_cast<double>(sim::now_ns()) / sim::ns_per_ms;
        tx_bytes = static_cast<double>(sim::test::console_output().size());
    }
    state.counters["awake_ms"] = awake_ms;
    state.counters["tx_bytes"] = tx_bytes;
    state.counters["virtual_s_per_wall_s"] =
        benchmark::Counter(awake_ms / 1000.0 * state.iterations(), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FirstBootIdleSession)->Unit(benchmark::kMillisecond);

// The second boot of the same board: records are valid, so no defaults are written.
void BM_SecondBootIdleSession(benchmark::State& state) {
    double awake_ms = 0;
    for (auto _ : state) {
        state.PauseTiming();
        sim::test::reset_board();
        sim::test::run([] { hxc3_main(); });
        uint64_t start = sim::now_ns();
        sim::test::clear_console_output();
        state.ResumeTiming();
        sim::test::run([] { hxc3_main(); });
        awake_ms = static_cast<double>(sim::now_ns() - start) / sim::ns_per_ms;
    }
    state.counters["awake_ms"] = awake_ms;
}
BENCHMARK(BM_SecondBootIdleSession)->Unit(benchmark::kMillisecond);

} // namespace
