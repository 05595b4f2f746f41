// The serial instruments of ports 3 and 4 in the sample cycle.
#pragma once

// The instrument state machines of ports 3 and 4, by the instrument code in data_cfg: called with 1
// to start, then with what they last returned, until they return 0.
int uart3_stateMachine(int state);
int uart4_stateMachine(int state);
// Whether a port's instrument takes part in the sample: any code on port 3, a CTD on port 4.
bool uart3_in_use();
bool uart4_in_use();
