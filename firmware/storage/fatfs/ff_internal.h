// Internals shared by the files of the FAT module (ff.cpp: volume, FAT and files; ff_dir.cpp:
// names, directories and paths; ff_mkfs.cpp: formatting). Nothing outside this folder includes it.
#pragma once

#include "storage/fatfs/diskio.h"
#include "storage/fatfs/ff.h"

namespace fat {

constexpr UINT SS = 512; // sector size, the only one served

// Little-endian fields of the on-disk structures.
inline WORD ld16(const BYTE* p) {
    return (WORD)(p[0] | (p[1] << 8));
}
inline DWORD ld32(const BYTE* p) {
    return (DWORD)p[0] | ((DWORD)p[1] << 8) | ((DWORD)p[2] << 16) | ((DWORD)p[3] << 24);
}
inline void st16(BYTE* p, WORD v) {
    p[0] = (BYTE)v;
    p[1] = (BYTE)(v >> 8);
}
inline void st32(BYTE* p, DWORD v) {
    p[0] = (BYTE)v;
    p[1] = (BYTE)(v >> 8);
    p[2] = (BYTE)(v >> 16);
    p[3] = (BYTE)(v >> 24);
}

// Boot sector (BPB) field offsets.
constexpr UINT BS_JmpBoot = 0;
constexpr UINT BS_OEMName = 3;
constexpr UINT BPB_BytsPerSec = 11;
constexpr UINT BPB_SecPerClus = 13;
constexpr UINT BPB_RsvdSecCnt = 14;
constexpr UINT BPB_NumFATs = 16;
constexpr UINT BPB_RootEntCnt = 17;
constexpr UINT BPB_TotSec16 = 19;
constexpr UINT BPB_Media = 21;
constexpr UINT BPB_FATSz16 = 22;
constexpr UINT BPB_SecPerTrk = 24;
constexpr UINT BPB_NumHeads = 26;
constexpr UINT BPB_HiddSec = 28;
constexpr UINT BPB_TotSec32 = 32;
constexpr UINT BS_DrvNum = 36; // FAT12/16 extended fields
constexpr UINT BS_BootSig = 38;
constexpr UINT BS_VolID = 39;
constexpr UINT BS_VolLab = 43;
constexpr UINT BS_FilSysType = 54;
constexpr UINT BPB_FATSz32 = 36; // FAT32 fields
constexpr UINT BPB_FSVer = 42;
constexpr UINT BPB_RootClus = 44;
constexpr UINT BPB_FSInfo = 48;
constexpr UINT BPB_BkBootSec = 50;
constexpr UINT BS32_DrvNum = 64;
constexpr UINT BS32_BootSig = 66;
constexpr UINT BS32_VolID = 67;
constexpr UINT BS32_VolLab = 71;
constexpr UINT BS32_FilSysType = 82;
constexpr UINT BS_Sign = 510; // 0x55 0xAA

// FSInfo sector (FAT32).
constexpr UINT FSI_LeadSig = 0;
constexpr UINT FSI_StrucSig = 484;
constexpr UINT FSI_Free_Count = 488;
constexpr UINT FSI_Nxt_Free = 492;
constexpr UINT FSI_TrailSig = 508;
constexpr DWORD FSI_LEAD = 0x41615252;
constexpr DWORD FSI_STRUC = 0x61417272;
constexpr DWORD FSI_TRAIL = 0xAA550000;

// Partition table of a master boot record.
constexpr UINT MBR_Table = 446;
constexpr UINT PTE_Size = 16;
constexpr UINT PTE_System = 4;
constexpr UINT PTE_StLba = 8;
constexpr UINT PTE_SizLba = 12;

// Directory entry (32 bytes).
constexpr UINT DIR_Name = 0;
constexpr UINT DIR_Attr = 11;
constexpr UINT DIR_NTRes = 12;
constexpr UINT DIR_CrtTimeTenth = 13;
constexpr UINT DIR_CrtTime = 14; // time, then date: written as one 32-bit FAT time stamp
constexpr UINT DIR_LstAccDate = 18;
constexpr UINT DIR_FstClusHI = 20;
constexpr UINT DIR_WrtTime = 22; // likewise
constexpr UINT DIR_WrtDate = 24;
constexpr UINT DIR_FstClusLO = 26;
constexpr UINT DIR_FileSize = 28;
constexpr UINT SZDIRE = 32;
constexpr UINT LDIR_Chksum = 13; // long-name entry
constexpr BYTE LLEF = 0x40;      // last long-name entry of a set (stored first)

constexpr BYTE AM_VOL = 0x08;
constexpr BYTE AM_LFN = 0x0F;       // attribute of a long-name entry
constexpr BYTE AM_MASK = 0x3F;      // attribute bits reported to the caller
constexpr BYTE DDEM = 0xE5;         // first name byte of a deleted entry
constexpr BYTE RDDEM = 0x05;        // stored in place of a leading 0xE5 name byte
constexpr DWORD MAX_DIR = 0x200000; // a directory holds at most 65536 entries

// Name status byte, DIR.fn[11].
constexpr BYTE NS_LAST = 0x04;   // the last segment of the path
constexpr BYTE NS_DOT = 0x20;    // "." or ".."
constexpr BYTE NS_NONAME = 0x80; // the path named no object (the root directory)

// File flags beyond the FA_* access bits.
constexpr BYTE FA_MODIFIED = 0x40; // the directory entry needs updating
constexpr BYTE FA_DIRTY = 0x80;    // buf[] holds unwritten data

// FATFS.fsi_flag. FSInfo is read only when something needs its counts (an allocation, f_getfree),
// not at every mount: a wake that appends within its last cluster never reads it.
constexpr BYTE FSI_WRITE_COUNT = 0x01;  // the exact free count in free_clst goes to the card at sync
constexpr BYTE FSI_DISK_UNKNOWN = 0x02; // FSInfo on the card says the free count is unknown
constexpr BYTE FSI_NOT_LOADED = 0x40;   // the FSInfo sector has not been read since the mount
constexpr BYTE FSI_UNUSABLE = 0x80;     // no valid FSInfo sector to keep up to date

constexpr DWORD UNKNOWN = 0xFFFFFFFF; // free count or allocation hint not known
constexpr LBA_t NO_SECTOR = 0xFFFFFFFF;

// The work area given to f_mount (null when none is registered).
extern FATFS* volume;

// Strips an optional "0:" from *path; any other drive is FR_INVALID_DRIVE.
FRESULT take_drive(const TCHAR** path);
// Finds the registered volume and mounts it if it is not mounted (or the card was re-initialised).
FRESULT find_volume(const TCHAR** path, FATFS** rfs, bool write);
// Checks that an open file or directory still belongs to the mounted volume.
FRESULT validate(const FFOBJID* obj, FATFS** rfs);
// An open file that is still usable: validate, then the error that stopped it, if any.
FRESULT check_file(FIL* fp, FATFS** fs);
// The same, for a file opened for writing (FR_DENIED otherwise).
FRESULT check_writer(FIL* fp, FATFS** fs);

// The one-sector window of the volume.
FRESULT sync_window(FATFS* fs);
FRESULT move_window(FATFS* fs, LBA_t sect);
// Writes the window, then FSInfo when it changed, then flushes the card.
FRESULT sync_fs(FATFS* fs);

// Clusters and the FAT.
bool valid_cluster(const FATFS* fs, DWORD clst);
LBA_t clust2sect(const FATFS* fs, DWORD clst);
DWORD end_of_chain(const FATFS* fs);
FRESULT get_fat(FATFS* fs, DWORD clst, DWORD* val);
FRESULT put_fat(FATFS* fs, DWORD clst, DWORD val);
// The cluster after clst: 0 at the end of the chain; FR_INT_ERR for a free, reserved or out of
// range link.
FRESULT next_cluster(FATFS* fs, DWORD clst, DWORD* next);
// Reads FSInfo's counts if nothing has yet (FAT32 with a valid FSInfo sector only).
FRESULT load_fsinfo(FATFS* fs);
// Before the FAT's allocation changes: FSInfo's count on the card becomes "unknown".
FRESULT fsinfo_unknown(FATFS* fs);
// Finds the first free cluster after `near` (else after the last allocation), without taking it;
// *found is 0 when the volume is full. A search that finds none records the volume as full (and
// tells FSInfo), so that later searches end at once until a cluster is freed.
FRESULT find_free(FATFS* fs, DWORD near, DWORD* found);
// Marks a free cluster as the end of a chain of its own, linked from nowhere yet.
FRESULT take_cluster(FATFS* fs, DWORD clst);
// find_free, then take_cluster. *newc is 0 when the volume is full.
FRESULT alloc_cluster(FATFS* fs, DWORD near, DWORD* newc);
// Frees every cluster of a chain.
FRESULT remove_chain(FATFS* fs, DWORD clst);
// Zero-fills a cluster on the card (through the window).
FRESULT clear_cluster(FATFS* fs, DWORD clst);

// Directory entries.
DWORD ld_clust(const FATFS* fs, const BYTE* dir);
void st_clust(const FATFS* fs, BYTE* dir, DWORD clst);
FRESULT follow_path(DIR* dp, const TCHAR* path);
FRESULT dir_seek(DIR* dp, DWORD ofs);
FRESULT dir_next(DIR* dp, bool stretch);
// Loads the sector of the current entry and points dp->dir at it.
FRESULT dir_load(DIR* dp);
// Finds a free entry (stretching the directory if needed) and writes a new one named dp->fn.
FRESULT dir_register(DIR* dp);

} // namespace fat
