// The BME280 housing sensor at I2C address 0x76, register by register: chip id, soft reset with
// its NVM copy, calibration words, humidity and measurement control, status, and the data
// registers. A forced measurement takes the data sheet's longest conversion time for the chosen
// oversampling; until it ends the status reports measuring and the data registers keep the
// previous result. Normal mode is not modelled: the mode bits are kept, but only forced mode
// measures.
//
// The raw readings come from the scenario (`board.temp`, `board.humidity`, a fixed 1013.25 hPa)
// through the inverse of the maker's double-precision compensation with this part's calibration
// words, rounded to the resolution of the oversampling, so a driver compensating correctly reads
// the scenario's values back. `board.bme280.id` changes the chip id answered (another part at the
// address); 0 means no part fitted.
//
// I2C protocol: after the address byte for writing, the first byte sets the register pointer;
// further bytes alternate data and register address (no auto-increment on writes). Reads start at
// the pointer and auto-increment.
#include "devices.h"
#include "sim.h"

#include <cmath>
#include <cstring>

namespace sim::dev {

namespace {

constexpr uint8_t address = 0x76;
constexpr double sea_level_pa = 101325.0;

// The calibration of this part: the data sheet's example words for temperature and pressure, and
// humidity words typical of production parts.
constexpr uint16_t T1 = 27504;
constexpr int16_t T2 = 26435, T3 = -1000;
constexpr uint16_t P1 = 36477;
constexpr int16_t P2 = -10685, P3 = 3024, P4 = 2855, P5 = 140, P6 = -7, P7 = 15500, P8 = -14600, P9 = 6000;
constexpr uint8_t H1 = 75;
constexpr int16_t H2 = 362;
constexpr uint8_t H3 = 0;
constexpr int16_t H4 = 313, H5 = 50;
constexpr int8_t H6 = 30;

constexpr uint8_t reg_id = 0xD0, reg_reset = 0xE0, reg_ctrl_hum = 0xF2, reg_status = 0xF3,
                  reg_ctrl_meas = 0xF4, reg_config = 0xF5, reg_data = 0xF7;
constexpr uint64_t nvm_copy_ns = 2 * ns_per_ms;

double temperature_of(double adc_T, double* t_fine) {
    double var1 = (adc_T / 16384.0 - T1 / 1024.0) * T2;
    double d = adc_T / 131072.0 - T1 / 8192.0;
    double var2 = d * d * T3;
    *t_fine = std::trunc(var1 + var2);
    return (var1 + var2) / 5120.0;
}

double pressure_of(double adc_P, double t_fine) {
    double var1 = t_fine / 2.0 - 64000.0;
    double var2 = var1 * var1 * P6 / 32768.0;
    var2 = var2 + var1 * P5 * 2.0;
    var2 = var2 / 4.0 + P4 * 65536.0;
    var1 = (P3 * var1 * var1 / 524288.0 + P2 * var1) / 524288.0;
    var1 = (1.0 + var1 / 32768.0) * P1;
    double p = 1048576.0 - adc_P;
    p = (p - var2 / 4096.0) * 6250.0 / var1;
    var1 = P9 * p * p / 2147483648.0;
    var2 = p * P8 / 32768.0;
    return p + (var1 + var2 + P7) / 16.0;
}

double humidity_of(double adc_H, double t_fine) {
    double h = t_fine - 76800.0;
    h = (adc_H - (H4 * 64.0 + H5 / 16384.0 * h)) *
        (H2 / 65536.0 * (1.0 + H6 / 67108864.0 * h * (1.0 + H3 / 67108864.0 * h)));
    return h * (1.0 - H1 * h / 524288.0);
}

// The raw value in [0, full) whose compensated value is `target`, by bisection (every compensation
// is monotonic over the range), rounded to a multiple of `step`.
template <typename F>
uint32_t invert(F f, double target, double full, uint32_t step, bool rising) {
    double lo = 0.0, hi = full - 1.0;
    for (int i = 0; i < 64; ++i) {
        double mid = (lo + hi) / 2.0;
        if ((f(mid) < target) == rising) {
            lo = mid;
        } else {
            hi = mid;
        }
    }
    double raw = std::round(lo / step) * step;
    return static_cast<uint32_t>(std::fmin(std::fmax(raw, 0.0), full - step));
}

// Bits of resolution of a 20-bit reading: 16 at single oversampling, one more per doubling.
uint32_t step_of(uint8_t osrs) {
    uint32_t bits = 15 + (osrs > 5 ? 5 : osrs);
    return 1u << (20 - bits);
}

class Bme280 : public I2cDevice {
  public:
    bool start(uint8_t addr, bool read) override {
        const double id = scenario_num("board.bme280.id", 0x60);
        if (addr != address || id == 0) {
            selected_ = false;
            return false;
        }
        selected_ = true;
        chip_id_ = static_cast<uint8_t>(id);
        data_next_ = false;
        return true;
    }

    bool write(uint8_t byte) override {
        if (!selected_) {
            return false;
        }
        if (!data_next_) {
            pointer_ = byte;
            data_next_ = true;
            return true;
        }
        store(pointer_, byte);
        data_next_ = false;
        return true;
    }

    uint8_t read(bool ack) override {
        if (!selected_) {
            return 0xFF;
        }
        uint8_t b = load(pointer_);
        pointer_ = static_cast<uint8_t>(pointer_ + 1);
        return b;
    }

    void stop() override { selected_ = false; }

    void power_on() override {
        selected_ = false;
        pointer_ = 0;
        reset_registers();
        nvm_until_ns_ = now_ns() + nvm_copy_ns;
        std::memcpy(data_, blank_, sizeof data_);
    }

  private:
    static constexpr uint8_t blank_[8] = {0x80, 0x00, 0x00, 0x80, 0x00, 0x00, 0x80, 0x00};

    void reset_registers() {
        ctrl_hum_ = ctrl_meas_ = config_ = 0;
        hum_latched_ = 0;
        measuring_ = false;
    }

    void store(uint8_t reg, uint8_t value) {
        switch (reg) {
        case reg_reset:
            if (value == 0xB6) {
                reset_registers();
                nvm_until_ns_ = now_ns() + nvm_copy_ns;
            }
            break;
        case reg_ctrl_hum:
            ctrl_hum_ = value & 0x07;
            break;
        case reg_ctrl_meas:
            ctrl_meas_ = value;
            hum_latched_ = ctrl_hum_; // the humidity setting applies from here on
            if ((value & 0x03) == 0x01 || (value & 0x03) == 0x02) {
                start_measurement();
            }
            break;
        case reg_config:
            config_ = value & 0xFD;
            break;
        default:
            break; // read-only
        }
    }

    void start_measurement() {
        finish();
        const uint8_t osrs_t = ctrl_meas_ >> 5;
        const uint8_t osrs_p = (ctrl_meas_ >> 2) & 0x07;
        const uint8_t osrs_h = hum_latched_;
        auto times = [](uint8_t osrs) { return osrs == 0 ? 0.0 : double(1u << (osrs > 5 ? 4 : osrs - 1)); };
        double ms = 1.25 + 2.3 * times(osrs_t) + (osrs_p ? 2.3 * times(osrs_p) + 0.575 : 0.0) +
                    (osrs_h ? 2.3 * times(osrs_h) + 0.575 : 0.0);
        done_ns_ = now_ns() + static_cast<uint64_t>(ms * ns_per_ms);
        measuring_ = true;

        std::memcpy(pending_, blank_, sizeof pending_);
        if (osrs_t == 0) {
            return; // without a temperature nothing can be compensated: all three read as skipped
        }
        const double temp = scenario_num("board.temp", 20.0);
        const double rh = scenario_num("board.humidity", 35.0);
        double t_fine = 0;
        uint32_t adc_T = invert([&](double x) { return temperature_of(x, &t_fine); }, temp, 1048576.0,
                                step_of(osrs_t), true);
        temperature_of(adc_T, &t_fine);
        put20(&pending_[3], adc_T);
        if (osrs_p) {
            uint32_t adc_P = invert([&](double x) { return pressure_of(x, t_fine); }, sea_level_pa, 1048576.0,
                                    step_of(osrs_p), false);
            put20(&pending_[0], adc_P);
        }
        if (osrs_h) {
            uint32_t adc_H = invert([&](double x) { return humidity_of(x, t_fine); }, rh, 65536.0, 1, true);
            pending_[6] = static_cast<uint8_t>(adc_H >> 8);
            pending_[7] = static_cast<uint8_t>(adc_H);
        }
    }

    static void put20(uint8_t* p, uint32_t v) {
        p[0] = static_cast<uint8_t>(v >> 12);
        p[1] = static_cast<uint8_t>(v >> 4);
        p[2] = static_cast<uint8_t>((v & 0x0F) << 4);
    }

    // A measurement whose time is up publishes its result and puts the part back to sleep.
    void finish() {
        if (!measuring_ || now_ns() < done_ns_) {
            return;
        }
        measuring_ = false;
        std::memcpy(data_, pending_, sizeof data_);
        ctrl_meas_ &= 0xFC;
    }

    uint8_t load(uint8_t reg) {
        finish();
        if (reg >= 0x88 && reg <= 0xA1) {
            return calib_tp(reg - 0x88);
        }
        if (reg >= 0xE1 && reg <= 0xE7) {
            return calib_h(reg - 0xE1);
        }
        if (reg >= reg_data && reg <= 0xFE) {
            return data_[reg - reg_data];
        }
        switch (reg) {
        case reg_id:
            return chip_id_;
        case reg_ctrl_hum:
            return ctrl_hum_;
        case reg_status:
            return static_cast<uint8_t>((measuring_ ? 0x08 : 0) | (now_ns() < nvm_until_ns_ ? 0x01 : 0));
        case reg_ctrl_meas:
            return ctrl_meas_;
        case reg_config:
            return config_;
        default:
            return 0x00;
        }
    }

    static uint8_t calib_tp(int i) {
        const uint16_t words[12] = {T1,
                                    static_cast<uint16_t>(T2),
                                    static_cast<uint16_t>(T3),
                                    P1,
                                    static_cast<uint16_t>(P2),
                                    static_cast<uint16_t>(P3),
                                    static_cast<uint16_t>(P4),
                                    static_cast<uint16_t>(P5),
                                    static_cast<uint16_t>(P6),
                                    static_cast<uint16_t>(P7),
                                    static_cast<uint16_t>(P8),
                                    static_cast<uint16_t>(P9)};
        if (i < 24) {
            return static_cast<uint8_t>(i % 2 ? words[i / 2] >> 8 : words[i / 2]);
        }
        return i == 25 ? H1 : 0x00;
    }

    // 0xE1..0xE7: H2 (two bytes, low first), H3, then H4 and H5 as 12-bit words sharing 0xE5, H6.
    static uint8_t calib_h(int i) {
        const uint16_t h4 = static_cast<uint16_t>(H4) & 0x0FFF;
        const uint16_t h5 = static_cast<uint16_t>(H5) & 0x0FFF;
        const uint8_t bytes[7] = {static_cast<uint8_t>(H2),
                                  static_cast<uint8_t>(static_cast<uint16_t>(H2) >> 8),
                                  H3,
                                  static_cast<uint8_t>(h4 >> 4),
                                  static_cast<uint8_t>((h4 & 0x0F) | (h5 & 0x0F) << 4),
                                  static_cast<uint8_t>(h5 >> 4),
                                  static_cast<uint8_t>(H6)};
        return bytes[i];
    }

    bool selected_ = false;
    bool data_next_ = false;
    uint8_t pointer_ = 0;
    uint8_t chip_id_ = 0x60;
    uint8_t ctrl_hum_ = 0, hum_latched_ = 0, ctrl_meas_ = 0, config_ = 0;
    bool measuring_ = false;
    uint64_t done_ns_ = 0;
    uint64_t nvm_until_ns_ = 0;
    uint8_t data_[8] = {};
    uint8_t pending_[8] = {};
};

Bme280 g_bme280;
bool g_attached = false;

} // namespace

void bme280_attach() {
    if (!g_attached) {
        g_attached = true;
        i2c_attach(&g_bme280);
    }
}

} // namespace sim::dev
