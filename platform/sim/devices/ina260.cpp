// The INA260 supply monitor at I2C address 0x40: configuration, current, bus voltage, power,
// mask/enable and alert limit registers, and the two id registers. It converts continuously, so
// every read of a result register reports the scenario as it stands (`board.vbat`, and
// `board.amps` for the load current, 0.05 A by default) in the part's steps: 1.25 mV, 1.25 mA,
// 10 mW. In a power-down mode (MODE 000 or 100) the results stay at their last values.
// `board.ina260 = 0` leaves the part off the board.
//
// I2C protocol: after the address byte for writing, the register pointer, then the word, most
// significant byte first. Reads return the word at the pointer, most significant byte first.
#include "devices.h"
#include "sim.h"

#include <cmath>

namespace sim::dev {

namespace {

constexpr uint8_t address = 0x40;
constexpr uint16_t config_default = 0x6127;

uint16_t counts(double value, double lsb, double lo, double hi) {
    double c = std::round(value / lsb);
    return static_cast<uint16_t>(static_cast<int32_t>(std::fmin(std::fmax(c, lo), hi)));
}

class Ina260 : public I2cDevice {
  public:
    bool start(uint8_t addr, bool read) override {
        if (addr != address || scenario_num("board.ina260", 1) == 0) {
            selected_ = false;
            return false;
        }
        selected_ = true;
        written_ = 0;
        read_index_ = 0;
        if (read) {
            latched_ = load(pointer_);
        }
        return true;
    }

    bool write(uint8_t byte) override {
        if (!selected_) {
            return false;
        }
        if (written_ == 0) {
            pointer_ = byte;
        } else if (written_ == 1) {
            high_ = byte;
        } else if (written_ == 2) {
            store(pointer_, static_cast<uint16_t>(high_ << 8 | byte));
        }
        ++written_;
        return true;
    }

    uint8_t read(bool ack) override {
        if (!selected_) {
            return 0xFF;
        }
        uint8_t b =
            read_index_ % 2 == 0 ? static_cast<uint8_t>(latched_ >> 8) : static_cast<uint8_t>(latched_);
        ++read_index_;
        return b;
    }

    void stop() override { selected_ = false; }

    void power_on() override {
        selected_ = false;
        pointer_ = 0;
        config_ = config_default;
        mask_ = alert_ = 0;
        current_ = bus_ = power_ = 0;
        measure();
    }

  private:
    bool powered_down() const { return (config_ & 0x03) == 0; }

    void measure() {
        const double volts = scenario_num("board.vbat", 12.0);
        const double amps = scenario_num("board.amps", 0.05);
        bus_ = counts(volts, 0.00125, 0, 0x7FFF);
        current_ = counts(amps, 0.00125, -32768, 32767);
        power_ = counts(std::fabs(volts * amps), 0.010, 0, 0xFFFF);
    }

    void store(uint8_t reg, uint16_t value) {
        if (reg == 0x00) {
            config_ = (value & 0x8000) ? config_default : static_cast<uint16_t>((value & 0x0FFF) | 0x6000);
        } else if (reg == 0x06) {
            mask_ = value;
        } else if (reg == 0x07) {
            alert_ = value;
        }
    }

    uint16_t load(uint8_t reg) {
        if (reg >= 0x01 && reg <= 0x03 && !powered_down()) {
            measure();
        }
        switch (reg) {
        case 0x00:
            return config_;
        case 0x01:
            return current_;
        case 0x02:
            return bus_;
        case 0x03:
            return power_;
        case 0x06:
            return mask_;
        case 0x07:
            return alert_;
        case 0xFE:
            return 0x5449; // "TI"
        case 0xFF:
            return 0x2270;
        default:
            return 0;
        }
    }

    bool selected_ = false;
    uint8_t pointer_ = 0;
    uint8_t high_ = 0;
    int written_ = 0;
    int read_index_ = 0;
    uint16_t latched_ = 0;
    uint16_t config_ = config_default;
    uint16_t mask_ = 0, alert_ = 0;
    uint16_t current_ = 0, bus_ = 0, power_ = 0;
};

Ina260 g_ina260;
bool g_attached = false;

} // namespace

void ina260_attach() {
    if (!g_attached) {
        g_attached = true;
        i2c_attach(&g_ina260);
    }
}

} // namespace sim::dev
