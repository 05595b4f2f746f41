// Shared harness pieces: the factory board images, runs bounded in virtual time, invariant checks.
#include "fuzz_board.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "board/board_util.h"
#include "core/main.h"
#include "records/system.h"
#include "storage/settings.h"
#include <fcntl.h>
#include <unistd.h>

#include "runtime.h"
#include "storage/fatfs/ff.h"
#include "storage/microsd.h"
#include "storage/i2c_fram.h"

namespace fuzz {

namespace {

std::vector<uint8_t> g_eeprom;
std::vector<uint8_t> g_fram;

// A blank board's first start, then the factory settings stored as board QA stores them.
void make_factory_images(void) {
    sim::test::reset_board(T0);
    sim::test::Outcome o = sim::test::run([] {
        init();
        initSysDataVariables();
        storeSysDataVariables();
        fram_apf_store_all();
    });
    check(o.returned, "the factory set-up did not return");
    g_eeprom.assign(sim::eeprom_bytes(), sim::eeprom_bytes() + sim::eeprom_size);
    g_fram.assign(sim::fram_bytes(), sim::fram_bytes() + sim::fram_size);
}

constexpr uint64_t CARD_BYTES = 4u << 20;
std::string g_card_path;
std::vector<uint8_t> g_card;

void write_card(void) {
    int fd = ::open(g_card_path.c_str(), O_WRONLY);
    bool ok = fd >= 0 && pwrite(fd, g_card.data(), g_card.size(), 0) == static_cast<ssize_t>(g_card.size());
    if (fd >= 0) {
        ::close(fd);
    }
    check(ok, "the card image could not be restored");
}

// Formats the image, puts DATA.TXT on it through a mounted board, and keeps its bytes.
void make_card(void) {
    const char* tmp = std::getenv("TMPDIR");
    g_card_path = std::string(tmp != nullptr ? tmp : "/tmp") + "/hxc3-fuzz-card-" + std::to_string(getpid());
    check(sim::sd_make_image(g_card_path, CARD_BYTES, FM_FAT), "the card image could not be made");
    factory_board();
    sim::sd_set_image(g_card_path);
    sim::test::Outcome o = sim::test::run([] {
        init();
        FIL f;
        UINT bw = 0;
        bool ok = f_open(&f, DATA_NAME, FA_WRITE | FA_CREATE_ALWAYS) == FR_OK &&
                  f_write(&f, DATA_TEXT, sizeof DATA_TEXT - 1, &bw) == FR_OK && f_close(&f) == FR_OK;
        check(ok && bw == sizeof DATA_TEXT - 1, "DATA.TXT could not be written");
    });
    check(o.returned, "the card set-up did not return");
    g_card.resize(CARD_BYTES);
    int fd = ::open(g_card_path.c_str(), O_RDONLY);
    check(fd >= 0 && pread(fd, g_card.data(), g_card.size(), 0) == static_cast<ssize_t>(g_card.size()),
          "the card image could not be read");
    ::close(fd);
    std::atexit([] { unlink(g_card_path.c_str()); });
}

} // namespace

void insert_card(void) {
    if (g_card.empty()) {
        make_card();
        factory_board();
    } else {
        write_card();
    }
    sim::sd_set_image(g_card_path);
}

bool read_card_file(const char* name, std::string& text) {
    FIL f;
    if (f_open(&f, name, FA_READ) != FR_OK) {
        return false;
    }
    text.clear();
    char buf[256];
    UINT br = 0;
    while (f_read(&f, buf, sizeof buf, &br) == FR_OK && br > 0) {
        text.append(buf, br);
    }
    f_close(&f);
    return true;
}

const uint8_t* factory_eeprom(void) {
    if (g_eeprom.empty()) {
        make_factory_images();
    }
    return g_eeprom.data();
}

const uint8_t* factory_fram(void) {
    if (g_fram.empty()) {
        make_factory_images();
    }
    return g_fram.data();
}

void factory_board(void) {
    const uint8_t* eeprom = factory_eeprom();
    const uint8_t* fram = factory_fram();
    sim::test::reset_board(T0);
    std::memcpy(sim::eeprom_bytes(), eeprom, sim::eeprom_size);
    std::memcpy(sim::fram_bytes(), fram, sim::fram_size);
}

void start_board(void) {
    factory_board();
    check(sim::test::run(init).returned, "init did not return");
}

void keep_board_on(void) {
    if (!sim::test::board_on()) {
        check(sim::test::run(init).returned, "init did not return");
    }
    check(sim::test::run(wdog_pet).returned, "feeding the watchdog ended the power-on period");
}

sim::test::Outcome run_for(void (*fn)(), double seconds) {
    sim::Shared& s = sim::shared();
    s.run_for_ns = s.now_ns + static_cast<uint64_t>(seconds * sim::ns_per_s);
    sim::test::Outcome o = sim::test::run(fn);
    s.run_for_ns = sim::never;
    return o;
}

namespace {

uint64_t g_watch_from;

void watch(uint64_t now) {
    uint64_t deadline = sim::watchdog_deadline_ns();
    constexpr uint64_t timeout = 60 * sim::ns_per_s;
    bool fed_lately =
        deadline == UINT64_MAX || deadline < timeout || now - (deadline - timeout) < sim::ns_per_s;
    if (now >= g_watch_from && fed_lately) {
        sim::power_off(sim::PowerEvent::end);
    }
}

} // namespace

sim::test::Outcome run_watched(void (*fn)(), double seconds) {
    g_watch_from = sim::now_ns() + static_cast<uint64_t>(seconds * sim::ns_per_s);
    sim::test::set_poll(watch, 10 * sim::ns_per_ms);
    sim::test::Outcome o = sim::test::run(fn);
    sim::test::set_poll(nullptr, 0);
    return o;
}

void check(bool ok, const char* what) {
    if (ok) {
        return;
    }
    const std::string& out = sim::test::console_output();
    size_t from = out.size() > 600 ? out.size() - 600 : 0;
    std::fprintf(stderr, "\ninvariant broken: %s\n--- console tail ---\n%s\n---\n", what, out.c_str() + from);
    std::abort();
}

bool instrument_columns(const char* text, size_t size, uint32_t fields) {
    if (memchr(text, 0, size) == nullptr) {
        return false;
    }
    uint32_t tabs = 0;
    for (const char* p = text; *p != '\0'; p++) {
        if (*p == '\t') {
            tabs++;
        } else if (*p < ' ' || *p > '~') {
            return false;
        }
    }
    return tabs + 1 == fields;
}

std::string text_of(const uint8_t* data, size_t size) {
    std::string s(reinterpret_cast<const char*>(data), size);
    for (char& c : s) {
        if (c == '\0') {
            c = ' ';
        }
    }
    return s;
}

} // namespace fuzz
