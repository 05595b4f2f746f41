// The controller's persisted records: the settings and calibration record `sys_data` (on-chip
// EEPROM), the deployment state `sys_samp` (FRAM), and the operations that load, store, check,
// reset and print them. The structs are byte images of the stored records: every offset below is
// part of the stored format and is pinned by a static_assert.
#pragma once

#include <cstddef>
#include <cstdint>

// Version text of this firmware; sys_data.firmware_version holds the copy the record was made by.
inline constexpr char FIRMWARE_VERSION[] = "v5.0.3 HXC3 revA";
// Bytes compared by the version check: the text with its NUL.
inline constexpr uint32_t FIRMWARE_VERSION_LEN = sizeof(FIRMWARE_VERSION);
static_assert(FIRMWARE_VERSION_LEN == 17);

// Where sys_data lives in the EEPROM. The image runs past the 2048-byte device on purpose: the
// address and length stay as they have always been, so the tail of the record is not durable.
inline constexpr uint32_t SYS_DATA_EEPROM_ADDR = 1024;
inline constexpr uint32_t SYS_DATA_EEPROM_LEN = 1352;

// Validity mark of the FRAM copy of sys_samp.
inline constexpr uint32_t SYS_SAMP_INIT_NUM = 0x55AA55AA;

// Enumerations are one byte in the records.
enum sampling_state : uint8_t { IDLE = 0, DEPLOYED = 1 };
enum output_mode : uint8_t { NORMAL = 1, VERBOSE = 2 };
enum boolean : uint8_t { FALSE = 0, TRUE = 1 };

// Indices of sys_data.data_cfg: which fields go into the data output.
enum data_cfg_index : uint8_t {
    CFG_SAMPLE_NUM = 0,
    CFG_TIMESTAMP = 1,
    CFG_V_THERMISTOR = 2,
    CFG_V_THERMISTOR_STD = 3,
    CFG_CALC_TEMP = 4,
    CFG_VRSI = 5,
    CFG_VRSI_STD = 6,
    CFG_CALC_PH_VRSI = 7,
    CFG_VRSE = 8,
    CFG_VRSE_STD = 9,
    CFG_CALC_PH_VRSE = 10,
    CFG_VRSI_BIASED = 11,
    CFG_VRSI_BIASED_STD = 12,
    CFG_VRSE_BIASED = 13,
    CFG_VRSE_BIASED_STD = 14,
    CFG_V_COUNTER_ELECT = 15,
    CFG_V_COUNTER_ELECT_STD = 16,
    CFG_I_COUNTER = 17,
    CFG_I_SUBSTRATE = 18,
    CFG_VIN_BAT_VOLT = 19,
    CFG_BIAS_BAT_POS = 20,
    CFG_BIAS_BAT_NEG = 21,
    CFG_BRD_TEMP = 22,
    CFG_BRD_HUMIDITY = 23,
    CFG_UART3_INST = 24, // instrument type code on serial port 3
    CFG_UART4_INST = 25, // instrument type code on serial port 4 (the CTD port)
    CFG_SPARE1 = 26,
    CFG_SPARE2 = 27,
    CFG_SPARE3 = 28,
    CFG_SPARE4 = 29,
    CFG_SPARE5 = 30,
    CFG_SPARE6 = 31,
};
inline constexpr uint32_t DATA_CFG_SIZE = 32;

// Indices of sys_data.app_cfg: application switches (6..15 unused).
enum app_cfg_index : uint8_t {
    APPCFG_SAMPLING_DIAG = 0,
    APPCFG_TEMPC_SH_ALG = 1, // temperature by Steinhart-Hart when set
    APPCFG_MICROSD_ENABLE = 2,
    APPCFG_MENU_LEVEL = 3, // 1 enables the experimental menus
    APPCFG_DEPLOY_UARTECHO = 4,
    APPCFG_EXEC_SWITCHERONI = 5, // deployed wake: 0 sample, 1 host link, 2 continuous output
};
inline constexpr uint32_t APP_CFG_SIZE = 16;

// Board QA results, written by the QA procedure of the test menus.
struct qaData {
    uint32_t microSD;
    uint32_t time;
    uint32_t test_time;
    uint32_t eeprom;
    uint32_t sys_data_init;
    uint32_t fram;
    uint32_t adc12onchip;
    uint32_t adc24;
    float Vrsi, Vrsi_std, Vrsi_err;
    float Vrse, Vrse_std, Vrse_err;
    float Vtherm, Vtherm_std, Vtherm_err;
    float Ik, Ik_std, Ik_err;
    float Vk, Vk_std, Vk_err;
    float Ib, Ib_std, Ib_err;
    float Vb, Vb_std, Vb_err;
    float Vbias_pos;
    float Vbias_neg;
    uint32_t aux_pwr1;
    uint32_t aux_pwr2;
    uint32_t aux_pwr3;
    uint32_t ctd;
    uint32_t optode;
    uint32_t comm_pwr;
    unsigned char tester[48];
    unsigned char firmware_version[32];
    unsigned char board_fab_note[80];
};

// Settings, calibration, identity and QA: the EEPROM image.
struct systemData {
    uint32_t sampling_period;
    uint32_t chksum;
    uint32_t averaging_interval;
    float low_batt_volt;
    float TCOffset;
    float TCSlope;
    float k0ext;
    float k0int;
    float k2ext;
    float k2int;
    double quadTherm_c0;
    double quadTherm_c1;
    double quadTherm_c2;
    double quadTherm_c3;
    double shTherm_A;
    double shTherm_B;
    double shTherm_C;
    float default_sal;
    // 24-bit ADC conversion-rate code and number of readings per measured channel
    uint32_t Vrsi_sps, Vrsi_trials;
    uint32_t Vrse_sps, Vrse_trials;
    uint32_t Vtherm_sps, Vtherm_trials;
    uint32_t Ik_sps, Ik_trials;
    uint32_t Vk_sps, Vk_trials;
    uint32_t Ib_sps, Ib_trials;
    uint32_t Vb_sps, Vb_trials;
    uint32_t Vbias_sps, Vbias_trials;
    uint32_t offset_Ik;
    uint32_t offset_Ib;
    output_mode output;
    uint8_t output_pad[3];
    uint32_t test_mode;
    uint32_t fast_mode;
    uint32_t solenoid_on2hold_msec;
    uint32_t solenoid_hold_pwm;
    uint32_t solenoid_holdtime;
    uint32_t baud_rate;
    unsigned char data_cfg[DATA_CFG_SIZE];
    unsigned char app_cfg[APP_CFG_SIZE];
    unsigned char GMT;
    unsigned char sample_aligned;
    uint8_t flags_pad[2];
    uint32_t diag;
    uint32_t debug_flag;
    uint32_t deploy_time;
    // pump sequencer
    uint32_t start_pump_time;
    uint32_t pump_seq_type;
    uint32_t sampleCnt_duty_on;
    uint32_t sampleCnt_duty_off;
    uint32_t pump1_cycles;
    uint32_t pump2_cycles;
    uint32_t pump1_ontime;
    uint32_t pump2_ontime;
    uint32_t pump_spare[16];
    // pH calibration
    float pHOffset;
    float pHSlope;
    float sensor_ctd_TC;
    float sensor_optode_TC;
    float K2_Cal[4];
    float fP_Cal[7];
    float k0_HCL;
    float k0_SW;
    float k0std_SW;
    float spare[25];
    // identity and notes (NUL-terminated texts)
    unsigned char service_date[12];
    unsigned char PT_Cal_date[12];
    unsigned char k0_Cal_date[12];
    unsigned char cal_filename[32];
    unsigned char firmware_version[32];
    unsigned char fileName[16];
    unsigned char user[8];
    unsigned char board_SN[24];
    unsigned char mcap_SN[24];
    unsigned char sensor_SN[8];
    unsigned char isfet_SN[8];
    unsigned char ise_SN[8];
    unsigned char package_name[32];
    unsigned char optode_SN[24];
    unsigned char ctd_SN[24];
    unsigned char pump_SN[24];
    unsigned char pump2_SN[24];
    unsigned char pump3_SN[24];
    unsigned char package_fab_note[80];
    unsigned char deploy_note[80];
    qaData qa;
    uint8_t qa_pad[4];
};

// The deployment's running state: the FRAM image.
struct systemSamplingData {
    int32_t state; // IDLE or DEPLOYED
    uint32_t nextWakeUp;
    uint32_t next_gdata_fptr;
    uint32_t current_sample;
    float AD24_std;
    float sensor_sal;
    float spare1;
    float spare2;
    float spare3;
    float spare4;
    uint32_t initNum; // SYS_SAMP_INIT_NUM when the record is valid
    uint32_t pump_seq_state;
    uint32_t pump1_cnt;
    uint32_t pump2_cnt;
    uint32_t start_pump_cntdown;
};

// A RAM-only copy of the sampling state; no instance is kept (sys_samp fills that role).
struct systemDataVolatile {
    uint32_t state;
    uint32_t nextWakeUp;
    uint32_t next_gdata_fptr;
    uint32_t current_sample;
    float AD24_std;
    uint32_t samp_state;
    uint32_t chksum;
};

// ---- stored layouts: identical on the board and on the host
static_assert(sizeof(float) == 4 && sizeof(double) == 8);

static_assert(offsetof(qaData, microSD) == 0);
static_assert(offsetof(qaData, time) == 4);
static_assert(offsetof(qaData, test_time) == 8);
static_assert(offsetof(qaData, eeprom) == 12);
static_assert(offsetof(qaData, sys_data_init) == 16);
static_assert(offsetof(qaData, fram) == 20);
static_assert(offsetof(qaData, adc12onchip) == 24);
static_assert(offsetof(qaData, adc24) == 28);
static_assert(offsetof(qaData, Vrsi) == 32);
static_assert(offsetof(qaData, Vrsi_std) == 36);
static_assert(offsetof(qaData, Vrsi_err) == 40);
static_assert(offsetof(qaData, Vrse) == 44);
static_assert(offsetof(qaData, Vrse_std) == 48);
static_assert(offsetof(qaData, Vrse_err) == 52);
static_assert(offsetof(qaData, Vtherm) == 56);
static_assert(offsetof(qaData, Vtherm_std) == 60);
static_assert(offsetof(qaData, Vtherm_err) == 64);
static_assert(offsetof(qaData, Ik) == 68);
static_assert(offsetof(qaData, Ik_std) == 72);
static_assert(offsetof(qaData, Ik_err) == 76);
static_assert(offsetof(qaData, Vk) == 80);
static_assert(offsetof(qaData, Vk_std) == 84);
static_assert(offsetof(qaData, Vk_err) == 88);
static_assert(offsetof(qaData, Ib) == 92);
static_assert(offsetof(qaData, Ib_std) == 96);
static_assert(offsetof(qaData, Ib_err) == 100);
static_assert(offsetof(qaData, Vb) == 104);
static_assert(offsetof(qaData, Vb_std) == 108);
static_assert(offsetof(qaData, Vb_err) == 112);
static_assert(offsetof(qaData, Vbias_pos) == 116);
static_assert(offsetof(qaData, Vbias_neg) == 120);
static_assert(offsetof(qaData, aux_pwr1) == 124);
static_assert(offsetof(qaData, aux_pwr2) == 128);
static_assert(offsetof(qaData, aux_pwr3) == 132);
static_assert(offsetof(qaData, ctd) == 136);
static_assert(offsetof(qaData, optode) == 140);
static_assert(offsetof(qaData, comm_pwr) == 144);
static_assert(offsetof(qaData, tester) == 148);
static_assert(offsetof(qaData, firmware_version) == 196);
static_assert(offsetof(qaData, board_fab_note) == 228);
static_assert(sizeof(qaData) == 308);

static_assert(sizeof(output_mode) == 1);
static_assert(offsetof(systemData, sampling_period) == 0);
static_assert(offsetof(systemData, chksum) == 4);
static_assert(offsetof(systemData, averaging_interval) == 8);
static_assert(offsetof(systemData, low_batt_volt) == 12);
static_assert(offsetof(systemData, TCOffset) == 16);
static_assert(offsetof(systemData, TCSlope) == 20);
static_assert(offsetof(systemData, k0ext) == 24);
static_assert(offsetof(systemData, k0int) == 28);
static_assert(offsetof(systemData, k2ext) == 32);
static_assert(offsetof(systemData, k2int) == 36);
static_assert(offsetof(systemData, quadTherm_c0) == 40);
static_assert(offsetof(systemData, quadTherm_c1) == 48);
static_assert(offsetof(systemData, quadTherm_c2) == 56);
static_assert(offsetof(systemData, quadTherm_c3) == 64);
static_assert(offsetof(systemData, shTherm_A) == 72);
static_assert(offsetof(systemData, shTherm_B) == 80);
static_assert(offsetof(systemData, shTherm_C) == 88);
static_assert(offsetof(systemData, default_sal) == 96);
static_assert(offsetof(systemData, Vrsi_sps) == 100);
static_assert(offsetof(systemData, Vrsi_trials) == 104);
static_assert(offsetof(systemData, Vrse_sps) == 108);
static_assert(offsetof(systemData, Vrse_trials) == 112);
static_assert(offsetof(systemData, Vtherm_sps) == 116);
static_assert(offsetof(systemData, Vtherm_trials) == 120);
static_assert(offsetof(systemData, Ik_sps) == 124);
static_assert(offsetof(systemData, Ik_trials) == 128);
static_assert(offsetof(systemData, Vk_sps) == 132);
static_assert(offsetof(systemData, Vk_trials) == 136);
static_assert(offsetof(systemData, Ib_sps) == 140);
static_assert(offsetof(systemData, Ib_trials) == 144);
static_assert(offsetof(systemData, Vb_sps) == 148);
static_assert(offsetof(systemData, Vb_trials) == 152);
static_assert(offsetof(systemData, Vbias_sps) == 156);
static_assert(offsetof(systemData, Vbias_trials) == 160);
static_assert(offsetof(systemData, offset_Ik) == 164);
static_assert(offsetof(systemData, offset_Ib) == 168);
static_assert(offsetof(systemData, output) == 172);
static_assert(offsetof(systemData, output_pad) == 173);
static_assert(offsetof(systemData, test_mode) == 176);
static_assert(offsetof(systemData, fast_mode) == 180);
static_assert(offsetof(systemData, solenoid_on2hold_msec) == 184);
static_assert(offsetof(systemData, solenoid_hold_pwm) == 188);
static_assert(offsetof(systemData, solenoid_holdtime) == 192);
static_assert(offsetof(systemData, baud_rate) == 196);
static_assert(offsetof(systemData, data_cfg) == 200);
static_assert(offsetof(systemData, app_cfg) == 232);
static_assert(offsetof(systemData, GMT) == 248);
static_assert(offsetof(systemData, sample_aligned) == 249);
static_assert(offsetof(systemData, flags_pad) == 250);
static_assert(offsetof(systemData, diag) == 252);
static_assert(offsetof(systemData, debug_flag) == 256);
static_assert(offsetof(systemData, deploy_time) == 260);
static_assert(offsetof(systemData, start_pump_time) == 264);
static_assert(offsetof(systemData, pump_seq_type) == 268);
static_assert(offsetof(systemData, sampleCnt_duty_on) == 272);
static_assert(offsetof(systemData, sampleCnt_duty_off) == 276);
static_assert(offsetof(systemData, pump1_cycles) == 280);
static_assert(offsetof(systemData, pump2_cycles) == 284);
static_assert(offsetof(systemData, pump1_ontime) == 288);
static_assert(offsetof(systemData, pump2_ontime) == 292);
static_assert(offsetof(systemData, pump_spare) == 296);
static_assert(offsetof(systemData, pHOffset) == 360);
static_assert(offsetof(systemData, pHSlope) == 364);
static_assert(offsetof(systemData, sensor_ctd_TC) == 368);
static_assert(offsetof(systemData, sensor_optode_TC) == 372);
static_assert(offsetof(systemData, K2_Cal) == 376);
static_assert(offsetof(systemData, fP_Cal) == 392);
static_assert(offsetof(systemData, k0_HCL) == 420);
static_assert(offsetof(systemData, k0_SW) == 424);
static_assert(offsetof(systemData, k0std_SW) == 428);
static_assert(offsetof(systemData, spare) == 432);
static_assert(offsetof(systemData, service_date) == 532);
static_assert(offsetof(systemData, PT_Cal_date) == 544);
static_assert(offsetof(systemData, k0_Cal_date) == 556);
static_assert(offsetof(systemData, cal_filename) == 568);
static_assert(offsetof(systemData, firmware_version) == 600);
static_assert(offsetof(systemData, fileName) == 632);
static_assert(offsetof(systemData, user) == 648);
static_assert(offsetof(systemData, board_SN) == 656);
static_assert(offsetof(systemData, mcap_SN) == 680);
static_assert(offsetof(systemData, sensor_SN) == 704);
static_assert(offsetof(systemData, isfet_SN) == 712);
static_assert(offsetof(systemData, ise_SN) == 720);
static_assert(offsetof(systemData, package_name) == 728);
static_assert(offsetof(systemData, optode_SN) == 760);
static_assert(offsetof(systemData, ctd_SN) == 784);
static_assert(offsetof(systemData, pump_SN) == 808);
static_assert(offsetof(systemData, pump2_SN) == 832);
static_assert(offsetof(systemData, pump3_SN) == 856);
static_assert(offsetof(systemData, package_fab_note) == 880);
static_assert(offsetof(systemData, deploy_note) == 960);
static_assert(offsetof(systemData, qa) == 1040);
static_assert(offsetof(systemData, qa_pad) == 1348);
static_assert(sizeof(systemData) == SYS_DATA_EEPROM_LEN);

static_assert(offsetof(systemSamplingData, state) == 0);
static_assert(offsetof(systemSamplingData, nextWakeUp) == 4);
static_assert(offsetof(systemSamplingData, next_gdata_fptr) == 8);
static_assert(offsetof(systemSamplingData, current_sample) == 12);
static_assert(offsetof(systemSamplingData, AD24_std) == 16);
static_assert(offsetof(systemSamplingData, sensor_sal) == 20);
static_assert(offsetof(systemSamplingData, spare1) == 24);
static_assert(offsetof(systemSamplingData, spare2) == 28);
static_assert(offsetof(systemSamplingData, spare3) == 32);
static_assert(offsetof(systemSamplingData, spare4) == 36);
static_assert(offsetof(systemSamplingData, initNum) == 40);
static_assert(offsetof(systemSamplingData, pump_seq_state) == 44);
static_assert(offsetof(systemSamplingData, pump1_cnt) == 48);
static_assert(offsetof(systemSamplingData, pump2_cnt) == 52);
static_assert(offsetof(systemSamplingData, start_pump_cntdown) == 56);
static_assert(sizeof(systemSamplingData) == 60);

static_assert(offsetof(systemDataVolatile, state) == 0);
static_assert(offsetof(systemDataVolatile, nextWakeUp) == 4);
static_assert(offsetof(systemDataVolatile, next_gdata_fptr) == 8);
static_assert(offsetof(systemDataVolatile, current_sample) == 12);
static_assert(offsetof(systemDataVolatile, AD24_std) == 16);
static_assert(offsetof(systemDataVolatile, samp_state) == 20);
static_assert(offsetof(systemDataVolatile, chksum) == 24);
static_assert(sizeof(systemDataVolatile) == 28);

extern systemData sys_data;
extern systemSamplingData sys_samp;

// Factory defaults of sys_data (and the sampling counters of sys_samp); the caller stores.
void initSysDataVariables(void);
void ads1248_sampling_defaults(void);
// 0 when app_cfg[APPCFG_EXEC_SWITCHERONI] was out of range and was reset, 1 otherwise.
uint32_t verifySysDataVariables(void);
void sys_data_error_check(void);
uint32_t compute_sys_data_chksum(void);
void initSysDataVolatileVariables(void);
void eeprom_firmware_qa_check(void);
void print_sys_data_structure(void);
void print_sys_samp_data_structure(void);
