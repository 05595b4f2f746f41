// microSD card on SSI0: card detection and start-up mount, the names of the file system's result
// codes for error messages, and the 10 ms tick of the card driver's time-outs.
#pragma once

#include <cstdint>

#include "storage/fatfs/ff.h"

// Non-zero when a card is detected.
uint32_t uSD_present(void);
// Sets up the card's SPI port and mounts the volume; 0 on success, 1 on failure.
uint32_t init_uSDCard(void);
// The result's enumerator name ("FR_NOT_READY"), or "UNKNOWN ERROR CODE".
const char* StringFromFresult(FRESULT fr);

// Counts down the card driver's time-outs; called every 10 ms from the system tick interrupt.
extern "C" void disk_timerproc(void);
