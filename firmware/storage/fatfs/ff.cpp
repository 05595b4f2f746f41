// FAT file system of the data logger behind the FatFs interface: the volume (mount, the one-sector
// window, FSInfo) and the FAT (entries, chains, allocation), plus f_mount and f_getfree. Files are
// in ff_file.cpp (with the write ordering that keeps the card consistent across power cuts),
// directories and paths in ff_dir.cpp, formatting in ff_mkfs.cpp.
#include "storage/fatfs/ff_internal.h"

#include <string.h>

namespace fat {

FATFS* volume = nullptr;
static WORD mount_count = 0;

FRESULT take_drive(const TCHAR** path) {
    const TCHAR* p = *path;
    if (p == nullptr) {
        *path = "";
        return FR_OK;
    }
    if (p[0] != '\0' && p[1] == ':') {
        if (p[0] != '0') {
            return FR_INVALID_DRIVE;
        }
        *path = p + 2;
    }
    return FR_OK;
}

// ------------------------------------------------------------------ window

FRESULT sync_window(FATFS* fs) {
    if (!fs->wflag) {
        return FR_OK;
    }
    if (disk_write(fs->pdrv, fs->win, fs->winsect, 1) != RES_OK) {
        return FR_DISK_ERR;
    }
    // A FAT sector goes to each copy, first FAT first.
    if (fs->winsect - fs->fatbase < fs->fsize) {
        for (BYTE i = 1; i < fs->n_fats; i++) {
            if (disk_write(fs->pdrv, fs->win, fs->winsect + i * fs->fsize, 1) != RES_OK) {
                return FR_DISK_ERR;
            }
        }
    }
    fs->wflag = 0;
    return FR_OK;
}

FRESULT move_window(FATFS* fs, LBA_t sect) {
    if (sect == fs->winsect) {
        return FR_OK;
    }
    FRESULT res = sync_window(fs);
    if (res != FR_OK) {
        return res;
    }
    if (disk_read(fs->pdrv, fs->win, sect, 1) != RES_OK) {
        fs->winsect = NO_SECTOR;
        return FR_DISK_ERR;
    }
    fs->winsect = sect;
    return FR_OK;
}

static FRESULT write_fsinfo(FATFS* fs, DWORD free_count) {
    FRESULT res = sync_window(fs);
    if (res != FR_OK) {
        return res;
    }
    memset(fs->win, 0, SS);
    st32(fs->win + FSI_LeadSig, FSI_LEAD);
    st32(fs->win + FSI_StrucSig, FSI_STRUC);
    st32(fs->win + FSI_Free_Count, free_count);
    st32(fs->win + FSI_Nxt_Free, fs->last_clst);
    st32(fs->win + FSI_TrailSig, FSI_TRAIL);
    fs->winsect = fs->volbase + 1;
    if (disk_write(fs->pdrv, fs->win, fs->winsect, 1) != RES_OK) {
        fs->winsect = NO_SECTOR;
        return FR_DISK_ERR;
    }
    return FR_OK;
}

FRESULT load_fsinfo(FATFS* fs) {
    if (!(fs->fsi_flag & FSI_NOT_LOADED)) {
        return FR_OK;
    }
    FRESULT res = move_window(fs, fs->volbase + 1);
    if (res != FR_OK) {
        return res;
    }
    fs->fsi_flag = FSI_UNUSABLE;
    const BYTE* w = fs->win;
    if (ld32(w + FSI_LeadSig) != FSI_LEAD || ld32(w + FSI_StrucSig) != FSI_STRUC ||
        ld32(w + FSI_TrailSig) != FSI_TRAIL) {
        return FR_OK;
    }
    // Its counts are hints, used only when they make sense.
    DWORD free_count = ld32(w + FSI_Free_Count);
    DWORD next = ld32(w + FSI_Nxt_Free);
    fs->fsi_flag = FSI_DISK_UNKNOWN;
    if (free_count <= fs->n_fatent - 2) {
        fs->free_clst = free_count;
        fs->fsi_flag = 0;
    }
    if (valid_cluster(fs, next)) {
        fs->last_clst = next;
    }
    return FR_OK;
}

// Before the FAT's allocation changes, FSInfo's free count on the card is set to "unknown" (once,
// when it held a number), so a power cut never leaves a wrong count behind. It then stays unknown:
// keeping an exact count would cost two more sector writes at every new cluster of a data file.
// Only a count that is known to be exact (f_getfree's, or 0 on a full volume) is written back.
FRESULT fsinfo_unknown(FATFS* fs) {
    if (fs->fs_type != FS_FAT32) {
        return FR_OK;
    }
    FRESULT res = load_fsinfo(fs);
    if (res != FR_OK || (fs->fsi_flag & (FSI_UNUSABLE | FSI_DISK_UNKNOWN))) {
        return res;
    }
    res = write_fsinfo(fs, UNKNOWN);
    if (res == FR_OK) {
        fs->fsi_flag |= FSI_DISK_UNKNOWN;
    }
    return res;
}

FRESULT sync_fs(FATFS* fs) {
    FRESULT res = sync_window(fs);
    if (res != FR_OK) {
        return res;
    }
    if (fs->fs_type == FS_FAT32 && (fs->fsi_flag & FSI_WRITE_COUNT) && !(fs->fsi_flag & FSI_UNUSABLE)) {
        if ((res = write_fsinfo(fs, fs->free_clst)) != FR_OK) {
            return res;
        }
        fs->fsi_flag = fs->free_clst == UNKNOWN ? FSI_DISK_UNKNOWN : 0;
    }
    if (disk_ioctl(fs->pdrv, CTRL_SYNC, nullptr) != RES_OK) {
        return FR_DISK_ERR;
    }
    return FR_OK;
}

// ------------------------------------------------------------------ FAT

bool valid_cluster(const FATFS* fs, DWORD clst) {
    return clst >= 2 && clst < fs->n_fatent;
}

LBA_t clust2sect(const FATFS* fs, DWORD clst) {
    return fs->database + (LBA_t)(clst - 2) * fs->csize;
}

DWORD end_of_chain(const FATFS* fs) {
    switch (fs->fs_type) {
    case FS_FAT12:
        return 0xFFF;
    case FS_FAT16:
        return 0xFFFF;
    default:
        return 0x0FFFFFFF;
    }
}

// The smallest value that marks the end of a chain.
static DWORD eoc_min(const FATFS* fs) {
    return end_of_chain(fs) - 7;
}

FRESULT get_fat(FATFS* fs, DWORD clst, DWORD* val) {
    if (!valid_cluster(fs, clst)) {
        return FR_INT_ERR;
    }
    FRESULT res;
    switch (fs->fs_type) {
    case FS_FAT12: {
        // 12-bit entries: an entry can straddle two sectors.
        DWORD bc = clst + clst / 2;
        if ((res = move_window(fs, fs->fatbase + bc / SS)) != FR_OK) {
            return res;
        }
        UINT w = fs->win[bc % SS];
        bc++;
        if ((res = move_window(fs, fs->fatbase + bc / SS)) != FR_OK) {
            return res;
        }
        w |= (UINT)fs->win[bc % SS] << 8;
        *val = (clst & 1) ? (w >> 4) : (w & 0xFFF);
        return FR_OK;
    }
    case FS_FAT16:
        if ((res = move_window(fs, fs->fatbase + clst / (SS / 2))) != FR_OK) {
            return res;
        }
        *val = ld16(fs->win + clst * 2 % SS);
        return FR_OK;
    default:
        if ((res = move_window(fs, fs->fatbase + clst / (SS / 4))) != FR_OK) {
            return res;
        }
        *val = ld32(fs->win + clst * 4 % SS) & 0x0FFFFFFF;
        return FR_OK;
    }
}

FRESULT put_fat(FATFS* fs, DWORD clst, DWORD val) {
    if (!valid_cluster(fs, clst)) {
        return FR_INT_ERR;
    }
    FRESULT res;
    switch (fs->fs_type) {
    case FS_FAT12: {
        DWORD bc = clst + clst / 2;
        if ((res = move_window(fs, fs->fatbase + bc / SS)) != FR_OK) {
            return res;
        }
        BYTE* p = fs->win + bc % SS;
        *p = (clst & 1) ? (BYTE)((*p & 0x0F) | ((val << 4) & 0xF0)) : (BYTE)val;
        fs->wflag = 1;
        bc++;
        if ((res = move_window(fs, fs->fatbase + bc / SS)) != FR_OK) {
            return res;
        }
        p = fs->win + bc % SS;
        *p = (clst & 1) ? (BYTE)(val >> 4) : (BYTE)((*p & 0xF0) | ((val >> 8) & 0x0F));
        fs->wflag = 1;
        return FR_OK;
    }
    case FS_FAT16:
        if ((res = move_window(fs, fs->fatbase + clst / (SS / 2))) != FR_OK) {
            return res;
        }
        st16(fs->win + clst * 2 % SS, (WORD)val);
        fs->wflag = 1;
        return FR_OK;
    default: {
        if ((res = move_window(fs, fs->fatbase + clst / (SS / 4))) != FR_OK) {
            return res;
        }
        // The top four bits of a FAT32 entry are reserved and kept as found.
        BYTE* p = fs->win + clst * 4 % SS;
        st32(p, (val & 0x0FFFFFFF) | (ld32(p) & 0xF0000000));
        fs->wflag = 1;
        return FR_OK;
    }
    }
}

FRESULT next_cluster(FATFS* fs, DWORD clst, DWORD* next) {
    DWORD v;
    FRESULT res = get_fat(fs, clst, &v);
    if (res != FR_OK) {
        return res;
    }
    if (v >= eoc_min(fs)) {
        *next = 0;
        return FR_OK;
    }
    if (!valid_cluster(fs, v)) {
        return FR_INT_ERR;
    }
    *next = v;
    return FR_OK;
}

FRESULT find_free(FATFS* fs, DWORD near, DWORD* found) {
    *found = 0;
    FRESULT res = load_fsinfo(fs);
    if (res != FR_OK) {
        return res;
    }
    if (fs->free_clst == 0) {
        return FR_OK; // known to be full: no need to read the whole FAT again
    }
    DWORD n_clst = fs->n_fatent - 2;
    // Next to the cluster being extended keeps a file contiguous and its FAT entries in the
    // sector already in the window.
    DWORD c = near;
    if (!valid_cluster(fs, c)) {
        c = valid_cluster(fs, fs->last_clst) ? fs->last_clst : 1;
    }
    for (DWORD i = 0; i < n_clst; i++) {
        c++;
        if (c >= fs->n_fatent) {
            c = 2;
        }
        DWORD v;
        if ((res = get_fat(fs, c, &v)) != FR_OK) {
            return res;
        }
        if (v == 0) {
            *found = c;
            return FR_OK;
        }
    }
    // Full (a free count that said otherwise was stale). FSInfo learns it now: the caller may write
    // nothing more, and the next wake should not search again.
    fs->free_clst = 0;
    if (fs->fs_type == FS_FAT32 && !(fs->fsi_flag & FSI_UNUSABLE)) {
        if ((res = write_fsinfo(fs, 0)) != FR_OK) {
            return res;
        }
        fs->fsi_flag = 0;
    }
    return FR_OK;
}

FRESULT take_cluster(FATFS* fs, DWORD clst) {
    DWORD v;
    FRESULT res = get_fat(fs, clst, &v);
    if (res != FR_OK) {
        return res;
    }
    if (v != 0) {
        return FR_INT_ERR; // not free after all
    }
    if ((res = fsinfo_unknown(fs)) != FR_OK || (res = put_fat(fs, clst, end_of_chain(fs))) != FR_OK) {
        return res;
    }
    fs->last_clst = clst;
    if (fs->free_clst <= fs->n_fatent - 2 && fs->free_clst > 0) {
        fs->free_clst--;
        if (fs->free_clst == 0) {
            fs->fsi_flag |= FSI_WRITE_COUNT; // a full volume tells FSInfo, so no wake searches it again
        }
    }
    return FR_OK;
}

FRESULT alloc_cluster(FATFS* fs, DWORD near, DWORD* newc) {
    FRESULT res = find_free(fs, near, newc);
    if (res != FR_OK || *newc == 0) {
        return res;
    }
    return take_cluster(fs, *newc);
}

FRESULT remove_chain(FATFS* fs, DWORD clst) {
    DWORD n_clst = fs->n_fatent - 2;
    for (DWORD i = 0; i < n_clst; i++) {
        DWORD v;
        FRESULT res = get_fat(fs, clst, &v);
        if (res != FR_OK) {
            return res;
        }
        if (v == 0) {
            return FR_INT_ERR; // a chain running into a free cluster
        }
        if ((res = fsinfo_unknown(fs)) != FR_OK || (res = put_fat(fs, clst, 0)) != FR_OK) {
            return res;
        }
        if (fs->free_clst < n_clst) {
            fs->free_clst++;
        }
        if (v >= eoc_min(fs)) {
            return FR_OK;
        }
        if (!valid_cluster(fs, v)) {
            return FR_INT_ERR;
        }
        clst = v;
    }
    return FR_INT_ERR; // longer than the volume: a loop
}

FRESULT clear_cluster(FATFS* fs, DWORD clst) {
    FRESULT res = sync_window(fs);
    if (res != FR_OK) {
        return res;
    }
    LBA_t sect = clust2sect(fs, clst);
    memset(fs->win, 0, SS);
    fs->winsect = NO_SECTOR;
    for (UINT i = 0; i < fs->csize; i++) {
        if (disk_write(fs->pdrv, fs->win, sect + i, 1) != RES_OK) {
            return FR_DISK_ERR;
        }
    }
    fs->winsect = sect + fs->csize - 1; // the window holds what that sector now contains
    return FR_OK;
}

// ------------------------------------------------------------------ mount

// Checks a boot sector's BPB and fills the volume's geometry from it. Returns false for anything
// that is not a FAT volume this module can serve.
static bool load_bpb(FATFS* fs, const BYTE* bs, LBA_t bsect) {
    if (ld16(bs + BS_Sign) != 0xAA55) {
        return false;
    }
    if (!(bs[BS_JmpBoot] == 0xEB && bs[BS_JmpBoot + 2] == 0x90) && bs[BS_JmpBoot] != 0xE9) {
        return false;
    }
    if (ld16(bs + BPB_BytsPerSec) != SS) {
        return false;
    }
    UINT csize = bs[BPB_SecPerClus];
    if (csize == 0 || (csize & (csize - 1)) != 0) {
        return false;
    }
    UINT n_fats = bs[BPB_NumFATs];
    UINT n_rsv = ld16(bs + BPB_RsvdSecCnt);
    UINT n_root = ld16(bs + BPB_RootEntCnt);
    if ((n_fats != 1 && n_fats != 2) || n_rsv == 0 || n_root % (SS / SZDIRE) != 0) {
        return false;
    }
    uint64_t tot = ld16(bs + BPB_TotSec16);
    if (tot == 0) {
        tot = ld32(bs + BPB_TotSec32);
    }
    uint64_t fatsz = ld16(bs + BPB_FATSz16);
    if (fatsz == 0) {
        fatsz = ld32(bs + BPB_FATSz32);
    }
    if (tot == 0 || fatsz == 0 || bsect + tot > 0xFFFFFFFF) {
        return false;
    }
    uint64_t n_dirsec = n_root * SZDIRE / SS;
    uint64_t sysect = n_rsv + n_fats * fatsz + n_dirsec;
    if (sysect >= tot) {
        return false;
    }
    uint64_t n_clst = (tot - sysect) / csize;
    if (n_clst == 0 || n_clst > 0x0FFFFFF5) {
        return false;
    }
    BYTE type = n_clst < 4085 ? FS_FAT12 : n_clst < 65525 ? FS_FAT16 : FS_FAT32;
    uint64_t need; // bytes the FAT needs for every cluster
    if (type == FS_FAT32) {
        // A FAT32 volume has no fixed root directory and keeps the FAT size in the 32-bit field.
        if (n_root != 0 || ld16(bs + BPB_FATSz16) != 0 || ld16(bs + BPB_FSVer) != 0) {
            return false;
        }
        DWORD root = ld32(bs + BPB_RootClus);
        if (root < 2 || root >= n_clst + 2) {
            return false;
        }
        fs->dirbase = root;
        need = (n_clst + 2) * 4;
    } else {
        if (n_root == 0) {
            return false;
        }
        fs->dirbase = bsect + n_rsv + n_fats * fatsz;
        need = type == FS_FAT16 ? (n_clst + 2) * 2 : ((n_clst + 2) * 3 + 1) / 2;
    }
    if ((need + SS - 1) / SS > fatsz || fatsz > 0xFFFFFFFF) {
        return false;
    }
    fs->fs_type = type;
    fs->n_fats = (BYTE)n_fats;
    fs->csize = (WORD)csize;
    fs->n_rootdir = (WORD)n_root;
    fs->n_fatent = (DWORD)n_clst + 2;
    fs->fsize = (DWORD)fatsz;
    fs->volbase = bsect;
    fs->fatbase = bsect + n_rsv;
    fs->database = bsect + (LBA_t)sysect;
    return true;
}

// The serial number mkfs gives a volume, where its boot sector has the extended fields.
static DWORD volume_id(const FATFS* fs, const BYTE* bs) {
    if (fs->fs_type == FS_FAT32) {
        return bs[BS32_BootSig] == 0x29 ? ld32(bs + BS32_VolID) : 0;
    }
    return bs[BS_BootSig] == 0x29 ? ld32(bs + BS_VolID) : 0;
}

// Mounts the volume: a FAT boot sector at sector 0, or in one of the partitions of a master boot
// record there.
static FRESULT mount_volume(FATFS* fs) {
    fs->winsect = NO_SECTOR;
    fs->wflag = 0;
    FRESULT res = move_window(fs, 0);
    if (res != FR_OK) {
        return res;
    }
    bool found = load_bpb(fs, fs->win, 0);
    if (!found && ld16(fs->win + BS_Sign) == 0xAA55) {
        LBA_t starts[4];
        for (UINT i = 0; i < 4; i++) {
            const BYTE* pte = fs->win + MBR_Table + i * PTE_Size;
            starts[i] = pte[PTE_System] != 0 ? ld32(pte + PTE_StLba) : 0;
        }
        for (UINT i = 0; i < 4 && !found; i++) {
            if (starts[i] == 0) {
                continue;
            }
            if ((res = move_window(fs, starts[i])) != FR_OK) {
                return res;
            }
            found = load_bpb(fs, fs->win, starts[i]);
        }
    }
    if (!found) {
        fs->fs_type = 0;
        return FR_NO_FILESYSTEM;
    }
    fs->volid = volume_id(fs, fs->win);
    fs->free_clst = UNKNOWN;
    fs->last_clst = UNKNOWN;
    bool fsinfo = fs->fs_type == FS_FAT32 && ld16(fs->win + BPB_FSInfo) == 1;
    fs->fsi_flag = fsinfo ? FSI_NOT_LOADED : FSI_UNUSABLE;
    fs->id = ++mount_count;
    return FR_OK;
}

FRESULT find_volume(const TCHAR** path, FATFS** rfs, bool write) {
    *rfs = nullptr;
    FRESULT res = take_drive(path);
    if (res != FR_OK) {
        return res;
    }
    FATFS* fs = volume;
    if (fs == nullptr) {
        return FR_NOT_ENABLED;
    }
    *rfs = fs;
    if (fs->fs_type != 0) {
        DSTATUS stat = disk_status(fs->pdrv);
        if (!(stat & STA_NOINIT)) {
            return (write && (stat & STA_PROTECT)) ? FR_WRITE_PROTECTED : FR_OK;
        }
    }
    // Not mounted, or the card was re-initialised since: mount afresh.
    fs->fs_type = 0;
    fs->pdrv = 0;
    DSTATUS stat = disk_initialize(fs->pdrv);
    if (stat & STA_NOINIT) {
        return FR_NOT_READY;
    }
    if (write && (stat & STA_PROTECT)) {
        return FR_WRITE_PROTECTED;
    }
    return mount_volume(fs);
}

FRESULT validate(const FFOBJID* obj, FATFS** rfs) {
    *rfs = nullptr;
    if (obj == nullptr || obj->fs == nullptr || obj->fs != volume || obj->fs->fs_type == 0 ||
        obj->id != obj->fs->id) {
        return FR_INVALID_OBJECT;
    }
    if (disk_status(obj->fs->pdrv) & STA_NOINIT) {
        return FR_INVALID_OBJECT;
    }
    *rfs = obj->fs;
    return FR_OK;
}

} // namespace fat

using namespace fat;

extern "C" {

FRESULT f_mount(FATFS* fs, const TCHAR* path, BYTE opt) {
    FRESULT res = take_drive(&path);
    if (res != FR_OK) {
        return res;
    }
    if (volume != nullptr) {
        volume->fs_type = 0;
    }
    volume = fs;
    if (fs == nullptr) {
        return FR_OK;
    }
    fs->fs_type = 0;
    if (opt == 0) {
        return FR_OK; // mounted at the first access
    }
    FATFS* mounted;
    return find_volume(&path, &mounted, false);
}

FRESULT f_getfree(const TCHAR* path, DWORD* nclst, FATFS** fatfs) {
    FATFS* fs;
    FRESULT res = find_volume(&path, &fs, false);
    if (fatfs != nullptr) {
        *fatfs = fs;
    }
    if (res != FR_OK) {
        return res;
    }
    if ((res = load_fsinfo(fs)) != FR_OK) {
        return res;
    }
    DWORD n_clst = fs->n_fatent - 2;
    if (fs->free_clst > n_clst) {
        DWORD n = 0;
        for (DWORD c = 2; c < fs->n_fatent; c++) {
            DWORD v;
            if ((res = get_fat(fs, c, &v)) != FR_OK) {
                return res;
            }
            if (v == 0) {
                n++;
            }
        }
        fs->free_clst = n;
        fs->fsi_flag |= FSI_WRITE_COUNT;
    }
    if (nclst != nullptr) {
        *nclst = fs->free_clst;
    }
    return FR_OK;
}

} // extern "C"
