// What one scheduled sample of a deployment costs the card, read from hxc3-sim --stats as a user
// would: a new board whose data file (noname.txt) already holds 1, 100 or 365 days of 15-minute
// samples, then the deploy_day script (a deployment from the menu, 96 samples at 900 s). Reported per
// RTC wake: mean and largest sector reads and writes, and the mean awake milliseconds. The first
// wake after the card was filled on a PC walks the file once; every later one should cost the same
// whatever the file's length.
#include "sim_stats.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

const std::string sim_binary = HXC3_SIM_BINARY;
const std::string scripts = HXC3_SYSTEM_SCRIPTS;

struct Wake {
    double awake_ms;
    double reads;
    double writes;
};

std::vector<Wake> rtc_wakes(const std::string& stats) {
    std::vector<Wake> wakes;
    for (const std::vector<std::string>& f : read_stats_rows(stats)) {
        if (f.size() >= 5 && f[1] == "rtc") {
            wakes.push_back(Wake{std::atof(f[2].c_str()), std::atof(f[3].c_str()), std::atof(f[4].c_str())});
        }
    }
    return wakes;
}

// Lines as wide as the firmware's default sample line.
bool write_days(const std::string& path, int days) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        return false;
    }
    for (int n = 0; n < days * 96; n++) {
        time_t t = 1735689600 + static_cast<time_t>(n) * 900; // the year before, every 15 minutes
        struct tm cal {};
        gmtime_r(&t, &cal);
        char stamp[24];
        std::strftime(stamp, sizeof stamp, "%m/%d/%Y %H:%M:%S", &cal);
        std::fprintf(f,
                     "#%07d\t%s\t   12.00\t    3.60\t   -3.60\t   20.00\t      35\t1.051234\t0.000012\t"
                     "  15.000\t0.081234\t0.000010\t   8.000\t-0.791234\t0.000011\t0.412345\t-0.901234\t"
                     "0.000010\t   15.00\t   0.001\r\n",
                     n, stamp);
    }
    return std::fclose(f) == 0;
}

void BM_DeployedSampleOnDay(benchmark::State& state) {
    int days = static_cast<int>(state.range(0));
    char dir[] = "/tmp/hxc3-bench-deploy.XXXXXX";
    if (!mkdtemp(dir)) {
        state.SkipWithError("mkdtemp");
        return;
    }
    std::string board = std::string(dir) + "/board";
    std::string data = std::string(dir) + "/noname.txt";
    std::string stats = std::string(dir) + "/stats.csv";
    std::string quiet = " --quiet 2>/dev/null >/dev/null";
    bool ok = std::system((sim_binary + " --board " + board + " --time '2026-01-01 00:00:00' --script " +
                           scripts + "/first_boot.sim" + quiet)
                              .c_str()) == 0;
    ok = ok && write_days(data, days);
    ok = ok && std::system(("MTOOLS_SKIP_CHECK=1 mcopy -o -i " + board + "/sdcard.img " + data +
                            " ::/NONAME.TXT >/dev/null 2>&1")
                               .c_str()) == 0;
    for (auto _ : state) {
        ok = ok && std::system((sim_binary + " --board " + board + " --script " + scripts +
                                "/deploy_day.sim" + " --stats " + stats + quiet)
                                   .c_str()) == 0;
    }
    std::vector<Wake> wakes = rtc_wakes(stats);
    std::system((std::string("rm -rf ") + dir).c_str());
    if (!ok || wakes.empty()) {
        state.SkipWithError("hxc3-sim failed");
        return;
    }
    Wake sum{0, 0, 0};
    Wake most{0, 0, 0};
    for (const Wake& w : wakes) {
        sum.awake_ms += w.awake_ms;
        sum.reads += w.reads;
        sum.writes += w.writes;
        most.reads = std::max(most.reads, w.reads);
        most.writes = std::max(most.writes, w.writes);
    }
    double n = static_cast<double>(wakes.size());
    state.counters["rtc_wakes"] = n;
    state.counters["sd_reads"] = sum.reads / n;
    state.counters["sd_reads_max"] = most.reads;
    state.counters["sd_writes"] = sum.writes / n;
    state.counters["sd_writes_max"] = most.writes;
    state.counters["awake_ms"] = sum.awake_ms / n;
}
BENCHMARK(BM_DeployedSampleOnDay)
    ->ArgName("days")
    ->Arg(1)
    ->Arg(100)
    ->Arg(365)
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

} // namespace
