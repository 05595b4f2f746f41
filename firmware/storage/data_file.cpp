// The data lines' way onto the card: each line is appended on its own through the power-safe
// append path.
#include "storage/data_file.h"

#include <cstring>

#include "records/system.h"
#include "storage/error_log.h"
#include "storage/fatfs/ff.h"
#include "storage/sd_append.h"

// Open, seek to the end, write, close: the data file is never held open, so a power loss costs at
// most this line. A file that would not open or seek is left alone; the sample still counts. A card
// too full for the line keeps none of it, and says so in the error log while that has room.
void append_to_data_file(const char* text, uint32_t len) {
    char name[sizeof sys_data.fileName + 1];
    memcpy(name, sys_data.fileName, sizeof sys_data.fileName);
    name[sizeof sys_data.fileName] = '\0';
    FRESULT fr = sd_append_report("", AppendStep::open, sd_append_open(name, TailSlot::data_file));
    if (fr != FR_OK) {
        error_store("f_open error");
        return;
    }
    fr = sd_append_report("", AppendStep::seek, sd_append_seek());
    bool full = false;
    if (fr == FR_OK) {
        fr = sd_append_report("", AppendStep::write, sd_append_write(text, len));
        full = fr == SD_CARD_FULL;
    }
    fr = sd_append_report("", AppendStep::close, sd_append_close());
    if (fr != FR_OK) {
        error_store("f_close error");
    }
    if (full) {
        error_store("f_write error: card full");
    }
}
