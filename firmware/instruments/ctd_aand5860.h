// Driver of the Aanderaa 5860 conductivity sensor on port 4, with the same start / wait / receive
// pass as the SBE37 driver: "do sample", then the reply line parsed for conductivity, temperature and
// salinity.
#pragma once

// Called with 1 to start a pass, then with the value it last returned; 0 when the pass is over.
int ctd_aand5860_stateMachine(int state);
// Parses uart4_prn_buf into ctd and sys_samp.sensor_sal.
void ctd_aand5860_parseData(void);
