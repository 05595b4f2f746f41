// Driver of the OCR-504 multispectral radiometer on port 3.
#pragma once

#include "instruments/port3.h"

extern const port3Instrument ocr_instrument;

// Called with 1 to start a pass, then with the value it last returned; 0 when the pass is over.
int ocr_stateMachine(int state);
// Turns a telemetry frame into the radiometer's five fields in uart3_prn_buf.
bool ocr_parse(char* line);
