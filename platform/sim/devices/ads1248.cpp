// The isolated ADS1248 24-bit delta-sigma converter on SSI3 (select PD1), with the ADG1609
// multiplexer and the bias-battery selector that its general-purpose pins drive.
//
// Board lines: PE0 powers the isolated side, PE1 is the converter's data-ready (low when a result
// waits), PE2 its START pin (high: continuous conversions), PE3 its reset (low holds it in reset).
// The digital isolator's outputs idle high while the isolated side is off, so PE1 then reads high.
//
// The converter, as its datasheet describes it (4.096 MHz internal oscillator):
// - Commands WAKEUP, SLEEP, SYNC, RESET, NOP, RDATA, RDATAC, SDATAC, RREG, WREG; the calibration
//   commands restart the filter but leave OFC and FSC as they are.
// - Registers MUX0 (inputs), VBIAS, MUX1 (reference, calibration inputs), SYS0 (gain, data rate),
//   OFC, FSC, IDAC0/1, GPIOCFG, GPIODIR, GPIODAT. Writing any of the first four restarts the filter.
// - Continuous conversions while START is high; the first result after a reset, START, WAKEUP or
//   SYNC, and the first after a register write, take their own times from the data-rate table.
// - Read-data-continuous mode (the default): each result is loaded into the output register when it
//   is ready and is shifted out by the next 24 clocks; data-ready goes high at the first of them.
// - Results are 24-bit two's complement, full scale +-VREF/gain with the internal 2.048 V reference,
//   corrected by OFC and FSC, and clip at 7FFFFFh and 800000h.
//
// Analog inputs, relative to AIN6 (the sensor common): AIN0 the thermistor divider, AIN1 the
// multiplexer output (position 0 Vrse, 1 Vk, 2 Ib, 3 Vrsi), AIN5 the low side of the counter-
// electrode current sense (Vk - Ik in position 1, the common otherwise), AIN7 the bias battery that
// GPIO3 selects (high positive, low negative), divided by two. The multiplexer address is GPIO1:GPIO0
// inverted. Volts come from the bath (bath.h), with seeded Gaussian noise (adc.noise_uv, adc.seed)
// added, and clip at +-2.048 V. With adc.stuck = 1 the converter never signals data-ready.
#include "bath.h"
#include "devices.h"
#include "sim.h"

#include "driverlib/gpio.h"
#include "inc/hw_memmap.h"

#include <cmath>
#include <cstdint>
#include <random>

namespace sim::dev {

namespace {

constexpr uint64_t osc_hz = 4096000;
constexpr double vref = 2.048;
constexpr int32_t code_max = 0x7FFFFF;
constexpr int32_t code_min = -0x800000;
constexpr int port_e = 4;
constexpr uint8_t pwr_pin = GPIO_PIN_0;
constexpr uint8_t drdy_pin = GPIO_PIN_1;
constexpr uint8_t start_pin = GPIO_PIN_2;
constexpr uint8_t reset_pin = GPIO_PIN_3;
constexpr int num_regs = 15;

enum Reg {
    MUX0,
    VBIAS,
    MUX1,
    SYS0,
    OFC0,
    OFC1,
    OFC2,
    FSC0,
    FSC1,
    FSC2,
    IDAC0,
    IDAC1,
    GPIOCFG,
    GPIODIR,
    GPIODAT
};

// Register contents after power-up or reset (FSC as trimmed for gain 1: exactly 400000h here).
constexpr uint8_t reset_regs[num_regs] = {0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                          0x00, 0x40, 0x90, 0xFF, 0x00, 0x00, 0x00};

// Oscillator cycles per result for data rates 5 .. 2000 SPS: the first after a reset, START pin,
// WAKEUP or SYNC; the first after a write to MUX0, VBIAS, MUX1 or SYS0; each following one.
constexpr uint32_t first_cycles[10] = {816160, 408096, 204064, 102072, 51064, 25560, 12796, 6428, 4156, 2108};
constexpr uint32_t write_cycles[10] = {820265, 412201, 208169, 103106, 52098, 26594, 13314, 6946, 4674, 2370};
constexpr uint32_t next_cycles[10] = {816128, 408064, 204032, 102016, 51008, 25504, 12736, 6368, 4096, 2048};

uint64_t cycles_ns(uint32_t cycles) {
    return static_cast<uint64_t>(cycles) * ns_per_s / osc_hz;
}

enum class Restart { reset, reg_write };

class Ads1248 : public SpiDevice {
  public:
    void select(bool selected) override {
        sync();
        // Chip select high resets the serial interface: a command or read in progress is dropped.
        if (!selected) {
            parse_ = Parse::command;
            out_len_ = out_pos_ = 0;
        }
    }

    uint8_t exchange(uint8_t mosi) override {
        sync();
        if (!active()) {
            return 0xFF;
        }
        uint8_t miso = 0xFF;
        if (out_pos_ < out_len_) {
            miso = out_[out_pos_++];
            if (out_is_data_) {
                set_drdy(false);
            }
        }
        take(mosi);
        return miso;
    }

    // The serial clock period is at least 488 ns, two oscillator cycles.
    uint32_t max_clock_hz() const override { return static_cast<uint32_t>(osc_hz / 2); }
    const char* name() const override { return "ADS1248"; }

    void power_on() override {
        powered_ = false;
        in_reset_ = true;
        start_ = false;
        converting_ = false;
        drdy_low_ = true; // forces the pad update below
        set_drdy(false);
        power_up_state();
    }

    uint64_t next_event() {
        sync();
        return converting_ ? ready_ns_ : UINT64_MAX;
    }

    void service(uint64_t now) {
        sync();
        while (converting_ && ready_ns_ <= now) {
            complete();
        }
    }

  private:
    enum class Parse { command, rreg_count, wreg_count, wreg_data };

    bool synced_ = false;
    uint8_t synced_levels_ = 0;
    bool powered_ = false;
    bool in_reset_ = true;
    bool start_ = false;
    uint8_t regs_[num_regs] = {};
    bool rdatac_ = true;
    bool sleeping_ = false;
    bool converting_ = false;
    uint64_t ready_ns_ = 0;
    int32_t data_ = 0;
    bool drdy_low_ = false;
    uint8_t out_[num_regs + 1] = {};
    int out_len_ = 0, out_pos_ = 0;
    bool out_is_data_ = false;
    Parse parse_ = Parse::command;
    int reg_ = 0, remaining_ = 0;
    bool filter_written_ = false;
    std::mt19937_64 rng_;
    bool spare_normal_ = false;
    double spare_ = 0.0;

    bool active() const { return powered_ && !in_reset_; }

    int rate_index() const {
        int dr = regs_[SYS0] & 0x0F;
        return dr > 9 ? 9 : dr;
    }

    void power_up_state() {
        for (int i = 0; i < num_regs; i++) {
            regs_[i] = reset_regs[i];
        }
        rdatac_ = true;
        sleeping_ = false;
        converting_ = false;
        data_ = 0;
        out_len_ = out_pos_ = 0;
        parse_ = Parse::command;
    }

    // The digital isolator drives PE1; high while the isolated side is off.
    void set_drdy(bool low) {
        if (low == drdy_low_) {
            return;
        }
        drdy_low_ = low;
        gpio_drive_input(GPIO_PORTE_BASE, drdy_pin, !low);
    }

    // Follows the power, START and reset lines as the firmware drives them. Power and reset both
    // bring the registers back to their reset values; conversions begin once the converter is
    // powered, out of reset and START is high. Nothing changes while the lines stay as they were
    // (the converter's own state moves only with its commands and conversions), and every event
    // time of the board asks, so that case returns at once.
    void sync() {
        if (!synced_ || gpio_pad_levels(port_e) != synced_levels_) {
            follow_pins();
        }
    }

    void follow_pins() {
        uint8_t levels = gpio_pad_levels(port_e);
        synced_ = true;
        synced_levels_ = levels;
        bool powered = (levels & pwr_pin) != 0;
        bool in_reset = (levels & reset_pin) == 0;
        bool start = (levels & start_pin) != 0;
        bool was_running = active() && start_;
        if (powered != powered_ || in_reset != in_reset_) {
            if (powered && !powered_) {
                seed_noise();
            }
            powered_ = powered;
            in_reset_ = in_reset;
            power_up_state();
            set_drdy(false);
        }
        start_ = start;
        if (active() && start_ && !was_running) {
            restart(Restart::reset);
        }
    }

    void restart(Restart why) {
        if (!start_ || sleeping_ || in_reset_) {
            return;
        }
        int dr = rate_index();
        converting_ = true;
        ready_ns_ = now_ns() + cycles_ns(why == Restart::reset ? first_cycles[dr] : write_cycles[dr]);
        set_drdy(false);
    }

    void complete() {
        data_ = convert();
        if (rdatac_) {
            load_data();
        }
        if (scenario_num("adc.stuck", 0) != 1) {
            set_drdy(true);
        }
        // START low or SLEEP end the conversions once the current one is done.
        if (start_ && !sleeping_) {
            ready_ns_ += cycles_ns(next_cycles[rate_index()]);
        } else {
            converting_ = false;
        }
    }

    void load_data() {
        uint32_t u = static_cast<uint32_t>(data_) & 0xFFFFFF;
        out_[0] = static_cast<uint8_t>(u >> 16);
        out_[1] = static_cast<uint8_t>(u >> 8);
        out_[2] = static_cast<uint8_t>(u);
        out_len_ = 3;
        out_pos_ = 0;
        out_is_data_ = true;
    }

    void load_regs(int first, int count) {
        out_len_ = 0;
        for (int i = 0; i < count && out_len_ < num_regs + 1; i++) {
            int r = first + i;
            out_[out_len_++] = r < num_regs ? regs_[r] : 0;
        }
        out_pos_ = 0;
        out_is_data_ = false;
    }

    void take(uint8_t b) {
        switch (parse_) {
        case Parse::rreg_count:
            load_regs(reg_, (b & 0x0F) + 1);
            parse_ = Parse::command;
            return;
        case Parse::wreg_count:
            remaining_ = (b & 0x0F) + 1;
            filter_written_ = false;
            parse_ = Parse::wreg_data;
            return;
        case Parse::wreg_data:
            write_reg(reg_++, b);
            if (--remaining_ == 0) {
                parse_ = Parse::command;
                if (filter_written_) {
                    restart(Restart::reg_write);
                }
            }
            return;
        case Parse::command:
            command(b);
            return;
        }
    }

    void command(uint8_t b) {
        if ((b & 0xF0) == 0x20 || (b & 0xF0) == 0x40) {
            reg_ = b & 0x0F;
            parse_ = (b & 0xF0) == 0x20 ? Parse::rreg_count : Parse::wreg_count;
            return;
        }
        switch (b & 0xFE) {
        case 0x00: // WAKEUP
            if (sleeping_) {
                sleeping_ = false;
                restart(Restart::reset);
            }
            return;
        case 0x02: // SLEEP
            sleeping_ = true;
            return;
        case 0x04: // SYNC
            restart(Restart::reset);
            return;
        case 0x06: // RESET
            power_up_state();
            restart(Restart::reset);
            return;
        case 0x12: // RDATA
            load_data();
            return;
        case 0x14: // RDATAC
            rdatac_ = true;
            return;
        case 0x16: // SDATAC
            rdatac_ = false;
            return;
        case 0x60: // SYSOCAL, SYSGCAL
        case 0x62: // SELFOCAL
            restart(Restart::reset);
            return;
        default: // NOP and unassigned codes
            return;
        }
    }

    void write_reg(int r, uint8_t v) {
        if (r >= num_regs) {
            return;
        }
        switch (r) {
        case MUX1: // CLKSTAT is read-only
            v = static_cast<uint8_t>((regs_[MUX1] & 0x80) | (v & 0x7F));
            break;
        case SYS0: // bit 7 must stay 0
            v &= 0x7F;
            break;
        case IDAC0: // the device ID is read-only
            v = static_cast<uint8_t>((regs_[IDAC0] & 0xF0) | (v & 0x0F));
            break;
        default:
            break;
        }
        regs_[r] = v;
        if (r <= SYS0) {
            filter_written_ = true;
        }
    }

    // A general-purpose pin the converter drives: enabled as GPIO and set as an output. Pins left
    // floating read low (the board pulls them down).
    bool gpio_out(int pin) const {
        uint8_t m = static_cast<uint8_t>(1u << pin);
        return (regs_[GPIOCFG] & m) && !(regs_[GPIODIR] & m) && (regs_[GPIODAT] & m);
    }

    int mux_position() const {
        int address = (gpio_out(1) ? 2 : 0) | (gpio_out(0) ? 1 : 0);
        return address ^ 3;
    }

    double mux_output(const BathVolts& v) const {
        switch (mux_position()) {
        case 0:
            return v.vrse;
        case 1:
            return v.vk;
        case 2:
            return v.ib;
        default:
            return v.vrsi;
        }
    }

    double node(int ain, const BathVolts& v) const {
        switch (ain) {
        case 0:
            return v.vtherm;
        case 1:
            return mux_output(v);
        case 5:
            return mux_position() == 1 ? v.vk - v.ik : 0.0;
        case 7:
            return gpio_out(3) ? v.vbias_pos : v.vbias_neg;
        default:
            return 0.0;
        }
    }

    // Each power-up of the isolated side draws its noise from adc.seed and the RTC second, so that a
    // run repeats exactly while successive samples still differ.
    void seed_noise() {
        uint64_t seed = static_cast<uint64_t>(scenario_num("adc.seed", 1));
        rng_.seed(seed * 0x9E3779B97F4A7C15ull ^ hib().rtc_seconds);
        spare_normal_ = false;
    }

    double normal() {
        if (spare_normal_) {
            spare_normal_ = false;
            return spare_;
        }
        // Box-Muller on the engine's own bits, so that a seed gives the same noise everywhere.
        double u1 = (static_cast<double>(rng_() >> 11) + 1.0) / 9007199254740993.0;
        double u2 = static_cast<double>(rng_() >> 11) / 9007199254740992.0;
        double r = std::sqrt(-2.0 * std::log(u1));
        spare_ = r * std::sin(2.0 * M_PI * u2);
        spare_normal_ = true;
        return r * std::cos(2.0 * M_PI * u2);
    }

    static int32_t clip(int64_t c) {
        return c > code_max ? code_max : c < code_min ? code_min : static_cast<int32_t>(c);
    }

    int32_t convert() {
        int gain = 1 << ((regs_[SYS0] >> 4) & 7);
        int calmux = regs_[MUX1] & 0x07;
        double volts = 0.0;
        if (calmux == 0) {
            BathVolts v = bath_volts();
            volts = node((regs_[MUX0] >> 3) & 7, v) - node(regs_[MUX0] & 7, v);
        } else if (calmux == 2) {
            volts = vref / gain; // gain calibration: the reference itself
        }
        double noise_uv = scenario_num("adc.noise_uv", 0);
        if (noise_uv > 0) {
            volts += noise_uv * 1e-6 * normal();
        }
        volts = std::fmax(-vref, std::fmin(vref, volts));

        bool internal_ref = (regs_[MUX1] & 0x60) != 0 && (regs_[MUX1] & 0x18) >= 0x10;
        int64_t raw;
        if (!internal_ref) {
            raw = volts > 0 ? code_max : volts < 0 ? code_min : 0; // no reference: the result rails
        } else {
            raw = clip(std::llround(volts * gain / vref * code_max));
        }
        int64_t ofc = static_cast<int32_t>(static_cast<uint32_t>(regs_[OFC2]) << 24 | regs_[OFC1] << 16 |
                                           regs_[OFC0] << 8) >>
                      8;
        int64_t fsc = static_cast<int64_t>(regs_[FSC2]) << 16 | regs_[FSC1] << 8 | regs_[FSC0];
        return clip((raw - ofc) * fsc / 0x400000);
    }
};

Ads1248 g_adc;
bool g_attached = false;

} // namespace

void ads1248_attach() {
    if (!g_attached) {
        g_attached = true;
        ssi_attach(3, &g_adc, GPIO_PORTD_BASE, GPIO_PIN_1);
    }
}

uint64_t ads1248_next_event_ns() {
    return g_attached ? g_adc.next_event() : UINT64_MAX;
}

void ads1248_service(uint64_t now_ns) {
    if (g_attached) {
        g_adc.service(now_ns);
    }
}

} // namespace sim::dev
