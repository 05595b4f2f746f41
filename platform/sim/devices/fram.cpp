// The 32 KiB I2C FRAM at device address 0x50 (a 256-kbit part of the FM24V02 / MB85RC256V kind).
// Its bytes live in board/fram.bin through a shared mapping (a new board gets zeros), or in memory in
// the unit tests.
//
// Protocol: after the address byte for writing come two memory-address bytes, high byte first (the
// top bit is ignored: 15 address bits), then data bytes, written at once (no write delay) with the
// address incrementing and wrapping from the last byte to 0. A read - a repeated start or a new
// start with the address byte for reading - returns bytes from the current address, incrementing
// the same way. The current address survives between transfers while the part is powered.
// `board.fram = 0` leaves the part off the board: nothing acknowledges its address.
#include "devices.h"
#include "sim.h"

namespace sim::dev {

namespace {

constexpr uint8_t fram_address = 0x50;
constexpr uint16_t address_mask = fram_size - 1;

Backing backing;

class Fram : public I2cDevice {
  public:
    bool start(uint8_t address, bool read) override {
        if (address != fram_address || scenario_num("board.fram", 1) == 0) {
            selected_ = false;
            return false;
        }
        selected_ = true;
        mem_ = fram_bytes();
        phase_ = read ? Phase::data : Phase::address_high;
        return true;
    }

    bool write(uint8_t byte) override {
        if (!selected_) {
            return false;
        }
        switch (phase_) {
        case Phase::address_high:
            high_ = byte;
            phase_ = Phase::address_low;
            break;
        case Phase::address_low:
            current_ = static_cast<uint16_t>(((high_ << 8) | byte) & address_mask);
            phase_ = Phase::data;
            break;
        case Phase::data:
            mem_[current_] = byte;
            current_ = static_cast<uint16_t>((current_ + 1) & address_mask);
            break;
        }
        return true;
    }

    uint8_t read(bool ack) override {
        if (!selected_) {
            return 0xFF;
        }
        uint8_t byte = mem_[current_];
        current_ = static_cast<uint16_t>((current_ + 1) & address_mask);
        return byte;
    }

    void stop() override { selected_ = false; }

    void power_on() override {
        selected_ = false;
        phase_ = Phase::address_high;
        current_ = 0;
        high_ = 0;
    }

  private:
    enum class Phase { address_high, address_low, data };
    bool selected_ = false;
    Phase phase_ = Phase::address_high;
    uint16_t current_ = 0;
    uint8_t high_ = 0;
    uint8_t* mem_ = nullptr;
};

Fram fram;

} // namespace

I2cDevice& fram_device() {
    return fram;
}

void fram_map() {
    backing_attach(backing, "fram.bin", fram_size, 0x00);
}

void fram_flush() {
    backing_flush(backing);
}

} // namespace sim::dev

namespace sim {

uint8_t* fram_bytes() {
    return dev::backing_attach(dev::backing, "fram.bin", fram_size, 0x00);
}

} // namespace sim
