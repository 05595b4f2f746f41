// The board's devices as a whole: what happens to them at power-on and power-off, when the next one
// needs servicing, and the file-backed memories that keep the non-volatile parts in the board
// directory.
#include "devices.h"
#include "sim.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sim::dev {

namespace {

void release(Backing& b) {
    if (b.mapped && b.data) {
        msync(b.data, b.size, MS_ASYNC); // the page cache keeps a MAP_SHARED file; no disk wait per period
        munmap(b.data, b.size);
    }
    b.data = nullptr;
    b.mapped = false;
    b.memory.clear();
    b.path.clear();
}

// Grows a file to `size` bytes, the new part filled with `fill` (an erased EEPROM reads 0xFF).
bool extend_file(int fd, size_t size, uint8_t fill) {
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        return false;
    }
    size_t have = static_cast<size_t>(st.st_size);
    if (have >= size) {
        return true;
    }
    std::vector<uint8_t> tail(size - have, fill);
    return pwrite(fd, tail.data(), tail.size(), static_cast<off_t>(have)) ==
           static_cast<ssize_t>(tail.size());
}

uint8_t* use_memory(Backing& b, size_t size) {
    b.memory.assign(size, 0);
    b.data = b.memory.data();
    b.size = size;
    return b.data;
}

} // namespace

bool Fifo::push(uint16_t v, uint8_t depth) {
    if (count >= depth || count >= 16) {
        return false;
    }
    items[(head + count) % 16] = v;
    ++count;
    return true;
}

uint16_t Fifo::pop() {
    if (count == 0) {
        return 0;
    }
    uint16_t v = items[head];
    head = static_cast<uint8_t>((head + 1) % 16);
    --count;
    return v;
}

uint32_t peripheral_id_word(const uint8_t (&id)[12], uint32_t offset) {
    constexpr uint32_t first = 0xFD0;
    if (offset < first || offset > 0xFFC || (offset & 3) != 0) {
        return 0;
    }
    return id[(offset - first) / 4];
}

bool access(uint32_t cycles) {
    uint64_t before = now_ns();
    spend_cycles(cycles);
    return now_ns() != before;
}

bool wait_for(uint64_t event_ns, uint64_t step_ns) {
    uint64_t now = now_ns();
    if (event_ns == UINT64_MAX) {
        advance_ns(step_ns);
    } else if (event_ns > now) {
        advance_ns(event_ns - now);
    } else {
        advance_ns(1);
    }
    return now_ns() != now;
}

uint8_t* backing_attach(Backing& b, const char* file_name, size_t size, uint8_t fill) {
    const std::string& dir = board_dir();
    std::string want = dir.empty() ? std::string() : dir + "/" + file_name;
    if (b.data && want == b.path) {
        return b.data;
    }
    release(b);
    if (want.empty()) {
        return use_memory(b, size);
    }
    int fd = open(want.c_str(), O_RDWR | O_CREAT, 0644);
    if (fd < 0 || !extend_file(fd, size, fill)) {
        std::fprintf(stderr, "sim: cannot use %s (%s); this memory will not persist\n", want.c_str(),
                     std::strerror(errno));
        if (fd >= 0) {
            close(fd);
        }
        return use_memory(b, size);
    }
    void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED) {
        std::fprintf(stderr, "sim: cannot map %s (%s); this memory will not persist\n", want.c_str(),
                     std::strerror(errno));
        return use_memory(b, size);
    }
    b.path = want;
    b.data = static_cast<uint8_t*>(p);
    b.size = size;
    b.mapped = true;
    return b.data;
}

void backing_flush(Backing& b) {
    if (b.mapped && b.data) {
        msync(b.data, b.size, MS_ASYNC); // the page cache keeps a MAP_SHARED file; no disk wait per period
    }
}

} // namespace sim::dev

namespace sim {

void devices_power_on() {
    dev::eeprom_map();
    dev::fram_map();
    dev::eeprom_power_on();
    dev::gpio_reset();
    dev::bme280_attach();
    dev::ina260_attach();
    dev::pcal6416_attach();
    dev::i2c_reset();
    dev::sdcard_attach();
    dev::ads1248_attach();
    dev::ssi_reset();
    dev::uart_reset();
    dev::instruments_power_on();
    dev::uvs_power_on();
}

void devices_power_off() {
    dev::eeprom_flush();
    dev::fram_flush();
}

namespace {

// A command that finishes by itself (an I2C transfer, an EEPROM word) shows its result when it is
// next read; its end is an event only while it lies ahead.
uint64_t ahead(uint64_t t) {
    return t > now_ns() ? t : UINT64_MAX;
}

} // namespace

uint64_t devices_next_event_ns() {
    uint64_t t = dev::uart_next_event_ns();
    t = std::min(t, dev::ssi_next_event_ns());
    t = std::min(t, dev::ads1248_next_event_ns());
    t = std::min(t, dev::instruments_next_event_ns());
    t = std::min(t, dev::uvs_next_event_ns());
    t = std::min(t, ahead(dev::i2c_next_event_ns()));
    return std::min(t, ahead(dev::eeprom_next_event_ns()));
}

// Only the devices whose own event is due: a byte of the card's frame ending need not look at every
// UART.
void devices_service(uint64_t now_ns) {
    if (dev::uart_next_event_ns() <= now_ns) {
        dev::uart_service(now_ns);
    }
    if (dev::ssi_next_event_ns() <= now_ns) {
        dev::ssi_service(now_ns);
    }
    if (dev::ads1248_next_event_ns() <= now_ns) {
        dev::ads1248_service(now_ns);
    }
    if (dev::instruments_next_event_ns() <= now_ns) {
        dev::instruments_service(now_ns);
    }
    if (dev::uvs_next_event_ns() <= now_ns) {
        dev::uvs_service(now_ns);
    }
}

} // namespace sim
