// The tail calls (storage/fatfs/ff_tail.h) for a build against an upstream FatFs, which has no way
// in to its cluster chains: every append walks the chain to the end, nothing is planned, and there
// is nothing to repair beyond what upstream's own write order leaves.
#include "storage/fatfs/ff_tail.h"

#include <string.h>

extern "C" {

FRESULT f_seek_tail(FIL* fp, FFTAIL* t) {
    memset(t, 0, sizeof *t);
    return f_lseek(fp, f_size(fp));
}

FRESULT f_plan_tail(FIL* fp, UINT btw, FFPLAN* p) {
    (void)fp;
    (void)btw;
    (void)p;
    return FR_OK;
}

FRESULT f_get_tail(FIL* fp, FFTAIL* t) {
    (void)fp;
    memset(t, 0, sizeof *t);
    return FR_OK;
}

FRESULT f_repair_tail(const FFPLAN* p) {
    (void)p;
    return FR_NO_FILE;
}

DWORD f_free_hint(void) {
    return 0xFFFFFFFF;
}

void f_set_free_hint(DWORD n) {
    (void)n;
}

} // extern "C"
