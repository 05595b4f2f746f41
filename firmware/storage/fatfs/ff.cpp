// Placeholder of the FAT module: every call reports the volume as not ready, so the file code above
// it takes its error paths ("f_open error: FR_NOT_READY" and the like) and the work goes on. Our FAT
// module replaces this file with the storage work; closing an object that was never opened is
// refused as an invalid object, as the real module does.
#include "storage/fatfs/ff.h"

extern "C" {

FRESULT f_mount(FATFS* fs, const TCHAR* path, BYTE opt) {
    return FR_NOT_READY;
}
FRESULT f_open(FIL* fp, const TCHAR* path, BYTE mode) {
    return FR_NOT_READY;
}
FRESULT f_close(FIL* fp) {
    return FR_INVALID_OBJECT;
}
FRESULT f_read(FIL* fp, void* buff, UINT btr, UINT* br) {
    if (br != nullptr) {
        *br = 0;
    }
    return FR_NOT_READY;
}
FRESULT f_write(FIL* fp, const void* buff, UINT btw, UINT* bw) {
    if (bw != nullptr) {
        *bw = 0;
    }
    return FR_NOT_READY;
}
FRESULT f_lseek(FIL* fp, FSIZE_t ofs) {
    return FR_NOT_READY;
}
FRESULT f_sync(FIL* fp) {
    return FR_NOT_READY;
}
FRESULT f_opendir(DIR* dp, const TCHAR* path) {
    return FR_NOT_READY;
}
FRESULT f_readdir(DIR* dp, FILINFO* fno) {
    return FR_NOT_READY;
}
FRESULT f_closedir(DIR* dp) {
    return FR_INVALID_OBJECT;
}
FRESULT f_mkdir(const TCHAR* path) {
    return FR_NOT_READY;
}
FRESULT f_unlink(const TCHAR* path) {
    return FR_NOT_READY;
}
FRESULT f_rename(const TCHAR* path_old, const TCHAR* path_new) {
    return FR_NOT_READY;
}
FRESULT f_getfree(const TCHAR* path, DWORD* nclst, FATFS** fatfs) {
    return FR_NOT_READY;
}
FRESULT f_mkfs(const TCHAR* path, const MKFS_PARM* opt, void* work, UINT len) {
    return FR_NOT_READY;
}

} // extern "C"
