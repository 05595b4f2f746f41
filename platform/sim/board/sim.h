// The simulated board's internal interface: what the device models, the hxc3-sim front end and the
// unit tests share. The firmware never includes this; it reaches the board only through the
// TivaWare-style API in platform/include, which the files of this folder implement on the models.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sim {

// ---------------------------------------------------------------- virtual time (virtual_time.cpp)
// Virtual time in nanoseconds since the simulator started this run. 1 CPU cycle at 50 MHz = 20 ns.
constexpr uint64_t ns_per_cycle = 20;
constexpr uint64_t ns_per_ms = 1000000;
constexpr uint64_t ns_per_s = 1000000000;

uint64_t now_ns();
// Let virtual time pass while the firmware busy-waits. Everything due in the interval happens in
// order: SysTick interrupts every millisecond, UART bytes arriving and leaving, RTC seconds, the
// watchdog, the script or terminal. In real-time mode this also paces against the wall clock.
void advance_ns(uint64_t ns);
// The cost of one peripheral access through the API. Every API call spends a few cycles so that a
// polling loop without delays still moves virtual time forward.
void spend_cycles(uint32_t cycles);

// ---------------------------------------------------------------- interrupts (core.cpp)
// Processor interrupt mask (IntMasterDisable/Enable). While masked, pending handlers wait.
bool int_master_disable(); // returns the previous "was disabled" state, as TivaWare does
bool int_master_enable();
bool int_masked();
// A peripheral raises or drops its interrupt line. Handlers are the firmware's own C functions.
using Handler = void (*)();
void set_pending(int vector, bool pending);
void register_vector(int vector, Handler h); // the fixed vector table, filled by vectors.cpp
// Set to the firmware's enable state by IntEnable/IntDisable (NVIC).
void nvic_enable(int vector, bool on);

// ---------------------------------------------------------------- power (periods.cpp, world.cpp)
enum class PowerEvent {
    hibernate,   // HibernateRequest cut the power; wake by RTC match or pin
    reset,       // SysCtlReset
    watchdog,    // the external watchdog was not fed for 60 s
    power_cycle, // the script cut the power
    end,         // the run ends (script exit, expect failure, --run-for reached)
};
// Ends this power-on period. In hxc3-sim it persists the board and ends the process image; in the
// unit tests it returns to the test that started the firmware (see sim_test.h). Never returns.
[[noreturn]] void power_off(PowerEvent ev);

// What started the current power-on period, as written to --stats.
enum class WakeSource { power, pin, rtc, watchdog, reset };
WakeSource wake_source();

// ---------------------------------------------------------------- the board directory
// The board's folder in hxc3-sim; empty in the unit tests (persistent memories live in memory).
const std::string& board_dir();
// Scenario values (scenario.ini, changed by the script's `set`). Missing keys read as the default;
// a value that is not a number reads as the default in scenario_num.
double scenario_num(const std::string& key, double dflt);
// How many values have been set since the board was new (0: the scenario is empty, all defaults).
uint32_t scenario_changes();
std::string scenario_str(const std::string& key, const std::string& dflt);
// The microSD slot: scenario_str("card", "present") says what is in it now; this counter grows at
// every removal and insertion, so the card model can tell that a card was swapped.
uint32_t card_changes();

// ---------------------------------------------------------------- system control (sysctl.cpp)
// Whether the firmware has enabled a peripheral's clock (SysCtlPeripheralEnable, SYSCTL_PERIPH_*).
bool peripheral_enabled(uint32_t periph);
// The system clock the processor runs at now, as the firmware set up the clock tree (Hz). The
// precision internal oscillator (16 MHz) also clocks a UART whose clock source register selects it.
uint32_t system_clock_hz();
constexpr uint32_t piosc_hz = 16000000;
// A register access to a peripheral whose clock gate is closed: on the chip a bus fault. Reports
// it ("sim: bus fault: ...") and runs the firmware's hard-fault handler, which does not return.
// The models' API door calls it when a call reaches a module that is not clocked.
[[noreturn]] void clock_fault(const char* module, uint32_t address);
// Refuses the access (clock_fault) unless the peripheral (SYSCTL_PERIPH_*) is clocked.
void require_clock(uint32_t periph, const char* module, uint32_t address);

// ---------------------------------------------------------------- devices (devices side)
// Called by the runtime at the start of every power-on period (peripherals in their reset state,
// persistent memories mapped) and at its end (persistent memories flushed).
void devices_power_on();
void devices_power_off();
// The console UART (UART0) as seen from outside the board.
// A byte arrives at UART0's receive pin now (lost when the FIFO is full or the UART is off).
void uart_receive(int port, uint8_t byte);
// Set by the runtime: called when a byte leaves a UART's transmit shifter.
using TxSink = void (*)(int port, uint8_t byte);
void set_uart_tx_sink(TxSink sink);
// The baud rate a UART is set up for now (0 while it is disabled or not configured). The script's
// `send` and the test harness's typing use it to pace their bytes.
uint32_t uart_baud(int port);
// The next virtual time at which any device needs servicing (UART shift register, timers);
// UINT64_MAX when none. The runtime calls devices_service(now) when that time is reached.
uint64_t devices_next_event_ns();
void devices_service(uint64_t now_ns);

// Hibernation module state that outlives a power-on period (kept by the runtime in its shared
// state, read and written by hibernate.cpp). hib() brings the RTC fields up to the current virtual
// time before it returns them.
struct HibState {
    uint32_t rtc_seconds; // RTC counter
    uint64_t rtc_sub_ns;  // virtual ns into the current second
    uint32_t match0;      // RTC match 0
    uint32_t trim;        // RTC trim
    uint32_t ctl;         // wake conditions and enables (HIBCTL image)
    uint32_t ris;         // raw interrupt status
    uint32_t im;          // interrupt mask
    uint8_t active;       // the module is clocked and running (HibernateIsActive reports
                          // whether it was when the power-on period began)
    uint8_t hibernating;  // the chip is in hibernation (power cut)
    uint8_t rtc_enabled;
    uint8_t fail_requests; // this many following HibernateRequest calls do not cut the power
    uint32_t data[16];     // battery-backed memory (HibernateDataSet/Get)
};
HibState& hib();

// Persistent memories (eeprom.cpp, i2c.cpp): backed by board/eeprom.bin and board/fram.bin in
// hxc3-sim, by memory in the unit tests. Tests and the front end may read and write them directly.
constexpr uint32_t eeprom_size = 2048;
constexpr uint32_t fram_size = 32768;
uint8_t* eeprom_bytes();
uint8_t* fram_bytes();

// GPIO observation (gpio.cpp): the level a port drives on a pin (port base address as in hw_memmap.h).
bool gpio_level(uint32_t port_base, uint8_t pin_mask);
// The serial flash on SSI2 answers JEDEC ID with this manufacturer byte (0 = socket empty).
void set_flash_jedec(uint8_t manufacturer, uint8_t type, uint8_t capacity);

// Watchdog model (gpio.cpp): virtual time of the latest feed, and whether it is enabled.
uint64_t watchdog_deadline_ns(); // UINT64_MAX when disabled

// ---------------------------------------------------------------- microSD card (sdcard.cpp)
// The card in the slot on SSI0 (chip select PA3), an SD or MMC card in SPI mode. What kind of card
// and whether one is in the slot come from the scenario (`card`, `card.type`, the script's `card
// remove`/`card insert`); a new card.type takes effect when the card next powers up or is inserted.
// A `protected` card refuses every block written to it (data response "write error"), since the
// socket has no write-protect line the driver could read.
// Its contents are an image file: board/sdcard.img in hxc3-sim, the file sd_set_image names in the
// unit tests. Without a usable image the slot reads as empty. The card's capacity is the image's size
// rounded down to what its CSD register can express; blocks the file does not reach read as zeros.
// Sectors read and written are counted in stats().
void sd_set_image(const std::string& path); // empty: no image
// Ends the power-on period (PowerEvent::power_cycle) as soon as the k-th sector write from now has
// reached the image, before the card acknowledges it; 0 cancels.
void sd_cut_power_after_writes(uint64_t k);
// Every command frame the card took since the last clear, in order (CMD55 included; `app` marks the
// command that follows it).
struct SdCommand {
    uint8_t index;
    uint32_t arg;
    bool app;
};
const std::vector<SdCommand>& sd_commands();
void sd_clear_commands();
// Back to a new board: no image set, no power cut pending, no commands recorded.
void sd_reset();
// A file a new card comes with, in its root directory.
struct CardFile {
    std::string name; // 8.3
    std::string text;
};
// Makes `path` a new, sparse card image of `bytes` bytes formatted by the firmware's own f_mkfs
// (fmt: FM_FAT or FM_FAT32, one FAT, no partition table) and holding `files`, written by the
// firmware's own FAT module, run on the card model in a child process so that this process's
// firmware state stays untouched. False (and no file) when that fails.
bool sd_make_image(const std::string& path, uint64_t bytes, uint8_t fmt,
                   const std::vector<CardFile>& files = {});

// How long a supply has been on in this period: the intervals it was on and ended, and since when it
// is on now.
struct OnTime {
    uint64_t ended_ns;
    uint64_t since_ns;
    bool on;
};

// Counters for --stats (devices add to them; the runtime writes and resets them per period).
struct PeriodStats {
    uint64_t sd_reads;
    uint64_t sd_writes;
    uint64_t tx_bytes;
    OnTime uvs_supply;  // the spectrometer's
    OnTime lamp_supply; // its lamp's
};
PeriodStats& stats();
// A supply switched on or off at `now` (no change when it already was).
void on_time_switch(OnTime& t, bool on, uint64_t now);
uint64_t on_time_ns(const OnTime& t, uint64_t now);

} // namespace sim
