/* Disk layer under the FAT file system: the block device functions FatFs calls for drive 0 (the
 * microSD card on SSI0), their status bits, results and control codes, and the 10 ms time-out tick
 * the card driver needs from the system tick interrupt. */
#pragma once

#include "ff.h"

#ifdef HXC3_FATFS_UPSTREAM
#include <diskio.h> /* needs the types of ff.h first */
#endif

#ifdef __cplusplus
extern "C" {
#endif

#ifndef HXC3_FATFS_UPSTREAM

typedef BYTE DSTATUS;

typedef enum {
    RES_OK = 0, /* done */
    RES_ERROR,  /* read/write error */
    RES_WRPRT,  /* write protected */
    RES_NOTRDY, /* not initialised */
    RES_PARERR  /* bad parameter */
} DRESULT;

DSTATUS disk_initialize(BYTE pdrv);
DSTATUS disk_status(BYTE pdrv);
DRESULT disk_read(BYTE pdrv, BYTE* buff, LBA_t sector, UINT count);
DRESULT disk_write(BYTE pdrv, const BYTE* buff, LBA_t sector, UINT count);
DRESULT disk_ioctl(BYTE pdrv, BYTE cmd, void* buff);

/* Status bits (DSTATUS). */
#define STA_NOINIT 0x01
#define STA_NODISK 0x02
#define STA_PROTECT 0x04

/* disk_ioctl codes used by the file system. */
#define CTRL_SYNC 0
#define GET_SECTOR_COUNT 1
#define GET_SECTOR_SIZE 2
#define GET_BLOCK_SIZE 3
#define CTRL_TRIM 4
/* Generic codes the file system does not use. */
#define CTRL_POWER 5
#define CTRL_LOCK 6
#define CTRL_EJECT 7
#define CTRL_FORMAT 8
/* SD/MMC codes. */
#define MMC_GET_TYPE 10
#define MMC_GET_CSD 11
#define MMC_GET_CID 12
#define MMC_GET_OCR 13
#define MMC_GET_SDSTAT 14

#endif /* HXC3_FATFS_UPSTREAM */

/* The current time as a FAT date and time (bits 31-25 year since 1980, 24-21 month, 20-16 day,
 * 15-11 hour, 10-5 minute, 4-0 second / 2). */
DWORD get_fattime(void);

/* Counts down the card driver's time-outs; called every 10 ms from the system tick interrupt. */
void disk_timerproc(void);

#ifdef __cplusplus
}
#endif
