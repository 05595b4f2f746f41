// The sample cycle: one complete measurement into the record `sampl`, its line on the console and
// in the data file, the "last sample" text line, and the instrument ports' state machines.
#pragma once

#include <cstddef>
#include <cstdint>

#include "instruments/port3.h"
#include "ports/uartstdio.h"
#include "records/sample.h"

// The last bias-battery readings, volts (the ADC reading doubled).
extern float fBiasNeg;
extern float fBiasPos;
// Continuous output: on/off and the interval between samples, seconds.
extern uint32_t databarFlg;
extern uint32_t barfSampleTime;

// One complete measurement: the line goes to the console when printFlg is 1 and to the data file
// when writeFlg is 1 and card logging is on. The counter advances; the caller stores sys_samp.
void get_sample(uint32_t printFlg, uint32_t writeFlg);
// Sends the snapshot file's text, then takes a new sample.
void sendlast_takesample(void);
// A stand-alone reading of both bias batteries into fBiasNeg and fBiasPos.
void read_bias_bat(void);
// A ground-fault reading of the isolated side (multiplexer position 0, inputs 0 and 4), volts; the
// sample record does not keep it.
float get_groundfault(void);
