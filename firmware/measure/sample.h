// The sample record `sampl` (also its FRAM image), the shared print buffer, the "last sample" text
// line, and the sample-cycle entry points.
#pragma once

#include <cstddef>
#include <cstdint>

#include "instruments/port3.h"

struct sampData {
    uint32_t sampNum;   // sys_samp.current_sample when the line is printed
    uint32_t timestamp; // RTC seconds
    float fBiasNeg;
    float fBiasPos;
    float fIb;
    float fIk;
    float fIk_std;
    float fVk;
    float fVk_std;
    float fVtherm;
    float fVtherm_std;
    float fTempC;
    float fVrsi;
    float fVrsi_std;
    float pHint;
    float fVrse;
    float fVrse_std;
    float pHext;
    float fVbat_main;
    float fBrdTempC;
    uint32_t uiHumidity;
    float fsysAmp;
    float spare2;
    float spare3;
};

static_assert(offsetof(sampData, sampNum) == 0);
static_assert(offsetof(sampData, timestamp) == 4);
static_assert(offsetof(sampData, fBiasNeg) == 8);
static_assert(offsetof(sampData, fBiasPos) == 12);
static_assert(offsetof(sampData, fIb) == 16);
static_assert(offsetof(sampData, fIk) == 20);
static_assert(offsetof(sampData, fIk_std) == 24);
static_assert(offsetof(sampData, fVk) == 28);
static_assert(offsetof(sampData, fVk_std) == 32);
static_assert(offsetof(sampData, fVtherm) == 36);
static_assert(offsetof(sampData, fVtherm_std) == 40);
static_assert(offsetof(sampData, fTempC) == 44);
static_assert(offsetof(sampData, fVrsi) == 48);
static_assert(offsetof(sampData, fVrsi_std) == 52);
static_assert(offsetof(sampData, pHint) == 56);
static_assert(offsetof(sampData, fVrse) == 60);
static_assert(offsetof(sampData, fVrse_std) == 64);
static_assert(offsetof(sampData, pHext) == 68);
static_assert(offsetof(sampData, fVbat_main) == 72);
static_assert(offsetof(sampData, fBrdTempC) == 76);
static_assert(offsetof(sampData, uiHumidity) == 80);
static_assert(offsetof(sampData, fsysAmp) == 84);
static_assert(offsetof(sampData, spare2) == 88);
static_assert(offsetof(sampData, spare3) == 92);
static_assert(sizeof(sampData) == 96);

inline constexpr uint32_t PRNBUF_SIZE = 1540;
inline constexpr uint32_t PUMPBUF_SIZE = 36;

extern sampData sampl;
extern char prnBuf[PRNBUF_SIZE];
// The pump column of the sample line, "PumpSeq=NN\t", filled once at start-up.
extern char pumpBuf[PUMPBUF_SIZE];
// The last bias-battery readings, volts (the ADC reading doubled).
extern float fBiasNeg;
extern float fBiasPos;
// Continuous output: on/off and the interval between samples, seconds.
extern uint32_t databarFlg;
extern uint32_t barfSampleTime;

// One complete measurement: the line goes to the console when printFlg is 1 and to the data file
// when writeFlg is 1 and card logging is on. The counter advances; the caller stores sys_samp.
void get_sample(uint32_t printFlg, uint32_t writeFlg);
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
// Sends the snapshot file's text, then takes a new sample.
void sendlast_takesample(void);
// A stand-alone reading of both bias batteries into fBiasNeg and fBiasPos.
void read_bias_bat(void);
// A ground-fault reading of the isolated side (multiplexer position 0, inputs 0 and 4), volts; the
// sample record does not keep it.
float get_groundfault(void);

// The instrument state machines of ports 3 and 4, by the instrument code in data_cfg: called with 1
// to start, then with what they last returned, until they return 0.
int uart3_stateMachine(int state);
int uart4_stateMachine(int state);

// Formats sampl into prnBuf as one tab-separated line (no output).
void print_sampl(void);
// The FRAM copy of the last sample, formatted and sent as it stands (no line end).
void send_last_sample(void);
// The time column's millisecond form of RTC seconds, "%13llu" wide (the board's printf has no 64-bit
// conversions).
void format_ms_timestamp(char* text, size_t size, uint32_t rtc_seconds);
// Sends prnBuf as it stands; returns the bytes written.
int print_sampBuf(void);
