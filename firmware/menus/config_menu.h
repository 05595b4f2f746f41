// The configuration menus: every setting of sys_data by name, the pH calibration dialogue and the
// calibration imports, and the advanced menu that repairs a record left by another firmware or a
// blank EEPROM.
#pragma once

#include <cstdint>

// Main menu entry 1.
void configuration_menu(void);
// "Y -- Advanced": edit/copy or default the stored record, print the records, the FRAM tests.
void advanced_setup_menu(void);

// The pH calibration dialogue: finds k0int, k0ext and TCOffset from a bath of known pH, temperature
// and salinity (typed cell voltages, or averaged samples) and stores them when the operator accepts.
void ph_calib(void);
// Calibration coefficients: typed (or pasted) as the 20-line file, by YMODEM, or from the card; each
// is taken whole or refused, and stored at once.
void enter_pH_sensor_cal_coeff(void);
// Receives a calibration file over the console by YMODEM into sys_data.
void import_ymodem_cal_coeff(void);

// Keeps what is valid in the stored record, gives every field that is out of its range (or a text
// without its end) its default, and stamps this firmware's version. Returns the fields reset.
uint32_t copy_sys_data_to_this_firmware(void);
// Factory defaults for sys_data, sys_samp and the float-controller variables, all stored.
void assign_defaults_to_records(void);
