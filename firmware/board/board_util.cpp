// Board-level lines on GPIO port F (watchdog enable PF0, feed PF1, red LED PF2, green LED PF3), the
// watchdog monitor on PA7, and the switch routines of the older boards kept for their callers.
#include "board/board_util.h"

#include "board/timebase.h"
#include "driverlib/gpio.h"
#include "driverlib/sysctl.h"
#include "inc/hw_memmap.h"
#include "ports/uartstdio.h"

namespace {
constexpr uint8_t wdog_enable_pin = GPIO_PIN_0;
constexpr uint8_t wdog_feed_pin = GPIO_PIN_1;
constexpr uint8_t led_red_pin = GPIO_PIN_2;
constexpr uint8_t led_green_pin = GPIO_PIN_3;
constexpr uint8_t wdog_monitor_pin = GPIO_PIN_7; // port A

// 10 us of SysCtlDelay. Not delay_usec: that feeds the watchdog, which would recurse into wdog_pet.
void wait_10us(void) {
    SysCtlDelay(17 * 10);
}

void set_line(uint32_t port, uint8_t pin, bool high) {
    GPIOPinWrite(port, pin, high ? pin : 0);
}
} // namespace

wdogData watchDog = {0, 0, 0, 0, 0};
uint32_t ledRedState = 0;
uint32_t ledGreenState = 0;

// ---------------------------------------------------------------- watchdog

void wdog_init(void) {
    watchDog.tickStart = Timer_1ms(0);
    set_line(GPIO_PORTF_BASE, wdog_enable_pin, false);
    wait_10us();
    set_line(GPIO_PORTF_BASE, wdog_enable_pin, true);
    set_line(GPIO_PORTF_BASE, wdog_feed_pin, false);
}

void wdog_pet(void) {
    uint32_t now = Timer_1ms(0);
    uint32_t gap = now - watchDog.tickDelta;
    if (gap > watchDog.tickLongest) {
        watchDog.tickLongest = gap;
    }
    watchDog.tickDelta = now;
    watchDog.tickTot = now - watchDog.tickStart;

    set_line(GPIO_PORTF_BASE, wdog_feed_pin, true);
    wait_10us();
    set_line(GPIO_PORTF_BASE, wdog_feed_pin, false);
}

// The monitor line is only read here: it is an input from the watchdog's flip-flop, and driving it
// could fight that part. Returns the line's level (1 high).
uint32_t wdog_resetMon(void) {
    GPIOPinTypeGPIOInput(GPIO_PORTA_BASE, wdog_monitor_pin);
    return GPIOPinRead(GPIO_PORTA_BASE, wdog_monitor_pin) != 0 ? 1 : 0;
}

// This board has no readable watchdog monitor.
uint32_t wdog_readMon(void) {
    return 0;
}

void read_wdog_flipflop(void) {
    uprintf("Not implemented yet\r\n");
}

// ---------------------------------------------------------------- LEDs

void led_init(void) {
    ledRedState = 0;
    ledGreenState = 0;
    GPIOPinTypeGPIOOutput(GPIO_PORTF_BASE, led_green_pin | led_red_pin);
    GPIOPinWrite(GPIO_PORTF_BASE, led_green_pin | led_red_pin, 0);
}

void led_red_on(void) {
    set_line(GPIO_PORTF_BASE, led_red_pin, true);
    ledRedState = 1;
}

void led_red_off(void) {
    set_line(GPIO_PORTF_BASE, led_red_pin, false);
    ledRedState = 0;
}

void led_red_toggle(void) {
    led_red(ledRedState == 0 ? 1 : 0);
}

void led_red(uint32_t on) {
    if (on) {
        led_red_on();
    } else {
        led_red_off();
    }
}

void led_green_on(void) {
    set_line(GPIO_PORTF_BASE, led_green_pin, true);
    ledGreenState = 1;
}

void led_green_off(void) {
    set_line(GPIO_PORTF_BASE, led_green_pin, false);
    ledGreenState = 0;
}

void led_green_toggle(void) {
    led_green(ledGreenState == 0 ? 1 : 0);
}

void led_green(uint32_t on) {
    if (on) {
        led_green_on();
    } else {
        led_green_off();
    }
}

// ---------------------------------------------------------------- switches

void pwr_iso_on(void) {
    uprintf("\r\npwr_iso_on is not ported on HXC3, board_util, line 190\r\n");
    set_line(GPIO_PORTE_BASE, GPIO_PIN_0, true);
}

void pwr_iso_off(void) {
    uprintf("\r\npwr_iso_off is not ported on HXC3, board_util, line 201\r\n");
    set_line(GPIO_PORTE_BASE, GPIO_PIN_0, false);
}

void pwr_flash_on(void) {
    uprintf("pwr_flash_on needs imp board_util\r\n");
    set_line(GPIO_PORTE_BASE, GPIO_PIN_5, true);
    delay_msec(1);
}

void pwr_flash_off(void) {
    set_line(GPIO_PORTE_BASE, GPIO_PIN_5, false);
    uprintf("pwr_flash_off needs imp board_util\r\n");
}

void pwr_uSD_on(void) {}

// The text names pwr_uSD_on; operators and logs know it by that line.
void pwr_uSD_off(void) {
    uprintf("pwr_uSD_on needs imp board_util\r\n");
}

void pump_on(void) {
    uprintf("pump_on is PCAL6416 on HXC3 baseboard, not supported yet board_util line 339\r\n");
}

void pump_off(void) {
    uprintf("pump_off is PCAL6416 on HXC3 baseboard, not supported yet board_util line 357\r\n");
}

void console_on(void) {
    uprintf("\r\nconsole enable is not ported on HXC3, board_util, line 118\r\n");
}

void console_off(void) {}

void spare_rs232_on(void) {}
void spare_rs232_off(void) {}
void solenoid_on(void) {}
void solenoid_off(void) {}
void solenoid_hold(void) {}
void solenoid_hit(void) {}
void pwr_vbat_mon_on(void) {}
void pwr_vbat_mon_off(void) {}
void pwr_soln_on(void) {}
void pwr_soln_off(void) {}
void pwr_env_mon_on(void) {}
void pwr_env_mon_off(void) {}
void pwr_ctd_on(void) {}
void pwr_ctd_off(void) {}
void pwr_aux_pwr1_on(void) {}
void pwr_aux_pwr1_off(void) {}
void pwr_aux_pwr2_on(void) {}
void pwr_aux_pwr2_off(void) {}
void pwr_aux_pwr3_on(void) {}
void pwr_aux_pwr3_off(void) {}
void pressure_on(void) {}
void pressure_off(void) {}

// ---------------------------------------------------------------- fault test

// 0x00300000 lies in the reserved gap between the flash (up to 0x0003FFFF) and the ROM
// (0x01000000): a read there is a bus fault, which escalates to the hard fault handler.
void crash_quillon(void) {
    volatile uint32_t* nowhere = reinterpret_cast<volatile uint32_t*>(0x00300000u);
    uint32_t value = *nowhere;
    (void)value;
}
