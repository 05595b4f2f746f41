// The settings in their memories: sys_data in the on-chip EEPROM, sys_samp in the FRAM.
#pragma once

#include <cstdint>

// EEPROM load of sys_data, then the FRAM load of sys_samp (with defaults when its mark is missing).
void retrieveSysDataVariables(void);
// Stores sys_samp in FRAM, then sys_data in EEPROM; returns the EEPROM driver's result.
uint32_t storeSysDataVariables(void);
void retrieveSysSampFRAMVariables(void);
// 0 when written; 1 when the mark was missing (it is restored, nothing is written this time).
uint32_t storeSysSampFRAMVariables(void);
// Defaults of sys_samp, stored in FRAM at once.
void init_sys_samp_default(void);
