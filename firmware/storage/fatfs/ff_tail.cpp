// The FAT module's tail calls (ff_tail.h): seeking to the end of a file through what was remembered
// of it, planning the clusters a write will take, and repairing what a write cut short left.
#include "storage/fatfs/ff_tail.h"

#include "storage/fatfs/ff_internal.h"

#include <string.h>

namespace fat {

// CRC-16/CCITT (polynomial 0x1021, start 0xFFFF).
static WORD crc16(const BYTE* p, UINT n) {
    WORD crc = 0xFFFF;
    for (UINT i = 0; i < n; i++) {
        crc ^= (WORD)(p[i] << 8);
        for (int b = 0; b < 8; b++) {
            crc = (crc & 0x8000) ? (WORD)((crc << 1) ^ 0x1021) : (WORD)(crc << 1);
        }
    }
    return crc;
}

static DWORD cluster_bytes(const FATFS* fs) {
    return (DWORD)fs->csize * SS;
}

// The sector holding the last byte of a file of `size` bytes whose last cluster is lclust.
static LBA_t last_sector(const FATFS* fs, DWORD lclust, DWORD size) {
    return clust2sect(fs, lclust) + ((size - 1) % cluster_bytes(fs)) / SS;
}

static WORD entry_index(const FIL* fp) {
    return (WORD)((fp->dir_ptr - fp->obj.fs->win) / SZDIRE);
}

static bool same_volume(const FATFS* fs, const FFTAIL* t) {
    return t->vol_id == fs->volid;
}

// The directory entry at (sect, index), in the window.
static FRESULT load_entry(FATFS* fs, DWORD sect, UINT index, BYTE** entry) {
    if (index >= SS / SZDIRE) {
        return FR_INT_ERR;
    }
    FRESULT res = move_window(fs, sect);
    *entry = fs->win + index * SZDIRE;
    return res;
}

// Describes a file whose pointer stands at its end (nothing left unwritten in its buffer).
static FRESULT describe(FIL* fp, FATFS* fs, FFTAIL* t) {
    if (fp->fptr != fp->obj.objsize || (fp->flag & FA_DIRTY)) {
        return FR_INT_ERR;
    }
    memset(t, 0, sizeof *t);
    t->vol_id = fs->volid;
    t->dir_sect = fp->dir_sect;
    t->dir_index = entry_index(fp);
    t->sclust = fp->obj.sclust;
    t->size = fp->obj.objsize;
    BYTE* entry;
    FRESULT res = load_entry(fs, t->dir_sect, t->dir_index, &entry);
    if (res != FR_OK) {
        return res;
    }
    t->stamp = ld32(entry + DIR_WrtTime);
    if (t->size == 0) {
        return FR_OK;
    }
    t->lclust = fp->clust;
    LBA_t sect = last_sector(fs, fp->clust, t->size);
    if (fp->sect != sect) {
        if (disk_read(fs->pdrv, fp->buf, sect, 1) != RES_OK) {
            return FR_DISK_ERR;
        }
        fp->sect = sect;
    }
    t->tail_crc = crc16(fp->buf, (t->size - 1) % SS + 1);
    return FR_OK;
}

// Whether the remembered tail still names this file's entry as it stands on the card.
static FRESULT entry_matches(FIL* fp, FATFS* fs, const FFTAIL* t, bool* match) {
    *match = false;
    if (!same_volume(fs, t) || t->dir_sect != fp->dir_sect || t->dir_index != entry_index(fp) ||
        t->sclust != fp->obj.sclust || t->size != fp->obj.objsize) {
        return FR_OK;
    }
    if (t->size == 0 ? t->lclust != 0 : !valid_cluster(fs, t->lclust)) {
        return FR_OK;
    }
    BYTE* entry;
    FRESULT res = load_entry(fs, t->dir_sect, t->dir_index, &entry);
    if (res == FR_OK) {
        *match = ld32(entry + DIR_WrtTime) == t->stamp;
    }
    return res;
}

// Writes the FAT sector(s) holding cluster c's entry (a FAT12 entry may straddle two) from the first
// FAT to itself and to every copy.
static FRESULT rewrite_fat_entry(FATFS* fs, DWORD c) {
    DWORD first;
    DWORD last;
    switch (fs->fs_type) {
    case FS_FAT12:
        first = (c + c / 2) / SS;
        last = (c + c / 2 + 1) / SS;
        break;
    case FS_FAT16:
        first = last = c * 2 / SS;
        break;
    default:
        first = last = c * 4 / SS;
        break;
    }
    for (DWORD s = first; s <= last; s++) {
        FRESULT res = move_window(fs, fs->fatbase + s);
        if (res != FR_OK) {
            return res;
        }
        fs->wflag = 1;
        if ((res = sync_window(fs)) != FR_OK) {
            return res;
        }
    }
    return FR_OK;
}

static int plan_index(const FFPLAN* p, DWORD c) {
    for (UINT i = 0; i < p->n_plan && i < FF_TAIL_PLAN; i++) {
        if (p->plan[i] == c) {
            return (int)i;
        }
    }
    return -1;
}

static FRESULT free_cluster(FATFS* fs, DWORD c) {
    FRESULT res = fsinfo_unknown(fs);
    if (res == FR_OK) {
        res = put_fat(fs, c, 0);
    }
    if (res == FR_OK && fs->free_clst < fs->n_fatent - 2) {
        fs->free_clst++;
    }
    return res;
}

// The clusters the entry's size needs beyond the old end, followed from the old last cluster: each
// must be one of the planned clusters. *last is the last of them; *kept marks them in the plan.
static FRESULT walk_kept(FATFS* fs, const FFPLAN* p, DWORD first, DWORD size, DWORD* last, UINT* kept) {
    const FFTAIL* t = &p->tail;
    DWORD bcs = cluster_bytes(fs);
    *kept = 0;
    *last = 0;
    if (size == 0) {
        return first == 0 ? FR_OK : FR_NO_FILE;
    }
    DWORD c = t->size == 0 ? first : t->lclust;
    DWORD idx = 0;
    if (t->size == 0) {
        int i = plan_index(p, c);
        if (i < 0) {
            return FR_NO_FILE; // a first cluster that this write did not plan
        }
        *kept |= 1u << i;
    } else {
        idx = (t->size - 1) / bcs;
    }
    DWORD need = (size - 1) / bcs;
    while (idx < need) {
        DWORD next;
        FRESULT res = next_cluster(fs, c, &next);
        if (res != FR_OK) {
            return res;
        }
        int i = next == 0 ? -1 : plan_index(p, next);
        if (i < 0) {
            return FR_INT_ERR; // the size runs past what the write could have added
        }
        *kept |= 1u << i;
        c = next;
        idx++;
    }
    *last = c;
    return FR_OK;
}

// The mounted volume with its FSInfo counts read, or null.
static FATFS* counted_volume(void) {
    FATFS* fs;
    const TCHAR* path = "";
    if (find_volume(&path, &fs, false) != FR_OK || load_fsinfo(fs) != FR_OK) {
        return nullptr;
    }
    return fs;
}

} // namespace fat

using namespace fat;

extern "C" {

FRESULT f_seek_tail(FIL* fp, FFTAIL* t) {
    FATFS* fs;
    FRESULT res = check_writer(fp, &fs);
    if (res != FR_OK) {
        return res;
    }
    bool match = false;
    if (fp->fptr == 0 && (res = entry_matches(fp, fs, t, &match)) != FR_OK) {
        return res;
    }
    if (match && t->size == 0) {
        return FR_OK;
    }
    if (match) {
        // The last sector is read in any case (the append goes on in it); its bytes must be the
        // file's, which proves the remembered cluster is still this file's last.
        LBA_t sect = last_sector(fs, t->lclust, t->size);
        if (disk_read(fs->pdrv, fp->buf, sect, 1) != RES_OK) {
            fp->err = FR_DISK_ERR;
            return FR_DISK_ERR;
        }
        if (crc16(fp->buf, (t->size - 1) % SS + 1) == t->tail_crc) {
            fp->sect = sect;
            fp->clust = t->lclust;
            fp->fptr = t->size;
            return FR_OK;
        }
        fp->sect = NO_SECTOR;
    }
    if ((res = f_lseek(fp, fp->obj.objsize)) != FR_OK) {
        return res;
    }
    return describe(fp, fs, t);
}

FRESULT f_plan_tail(FIL* fp, UINT btw, FFPLAN* p) {
    FATFS* fs;
    FRESULT res = check_writer(fp, &fs);
    if (res != FR_OK) {
        return res;
    }
    if (fp->fptr != fp->obj.objsize) {
        return FR_DENIED;
    }
    fp->plan = nullptr;
    fp->plan_n = 0;
    if (btw == 0) {
        return FR_OK;
    }
    if ((FSIZE_t)(fp->fptr + btw) < fp->fptr) {
        return FR_DENIED; // past 4 GiB
    }
    // How many clusters the write needs beyond those the file already has (a chain left longer
    // than its size by a cut is used again).
    DWORD bcs = cluster_bytes(fs);
    DWORD need = (fp->fptr + btw - 1) / bcs + 1; // clusters the file will span
    DWORD c = fp->fptr == 0 ? fp->obj.sclust : fp->clust;
    DWORD have = c == 0 ? 0 : (fp->fptr == 0 ? 1 : (fp->fptr - 1) / bcs + 1);
    while (c != 0 && have < need) {
        DWORD next;
        if ((res = next_cluster(fs, c, &next)) != FR_OK) {
            return res;
        }
        if (next == 0) {
            break;
        }
        c = next;
        have++;
    }
    if (have >= need) {
        return FR_OK;
    }
    UINT before = p->n_plan;
    if (need - have > FF_TAIL_PLAN - before) {
        return FR_NOT_ENOUGH_CORE;
    }
    DWORD near = c;
    for (DWORD k = have; k < need; k++) {
        DWORD f;
        if ((res = find_free(fs, near, &f)) != FR_OK) {
            p->n_plan = before;
            return res;
        }
        if (f == 0 || plan_index(p, f) >= 0) {
            p->n_plan = before; // no room: nothing planned, nothing written
            return FR_DENIED;
        }
        p->plan[p->n_plan++] = f;
        near = f;
    }
    fp->plan = p->plan + before;
    fp->plan_n = p->n_plan - before;
    return FR_OK;
}

FRESULT f_get_tail(FIL* fp, FFTAIL* t) {
    FATFS* fs;
    FRESULT res = check_file(fp, &fs);
    if (res != FR_OK) {
        return res;
    }
    if (fp->flag & FA_MODIFIED) {
        return FR_INT_ERR; // not synced yet
    }
    return describe(fp, fs, t);
}

FRESULT f_repair_tail(const FFPLAN* p) {
    FATFS* fs;
    const TCHAR* path = "";
    FRESULT res = find_volume(&path, &fs, true);
    if (res != FR_OK) {
        return res;
    }
    const FFTAIL* t = &p->tail;
    if (!same_volume(fs, t) || p->n_plan > FF_TAIL_PLAN) {
        return FR_NO_FILE;
    }
    BYTE* entry;
    if ((res = load_entry(fs, t->dir_sect, t->dir_index, &entry)) != FR_OK) {
        return res;
    }
    BYTE attr = entry[DIR_Attr];
    if (entry[DIR_Name] == 0 || entry[DIR_Name] == DDEM || (attr & AM_MASK) == AM_LFN ||
        (attr & (AM_DIR | AM_VOL))) {
        return FR_NO_FILE;
    }
    DWORD first = ld_clust(fs, entry);
    DWORD size = ld32(entry + DIR_FileSize);
    if (size < t->size || (t->size > 0 && first != t->sclust)) {
        return FR_NO_FILE; // not the file the write was planned for
    }
    DWORD last;
    UINT kept;
    if ((res = walk_kept(fs, p, first, size, &last, &kept)) != FR_OK) {
        return res;
    }
    // Planned clusters linked past the size, then those taken but never linked, are freed; the
    // old last cluster and every planned one have their FAT sectors written to all copies again.
    if (last != 0) {
        DWORD next;
        if ((res = get_fat(fs, last, &next)) != FR_OK) {
            return res;
        }
        if (plan_index(p, next) >= 0 && (res = put_fat(fs, last, end_of_chain(fs))) != FR_OK) {
            return res;
        }
    }
    for (UINT i = 0; i < p->n_plan; i++) {
        if (kept & (1u << i)) {
            continue;
        }
        DWORD v;
        if ((res = get_fat(fs, p->plan[i], &v)) != FR_OK) {
            return res;
        }
        if (v != 0 && (res = free_cluster(fs, p->plan[i])) != FR_OK) {
            return res;
        }
    }
    if (t->lclust != 0 && (res = rewrite_fat_entry(fs, t->lclust)) != FR_OK) {
        return res;
    }
    for (UINT i = 0; i < p->n_plan; i++) {
        if ((res = rewrite_fat_entry(fs, p->plan[i])) != FR_OK) {
            return res;
        }
    }
    return sync_fs(fs);
}

DWORD f_free_hint(void) {
    FATFS* fs = counted_volume();
    return fs != nullptr ? fs->free_clst : UNKNOWN;
}

void f_set_free_hint(DWORD n) {
    FATFS* fs = counted_volume();
    if (fs != nullptr) {
        fs->free_clst = n <= fs->n_fatent - 2 ? n : UNKNOWN;
    }
}

} // extern "C"
