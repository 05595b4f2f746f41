// The data-field presets of the platforms: which columns a platform logs and which instruments sit
// on its serial ports (the README's "Data format" section lists them).
#include "storage/presets.h"

#include <cstdint>
#include <cstring>
#include <span>

#include "records/system.h"
#include "storage/settings.h"

namespace {

// Column switches a preset turns on; the rest of the columns go off.
void apply_preset(std::span<const uint8_t> columns, uint8_t timestamp) {
    memset(sys_data.data_cfg, 0, CFG_UART3_INST); // the column switches, not the instrument codes
    for (uint8_t index : columns) {
        sys_data.data_cfg[index] = 1;
    }
    sys_data.data_cfg[CFG_TIMESTAMP] = timestamp;
}

void finish_preset(void) {
    ads1248_sampling_defaults();
    storeSysDataVariables();
}

// Instrument codes of the serial ports.
constexpr uint8_t INST_NONE = 0;
// Port 4 without a CTD: the pH uses the configured salinity.
constexpr uint8_t INST4_DEFAULT_SAL = 5;
constexpr uint8_t INST3_CORRIB = 4;
constexpr uint8_t INST3_BRISA = 3;
constexpr uint8_t INST4_SBE37 = 6;

} // namespace

void config_data_fields_all(void) {
    memset(sys_data.data_cfg, 1, CFG_UART3_INST); // the instrument codes stay as they are
    finish_preset();
}

void config_data_fields_none(void) {
    memset(sys_data.data_cfg, 0, sizeof sys_data.data_cfg);
    sys_data.data_cfg[CFG_UART4_INST] = INST4_DEFAULT_SAL;
    finish_preset();
}

void config_data_fields_glider(void) {
    static constexpr uint8_t columns[] = {
        CFG_SAMPLE_NUM, CFG_V_THERMISTOR, CFG_CALC_TEMP,       CFG_VRSI,      CFG_CALC_PH_VRSI,
        CFG_VRSE,       CFG_CALC_PH_VRSE, CFG_V_COUNTER_ELECT, CFG_I_COUNTER, CFG_I_SUBSTRATE,
    };
    apply_preset(columns, 2);
    sys_data.data_cfg[CFG_UART3_INST] = INST_NONE;
    sys_data.data_cfg[CFG_UART4_INST] = INST4_DEFAULT_SAL;
    finish_preset();
}

void config_data_fields_wirewalker(void) {
    static constexpr uint8_t columns[] = {
        CFG_SAMPLE_NUM, CFG_V_THERMISTOR, CFG_CALC_TEMP,    CFG_VRSI,     CFG_CALC_PH_VRSI,
        CFG_VRSE,       CFG_CALC_PH_VRSE, CFG_VRSI_STD,     CFG_VRSE_STD, CFG_V_COUNTER_ELECT,
        CFG_I_COUNTER,  CFG_I_SUBSTRATE,  CFG_VIN_BAT_VOLT,
    };
    apply_preset(columns, 1);
    sys_data.data_cfg[CFG_UART3_INST] = INST_NONE;
    sys_data.data_cfg[CFG_UART4_INST] = INST4_SBE37;
    finish_preset();
}

void config_data_fields_tessel(void) {
    static constexpr uint8_t columns[] = {
        CFG_SAMPLE_NUM,   CFG_V_THERMISTOR, CFG_V_THERMISTOR_STD, CFG_CALC_TEMP,
        CFG_VRSI,         CFG_VRSI_STD,     CFG_CALC_PH_VRSI,     CFG_VRSE,
        CFG_VRSE_STD,     CFG_CALC_PH_VRSE, CFG_V_COUNTER_ELECT,  CFG_V_COUNTER_ELECT_STD,
        CFG_I_COUNTER,    CFG_I_SUBSTRATE,  CFG_VIN_BAT_VOLT,     CFG_BIAS_BAT_POS,
        CFG_BIAS_BAT_NEG, CFG_BRD_TEMP,     CFG_BRD_HUMIDITY,
    };
    apply_preset(columns, 1);
    sys_data.data_cfg[CFG_UART3_INST] = INST_NONE;
    sys_data.data_cfg[CFG_UART4_INST] = INST4_SBE37;
    finish_preset();
}

void config_data_fields_corrib(void) {
    static constexpr uint8_t columns[] = {
        CFG_SAMPLE_NUM,   CFG_VIN_BAT_VOLT, CFG_BIAS_BAT_POS,    CFG_BIAS_BAT_NEG, CFG_BRD_TEMP,
        CFG_BRD_HUMIDITY, CFG_V_THERMISTOR, CFG_CALC_TEMP,       CFG_VRSI,         CFG_CALC_PH_VRSI,
        CFG_VRSE,         CFG_CALC_PH_VRSE, CFG_V_COUNTER_ELECT, CFG_I_COUNTER,    CFG_I_SUBSTRATE,
    };
    apply_preset(columns, 1);
    sys_data.data_cfg[CFG_UART3_INST] = INST3_CORRIB;
    sys_data.data_cfg[CFG_UART4_INST] = INST4_DEFAULT_SAL;
    finish_preset();
}

void config_data_fields_m2m_corrib(void) {
    static constexpr uint8_t columns[] = {
        CFG_SAMPLE_NUM,   CFG_V_THERMISTOR, CFG_CALC_TEMP,    CFG_VRSI,
        CFG_CALC_PH_VRSI, CFG_VRSE,         CFG_CALC_PH_VRSE,
    };
    apply_preset(columns, 2);
    sys_data.data_cfg[CFG_UART3_INST] = INST3_CORRIB;
    sys_data.data_cfg[CFG_UART4_INST] = INST4_DEFAULT_SAL;
    finish_preset();
}

void config_data_fields_brisa(void) {
    static constexpr uint8_t columns[] = {CFG_SAMPLE_NUM, CFG_VIN_BAT_VOLT};
    apply_preset(columns, 1);
    sys_data.data_cfg[CFG_UART3_INST] = INST3_BRISA;
    sys_data.data_cfg[CFG_UART4_INST] = INST4_DEFAULT_SAL;
    finish_preset();
}
