// Inside the runtime of the simulated board: the state that outlives a power-on period (kept in one
// plain block that hxc3-sim maps shared between its supervisor and the firmware's processes), the
// chip core that every power-on period starts afresh (SysTick, NVIC, clocks), and the hooks through
// which the front end or the unit-test harness plugs into the event loop. Device models use sim.h.
#pragma once

#include "script.h"
#include "sim.h"

#include <bitset>
#include <csignal>
#include <cstdint>
#include <string>

namespace sim {

constexpr uint64_t never = UINT64_MAX;
constexpr int num_vectors = 155; // 16 system exceptions and 139 interrupts
constexpr int systick_vector = 15;
// What a call of a core-peripheral function costs the firmware: the call and a register access or two.
constexpr uint32_t api_call_cycles = 12;

// ---------------------------------------------------------------- scenario values
constexpr int scenario_max = 96;
struct ScenarioEntry {
    char key[48];
    char value[208];
};
struct Scenario {
    int count;
    uint32_t changes; // grows with every value set: what is computed from the scenario can be kept until then
    ScenarioEntry entries[scenario_max];
};
// Whether a value is one the key takes (a number within the key's range, one of its names); `why`
// says what is wrong otherwise (an unknown key included).
bool scenario_check(const std::string& key, const std::string& value, std::string& why);
// Sets or replaces a value (keys and values that do not fit are refused with false).
bool scenario_set(const std::string& key, const std::string& value);
// The effects a value has on the state the runtime keeps (the failing hibernation requests, the card).
void scenario_apply(const std::string& key);

// ---------------------------------------------------------------- state across power-on periods
struct Shared {
    uint64_t now_ns;
    uint64_t run_for_ns; // the run ends at this virtual time (never: no limit)
    HibState hib;
    uint64_t rtc_synced_ns; // virtual time up to which the RTC fields have been brought

    // The current power-on period (for wake_source() and --stats).
    WakeSource wake;
    bool period_running;
    uint32_t period_start_rtc;
    uint64_t period_start_ns;
    PeriodStats stats;

    PowerEvent last_event; // how the latest power-on period ended
    int exit_status;       // of the run, once it ends

    // The WAKE pin: held asserted until this virtual time (a key press or the script's `pin`).
    uint64_t pin_until_ns;

    // Console input on its way to UART0 at the baud rate (terminal keys, the harness's type()).
    char typed[4096];
    uint32_t typed_len, typed_pos;
    uint64_t typed_next_ns;
    // Pauses in the typed input: the byte at typed_hold_pos[i] arrives no earlier than
    // typed_hold_ns[i].
    uint32_t typed_holds;
    uint32_t typed_hold_pos[8];
    uint64_t typed_hold_ns[8];

    script::State script;
    Scenario scenario;
    uint32_t card_changes;
    char card_kind[16]; // what goes back in at `card insert`: present or protected

    volatile sig_atomic_t stop_signal; // SIGINT/SIGTERM/SIGHUP asked the run to end
};
Shared& shared();
// hxc3-sim places the state in memory shared with its children; the unit tests use a static block.
void use_shared(Shared* s);
// Zeroes the state: virtual time 0, no scenario, module inactive, the RTC at `rtc_seconds`.
void clear_shared(uint32_t rtc_seconds);

// ---------------------------------------------------------------- the chip core of one period
struct Core {
    // Interrupts.
    bool masked;
    bool in_handler;
    std::bitset<num_vectors> pending;
    std::bitset<num_vectors> enabled;
    bool maybe_ready; // something was raised or enabled since dispatch last found nothing to run
    Handler handlers[num_vectors];
    uint64_t handlers_run;
    // SysTick: the counter wraps every `systick_period` cycles; the next wrap is at systick_next_ns.
    uint32_t systick_period;
    bool systick_enabled;
    bool systick_int;
    uint64_t systick_next_ns;
    // System control.
    uint32_t clock_hz;
    uint32_t reset_cause;
    static constexpr int max_periph = 64;
    uint32_t periph_enabled[max_periph];
    int periph_count;
    // FPU.
    bool fpu_enabled;
    bool fpu_lazy_stacking;
    // The image runs on the emulated processor, which takes its interrupts itself.
    bool emulated;
    // The host build runs the firmware's hard-fault handler (a fault inside it locks up).
    bool in_fault_handler;
};
Core& core();
// The chip as after a reset: clocks at the internal oscillator, nothing enabled, the fixed vector
// table installed, the processor interrupts unmasked.
void core_reset();
void install_vectors(); // vectors.cpp

// Forgets the event loop and handler a power-on period ended in (the test harness jumps out of them).
void leave_event_loop();
// Runs the pending interrupts the NVIC lets through (one at a time, lowest vector first).
void dispatch_interrupts();
// SysCtlSleep: lets time pass until an interrupt is pending.
void wait_for_interrupt();
// The next virtual time at which anything is due: a device, SysTick, the watchdog or the world.
uint64_t next_event_ns();
// SysTick's period in virtual time at the current system clock.
uint64_t systick_period_ns();

// ---------------------------------------------------------------- the RTC
// Brings the RTC counter up to the current virtual time; a counter passing match 0 sets the raw
// RTC-match status.
void rtc_sync();
// Virtual time at which the RTC reaches match 0 (never when the RTC stands still or the match lies
// behind the counter).
uint64_t rtc_match_time_ns();

// ---------------------------------------------------------------- the world around the board
// The front end (hxc3-sim) or the unit-test harness.
struct Host {
    // A byte the console UART sent (after the runtime recorded it for the script and --stats).
    void (*console_byte)(uint8_t b);
    // Called every poll_interval_ns of virtual time: terminal input, pacing against the wall clock.
    void (*poll)(uint64_t now);
    uint64_t poll_interval_ns; // 0: never
    // Ends the power-on period; never returns (the attribute cannot be spelled on a pointer).
    void (*power_off)(PowerEvent ev);
};
void set_host(const Host& h);
// The script the world plays (null: none). It is read-only; its running state is in shared().
void set_script(const script::Script* s);
const script::Script* current_script();
// Connects the console UART's output to the runtime (done at every power-on period).
void connect_console();
// Starts a power-on period: stats cleared, the period's start noted, the chip core reset.
void begin_period(WakeSource src);
// The line --stats gets for the period that ends now (empty when none is running); ends the period.
std::string end_period();
// The emulated chip reports its stack's high-water mark (bytes) for the last --stats column; the
// host build has no emulated stack and leaves the column empty.
void set_stack_probe(uint32_t (*probe)());

// What the hibernation module shows when a power-on period starts from `src`: after hibernation
// the wake's status bit (RTC match 0x01 or WAKE pin 0x08) and write-complete; after a power cycle
// an inactive module with no status; after a reset or the watchdog the module as it stands.
void apply_wake(WakeSource src);

// Queues console input at the console's baud rate, the first byte arriving one character time from now.
void type_console(const std::string& text);
// Queues console input after what is queued, its first byte arriving no earlier than delay_ns from
// now (an answer typed once the board has had time to act on the previous input).
void type_console_after(uint64_t delay_ns, const std::string& text);
// Character time on the console at its current baud rate (115200 when the UART is not set up).
uint64_t console_char_ns();

// The script's effects while the board runs: bytes go to UART0, the pin is pulsed, the run or the
// period ends through power_off.
script::Effects& awake_effects();
// Prints the failed expectation and the tail of the console output on stderr.
void report_expect_failure(const script::Command& c);
// Writes "sim: " and the message to stderr in one piece.
void message(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The board directory board_dir() reports (empty: the persistent memories live in memory).
void set_board_dir(const std::string& dir);

} // namespace sim
