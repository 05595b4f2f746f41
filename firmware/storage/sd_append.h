// The card's one file object, and the one way text is added to the end of a file on the card: the
// data lines and headers, the error log and the float log all append through a session here.
//
// A session opens the file (created when missing, never truncated), moves to its end, takes any
// number of writes and closes. Each step returns its own result, so that a caller can report each
// and try the next as it always has. What a session promises:
// - Constant cost: the file's end (its last cluster, size, directory entry, last-write time and the
//   bytes of its last sector) is remembered in FRAM after every append, and the next append goes
//   straight there when everything still matches; otherwise (the card was edited on a PC, replaced,
//   the file recreated) it walks the file's chain once and remembers the end again.
// - Whole texts only: a write the card has no room for is refused (SD_CARD_FULL) before anything is
//   written, and after any failed write the session takes nothing more and its close takes back
//   what the session had written, so a file holds whole lines and whole headers.
// - Power cuts: the clusters a write will take are noted in FRAM before the card is touched; a cut
//   (or a card error) in the middle of an append is repaired at the next start-up or append:
//   clusters linked past the file's size or taken and never linked are freed, and the copies of
//   the FAT agree again.
// - A full card is not searched for free space at every wake: it is remembered (in FSInfo on FAT32,
//   in FRAM for every card) until space appears (FSInfo says so, or the firmware removes or replaces
//   a file) or a day has passed.
#pragma once

#include <cstdint>

#include "storage/fatfs/ff.h"

// The file object the firmware's file routines share, one routine at a time (a FIL carries a
// sector buffer, and the firmware has one thread). Null while another routine holds it.
FIL* sd_file_take(void);
void sd_file_give(void);

// Which remembered end a file uses. Each kind of file has its own, so that the data file, the error
// log and the float log, appended in turns, never push each other's out.
enum class TailSlot : uint8_t { data_file, error_log, float_log, other };

// The steps of a session, as their messages name them ("f_open", "f_lseek", "f_write", "f_close").
enum class AppendStep : uint8_t { open, seek, write, close };

// A write refused because the card has no room for it.
inline constexpr FRESULT SD_CARD_FULL = FR_DENIED;

FRESULT sd_append_open(const char* name, TailSlot slot);
FRESULT sd_append_seek(void);
FRESULT sd_append_write(const void* data, uint32_t len);
FRESULT sd_append_close(void);
// Where the next write of the open session goes (its file's size so far).
uint32_t sd_append_tell(void);

// The text of a step's result ("FR_NOT_READY"; "card full" for a write refused for room).
const char* sd_append_result_text(AppendStep step, FRESULT fr);
// For a failed step prints "<prefix>f_open error: FR_NOT_READY\r\n" and the like; returns fr.
FRESULT sd_append_report(const char* prefix, AppendStep step, FRESULT fr);

// One text appended in one session, every failed step reported with `prefix` and the later steps
// still tried. Returns the first failure.
FRESULT sd_append(const char* name, TailSlot slot, const void* data, uint32_t len, const char* prefix);

// After the firmware itself freed space on the card (a file removed or replaced): a card remembered
// as full is searched again at the next append that needs room.
void sd_append_space_freed(void);

// At start-up, after the mount: nothing is open yet, and an append that a power cut (or a card
// error) interrupted is repaired before anything else writes to the card.
void sd_append_start(void);
