// Corrupt card images under the FAT module: a valid FAT16 or FAT32 image made at start-up by the
// module's own f_mkfs and filled with files, then patched by the input, mounted, listed, read and
// appended to (through the firmware's append sessions and its calibration reader). The disk sits in
// memory in place of the card driver. Every operation must end with a result code, within a bounded
// number of sector reads, and never write outside the disk or the volume the boot sector declares,
// nor over the boot sector itself.
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "core/main.h"
#include "records/system.h"
#include "fuzz_board.h"
#include "storage/calfile.h"
#include "storage/fatfs/diskio.h"
#include "storage/fatfs/ff.h"
#include "storage/i2c_fram.h"
#include "storage/microsd.h"
#include "storage/sd_append.h"

namespace {

constexpr uint32_t SECTOR = 512;
constexpr size_t MAX_INPUT = 2048;
// Far more than the operations below read on any image the module should accept; a loop in a
// corrupt cluster chain or directory runs into it.
constexpr uint64_t READ_LIMIT = 200000;

struct Disk {
    std::vector<uint8_t> base;                        // the valid image
    std::map<uint32_t, std::vector<uint8_t>> changed; // sectors patched or written since
    uint32_t sectors() const { return static_cast<uint32_t>(base.size() / SECTOR); }
    uint8_t* sector(uint32_t n) {
        auto it = changed.find(n);
        if (it == changed.end()) {
            it = changed
                     .emplace(
                         n, std::vector<uint8_t>(base.begin() + n * SECTOR, base.begin() + (n + 1) * SECTOR))
                     .first;
        }
        return it->second.data();
    }
    const uint8_t* read(uint32_t n) const {
        auto it = changed.find(n);
        return it != changed.end() ? it->second.data() : base.data() + static_cast<size_t>(n) * SECTOR;
    }
};

Disk g_fat16;
Disk g_fat32;
Disk* g_disk;
bool g_formatting;
uint64_t g_reads;

uint32_t le32(const uint8_t* p) {
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// The volume's size as its boot sector states it (the whole disk when it states none).
uint32_t declared_sectors(void) {
    const uint8_t* bs = g_disk->read(0);
    uint32_t n = bs[19] | bs[20] << 8;
    if (n == 0) {
        n = le32(bs + 32);
    }
    return n == 0 ? g_disk->sectors() : n;
}

} // namespace

extern "C" {

DSTATUS disk_initialize(BYTE pdrv) {
    return pdrv == 0 && g_disk != nullptr ? 0 : STA_NOINIT;
}

DSTATUS disk_status(BYTE pdrv) {
    return disk_initialize(pdrv);
}

DRESULT disk_read(BYTE pdrv, BYTE* buff, LBA_t sector, UINT count) {
    if (disk_status(pdrv) != 0) {
        return RES_NOTRDY;
    }
    for (UINT i = 0; i < count; ++i) {
        fuzz::check(++g_reads < READ_LIMIT, "a FAT operation on a corrupt image does not end");
        if (sector + i >= g_disk->sectors()) {
            return RES_PARERR;
        }
        memcpy(buff + i * SECTOR, g_disk->read(static_cast<uint32_t>(sector + i)), SECTOR);
    }
    return RES_OK;
}

DRESULT disk_write(BYTE pdrv, const BYTE* buff, LBA_t sector, UINT count) {
    if (disk_status(pdrv) != 0) {
        return RES_NOTRDY;
    }
    for (UINT i = 0; i < count; ++i) {
        LBA_t n = sector + i;
        if (!g_formatting) {
            fuzz::check(n < g_disk->sectors(), "the FAT module wrote past the end of the disk");
            fuzz::check(n < declared_sectors(), "the FAT module wrote past the end of the volume");
            fuzz::check(n != 0, "the FAT module wrote over the boot sector");
        }
        if (n >= g_disk->sectors()) {
            return RES_PARERR;
        }
        memcpy(g_disk->sector(static_cast<uint32_t>(n)), buff + i * SECTOR, SECTOR);
    }
    return RES_OK;
}

DRESULT disk_ioctl(BYTE pdrv, BYTE cmd, void* buff) {
    if (disk_status(pdrv) != 0) {
        return RES_NOTRDY;
    }
    switch (cmd) {
    case CTRL_SYNC:
        return RES_OK;
    case GET_SECTOR_COUNT:
        *static_cast<LBA_t*>(buff) = g_disk->sectors();
        return RES_OK;
    case GET_SECTOR_SIZE:
        *static_cast<WORD*>(buff) = SECTOR;
        return RES_OK;
    case GET_BLOCK_SIZE:
        *static_cast<DWORD*>(buff) = 1;
        return RES_OK;
    default:
        return RES_PARERR;
    }
}

void disk_timerproc(void) {}

DWORD get_fattime(void) {
    return (46u << 25) | (1u << 21) | (1u << 16); // 2026-01-01 00:00:00
}

} // extern "C"

namespace {

const char CAL_TEXT[] =
    "Sensor_SN,S1234\r\nISFET_SN,I55\r\nISE_SN,E66\r\nPT_Cal_date,01/02/2026\r\n"
    "k2_C0,-1.1e-3\r\nk2_C1,2.0e-6\r\nk2_C2,0\r\nk2_C3,0\r\nfP_0,0.1\r\nfP_1,0.2\r\n"
    "fP_2,0.3\r\nfP_3,0.4\r\nfP_4,0.5\r\nfP_5,0.6\r\nfP_6,0.7\r\nk0_Cal_date,01/03/2026\r\n"
    "k0_HCl,-1.4\r\nk0_SW,-1.39\r\nk0std_SW,0.001\r\nservice_date,01/04/2026\r\n";

bool put_file(const char* name, const std::string& text) {
    FIL f;
    UINT bw = 0;
    return f_open(&f, name, FA_WRITE | FA_CREATE_ALWAYS) == FR_OK &&
           f_write(&f, text.data(), static_cast<UINT>(text.size()), &bw) == FR_OK && f_close(&f) == FR_OK &&
           bw == text.size();
}

// A formatted disk holding a data file over several clusters, a calibration file, an error log and
// a file in a folder.
void make_image(Disk& disk, uint32_t bytes, BYTE fmt, DWORD au) {
    disk.base.assign(bytes, 0);
    disk.changed.clear();
    g_disk = &disk;
    g_formatting = true;
    static uint8_t work[32768];
    MKFS_PARM opt{};
    opt.fmt = fmt | FM_SFD;
    opt.n_fat = 2;
    opt.au_size = au;
    fuzz::check(f_mkfs("", &opt, work, sizeof work) == FR_OK, "f_mkfs failed");
    fuzz::check(f_mount(&g_sFatFs, "", 1) == FR_OK, "the new image does not mount");
    std::string lines;
    for (int i = 0; i < 120; ++i) {
        lines += "2026-01-01 00:00:00\t1\t7.9\t15.0\r\n";
    }
    bool ok = put_file("DATA.TXT", lines) && put_file(CAL_CARD_FILENAME, CAL_TEXT) &&
              put_file("Error.txt", "an old error\r\n") && f_mkdir("SUB") == FR_OK &&
              put_file("SUB/LOG.TXT", "in a folder\r\n");
    fuzz::check(ok, "the new image could not be filled");
    f_mount(nullptr, "", 0);
    for (auto& [n, data] : disk.changed) {
        memcpy(disk.base.data() + static_cast<size_t>(n) * SECTOR, data.data(), SECTOR);
    }
    disk.changed.clear();
    g_formatting = false;
}

// Patches: [sector low, sector high, offset low, offset high, length, bytes...] applied to the
// first sectors of the image (boot sector, FATs, root directory, the first clusters).
void apply_patches(const uint8_t* data, size_t size) {
    uint32_t area = std::min<uint32_t>(g_disk->sectors(), 2048);
    size_t at = 0;
    while (at + 5 <= size) {
        uint32_t sector = (data[at] | data[at + 1] << 8) % area;
        uint32_t offset = (data[at + 2] | data[at + 3] << 8) % SECTOR;
        size_t len = std::min<size_t>(data[at + 4], size - at - 5);
        len = std::min<size_t>(len, SECTOR - offset);
        memcpy(g_disk->sector(sector) + offset, data + at + 5, len);
        at += 5 + len;
    }
}

bool known(FRESULT fr) {
    return fr >= FR_OK && fr <= FR_INVALID_PARAMETER;
}

void read_file(const char* path) {
    FIL f;
    FRESULT fr = f_open(&f, path, FA_READ);
    fuzz::check(known(fr), "f_open returned no FRESULT");
    if (fr != FR_OK) {
        return;
    }
    char buf[SECTOR];
    UINT br = 0;
    FSIZE_t total = 0;
    for (int i = 0; i < 64; ++i) {
        fr = f_read(&f, buf, sizeof buf, &br);
        fuzz::check(known(fr), "f_read returned no FRESULT");
        fuzz::check(br <= sizeof buf, "f_read reported more bytes than asked for");
        total += br;
        if (fr != FR_OK || br == 0) {
            break;
        }
    }
    fuzz::check(total <= f_size(&f), "f_read read past the file's size");
    f_close(&f);
}

void list_dir(const char* path, int depth) {
    DIR dir;
    FRESULT fr = f_opendir(&dir, path);
    fuzz::check(known(fr), "f_opendir returned no FRESULT");
    if (fr != FR_OK) {
        return;
    }
    for (int i = 0; i < 32; ++i) {
        FILINFO info;
        fr = f_readdir(&dir, &info);
        fuzz::check(known(fr), "f_readdir returned no FRESULT");
        if (fr != FR_OK || info.fname[0] == '\0') {
            break;
        }
        fuzz::check(memchr(info.fname, 0, sizeof info.fname) != nullptr,
                    "f_readdir gave a name without its NUL");
        std::string full = std::string(path) + "/" + info.fname;
        if ((info.fattrib & AM_DIR) != 0) {
            if (depth < 2 && info.fname[0] != '.') {
                list_dir(full.c_str(), depth + 1);
            }
        } else {
            read_file(full.c_str());
        }
    }
    f_closedir(&dir);
}

const char LINE[] = "2026-01-02 00:00:00\t2\t8.0\t15.1\r\n";

// One line appended in a session, as the data and log writers append; every step must answer.
void append(const char* name, TailSlot slot) {
    FRESULT fr = sd_append_open(name, slot);
    fuzz::check(known(fr), "sd_append_open returned no FRESULT");
    if (fr != FR_OK) {
        return;
    }
    fr = sd_append_seek();
    fuzz::check(known(fr), "sd_append_seek returned no FRESULT");
    if (fr == FR_OK) {
        fuzz::check(known(sd_append_write(LINE, sizeof LINE - 1)), "sd_append_write returned no FRESULT");
    }
    fuzz::check(known(sd_append_close()), "sd_append_close returned no FRESULT");
}

void operations(void) {
    FRESULT fr = f_mount(&g_sFatFs, "", 1);
    fuzz::check(known(fr), "f_mount returned no FRESULT");
    if (fr != FR_OK) {
        return;
    }
    microSD_flg = 1;
    sd_append_start();
    list_dir("", 0);
    DWORD free_clusters = 0;
    FATFS* fs = nullptr;
    fuzz::check(known(f_getfree("", &free_clusters, &fs)), "f_getfree returned no FRESULT");
    append("DATA.TXT", TailSlot::data_file);
    append("DATA.TXT", TailSlot::data_file);
    append("Error.txt", TailSlot::error_log);
    append("NEW.TXT", TailSlot::other);
    import_pH_sensor_cal_coeff();
    fuzz::check(known(f_unlink("SUB/LOG.TXT")), "f_unlink returned no FRESULT");
    fuzz::check(known(f_rename("NEW.TXT", "OLD.TXT")), "f_rename returned no FRESULT");
    fuzz::check(known(f_mkdir("NEWDIR")), "f_mkdir returned no FRESULT");
    read_file("DATA.TXT");
    f_mount(nullptr, "", 0);
}

std::vector<uint8_t> g_fram_append;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::factory_board();
    fuzz::check(sim::test::run([] {
                    init();
                    make_image(g_fat16, 4u << 20, FM_FAT, 512);
                    make_image(g_fat32, 34u << 20, FM_FAT32, 512);
                }).returned,
                "the card images could not be made");
    g_fram_append.assign(sim::fram_bytes() + FRAM_APPEND_ADDR,
                         sim::fram_bytes() + FRAM_APPEND_ADDR + FRAM_APPEND_SIZE);
    return 0;
}

// The first byte chooses the image (even FAT16, odd FAT32); the rest patches it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > MAX_INPUT) {
        return -1;
    }
    fuzz::keep_board_on();
    sim::test::clear_console_output();
    // What the appends remember in FRAM belongs to the image of the previous input.
    memcpy(sim::fram_bytes() + FRAM_APPEND_ADDR, g_fram_append.data(), g_fram_append.size());
    g_disk = (data[0] & 1) == 0 ? &g_fat16 : &g_fat32;
    g_disk->changed.clear();
    apply_patches(data + 1, size - 1);
    g_reads = 0;
    const systemData before = sys_data;
    sim::test::Outcome o = sim::test::run(operations);
    fuzz::check(o.returned, "the card operations ended the power-on period");
    sys_data = before; // the calibration reader may have loaded DF384.cal
    return 0;
}
