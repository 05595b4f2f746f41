// Driver of the Aanderaa oxygen optode (3830/3835 output) on port 3.
#pragma once

#include "instruments/port3.h"

extern const port3Instrument optode_instrument;

// Called with 1 to start a pass, then with the value it last returned; 0 when the pass is over.
int optode_stateMachine(int state);
// Turns a "MEASUREMENT" line into the optode's twelve fields in uart3_prn_buf.
bool optode_parse(char* line);
