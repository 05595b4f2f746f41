// UV nitrate spectrometer.
//
// Placeholder module: the spectrometer's driver replaces these. For now there is no RTS line to
// drive and no coefficient file, so start-up sees zero coefficients.
#include "spectrometer/uvs.h"

#include "ports/uartstdio.h"

int Zcoefs = 0;
uint32_t uvsDbgFlg = 0;

// Placeholder: no handshake line is driven yet.
void uvs_set_rts(uint32_t on) {}

// Placeholder: no coefficients.
int LoadIsusZCoefs(void) {
    return 0;
}

// Placeholder: no wavelength array.
void InitLambdaArray(void) {}

// The bench test needs the spectrometer, which this build does not drive yet.
void uvs_dev_test(uint32_t arg) {
    (void)arg;
    uprintf("NAK,Z,NotAvailable");
}
