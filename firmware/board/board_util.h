// Board-level lines: the external watchdog and its feeding statistics, the two indicator LEDs, and
// the power and line switches of the instruments, console, pump and solenoid.
#pragma once

#include <cstdint>

// Feeding statistics, in milliseconds of Timer_1ms.
struct wdogData {
    uint32_t tickStart;   // time of wdog_init
    uint32_t tickDelta;   // time of the latest feed
    uint32_t tickTot;     // from tickStart to the latest feed
    uint32_t tickLongest; // longest gap between two feeds
    uint32_t bitten;      // reserved for a watchdog reset; never set by this firmware
};

extern wdogData watchDog;
extern uint32_t ledRedState;
extern uint32_t ledGreenState;

void wdog_init(void);
void wdog_pet(void);
uint32_t wdog_resetMon(void);
uint32_t wdog_readMon(void);
void read_wdog_flipflop(void);

void led_init(void);
void led_red_on(void);
void led_red_off(void);
void led_red_toggle(void);
void led_red(uint32_t on);
void led_green_on(void);
void led_green_off(void);
void led_green_toggle(void);
void led_green(uint32_t on);

// Switches. On the HXC3 most of them moved to the baseboard's I/O expander: the routines keep their
// names so callers stay unchanged, and announce or silently ignore what this board cannot do.
void pwr_iso_on(void);
void pwr_iso_off(void);
void pwr_flash_on(void);
void pwr_flash_off(void);
void pwr_uSD_on(void);
void pwr_uSD_off(void);
void pump_on(void);
void pump_off(void);
void console_on(void);
void console_off(void);
void spare_rs232_on(void);
void spare_rs232_off(void);
void solenoid_on(void);
void solenoid_off(void);
void solenoid_hold(void);
void solenoid_hit(void);
void pwr_vbat_mon_on(void);
void pwr_vbat_mon_off(void);
void pwr_soln_on(void);
void pwr_soln_off(void);
void pwr_env_mon_on(void);
void pwr_env_mon_off(void);
void pwr_ctd_on(void);
void pwr_ctd_off(void);
void pwr_aux_pwr1_on(void);
void pwr_aux_pwr1_off(void);
void pwr_aux_pwr2_on(void);
void pwr_aux_pwr2_off(void);
void pwr_aux_pwr3_on(void);
void pwr_aux_pwr3_off(void);
void pressure_on(void);
void pressure_off(void);

// Provokes a processor fault on purpose, to exercise the fault handler from the test menus.
void crash_quillon(void);
