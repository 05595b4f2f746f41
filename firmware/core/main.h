// Start-up and the main state machine: every period of activity is one pass from reset through
// init, the wake classification, the dispatch on the sampling state, the session and sleep.
#pragma once

#include <cstdint>

#include "storage/fatfs/ff.h"

// What started this pass (wake_handler).
constexpr uint32_t WAKE_NOTSET = 0; // cold start or a wake that does not count
constexpr uint32_t WAKE_PIN = 1;    // the hibernation WAKE pin: an operator key or the host
constexpr uint32_t WAKE_RTC = 2;    // the RTC match of a scheduled sample

extern uint32_t g_ui32SysClock; // system clock in Hz
extern uint32_t wakeSource;
extern FIL* dat_file; // open data file, nullptr when none
extern FIL* err_file; // open error log, nullptr when none

void init(void);
void init_hxc(void);
int IOPwrUp(void);
int IOPwrDown(void);
uint32_t wake_handler(void);
// Serves the host link until it ends or timeout_s seconds pass without activity.
void exec_main_loop(uint32_t timeout_s);
extern "C" void SysTickHandler(void);
extern "C" void faultISR_handler(void);
