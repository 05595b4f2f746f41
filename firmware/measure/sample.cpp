// The sample record and its "last sample" line, and the sample cycle: one complete measurement
// from powering the isolated ADC side to the line on the console and in the data file, with the
// serial instruments run between the ADC readings. Also the pump entry points (no pump sequence in
// this build), the bias and ground-fault test readings and continuous sampling.
#include "measure/sample.h"

#include "board/bme280.h"
#include "board/ina260.h"
#include "core/board_util.h"
#include "core/system.h"
#include "core/timebase.h"
#include "instruments/ctd_aand5860.h"
#include "instruments/ctd_base.h"
#include "instruments/ctd_sbe37.h"
#include "instruments/brisa.h"
#include "instruments/ocr.h"
#include "instruments/optode.h"
#include "instruments/picoph.h"
#include "measure/ads1248_iso.h"
#include "measure/apf_math.h"
#include "ports/uartstdio.h"
#include "storage/fatfs/ff.h"
#include "storage/i2c_fram.h"
#include "storage/microsd.h"
#include "storage/sd_append.h"
#include "core/fault_note.h"

#include "driverlib/hibernate.h"
#include "driverlib/sysctl.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

sampData sampl;
char prnBuf[PRNBUF_SIZE];
char pumpBuf[PUMPBUF_SIZE];
float fBiasNeg;
float fBiasPos;
uint32_t databarFlg = 0;
uint32_t barfSampleTime = 5;

namespace {

// Appends to prnBuf; output beyond its end is cut.
size_t prn_pos;

void prn_append(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void prn_append(const char* fmt, ...) {
    if (prn_pos >= sizeof prnBuf - 1) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    int n = vsnprintf(prnBuf + prn_pos, sizeof prnBuf - prn_pos, fmt, args);
    va_end(args);
    if (n < 0) {
        return;
    }
    prn_pos += static_cast<size_t>(n);
    if (prn_pos > sizeof prnBuf - 1) {
        prn_pos = sizeof prnBuf - 1;
    }
}

// "%13llu" without the C library: the board's printf has no 64-bit integer conversions and would
// print the letters instead of the number.
void format_u64_13(char* text, size_t size, unsigned long long v) {
    char digits[21];
    size_t n = 0;
    do {
        digits[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    char number[21];
    for (size_t i = 0; i < n; i++) {
        number[i] = digits[n - 1 - i];
    }
    number[n] = '\0';
    snprintf(text, size, "%13s", number);
}

// The time column: 1 calendar time, 2 milliseconds on the controller's epoch (the constant is the
// one the host software expects), anything else an empty field.
void format_time_column(char* text, size_t size) {
    text[0] = '\0';
    if (sys_data.data_cfg[CFG_TIMESTAMP] == 1) {
        time_t t = static_cast<time_t>(sampl.timestamp);
        struct tm* cal = localtime(&t);
        if (cal != nullptr) {
            strftime(text, size, "%m/%d/%Y %H:%M:%S", cal);
        }
    } else if (sys_data.data_cfg[CFG_TIMESTAMP] == 2) {
        format_ms_timestamp(text, size, sampl.timestamp);
    }
}

} // namespace

// ---------------------------------------------------------------- the sample cycle

namespace {

// Counter-electrode current from the sense voltage across its 15 kOhm resistor.
constexpr double ik_amps_per_volt = 66666.667;
// Time the isolated supply and the board sensors need from power-on before the sensors are read.
constexpr uint32_t sensor_settle_ms = 151;
constexpr uint32_t settle_step_ms = 5;
// CTD codes on port 4: 5 is "none" (the default salinity is used), 6 and up are real drivers.
constexpr unsigned char uart4_no_ctd = 5;
constexpr unsigned char uart4_first_ctd = 6;

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

bool uart3_in_use() {
    return sys_data.data_cfg[CFG_UART3_INST] != 0;
}

bool uart4_in_use() {
    return sys_data.data_cfg[CFG_UART4_INST] >= uart4_first_ctd;
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

// Columns 3 to 16 (battery to external-reference pH), common to the live line and the last-sample
// reply; the live line passes the bias readings of this cycle, the reply those kept in the record.
void append_battery_to_phext(float bias_pos, float bias_neg) {
    const unsigned char* cfg = sys_data.data_cfg;
    if (cfg[CFG_VIN_BAT_VOLT]) {
        prn_append("%8.2f\t", (double)sampl.fVbat_main);
    }
    if (cfg[CFG_BIAS_BAT_POS]) {
        prn_append("%8.2f\t", (double)bias_pos);
    }
    if (cfg[CFG_BIAS_BAT_NEG]) {
        prn_append("%8.2f\t", (double)bias_neg);
    }
    if (cfg[CFG_BRD_TEMP]) {
        prn_append("%8.2f\t", (double)sampl.fBrdTempC);
    }
    if (cfg[CFG_BRD_HUMIDITY]) {
        prn_append("%8u\t", (unsigned)sampl.uiHumidity);
    }
    if (cfg[CFG_V_THERMISTOR]) {
        prn_append("%8.6f\t", (double)sampl.fVtherm);
    }
    if (cfg[CFG_V_THERMISTOR_STD]) {
        prn_append("%8.6f\t", (double)sampl.fVtherm_std);
    }
    if (cfg[CFG_CALC_TEMP]) {
        prn_append("%8.3f\t", (double)sampl.fTempC);
    }
    if (cfg[CFG_VRSI]) {
        prn_append("%8.6f\t", (double)sampl.fVrsi);
    }
    if (cfg[CFG_VRSI_STD]) {
        prn_append("%8.6f\t", (double)sampl.fVrsi_std);
    }
    if (cfg[CFG_CALC_PH_VRSI]) {
        prn_append("%8.3f\t", (double)sampl.pHint);
    }
    if (cfg[CFG_VRSE]) {
        prn_append("%8.6f\t", (double)sampl.fVrse);
    }
    if (cfg[CFG_VRSE_STD]) {
        prn_append("%8.6f\t", (double)sampl.fVrse_std);
    }
    if (cfg[CFG_CALC_PH_VRSE]) {
        prn_append("%8.3f\t", (double)sampl.pHext);
    }
}

// Columns 17 to 20 (counter electrode and currents), common to both lines.
void append_counter_and_currents() {
    const unsigned char* cfg = sys_data.data_cfg;
    if (cfg[CFG_V_COUNTER_ELECT]) {
        prn_append("%8.6f\t", (double)sampl.fVk);
    }
    if (cfg[CFG_V_COUNTER_ELECT_STD]) {
        prn_append("%8.6f\t", (double)sampl.fVk_std);
    }
    if (cfg[CFG_I_COUNTER]) {
        prn_append("%8.2f\t", (double)sampl.fIk);
    }
    if (cfg[CFG_I_SUBSTRATE]) {
        prn_append("%8.3f\t", (double)sampl.fIb);
    }
}

// The live line: the "last sample" columns with the biased cells inserted before the counter
// electrode, then the instrument and pump texts.
void format_live_line(const BiasedCells& biased) {
    const unsigned char* cfg = sys_data.data_cfg;
    prn_pos = 0;
    prnBuf[0] = '\0';
    if (cfg[CFG_SAMPLE_NUM]) {
        prn_append("#%07u\t", (unsigned)sampl.sampNum);
    }
    if (cfg[CFG_TIMESTAMP]) {
        prn_append("%s\t", time_text);
    }
    append_battery_to_phext(fBiasPos, fBiasNeg);
    if (cfg[CFG_VRSI_BIASED]) {
        prn_append("%8.6f\t", (double)biased.vrsi);
    }
    if (cfg[CFG_VRSI_BIASED_STD]) {
        prn_append("%8.6f\t", (double)biased.vrsi_std);
    }
    if (cfg[CFG_VRSE_BIASED]) {
        prn_append("%8.6f\t", (double)biased.vrse);
    }
    if (cfg[CFG_VRSE_BIASED_STD]) {
        prn_append("%8.6f\t", (double)biased.vrse_std);
    }
    append_counter_and_currents();
    if (uart3_in_use()) {
        prn_append("%s\t", uart3_prn_buf);
    }
    if (uart4_in_use()) {
        prn_append("%s\t", uart4_prn_buf);
    }
    if (sys_data.pump_seq_type == 2) {
        prn_append("%s\t", pumpBuf);
    }
    diag("\r\nformat data  = %5u,   %5u\r\n");
    if (sys_data.app_cfg[APPCFG_SAMPLING_DIAG] == 1) {
        prn_append("(%u msec)\t", (unsigned)Timer_1ms(0));
    }
}

// The final tab becomes the line end. A line with no column at all is just the line end.
void terminate_line() {
    if (prn_pos > sizeof prnBuf - 2) {
        prn_pos = sizeof prnBuf - 2;
    }
    if (prn_pos == 0) {
        prn_pos = 1;
    }
    prnBuf[prn_pos - 1] = '\r';
    prnBuf[prn_pos] = '\n';
    prnBuf[prn_pos + 1] = '\0';
    prn_pos++;
}

// Open, seek to the end, write, close: the data file is never held open, so a power loss costs at
// most this line. A file that would not open or seek is left alone; the sample still counts. A card
// too full for the line keeps none of it, and says so in the error log while that has room.
void append_line_to_data_file() {
    char name[sizeof sys_data.fileName + 1];
    memcpy(name, sys_data.fileName, sizeof sys_data.fileName);
    name[sizeof sys_data.fileName] = '\0';
    FRESULT fr = sd_append_report("", AppendStep::open, sd_append_open(name, TailSlot::data_file));
    if (fr != FR_OK) {
        error_store("f_open error");
        return;
    }
    fr = sd_append_report("", AppendStep::seek, sd_append_seek());
    bool full = false;
    if (fr == FR_OK) {
        fr = sd_append_report("", AppendStep::write, sd_append_write(prnBuf, static_cast<uint32_t>(prn_pos)));
        full = fr == SD_CARD_FULL;
    }
    fr = sd_append_report("", AppendStep::close, sd_append_close());
    if (fr != FR_OK) {
        error_store("f_close error");
    }
    if (full) {
        error_store("f_write error: card full");
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
    terminate_line();

    if (printFlg == 1) {
        UARTwrite(prnBuf, static_cast<uint32_t>(prn_pos));
    }
    if (sys_data.app_cfg[APPCFG_MICROSD_ENABLE] == 1 && writeFlg == 1) {
        append_line_to_data_file();
        diag("\r\nuSD writes   = %5u,   %5u");
    }
    note_low_supply(sampl.fVbat_main);
    wait_consoleTx();
    diag("\r\nwait TX      = %5u,   %5u");
    sys_samp.current_sample++;
    led_red_off();
}

int pump_and_sample(uint32_t printFlg, uint32_t writeFlg) {
    get_sample(printFlg, writeFlg);
    return 0;
}

void pump_and_sample_start(void) {
    sys_samp.pump_seq_state = 1;
}

void pump_stateMachine_init(void) {
    sys_samp.pump_seq_state = 0;
}

int pump_stateMachine(uint32_t state) {
    (void)state;
    return 0;
}

void pump_var_init(void) {
    snprintf(pumpBuf, sizeof pumpBuf, "PumpSeq=%02d\t", (int)sys_data.pump_seq_type);
}

int uart3_stateMachine(int state) {
    switch (sys_data.data_cfg[CFG_UART3_INST]) {
    case PORT3_OPTODE:
        return optode_stateMachine(state);
    case PORT3_OCR:
        return ocr_stateMachine(state);
    case PORT3_BRISA:
        return brisa_stateMachine(state);
    case PORT3_PICOPH:
        return picoph_stateMachine(state);
    default:
        return 0;
    }
}

int uart4_stateMachine(int state) {
    switch (sys_data.data_cfg[CFG_UART4_INST]) {
    case CTD_TYPE_SBE37:
        return ctd_sbe37_stateMachine(state);
    case CTD_TYPE_AAND5860:
        return ctd_aand5860_stateMachine(state);
    default:
        return 0;
    }
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

// ---------------------------------------------------------------- the "last sample" line

// The columns come in their fixed order, which is not the order of the switches.
void print_sampl(void) {
    const unsigned char* cfg = sys_data.data_cfg;
    prn_pos = 0;
    prnBuf[0] = '\0';
    if (cfg[CFG_SAMPLE_NUM]) {
        sampl.sampNum = sys_samp.current_sample;
        prn_append("#%07u\t", (unsigned)sys_samp.current_sample);
    }
    if (cfg[CFG_TIMESTAMP]) {
        char time_text[51];
        format_time_column(time_text, 50);
        prn_append("%s\t", time_text);
    }
    append_battery_to_phext(sampl.fBiasPos, sampl.fBiasNeg);
    append_counter_and_currents();
}

// RAM does not survive hibernation: the FRAM copy is the last sample. The host expects the text
// exactly as formatted, ending with the last column's tab.
void send_last_sample(void) {
    fram_last_samp_retrieve();
    print_sampl();
    print_sampBuf();
}

int print_sampBuf(void) {
    const void* end = memchr(prnBuf, '\0', sizeof prnBuf);
    size_t len = end != nullptr ? static_cast<size_t>(static_cast<const char*>(end) - prnBuf) : sizeof prnBuf;
    if (len == 0) {
        return 0;
    }
    return UARTwrite(prnBuf, static_cast<uint32_t>(len));
}

// The millisecond count is on the epoch the host software expects: this constant, not the exact
// 1900-1970 offset.
void format_ms_timestamp(char* text, size_t size, uint32_t rtc_seconds) {
    format_u64_13(text, size, static_cast<unsigned long long>(rtc_seconds) * 1000ULL - 2208963602000ULL);
}
