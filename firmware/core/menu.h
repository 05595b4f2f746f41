// Operator menus, deployed command mode, deployment start and the console entry routines.
#pragma once

#include <cstdint>

// Deployed command mode after a key wake: 1 resumes the deployment, 0 when the operator stopped it.
uint32_t exec_command(uint32_t timeout_s);
// The main menu loop; returns when the operator chooses the command line.
void exec_main_menu(void);
// The deployment start dialogue; ends in sleep.
void deploy_start(void);

// Waits for a carriage return on the console for up to timeout_s seconds: -1 on time-out, else the
// result of UARTgets(buf, size).
int32_t getUserInputTimeLimit(char* buf, uint32_t size, uint32_t timeout_s);
// Prints the prompt and reads one key: 1 for Y/y, 0 for N/n, dflt for anything else.
uint32_t yesOrNoMenuChoice(const char* prompt, uint32_t dflt);
// Prints RTC seconds as "mm/dd/yyyy hh:mm:ss".
void print_time_t_Time(uint32_t t);
