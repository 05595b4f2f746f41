// The pump entry points. This build has no pump sequence of its own: a pumped sample is a plain
// sample, and the sequence state is only armed and reset.
#include "measure/pump.h"

#include <cstdio>

#include "measure/sample.h"
#include "records/system.h"

char pumpBuf[PUMPBUF_SIZE];

int pump_and_sample(uint32_t printFlg, uint32_t writeFlg) {
    get_sample(printFlg, writeFlg);
    return 0;
}

void pump_and_sample_start(void) {
    sys_samp.pump_seq_state = 1;
}

void pump_stateMachine_init(void) {
    sys_samp.pump_seq_state = 0;
}

int pump_stateMachine(uint32_t state) {
    (void)state;
    return 0;
}

void pump_var_init(void) {
    snprintf(pumpBuf, sizeof pumpBuf, "PumpSeq=%02d\t", (int)sys_data.pump_seq_type);
}
