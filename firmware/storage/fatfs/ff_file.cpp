// File calls of the FAT module: open, read, write, seek, sync, close. A file keeps its own one-sector
// buffer, so a short append costs one data sector and, at close, the directory entry's sector.
//
// Write ordering. The card can lose power between any two sector writes; the order below makes
// such a cut leave at most lost clusters (allocated in the FAT but reachable from no entry), never a
// cross-linked chain or a directory entry that covers unwritten data:
//  1. A cluster a file grows into is first marked in the FAT as the end of a chain of its own
//     (alloc_cluster): if the power goes now, it is a lost cluster.
//  2. The cluster's data is written (the file buffer, or whole sectors straight from the caller).
//  3. Only then is it linked from the file's previous cluster: FIL.pclust holds the link back until
//     the buffer holding the cluster's data has been written (commit_link), and the window writes
//     a FAT sector to every FAT copy in turn.
//  4. f_sync and f_close write the data sector, then the pending link and the FAT sector, then the
//     directory entry (size, first cluster, time), then FSInfo, then flush the card.
// Between 3 and 4 the chain may be one cluster longer than the size says; nothing is lost.
// A truncating f_open empties the entry before it frees the old chain.
#include "storage/fatfs/ff_internal.h"

#include <string.h>

namespace fat {

// Writes the file's buffered sector if it holds unwritten data.
static FRESULT flush_buffer(FIL* fp, FATFS* fs) {
    if (!(fp->flag & FA_DIRTY)) {
        return FR_OK;
    }
    if (disk_write(fs->pdrv, fp->buf, fp->sect, 1) != RES_OK) {
        return FR_DISK_ERR;
    }
    fp->flag &= (BYTE)~FA_DIRTY;
    return FR_OK;
}

// Links the file's newest cluster into its chain; its data must already be on the card.
static FRESULT commit_link(FIL* fp, FATFS* fs) {
    if (fp->pclust == 0) {
        return FR_OK;
    }
    FRESULT res = put_fat(fs, fp->pclust, fp->clust);
    if (res == FR_OK) {
        fp->pclust = 0;
    }
    return res;
}

// The data written so far reaches the card, then the link to its cluster (steps 2 and 3).
static FRESULT settle(FIL* fp, FATFS* fs) {
    FRESULT res = flush_buffer(fp, fs);
    if (res == FR_OK) {
        res = commit_link(fp, fs);
    }
    return res;
}

// The next cluster of a growing file: the next one of its plan when it has one (see ff_tail.h),
// otherwise the first free cluster after `prev`.
static FRESULT grow(FIL* fp, FATFS* fs, DWORD prev, DWORD* c) {
    if (fp->plan_n == 0) {
        return alloc_cluster(fs, prev, c);
    }
    *c = *fp->plan++;
    fp->plan_n--;
    return take_cluster(fs, *c);
}

// A failed file stays failed: later calls report the first error.
static FRESULT abort_file(FIL* fp, FRESULT res) {
    fp->err = (BYTE)res;
    return res;
}

} // namespace fat

FRESULT fat::check_file(FIL* fp, FATFS** fs) {
    FRESULT res = validate(fp != nullptr ? &fp->obj : nullptr, fs);
    if (res != FR_OK) {
        return res;
    }
    return (FRESULT)fp->err;
}

FRESULT fat::check_writer(FIL* fp, FATFS** fs) {
    FRESULT res = check_file(fp, fs);
    if (res == FR_OK && !(fp->flag & FA_WRITE)) {
        res = FR_DENIED;
    }
    return res;
}

namespace fat {

// Makes the entry found by dj a new empty file, or empties the existing one (its old chain is freed
// after the entry stops pointing at it).
static FRESULT reset_entry(DIR* dj, bool created) {
    FATFS* fs = dj->obj.fs;
    FRESULT res = dir_load(dj);
    if (res != FR_OK) {
        return res;
    }
    DWORD old_chain = created ? 0 : ld_clust(fs, dj->dir);
    DWORD tm = get_fattime();
    dj->dir[DIR_Attr] = AM_ARC;
    dj->dir[DIR_NTRes] = 0;
    dj->dir[DIR_CrtTimeTenth] = 0;
    st32(dj->dir + DIR_CrtTime, tm);
    st16(dj->dir + DIR_LstAccDate, (WORD)(tm >> 16));
    st32(dj->dir + DIR_WrtTime, tm);
    st_clust(fs, dj->dir, 0);
    st32(dj->dir + DIR_FileSize, 0);
    fs->wflag = 1;
    if ((res = sync_window(fs)) != FR_OK) {
        return res;
    }
    if (old_chain != 0) {
        if ((res = remove_chain(fs, old_chain)) != FR_OK) {
            return res;
        }
        res = sync_fs(fs);
    }
    return res;
}

} // namespace fat

using namespace fat;

extern "C" {

FRESULT f_open(FIL* fp, const TCHAR* path, BYTE mode) {
    if (fp == nullptr) {
        return FR_INVALID_OBJECT;
    }
    fp->obj.fs = nullptr;
    mode &= FA_READ | FA_WRITE | FA_CREATE_ALWAYS | FA_CREATE_NEW | FA_OPEN_ALWAYS | FA_OPEN_APPEND;
    FATFS* fs;
    FRESULT res = find_volume(&path, &fs, (mode & ~FA_READ) != 0);
    if (res != FR_OK) {
        return res;
    }
    DIR dj;
    dj.obj.fs = fs;
    res = follow_path(&dj, path);
    if (dj.fn[11] & (NS_NONAME | NS_DOT)) {
        return res == FR_OK || res == FR_NO_FILE ? FR_INVALID_NAME : res;
    }
    if (mode & (FA_CREATE_ALWAYS | FA_OPEN_ALWAYS | FA_CREATE_NEW)) {
        bool created = false;
        if (res == FR_NO_FILE) {
            res = dir_register(&dj);
            created = true;
        } else if (res == FR_OK) {
            if (dj.dir[DIR_Attr] & (AM_RDO | AM_DIR)) {
                res = FR_DENIED;
            } else if (mode & FA_CREATE_NEW) {
                res = FR_EXIST;
            }
        }
        if (res == FR_OK && (created || (mode & FA_CREATE_ALWAYS))) {
            res = reset_entry(&dj, created);
            mode |= FA_MODIFIED;
        }
    } else if (res == FR_OK) {
        if (dj.dir[DIR_Attr] & AM_DIR) {
            res = FR_NO_FILE;
        } else if ((mode & FA_WRITE) && (dj.dir[DIR_Attr] & AM_RDO)) {
            res = FR_DENIED;
        }
    }
    if (res == FR_OK) {
        res = dir_load(&dj);
    }
    if (res != FR_OK) {
        return res;
    }
    fp->dir_sect = dj.sect;
    fp->dir_ptr = dj.dir;
    fp->obj.attr = dj.dir[DIR_Attr];
    fp->obj.stat = 0;
    fp->obj.sclust = ld_clust(fs, dj.dir);
    fp->obj.objsize = ld32(dj.dir + DIR_FileSize);
    fp->obj.id = fs->id;
    fp->flag = mode & (FA_READ | FA_WRITE | FA_MODIFIED);
    fp->err = 0;
    fp->fptr = 0;
    fp->clust = 0;
    fp->sect = 0;
    fp->pclust = 0;
    fp->plan = nullptr;
    fp->plan_n = 0;
    fp->obj.fs = fs;
    if ((mode & FA_OPEN_APPEND) == FA_OPEN_APPEND && fp->obj.objsize > 0) {
        res = f_lseek(fp, fp->obj.objsize);
        if (res != FR_OK) {
            fp->obj.fs = nullptr;
        }
    }
    return res;
}

FRESULT f_read(FIL* fp, void* buff, UINT btr, UINT* br) {
    UINT ignored;
    if (br == nullptr) {
        br = &ignored;
    }
    *br = 0;
    FATFS* fs;
    FRESULT res = check_file(fp, &fs);
    if (res != FR_OK) {
        return res;
    }
    if (!(fp->flag & FA_READ)) {
        return FR_DENIED;
    }
    FSIZE_t remain = fp->obj.objsize > fp->fptr ? fp->obj.objsize - fp->fptr : 0;
    if (btr > remain) {
        btr = (UINT)remain;
    }
    BYTE* out = (BYTE*)buff;
    while (btr > 0) {
        UINT off = (UINT)(fp->fptr % SS);
        if (off == 0) {
            // Entering a sector; at a cluster boundary the chain decides where it lies.
            UINT csect = (UINT)(fp->fptr / SS) & (fs->csize - 1U);
            if (csect == 0) {
                DWORD c = fp->obj.sclust;
                if (fp->fptr != 0 && (res = next_cluster(fs, fp->clust, &c)) != FR_OK) {
                    return abort_file(fp, res);
                }
                if (!valid_cluster(fs, c)) {
                    return abort_file(fp, FR_INT_ERR); // the chain ends before the size does
                }
                fp->clust = c;
            }
            LBA_t sect = clust2sect(fs, fp->clust) + csect;
            UINT cc = btr / SS;
            if (cc > 0) {
                // Whole sectors go straight to the caller, up to the end of the cluster.
                if (csect + cc > fs->csize) {
                    cc = fs->csize - csect;
                }
                if (disk_read(fs->pdrv, out, sect, cc) != RES_OK) {
                    return abort_file(fp, FR_DISK_ERR);
                }
                if ((fp->flag & FA_DIRTY) && fp->sect - sect < cc) {
                    memcpy(out + (fp->sect - sect) * SS, fp->buf, SS);
                }
                UINT n = cc * SS;
                out += n;
                fp->fptr += n;
                *br += n;
                btr -= n;
                continue;
            }
            if (fp->sect != sect) {
                if ((res = flush_buffer(fp, fs)) != FR_OK) {
                    return abort_file(fp, res);
                }
                if (disk_read(fs->pdrv, fp->buf, sect, 1) != RES_OK) {
                    return abort_file(fp, FR_DISK_ERR);
                }
                fp->sect = sect;
            }
        }
        UINT n = SS - off;
        if (n > btr) {
            n = btr;
        }
        memcpy(out, fp->buf + off, n);
        out += n;
        fp->fptr += n;
        *br += n;
        btr -= n;
    }
    return FR_OK;
}

FRESULT f_write(FIL* fp, const void* buff, UINT btw, UINT* bw) {
    UINT ignored;
    if (bw == nullptr) {
        bw = &ignored;
    }
    *bw = 0;
    FATFS* fs;
    FRESULT res = check_writer(fp, &fs);
    if (res != FR_OK) {
        return res;
    }
    if ((FSIZE_t)(fp->fptr + btw) < fp->fptr) {
        btw = (UINT)(0xFFFFFFFF - fp->fptr); // a file stays below 4 GiB
    }
    const BYTE* in = (const BYTE*)buff;
    while (btw > 0) {
        UINT off = (UINT)(fp->fptr % SS);
        if (off == 0) {
            UINT csect = (UINT)(fp->fptr / SS) & (fs->csize - 1U);
            if (csect == 0) {
                // Entering a cluster. The previous cluster's data goes to the card before its link.
                if ((res = settle(fp, fs)) != FR_OK) {
                    return abort_file(fp, res);
                }
                DWORD c = fp->obj.sclust;
                if (fp->fptr != 0 && (res = next_cluster(fs, fp->clust, &c)) != FR_OK) {
                    return abort_file(fp, res);
                }
                if (c == 0) {
                    DWORD prev = fp->fptr != 0 ? fp->clust : 0;
                    if ((res = grow(fp, fs, prev, &c)) != FR_OK) {
                        return abort_file(fp, res);
                    }
                    if (c == 0) {
                        break; // the volume is full: a short write
                    }
                    if (prev == 0) {
                        fp->obj.sclust = c; // reaches the directory entry at the next sync
                    } else {
                        fp->pclust = prev;
                    }
                    fp->flag |= FA_MODIFIED;
                } else if (!valid_cluster(fs, c)) {
                    return abort_file(fp, FR_INT_ERR);
                }
                fp->clust = c;
            }
            if ((res = flush_buffer(fp, fs)) != FR_OK) {
                return abort_file(fp, res);
            }
            LBA_t sect = clust2sect(fs, fp->clust) + csect;
            UINT cc = btw / SS;
            if (cc > 0) {
                if (csect + cc > fs->csize) {
                    cc = fs->csize - csect;
                }
                if (disk_write(fs->pdrv, in, sect, cc) != RES_OK) {
                    return abort_file(fp, FR_DISK_ERR);
                }
                if (fp->sect - sect < cc) {
                    memcpy(fp->buf, in + (fp->sect - sect) * SS, SS); // keep the buffer current
                }
                UINT n = cc * SS;
                in += n;
                fp->fptr += n;
                *bw += n;
                btw -= n;
                if (fp->fptr > fp->obj.objsize) {
                    fp->obj.objsize = fp->fptr;
                }
                fp->flag |= FA_MODIFIED;
                continue;
            }
            if (fp->sect != sect) {
                if (fp->fptr < fp->obj.objsize) {
                    if (disk_read(fs->pdrv, fp->buf, sect, 1) != RES_OK) {
                        return abort_file(fp, FR_DISK_ERR);
                    }
                } else {
                    memset(fp->buf, 0, SS); // past the end: nothing to keep
                }
                fp->sect = sect;
            }
        }
        UINT n = SS - off;
        if (n > btw) {
            n = btw;
        }
        memcpy(fp->buf + off, in, n);
        fp->flag |= FA_DIRTY | FA_MODIFIED;
        in += n;
        fp->fptr += n;
        *bw += n;
        btw -= n;
        if (fp->fptr > fp->obj.objsize) {
            fp->obj.objsize = fp->fptr;
        }
    }
    return FR_OK;
}

FRESULT f_lseek(FIL* fp, FSIZE_t ofs) {
    FATFS* fs;
    FRESULT res = check_file(fp, &fs);
    if (res != FR_OK) {
        return res;
    }
    if ((res = settle(fp, fs)) != FR_OK) {
        return abort_file(fp, res);
    }
    bool write = (fp->flag & FA_WRITE) != 0;
    if (ofs > fp->obj.objsize && !write) {
        ofs = fp->obj.objsize;
    }
    FSIZE_t old_ptr = fp->fptr;
    fp->fptr = 0;
    if (ofs == 0) {
        return FR_OK;
    }
    // fp->clust is the cluster holding the byte before fptr; walk the chain to the one holding
    // the byte before ofs, from the current cluster when that is on the way.
    DWORD bcs = (DWORD)fs->csize * SS;
    DWORD target = (ofs - 1) / bcs;
    DWORD index = 0;
    DWORD c = fp->obj.sclust;
    if (old_ptr > 0 && target >= (old_ptr - 1) / bcs) {
        index = (old_ptr - 1) / bcs;
        c = fp->clust;
    } else if (c == 0) {
        if (!write) {
            return abort_file(fp, FR_INT_ERR); // a size but no cluster
        }
        // An empty file in write mode gets its first cluster.
        if ((res = alloc_cluster(fs, 0, &c)) != FR_OK) {
            return abort_file(fp, res);
        }
        if (c == 0) {
            return FR_OK; // the volume is full: the pointer stays at 0
        }
        fp->obj.sclust = c;
        fp->flag |= FA_MODIFIED;
    }
    if (!valid_cluster(fs, c)) {
        return abort_file(fp, FR_INT_ERR);
    }
    while (index < target) {
        DWORD next;
        if ((res = next_cluster(fs, c, &next)) != FR_OK) {
            return abort_file(fp, res);
        }
        if (next == 0) {
            if ((uint64_t)(index + 1) * bcs < fp->obj.objsize) {
                return abort_file(fp, FR_INT_ERR); // the chain ends before the size does
            }
            // Growing past the end: the new clusters hold whatever the card had there.
            if ((res = alloc_cluster(fs, c, &next)) != FR_OK) {
                return abort_file(fp, res);
            }
            if (next == 0) {
                ofs = (FSIZE_t)(index + 1) * bcs; // the volume is full: stop at the last cluster
                break;
            }
            if ((res = put_fat(fs, c, next)) != FR_OK) {
                return abort_file(fp, res);
            }
            fp->flag |= FA_MODIFIED;
        }
        c = next;
        index++;
    }
    fp->clust = c;
    fp->fptr = ofs;
    if (ofs > fp->obj.objsize) {
        fp->obj.objsize = ofs;
        fp->flag |= FA_MODIFIED;
    }
    if (ofs % SS != 0) {
        LBA_t sect = clust2sect(fs, c) + (UINT)((ofs % bcs) / SS);
        if (sect != fp->sect) {
            if (disk_read(fs->pdrv, fp->buf, sect, 1) != RES_OK) {
                return abort_file(fp, FR_DISK_ERR);
            }
            fp->sect = sect;
        }
    }
    return FR_OK;
}

FRESULT f_sync(FIL* fp) {
    FATFS* fs;
    FRESULT res = check_file(fp, &fs);
    if (res != FR_OK) {
        return res;
    }
    if (!(fp->flag & FA_MODIFIED)) {
        return FR_OK;
    }
    // Data, then the link to it and the FAT, then the entry, then FSInfo (see the top of the file).
    if ((res = settle(fp, fs)) != FR_OK || (res = sync_window(fs)) != FR_OK ||
        (res = move_window(fs, fp->dir_sect)) != FR_OK) {
        return abort_file(fp, res);
    }
    BYTE* dir = fp->dir_ptr;
    DWORD tm = get_fattime();
    dir[DIR_Attr] |= AM_ARC;
    st_clust(fs, dir, fp->obj.sclust);
    st32(dir + DIR_FileSize, fp->obj.objsize);
    st32(dir + DIR_WrtTime, tm);
    st16(dir + DIR_LstAccDate, (WORD)(tm >> 16));
    fs->wflag = 1;
    if ((res = sync_fs(fs)) != FR_OK) {
        return abort_file(fp, res);
    }
    fp->flag &= (BYTE)~FA_MODIFIED;
    return FR_OK;
}

// The entry stops covering the clusters before they are freed, so a power cut in between leaves
// lost clusters, never an entry whose size runs past its chain.
FRESULT f_truncate(FIL* fp) {
    FATFS* fs;
    FRESULT res = check_writer(fp, &fs);
    if (res != FR_OK || fp->fptr >= fp->obj.objsize) {
        return res;
    }
    if ((res = settle(fp, fs)) != FR_OK) {
        return abort_file(fp, res);
    }
    DWORD first_freed = fp->obj.sclust;
    if (fp->fptr > 0 && (res = next_cluster(fs, fp->clust, &first_freed)) != FR_OK) {
        return abort_file(fp, res);
    }
    fp->obj.objsize = fp->fptr;
    if (fp->fptr == 0) {
        fp->obj.sclust = 0;
    }
    fp->flag |= FA_MODIFIED;
    if ((res = f_sync(fp)) != FR_OK || first_freed == 0) {
        return res;
    }
    if ((fp->fptr > 0 && (res = put_fat(fs, fp->clust, end_of_chain(fs))) != FR_OK) ||
        (res = remove_chain(fs, first_freed)) != FR_OK || (res = sync_fs(fs)) != FR_OK) {
        return abort_file(fp, res);
    }
    return FR_OK;
}

FRESULT f_close(FIL* fp) {
    FRESULT res = f_sync(fp);
    if (res != FR_OK) {
        return res;
    }
    fp->obj.fs = nullptr;
    return FR_OK;
}

} // extern "C"
