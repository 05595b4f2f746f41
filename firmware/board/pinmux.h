// Pin multiplexing of the TM4C123GH6PM in its 64-pin package on the HXC3 board.
#pragma once

// Enables the GPIO ports and assigns every pin its function, then starts the console at 115200.
void init_TM4C123GH6PM_64pin(void);
