// microSD card on SSI0: card detection, the start-up mount, the data logger's small file routines
// and the names of the file system's result codes for error messages. The block device under the
// file system (disk_* functions, disk_timerproc, get_fattime) is declared in fatfs/diskio.h.
#pragma once

#include <cstdint>

#include "storage/fatfs/diskio.h"
#include "storage/fatfs/ff.h"

// 1 when the card was found and mounted at start-up (or since, from the menus).
extern uint32_t microSD_flg;

// The mounted volume's work area.
extern FATFS g_sFatFs;

// The kind of card the last disk_initialize found, as bit flags; 0 when no card answered. Values
// seen: 1 (MMC), 2 (SD version 1, or version 2 byte-addressed), 6 (SDHC/SDXC, block-addressed).
constexpr uint8_t card_mmc = 0x01;
constexpr uint8_t card_sd = 0x02;
constexpr uint8_t card_block = 0x04; // sector numbers go to the card unchanged, not times 512
extern uint8_t CardType;

// Non-zero when a card answers: the card is initialised on the spot (the socket has no
// card-detect switch), so a card that is present but does not work reads as absent.
uint32_t uSD_present(void);
// Sets up the card's SPI port and mounts the volume (delayed mount); 0 on success, 1 on failure.
uint32_t init_uSDCard(void);
// Appends a text to the data file sys_data.fileName: open, seek to the end, write, close. Each
// failed step is reported and the later steps are still attempted.
void appendBufferToSDCard(const char* buffer);
// printf to an open file through a bounded buffer (longer output is cut at sd_fprintf_max - 1
// characters). Returns the f_write result; a failure is also reported on the console.
constexpr uint32_t sd_fprintf_max = 512;
FRESULT sd_fprintf(FIL* fil, const char* format, ...) __attribute__((format(printf, 2, 3)));
// A file name the card takes as it stands: up to eight characters, optionally a dot and up to three
// more, none of them blank, a path separator, a wildcard or another character FAT refuses.
bool valid_8_3_name(const char* name);
// The result's enumerator name ("FR_NOT_READY"), or "UNKNOWN ERROR CODE".
const char* StringFromFresult(FRESULT fr);
