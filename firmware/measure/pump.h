// The pump entry points (no pump sequence in this build).
#pragma once

#include <cstdint>

inline constexpr uint32_t PUMPBUF_SIZE = 36;
// The pump column of the sample line, "PumpSeq=NN\t", filled once at start-up.
extern char pumpBuf[PUMPBUF_SIZE];

// The pumped sample. This build has no pump sequence of its own: a plain sample; returns 0.
int pump_and_sample(uint32_t printFlg, uint32_t writeFlg);
// Arms the pump sequence at deployment start (pump_seq_state = 1).
void pump_and_sample_start(void);
// Resets the pump sequence (pump_seq_state = 0).
void pump_stateMachine_init(void);
// The pump sequence step: nothing to do in this build; returns 0.
int pump_stateMachine(uint32_t state);
// Fills pumpBuf from sys_data.pump_seq_type.
void pump_var_init(void);
