// The target image on the emulated chip against the host-compiled firmware, both run by hxc3-sim
// as a user runs them: wall time to the first prompt, wall time of a virtual day of 15-minute
// samples (and so of one sample), virtual milliseconds awake per scheduled sample in each build (the
// difference is a timing fault in one of them when it passes 2 %), and the image's stack high-water
// mark from --stats.
#include "sim_stats.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

const std::string sim_binary = HXC3_SIM_BINARY;
const std::string image = HXC3_TARGET_IMAGE;
const std::string scripts = HXC3_SYSTEM_SCRIPTS;

struct Period {
    std::string wake;
    double awake_ms;
    double stack_bytes;
};

std::vector<Period> read_stats(const std::string& path) {
    std::vector<Period> periods;
    for (const std::vector<std::string>& f : read_stats_rows(path)) {
        if (f.size() >= 3) {
            double stack = f.size() >= 7 && !f[6].empty() ? std::atof(f[6].c_str()) : 0.0;
            periods.push_back(Period{f[1], std::atof(f[2].c_str()), stack});
        }
    }
    return periods;
}

// Runs one script on a new board; returns the wall seconds, or a negative value when it failed.
double run_script(const std::string& script, bool on_image, const std::string& stats) {
    char dir[] = "/tmp/hxc3-bench.XXXXXX";
    if (!mkdtemp(dir)) {
        return -1;
    }
    std::string cmd = sim_binary + " --board " + dir +
                      "/board --quiet --time '2026-01-01 00:00:00' --script " + scripts + "/" + script +
                      " --stats " + stats + " 2>/dev/null";
    if (on_image) {
        cmd += " --image " + image;
    }
    auto t0 = std::chrono::steady_clock::now();
    int status = std::system(cmd.c_str());
    auto t1 = std::chrono::steady_clock::now();
    std::system((std::string("rm -rf ") + dir).c_str());
    if (status != 0) {
        return -1;
    }
    return std::chrono::duration<double>(t1 - t0).count();
}

double median_rtc_awake(const std::vector<Period>& periods) {
    std::vector<double> v;
    for (const Period& p : periods) {
        if (p.wake == "rtc") {
            v.push_back(p.awake_ms);
        }
    }
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void BM_ImageBootToPrompt(benchmark::State& state) {
    double wall = 0;
    for (auto _ : state) {
        wall = run_script("first_boot.sim", true, "/tmp/hxc3-bench-boot.csv");
        if (wall < 0) {
            state.SkipWithError("hxc3-sim --image failed");
            return;
        }
    }
    state.counters["wall_s"] = wall;
    std::remove("/tmp/hxc3-bench-boot.csv");
}
BENCHMARK(BM_ImageBootToPrompt)->Unit(benchmark::kMillisecond)->Iterations(1);

// deploy_day: a deployment started from the menu, 96 samples at 900 s, then a pin wake and stop.
void BM_ImageDayAt900s(benchmark::State& state) {
    const std::string image_stats = "/tmp/hxc3-bench-day-image.csv";
    const std::string host_stats = "/tmp/hxc3-bench-day-host.csv";
    double image_wall = 0;
    double host_wall = 0;
    for (auto _ : state) {
        std::remove(image_stats.c_str());
        std::remove(host_stats.c_str());
        image_wall = run_script("deploy_day.sim", true, image_stats);
        host_wall = run_script("deploy_day.sim", false, host_stats);
        if (image_wall < 0 || host_wall < 0) {
            state.SkipWithError("deploy_day failed");
            return;
        }
    }
    std::vector<Period> image_periods = read_stats(image_stats);
    std::vector<Period> host_periods = read_stats(host_stats);
    double image_ms = median_rtc_awake(image_periods);
    double host_ms = median_rtc_awake(host_periods);
    double stack = 0;
    for (const Period& p : image_periods) {
        stack = std::max(stack, p.stack_bytes);
    }
    state.counters["image_day_wall_s"] = image_wall;
    state.counters["image_wall_ms_per_sample"] = 1000.0 * image_wall / 96;
    state.counters["host_day_wall_s"] = host_wall;
    state.counters["image_awake_ms"] = image_ms;
    state.counters["host_awake_ms"] = host_ms;
    state.counters["awake_diff_pct"] = host_ms > 0 ? 100.0 * (image_ms - host_ms) / host_ms : 0;
    state.counters["stack_high_water_bytes"] = stack;
    std::remove(image_stats.c_str());
    std::remove(host_stats.c_str());
}
BENCHMARK(BM_ImageDayAt900s)->Unit(benchmark::kSecond)->Iterations(1);

} // namespace
