// The console command line: the ordered table of command words matched against the received line
// rx0.buf, the small shared replies, and the help texts.
#pragma once

#include <cstdint>

// Which sample the float controller last asked for with T1 or T2 (1 nitrate, 2 pH, 0 none yet).
extern uint32_t sample_select;

// Matches rx0.buf against the command table, stores the code in rx0.cmd, runs the handler and
// returns the code: 0 when nothing matched, 10 for the words that end the session, 83 for "m".
uint32_t parse_rx0_buf(void);

// "\r\n>"
void print_prompt(void);
// "NAK\r\n"
void print_NAK(void);
// Stores sys_data; every setter that changes it ends here.
void save(void);

// Firmware version and a line end.
void print_cmd_version(void);
// The short command list for a person at a terminal.
void print_cmd_help(void);
// The float-controller command card: label, command as sent, sample reply.
void print_cmd_big_help(void);
// The operator's help, reached from the main menu.
void help_menu(void);
