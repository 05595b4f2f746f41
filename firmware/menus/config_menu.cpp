// The configuration menus. Every setting of sys_data is reached here by name, with its current value
// in brackets; an accepted change is stored in the EEPROM at once. The pages:
//   A data fields (column switches, presets, instrument codes), B ADC sampling, C sampling,
//   D identity and notes, E calibration, F application switches, G console, P pump sequencer,
//   T time, Y advanced (repair of the stored record, printouts, FRAM tests).
#include "menus/config_menu.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <utility>

#include "board/board_util.h"

#include "menus/menu.h"
#include "menus/menu_edit.h"
#include "records/system.h"
#include "storage/settings.h"
#include "board/timebase.h"
#include "driverlib/hibernate.h"
#include "storage/apf_vars.h"
#include "hostlink/serial.h"
#include "hostlink/ymodem.h"
#include "instruments/ctd_base.h"
#include "measure/apf_math.h"
#include "measure/sample.h"
#include "records/sample.h"
#include "measure/pump.h"
#include "menus/board_qa.h"
#include "ports/uartstdio.h"
#include "storage/calfile.h"
#include "storage/config.h"
#include "storage/presets.h"
#include "storage/microsd.h"

namespace {

// How long a calibration prompt waits for the operator before it gives up on the read.
constexpr uint32_t CALIB_INPUT_TIMEOUT_S = 600;
// Reading cycles the automatic calibration averages over.
constexpr uint32_t CALIB_AVG_CYCLES = 20;
// The automatic calibration stops by itself after this many cycles (a bath stabilises in far fewer;
// a terminal left alone must not keep the board awake).
constexpr uint32_t CALIB_MAX_CYCLES = 600;

float cal_point_ph = 8.0f; // the last calibration pH entered, offered again as the default

// Prompts until a number in [lo, hi] is typed, an empty answer keeps value, or the read fails.
void prompt_number(const char* prompt, float* value, float lo, float hi, const char* range_msg) {
    for (;;) {
        uprintf(prompt, (double)*value);
        char line[32];
        if (getUserInputTimeLimit(line, sizeof(line), CALIB_INPUT_TIMEOUT_S) < 0) {
            uprintf("DEBUG: getUserInput fails to return 1\r\n");
            return;
        }
        if (line[0] == '\0') {
            return;
        }
        float v = 0.0f;
        if (sscanf(line, "%f", &v) != 1) {
            uprintf("DEBUG: sscanf fails to return 1\r\n");
            return;
        }
        if (v >= lo && v <= hi) {
            *value = v;
            return;
        }
        uprintf("%s", range_msg);
    }
}

struct CalibInputs {
    float ph;
    float vrsi;
    float vrse;
    float vtherm;
    float tempC;
    float salinity;
};

// One cycle of the automatic calibration: the cell voltages and the thermistor from the sample,
// the bath's temperature and salinity from the CTD (its driver runs within the sample).
struct CalibReading {
    float vrsi, vrsi_sd;
    float vrse, vrse_sd;
    float vtherm, vtherm_sd;
    float tempC;
    float salinity;
};

// Returns false when the operator does not accept the averaged values.
bool auto_calibration(CalibInputs* in) {
    uprintf("\r\nPlace DuraFET and MicroCAT in calibration bath.");
    uprintf("\r\nHit any key when values have stabilized...\r\n");
    uprintf("    Vrsi\t Vrsi-SD\t    Vrse\t Vrse-SD\t  Vtherm\tVthermSD\t   "
            "TempC\tTempC-SD\tSalinity\tSal-SD\r\n");
    CalibReading ring[CALIB_AVG_CYCLES];
    float temps[CALIB_AVG_CYCLES];
    float sals[CALIB_AVG_CYCLES];
    uint32_t cycles = 0;
    // The calibration's samples are not the deployment's: the sample counter is left as it was.
    uint32_t sample_number = sys_samp.current_sample;
    do {
        get_sample(0, 0);
        wdog_pet();
        CalibReading r{sampl.fVrsi,   sampl.fVrsi_std,   sampl.fVrse, sampl.fVrse_std,
                       sampl.fVtherm, sampl.fVtherm_std, ctd.tempC,   ctd.salt};
        ring[cycles % CALIB_AVG_CYCLES] = r;
        cycles++;
        uint32_t kept = cycles < CALIB_AVG_CYCLES ? cycles : CALIB_AVG_CYCLES;
        // The CTD gives one value a cycle: its deviation is taken over the cycles kept so far.
        for (uint32_t i = 0; i < kept; i++) {
            temps[i] = ring[i].tempC;
            sals[i] = ring[i].salinity;
        }
        float mean = 0.0f;
        float temp_sd = 0.0f;
        float sal_sd = 0.0f;
        if (kept > 1) {
            FloatVectorMeanStdDev(kept, temps, &mean, &temp_sd);
            FloatVectorMeanStdDev(kept, sals, &mean, &sal_sd);
        }
        uprintf("%8.5f\t%8.5f\t%8.5f\t%8.5f\t%8.5f\t%8.5f\t%8.5f\t%8.5f\t%8.5f\t%8.5f\r\n", (double)r.vrsi,
                (double)r.vrsi_sd, (double)r.vrse, (double)r.vrse_sd, (double)r.vtherm, (double)r.vtherm_sd,
                (double)r.tempC, (double)temp_sd, (double)r.salinity, (double)sal_sd);
    } while (!UARTrdy() && cycles < CALIB_MAX_CYCLES);
    if (UARTrdy()) {
        getChar();
    }
    sys_samp.current_sample = sample_number;

    uint32_t kept = cycles < CALIB_AVG_CYCLES ? cycles : CALIB_AVG_CYCLES;
    float vrsi[CALIB_AVG_CYCLES], vrse[CALIB_AVG_CYCLES], vtherm[CALIB_AVG_CYCLES];
    for (uint32_t i = 0; i < kept; i++) {
        vrsi[i] = ring[i].vrsi;
        vrse[i] = ring[i].vrse;
        vtherm[i] = ring[i].vtherm;
        temps[i] = ring[i].tempC;
        sals[i] = ring[i].salinity;
    }
    float sd[5] = {};
    FloatVectorMeanStdDev(kept, vrsi, &in->vrsi, &sd[0]);
    FloatVectorMeanStdDev(kept, vrse, &in->vrse, &sd[1]);
    FloatVectorMeanStdDev(kept, vtherm, &in->vtherm, &sd[2]);
    FloatVectorMeanStdDev(kept, temps, &in->tempC, &sd[3]);
    FloatVectorMeanStdDev(kept, sals, &in->salinity, &sd[4]);
    uprintf("\r\nAverage of last %d values\r\n", (int)kept);
    uprintf("Vint = %f V  SD = %f", (double)in->vrsi, (double)sd[0]);
    uprintf("\r\nVext = %f V  SD = %f", (double)in->vrse, (double)sd[1]);
    uprintf("\r\nVtherm = %f C  SD = %f", (double)in->vtherm, (double)sd[2]);
    uprintf("\r\nMicroCAT Temperature = %f C  SD = %f", (double)in->tempC, (double)sd[3]);
    uprintf("\r\nMicroCAT Salinity = %f  SD = %f\r\n", (double)in->salinity, (double)sd[4]);
    return yesOrNoMenuChoice("Values acceptable (Y/N) [N]? ", 0) == 1;
}

void manual_calibration(CalibInputs* in) {
    prompt_number("\r\n\r\nEnter Vrsi [%f]: ", &in->vrsi, -2.0f, 2.0f,
                  "Enter number between -2 and 2\r\n\r\n");
    prompt_number("\r\n\r\nEnter Vrse [%f]: ", &in->vrse, -2.0f, 2.0f,
                  "Enter number between -2 and 2\r\n\r\n");
    prompt_number("\r\nEnter bath temperature [%f]: ", &in->tempC, 0.0f, 100.0f,
                  "\r\nEnter between 0 and 100");
    prompt_number("\r\nEnter bath salinity [%f]: ", &in->salinity, 0.0f, 100.0f,
                  "\r\nEnter between 0 and 100");
}

// ---------------------------------------------------------------- checks shared by pages

// The data rates the ADS1248 converts at.
constexpr uint32_t ADC_RATES[] = {5, 10, 20, 40, 80, 160, 320, 640, 1000, 2000};
// The console rates the start-up switches to (115200 is the start-up rate itself).
constexpr uint32_t CONSOLE_RATES[] = {4800, 9600, 19200, 38400, 57600, 115200};
constexpr uint32_t MAX_TRIALS = 40;
constexpr uint32_t MAX_PERIOD_S = 3600;
// Port 4 codes: 5 no CTD (default salinity), 6 SBE37, 7 Aanderaa 5860.
constexpr uint32_t PORT4_NO_CTD = 5;
constexpr uint32_t PORT4_LAST = 7;
constexpr uint32_t PORT3_LAST = 4;

bool one_of(uint32_t v, const uint32_t* set, size_t n) {
    for (size_t i = 0; i < n; i++) {
        if (set[i] == v) {
            return true;
        }
    }
    return false;
}

bool valid_rate(uint32_t v) {
    return one_of(v, ADC_RATES, sizeof ADC_RATES / sizeof ADC_RATES[0]);
}

bool valid_port4(uint32_t v) {
    return v == 0 || (v >= PORT4_NO_CTD && v <= PORT4_LAST);
}

// An aligned schedule needs a period that divides the hour.
bool valid_alignment(uint32_t period, uint32_t aligned) {
    return aligned == 0 || (period != 0 && MAX_PERIOD_S % period == 0);
}

void show_u32(uint32_t v) {
    uprintf("%lu", static_cast<unsigned long>(v));
}

// ---------------------------------------------------------------- A: data fields

void apply_preset(const char* name, void (*preset)(void)) {
    preset();
    uprintf("\r\nPreset %s applied and stored\r\n", name);
    print_config_data_fields();
    print_data_header();
}

void preset_all(void) {
    apply_preset("all", config_data_fields_all);
}
void preset_none(void) {
    apply_preset("none", config_data_fields_none);
}
void preset_glider(void) {
    apply_preset("glider", config_data_fields_glider);
}
void preset_wirewalker(void) {
    apply_preset("wirewalker", config_data_fields_wirewalker);
}
void preset_tessel(void) {
    apply_preset("tessel", config_data_fields_tessel);
}
void preset_corrib(void) {
    apply_preset("corrib", config_data_fields_corrib);
}
void preset_m2m_corrib(void) {
    apply_preset("m2m corrib", config_data_fields_m2m_corrib);
}
void preset_brisa(void) {
    apply_preset("brisa", config_data_fields_brisa);
}

void presets_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A', .label = "all: every column", .kind = ItemKind::action, .action = preset_all},
        {.key = 'B', .label = "none: no column", .kind = ItemKind::action, .action = preset_none},
        {.key = 'C', .label = "glider", .kind = ItemKind::action, .action = preset_glider},
        {.key = 'D', .label = "wirewalker", .kind = ItemKind::action, .action = preset_wirewalker},
        {.key = 'E', .label = "tessel", .kind = ItemKind::action, .action = preset_tessel},
        {.key = 'F', .label = "corrib", .kind = ItemKind::action, .action = preset_corrib},
        {.key = 'G', .label = "m2m corrib", .kind = ItemKind::action, .action = preset_m2m_corrib},
        {.key = 'H', .label = "brisa", .kind = ItemKind::action, .action = preset_brisa},
    };
    run_menu_page("Data-field presets (each resets the ADC sampling to its defaults)", items,
                  sizeof items / sizeof items[0]);
}

constexpr MenuItem column(char key, const char* label, uint32_t index, uint32_t hi = 1) {
    return {.key = key,
            .label = label,
            .kind = ItemKind::byte,
            .bytes = &sys_data.data_cfg[index],
            .hi = double(hi)};
}

void columns_menu(void) {
    // Named as the data file's column header names them; the keys skip X (exit).
    static constexpr MenuItem items[] = {
        column('A', "SampNum", CFG_SAMPLE_NUM),
        column('B', "Time (0 off, 1 date, 2 epoch ms)", CFG_TIMESTAMP, 2),
        column('C', "Vtherm", CFG_V_THERMISTOR),
        column('D', "VthrmStd", CFG_V_THERMISTOR_STD),
        column('E', "TC_Dfet", CFG_CALC_TEMP),
        column('F', "Vrsi", CFG_VRSI),
        column('G', "Vrsi_std", CFG_VRSI_STD),
        column('H', "pHintEst", CFG_CALC_PH_VRSI),
        column('I', "Vrse", CFG_VRSE),
        column('J', "Vrse_std", CFG_VRSE_STD),
        column('K', "pHextEst", CFG_CALC_PH_VRSE),
        column('L', "Vrsi_B", CFG_VRSI_BIASED),
        column('M', "VrsiBstd", CFG_VRSI_BIASED_STD),
        column('N', "Vrse_B", CFG_VRSE_BIASED),
        column('O', "VrseBstd", CFG_VRSE_BIASED_STD),
        column('P', "Vk", CFG_V_COUNTER_ELECT),
        column('Q', "Vk_std", CFG_V_COUNTER_ELECT_STD),
        column('R', "Ik", CFG_I_COUNTER),
        column('S', "Ib", CFG_I_SUBSTRATE),
        column('T', "VbatMain", CFG_VIN_BAT_VOLT),
        column('U', "VbiasPos", CFG_BIAS_BAT_POS),
        column('V', "VbiasNeg", CFG_BIAS_BAT_NEG),
        column('W', "TC_cont (housing)", CFG_BRD_TEMP),
        column('Y', "Humidity (housing)", CFG_BRD_HUMIDITY),
    };
    run_menu_page("Data columns (1 on, 0 off)", items, sizeof items / sizeof items[0]);
}

void show_port3(void) {
    show_u32(sys_data.data_cfg[CFG_UART3_INST]);
}
void show_port4(void) {
    show_u32(sys_data.data_cfg[CFG_UART4_INST]);
}

void edit_port3(void) {
    MenuItem item{.key = 'C',
                  .label = "Port 3 instrument",
                  .kind = ItemKind::byte,
                  .bytes = &sys_data.data_cfg[CFG_UART3_INST],
                  .hi = double(PORT3_LAST)};
    edit_item(item);
}

void edit_port4(void) {
    uint32_t v = 0;
    bool kept = false;
    if (!menu_read_u32("Port 4 instrument", sys_data.data_cfg[CFG_UART4_INST], 0, PORT4_LAST, &v, &kept)) {
        return;
    }
    if (!valid_port4(v)) {
        uprintf("\r\nPort 4 takes 5 (no CTD), 6 (SBE37) or 7 (Aanderaa 5860); unchanged\r\n");
        return;
    }
    sys_data.data_cfg[CFG_UART4_INST] = static_cast<unsigned char>(v);
    storeSysDataVariables();
    uprintf("\r\nPort 4 instrument = %lu, stored\r\n", static_cast<unsigned long>(v));
}

void data_fields_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A', .label = "Columns", .kind = ItemKind::action, .action = columns_menu},
        {.key = 'B', .label = "Presets", .kind = ItemKind::action, .action = presets_menu},
        {.key = 'C',
         .label = "Port 3 instrument (0 none, 1 optode, 2 OCR, 3 Brisa, 4 Corrib)",
         .kind = ItemKind::action,
         .action = edit_port3,
         .show = show_port3},
        {.key = 'D',
         .label = "Port 4 instrument (5 none, 6 SBE37, 7 Aanderaa 5860)",
         .kind = ItemKind::action,
         .action = edit_port4,
         .show = show_port4},
        {.key = 'E',
         .label = "Show the data-field block and header",
         .kind = ItemKind::action,
         .action = print_config},
    };
    run_menu_page("Data fields", items, sizeof items / sizeof items[0]);
}

// ---------------------------------------------------------------- B: ADC sampling

constexpr MenuItem rate(char key, const char* label, uint32_t* field) {
    return {.key = key,
            .label = label,
            .kind = ItemKind::u32,
            .u32 = field,
            .lo = 5,
            .hi = 2000,
            .allowed = ADC_RATES,
            .allowed_count = sizeof ADC_RATES / sizeof ADC_RATES[0]};
}
constexpr MenuItem trials(char key, const char* label, uint32_t* field) {
    return {.key = key, .label = label, .kind = ItemKind::u32, .u32 = field, .lo = 1, .hi = MAX_TRIALS};
}

void adc_sampling_menu(void) {
    static constexpr MenuItem items[] = {
        rate('A', "Vrsi sps", &sys_data.Vrsi_sps),     trials('B', "Vrsi trials", &sys_data.Vrsi_trials),
        rate('C', "Vrse sps", &sys_data.Vrse_sps),     trials('D', "Vrse trials", &sys_data.Vrse_trials),
        rate('E', "Vtherm sps", &sys_data.Vtherm_sps), trials('F', "Vtherm trials", &sys_data.Vtherm_trials),
        rate('G', "Ik sps", &sys_data.Ik_sps),         trials('H', "Ik trials", &sys_data.Ik_trials),
        rate('I', "Vk sps", &sys_data.Vk_sps),         trials('J', "Vk trials", &sys_data.Vk_trials),
        rate('K', "Ib sps", &sys_data.Ib_sps),         trials('L', "Ib trials", &sys_data.Ib_trials),
        rate('M', "Vb sps", &sys_data.Vb_sps),         trials('N', "Vb trials", &sys_data.Vb_trials),
        rate('O', "Vbias sps", &sys_data.Vbias_sps),   trials('P', "Vbias trials", &sys_data.Vbias_trials),
    };
    run_menu_page("ADC sampling (rates 5, 10, 20, 40, 80, 160, 320, 640, 1000, 2000 samples/s)", items,
                  sizeof items / sizeof items[0]);
}

// ---------------------------------------------------------------- C: sampling

void edit_period(void) {
    uint32_t v = 0;
    bool kept = false;
    if (!menu_read_u32("Sampling period (s), 0 for polled", sys_data.sampling_period, 0, MAX_PERIOD_S, &v,
                       &kept)) {
        return;
    }
    if (!valid_alignment(v, sys_data.sample_aligned)) {
        uprintf("\r\nHour alignment is on: the period must divide the hour (e.g. 300, 600, 900, 1800); "
                "unchanged\r\n");
        return;
    }
    sys_data.sampling_period = v;
    storeSysDataVariables();
    uprintf("\r\nSampling period = %lu s, stored\r\n", static_cast<unsigned long>(v));
}

void edit_alignment(void) {
    uint32_t v = 0;
    bool kept = false;
    if (!menu_read_u32("Hour alignment (1 on, 0 off)", sys_data.sample_aligned, 0, 1, &v, &kept)) {
        return;
    }
    if (!valid_alignment(sys_data.sampling_period, v)) {
        uprintf("\r\nAlignment needs a sampling period that divides the hour (not 0); unchanged\r\n");
        return;
    }
    sys_data.sample_aligned = static_cast<unsigned char>(v);
    storeSysDataVariables();
    uprintf("\r\nHour alignment = %lu, stored\r\n", static_cast<unsigned long>(v));
}

void edit_file_name(void) {
    uprintf("\r\nData file name (8.3) [");
    print_field_text(sys_data.fileName, sizeof sys_data.fileName);
    uprintf("]: ");
    char name[24];
    if (menu_read_line(name, sizeof name) <= 0) {
        return;
    }
    if (!valid_8_3_name(name)) {
        uprintf("\r\nfilename is too long, needs to be 8.3 format\r\n");
        return;
    }
    memset(sys_data.fileName, 0, sizeof sys_data.fileName);
    memcpy(sys_data.fileName, name, strlen(name));
    storeSysDataVariables();
    uprintf("\r\nData file name = %s, stored\r\n", name);
}

void show_period(void) {
    show_u32(sys_data.sampling_period);
}
void show_alignment(void) {
    show_u32(sys_data.sample_aligned);
}
void show_file_name(void) {
    print_field_text(sys_data.fileName, sizeof sys_data.fileName);
}

void sampling_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A',
         .label = "Sampling period (s)",
         .kind = ItemKind::action,
         .action = edit_period,
         .show = show_period},
        {.key = 'B',
         .label = "Hour alignment",
         .kind = ItemKind::action,
         .action = edit_alignment,
         .show = show_alignment},
        {.key = 'C',
         .label = "Averaging interval (s)",
         .kind = ItemKind::u32,
         .u32 = &sys_data.averaging_interval,
         .hi = 86400},
        {.key = 'D',
         .label = "Low battery (V)",
         .kind = ItemKind::f32,
         .f32 = &sys_data.low_batt_volt,
         .hi = 100},
        {.key = 'E',
         .label = "Data file name",
         .kind = ItemKind::action,
         .action = edit_file_name,
         .show = show_file_name},
        {.key = 'F', .label = "Test mode (1 on)", .kind = ItemKind::u32, .u32 = &sys_data.test_mode, .hi = 1},
    };
    run_menu_page("Sampling", items, sizeof items / sizeof items[0]);
}

// ---------------------------------------------------------------- D: identity and notes

constexpr MenuItem text_item(char key, const char* label, unsigned char* field, uint32_t size) {
    return {.key = key, .label = label, .kind = ItemKind::text, .bytes = field, .size = size};
}

void identity_menu(void) {
    static constexpr MenuItem items[] = {
        text_item('A', "Board SN", sys_data.board_SN, sizeof sys_data.board_SN),
        text_item('B', "MCAP SN", sys_data.mcap_SN, sizeof sys_data.mcap_SN),
        text_item('C', "Sensor SN", sys_data.sensor_SN, sizeof sys_data.sensor_SN),
        text_item('D', "ISFET SN", sys_data.isfet_SN, sizeof sys_data.isfet_SN),
        text_item('E', "ISE SN", sys_data.ise_SN, sizeof sys_data.ise_SN),
        text_item('F', "Optode SN", sys_data.optode_SN, sizeof sys_data.optode_SN),
        text_item('G', "CTD SN", sys_data.ctd_SN, sizeof sys_data.ctd_SN),
        text_item('H', "Pump1 SN", sys_data.pump_SN, sizeof sys_data.pump_SN),
        text_item('I', "Pump2 SN", sys_data.pump2_SN, sizeof sys_data.pump2_SN),
        text_item('J', "Pump3 SN", sys_data.pump3_SN, sizeof sys_data.pump3_SN),
        text_item('K', "Package name", sys_data.package_name, sizeof sys_data.package_name),
        text_item('L', "Fabrication note", sys_data.package_fab_note, sizeof sys_data.package_fab_note),
        text_item('M', "User initials", sys_data.user, sizeof sys_data.user),
        text_item('N', "Deployment note", sys_data.deploy_note, sizeof sys_data.deploy_note),
        text_item('O', "Service date", sys_data.service_date, sizeof sys_data.service_date),
    };
    run_menu_page("Identity and notes", items, sizeof items / sizeof items[0]);
}

// ---------------------------------------------------------------- E: calibration

void calibrate(void) {
    float k0int = sys_data.k0int;
    float k0ext = sys_data.k0ext;
    float offset = sys_data.TCOffset;
    ph_calib();
    if (k0int != sys_data.k0int || k0ext != sys_data.k0ext || offset != sys_data.TCOffset) {
        storeSysDataVariables();
    }
}

void export_calibration(void) {
    export_pH_sensor_cal_coeff();
}

constexpr MenuItem f32_item(char key, const char* label, float* field, double lo, double hi) {
    return {.key = key, .label = label, .kind = ItemKind::f32, .f32 = field, .lo = lo, .hi = hi};
}
constexpr MenuItem f64_item(char key, const char* label, double* field) {
    return {.key = key, .label = label, .kind = ItemKind::f64, .f64 = field, .lo = -1e30, .hi = 1e30};
}

void calibration_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A',
         .label = "pH calibration in a bath (k0int, k0ext, TCOffset)",
         .kind = ItemKind::action,
         .action = calibrate},
        {.key = 'B',
         .label = "Enter sensor calibration coefficients (typed, YMODEM, card)",
         .kind = ItemKind::action,
         .action = enter_pH_sensor_cal_coeff},
        {.key = 'C',
         .label = "Export calibration coefficients",
         .kind = ItemKind::action,
         .action = export_calibration},
        {.key = 'D',
         .label = "Thermistor equation (0 polynomial, 1 S-H)",
         .kind = ItemKind::byte,
         .bytes = &sys_data.app_cfg[APPCFG_TEMPC_SH_ALG],
         .hi = 1},
        f64_item('E', "Thermistor c0", &sys_data.quadTherm_c0),
        f64_item('F', "Thermistor c1", &sys_data.quadTherm_c1),
        f64_item('G', "Thermistor c2", &sys_data.quadTherm_c2),
        f64_item('H', "Thermistor c3", &sys_data.quadTherm_c3),
        f64_item('I', "Steinhart-Hart A", &sys_data.shTherm_A),
        f64_item('J', "Steinhart-Hart B", &sys_data.shTherm_B),
        f64_item('K', "Steinhart-Hart C", &sys_data.shTherm_C),
        f32_item('L', "k0int (V)", &sys_data.k0int, -5.0, 5.0),
        f32_item('M', "k0ext (V)", &sys_data.k0ext, -5.0, 5.0),
        f32_item('N', "k2int (V/degC)", &sys_data.k2int, -1.0, 1.0),
        f32_item('O', "k2ext (V/degC)", &sys_data.k2ext, -1.0, 1.0),
        f32_item('P', "TCOffset (degC)", &sys_data.TCOffset, -50.0, 50.0),
        f32_item('Q', "TCSlope", &sys_data.TCSlope, -10.0, 10.0),
        f32_item('R', "Default salinity", &sys_data.default_sal, 0.1, 45.0),
    };
    run_menu_page("Calibration", items, sizeof items / sizeof items[0]);
}

// ---------------------------------------------------------------- F: application switches

// Switching card logging on mounts the card now, so the next write finds it.
void edit_logging(void) {
    uint32_t v = 0;
    bool kept = false;
    if (!menu_read_u32("MicroSD logging (1 on, 0 off)", sys_data.app_cfg[APPCFG_MICROSD_ENABLE], 0, 1, &v,
                       &kept)) {
        return;
    }
    sys_data.app_cfg[APPCFG_MICROSD_ENABLE] = static_cast<unsigned char>(v);
    storeSysDataVariables();
    uprintf("\r\nMicroSD logging = %lu, stored\r\n", static_cast<unsigned long>(v));
    if (v == 1) {
        if (uSD_present() == 0) {
            uprintf("\r\nError: MicroSD card is not detected\r\n");
            microSD_flg = 0;
            return;
        }
        microSD_flg = init_uSDCard() == 0 ? 1 : 0;
    }
}

void show_logging(void) {
    show_u32(sys_data.app_cfg[APPCFG_MICROSD_ENABLE]);
}

constexpr MenuItem app_switch(char key, const char* label, uint32_t index, uint32_t hi = 1) {
    return {.key = key,
            .label = label,
            .kind = ItemKind::byte,
            .bytes = &sys_data.app_cfg[index],
            .hi = double(hi)};
}

void application_menu(void) {
    static constexpr MenuItem items[] = {
        app_switch('A', "APPCFG_SAMPLING_DIAG", APPCFG_SAMPLING_DIAG),
        app_switch('B', "APPCFG_TEMPC_SH_ALG", APPCFG_TEMPC_SH_ALG),
        {.key = 'C',
         .label = "APPCFG_MICROSD_ENABLE",
         .kind = ItemKind::action,
         .action = edit_logging,
         .show = show_logging},
        app_switch('D', "APPCFG_MENU_LEVEL", APPCFG_MENU_LEVEL),
        app_switch('E', "APPCFG_DEPLOY_UARTECHO", APPCFG_DEPLOY_UARTECHO),
        app_switch('F', "APPCFG_EXEC_SWITCHERONI (0 sample, 1 host link, 2 stream)", APPCFG_EXEC_SWITCHERONI,
                   2),
    };
    run_menu_page("Application switches", items, sizeof items / sizeof items[0]);
}

// ---------------------------------------------------------------- G: console

void edit_baud(void) {
    uint32_t v = 0;
    bool kept = false;
    if (!menu_read_u32("Console baud rate", sys_data.baud_rate, 4800, 115200, &v, &kept)) {
        return;
    }
    if (!one_of(v, CONSOLE_RATES, sizeof CONSOLE_RATES / sizeof CONSOLE_RATES[0])) {
        uprintf("\r\nBaud rates: 4800, 9600, 19200, 38400, 57600, 115200; unchanged\r\n");
        return;
    }
    if (v == sys_data.baud_rate) {
        return;
    }
    sys_data.baud_rate = v;
    storeSysDataVariables();
    uprintf("\r\nBaud rate is changed to %lu, set the terminal to the new rate\r\n",
            static_cast<unsigned long>(v));
    wait_consoleTx();
    UARTStdioConfig(0, v, 16000000);
}

void show_baud(void) {
    show_u32(sys_data.baud_rate);
}

void edit_output(void) {
    uint32_t v = 0;
    bool kept = false;
    if (!menu_read_u32("Output (1 normal, 2 verbose)", sys_data.output, NORMAL, VERBOSE, &v, &kept)) {
        return;
    }
    sys_data.output = static_cast<output_mode>(v);
    storeSysDataVariables();
    uprintf("\r\nOutput = %lu, stored\r\n", static_cast<unsigned long>(v));
}

void show_output(void) {
    show_u32(sys_data.output);
}

void edit_debug(void) {
    MenuItem item{.key = 'C',
                  .label = "Debug output (1 on)",
                  .kind = ItemKind::u32,
                  .u32 = &sys_data.debug_flag,
                  .hi = 1};
    edit_item(item);
    dbg_flag = sys_data.debug_flag;
}

void show_debug(void) {
    show_u32(sys_data.debug_flag);
}

void console_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A', .label = "Baud rate", .kind = ItemKind::action, .action = edit_baud, .show = show_baud},
        {.key = 'B',
         .label = "Output (1 normal, 2 verbose)",
         .kind = ItemKind::action,
         .action = edit_output,
         .show = show_output},
        {.key = 'C',
         .label = "Debug output (1 on)",
         .kind = ItemKind::action,
         .action = edit_debug,
         .show = show_debug},
        {.key = 'D', .label = "Diagnostics (1 on)", .kind = ItemKind::u32, .u32 = &sys_data.diag, .hi = 1},
    };
    run_menu_page("Console", items, sizeof items / sizeof items[0]);
}

// ---------------------------------------------------------------- P: pump sequencer

void edit_pump_type(void) {
    MenuItem item{.key = 'A',
                  .label = "Pump sequence type (1 single .. 5 self-cal)",
                  .kind = ItemKind::u32,
                  .u32 = &sys_data.pump_seq_type,
                  .lo = 1,
                  .hi = 5};
    if (edit_item(item)) {
        pump_var_init();
    }
}

void show_pump_type(void) {
    show_u32(sys_data.pump_seq_type);
}

constexpr MenuItem u32_item(char key, const char* label, uint32_t* field, uint32_t hi) {
    return {.key = key, .label = label, .kind = ItemKind::u32, .u32 = field, .hi = double(hi)};
}

void pump_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A',
         .label = "Pump sequence type",
         .kind = ItemKind::action,
         .action = edit_pump_type,
         .show = show_pump_type},
        u32_item('B', "Pump1 on time (s), 0 no pump", &sys_data.pump1_ontime, 3600),
        u32_item('C', "Pump2 on time (s)", &sys_data.pump2_ontime, 3600),
        u32_item('D', "Pump1 cycles", &sys_data.pump1_cycles, 1000),
        u32_item('E', "Pump2 cycles", &sys_data.pump2_cycles, 1000),
        u32_item('F', "Duty cycle: samples on", &sys_data.sampleCnt_duty_on, 100000),
        u32_item('G', "Duty cycle: samples off", &sys_data.sampleCnt_duty_off, 100000),
        u32_item('H', "Solenoid pull-in before hold (ms)", &sys_data.solenoid_on2hold_msec, 10000),
        u32_item('I', "Solenoid hold PWM (%)", &sys_data.solenoid_hold_pwm, 100),
        u32_item('J', "Solenoid hold time (s)", &sys_data.solenoid_holdtime, 3600),
    };
    run_menu_page("Pump sequencer", items, sizeof items / sizeof items[0]);
}

// ---------------------------------------------------------------- T: time

void set_clock(void) {
    uprintf("\r\nNow (UTC): ");
    print_time_t_Time(HibernateRTCGet());
    uint32_t t = getDateAndTime();
    if (t == 0) {
        uprintf("\r\nClock unchanged\r\n");
        return;
    }
    HibernateRTCSet(t);
    uprintf("\r\nClock set to ");
    print_time_t_Time(HibernateRTCGet());
    uprintf("\r\n");
}

void show_clock(void) {
    print_time_t_Time(HibernateRTCGet());
}

void time_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A',
         .label = "Set the clock (UTC)",
         .kind = ItemKind::action,
         .action = set_clock,
         .show = show_clock},
        {.key = 'B',
         .label = "GMT flag (1 GMT, 0 local)",
         .kind = ItemKind::byte,
         .bytes = &sys_data.GMT,
         .hi = 1},
    };
    run_menu_page("Time", items, sizeof items / sizeof items[0]);
}

// ---------------------------------------------------------------- Y: advanced

// Field repairs of copy_sys_data_to_this_firmware: each returns 1 when it put the default back.
uint32_t fix_u32(uint32_t& v, uint32_t lo, uint32_t hi, uint32_t dflt) {
    if (v >= lo && v <= hi) {
        return 0;
    }
    v = dflt;
    return 1;
}

uint32_t fix_byte(unsigned char& v, uint32_t hi, unsigned char dflt) {
    if (v <= hi) {
        return 0;
    }
    v = dflt;
    return 1;
}

uint32_t fix_float(float& v, double lo, double hi, float dflt) {
    if (std::isfinite(v) && v >= lo && v <= hi) {
        return 0;
    }
    v = dflt;
    return 1;
}

uint32_t fix_double(double& v, double dflt) {
    if (std::isfinite(v)) {
        return 0;
    }
    v = dflt;
    return 1;
}

// A text must end inside its field and be printable.
uint32_t fix_text(unsigned char* field, const unsigned char* dflt, size_t size) {
    size_t n = field_text_length(field, size);
    bool ok = n < size;
    for (size_t i = 0; ok && i < n; i++) {
        ok = field[i] >= ' ' && field[i] <= '~';
    }
    if (ok) {
        return 0;
    }
    memcpy(field, dflt, size);
    return 1;
}

uint32_t fix_rate(uint32_t& v, uint32_t dflt) {
    if (valid_rate(v)) {
        return 0;
    }
    v = dflt;
    return 1;
}

uint32_t fix_numbers(systemData& d, const systemData& f) {
    uint32_t n = 0;
    n += fix_u32(d.sampling_period, 0, MAX_PERIOD_S, f.sampling_period);
    n += fix_u32(d.averaging_interval, 0, 86400, f.averaging_interval);
    n += fix_float(d.low_batt_volt, 0.0, 100.0, f.low_batt_volt);
    n += fix_float(d.TCOffset, -50.0, 50.0, f.TCOffset);
    n += fix_float(d.TCSlope, -10.0, 10.0, f.TCSlope);
    n += fix_float(d.k0ext, -5.0, 5.0, f.k0ext);
    n += fix_float(d.k0int, -5.0, 5.0, f.k0int);
    n += fix_float(d.k2ext, -1.0, 1.0, f.k2ext);
    n += fix_float(d.k2int, -1.0, 1.0, f.k2int);
    n += fix_double(d.quadTherm_c0, f.quadTherm_c0);
    n += fix_double(d.quadTherm_c1, f.quadTherm_c1);
    n += fix_double(d.quadTherm_c2, f.quadTherm_c2);
    n += fix_double(d.quadTherm_c3, f.quadTherm_c3);
    n += fix_double(d.shTherm_A, f.shTherm_A);
    n += fix_double(d.shTherm_B, f.shTherm_B);
    n += fix_double(d.shTherm_C, f.shTherm_C);
    n += fix_float(d.default_sal, 0.1, 45.0, f.default_sal);
    uint32_t* rates[] = {&d.Vrsi_sps, &d.Vrse_sps, &d.Vtherm_sps, &d.Ik_sps,
                         &d.Vk_sps,   &d.Ib_sps,   &d.Vb_sps,     &d.Vbias_sps};
    uint32_t* counts[] = {&d.Vrsi_trials, &d.Vrse_trials, &d.Vtherm_trials, &d.Ik_trials,
                          &d.Vk_trials,   &d.Ib_trials,   &d.Vb_trials,     &d.Vbias_trials};
    const uint32_t* rate_defaults[] = {&f.Vrsi_sps, &f.Vrse_sps, &f.Vtherm_sps, &f.Ik_sps,
                                       &f.Vk_sps,   &f.Ib_sps,   &f.Vb_sps,     &f.Vbias_sps};
    const uint32_t* count_defaults[] = {&f.Vrsi_trials, &f.Vrse_trials, &f.Vtherm_trials, &f.Ik_trials,
                                        &f.Vk_trials,   &f.Ib_trials,   &f.Vb_trials,     &f.Vbias_trials};
    for (size_t i = 0; i < 8; i++) {
        n += fix_rate(*rates[i], *rate_defaults[i]);
        n += fix_u32(*counts[i], 1, MAX_TRIALS, *count_defaults[i]);
    }
    return n;
}

uint32_t fix_switches(systemData& d, const systemData& f) {
    uint32_t n = 0;
    unsigned char output = static_cast<unsigned char>(d.output);
    if (output != NORMAL && output != VERBOSE) {
        d.output = f.output;
        n++;
    }
    n += fix_u32(d.test_mode, 0, 1, f.test_mode);
    if (!one_of(d.baud_rate, CONSOLE_RATES, sizeof CONSOLE_RATES / sizeof CONSOLE_RATES[0])) {
        d.baud_rate = f.baud_rate;
        n++;
    }
    for (uint32_t i = 0; i < CFG_UART3_INST; i++) {
        n += fix_byte(d.data_cfg[i], i == CFG_TIMESTAMP ? 2 : 1, f.data_cfg[i]);
    }
    n += fix_byte(d.data_cfg[CFG_UART3_INST], PORT3_LAST, f.data_cfg[CFG_UART3_INST]);
    if (!valid_port4(d.data_cfg[CFG_UART4_INST])) {
        d.data_cfg[CFG_UART4_INST] = f.data_cfg[CFG_UART4_INST];
        n++;
    }
    for (uint32_t i = 0; i < APP_CFG_SIZE; i++) {
        uint32_t hi = i == APPCFG_EXEC_SWITCHERONI ? 2 : (i <= APPCFG_EXEC_SWITCHERONI ? 1 : 0);
        n += fix_byte(d.app_cfg[i], hi, f.app_cfg[i]);
    }
    n += fix_byte(d.GMT, 1, f.GMT);
    n += fix_byte(d.sample_aligned, 1, f.sample_aligned);
    if (!valid_alignment(d.sampling_period, d.sample_aligned)) {
        d.sample_aligned = 0;
        n++;
    }
    n += fix_u32(d.diag, 0, 1, f.diag);
    n += fix_u32(d.debug_flag, 0, 1, f.debug_flag);
    n += fix_u32(d.pump_seq_type, 1, 5, f.pump_seq_type);
    return n;
}

uint32_t fix_texts(systemData& d, const systemData& f) {
    uint32_t n = 0;
    n += fix_text(d.service_date, f.service_date, sizeof d.service_date);
    n += fix_text(d.PT_Cal_date, f.PT_Cal_date, sizeof d.PT_Cal_date);
    n += fix_text(d.k0_Cal_date, f.k0_Cal_date, sizeof d.k0_Cal_date);
    n += fix_text(d.cal_filename, f.cal_filename, sizeof d.cal_filename);
    n += fix_text(d.user, f.user, sizeof d.user);
    n += fix_text(d.board_SN, f.board_SN, sizeof d.board_SN);
    n += fix_text(d.mcap_SN, f.mcap_SN, sizeof d.mcap_SN);
    n += fix_text(d.sensor_SN, f.sensor_SN, sizeof d.sensor_SN);
    n += fix_text(d.isfet_SN, f.isfet_SN, sizeof d.isfet_SN);
    n += fix_text(d.ise_SN, f.ise_SN, sizeof d.ise_SN);
    n += fix_text(d.package_name, f.package_name, sizeof d.package_name);
    n += fix_text(d.optode_SN, f.optode_SN, sizeof d.optode_SN);
    n += fix_text(d.ctd_SN, f.ctd_SN, sizeof d.ctd_SN);
    n += fix_text(d.pump_SN, f.pump_SN, sizeof d.pump_SN);
    n += fix_text(d.pump2_SN, f.pump2_SN, sizeof d.pump2_SN);
    n += fix_text(d.pump3_SN, f.pump3_SN, sizeof d.pump3_SN);
    n += fix_text(d.package_fab_note, f.package_fab_note, sizeof d.package_fab_note);
    n += fix_text(d.deploy_note, f.deploy_note, sizeof d.deploy_note);
    if (fix_text(d.fileName, f.fileName, sizeof d.fileName) != 0 ||
        !valid_8_3_name(reinterpret_cast<const char*>(d.fileName))) {
        memcpy(d.fileName, f.fileName, sizeof d.fileName);
        n++;
    }
    return n;
}

void edit_copy_sys_data(void) {
    uprintf("\r\nStored record version: ");
    print_field_text(sys_data.firmware_version, sizeof sys_data.firmware_version);
    uprintf(", firmware: %s\r\n", FIRMWARE_VERSION);
    if (yesOrNoMenuChoice("Keep the stored settings, reset those out of range, and mark the record as this "
                          "firmware's? (Y/N) [N]? ",
                          0) == 0) {
        uprintf("\r\nsys_data unchanged\r\n");
        return;
    }
    uint32_t reset = copy_sys_data_to_this_firmware();
    storeSysDataVariables();
    uprintf("\r\nsys_data copied to %s: %lu settings reset to their defaults, stored\r\n", FIRMWARE_VERSION,
            static_cast<unsigned long>(reset));
}

void assign_defaults(void) {
    if (yesOrNoMenuChoice("Assign factory defaults to sys_data and sys_samp (settings, calibration, "
                          "identity)? (Y/N) [N]? ",
                          0) == 0) {
        uprintf("\r\nNothing changed\r\n");
        return;
    }
    assign_defaults_to_records();
    uprintf("\r\nDefaults assigned to sys_data and sys_samp, stored\r\n");
}

// ---------------------------------------------------------------- typed calibration

// The text of a typed calibration file: twenty lines of up to 32 characters and their line ends.
char typed_cal[CAL_LINE_COUNT * (CAL_MEM_LINE_MAX + 2) + 1];

void type_calibration(void) {
    uprintf("\r\nType or paste the %u lines of the calibration file (as \"ec\" prints them):\r\n",
            static_cast<unsigned>(CAL_LINE_COUNT));
    size_t used = 0;
    for (uint32_t n = 0; n < CAL_LINE_COUNT; n++) {
        char line[CAL_MEM_LINE_MAX + 1];
        if (menu_read_line(line, sizeof line) < 0) {
            uprintf("\r\nCalibration unchanged\r\n");
            return;
        }
        int w = snprintf(typed_cal + used, sizeof typed_cal - used, "%s\r\n", line);
        if (w > 0) {
            used += static_cast<size_t>(w) < sizeof typed_cal - used ? static_cast<size_t>(w) : 0;
        }
    }
    if (parse_cal_packet(typed_cal, static_cast<uint32_t>(used)) != 0) {
        return;
    }
    set_cal_filename("typed");
    storeSysDataVariables();
    uprintf("\r\nCalibration coefficients stored\r\n");
}

void import_from_card(void) {
    if (microSD_flg != 1) {
        uprintf("\r\nMicroSD card not detected, file commands are not available\r\n");
        return;
    }
    if (import_pH_sensor_cal_coeff() == 0) {
        storeSysDataVariables();
        uprintf("Calibration coefficients stored\r\n");
    }
}

} // namespace

// ---------------------------------------------------------------- public entries

void ph_calib(void) {

    uprintf("\r\nph_calib() not supported in this version\r\n");
    prompt_number("\r\n\r\nEnter pH calibration point [%.3f]: ", &cal_point_ph, 0.0f, 14.0f,
                  "\r\nEnter between 0 and 14");
    uprintf("pH cal pt = %.3f\r\n", (double)cal_point_ph);

    CalibInputs in{cal_point_ph, sampl.fVrsi, sampl.fVrse, sampl.fVtherm, sampl.fTempC, sys_data.default_sal};
    if (yesOrNoMenuChoice("Perform automatic DuraFET calibration (Y/N) [N]? ", 0) == 1) {
        if (!auto_calibration(&in)) {
            return;
        }
    } else {
        manual_calibration(&in);
    }

    float k0int = calib_k0int(in.vrsi, in.ph, in.tempC);
    float k0ext = calib_k0ext(in.vrse, in.ph, in.tempC, in.salinity);
    float TCOffset = in.tempC - DuraFET_temp(in.vtherm, 0.0f);
    uprintf("\r\n\r\nEo Int @ 25C = %f", (double)k0int);
    uprintf("\r\nEo Ext @ 25C = %f", (double)k0ext);
    uprintf("\r\nTCOffset = %f", (double)TCOffset);
    uprintf("\r\n\r\n");
    if (yesOrNoMenuChoice("Accept and store calibration values(Y/N) [N]? ", 0) != 1) {
        return;
    }
    sys_data.k0int = k0int;
    sys_data.k0ext = k0ext;
    sys_data.TCOffset = TCOffset;
    uprintf("\r\nCalibration values stored");
}

void enter_pH_sensor_cal_coeff(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A',
         .label = "Type or paste the calibration file",
         .kind = ItemKind::action,
         .action = type_calibration},
        {.key = 'B',
         .label = "Receive the calibration file by YMODEM",
         .kind = ItemKind::action,
         .action = import_ymodem_cal_coeff},
        {.key = 'C',
         .label = "Import DF384.cal from the card",
         .kind = ItemKind::action,
         .action = import_from_card},
        {.key = 'D',
         .label = "Show the stored coefficients",
         .kind = ItemKind::action,
         .action = export_calibration},
    };
    run_menu_page("pH sensor calibration coefficients (a file is taken whole or refused)", items,
                  sizeof items / sizeof items[0]);
}

// Slow consoles get a pause after the transfer, so that what the terminal program still sends once
// the transfer has ended is discarded before the menu reads keys again.
void import_ymodem_cal_coeff(void) {
    if (yesOrNoMenuChoice("Transfer Cal file via Teraterm YMODEM? (Y/N) [N]?", 0) == 0) {
        return;
    }
    uprintf("OK!  Calling ymodem_receive...(Ctrl-C to cancel)\r\n");
    wait_consoleTx();
    uprintf("TeraTerm: File->Transfer->Ymodem->Send *.cal file\r\n");
    wait_consoleTx();
    bool slow = sys_data.baud_rate != 115200;
    if (slow) {
        uprintf("   Note: 15 sec delay after transfer for slow baud ymodem workaround\r\n");
    }
    calFileFlg = 1;
    ymodem_receive(YMODEM_TO_MEMORY);
    if (slow) {
        for (int i = 0; i < 8; i++) {
            uprintf("   delay...\r\n");
            delay_msec(2000);
        }
        UARTFlushRx();
    }
    uprintf("\r\n\r\n");
}

uint32_t copy_sys_data_to_this_firmware(void) {
    // The factory record is made in sys_data itself (initSysDataVariables writes there) and kept
    // here, off the stack.
    static systemData factory;
    factory = sys_data;
    systemSamplingData samp = sys_samp;
    uint32_t baud = sys_data.baud_rate;
    sys_data.baud_rate = 115200; // the defaults must not switch the console now
    initSysDataVariables();
    std::swap(factory, sys_data);
    sys_data.baud_rate = baud;
    sys_samp = samp;
    uint32_t reset =
        fix_numbers(sys_data, factory) + fix_switches(sys_data, factory) + fix_texts(sys_data, factory);
    memcpy(sys_data.firmware_version, factory.firmware_version, sizeof sys_data.firmware_version);
    dbg_flag = sys_data.debug_flag;
    return reset;
}

void assign_defaults_to_records(void) {
    initSysDataVariables();
    init_sys_samp_default();
    SetDefaultsIntoNVRAM();
    storeSysDataVariables();
    dbg_flag = sys_data.debug_flag;
    pump_var_init();
}

void advanced_setup_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'E',
         .label = "Edit/Copy EEPROM sys_data",
         .kind = ItemKind::action,
         .action = edit_copy_sys_data},
        {.key = 'D',
         .label = "assign Defaults to sys_data and sys_samp",
         .kind = ItemKind::action,
         .action = assign_defaults},
        {.key = 'S',
         .label = "Print the sys_data structure",
         .kind = ItemKind::action,
         .action = print_sys_data_structure},
        {.key = 'P',
         .label = "Print the sys_samp structure",
         .kind = ItemKind::action,
         .action = print_sys_samp_data_structure},
        {.key = 'F', .label = "FRAM test", .kind = ItemKind::action, .action = fram_test_report},
        {.key = 'K', .label = "FRAM soak test", .kind = ItemKind::action, .action = fram_soak_report},
    };
    run_menu_page("Advanced", items, sizeof items / sizeof items[0]);
}

void configuration_menu(void) {
    static constexpr MenuItem items[] = {
        {.key = 'A', .label = "Data fields", .kind = ItemKind::action, .action = data_fields_menu},
        {.key = 'B', .label = "ADC sampling", .kind = ItemKind::action, .action = adc_sampling_menu},
        {.key = 'C', .label = "Sampling", .kind = ItemKind::action, .action = sampling_menu},
        {.key = 'D', .label = "Identity and notes", .kind = ItemKind::action, .action = identity_menu},
        {.key = 'E', .label = "Calibration", .kind = ItemKind::action, .action = calibration_menu},
        {.key = 'F', .label = "Application switches", .kind = ItemKind::action, .action = application_menu},
        {.key = 'G', .label = "Console", .kind = ItemKind::action, .action = console_menu},
        {.key = 'P', .label = "Pump sequencer", .kind = ItemKind::action, .action = pump_menu},
        {.key = 'T', .label = "Time", .kind = ItemKind::action, .action = time_menu},
        {.key = 'Y', .label = "Advanced", .kind = ItemKind::action, .action = advanced_setup_menu},
    };
    run_menu_page("Configuration Menu", items, sizeof items / sizeof items[0]);
}
