// The data-field presets of the platforms.
#pragma once

// Data-field presets: each sets the column switches and instrument codes of sys_data.data_cfg for a
// platform, resets the ADC sampling parameters to their defaults and stores sys_data.
void config_data_fields_all(void);
void config_data_fields_none(void);
void config_data_fields_glider(void);
void config_data_fields_wirewalker(void);
void config_data_fields_tessel(void);
void config_data_fields_corrib(void);
void config_data_fields_m2m_corrib(void);
void config_data_fields_brisa(void);
