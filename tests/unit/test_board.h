// Helpers the unit tests share: starting the simulated chip's clock and timebase the way the
// firmware's start-up does, and running a host command (mtools, fsck) on a card image.
#pragma once

#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "board/bme280.h"
#include "board/i2c0.h"
#include "board/pcal6416.h"
#include "board/pinmux.h"
#include "storage/i2c_fram.h"

namespace test_board {

// 50 MHz from the PLL, the 1 ms SysTick and interrupts on, as init() sets them, and the I2C bus
// that reaches the FRAM (the card's appends keep what they remember there).
inline void start_clocks(void) {
    SysCtlClockSet(SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
    init_TM4C123GH6PM_64pin();
    SysTickPeriodSet(SysCtlClockGet() / 1000);
    SysTickIntEnable();
    SysTickEnable();
    IntMasterEnable();
    i2c0_init(0);
}

// The clocks, then the FRAM and the housing sensors, as init() brings them up.
inline void start_board_with_sensors(void) {
    start_clocks();
    fram_init();
    bme280_init();
    pcal6416_init();
}

// Runs a shell command and returns what it wrote on stdout.
inline std::string run_shell(const std::string& command) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (p == nullptr) {
        return out;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) {
        out.append(buf, n);
    }
    pclose(p);
    return out;
}

// A file of a card image as mtools reads it (with mtools' message when it cannot).
inline std::string card_file(const std::string& image, const std::string& name) {
    return run_shell("MTOOLS_SKIP_CHECK=1 mtype -i " + image + " ::" + name + " 2>&1");
}

// A new blank (sparse, unformatted) card image of `bytes` bytes under /tmp, named after tag; empty
// on failure.
inline std::string make_blank_card(const std::string& tag, off_t bytes) {
    std::string name = "/tmp/hxc3-" + tag + "-XXXXXX";
    int fd = mkstemp(name.data());
    if (fd < 0) {
        return "";
    }
    bool sized = ftruncate(fd, bytes) == 0;
    close(fd);
    if (!sized) {
        unlink(name.c_str());
        return "";
    }
    return name;
}

// A new 32 MiB FAT32 card image made by mkfs.fat under /tmp, named after tag; empty on failure.
inline std::string make_card_image(const std::string& tag) {
    std::string name = "/tmp/hxc3-" + tag + "-XXXXXX";
    int fd = mkstemp(name.data());
    if (fd < 0) {
        return "";
    }
    close(fd);
    unlink(name.c_str());
    if (std::system(("mkfs.fat -C -F 32 " + name + " 65536 >/dev/null").c_str()) != 0) {
        return "";
    }
    return name;
}

// Formats a new card image at `path` with mkfs.fat (`options` such as "-F 16 -s 1"), `kib` KiB.
inline bool mkfs_card(const std::string& path, const std::string& options, int kib) {
    std::string made = path + ".new";
    std::string cmd = "mkfs.fat -C " + options + " " + made + " " + std::to_string(kib) +
                      " >/dev/null && mv " + made + " " + path;
    return std::system(cmd.c_str()) == 0;
}

// Puts `text` on the card as file `name`, as a PC would (mcopy, replacing a file of that name).
inline bool pc_copy(const std::string& image, const std::string& name, const std::string& text) {
    std::string host = image + ".pc";
    FILE* f = std::fopen(host.c_str(), "wb");
    if (f == nullptr) {
        return false;
    }
    bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    ok = std::fclose(f) == 0 && ok;
    std::string cmd =
        "MTOOLS_SKIP_CHECK=1 mcopy -o -i " + image + " " + host + " ::/" + name + " >/dev/null 2>&1";
    ok = ok && std::system(cmd.c_str()) == 0;
    unlink(host.c_str());
    return ok;
}

// A whole file's bytes (empty when it cannot be read).
inline std::string read_file(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// A golden file in the "golden" folder beside the test source (pass __FILE__).
inline std::filesystem::path golden_path(const char* test_file, const std::string& name) {
    return std::filesystem::path(test_file).parent_path() / "golden" / name;
}

// Compares actual with its golden file; HXC3_UPDATE_GOLDEN=1 writes the file first.
inline void expect_golden(const char* test_file, const std::string& name, const std::string& actual) {
    const std::filesystem::path path = golden_path(test_file, name);
    if (getenv("HXC3_UPDATE_GOLDEN") != nullptr) {
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << actual;
    }
    ASSERT_TRUE(std::filesystem::exists(path)) << "missing golden file " << path;
    EXPECT_EQ(actual, read_file(path)) << "golden file " << name;
}

} // namespace test_board
