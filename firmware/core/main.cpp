// Start-up and the main state machine. Each wake is a fresh pass from reset: init, classify the
// wake once, act on the persisted sampling state, serve the host link, then sleep again.
#include "core/main.h"

#include "board/bme280.h"
#include "board/i2c0.h"
#include "board/pcal6416.h"
#include "board/pinmux.h"
#include "board/board_util.h"
#include "menus/menu.h"
#include "measure/sleep.h"
#include "records/system.h"
#include "storage/settings.h"
#include "measure/schedule.h"
#include "board/timebase.h"
#include "storage/error_log.h"
#include "storage/fatfs/diskio.h"
#include "driverlib/fpu.h"
#include "driverlib/hibernate.h"
#include "driverlib/interrupt.h"
#include "driverlib/sysctl.h"
#include "driverlib/systick.h"
#include "storage/apf_vars.h"
#include "hostlink/serial.h"
#include "measure/apf_math.h"
#include "measure/sample.h"
#include "measure/pump.h"
#include "ports/uartstdio.h"
#include "spectrometer/uvs.h"
#include "storage/i2c_fram.h"
#include "storage/microsd.h"

uint32_t g_ui32SysClock = 0;
uint32_t wakeSource = WAKE_NOTSET;
FIL* dat_file = nullptr;
FIL* err_file = nullptr;

namespace {
// Hibernation interrupts the firmware disables while it runs.
constexpr uint32_t hib_used_interrupts =
    HIBERNATE_INT_RTC_MATCH_0 | HIBERNATE_INT_LOW_BAT | HIBERNATE_INT_PIN_WAKE | HIBERNATE_INT_WR_COMPLETE;
static_assert(hib_used_interrupts == 0x1D);

// Error-log code of a start on the internal oscillator because the crystal or the PLL failed.
constexpr int32_t clock_fallback_error = -120;

// Time for the hibernation module's 32.768 kHz oscillator to settle after its configuration,
// before the RTC is started. Only spent on a start that was not a pin or RTC wake.
constexpr uint32_t hib_settle_ms = 100;

void console_baud_from_settings(void) {
    uint32_t rate = sys_data.baud_rate;
    if (rate != 4800 && rate != 9600 && rate != 19200 && rate != 38400 && rate != 57600) {
        return;
    }
    UARTStdioConfig(0, rate, 16000000);
}

// A board whose crystal or PLL failed runs at 16 MHz instead of 50: the dividers follow
// g_ui32SysClock, but busy-wait delays counted for 50 MHz last three times as long, and the operator
// should know why. Logged only once the float-controller record is loaded (the log call stores that
// record whole) and the card is mounted; the warning is printed here, so the log's echo stays off.
void report_clock_fallback(void) {
    if (!SysCtlClockSetFailed()) {
        return;
    }
    uprintf("\r\nWarning: the PLL did not lock, running on the 16 MHz internal oscillator\r\n");
    LogErrorMsg("PLL did not lock, running on the 16 MHz internal oscillator", clock_fallback_error, 0);
}

void init_microsd(void) {
    microSD_flg = 0;
    if (sys_data.app_cfg[APPCFG_MICROSD_ENABLE] == 0) {
        return;
    }
    if (!uSD_present()) {
        uprintf("\r\nError: MicroSD card is not detected\r\n");
        return;
    }
    init_uSDCard();
    microSD_flg = 1;
}

void debug_line(const char* text) {
    dbg_printf("%s\r\n", text);
    wait_consoleTx();
}

uint32_t classify_wake(uint32_t status) {
    if (status & HIBERNATE_INT_PIN_WAKE) {
        return WAKE_PIN;
    }
    if (status & HIBERNATE_INT_RTC_MATCH_0) {
        return WAKE_RTC;
    }
    constexpr uint32_t abnormal = HIBERNATE_INT_VDDFAIL | HIBERNATE_INT_RESET_WAKE | HIBERNATE_INT_GPIO_WAKE;
    if ((status & abnormal) != 0 || (status & HIBERNATE_INT_WR_COMPLETE) == 0) {
        sys_samp.state = IDLE;
        return WAKE_NOTSET;
    }
    return sys_samp.state == DEPLOYED ? WAKE_RTC : WAKE_NOTSET;
}

// First use of the module (power-up, or a wake that was neither pin nor RTC).
void setup_hibernation(void) {
    HibernateClockConfig(HIBERNATE_OSC_LOWDRIVE); // 32.768 kHz crystal, low drive (0)
    HibernateRTCTrimSet(0x7FFF);
    HibernateIntDisable(hib_used_interrupts);
    delay_msec(hib_settle_ms);
    HibernateRTCEnable();
}

uint32_t exec_switch(void) {
    return sys_data.app_cfg[APPCFG_EXEC_SWITCHERONI];
}

void deployed_pin_wake(void) {
    dbg_printf("\r\nMAIN: DEPLOYED, calling exec_command\r\n");
    if (exec_command(5) == 0) {
        sys_samp.state = IDLE;
        return;
    }
    uint32_t mode = exec_switch();
    if (mode == 0) {
        dbg_printf("\r\nMAIN: calling deploy(DEPLOYED) after key command\r\n");
        deploy(DEPLOYED, 1);
    } else if (mode == 2) {
        databarf_loop();
        sys_samp.state = IDLE;
    }
}

void deployed_rtc_wake(void) {
    uint32_t mode = exec_switch();
    if (mode == 0) {
        dbg_printf("\r\nMAIN: calling deploy(DEPLOYED)\r\n");
        deploy(DEPLOYED, 0);
    } else if (mode == 2) {
        databarf_loop();
        sys_samp.state = IDLE;
    }
}

// A deployment ends at any power-up or reset that is not a counted wake.
void deployed_uncounted_wake(void) {
    dbg_printf("\r\n(wakeSource == WAKE_NOTSET)\r\n");
    sys_samp.state = IDLE;
    storeSysDataVariables();
}

// The watchdog ends a stall by pulling the reset line, the only external reset on the board
// besides a person's reset button: such a start is said on the console and logged, so that a board
// recovered from the sea tells how often it stalled. Power-up and hibernation wakes are not logged.
void report_reset_line(void) {
    uint32_t cause = SysCtlResetCauseGet();
    SysCtlResetCauseClear(cause);
    if ((cause & SYSCTL_CAUSE_EXT) == 0) {
        return;
    }
    const char* text = "Reset by the watchdog or the reset line";
    uprintf("\r\n%s\r\n", text);
    error_store(text);
}

void dispatch_deployed(void) {
    if (wakeSource == WAKE_PIN) {
        deployed_pin_wake();
    } else if (wakeSource == WAKE_RTC) {
        deployed_rtc_wake();
    } else {
        deployed_uncounted_wake();
    }
}
} // namespace

void init(void) {
    FPUEnable();
    FPULazyStackingEnable();
    SysCtlClockSet(SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
    g_ui32SysClock = SysCtlClockGet();

    init_TM4C123GH6PM_64pin();
    m2m_set_menu(exec_main_menu);

    SysTickPeriodSet(g_ui32SysClock / 1000);
    SysTickIntEnable();
    SysTickEnable();
    IntMasterEnable();

    i2c0_init(0);
    fram_init();
    bme280_init();
    pcal6416_init();

    retrieveSysDataVariables();
    verifySysDataVariables();
    console_baud_from_settings();

    wdog_readMon();
    wdog_init();

    init_microsd();
    init_hxc();
    report_clock_fallback();
    pump_var_init();
}

// Runs before main copies sys_data.debug_flag, so its debug lines follow dbg_flag's initial value.
void init_hxc(void) {
    apf.sys_por_flag = 1;
    if (uvsDbgFlg == 1) {
        uprintf("  Norvale Sensor Controller v3 Initializing...\r\n");
    }
    init_apf_global_vars();
    IOPwrUp();
    // Only a nitrate float reads the calibration at every start; in the other modes the card is left
    // alone at each wake and the nitrate words load it when first asked.
    Zcoefs = apf.sys_sensor_mode == 1 && microSD_flg == 1 ? LoadIsusZCoefs() : 0;
    if (Zcoefs > 0) {
        InitLambdaArray();
        debug_line("DBG: ECoefs commented out");
    } else {
        debug_line("DBG: not calling DisplaySystemInfo, type sys.  Not calling SyncNextSample (ever)");
    }
}

int IOPwrUp(void) {
    apf.isus_spec_pwr = 0;
    apf.isus_lamp_pwr = 0;
    apf.isus_ref_pwr = 0;
    apf.dura_atod_pwr = 0;
    uvs_set_rts(1);
    return 0;
}

int IOPwrDown(void) {
    if (dat_file != nullptr) {
        f_close(dat_file);
        dat_file = nullptr;
    }
    if (err_file != nullptr) {
        f_close(err_file);
        err_file = nullptr;
    }
    uvs_power_down();
    uvs_set_rts(0);
    return 0;
}

// The module is active when it was already running as this power-on period began: the chip came
// out of hibernation, or a reset kept the module running, and its status tells what woke the chip.
// A power-up finds it stopped: no status is read, the source is WAKE_NOTSET (main then ends a
// deployment), and the module is set up for first use.
// The module's clock enable survives hibernation and resets but not a power-up, so it is read
// before the firmware enables the module itself: asked afterwards it would always answer "active",
// and a power cycle of a deployed board would look like a wake and carry on the deployment.
uint32_t wake_handler(void) {
    SysCtlPeripheralEnable(SYSCTL_PERIPH_HIBERNATE);
    bool came_from_hibernation = HibernateIsActive() != 0;
    HibernateEnableExpClk(g_ui32SysClock);
    uint32_t status = 0;
    uint32_t source = WAKE_NOTSET;
    if (came_from_hibernation) {
        status = HibernateIntStatus(false);
        HibernateIntClear(status);
        source = classify_wake(status);
        HibernateGPIORetentionDisable();
    }
    if ((status & (HIBERNATE_INT_PIN_WAKE | HIBERNATE_INT_RTC_MATCH_0)) == 0) {
        setup_hibernation();
    }
    return source;
}

int main(void) {
    init();
    dev_init_apf_vars();
    led_green_on();
    led_red_on();
    led_red_off();

    dbg_flag = sys_data.debug_flag;
    dbg_printf("\r\n***** BOARD_HXC = 3  HXC3 Tiva 123 + HXC3 baseboard *****\r\n");
    report_reset_line();
    wakeSource = wake_handler();

    for (;;) {
        uint32_t state = sys_samp.state;
        if (state == IDLE) {
            dbg_printf("\r\nMAIN: state = IDLE\r\n");
        } else if (state == DEPLOYED) {
            dispatch_deployed();
        }
        if (state != DEPLOYED) {
            if (sys_samp.state != 0) {
                uprintf("ERROR in sys_samp.state = %u", static_cast<unsigned>(sys_samp.state));
            }
            sys_samp.state = IDLE;
        }

        m2m_statemachine_init();
        exec_main_loop(100);

        if (sys_samp.state != 0) {
            deploy(DEPLOYED, 1);
        } else {
            sleep(0, 0);
        }
        uprintf("\r\nlife after switch\r\n");
    }
}

void exec_main_loop(uint32_t timeout_s) {
    apf_set_m2m_timeout();
    uint32_t start = HibernateRTCGet();
    for (;;) {
        wdog_pet();
        int32_t r = handle_m2m_comm();
        uint32_t now = HibernateRTCGet();
        if (r > 0) {
            start = now;
        }
        if (r < 0) {
            return;
        }
        if (now - start > timeout_s) {
            return;
        }
        if (now - start > barfSampleTime && databarFlg == 1) {
            start = now;
            get_sample(1, 1);
        }
    }
}

// The card driver's time-outs count in the timebase's 10 ms ticks.
extern "C" void SysTickHandler(void) {
    if (timebase_tick()) {
        disk_timerproc();
    }
}

// The halt spins on the delay primitive without feeding the watchdog, so only a reset or the
// watchdog ends it.
extern "C" void faultISR_handler(void) {
    uprintf(
        "\r\n\r\nQuillon Crash!!!, entering FaultISR infinte loop.  Hit Reset and report problem\r\n\r\n");
    wait_consoleTx();
    delay_msec(1000);
    for (;;) {
        SysCtlDelay(16667);
    }
}
