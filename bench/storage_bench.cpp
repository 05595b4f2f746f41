// What one appended data line costs the card: sectors read and written (exact, from the card model),
// virtual time (what the board spends awake) and wall time (how fast the simulator plays it), for a
// data file that already holds 1, 30 or 365 days of 15-minute samples, on FAT16 and FAT32 cards made
// by mkfs.fat and on a new board's card (fat:0, FAT32 formatted by the firmware). The appends follow
// the data logger's pattern (appendBufferToSDCard: open, seek to the end, write, close); each run
// appends one more day (96 lines) and reports the mean per line.
#include "bench_board.h"
#include "sim_test.h"

#include "board/i2c0.h"
#include "board/pinmux.h"
#include "records/system.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "storage/microsd.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <unistd.h>

namespace {

constexpr int lines_per_day = 96;
constexpr uint64_t card_sectors = 524288; // 256 MiB

// A data line of the usual width (about 150 bytes): time, sample number, pH, temperature, the
// electrode and supply voltages.
std::string data_line(int n) {
    time_t t = 1767225600 + static_cast<time_t>(n) * 900; // from 2026-01-01, every 15 minutes
    struct tm cal {};
    gmtime_r(&t, &cal);
    char stamp[24];
    std::strftime(stamp, sizeof stamp, "%Y/%m/%d %H:%M:%S", &cal);
    char line[200];
    std::snprintf(line, sizeof line,
                  "%s\t%6d\t8.0123\t8.0456\t15.1234\t-0.912345\t-0.401234\t-1.301234\t0.0000150\t"
                  "0.0000010\t12.012\t20.12\t35.0\t3.6012\t-3.6021\t1013.25\t0.0123\t0.0\r\n",
                  stamp, n);
    return line;
}

bool shell(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

// A card with `days` of data already in DATA.TXT, made on a PC (mkfs.fat -F fat_bits) or, for
// fat_bits 0, a new board's card (formatted FAT32 by the firmware); returns the image path.
std::string make_card(int fat_bits, int days) {
    char name[] = "/tmp/hxc3-bench-card-XXXXXX";
    int fd = mkstemp(name);
    if (fd < 0) {
        return "";
    }
    close(fd);
    std::string image = name;
    unlink(name);
    std::string data = image + ".txt";
    FILE* f = std::fopen(data.c_str(), "wb");
    if (f == nullptr) {
        return "";
    }
    for (int i = 0; i < days * lines_per_day; i++) {
        std::fputs(data_line(i).c_str(), f);
    }
    std::fclose(f);
    bool made = fat_bits == 0 ? sim::sd_make_image(image, card_sectors * 512, FM_FAT32)
                              : shell("mkfs.fat -C -F " + std::to_string(fat_bits) + " " + image + " " +
                                      std::to_string(card_sectors / 2) + " >/dev/null");
    bool ok = made && shell("MTOOLS_SKIP_CHECK=1 mcopy -i " + image + " " + data + " ::DATA.TXT");
    unlink(data.c_str());
    if (!ok) {
        unlink(image.c_str());
        return "";
    }
    return image;
}

void BM_AppendLine(benchmark::State& state) {
    int fat_bits = static_cast<int>(state.range(0));
    int days = static_cast<int>(state.range(1));
    std::string image = make_card(fat_bits, days);
    if (image.empty()) {
        state.SkipWithError("cannot make the card image (mkfs.fat, mcopy)");
        return;
    }
    sim::test::reset_board();
    sim::sd_set_image(image);
    sim::test::run(bench::start_clocks);
    std::memset(sys_data.fileName, 0, sizeof sys_data.fileName);
    std::memcpy(sys_data.fileName, "DATA.TXT", 8);
    init_uSDCard();
    appendBufferToSDCard(""); // mounts the card: not part of an append's cost

    int n = days * lines_per_day;
    sim::stats() = sim::PeriodStats{};
    sim::test::clear_console_output();
    uint64_t t0 = sim::now_ns();
    for (auto _ : state) {
        appendBufferToSDCard(data_line(n++).c_str());
    }
    double appends = static_cast<double>(state.iterations());
    state.counters["sd_reads"] = static_cast<double>(sim::stats().sd_reads) / appends;
    state.counters["sd_writes"] = static_cast<double>(sim::stats().sd_writes) / appends;
    state.counters["virtual_ms"] = static_cast<double>(sim::now_ns() - t0) / sim::ns_per_ms / appends;
    state.counters["cluster_bytes"] = g_sFatFs.csize * 512.0;
    if (!sim::test::console_output().empty()) {
        state.SkipWithError(sim::test::console_output().c_str());
    }
    sim::sd_set_image("");
    unlink(image.c_str());
}
BENCHMARK(BM_AppendLine)
    ->ArgNames({"fat", "days"})
    ->ArgsProduct({{16, 32, 0}, {1, 30, 365}})
    ->Iterations(lines_per_day)
    ->Unit(benchmark::kMicrosecond);

} // namespace
