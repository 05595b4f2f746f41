// The PCAL6416 16-bit I/O expander at I2C address 0x20, holding its registers: input ports,
// output ports, polarity inversion and configuration (0x00..0x07), and the extended registers
// (drive strength, input latch, pull-up/down, interrupt mask and status, output port
// configuration at 0x40..0x4F), with their power-on values. A pin configured as output shows its
// output bit; an input pin floats up to its pull-up unless the pull-down is selected and enabled.
// pcal6416_pin_levels() lets tests see the pins. `board.pcal6416 = 0` leaves the part off the
// board.
//
// Port-0 pins 6 and 7 switch the UV spectrometer's supply and its lamp's. A supply switch sees a
// high only from a push-pull output driving it: an input pin, or an open-drain output let go,
// leaves the switch to its own pull-down, off. The spectrometer model hears of every change at once.
//
// I2C protocol: after the address byte for writing, the command byte selects a register; data
// bytes follow, the pointer moving to the other register of the pair after each byte (0x02, 0x03,
// 0x02, ...). Reads work the same way from the pointer.
#include "devices.h"
#include "sim.h"

#include <cstring>

namespace sim::dev {

namespace {

constexpr uint8_t address = 0x20;

class Pcal6416 : public I2cDevice {
  public:
    bool start(uint8_t addr, bool read) override {
        if (addr != address || scenario_num("board.pcal6416", 1) == 0) {
            selected_ = false;
            return false;
        }
        selected_ = true;
        have_command_ = read; // a read continues from the last command byte
        return true;
    }

    bool write(uint8_t byte) override {
        if (!selected_) {
            return false;
        }
        if (!have_command_) {
            pointer_ = byte;
            have_command_ = true;
            return true;
        }
        store(pointer_, byte);
        pointer_ ^= 1;
        return true;
    }

    uint8_t read(bool ack) override {
        if (!selected_) {
            return 0xFF;
        }
        uint8_t b = load(pointer_);
        pointer_ ^= 1;
        return b;
    }

    void stop() override { selected_ = false; }

    void power_on() override {
        selected_ = false;
        have_command_ = false;
        pointer_ = 0;
        std::memset(regs_, 0, sizeof regs_);
        std::memset(ext_, 0, sizeof ext_);
        regs_[0x02] = regs_[0x03] = 0xFF; // outputs high
        regs_[0x06] = regs_[0x07] = 0xFF; // all inputs
        std::memset(ext_, 0xFF, 4);       // full drive strength
        ext_[0x08] = ext_[0x09] = 0xFF;   // pull-ups selected (not enabled)
        ext_[0x0A] = ext_[0x0B] = 0xFF;   // interrupts masked
    }

    // Levels on the 16 pins, port 1 in the high byte.
    uint16_t pins() const { return static_cast<uint16_t>(port_pins(1) << 8 | port_pins(0)); }

    // The pins driven high, port 1 in the high byte.
    uint16_t driven_high() const {
        return static_cast<uint16_t>(port_driven_high(1) << 8 | port_driven_high(0));
    }

  private:
    uint8_t port_pins(int port) const {
        const uint8_t inputs = regs_[0x06 + port];
        const uint8_t pulled_down = ext_[0x06 + port] & static_cast<uint8_t>(~ext_[0x08 + port]);
        const uint8_t input_levels = static_cast<uint8_t>(~pulled_down);
        return static_cast<uint8_t>((regs_[0x02 + port] & ~inputs) | (input_levels & inputs));
    }

    // Output port configuration (0x4F): bit 0 makes port 0 open-drain, bit 1 port 1.
    uint8_t port_driven_high(int port) const {
        if (ext_[0x0F] & (1u << port)) {
            return 0;
        }
        return static_cast<uint8_t>(regs_[0x02 + port] & ~regs_[0x06 + port]);
    }

    void store(uint8_t reg, uint8_t value) {
        if (reg >= 0x02 && reg <= 0x07) {
            regs_[reg] = value;
        } else if (reg >= 0x40 && reg <= 0x4F && reg != 0x4C && reg != 0x4D && reg != 0x4E) {
            ext_[reg - 0x40] = value; // interrupt status is read-only
        }
        // An output, a direction or the open-drain setting may have switched a supply.
        uvs_supplies_changed();
    }

    uint8_t load(uint8_t reg) const {
        if (reg <= 0x01) {
            return static_cast<uint8_t>(port_pins(reg) ^ regs_[0x04 + reg]);
        }
        if (reg <= 0x07) {
            return regs_[reg];
        }
        if (reg >= 0x40 && reg <= 0x4F) {
            return ext_[reg - 0x40];
        }
        return 0xFF;
    }

    bool selected_ = false;
    bool have_command_ = false;
    uint8_t pointer_ = 0;
    uint8_t regs_[8] = {};
    uint8_t ext_[16] = {};
};

Pcal6416 g_pcal6416;
bool g_attached = false;

} // namespace

void pcal6416_attach() {
    if (!g_attached) {
        g_attached = true;
        i2c_attach(&g_pcal6416);
    }
}

uint16_t pcal6416_pin_levels() {
    return g_pcal6416.pins();
}

uint16_t pcal6416_driven_high() {
    return g_pcal6416.driven_high();
}

} // namespace sim::dev
