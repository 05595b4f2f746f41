// Formatting (f_mkfs): lays out a FAT12, FAT16 or FAT32 volume on the whole card, or in one primary
// partition behind a master boot record. The FAT type follows from the cluster count alone
// (below 4085 clusters FAT12, below 65525 FAT16, else FAT32), so the layout is planned for a type
// and a cluster size and kept only when the count agrees.
#include "storage/fatfs/ff_internal.h"

#include <string.h>

namespace fat {

namespace {

struct Layout {
    BYTE type;     // FS_FAT12/16/32
    UINT csize;    // sectors per cluster
    UINT n_rsv;    // reserved sectors (boot sector, FSInfo, backup, alignment)
    DWORD fatsz;   // sectors per FAT
    UINT n_dirsec; // sectors of the fixed root directory (FAT12/16)
    DWORD n_clst;  // clusters
    LBA_t b_vol;   // first sector of the volume
    LBA_t sz_vol;  // sectors of the volume
    UINT n_fat;    // FAT copies
    UINT n_root;   // root directory entries (FAT12/16)
};

bool count_fits(BYTE type, DWORD n) {
    switch (type) {
    case FS_FAT12:
        return n >= 16 && n < 4085;
    case FS_FAT16:
        return n >= 4085 && n < 65525;
    default:
        return n >= 65525 && n <= 0x0FFFFFF5;
    }
}

// Sizes the areas of a volume for a FAT entry width (type) and a cluster size; the data area starts
// on an `align`-sector boundary of the card. Returns false when nothing is left for data.
bool plan(Layout* l, BYTE type, UINT csize, UINT align) {
    l->type = type;
    l->csize = csize;
    l->n_rsv = type == FS_FAT32 ? 32 : 1;
    l->n_dirsec = type == FS_FAT32 ? 0 : l->n_root * SZDIRE / SS;
    uint64_t fixed = l->n_rsv + l->n_dirsec;
    if (l->sz_vol <= fixed + l->n_fat + csize) {
        return false;
    }
    // Size the FAT for every cluster the volume could hold without it; it then holds the fewer
    // clusters left beside it.
    uint64_t n_max = (l->sz_vol - fixed) / csize;
    uint64_t bytes = type == FS_FAT12 ? ((n_max + 2) * 3 + 1) / 2 : (n_max + 2) * (type == FS_FAT16 ? 2 : 4);
    l->fatsz = (DWORD)((bytes + SS - 1) / SS);
    uint64_t data = l->b_vol + fixed + (uint64_t)l->n_fat * l->fatsz;
    UINT pad = (UINT)((align - data % align) % align);
    l->n_rsv += pad;
    uint64_t sys = l->n_rsv + (uint64_t)l->n_fat * l->fatsz + l->n_dirsec;
    if (sys + csize > l->sz_vol) {
        return false;
    }
    uint64_t n = (l->sz_vol - sys) / csize;
    l->n_clst = n > 0x0FFFFFFF ? 0x0FFFFFFF : (DWORD)n;
    return true;
}

// Plans a FAT12 or FAT16 volume: sized for FAT16 first; a count below the FAT16 range makes it
// FAT12, with the smaller FAT when that still keeps the count in range.
bool plan_fat1216(Layout* l, UINT csize, UINT align) {
    if (!plan(l, FS_FAT16, csize, align)) {
        return false;
    }
    if (l->n_clst >= 4085) {
        return true;
    }
    Layout small = *l;
    if (plan(&small, FS_FAT12, csize, align) && count_fits(FS_FAT12, small.n_clst)) {
        *l = small;
    } else {
        l->type = FS_FAT12; // the larger FAT still serves a FAT12 count
    }
    return true;
}

UINT default_csize(BYTE type, LBA_t sz_vol) {
    const DWORD MiB = 2048; // sectors
    if (type == FS_FAT32) {
        if (sz_vol < 64 * MiB) {
            return 1;
        }
        if (sz_vol < 128 * MiB) {
            return 2;
        }
        if (sz_vol < 256 * MiB) {
            return 4;
        }
        if (sz_vol < 8192 * MiB) {
            return 8;
        }
        if (sz_vol < 16384 * MiB) {
            return 16;
        }
        if (sz_vol < 32768 * MiB) {
            return 32;
        }
        return 64;
    }
    if (sz_vol < 16 * MiB) {
        return 1;
    }
    if (sz_vol < 128 * MiB) {
        return 4;
    }
    if (sz_vol < 256 * MiB) {
        return 8;
    }
    if (sz_vol < 512 * MiB) {
        return 16;
    }
    if (sz_vol < 1024 * MiB) {
        return 32;
    }
    return 64;
}

// Finds a layout of the wanted family (FAT32, or FAT12/16). With no cluster size given, starts
// from the default and halves (FAT32: too few clusters) or doubles (FAT16: too many) it.
bool choose(Layout* l, bool fat32, UINT au_sectors, UINT align) {
    BYTE family = fat32 ? FS_FAT32 : FS_FAT16;
    UINT csize = au_sectors != 0 ? au_sectors : default_csize(family, l->sz_vol);
    for (UINT tries = 0; tries < 16; tries++) {
        bool ok = fat32 ? plan(l, FS_FAT32, csize, align) : plan_fat1216(l, csize, align);
        if (ok && count_fits(l->type, l->n_clst)) {
            return true;
        }
        if (au_sectors != 0 || !ok) {
            return false;
        }
        if (fat32 && l->n_clst < 65525 && csize > 1) {
            csize /= 2;
        } else if (!fat32 && l->n_clst >= 65525 && csize < 128) {
            csize *= 2;
        } else {
            return false;
        }
    }
    return false;
}

bool power_of_two(DWORD v) {
    return v != 0 && (v & (v - 1)) == 0;
}

// Cylinder-head-sector address of a sector for the partition table (255 heads, 63 sectors per
// track); beyond what it can express, the conventional maximum.
void put_chs(BYTE* p, LBA_t lba) {
    DWORD cyl = lba / (255 * 63);
    if (cyl > 1023) {
        p[0] = 0xFE;
        p[1] = 0xFF;
        p[2] = 0xFF;
        return;
    }
    DWORD head = (lba / 63) % 255;
    DWORD sec = lba % 63 + 1;
    p[0] = (BYTE)head;
    p[1] = (BYTE)(sec | ((cyl >> 2) & 0xC0));
    p[2] = (BYTE)cyl;
}

// Writes `count` sectors from `start` with the buffer's zeroed contents, as many at a time as fit.
FRESULT zero_sectors(BYTE* buf, UINT buf_sectors, LBA_t start, uint64_t count) {
    memset(buf, 0, (size_t)buf_sectors * SS);
    while (count > 0) {
        UINT n = count < buf_sectors ? (UINT)count : buf_sectors;
        if (disk_write(0, buf, start, n) != RES_OK) {
            return FR_DISK_ERR;
        }
        start += n;
        count -= n;
    }
    return FR_OK;
}

void build_boot_sector(BYTE* b, const Layout& l, DWORD vsn) {
    memset(b, 0, SS);
    bool fat32 = l.type == FS_FAT32;
    b[BS_JmpBoot] = 0xEB;
    b[BS_JmpBoot + 1] = fat32 ? 0x58 : 0x3C;
    b[BS_JmpBoot + 2] = 0x90;
    memcpy(b + BS_OEMName, "MSDOS5.0", 8);
    st16(b + BPB_BytsPerSec, SS);
    b[BPB_SecPerClus] = (BYTE)l.csize;
    st16(b + BPB_RsvdSecCnt, (WORD)l.n_rsv);
    b[BPB_NumFATs] = (BYTE)l.n_fat;
    st16(b + BPB_RootEntCnt, fat32 ? 0 : (WORD)l.n_root);
    if (!fat32 && l.sz_vol < 0x10000) {
        st16(b + BPB_TotSec16, (WORD)l.sz_vol);
    } else {
        st32(b + BPB_TotSec32, l.sz_vol);
    }
    b[BPB_Media] = 0xF8;
    st16(b + BPB_SecPerTrk, 63);
    st16(b + BPB_NumHeads, 255);
    st32(b + BPB_HiddSec, l.b_vol);
    if (fat32) {
        st32(b + BPB_FATSz32, l.fatsz);
        st32(b + BPB_RootClus, 2);
        st16(b + BPB_FSInfo, 1);
        st16(b + BPB_BkBootSec, 6);
        b[BS32_DrvNum] = 0x80;
        b[BS32_BootSig] = 0x29;
        st32(b + BS32_VolID, vsn);
        memcpy(b + BS32_VolLab, "NO NAME    ", 11);
        memcpy(b + BS32_FilSysType, "FAT32   ", 8);
    } else {
        st16(b + BPB_FATSz16, (WORD)l.fatsz);
        b[BS_DrvNum] = 0x80;
        b[BS_BootSig] = 0x29;
        st32(b + BS_VolID, vsn);
        memcpy(b + BS_VolLab, "NO NAME    ", 11);
        memcpy(b + BS_FilSysType, l.type == FS_FAT12 ? "FAT12   " : "FAT16   ", 8);
    }
    st16(b + BS_Sign, 0xAA55);
}

void build_fsinfo(BYTE* b, const Layout& l) {
    memset(b, 0, SS);
    st32(b + FSI_LeadSig, FSI_LEAD);
    st32(b + FSI_StrucSig, FSI_STRUC);
    st32(b + FSI_Free_Count, l.n_clst - 1); // the root directory has cluster 2
    st32(b + FSI_Nxt_Free, 2);
    st32(b + FSI_TrailSig, FSI_TRAIL);
}

void build_mbr(BYTE* b, const Layout& l) {
    memset(b, 0, SS);
    BYTE* pte = b + MBR_Table;
    BYTE sys;
    if (l.type == FS_FAT32) {
        sys = 0x0C; // FAT32, LBA
    } else if (l.type == FS_FAT16) {
        sys = l.sz_vol < 0x10000 ? 0x04 : 0x06;
    } else {
        sys = 0x01;
    }
    put_chs(pte + 1, l.b_vol);
    pte[PTE_System] = sys;
    put_chs(pte + 5, l.b_vol + l.sz_vol - 1);
    st32(pte + PTE_StLba, l.b_vol);
    st32(pte + PTE_SizLba, l.sz_vol);
    st16(b + BS_Sign, 0xAA55);
}

// Writes the planned volume: partition table, reserved area, FATs, root directory.
FRESULT write_volume(const Layout& l, BYTE* buf, UINT buf_sectors) {
    FRESULT res;
    if (l.b_vol != 0) {
        build_mbr(buf, l);
        if (disk_write(0, buf, 0, 1) != RES_OK) {
            return FR_DISK_ERR;
        }
    }
    if ((res = zero_sectors(buf, buf_sectors, l.b_vol, l.n_rsv)) != FR_OK) {
        return res;
    }
    build_boot_sector(buf, l, get_fattime());
    if (disk_write(0, buf, l.b_vol, 1) != RES_OK) {
        return FR_DISK_ERR;
    }
    if (l.type == FS_FAT32) {
        // Backup boot sector at 6, FSInfo at 1 with its backup at 7.
        if (disk_write(0, buf, l.b_vol + 6, 1) != RES_OK) {
            return FR_DISK_ERR;
        }
        build_fsinfo(buf, l);
        if (disk_write(0, buf, l.b_vol + 1, 1) != RES_OK || disk_write(0, buf, l.b_vol + 7, 1) != RES_OK) {
            return FR_DISK_ERR;
        }
    }
    LBA_t fat = l.b_vol + l.n_rsv;
    for (UINT i = 0; i < l.n_fat; i++, fat += l.fatsz) {
        if ((res = zero_sectors(buf, buf_sectors, fat, l.fatsz)) != FR_OK) {
            return res;
        }
        // Entries 0 and 1 are reserved (media byte, end marks); FAT32's entry 2 ends the root.
        memset(buf, 0, SS);
        if (l.type == FS_FAT32) {
            st32(buf, 0x0FFFFFF8);
            st32(buf + 4, 0x0FFFFFFF);
            st32(buf + 8, 0x0FFFFFFF);
        } else if (l.type == FS_FAT16) {
            st32(buf, 0xFFFFFFF8);
        } else {
            st32(buf, 0x00FFFFF8);
        }
        if (disk_write(0, buf, fat, 1) != RES_OK) {
            return FR_DISK_ERR;
        }
    }
    LBA_t root = l.b_vol + l.n_rsv + (LBA_t)l.n_fat * l.fatsz;
    UINT root_sectors = l.type == FS_FAT32 ? l.csize : l.n_dirsec;
    return zero_sectors(buf, buf_sectors, root, root_sectors);
}

} // namespace

} // namespace fat

using namespace fat;

extern "C" FRESULT f_mkfs(const TCHAR* path, const MKFS_PARM* opt, void* work, UINT len) {
    FRESULT res = take_drive(&path);
    if (res != FR_OK) {
        return res;
    }
    if (volume != nullptr) {
        volume->fs_type = 0; // mounted afresh at the next access
    }
    static const MKFS_PARM defaults = {FM_ANY, 0, 0, 0, 0};
    if (opt == nullptr) {
        opt = &defaults;
    }
    BYTE fmt = opt->fmt & (FM_FAT | FM_FAT32 | FM_SFD);
    if (!(fmt & (FM_FAT | FM_FAT32))) {
        return FR_INVALID_PARAMETER;
    }
    if (work == nullptr || len < SS) {
        return FR_NOT_ENOUGH_CORE;
    }
    DSTATUS stat = disk_initialize(0);
    if (stat & STA_NOINIT) {
        return FR_NOT_READY;
    }
    if (stat & STA_PROTECT) {
        return FR_WRITE_PROTECTED;
    }
    LBA_t sz_drv = 0;
    if (disk_ioctl(0, GET_SECTOR_COUNT, &sz_drv) != RES_OK) {
        return FR_DISK_ERR;
    }
    WORD ss = SS;
    if (disk_ioctl(0, GET_SECTOR_SIZE, &ss) == RES_OK && ss != SS) {
        return FR_DISK_ERR; // only 512-byte sectors are served
    }
    UINT align = opt->align;
    if (!power_of_two(align) || align > 32768) {
        DWORD blk = 1;
        align =
            (disk_ioctl(0, GET_BLOCK_SIZE, &blk) == RES_OK && power_of_two(blk) && blk <= 32768) ? blk : 1;
    }
    UINT au_sectors = 0;
    if (power_of_two(opt->au_size) && opt->au_size >= SS && opt->au_size <= 128 * SS) {
        au_sectors = opt->au_size / SS;
    }

    Layout l;
    l.n_fat = (opt->n_fat == 1 || opt->n_fat == 2) ? opt->n_fat : 1;
    l.n_root =
        (opt->n_root > 0 && opt->n_root <= 32768 && opt->n_root % (SS / SZDIRE) == 0) ? opt->n_root : 512;
    // Partitioned cards start the volume 1 MiB in (63 sectors on very small ones).
    l.b_vol = (fmt & FM_SFD) ? 0 : (sz_drv >= 16384 ? 2048 : 63);
    if (sz_drv <= l.b_vol || sz_drv - l.b_vol < 128) {
        return FR_MKFS_ABORTED;
    }
    l.sz_vol = sz_drv - l.b_vol;

    // FAT32 first when it is the only choice or the volume is large (64 MiB or more).
    bool want32 = (fmt & FM_FAT32) && (!(fmt & FM_FAT) || l.sz_vol >= 131072);
    bool found = choose(&l, want32, au_sectors, align);
    if (!found && (fmt & (want32 ? FM_FAT : FM_FAT32))) {
        found = choose(&l, !want32, au_sectors, align);
    }
    if (!found) {
        return FR_MKFS_ABORTED;
    }
    res = write_volume(l, (BYTE*)work, len / SS);
    if (res != FR_OK) {
        return res;
    }
    return disk_ioctl(0, CTRL_SYNC, nullptr) == RES_OK ? FR_OK : FR_DISK_ERR;
}
