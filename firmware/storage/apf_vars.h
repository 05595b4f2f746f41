// The float controller's variables in FRAM: their defaults, the start-up load with the power-on and
// reset counters, and the float-side error log.
#pragma once

#include <cstdint>

#include "records/apf.h"

// NVRAM defaults (the float controller's variables, kept in FRAM).
void SetSysDefaultsIntoNVRAM(void);
void SetIsusDefaultsIntoNVRAM(void);
void SetDuraDefaultsIntoNVRAM(void);
// All three groups, then the FRAM store and a log entry.
void SetDefaultsIntoNVRAM(void);
// FRAM load of apf.
void GetVarsFromNVRAM(void);
// The group loads: the whole record comes with GetVarsFromNVRAM, so these do nothing.
void GetSysVarsFromNVRAM(void);
void GetIsusVarsFromNVRAM(void);
void GetDuraVarsFromNVRAM(void);

// Start-up load of apf with the power-on and reset counters (called after apf.sys_por_flag is set).
void init_apf_global_vars(void);
// Development overrides of the loaded values (none in this build).
void dev_init_apf_vars(void);

// Float-side error log: records the code and time in apf, prints text when enable is non-zero,
// stores apf, and appends text to the card's error log once the card is mounted. Returns code.
int32_t LogErrorMsg(const char* text, int32_t code, uint32_t enable);
