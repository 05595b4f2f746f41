// Directories of the FAT module: 8.3 names, paths from the root, directory entries, and the calls
// that list, create, remove and rename. Long-name entries written by other systems are skipped when
// listing and looking up (such files go by their short names) and removed along with their entry.
//
// Write ordering, as for files (see ff_file.cpp): a new directory's cluster is zeroed, given its dot
// entries and marked in the FAT before the parent gets its entry; a directory grows by a cluster
// that is zeroed before it is linked; an entry is removed before its chain is freed; a move writes
// the entry in its new directory only after removing it from the old one. A cut therefore leaves
// lost clusters at worst, never two entries sharing a chain.
#include "storage/fatfs/ff_internal.h"

#include <string.h>

namespace fat {

DWORD ld_clust(const FATFS* fs, const BYTE* dir) {
    DWORD c = ld16(dir + DIR_FstClusLO);
    if (fs->fs_type == FS_FAT32) {
        c |= (DWORD)ld16(dir + DIR_FstClusHI) << 16;
    }
    return c;
}

void st_clust(const FATFS* fs, BYTE* dir, DWORD clst) {
    st16(dir + DIR_FstClusLO, (WORD)clst);
    if (fs->fs_type == FS_FAT32) {
        st16(dir + DIR_FstClusHI, (WORD)(clst >> 16));
    }
}

// The directory cluster a ".." entry or a parent stands for: 0 is the root on every FAT type.
static DWORD as_parent(const FATFS* fs, DWORD clst) {
    return (fs->fs_type == FS_FAT32 && clst == fs->dirbase) ? 0 : clst;
}

static bool is_separator(TCHAR c) {
    return c == '/' || c == '\\';
}

static bool ends_segment(TCHAR c) {
    return (BYTE)c < ' ' || is_separator(c);
}

// Turns the next path segment into an 8.3 name in dp->fn (upper case, blank padded, as stored) and
// sets its status byte.
static FRESULT create_name(DIR* dp, const TCHAR** path) {
    BYTE* fn = dp->fn;
    memset(fn, ' ', 11);
    fn[11] = 0;
    const TCHAR* p = *path;
    BYTE status = 0;
    if (p[0] == '.') {
        UINT n = p[1] == '.' ? 2 : 1;
        if (!ends_segment(p[n])) {
            return FR_INVALID_NAME;
        }
        memset(fn, '.', n);
        p += n;
        status = NS_DOT;
    } else {
        UINT i = 0;
        UINT limit = 8;
        while (!ends_segment(*p)) {
            BYTE c = (BYTE)*p++;
            if (c == '.') {
                if (limit == 11 || i == 0) {
                    return FR_INVALID_NAME;
                }
                i = 8;
                limit = 11;
                continue;
            }
            if (i >= limit || strchr("\"*+,:;<=>?[]| \x7F", c) != nullptr) {
                return FR_INVALID_NAME;
            }
            if (c >= 'a' && c <= 'z') {
                c = (BYTE)(c - 'a' + 'A');
            }
            fn[i++] = c;
        }
        if (fn[0] == ' ') {
            return FR_INVALID_NAME;
        }
        if (fn[0] == DDEM) {
            fn[0] = RDDEM;
        }
    }
    while (is_separator(*p)) {
        p++;
    }
    if ((BYTE)*p < ' ') {
        status |= NS_LAST;
    }
    fn[11] = status;
    *path = p;
    return FR_OK;
}

FRESULT dir_seek(DIR* dp, DWORD ofs) {
    FATFS* fs = dp->obj.fs;
    if (ofs >= MAX_DIR || ofs % SZDIRE != 0) {
        return FR_INT_ERR;
    }
    dp->dptr = ofs;
    dp->dir = nullptr;
    DWORD c = dp->obj.sclust;
    if (c == 0 && fs->fs_type == FS_FAT32) {
        c = fs->dirbase;
    }
    if (c == 0) {
        // The fixed root directory of FAT12/16.
        if (ofs / SZDIRE >= fs->n_rootdir) {
            return FR_INT_ERR;
        }
        dp->clust = 0;
        dp->sect = fs->dirbase + ofs / SS;
        return FR_OK;
    }
    if (!valid_cluster(fs, c)) {
        return FR_INT_ERR;
    }
    DWORD bcs = (DWORD)fs->csize * SS;
    while (ofs >= bcs) {
        FRESULT res = next_cluster(fs, c, &c);
        if (res != FR_OK) {
            return res;
        }
        if (c == 0) {
            return FR_INT_ERR;
        }
        ofs -= bcs;
    }
    dp->clust = c;
    dp->sect = clust2sect(fs, c) + ofs / SS;
    return FR_OK;
}

FRESULT dir_next(DIR* dp, bool stretch) {
    FATFS* fs = dp->obj.fs;
    if (dp->sect == 0) {
        return FR_NO_FILE;
    }
    DWORD ofs = dp->dptr + SZDIRE;
    if (ofs >= MAX_DIR) {
        dp->sect = 0;
        return FR_NO_FILE;
    }
    if (ofs % SS == 0) {
        if (dp->clust == 0) {
            if (ofs / SZDIRE >= fs->n_rootdir) {
                dp->sect = 0; // the fixed root directory cannot grow
                return FR_NO_FILE;
            }
            dp->sect++;
        } else if ((ofs / SS) % fs->csize != 0) {
            dp->sect++;
        } else {
            DWORD next;
            FRESULT res = next_cluster(fs, dp->clust, &next);
            if (res != FR_OK) {
                return res;
            }
            if (next == 0) {
                if (!stretch) {
                    dp->sect = 0;
                    return FR_NO_FILE;
                }
                // The new cluster is marked used, zeroed, and only then linked.
                if ((res = alloc_cluster(fs, dp->clust, &next)) != FR_OK) {
                    return res;
                }
                if (next == 0) {
                    return FR_DENIED;
                }
                if ((res = clear_cluster(fs, next)) != FR_OK ||
                    (res = put_fat(fs, dp->clust, next)) != FR_OK) {
                    return res;
                }
            }
            dp->clust = next;
            dp->sect = clust2sect(fs, next);
        }
    }
    dp->dptr = ofs;
    dp->dir = nullptr;
    return FR_OK;
}

FRESULT dir_load(DIR* dp) {
    FRESULT res = move_window(dp->obj.fs, dp->sect);
    if (res == FR_OK) {
        dp->dir = dp->obj.fs->win + dp->dptr % SS;
    }
    return res;
}

// Checksum of a short name, repeated in each long-name entry that belongs to it.
static BYTE sfn_sum(const BYTE* name) {
    BYTE sum = 0;
    for (UINT i = 0; i < 11; i++) {
        sum = (BYTE)(((sum & 1) ? 0x80 : 0) + (sum >> 1) + name[i]);
    }
    return sum;
}

static bool name_matches(const BYTE* dir, const BYTE* fn) {
    for (UINT i = 0; i < 11; i++) {
        BYTE c = dir[i];
        if (c >= 'a' && c <= 'z') {
            c = (BYTE)(c - 'a' + 'A'); // short names should be upper case; match them anyway
        }
        if (c != fn[i]) {
            return false;
        }
    }
    return true;
}

// Looks up dp->fn in the directory dp->obj.sclust. Leaves dp at the entry, with blk_ofs at the
// long-name entries that belong to it.
static FRESULT dir_find(DIR* dp) {
    FRESULT res = dir_seek(dp, 0);
    if (res != FR_OK) {
        return res;
    }
    DWORD lfn_start = UNKNOWN;
    BYTE lfn_sum = 0;
    dp->blk_ofs = UNKNOWN;
    for (;;) {
        if ((res = dir_load(dp)) != FR_OK) {
            return res;
        }
        const BYTE* d = dp->dir;
        BYTE c = d[DIR_Name];
        if (c == 0) {
            return FR_NO_FILE;
        }
        BYTE a = d[DIR_Attr] & AM_MASK;
        if (c == DDEM) {
            lfn_start = UNKNOWN;
        } else if (a == AM_LFN) {
            if (c & LLEF) {
                lfn_start = dp->dptr;
                lfn_sum = d[LDIR_Chksum];
            } else if (d[LDIR_Chksum] != lfn_sum) {
                lfn_start = UNKNOWN;
            }
        } else {
            if (!(a & AM_VOL) && name_matches(d, dp->fn)) {
                if (lfn_start != UNKNOWN && sfn_sum(d) == lfn_sum) {
                    dp->blk_ofs = lfn_start;
                }
                return FR_OK;
            }
            lfn_start = UNKNOWN;
        }
        if ((res = dir_next(dp, false)) != FR_OK) {
            return res;
        }
    }
}

// Moves dp to the next entry to list: a file or a directory, not a long-name part, a volume label,
// a deleted entry or a dot entry.
static FRESULT dir_read(DIR* dp) {
    while (dp->sect != 0) {
        FRESULT res = dir_load(dp);
        if (res != FR_OK) {
            return res;
        }
        BYTE c = dp->dir[DIR_Name];
        if (c == 0) {
            dp->sect = 0;
            break;
        }
        BYTE a = dp->dir[DIR_Attr] & AM_MASK;
        if (c != DDEM && c != '.' && a != AM_LFN && !(a & AM_VOL)) {
            return FR_OK;
        }
        if ((res = dir_next(dp, false)) != FR_OK) {
            return res;
        }
    }
    return FR_NO_FILE;
}

// Finds a free entry in the directory, growing it by a cluster when it is full.
static FRESULT dir_alloc(DIR* dp) {
    FRESULT res = dir_seek(dp, 0);
    while (res == FR_OK) {
        if ((res = dir_load(dp)) != FR_OK) {
            break;
        }
        BYTE c = dp->dir[DIR_Name];
        if (c == 0 || c == DDEM) {
            return FR_OK;
        }
        res = dir_next(dp, true);
    }
    return res == FR_NO_FILE ? FR_DENIED : res;
}

FRESULT dir_register(DIR* dp) {
    FRESULT res = dir_alloc(dp);
    if (res == FR_OK) {
        res = dir_load(dp);
    }
    if (res != FR_OK) {
        return res;
    }
    memset(dp->dir, 0, SZDIRE);
    memcpy(dp->dir + DIR_Name, dp->fn, 11);
    dp->obj.fs->wflag = 1;
    return FR_OK;
}

// Marks the entry at dp deleted, its long-name entries first.
static FRESULT dir_remove(DIR* dp, bool keep_short) {
    DWORD last = dp->dptr;
    FRESULT res;
    if (dp->blk_ofs != UNKNOWN && dp->blk_ofs < last) {
        if ((res = dir_seek(dp, dp->blk_ofs)) != FR_OK) {
            return res;
        }
        while (dp->dptr < last) {
            if ((res = dir_load(dp)) != FR_OK) {
                return res;
            }
            dp->dir[DIR_Name] = DDEM;
            dp->obj.fs->wflag = 1;
            if ((res = dir_next(dp, false)) != FR_OK) {
                return res;
            }
        }
    }
    dp->blk_ofs = UNKNOWN;
    if ((res = dir_load(dp)) != FR_OK) {
        return res;
    }
    if (!keep_short) {
        dp->dir[DIR_Name] = DDEM;
        dp->obj.fs->wflag = 1;
    }
    return FR_OK;
}

FRESULT follow_path(DIR* dp, const TCHAR* path) {
    dp->fn[11] = 0;
    dp->blk_ofs = UNKNOWN;
    dp->obj.sclust = 0;
    dp->dir = nullptr;
    while (is_separator(*path)) {
        path++;
    }
    if ((BYTE)*path < ' ') {
        dp->fn[11] = NS_NONAME; // the root directory itself
        return dir_seek(dp, 0);
    }
    for (;;) {
        FRESULT res = create_name(dp, &path);
        if (res != FR_OK) {
            return res;
        }
        res = dir_find(dp);
        bool last = (dp->fn[11] & NS_LAST) != 0;
        if (res != FR_OK) {
            return (res == FR_NO_FILE && !last) ? FR_NO_PATH : res;
        }
        if (last) {
            return FR_OK;
        }
        if (!(dp->dir[DIR_Attr] & AM_DIR)) {
            return FR_NO_PATH;
        }
        dp->obj.sclust = as_parent(dp->obj.fs, ld_clust(dp->obj.fs, dp->dir));
    }
}

static void get_fileinfo(const DIR* dp, FILINFO* fno) {
    const BYTE* d = dp->dir;
    UINT j = 0;
    for (UINT i = 0; i < 11; i++) {
        BYTE c = d[i];
        if (i == 8) {
            if (c == ' ') {
                break;
            }
            while (j > 0 && fno->fname[j - 1] == ' ') {
                j--;
            }
            fno->fname[j++] = '.';
        }
        if (i == 0 && c == RDDEM) {
            c = DDEM;
        }
        fno->fname[j++] = (TCHAR)c;
    }
    while (j > 0 && fno->fname[j - 1] == ' ') {
        j--;
    }
    fno->fname[j] = '\0';
    fno->fattrib = d[DIR_Attr] & AM_MASK;
    fno->fsize = ld32(d + DIR_FileSize);
    fno->fdate = ld16(d + DIR_WrtDate);
    fno->ftime = ld16(d + DIR_WrtTime);
}

// Fills a new directory entry's times and first cluster.
static void init_entry(FATFS* fs, BYTE* d, BYTE attr, DWORD clst, DWORD tm) {
    d[DIR_Attr] = attr;
    st32(d + DIR_CrtTime, tm);
    st16(d + DIR_LstAccDate, (WORD)(tm >> 16));
    st32(d + DIR_WrtTime, tm);
    st_clust(fs, d, clst);
}

// Whether the directory `clst` lies inside the directory `ancestor` (or is it), following ".."
// entries up to the root.
static FRESULT is_within(FATFS* fs, DWORD clst, DWORD ancestor, bool* within) {
    *within = false;
    for (UINT depth = 0; clst != 0; depth++) {
        if (clst == ancestor) {
            *within = true;
            return FR_OK;
        }
        if (depth > 1024 || !valid_cluster(fs, clst)) {
            return FR_INT_ERR;
        }
        FRESULT res = move_window(fs, clust2sect(fs, clst));
        if (res != FR_OK) {
            return res;
        }
        const BYTE* dotdot = fs->win + SZDIRE;
        if (dotdot[0] != '.' || dotdot[1] != '.') {
            return FR_INT_ERR;
        }
        clst = as_parent(fs, ld_clust(fs, dotdot));
    }
    return FR_OK;
}

} // namespace fat

using namespace fat;

extern "C" {

FRESULT f_opendir(DIR* dp, const TCHAR* path) {
    if (dp == nullptr) {
        return FR_INVALID_OBJECT;
    }
    dp->obj.fs = nullptr;
    FATFS* fs;
    FRESULT res = find_volume(&path, &fs, false);
    if (res != FR_OK) {
        return res;
    }
    dp->obj.fs = fs;
    res = follow_path(dp, path);
    if (res == FR_OK && !(dp->fn[11] & NS_NONAME)) {
        if (dp->dir[DIR_Attr] & AM_DIR) {
            dp->obj.sclust = as_parent(fs, ld_clust(fs, dp->dir));
        } else {
            res = FR_NO_PATH;
        }
    }
    if (res == FR_OK) {
        dp->obj.id = fs->id;
        res = dir_seek(dp, 0);
    }
    if (res == FR_NO_FILE) {
        res = FR_NO_PATH;
    }
    if (res != FR_OK) {
        dp->obj.fs = nullptr;
    }
    return res;
}

FRESULT f_readdir(DIR* dp, FILINFO* fno) {
    FATFS* fs;
    FRESULT res = validate(dp != nullptr ? &dp->obj : nullptr, &fs);
    if (res != FR_OK) {
        return res;
    }
    if (fno == nullptr) {
        return dir_seek(dp, 0);
    }
    res = dir_read(dp);
    if (res == FR_NO_FILE) {
        fno->fname[0] = '\0';
        return FR_OK;
    }
    if (res != FR_OK) {
        return res;
    }
    get_fileinfo(dp, fno);
    res = dir_next(dp, false);
    return res == FR_NO_FILE ? FR_OK : res;
}

FRESULT f_closedir(DIR* dp) {
    FATFS* fs;
    FRESULT res = validate(dp != nullptr ? &dp->obj : nullptr, &fs);
    if (res == FR_OK) {
        dp->obj.fs = nullptr;
    }
    return res;
}

FRESULT f_mkdir(const TCHAR* path) {
    FATFS* fs;
    FRESULT res = find_volume(&path, &fs, true);
    if (res != FR_OK) {
        return res;
    }
    DIR dj;
    dj.obj.fs = fs;
    res = follow_path(&dj, path);
    if (res == FR_OK) {
        return FR_EXIST;
    }
    if (res != FR_NO_FILE) {
        return res;
    }
    if (dj.fn[11] & NS_DOT) {
        return FR_INVALID_NAME;
    }
    DWORD dcl;
    if ((res = alloc_cluster(fs, 0, &dcl)) != FR_OK) {
        return res;
    }
    if (dcl == 0) {
        return FR_DENIED;
    }
    // The new directory is complete on the card before the parent names it.
    DWORD tm = get_fattime();
    if ((res = clear_cluster(fs, dcl)) != FR_OK) {
        return res;
    }
    fs->winsect = clust2sect(fs, dcl); // zeroed like every sector of the cluster
    BYTE* d = fs->win;
    memset(d, ' ', 11);
    d[0] = '.';
    init_entry(fs, d, AM_DIR, dcl, tm);
    memset(d + SZDIRE, ' ', 11);
    d[SZDIRE] = '.';
    d[SZDIRE + 1] = '.';
    init_entry(fs, d + SZDIRE, AM_DIR, dj.obj.sclust, tm);
    fs->wflag = 1;
    if ((res = sync_window(fs)) != FR_OK) {
        return res;
    }
    res = dir_register(&dj);
    if (res != FR_OK) {
        remove_chain(fs, dcl);
        sync_fs(fs);
        return res;
    }
    init_entry(fs, dj.dir, AM_DIR, dcl, tm);
    fs->wflag = 1;
    return sync_fs(fs);
}

FRESULT f_unlink(const TCHAR* path) {
    FATFS* fs;
    FRESULT res = find_volume(&path, &fs, true);
    if (res != FR_OK) {
        return res;
    }
    DIR dj;
    dj.obj.fs = fs;
    res = follow_path(&dj, path);
    if (res == FR_OK && (dj.fn[11] & (NS_NONAME | NS_DOT))) {
        return FR_INVALID_NAME;
    }
    if (res != FR_OK) {
        return res;
    }
    BYTE attr = dj.dir[DIR_Attr];
    DWORD dcl = ld_clust(fs, dj.dir);
    if (attr & AM_RDO) {
        return FR_DENIED;
    }
    if (attr & AM_DIR) {
        if (!valid_cluster(fs, dcl)) {
            return FR_INT_ERR;
        }
        DIR sd;
        sd.obj.fs = fs;
        sd.obj.sclust = dcl;
        res = dir_seek(&sd, 0);
        if (res == FR_OK) {
            res = dir_read(&sd);
        }
        if (res == FR_OK) {
            return FR_DENIED; // not empty
        }
        if (res != FR_NO_FILE) {
            return res;
        }
    }
    // The entry goes first; its chain is freed after.
    if ((res = dir_remove(&dj, false)) != FR_OK || (res = sync_window(fs)) != FR_OK) {
        return res;
    }
    if (dcl != 0 && (res = remove_chain(fs, dcl)) != FR_OK) {
        return res;
    }
    return sync_fs(fs);
}

FRESULT f_rename(const TCHAR* path_old, const TCHAR* path_new) {
    FATFS* fs;
    FRESULT res = find_volume(&path_old, &fs, true);
    if (res != FR_OK) {
        return res;
    }
    DIR djo;
    djo.obj.fs = fs;
    res = follow_path(&djo, path_old);
    if (res == FR_OK && (djo.fn[11] & (NS_NONAME | NS_DOT))) {
        return FR_INVALID_NAME;
    }
    if (res != FR_OK) {
        return res;
    }
    BYTE entry[SZDIRE];
    memcpy(entry, djo.dir, SZDIRE);
    if ((res = take_drive(&path_new)) != FR_OK) {
        return res;
    }
    DIR djn;
    djn.obj.fs = fs;
    res = follow_path(&djn, path_new);
    if (res == FR_OK) {
        if (djn.obj.sclust == djo.obj.sclust && djn.dptr == djo.dptr) {
            return FR_OK; // the same object under the same 8.3 name
        }
        return (djn.fn[11] & NS_NONAME) ? FR_INVALID_NAME : FR_EXIST;
    }
    if (res != FR_NO_FILE) {
        return res;
    }
    if (djn.fn[11] & NS_DOT) {
        return FR_INVALID_NAME;
    }
    bool is_dir = (entry[DIR_Attr] & AM_DIR) != 0;
    DWORD dcl = ld_clust(fs, entry);
    DWORD new_parent = djn.obj.sclust;
    if (djn.obj.sclust == djo.obj.sclust) {
        // Renamed in place: one sector write (its long-name entries are dropped first, so a cut
        // leaves the old short name).
        if ((res = dir_remove(&djo, true)) != FR_OK) {
            return res;
        }
        memcpy(djo.dir + DIR_Name, djn.fn, 11);
        fs->wflag = 1;
        return sync_fs(fs);
    }
    if (is_dir) {
        bool within;
        if ((res = is_within(fs, new_parent, dcl, &within)) != FR_OK) {
            return res;
        }
        if (within) {
            return FR_INVALID_NAME; // a directory cannot move into itself
        }
    }
    // Moved: the slot in the new directory is reserved (growing it if needed), the old entry is
    // removed, then the new one written.
    if ((res = dir_alloc(&djn)) != FR_OK) {
        return res;
    }
    if ((res = dir_remove(&djo, false)) != FR_OK || (res = sync_window(fs)) != FR_OK ||
        (res = dir_load(&djn)) != FR_OK) {
        return res;
    }
    memcpy(djn.dir, entry, SZDIRE);
    memcpy(djn.dir + DIR_Name, djn.fn, 11);
    if (!is_dir) {
        djn.dir[DIR_Attr] |= AM_ARC;
    }
    fs->wflag = 1;
    if (is_dir && valid_cluster(fs, dcl)) {
        // The moved directory's ".." now names its new parent.
        if ((res = move_window(fs, clust2sect(fs, dcl))) != FR_OK) {
            return res;
        }
        BYTE* dotdot = fs->win + SZDIRE;
        if (dotdot[0] == '.' && dotdot[1] == '.') {
            st_clust(fs, dotdot, new_parent);
            fs->wflag = 1;
        }
    }
    return sync_fs(fs);
}

} // extern "C"
