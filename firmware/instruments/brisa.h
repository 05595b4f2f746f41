// Driver of the Brisa FET pH instrument on port 3.
#pragma once

#include "instruments/port3.h"

extern const port3Instrument brisa_instrument;

// Called with 1 to start a pass, then with the value it last returned; 0 when the pass is over.
int brisa_stateMachine(int state);
// Turns the instrument's sample line into its fourteen fields in uart3_prn_buf.
bool brisa_parse(char* line);
