// Driver of the Sea-Bird SBE37 MicroCAT on port 4: a state machine that the sample cycle steps
// between ADC readings (wake, "ts", collect the reply line, parse temperature and salinity), and the
// operator's tools for talking to the instrument from the test menus.
#pragma once

#include <cstdint>

// Called with 1 to start a pass, then with the value it last returned; 0 when the pass is over,
// whether it succeeded or not.
int ctd_sbe37_stateMachine(int state);
// Parses uart4_prn_buf (the reply with its commas as tabs) into ctd and sys_samp.sensor_sal.
void ctd_sbe37_parseData(void);

// One whole pass, the reply printed.
void ctd_sbe37_poll(void);
// Sends "ts" and prints what comes back.
void ctd_sbe37_comm_test(void);
// Connects the console to the instrument until CTRL-X.
void ctd_sbe37_serial_analyzer(void);
// One pass judged: returns 1 when it gave a parsed reply, else 0.
uint32_t ctd_sbe37_qa_test(void);
