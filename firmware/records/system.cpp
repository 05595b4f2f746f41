// The controller's settings sys_data and sampling state sys_samp: factory defaults, the start-up
// checks and the configuration printouts. storage/settings keeps them in EEPROM and FRAM.
#include "records/system.h"

#include "ports/uartstdio.h"

#include "driverlib/eeprom.h"
#include "driverlib/hibernate.h"
#include "driverlib/sysctl.h"

#include <cstring>

systemData sys_data;
systemSamplingData sys_samp;

namespace {

// Clears a text field and copies text into it, always NUL-terminated.
void set_text(unsigned char* field, size_t size, const char* text) {
    memset(field, 0, size);
    size_t n = strlen(text);
    if (n > size - 1) {
        n = size - 1;
    }
    memcpy(field, text, n);
}

// A stored text as a printable string: the EEPROM may hold a field without its NUL.
struct FieldText {
    char s[97];
};
FieldText text_of(const unsigned char* field, size_t size) {
    FieldText t{};
    size_t n = size < sizeof(t.s) - 1 ? size : sizeof(t.s) - 1;
    memcpy(t.s, field, n);
    t.s[n] = '\0';
    return t;
}

const char* const data_cfg_names[DATA_CFG_SIZE] = {
    "CFG_SAMPLE_NUM",
    "CFG_TIMESTAMP",
    "CFG_V_THERMISTOR",
    "CFG_V_THERMISTOR_STD",
    "CFG_CALC_TEMP",
    "CFG_VRSI",
    "CFG_VRSI_STD",
    "CFG_CALC_PH_VRSI",
    "CFG_VRSE",
    "CFG_VRSE_STD",
    "CFG_CALC_PH_VRSE",
    "CFG_VRSI_BIASED",
    "CFG_VRSI_BIASED_STD",
    "CFG_VRSE_BIASED",
    "CFG_VRSE_BIASED_STD",
    "CFG_V_COUNTER_ELECT",
    "CFG_V_COUNTER_ELECT_STD",
    "CFG_I_COUNTER",
    "CFG_I_SUBSTRATE",
    "CFG_VIN_BAT_VOLT",
    "CFG_BIAS_BAT_POS",
    "CFG_BIAS_BAT_NEG",
    "CFG_BRD_TEMP",
    "CFG_BRD_HUMIDITY",
    "CFG_UART3_INST",
    "CFG_UART4_INST",
    "CFG_SPARE1",
    "CFG_SPARE2",
    "CFG_SPARE3",
    "CFG_SPARE4",
    "CFG_SPARE5",
    "CFG_SPARE6",
};

const char* const app_cfg_names[] = {
    "APPCFG_SAMPLING_DIAG", "APPCFG_TEMPC_SH_ALG",    "APPCFG_MICROSD_ENABLE",
    "APPCFG_MENU_LEVEL",    "APPCFG_DEPLOY_UARTECHO", "APPCFG_EXEC_SWITCHERONI",
};

// Factory values of data_cfg and app_cfg; the external-reference pH stays off by default.
const unsigned char data_cfg_defaults[DATA_CFG_SIZE] = {
    1, 1, 1, 1, 1, 1, 1, 1, // sample number .. pH (internal reference)
    1, 1, 0, 1, 0, 0, 0, 1, // Vrse, Vrse std, pH (external reference) off, biased cells, Vk
    1, 1, 1, 1, 1, 1, 1, 1, // Vk std .. board humidity
    0, 5, 0, 0, 0, 0, 0, 0, // port 3 instrument none, port 4 instrument 5, spares
};
const unsigned char app_cfg_defaults[APP_CFG_SIZE] = {0, 0, 1, 0, 1, 0};

// One line of the sys_data printout: "// label: value\r\n".
void line_u(const char* label, uint32_t v) {
    uprintf("// %s: %u\r\n", label, (unsigned)v);
}
void line_f(const char* label, float v) {
    uprintf("// %s: %.6f\r\n", label, (double)v);
}
void line_lf(const char* label, double v) {
    uprintf("// %s: %.11lf\r\n", label, v);
}
void line_e(const char* label, float v) {
    uprintf("// %s: %e\r\n", label, (double)v);
}
void line_s(const char* label, const unsigned char* field, size_t size) {
    uprintf("// %s: %s\r\n", label, text_of(field, size).s);
}

void print_qa_fields(const qaData& qa) {
    line_u("qa.microSD", qa.microSD);
    line_u("qa.time", qa.time);
    line_u("qa.test_time", qa.test_time);
    line_u("qa.eeprom", qa.eeprom);
    line_u("qa.sys_data_init", qa.sys_data_init);
    line_u("qa.fram", qa.fram);
    line_u("qa.adc12onchip", qa.adc12onchip);
    line_u("qa.adc24", qa.adc24);
    const struct {
        const char* label;
        float value;
    } floats[] = {
        {"qa.Vrsi", qa.Vrsi},
        {"qa.Vrsi_std", qa.Vrsi_std},
        {"qa.Vrsi_err", qa.Vrsi_err},
        {"qa.Vrse", qa.Vrse},
        {"qa.Vrse_std", qa.Vrse_std},
        {"qa.Vrse_err", qa.Vrse_err},
        {"qa.Vtherm", qa.Vtherm},
        {"qa.Vtherm_std", qa.Vtherm_std},
        {"qa.Vtherm_err", qa.Vtherm_err},
        {"qa.Ik", qa.Ik},
        {"qa.Ik_std", qa.Ik_std},
        {"qa.Ik_err", qa.Ik_err},
        {"qa.Vk", qa.Vk},
        {"qa.Vk_std", qa.Vk_std},
        {"qa.Vk_err", qa.Vk_err},
        {"qa.Ib", qa.Ib},
        {"qa.Ib_std", qa.Ib_std},
        {"qa.Ib_err", qa.Ib_err},
        {"qa.Vb", qa.Vb},
        {"qa.Vb_std", qa.Vb_std},
        {"qa.Vb_err", qa.Vb_err},
        {"qa.Vbias_pos", qa.Vbias_pos},
        {"qa.Vbias_neg", qa.Vbias_neg},
    };
    for (const auto& f : floats) {
        line_f(f.label, f.value);
    }
    line_u("qa.aux_pwr1", qa.aux_pwr1);
    line_u("qa.aux_pwr2", qa.aux_pwr2);
    line_u("qa.aux_pwr3", qa.aux_pwr3);
    line_u("qa.ctd", qa.ctd);
    line_u("qa.optode", qa.optode);
    line_u("qa.comm_pwr", qa.comm_pwr);
    line_s("qa.tester", qa.tester, sizeof qa.tester);
    line_s("qa.firmware_version", qa.firmware_version, sizeof qa.firmware_version);
    line_s("qa.board_fab_note", qa.board_fab_note, sizeof qa.board_fab_note);
}

} // namespace

void ads1248_sampling_defaults(void) {
    sys_data.Vrsi_sps = 20;
    sys_data.Vrsi_trials = 10;
    sys_data.Vrse_sps = 20;
    sys_data.Vrse_trials = 10;
    sys_data.Vtherm_sps = 20;
    sys_data.Vtherm_trials = 5;
    sys_data.Ik_sps = 20;
    sys_data.Ik_trials = 1;
    sys_data.Vk_sps = 20;
    sys_data.Vk_trials = 5;
    sys_data.Ib_sps = 20;
    sys_data.Ib_trials = 1;
    sys_data.Vb_sps = 20;
    sys_data.Vb_trials = 5;
    sys_data.Vbias_sps = 40;
    sys_data.Vbias_trials = 1;
}

// The steps run in this order because some fields are written twice and the last write wins.
void initSysDataVariables(void) {
    memcpy(sys_data.firmware_version, FIRMWARE_VERSION, FIRMWARE_VERSION_LEN);

    sys_data.sampling_period = 0;
    sys_data.chksum = 0;
    sys_data.averaging_interval = 60;
    sys_data.low_batt_volt = 9.2f;
    sys_data.TCOffset = 0.0f;
    sys_data.TCSlope = 1.0f;
    sys_data.k0ext = -1.3f;
    sys_data.k0int = -0.4f;
    sys_data.k2ext = -0.001081f;
    sys_data.k2int = -0.001455f;
    sys_data.quadTherm_c0 = 340.9819863;
    sys_data.quadTherm_c1 = -9.10257e-05;
    sys_data.quadTherm_c2 = -95.08806667;
    sys_data.quadTherm_c3 = 0.965370274;
    sys_data.shTherm_A = 0.002108508173;
    sys_data.shTherm_B = 7.979204727e-05;
    sys_data.shTherm_C = 6.535076315e-07;
    sys_data.GMT = 0;
    sys_data.sample_aligned = 1;

    for (float& k : sys_data.K2_Cal) {
        k = 0.0f;
    }
    for (float& f : sys_data.fP_Cal) {
        f = 0.0f;
    }
    sys_data.k0_HCL = 0.0f;
    sys_data.k0_SW = 0.0f;
    sys_data.k0std_SW = 0.0f;
    set_text(sys_data.service_date, sizeof sys_data.service_date, " ");
    set_text(sys_data.PT_Cal_date, sizeof sys_data.PT_Cal_date, " ");
    set_text(sys_data.k0_Cal_date, sizeof sys_data.k0_Cal_date, " ");
    set_text(sys_data.cal_filename, sizeof sys_data.cal_filename, " ");

    sys_samp.sensor_sal = 0.0f;
    sys_data.default_sal = 35.0f;
    ads1248_sampling_defaults();

    sys_data.offset_Ik = 0;
    sys_data.offset_Ib = 0;
    sys_data.output = NORMAL;
    sys_data.test_mode = 0;
    sys_data.fast_mode = 1;
    sys_samp.state = IDLE;
    sys_data.solenoid_on2hold_msec = 100;
    sys_data.solenoid_hold_pwm = 40;
    sys_data.solenoid_holdtime = 10;

    uint32_t now = HibernateRTCGet();
    sys_data.deploy_time = 0;
    sys_data.start_pump_time = 0;
    sys_data.sampleCnt_duty_on = 0;
    sys_data.sampleCnt_duty_off = 0;
    sys_data.pump2_cycles = 0;
    sys_data.pump1_ontime = 0;
    sys_data.pump2_ontime = 0;
    sys_data.pump_seq_type = 1;
    sys_data.pump1_cycles = 1;

    sys_samp.next_gdata_fptr = 0;
    sys_samp.current_sample = 0;
    sys_samp.start_pump_cntdown = 0;
    sys_samp.AD24_std = 0.0f;
    sys_samp.nextWakeUp = now + sys_data.sampling_period;

    if (sys_data.baud_rate != 115200) {
        uprintf("Baud rate is changed to default: 115200\r\n");
        wait_consoleTx();
        UARTStdioConfig(0, 115200, 16000000);
    }
    sys_data.baud_rate = 115200;

    memset(sys_data.data_cfg, 0, sizeof sys_data.data_cfg);
    for (int i = 0; i < 4; i++) {
        sys_data.spare[i] = 0.0f;
    }
    sys_data.diag = 0;
    sys_data.debug_flag = 0;
    sys_data.sensor_ctd_TC = 0.0f;
    sys_data.sensor_optode_TC = 0.0f;
    sys_data.pHOffset = 0.0f;
    sys_data.GMT = 0;
    sys_data.sample_aligned = 0;
    sys_data.TCSlope = 1.0f;
    sys_data.pHSlope = 1.0f;

    set_text(sys_data.fileName, sizeof sys_data.fileName, "noname.txt");
    set_text(sys_data.user, sizeof sys_data.user, "abc");
    set_text(sys_data.board_SN, sizeof sys_data.board_SN, " ");
    set_text(sys_data.mcap_SN, sizeof sys_data.mcap_SN, " ");
    set_text(sys_data.sensor_SN, sizeof sys_data.sensor_SN, " ");
    set_text(sys_data.isfet_SN, sizeof sys_data.isfet_SN, " ");
    set_text(sys_data.ise_SN, sizeof sys_data.ise_SN, " ");
    set_text(sys_data.optode_SN, sizeof sys_data.optode_SN, " ");
    set_text(sys_data.ctd_SN, sizeof sys_data.ctd_SN, " ");
    set_text(sys_data.pump_SN, sizeof sys_data.pump_SN, " ");
    set_text(sys_data.pump2_SN, sizeof sys_data.pump2_SN, " ");
    set_text(sys_data.pump3_SN, sizeof sys_data.pump3_SN, " ");
    set_text(sys_data.package_name, sizeof sys_data.package_name, " ");
    set_text(sys_data.package_fab_note, sizeof sys_data.package_fab_note, " ");
    set_text(sys_data.deploy_note, sizeof sys_data.deploy_note, " ");

    memcpy(sys_data.data_cfg, data_cfg_defaults, sizeof sys_data.data_cfg);
    memcpy(sys_data.app_cfg, app_cfg_defaults, sizeof sys_data.app_cfg);
}

uint32_t verifySysDataVariables(void) {
    if (sys_data.app_cfg[APPCFG_EXEC_SWITCHERONI] > 2) {
        sys_data.app_cfg[APPCFG_EXEC_SWITCHERONI] = 0;
        return 0;
    }
    return 1;
}

// One setting out of range is tolerated; two or more mean the record is not trustworthy.
void sys_data_error_check(void) {
    uint32_t errors = 0;
    const uint32_t rates[] = {sys_data.Vrsi_sps, sys_data.Vrse_sps, sys_data.Vtherm_sps};
    for (uint32_t sps : rates) {
        if (sps < 1 || sps > 40) {
            errors++;
        }
    }
    // A trial count of 0 is accepted.
    const uint32_t trials[] = {sys_data.Vrsi_trials, sys_data.Vrse_trials, sys_data.Vtherm_trials};
    for (uint32_t n : trials) {
        if (n > 40) {
            errors++;
        }
    }
    if (sys_data.low_batt_volt > 100.0f) {
        errors++;
    }
    if (sys_data.baud_rate < 9600 || sys_data.baud_rate > 115200) {
        errors++;
    }
    if (errors >= 2) {
        initSysDataVariables();
    }
}

uint32_t compute_sys_data_chksum(void) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&sys_data);
    uint32_t sum = 0;
    for (size_t i = 0; i < sizeof(sys_data); i++) {
        sum += bytes[i];
    }
    return sum;
}

void initSysDataVolatileVariables(void) {
    uprintf("\r\nWarning: Initialized volatile sys data variables\r\n");
    sys_samp.state = 0;
    sys_samp.next_gdata_fptr = 0;
    sys_samp.current_sample = 0;
    sys_samp.AD24_std = 0.0f;
    sys_samp.nextWakeUp = HibernateRTCGet() + sys_data.sampling_period;
}

void eeprom_firmware_qa_check(void) {
    if (memcmp(sys_data.firmware_version, FIRMWARE_VERSION, FIRMWARE_VERSION_LEN) == 0) {
        return;
    }
    uprintf("\r\n\r\n\r\n\r\n\r\n");
    uprintf(
        "************* ERROR: EEPROM data check failed (firmware upgrade) ***********************\r\n\r\n");
    uprintf("*  EEPROM layout must match firmware, please run EEPROM copy / edit procedure  \r\n\r\n");
    uprintf("*  Version: %s, does not match firmware: %s\r\n\r\n",
            text_of(sys_data.firmware_version, sizeof sys_data.firmware_version).s, FIRMWARE_VERSION);
    uprintf("*  Run EEPROM data procedure:  \r\n\r\n");
    uprintf("*     1-Config Menu -> Y -- Advanced -> E -- Edit/Copy EEPROM sys_data \r\n\r\n");
    uprintf("*   or\r\n\r\n");
    uprintf("*     1-Config Menu -> Y -- Advanced -> D -- assign Defaults to sys_data and sys_samp \r\n\r\n");
    uprintf("****************************************************************************************\r\n");
}

// Record order, with the labels and positions operators know from earlier versions: pump1_ontime
// follows averaging_interval, sensor_sal (from sys_samp) follows default_sal, the quadratic
// thermistor terms read c0, c2, c3, c4.
void print_sys_data_structure(void) {
    uprintf("// ------ sys_data EEPROM structure, size = %u ---- \r\n", (unsigned)sizeof(systemData));
    line_u("sampling_period", sys_data.sampling_period);
    line_u("chksum", sys_data.chksum);
    line_u("averaging_interval", sys_data.averaging_interval);
    line_u("pump1_ontime", sys_data.pump1_ontime);
    uprintf("// %s: %.2f\r\n", "low_batt_volt", (double)sys_data.low_batt_volt);
    line_f("TCOffset", sys_data.TCOffset);
    line_f("TCSlope", sys_data.TCSlope);
    line_f("k0ext", sys_data.k0ext);
    line_f("k0int", sys_data.k0int);
    line_f("k2ext", sys_data.k2ext);
    line_f("k2int", sys_data.k2int);
    line_lf("quadTherm_c0", sys_data.quadTherm_c0);
    line_lf("quadTherm_c2", sys_data.quadTherm_c1);
    line_lf("quadTherm_c3", sys_data.quadTherm_c2);
    line_lf("quadTherm_c4", sys_data.quadTherm_c3);
    line_lf("shTherm_A", sys_data.shTherm_A);
    line_lf("shTherm_B", sys_data.shTherm_B);
    line_lf("shTherm_C", sys_data.shTherm_C);
    line_f("default_sal", sys_data.default_sal);
    line_f("sensor_sal", sys_samp.sensor_sal);

    line_u("Vrsi_sps", sys_data.Vrsi_sps);
    line_u("Vrsi_trials", sys_data.Vrsi_trials);
    line_u("Vrse_sps", sys_data.Vrse_sps);
    line_u("Vrse_trials", sys_data.Vrse_trials);
    line_u("Vtherm_sps", sys_data.Vtherm_sps);
    line_u("Vtherm_trials", sys_data.Vtherm_trials);
    line_u("Ik_sps", sys_data.Ik_sps);
    line_u("Ik_trials", sys_data.Ik_trials);
    line_u("Vk_sps", sys_data.Vk_sps);
    line_u("Vk_trials", sys_data.Vk_trials);
    line_u("Ib_sps", sys_data.Ib_sps);
    line_u("Ib_trials", sys_data.Ib_trials);
    line_u("Vb_sps", sys_data.Vb_sps);
    line_u("Vb_trials", sys_data.Vb_trials);
    line_u("Vbias_sps", sys_data.Vbias_sps);
    line_u("Vbias_trials", sys_data.Vbias_trials);

    line_u("offset_Ik", sys_data.offset_Ik);
    line_u("offset_Ib", sys_data.offset_Ib);
    line_u("output", sys_data.output);
    line_u("test_mode", sys_data.test_mode);
    line_u("fast_mode", sys_data.fast_mode);
    line_u("solenoid_on2hold_msec", sys_data.solenoid_on2hold_msec);
    line_u("solenoid_hold_pwm", sys_data.solenoid_hold_pwm);
    line_u("solenoid_holdtime", sys_data.solenoid_holdtime);
    line_u("baud_rate", sys_data.baud_rate);
    for (uint32_t i = 0; i < DATA_CFG_SIZE; i++) {
        uprintf("// data_cfg[%s]: %u\r\n", data_cfg_names[i], (unsigned)sys_data.data_cfg[i]);
    }
    for (uint32_t i = 0; i < sizeof app_cfg_names / sizeof app_cfg_names[0]; i++) {
        uprintf("// app_cfg[%s]: %u\r\n", app_cfg_names[i], (unsigned)sys_data.app_cfg[i]);
    }
    line_u("GMT", sys_data.GMT);
    line_u("sample_aligned", sys_data.sample_aligned);
    line_u("diag", sys_data.diag);
    line_u("debug_flag", sys_data.debug_flag);
    line_u("deploy_time", sys_data.deploy_time);

    line_u("start_pump_time", sys_data.start_pump_time);
    line_u("pump_seq_type", sys_data.pump_seq_type);
    line_u("sampleCnt_duty_on", sys_data.sampleCnt_duty_on);
    line_u("sampleCnt_duty_off", sys_data.sampleCnt_duty_off);
    line_u("pump1_cycles", sys_data.pump1_cycles);
    line_u("pump2_cycles", sys_data.pump2_cycles);
    line_u("pump2_ontime", sys_data.pump2_ontime);
    for (uint32_t i = 0; i < 16; i++) {
        uprintf("// pump_spare[%u]: %u\r\n", (unsigned)i, (unsigned)sys_data.pump_spare[i]);
    }

    line_f("pHOffset", sys_data.pHOffset);
    line_f("pHSlope", sys_data.pHSlope);
    line_f("sensor_ctd_TC", sys_data.sensor_ctd_TC);
    line_f("sensor_optode_TC", sys_data.sensor_optode_TC);
    for (uint32_t i = 0; i < 4; i++) {
        uprintf("// k2_C%u: %e\r\n", (unsigned)i, (double)sys_data.K2_Cal[i]);
    }
    for (uint32_t i = 0; i < 7; i++) {
        uprintf("// fP_%u: %e\r\n", (unsigned)i, (double)sys_data.fP_Cal[i]);
    }
    line_e("k0_HCl", sys_data.k0_HCL);
    line_e("k0_SW", sys_data.k0_SW);
    line_e("k0std_SW", sys_data.k0std_SW);
    for (uint32_t i = 0; i < 25; i++) {
        uprintf("// spare[%u] : %.6f\r\n", (unsigned)i, (double)sys_data.spare[i]);
    }

    line_s("service_date", sys_data.service_date, sizeof sys_data.service_date);
    line_s("PT_Cal_date", sys_data.PT_Cal_date, sizeof sys_data.PT_Cal_date);
    line_s("k0_Cal_date", sys_data.k0_Cal_date, sizeof sys_data.k0_Cal_date);
    line_s("cal_filename", sys_data.cal_filename, sizeof sys_data.cal_filename);
    line_s("firmware_version", sys_data.firmware_version, sizeof sys_data.firmware_version);
    line_s("fileName", sys_data.fileName, sizeof sys_data.fileName);
    line_s("user", sys_data.user, sizeof sys_data.user);
    line_s("board_SN", sys_data.board_SN, sizeof sys_data.board_SN);
    line_s("mcap_SN", sys_data.mcap_SN, sizeof sys_data.mcap_SN);
    line_s("sensor_SN", sys_data.sensor_SN, sizeof sys_data.sensor_SN);
    line_s("isfet_SN", sys_data.isfet_SN, sizeof sys_data.isfet_SN);
    line_s("ise_SN", sys_data.ise_SN, sizeof sys_data.ise_SN);
    line_s("package_name", sys_data.package_name, sizeof sys_data.package_name);
    line_s("optode_SN", sys_data.optode_SN, sizeof sys_data.optode_SN);
    line_s("ctd_SN", sys_data.ctd_SN, sizeof sys_data.ctd_SN);
    line_s("pump1_SN", sys_data.pump_SN, sizeof sys_data.pump_SN);
    line_s("pump2_SN", sys_data.pump2_SN, sizeof sys_data.pump2_SN);
    line_s("pump3_SN", sys_data.pump3_SN, sizeof sys_data.pump3_SN);
    line_s("package_fab_note", sys_data.package_fab_note, sizeof sys_data.package_fab_note);
    line_s("deploy_note", sys_data.deploy_note, sizeof sys_data.deploy_note);
    print_qa_fields(sys_data.qa);
}

// The state legend names four states although the record only holds IDLE and DEPLOYED; operators
// know the legend as it stands.
void print_sys_samp_data_structure(void) {
    uprintf("// ------ sys_samp FRAM volatile data structure, size = %u ---- \r\n",
            (unsigned)sizeof(systemSamplingData));
    uprintf("// state:           %u    0=IDLE,1=START,2=DEPLOYED,3=COMMAND\r\n", (unsigned)sys_samp.state);
    uprintf("// nextWakeUp:      %u    \r\n", (unsigned)sys_samp.nextWakeUp);
    uprintf("// next_gdata_fptr: %u    \r\n", (unsigned)sys_samp.next_gdata_fptr);
    uprintf("// current_sample:  %u    \r\n", (unsigned)sys_samp.current_sample);
    uprintf("// AD24_std:        %8.6f    \r\n", (double)sys_samp.AD24_std);
    uprintf("// sensor_sal:      %8.4f    \r\n", (double)sys_samp.sensor_sal);
    uprintf("// spare1:          %8.4f    \r\n", (double)sys_samp.spare1);
    uprintf("// spare2:          %8.4f    \r\n", (double)sys_samp.spare2);
    uprintf("// spare3:          %8.4f    \r\n", (double)sys_samp.spare3);
    uprintf("// spare4:          %8.4f    \r\n", (double)sys_samp.spare4);
    uprintf("// initNum:         %08x    \r\n", (unsigned)sys_samp.initNum);
    uprintf("// pump_seq_state:  %u    \r\n", (unsigned)sys_samp.pump_seq_state);
    uprintf("// pump1_cnt:       %u    \r\n", (unsigned)sys_samp.pump1_cnt);
    uprintf("// pump2_cnt:       %u    \r\n", (unsigned)sys_samp.pump2_cnt);
    uprintf("// start_pump_cntdown: %u    \r\n", (unsigned)sys_samp.start_pump_cntdown);
}
