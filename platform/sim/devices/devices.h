// What the device models of the simulated board share among themselves: the GPIO pads that chip
// selects and data-ready lines hang on, the I2C and SPI buses that other chips attach to, the
// persistent memories, and the per-module reset and timing hooks that devices.cpp drives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sim::dev {

// ---------------------------------------------------------------- shared helpers (devices.cpp)
// A hardware FIFO of up to 16 entries (UART and SSI); `depth` is its size in the current mode.
struct Fifo {
    uint16_t items[16];
    uint8_t head = 0;
    uint8_t count = 0;
    bool push(uint16_t v, uint8_t depth);
    uint16_t pop(); // 0 when empty
    void clear() { head = count = 0; }
};
// The identification registers of a UART or SSI module: twelve words from 0xFD0, one byte each;
// any other offset reads 0.
uint32_t peripheral_id_word(const uint8_t (&id)[12], uint32_t offset);
// The cost of one register access through the API. Returns false when virtual time cannot pass at
// this point (inside an interrupt handler, which the runtime runs in no time).
bool access(uint32_t cycles);
// A blocking API call waits: virtual time passes up to the device's own next event, or by `step`
// when it has none (the wait then depends on something outside, such as a byte arriving). Returns
// false when time cannot pass here; the caller must then not keep waiting.
bool wait_for(uint64_t event_ns, uint64_t step_ns);

// ---------------------------------------------------------------- GPIO pads (gpio.cpp)
constexpr int gpio_ports = 6; // A..F
// Port index 0..5 for a port base (APB or AHB aperture), -1 for anything else.
int gpio_port_index(uint32_t port_base);
// The level on each pad of a port: driven outputs, else an outside driver, else the pulls.
uint8_t gpio_pad_levels(int port);
// True when every pin of the mask is a GPIO output driving low (the way a chip select is asserted).
bool gpio_driven_low(int port, uint8_t pins);
// True when every pin of the mask is a push-pull GPIO output driving high (a line that switches
// something on the board).
bool gpio_driven_high(int port, uint8_t pins);
// True when every pin of the mask is handed to a peripheral (alternate function).
bool gpio_alternate(int port, uint8_t pins);
// A chip outside the microcontroller drives input pads (data-ready, card detect) or lets them go.
void gpio_drive_input(uint32_t port_base, uint8_t pins, bool level);
void gpio_release_input(uint32_t port_base, uint8_t pins);
void gpio_reset();

// ---------------------------------------------------------------- I2C bus (i2c.cpp)
// A chip on I2C0. The master addresses every attached device in turn; the first that acknowledges
// its address takes part in the transfer until the stop condition.
struct I2cDevice {
    virtual ~I2cDevice() = default;
    // A start (or repeated start) with this 7-bit address and direction; returns the acknowledge.
    virtual bool start(uint8_t address, bool read) = 0;
    // A byte from the master; returns the acknowledge.
    virtual bool write(uint8_t byte) = 0;
    // The master clocks in one byte; `ack` says whether the master acknowledges it (more follow).
    virtual uint8_t read(bool ack) = 0;
    virtual void stop() = 0;
    // Back to the state after power-up (called at every power-on period).
    virtual void power_on() {}
};
void i2c_attach(I2cDevice* device);
void i2c_reset();
// When the command a master is running finishes (its busy flag drops); UINT64_MAX when none runs.
// A loop polling the master's status sees nothing new before then.
uint64_t i2c_next_event_ns();

// ---------------------------------------------------------------- FRAM (fram.cpp)
I2cDevice& fram_device();
void fram_map(); // maps board/fram.bin (or memory in the unit tests)
void fram_flush();

// ---------------------------------------------------------------- SPI (ssi.cpp)
// A chip on one of the SSI modules, selected by a GPIO pad driven low. It sees frames only while
// selected.
struct SpiDevice {
    virtual ~SpiDevice() = default;
    virtual void select(bool selected) = 0;
    // One full-duplex frame: the master's bits in, the chip's bits out.
    virtual uint8_t exchange(uint8_t mosi) = 0;
    virtual void power_on() {}
    // The fastest serial clock the chip takes in its present state (0: no limit), and what the
    // simulator calls it when a master goes faster.
    virtual uint32_t max_clock_hz() const { return 0; }
    virtual const char* name() const { return "chip"; }
};
// Hangs a chip on SSI0..SSI3 with its chip select pad (port base as in hw_memmap.h, one pin mask).
void ssi_attach(int ssi, SpiDevice* device, uint32_t cs_port_base, uint8_t cs_pin);
// Called by gpio.cpp after the pads of a port changed, so that chip selects take effect at once.
void ssi_pads_changed(int port);
void ssi_reset();
uint64_t ssi_next_event_ns();
void ssi_service(uint64_t now_ns);
// The bit rate a module really produces now: its module clock / (CPSR x (1 + SCR)), truncated.
uint32_t ssi_bit_rate_hz(int module);
// Frames shifted in this power-on period to a selected chip faster than that chip's limit. Each
// chip's first such frame in a period is also reported on stderr.
uint32_t ssi_clock_violations();

// ---------------------------------------------------------------- microSD card (sdcard.cpp)
// Hangs the card on SSI0 (select PA3) the first time; called before the SSI modules reset.
void sdcard_attach();

// ---------------------------------------------------------------- ADS1248 (ads1248.cpp)
// Hangs the converter on SSI3 (select PD1) the first time; its conversions are timed events.
void ads1248_attach();
uint64_t ads1248_next_event_ns();
void ads1248_service(uint64_t now_ns);

// ---------------------------------------------------------------- board sensors on I2C0
// Hang the BME280 (0x76), the INA260 (0x40) and the PCAL6416 (0x20) on I2C0 the first time;
// called before the I2C bus resets.
void bme280_attach();
void ina260_attach();
void pcal6416_attach();
// The levels on the expander's 16 pins (port 1 in the high byte), for tests.
uint16_t pcal6416_pin_levels();
// The pins a push-pull output drives high (port 1 in the high byte): what the supply switches see.
uint16_t pcal6416_driven_high();

// ---------------------------------------------------------------- instruments (serial_instrument.cpp)
// What the scenario hangs on the serial ports: `port3` (UART3) the oxygen optode, the radiometer,
// the Brisa or the Pico-pH; `port4` (UART4) the SBE37 or the Aanderaa 5860. Every power-on period
// they start asleep with nothing to send.
void instruments_power_on();
uint64_t instruments_next_event_ns();
void instruments_service(uint64_t now_ns);
// A byte the board sent on an instrument port (UART1 to UART7) reaches what hangs on that port.
void instrument_tx(int port, uint8_t byte);

// ---------------------------------------------------------------- UV spectrometer (uvs.cpp)
// The spectrometer on UART2 (`uvs`), powered from the expander's port-0 pin 6, its lamp from pin 7,
// its RS-232 driver switched by PF4. It starts every power-on period unpowered.
void uvs_power_on();
uint64_t uvs_next_event_ns();
void uvs_service(uint64_t now_ns);
// A byte the board sent on UART2.
void uvs_receive(uint8_t byte, uint64_t now_ns);
// The expander's outputs changed: the spectrometer and its lamp look whether their supplies did.
void uvs_supplies_changed();
// The factory calibration file a new board's card holds (UVSCAL.CSV).
std::string uvs_calibration_file();

// ---------------------------------------------------------------- serial flash (flash.cpp)
SpiDevice& flash_device(int chip);

// ---------------------------------------------------------------- UART (uart.cpp)
void uart_reset();
uint64_t uart_next_event_ns();
void uart_service(uint64_t now_ns);
// The baud rate a UART's generator really produces from its latched divisor, high-speed mode and
// module clock, rounded (0 while the divisor cannot run it). Unlike sim::uart_baud it does not
// depend on the UART being enabled.
uint32_t uart_actual_baud(int port);

// ---------------------------------------------------------------- EEPROM (eeprom.cpp)
void eeprom_map();
void eeprom_power_on();
void eeprom_flush();
// When the word (or mass erase) in progress completes; in the past when none is.
uint64_t eeprom_next_event_ns();

// ---------------------------------------------------------------- persistent memories (devices.cpp)
// A byte array that lives in a file of the board directory (shared mapping: every write reaches the
// file at once) or, with no board directory (unit tests), in memory. `fill` is the content of a file
// created new. Remapped when the board directory changes.
struct Backing {
    std::string path; // the mapped file; empty while in memory
    uint8_t* data = nullptr;
    size_t size = 0;
    bool mapped = false;
    std::vector<uint8_t> memory;
};
uint8_t* backing_attach(Backing& b, const char* file_name, size_t size, uint8_t fill);
void backing_flush(Backing& b);

} // namespace sim::dev
