// Driver of the PyroScience pico-pH meter on port 3.
#pragma once

#include "instruments/port3.h"

extern const port3Instrument picoph_instrument;

// Called with 1 to start a pass, then with the value it last returned; 0 when the pass is over.
int picoph_stateMachine(int state);
// Turns the meter's "MEA" reply into its twenty-one fields in uart3_prn_buf.
bool picoph_parse(char* line);
