// The sample cycle: one complete measurement from powering the isolated ADC side to the line on the
// console and in the data file, with the serial instruments run between the ADC readings. Also the
// bias and ground-fault test readings and the snapshot-then-sample command.
#include "measure/sample.h"
#include "records/sample.h"

#include "board/bme280.h"
#include "board/ina260.h"
#include "board/board_util.h"
#include "records/system.h"
#include "board/timebase.h"
#include "storage/error_log.h"
#include "instruments/ctd_base.h"
#include "measure/ads1248_iso.h"
#include "measure/apf_math.h"
#include "measure/instrument_ports.h"
#include "measure/pump.h"
#include "measure/sample_line.h"
#include "storage/data_file.h"
#include "ports/uartstdio.h"
#include "storage/fatfs/ff.h"
#include "storage/i2c_fram.h"
#include "storage/microsd.h"
#include "storage/sd_append.h"
#include "storage/fault_note.h"

#include "driverlib/hibernate.h"
#include "driverlib/sysctl.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

float fBiasNeg;
float fBiasPos;
uint32_t databarFlg = 0;
uint32_t barfSampleTime = 5;

namespace {} // namespace

// ---------------------------------------------------------------- the sample cycle

namespace {

// Counter-electrode current from the sense voltage across its 15 kOhm resistor.
constexpr double ik_amps_per_volt = 66666.667;
// Time the isolated supply and the board sensors need from power-on before the sensors are read.
constexpr uint32_t sensor_settle_ms = 151;
constexpr uint32_t settle_step_ms = 5;
// CTD code 5 on port 4 is "none": the default salinity is used.
constexpr unsigned char uart4_no_ctd = 5;

// The time column's text. A time-stamp setting other than 1 or 2 leaves it as the last sample left it.
char time_text[51];

// Millisecond stopwatch of the cycle: the previous diag mark.
uint32_t diag_mark;

void wait_ms(uint32_t ms) {
    SysCtlDelay(ADS1248_DELAY_PER_MS * ms);
}

// One timing line of the cycle: milliseconds since the previous mark and since the cycle began.
void diag(const char* fmt) {
    uint32_t now = Timer_1ms(0);
    if (sys_data.app_cfg[APPCFG_SAMPLING_DIAG] == 1) {
        uprintf(fmt, (unsigned)(now - diag_mark), (unsigned)now);
    }
    diag_mark = now;
}

// Between ADC readings the instruments get a turn; a step that took measurable time says so.
void diag_if_slow(const char* fmt) {
    if (Timer_1ms(0) - diag_mark > 1) {
        diag(fmt);
    }
}

struct InstrumentStates {
    int uart3;
    int uart4;
};

void step_instruments(InstrumentStates& st) {
    if (uart3_in_use()) {
        st.uart3 = uart3_stateMachine(st.uart3);
        diag_if_slow("\r\nUart3 St8Ma = %5u,   %5u");
    }
    if (uart4_in_use()) {
        st.uart4 = uart4_stateMachine(st.uart4);
        diag_if_slow("\r\nCTD    St8Ma = %5u,   %5u");
    }
}

void stamp_time() {
    unsigned char mode = sys_data.data_cfg[CFG_TIMESTAMP];
    if (mode == 2) {
        sampl.timestamp = HibernateRTCGet();
        format_ms_timestamp(time_text, sizeof time_text, sampl.timestamp);
    } else if (mode == 1) {
        sampl.timestamp = HibernateRTCGet();
        struct tm* cal = get_RTC_time();
        if (cal != nullptr) {
            strftime(time_text, 50, "%m/%d/%Y %H:%M:%S", cal);
        }
    }
}

// The bias batteries are read through a divide-by-two; GPIO3 of the converter picks the side.
float read_bias_side(uint32_t positive) {
    ADS1248_gpio3(positive);
    wait_ms(10);
    return 2.0f * pollADS1248_iso(7, 6, (int)sys_data.Vbias_trials, 1, (int)sys_data.Vbias_sps);
}

float read_channel(uint32_t mux_position, int ain_pos, int ain_neg, uint32_t trials, uint32_t sps) {
    ADS1248_gpio_ADG1609_mux(mux_position);
    wait_ms(10);
    return pollADS1248_iso(ain_pos, ain_neg, (int)trials, 1, (int)sps);
}

// Readings of the biased cells go into the line only.
struct BiasedCells {
    float vrsi, vrsi_std;
    float vrse, vrse_std;
};

void read_adc_channels(BiasedCells& biased) {
    const unsigned char* cfg = sys_data.data_cfg;
    if (cfg[CFG_I_SUBSTRATE]) {
        sampl.fIb = read_channel(2, 1, 6, sys_data.Ib_trials, sys_data.Ib_sps);
        wdog_pet();
        diag("\r\nIb Substrate = %5u,   %5u");
    }
    if (cfg[CFG_I_COUNTER]) {
        float v = read_channel(1, 1, 5, sys_data.Ik_trials, sys_data.Ik_sps);
        // The offset is an unsigned count subtracted from volts; its default is 0.
        sampl.fIk = static_cast<float>((v - static_cast<float>(sys_data.offset_Ik)) * ik_amps_per_volt);
        sampl.fIk_std = static_cast<float>(sys_samp.AD24_std * ik_amps_per_volt);
        wdog_pet();
        diag("\r\nIk Cntr E    = %5u,   %5u");
    }
    if (cfg[CFG_V_COUNTER_ELECT]) {
        sampl.fVk = read_channel(1, 1, 6, sys_data.Vk_trials, sys_data.Vk_sps);
        sampl.fVk_std = sys_samp.AD24_std;
        wdog_pet();
        diag("\r\nVk Cntr E    = %5u,   %5u");
    }
    if (cfg[CFG_V_THERMISTOR]) {
        // The thermistor is not behind the multiplexer.
        sampl.fVtherm = pollADS1248_iso(0, 6, (int)sys_data.Vtherm_trials, 1, (int)sys_data.Vtherm_sps);
        sampl.fVtherm_std = sys_samp.AD24_std;
        wdog_pet();
        diag("\r\nVtherm       = %5u,   %5u");
    }
    if (cfg[CFG_VRSI_BIASED]) {
        biased.vrsi = read_channel(3, 1, 5, sys_data.Vrsi_trials, sys_data.Vrsi_sps);
        biased.vrsi_std = sys_samp.AD24_std;
        wdog_pet();
        diag("\r\nVrsi_B       = %5u,   %5u");
    }
    if (cfg[CFG_VRSI]) {
        sampl.fVrsi = read_channel(3, 1, 6, sys_data.Vrsi_trials, sys_data.Vrsi_sps);
        sampl.fVrsi_std = sys_samp.AD24_std;
        wdog_pet();
        diag("\r\nVrsi         = %5u,   %5u");
    }
    if (cfg[CFG_VRSE_BIASED]) {
        biased.vrse = read_channel(0, 1, 5, sys_data.Vrse_trials, sys_data.Vrse_sps);
        biased.vrse_std = sys_samp.AD24_std;
        wdog_pet();
        diag("\r\nVrse_B       = %5u,   %5u");
    }
    if (cfg[CFG_VRSE]) {
        sampl.fVrse = 0.0f;
        sampl.fVrse = read_channel(0, 1, 6, sys_data.Vrse_trials, sys_data.Vrse_sps);
        sampl.fVrse_std = sys_samp.AD24_std;
        wdog_pet();
        diag("\r\nVrse         = %5u,   %5u");
    }
}

void compute_results() {
    const unsigned char* cfg = sys_data.data_cfg;
    if (cfg[CFG_CALC_TEMP]) {
        sampl.fTempC = DuraFET_temp(sampl.fVtherm, sys_data.TCOffset);
        diag("\r\nCalc TempC   = %5u,   %5u");
    }
    if (cfg[CFG_CALC_PH_VRSE]) {
        // Without a CTD the configured salinity stands; with one, the last salinity it reported,
        // which is stale when its latest pass failed. A CTD that has not reported yet (0) or sent
        // nonsense would make the pH -inf or nan, so the configured salinity stands in for it.
        float salinity = sys_samp.sensor_sal;
        if (cfg[CFG_UART4_INST] == uart4_no_ctd || !(salinity > 0.0f)) {
            salinity = sys_data.default_sal;
        }
        sampl.pHext = calc_pHext(sampl.fVrse, sampl.fTempC, salinity);
        diag("\r\nCalc pH Ext  = %5u,   %5u");
    }
    if (cfg[CFG_CALC_PH_VRSI]) {
        sampl.pHint = calc_pHint(sampl.fVrsi, sampl.fTempC);
        diag("\r\nCalc pH Int  = %5u,   %5u");
    }
}

// The live line: the "last sample" columns with the biased cells inserted before the counter
// electrode, then the instrument and pump texts.
void format_live_line(const BiasedCells& biased) {
    const unsigned char* cfg = sys_data.data_cfg;
    line_begin();
    if (cfg[CFG_SAMPLE_NUM]) {
        line_append("#%07u\t", (unsigned)sampl.sampNum);
    }
    if (cfg[CFG_TIMESTAMP]) {
        line_append("%s\t", time_text);
    }
    line_battery_to_phext(fBiasPos, fBiasNeg);
    if (cfg[CFG_VRSI_BIASED]) {
        line_append("%8.6f\t", (double)biased.vrsi);
    }
    if (cfg[CFG_VRSI_BIASED_STD]) {
        line_append("%8.6f\t", (double)biased.vrsi_std);
    }
    if (cfg[CFG_VRSE_BIASED]) {
        line_append("%8.6f\t", (double)biased.vrse);
    }
    if (cfg[CFG_VRSE_BIASED_STD]) {
        line_append("%8.6f\t", (double)biased.vrse_std);
    }
    line_counter_and_currents();
    if (uart3_in_use()) {
        line_append("%s\t", uart3_prn_buf);
    }
    if (uart4_in_use()) {
        line_append("%s\t", uart4_prn_buf);
    }
    if (sys_data.pump_seq_type == 2) {
        line_append("%s\t", pumpBuf);
    }
    diag("\r\nformat data  = %5u,   %5u\r\n");
    if (sys_data.app_cfg[APPCFG_SAMPLING_DIAG] == 1) {
        line_append("(%u msec)\t", (unsigned)Timer_1ms(0));
    }
}

// A supply below the low-battery threshold is said on the console and logged when it is first seen,
// then once a day while it stays low, so that a deployment that runs its batteries down leaves a
// trace without filling the error log. Sampling goes on: the data are still worth having.
void note_low_supply(float volts) {
    float threshold = sys_data.low_batt_volt;
    if (!(volts > 0.0f) || !(threshold > 0.0f)) {
        return; // no supply reading (the monitor is not fitted), or no threshold set
    }
    if (volts >= threshold) {
        fault_clear(FAULT_LOW_SUPPLY);
        return;
    }
    char text[80];
    snprintf(text, sizeof text, "Low battery: %.2f V, below the %.2f V threshold", static_cast<double>(volts),
             static_cast<double>(threshold));
    fault_note(FAULT_LOW_SUPPLY, text);
}

} // namespace

void get_sample(uint32_t printFlg, uint32_t writeFlg) {
    const unsigned char* cfg = sys_data.data_cfg;
    Timer_1ms(1);
    diag_mark = 0;
    if (sys_data.test_mode == 1) {
        uprintf("\r\nSampling...");
    }
    wdog_pet();
    stamp_time();

    openADS1248_iso();
    wait_ms(100);
    wdog_pet();
    ADS1248_gpio_init();
    pwr_env_mon_on();
    diag("\r\nPwr on, init = %5u,   %5u");
    uint32_t power_on_ms = Timer_1ms(0);

    // The instruments run between the ADC readings: the CTD's wake and reply take about a second.
    InstrumentStates st{0, 0};
    if (uart3_in_use()) {
        st.uart3 = uart3_stateMachine(1);
        diag("\r\nUart3 St8Ma = %5u,   %5u");
    }
    if (uart4_in_use()) {
        st.uart4 = uart4_stateMachine(1);
        diag("\r\nCTD    St8Ma = %5u,   %5u");
    }

    // Bias readings come first: selecting a multiplexer position clears the bias selector.
    if (cfg[CFG_BIAS_BAT_NEG]) {
        fBiasNeg = 0.0f;
        sampl.fBiasNeg = read_bias_side(0);
        fBiasNeg = sampl.fBiasNeg;
        wdog_pet();
        step_instruments(st);
    }
    if (cfg[CFG_BIAS_BAT_POS]) {
        fBiasPos = 0.0f;
        sampl.fBiasPos = read_bias_side(1);
        fBiasPos = sampl.fBiasPos;
        wdog_pet();
        step_instruments(st);
    }
    if (cfg[CFG_BIAS_BAT_NEG] || cfg[CFG_BIAS_BAT_POS]) {
        diag_if_slow("\r\nBias Bat     = %5u,   %5u");
    }

    // Each driver ends by its own time-outs. The CTD keeps its turns while port 3 finishes, so the
    // two instruments' waits overlap instead of adding up.
    while (st.uart3 != 0) {
        st.uart3 = uart3_stateMachine(st.uart3);
        if (st.uart4 != 0) {
            st.uart4 = uart4_stateMachine(st.uart4);
        }
    }
    diag("\r\nUart3 Inst   = %5u,   %5u");
    wdog_pet();
    while (st.uart4 != 0) {
        st.uart4 = uart4_stateMachine(st.uart4);
    }
    diag("\r\nUart4 Inst   = %5u,   %5u");

    BiasedCells biased{};
    read_adc_channels(biased);

    wdog_pet();
    while (Timer_1ms(0) - power_on_ms < sensor_settle_ms) {
        wait_ms(settle_step_ms);
    }

    wdog_pet();
    ina260_system_voltageCurrent(&sampl.fVbat_main, &sampl.fsysAmp);
    if (cfg[CFG_BRD_TEMP]) {
        sampl.fBrdTempC = bme280_get_fTemperature();
    }
    if (cfg[CFG_BRD_HUMIDITY]) {
        sampl.uiHumidity = bme280_get_uiHumidity();
    }
    wdog_pet();
    diag("\r\nOnchip ADC   = %5u,   %5u");

    pwr_vbat_mon_off();
    pwr_env_mon_off();
    closeADS1248_iso();

    compute_results();
    sampl.sampNum = sys_samp.current_sample;
    format_live_line(biased);
    line_end();

    if (printFlg == 1) {
        UARTwrite(prnBuf, static_cast<uint32_t>(line_length()));
    }
    if (sys_data.app_cfg[APPCFG_MICROSD_ENABLE] == 1 && writeFlg == 1) {
        append_to_data_file(prnBuf, static_cast<uint32_t>(line_length()));
        diag("\r\nuSD writes   = %5u,   %5u");
    }
    note_low_supply(sampl.fVbat_main);
    wait_consoleTx();
    diag("\r\nwait TX      = %5u,   %5u");
    sys_samp.current_sample++;
    led_red_off();
}

void read_bias_bat(void) {
    pwr_iso_on();
    openADS1248_iso();
    wait_ms(100);
    ADS1248_gpio_init();
    // The first conversion after switching the selector is thrown away: the divider needs to settle.
    ADS1248_gpio3(0);
    wait_ms(10);
    pollADS1248_iso(7, 6, 5, 1, 20);
    wait_ms(100);
    float negative = pollADS1248_iso(7, 6, 5, 1, 20);
    ADS1248_gpio3(1);
    wait_ms(10);
    pollADS1248_iso(7, 6, 5, 1, 20);
    wait_ms(100);
    float positive = pollADS1248_iso(7, 6, 5, 1, 20);
    fBiasPos = 2.0f * positive;
    fBiasNeg = 2.0f * negative;
    closeADS1248_iso();
    pwr_iso_off();
}

float get_groundfault(void) {
    ADS1248_gpio_ADG1609_mux(0);
    wait_ms(10);
    return pollADS1248_iso(0, 4, 10, 1, 20);
}

void sendlast_takesample(void) {
    if (sys_data.app_cfg[APPCFG_MICROSD_ENABLE] == 0) {
        uprintf("void sendlast_takesample(void) is not supported with microSD disabled\r\n");
        return;
    }
    uprintf("VESK TODO:  Sendlast_takesample is not done yet\r\n");
    // The card's file object is given back before each sample: the sample appends through it.
    FIL* fil = sd_file_take();
    FRESULT fr = fil != nullptr ? f_open(fil, "snapshot.txt", FA_READ) : FR_LOCKED;
    if (fr != FR_OK) {
        sd_file_give();
        get_sample(0, 1);
        fil = sd_file_take();
        fr = fil != nullptr ? f_open(fil, "snapshot.txt", FA_READ) : FR_LOCKED;
        if (fr != FR_OK) {
            sd_file_give();
            uprintf("f_open error snapshot.txt: %s\r\n", StringFromFresult(fr));
            error_store("f_open error on snapshot.txt");
            return;
        }
    }
    char text[240];
    UINT got = 0;
    fr = f_read(fil, text, sizeof text - 1, &got);
    if (fr != FR_OK) {
        uprintf("f_read error snapshot.txt\r\n");
    } else if (got < 5) {
        uprintf("bad read size (less than 5)\r\n");
    } else {
        UARTwrite(text, got);
    }
    fr = f_close(fil);
    sd_file_give();
    if (fr != FR_OK) {
        uprintf("f_close error snapshot.txt: %s\r\n", StringFromFresult(fr));
        error_store("f_close error");
    }
    get_sample(0, 1);
}
