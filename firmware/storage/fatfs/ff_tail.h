/* Constant-cost appends: what a logger remembers about the end of a file between power-on periods,
 * so that the next append goes straight to the file's last cluster instead of walking its cluster
 * chain from the start (a year of 15-minute samples is a chain of thousands of clusters).
 *
 * This is our FAT module's own addition to the FatFs interface. Built against an upstream FatFs,
 * the same calls are served by plain FatFs calls (fatfs_upstream/ff_tail.cpp): appends then walk
 * the chain, as upstream does, and nothing is planned or repaired.
 *
 * An append with a tail:
 *   f_open (FA_WRITE, FA_OPEN_ALWAYS) -> f_seek_tail -> [f_plan_tail, remember the plan] -> f_write
 *   -> f_sync -> f_get_tail -> f_close.
 * The remembered tail is never trusted blindly: f_seek_tail uses it only when the volume, the
 * directory entry (position, first cluster, size, last-write time) and the bytes of the file's last
 * sector all still match; anything else (the card was edited on a PC, replaced, another file took
 * the place) walks the chain as FatFs does. */
#pragma once

#include "storage/fatfs/ff.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Most clusters one planned write may take: more than a metadata header needs on 512-byte
 * clusters. */
#define FF_TAIL_PLAN 8

typedef struct {
    /* What the tail belongs to: the volume's serial number, the sector of the file's directory entry
     * and its first cluster (0: the file was empty). */
    DWORD vol_id;
    DWORD dir_sect;
    DWORD sclust;
    /* Where it ends; these change with every append. */
    DWORD size;
    DWORD stamp;    /* the entry's last-write time and date */
    DWORD lclust;   /* cluster holding the last byte (0 for an empty file) */
    WORD tail_crc;  /* CRC-16 of the file's bytes in its last sector */
    WORD dir_index; /* the entry's index in its sector */
} FFTAIL;

/* A write in flight: where the file ended before it, and the clusters it may take. What a power
 * cut in the middle of it can leave behind is known from this alone (f_repair_tail). */
typedef struct {
    FFTAIL tail;
    UINT n_plan;
    DWORD plan[FF_TAIL_PLAN];
} FFPLAN;

/* Moves an open file (opened for writing) to its end, through *t when it still describes this file,
 * by walking its chain otherwise; *t then describes the file as found. */
FRESULT f_seek_tail(FIL* fp, FFTAIL* t);

/* Before writing btw bytes at the end of the file: p->tail becomes where the file ends now, and
 * p->plan the free clusters the write will take (the file's own f_write takes these). FR_DENIED,
 * with nothing planned, when the volume has no room for the write; FR_NOT_ENOUGH_CORE when it needs
 * more than FF_TAIL_PLAN new clusters. */
FRESULT f_plan_tail(FIL* fp, UINT btw, FFPLAN* p);

/* Where a file ends now (after f_sync). */
FRESULT f_get_tail(FIL* fp, FFTAIL* t);

/* After a write that may have been cut short (by a power cut or a card error) on the mounted volume:
 * frees the planned clusters its file did not keep (linked past the entry's size, or taken but never
 * linked) and makes every copy of the FAT agree with the first where the write touched it. Does
 * nothing (FR_NO_FILE) when the volume or the directory entry is no longer the one planned for. */
FRESULT f_repair_tail(const FFPLAN* p);

/* The mounted volume's free-cluster count as far as it is known: 0 when it is full, 0xFFFFFFFF when
 * unknown (FSInfo's count, then what allocations and f_getfree learn). */
DWORD f_free_hint(void);
/* Overrides that belief: 0 makes planning and allocation fail at once (a volume known to be full,
 * without reading the whole FAT again), 0xFFFFFFFF makes the next one search the FAT whatever FSInfo
 * says. */
void f_set_free_hint(DWORD n);

#ifdef __cplusplus
}
#endif
