// Operator menus, deployed command mode, deployment start and the console entry routines.
#pragma once

#include <cstdint>

// Deployed command mode after a key wake: 1 resumes the deployment, 0 when the operator stopped it.
uint32_t exec_command(uint32_t timeout_s);
// The main menu loop; returns when the operator chooses the command line.
void exec_main_menu(void);
void print_main_menu(void);
// The deployment start dialogue; ends in sleep.
void deploy_start(void);

// Continuous sampling until a console command ends it; leaves sys_samp.state IDLE.
void databarf_loop(void);
// Asks for the deployment note (timeout_s to start typing) and stores it with sys_data.
void enter_deployment_note(uint32_t timeout_s);
// Prints the persisted records.
void state_dump(void);

// Waits for a carriage return on the console for up to timeout_s seconds: -1 on time-out, else the
// result of UARTgets(buf, size).
int32_t getUserInputTimeLimit(char* buf, uint32_t size, uint32_t timeout_s);
// Line entry without a time limit: the result of UARTgets(buf, size).
int32_t getUserInput(char* buf, uint32_t size);
// Waits for one key and returns it.
uint8_t get_key(void);
// Asks for "MM/DD/YY HH:MM:SS" and returns it as RTC seconds, 0 when nothing valid was typed.
uint32_t getDateAndTime(void);
// Prints the prompt and reads one key: 1 for Y/y, 0 for N/n, dflt for anything else.
uint32_t yesOrNoMenuChoice(const char* prompt, uint32_t dflt);
