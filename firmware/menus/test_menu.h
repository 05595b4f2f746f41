// The test menu (main menu entry 2) and the developer menu (entry 7).
#pragma once

// Board QA, channel tests, SBE37 tools, soak tests, ADC multiplexer test, ground-fault reading.
void test_menu(void);
// Developer tools: serial-flash probe, a deliberate crash, the hibernation status, the records.
void vesk_zone_menu(void);
