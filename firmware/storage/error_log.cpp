// The error log: Error.txt on the card, one time-stamped entry per fault, appended through the
// power-safe append path so that an entry cut by a power loss never damages the card.
#include "storage/error_log.h"

#include <cstring>
#include <ctime>

#include "board/timebase.h"
#include "ports/uartstdio.h"
#include "records/system.h"
#include "storage/sd_append.h"

// Each step runs even when an earlier one failed, and each failure is reported on its own: the log
// is the last resort for a fault, so it tries as much as it can.
void error_store(const char* message) {
    if (sys_data.app_cfg[APPCFG_MICROSD_ENABLE] == 0) {
        uprintf("error_stor() not supported with microSD_flg=0 disabled\r\n");
        return;
    }

    const char* log = "Error.txt ";
    sd_append_report(log, AppendStep::open, sd_append_open("Error.txt", TailSlot::error_log));
    sd_append_report(log, AppendStep::seek, sd_append_seek());
    char stamp[50];
    size_t len = strftime(stamp, sizeof(stamp), "\r\n%Y/%m/%d %H:%M:%S ", get_RTC_time());
    sd_append_report(log, AppendStep::write, sd_append_write(stamp, static_cast<uint32_t>(len)));
    sd_append_report(log, AppendStep::write,
                     sd_append_write(message, static_cast<uint32_t>(strlen(message))));
    sd_append_report(log, AppendStep::close, sd_append_close());
}
