// The last sample `sampl`: every value of one measurement, also kept in FRAM as its byte image.
#pragma once

#include <cstddef>
#include <cstdint>

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

extern sampData sampl;
