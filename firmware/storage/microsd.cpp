// microSD card: the start-up mount, card detection, the data logger's append and printf routines,
// and the names of the file system's results for error messages.
#include "storage/microsd.h"

#include "records/system.h"
#include "board/timebase.h"
#include "ports/uartstdio.h"
#include "storage/sd_append.h"

#include "driverlib/gpio.h"
#include "driverlib/pin_map.h"
#include "driverlib/ssi.h"
#include "driverlib/sysctl.h"
#include "inc/hw_memmap.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

uint32_t microSD_flg = 0;
FATFS g_sFatFs;

namespace {

// The pause between opening the data file and writing to it.
constexpr uint32_t append_settle_ms = 1;

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
    return (disk_initialize(0) & STA_NOINIT) == 0 ? 1 : 0;
}

// PA3 is handed to SSI0 here; the card driver makes it its GPIO chip select again when the mount
// initialises the card (f_mount always leads to a fresh disk_initialize).
uint32_t init_uSDCard(void) {
    SysCtlPeripheralEnable(SYSCTL_PERIPH_SSI0);
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOA);
    GPIOPinConfigure(GPIO_PA2_SSI0CLK);
    GPIOPinConfigure(GPIO_PA3_SSI0FSS);
    GPIOPinConfigure(GPIO_PA4_SSI0RX);
    GPIOPinConfigure(GPIO_PA5_SSI0TX);
    GPIOPinTypeSSI(GPIO_PORTA_BASE, GPIO_PIN_2 | GPIO_PIN_3 | GPIO_PIN_4 | GPIO_PIN_5);
    SSIDisable(SSI0_BASE); // the card check may have left it running; the clock changes only while off
    SSIConfigSetExpClk(SSI0_BASE, SysCtlClockGet(), SSI_FRF_MOTO_MODE_0, SSI_MODE_MASTER, 1000000, 8);
    SSIEnable(SSI0_BASE);
    uint32_t junk;
    while (SSIDataGetNonBlocking(SSI0_BASE, &junk)) {
    }
    FRESULT fr = f_mount(&g_sFatFs, "", 0);
    if (fr != FR_OK) {
        uprintf("f_mount error: %s\r\n", StringFromFresult(fr));
        return 1;
    }
    sd_append_start();
    return 0;
}

void appendBufferToSDCard(const char* buffer) {
    char name[sizeof sys_data.fileName + 1];
    std::memcpy(name, sys_data.fileName, sizeof sys_data.fileName);
    name[sizeof sys_data.fileName] = '\0';
    sd_append_report("", AppendStep::open, sd_append_open(name, TailSlot::data_file));
    delay_msec(append_settle_ms);
    sd_append_report("", AppendStep::seek, sd_append_seek());
    sd_append_report("", AppendStep::write,
                     sd_append_write(buffer, static_cast<uint32_t>(std::strlen(buffer))));
    sd_append_report("", AppendStep::close, sd_append_close());
}

FRESULT sd_fprintf(FIL* fil, const char* format, ...) {
    char text[sd_fprintf_max];
    va_list args;
    va_start(args, format);
    int n = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    UINT len = n < 0 ? 0 : static_cast<UINT>(n);
    if (len >= sizeof text) {
        len = sizeof text - 1;
    }
    UINT written = 0;
    FRESULT fr = f_write(fil, text, len, &written);
    if (fr != FR_OK) {
        uprintf("f_write error: %s\r\n", StringFromFresult(fr));
    }
    return fr;
}

bool valid_8_3_name(const char* name) {
    const char* dot = std::strchr(name, '.');
    size_t base = dot != nullptr ? static_cast<size_t>(dot - name) : std::strlen(name);
    size_t ext = dot != nullptr ? std::strlen(dot + 1) : 0;
    if (base == 0 || base > 8 || ext > 3 || (dot != nullptr && std::strchr(dot + 1, '.') != nullptr)) {
        return false;
    }
    for (const char* p = name; *p != '\0'; p++) {
        if (*p <= ' ' || *p > '~' || std::strchr("\"*/:<>?\\|+,;=[]", *p) != nullptr) {
            return false;
        }
    }
    return true;
}

const char* StringFromFresult(FRESULT fr) {
    for (const FresultName& entry : fresult_names) {
        if (entry.code == fr) {
            return entry.name;
        }
    }
    return "UNKNOWN ERROR CODE";
}
