/* FAT file system API of the data logger: the FatFs interface (names, types, result codes, mode
 * bits), so the firmware's file code runs on our FAT module or on a user's copy of upstream FatFs.
 *
 * Configuration served: one volume (drive 0, the microSD card), 512-byte sectors, short 8.3 names,
 * read and write, no exFAT, no relative paths. Building with HXC3_FATFS_UPSTREAM defined takes the
 * declarations from the upstream ff.h found on the include path instead, so that structure layouts
 * match the upstream ff.c being linked. */
#pragma once

#ifdef HXC3_FATFS_UPSTREAM
#include <ff.h>
#else

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Integer types of the FatFs interface. */
typedef unsigned int UINT;
typedef unsigned char BYTE;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef uint64_t QWORD;
typedef WORD WCHAR;
typedef char TCHAR;
typedef DWORD FSIZE_t; /* file sizes and offsets */
typedef DWORD LBA_t;   /* sector numbers */

/* Configuration the structures below are sized for. */
#define FF_VOLUMES 1
#define FF_MIN_SS 512
#define FF_MAX_SS 512

/* Volume (work area handed to f_mount). */
typedef struct {
    BYTE fs_type;   /* FS_FAT12/16/32, 0 when not mounted */
    BYTE pdrv;      /* physical drive */
    BYTE n_fats;    /* number of FATs */
    BYTE wflag;     /* win[] holds unwritten changes */
    BYTE fsi_flag;  /* FAT32 FSInfo: loaded, usable, what the card's copy says */
    WORD id;        /* mount number, to catch stale objects */
    WORD n_rootdir; /* root directory entries (FAT12/16) */
    WORD csize;     /* sectors per cluster */
    DWORD last_clst;
    DWORD free_clst;
    DWORD n_fatent; /* clusters + 2 */
    DWORD fsize;    /* sectors per FAT */
    DWORD volid;    /* volume serial number (0 when the boot sector has none) */
    LBA_t volbase;
    LBA_t fatbase;
    LBA_t dirbase; /* root directory sector (FAT12/16) or cluster (FAT32) */
    LBA_t database;
    LBA_t winsect; /* sector held in win[] */
    BYTE win[FF_MAX_SS];
} FATFS;

/* What identifies an open file or directory. */
typedef struct {
    FATFS* fs;
    WORD id;
    BYTE attr;
    BYTE stat;
    DWORD sclust;    /* first cluster */
    FSIZE_t objsize; /* size in bytes */
} FFOBJID;

/* Open file. */
typedef struct {
    FFOBJID obj;
    BYTE flag; /* FA_* access bits and internal state */
    BYTE err;  /* error that stopped the file */
    FSIZE_t fptr;
    DWORD clust;
    LBA_t sect;
    LBA_t dir_sect;
    BYTE* dir_ptr;
    DWORD pclust;      /* cluster whose FAT link to clust waits until clust's data is written */
    const DWORD* plan; /* clusters the file is to grow into, in order (see ff_tail.h) */
    UINT plan_n;       /* how many of them are left */
    BYTE buf[FF_MAX_SS];
} FIL;

/* Open directory. */
typedef struct {
    FFOBJID obj;
    DWORD dptr; /* offset of the current entry */
    DWORD clust;
    LBA_t sect;
    BYTE* dir;
    BYTE fn[12];   /* 8.3 name being looked up, then its status */
    DWORD blk_ofs; /* offset of the long-name entries before the entry found, 0xFFFFFFFF if none */
} DIR;

/* Directory entry as f_readdir returns it. fname is empty at the end of the directory. */
typedef struct {
    FSIZE_t fsize;
    WORD fdate; /* bits 15-9 year since 1980, 8-5 month, 4-0 day */
    WORD ftime; /* bits 15-11 hour, 10-5 minute, 4-0 second / 2 */
    BYTE fattrib;
    TCHAR fname[12 + 1];
} FILINFO;

/* Format options of f_mkfs. */
typedef struct {
    BYTE fmt;      /* FM_* */
    BYTE n_fat;    /* number of FATs */
    UINT align;    /* data area alignment in sectors */
    UINT n_root;   /* root directory entries (FAT12/16) */
    DWORD au_size; /* cluster size in bytes, 0 for the default */
} MKFS_PARM;

/* Results of the file functions. */
typedef enum {
    FR_OK = 0,
    FR_DISK_ERR,
    FR_INT_ERR,
    FR_NOT_READY,
    FR_NO_FILE,
    FR_NO_PATH,
    FR_INVALID_NAME,
    FR_DENIED,
    FR_EXIST,
    FR_INVALID_OBJECT,
    FR_WRITE_PROTECTED,
    FR_INVALID_DRIVE,
    FR_NOT_ENABLED,
    FR_NO_FILESYSTEM,
    FR_MKFS_ABORTED,
    FR_TIMEOUT,
    FR_LOCKED,
    FR_NOT_ENOUGH_CORE,
    FR_TOO_MANY_OPEN_FILES,
    FR_INVALID_PARAMETER
} FRESULT;

FRESULT f_mount(FATFS* fs, const TCHAR* path, BYTE opt);
FRESULT f_open(FIL* fp, const TCHAR* path, BYTE mode);
FRESULT f_close(FIL* fp);
FRESULT f_read(FIL* fp, void* buff, UINT btr, UINT* br);
FRESULT f_write(FIL* fp, const void* buff, UINT btw, UINT* bw);
FRESULT f_lseek(FIL* fp, FSIZE_t ofs);
FRESULT f_truncate(FIL* fp);
FRESULT f_sync(FIL* fp);
FRESULT f_opendir(DIR* dp, const TCHAR* path);
FRESULT f_readdir(DIR* dp, FILINFO* fno);
FRESULT f_closedir(DIR* dp);
FRESULT f_mkdir(const TCHAR* path);
FRESULT f_unlink(const TCHAR* path);
FRESULT f_rename(const TCHAR* path_old, const TCHAR* path_new);
FRESULT f_getfree(const TCHAR* path, DWORD* nclst, FATFS** fatfs);
FRESULT f_mkfs(const TCHAR* path, const MKFS_PARM* opt, void* work, UINT len);

/* Supplied by the disk layer: the current time packed as a FAT date and time. */
DWORD get_fattime(void);

#define f_eof(fp) ((int)((fp)->fptr == (fp)->obj.objsize))
#define f_error(fp) ((fp)->err)
#define f_tell(fp) ((fp)->fptr)
#define f_size(fp) ((fp)->obj.objsize)
#define f_rewind(fp) f_lseek((fp), 0)
#define f_rmdir(path) f_unlink(path)
#define f_unmount(path) f_mount(0, path, 0)

/* Open mode bits (f_open). */
#define FA_READ 0x01
#define FA_WRITE 0x02
#define FA_OPEN_EXISTING 0x00
#define FA_CREATE_NEW 0x04
#define FA_CREATE_ALWAYS 0x08
#define FA_OPEN_ALWAYS 0x10
#define FA_OPEN_APPEND 0x30

/* Format types (MKFS_PARM.fmt). */
#define FM_FAT 0x01
#define FM_FAT32 0x02
#define FM_EXFAT 0x04
#define FM_ANY 0x07
#define FM_SFD 0x08

/* File system types (FATFS.fs_type). */
#define FS_FAT12 1
#define FS_FAT16 2
#define FS_FAT32 3
#define FS_EXFAT 4

/* File attributes (FILINFO.fattrib). */
#define AM_RDO 0x01
#define AM_HID 0x02
#define AM_SYS 0x04
#define AM_DIR 0x10
#define AM_ARC 0x20

#ifdef __cplusplus
}
#endif

#endif /* HXC3_FATFS_UPSTREAM */
