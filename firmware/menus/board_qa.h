// Board QA and the bench tests of the test menus: the QA procedure that checks every part of a board
// before it goes to sea and records the result in sys_data.qa, the ADC multiplexer test, the
// ground-fault reading and the sample soak test.
#pragma once

#include <cstdint>

// Result codes of the qaData items.
inline constexpr uint32_t QA_FAIL = 0;
inline constexpr uint32_t QA_PASS = 1;
inline constexpr uint32_t QA_NOT_ON_BOARD = 2; // a switch this board generation does not have

// Runs every check, prints one line per item and a summary naming each failed item, fills and
// stores sys_data.qa. Returns the number of failed items (0: the board passes).
uint32_t board_qa(void);
// Reads inputs 1 and 6 at each multiplexer position and prints the four readings.
void adc_mux_test(void);
// The ground-fault reading of the isolated side, printed.
void ground_fault_test(void);
// Takes n samples (console only, not logged) and reports how many were complete.
void sample_soak_test(uint32_t n);
// The FRAM test and soak test (asks for the iterations) with a PASS/FAIL line.
void fram_test_report(void);
void fram_soak_report(void);
