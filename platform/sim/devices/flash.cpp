// The serial flash socket on SSI2: chip 0 is a W25Q64-style SPI NOR flash that answers the JEDEC
// identification command with manufacturer, memory type and capacity (0xEF 0x40 0x17 unless
// sim::set_flash_jedec says otherwise); chip 1 is an empty position. An empty socket (manufacturer 0)
// answers nothing: its output floats and the pull-up makes every byte read 0xFF.
//
// Commands understood (the command byte is the first after the select goes low; the chip answers
// 0xFF while it receives command and address bytes):
//   0x9F JEDEC ID: manufacturer, type, capacity, then 0xFF
//   0x05 / 0x35 status register 1 / 2, repeated while selected (never busy; WEL as set)
//   0x06 / 0x04 write enable / disable (take effect when the select goes high)
//   0x90 manufacturer and device ID after three address bytes, alternating
//   0xAB release from power-down: device ID after three dummy bytes
//   0x03 read data after three address bytes: the board stores nothing in the flash, so every
//        location reads erased (0xFF)
// Anything else is ignored.
#include "devices.h"
#include "sim.h"

namespace sim::dev {

namespace {

struct Jedec {
    uint8_t manufacturer = 0xEF;
    uint8_t type = 0x40;
    uint8_t capacity = 0x17;
};

Jedec jedec;

class Flash : public SpiDevice {
  public:
    explicit Flash(bool fitted) : fitted_(fitted) {}

    void select(bool selected) override {
        if (!selected && selected_) {
            finish_command();
        }
        selected_ = selected;
        count_ = 0;
        command_ = 0;
    }

    uint8_t exchange(uint8_t mosi) override {
        if (!selected_ || !present()) {
            return 0xFF;
        }
        uint32_t n = count_++;
        if (n == 0) {
            command_ = mosi;
            return 0xFF;
        }
        return answer(n);
    }

    // Parts of this kind run fast reads at 100 MHz and more, but the plain read command (0x03),
    // the one this model knows, only at 50 MHz.
    uint32_t max_clock_hz() const override { return 50000000; }
    const char* name() const override { return "serial flash"; }

    void power_on() override {
        selected_ = false;
        count_ = 0;
        command_ = 0;
        wel_ = false;
    }

  private:
    bool present() const { return fitted_ && jedec.manufacturer != 0; }

    // The byte the chip shifts out during the n-th byte after the command.
    uint8_t answer(uint32_t n) const {
        uint8_t device_id = static_cast<uint8_t>(jedec.capacity - 1);
        switch (command_) {
        case 0x9F:
            if (n == 1) {
                return jedec.manufacturer;
            }
            if (n == 2) {
                return jedec.type;
            }
            return n == 3 ? jedec.capacity : 0xFF;
        case 0x05:
            return wel_ ? 0x02 : 0x00;
        case 0x35:
            return 0x00;
        case 0x90:
            if (n <= 3) {
                return 0xFF;
            }
            return ((n - 4) % 2 == 0) ? jedec.manufacturer : device_id;
        case 0xAB:
            return n <= 3 ? 0xFF : device_id;
        default:
            return 0xFF;
        }
    }

    void finish_command() {
        if (count_ == 0) {
            return;
        }
        if (command_ == 0x06) {
            wel_ = true;
        } else if (command_ == 0x04) {
            wel_ = false;
        }
    }

    bool fitted_;
    bool selected_ = false;
    uint32_t count_ = 0;
    uint8_t command_ = 0;
    bool wel_ = false;
};

Flash chips[2] = {Flash(true), Flash(false)};

} // namespace

SpiDevice& flash_device(int chip) {
    return chips[chip == 1 ? 1 : 0];
}

} // namespace sim::dev

namespace sim {

void set_flash_jedec(uint8_t manufacturer, uint8_t type, uint8_t capacity) {
    dev::jedec = dev::Jedec{manufacturer, type, capacity};
}

} // namespace sim
