// microSD card: detection, start-up mount and result names.
//
// The card driver (SPI block device, its time-out counters and the start-up mount) comes with the
// storage work; until then no card is reported and initialisation fails, so logging stays off.
#include "storage/microsd.h"

#include "storage/fatfs/diskio.h"

namespace {

struct FresultName {
    FRESULT code;
    const char* name;
};

constexpr FresultName fresult_names[] = {
    {FR_OK, "FR_OK"},
    {FR_DISK_ERR, "FR_DISK_ERR"},
    {FR_INT_ERR, "FR_INT_ERR"},
    {FR_NOT_READY, "FR_NOT_READY"},
    {FR_NO_FILE, "FR_NO_FILE"},
    {FR_NO_PATH, "FR_NO_PATH"},
    {FR_INVALID_NAME, "FR_INVALID_NAME"},
    {FR_DENIED, "FR_DENIED"},
    {FR_EXIST, "FR_EXIST"},
    {FR_INVALID_OBJECT, "FR_INVALID_OBJECT"},
    {FR_WRITE_PROTECTED, "FR_WRITE_PROTECTED"},
    {FR_INVALID_DRIVE, "FR_INVALID_DRIVE"},
    {FR_NOT_ENABLED, "FR_NOT_ENABLED"},
    {FR_NO_FILESYSTEM, "FR_NO_FILESYSTEM"},
    {FR_MKFS_ABORTED, "FR_MKFS_ABORTED"},
    {FR_TIMEOUT, "FR_TIMEOUT"},
    {FR_LOCKED, "FR_LOCKED"},
    {FR_NOT_ENOUGH_CORE, "FR_NOT_ENOUGH_CORE"},
    {FR_TOO_MANY_OPEN_FILES, "FR_TOO_MANY_OPEN_FILES"},
    {FR_INVALID_PARAMETER, "FR_INVALID_PARAMETER"},
};

} // namespace

uint32_t uSD_present(void) {
    return 0;
}

uint32_t init_uSDCard(void) {
    return 1;
}

const char* StringFromFresult(FRESULT fr) {
    for (const FresultName& entry : fresult_names) {
        if (entry.code == fr) {
            return entry.name;
        }
    }
    return "UNKNOWN ERROR CODE";
}

extern "C" void disk_timerproc(void) {}
