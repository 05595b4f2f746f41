// The board directory as hxc3-sim finds it: a new board gets its factory EEPROM (written by the
// firmware itself), a blank FRAM, its RTC, a scenario.ini with every key and a formatted card; a
// memory file of the wrong size is refused.
#include "board_dir.h"

#include "board.h"
#include "devices.h"

#include "records/system.h"
#include "storage/settings.h"
#include "driverlib/eeprom.h"
#include "driverlib/sysctl.h"
#include "storage/fatfs/ff.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sim::frontend {

namespace {

constexpr uint64_t card_bytes = 256ull * 1024 * 1024; // a new board's microSD card

bool exists(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

[[noreturn]] void defaults_power_off(PowerEvent ev) {
    devices_power_off();
    _exit(ev == PowerEvent::end ? 4 : 5);
}

// The factory defaults of the EEPROM, as board QA leaves them: the firmware's own initialisation
// of the settings, stored by the firmware, on a board whose output nobody reads.
bool write_factory_defaults(const std::string& eeprom) {
    pid_t pid = fork();
    if (pid < 0) {
        message("fork: %s", std::strerror(errno));
        return false;
    }
    if (pid == 0) {
        use_shared(nullptr);
        clear_shared(0);
        shared().run_for_ns = 60 * ns_per_s;
        set_host(Host{[](uint8_t) {}, nullptr, 0, defaults_power_off});
        devices_power_on();
        connect_console();
        begin_period(WakeSource::power);
        SysCtlClockSet(SYSCTL_SYSDIV_4 | SYSCTL_USE_PLL | SYSCTL_OSC_MAIN | SYSCTL_XTAL_16MHZ);
        // The clocks of everything storing the settings reaches (EEPROM, FRAM on I2C0, the
        // watchdog line, the hibernation module), as the firmware's start-up leaves them.
        for (uint32_t p : {SYSCTL_PERIPH_GPIOA, SYSCTL_PERIPH_GPIOB, SYSCTL_PERIPH_GPIOC, SYSCTL_PERIPH_GPIOD,
                           SYSCTL_PERIPH_GPIOE, SYSCTL_PERIPH_GPIOF, SYSCTL_PERIPH_I2C0,
                           SYSCTL_PERIPH_HIBERNATE, SYSCTL_PERIPH_EEPROM0}) {
            SysCtlPeripheralEnable(p);
        }
        EEPROMInit();
        initSysDataVariables();
        storeSysDataVariables();
        devices_power_off();
        _exit(0);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        message("writing the factory defaults into %s failed", eeprom.c_str());
        return false;
    }
    return true;
}

bool write_file(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    if (!out) {
        message("cannot write %s: %s", path.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

bool make_dirs(const std::string& dir) {
    std::string part;
    std::istringstream in(dir);
    std::string piece;
    if (!dir.empty() && dir[0] == '/') {
        part = "/";
    }
    while (std::getline(in, piece, '/')) {
        if (piece.empty()) {
            continue;
        }
        part += piece + "/";
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
            message("cannot create %s: %s", part.c_str(), std::strerror(errno));
            return false;
        }
    }
    return true;
}

} // namespace

std::string path_in_board(const std::string& board, const char* name) {
    return board + "/" + name;
}

// Creates whatever the board directory lacks. A new FRAM is blank; a new RTC stands at --time (or
// the host's clock); a new scenario.ini documents every key at its default; a new sdcard.img is an
// empty FAT32 card.
bool prepare_board(const Options& opt) {
    if (!make_dirs(opt.board)) {
        return false;
    }
    std::string eeprom = path_in_board(opt.board, "eeprom.bin");
    std::string fram = path_in_board(opt.board, "fram.bin");
    std::string scenario = path_in_board(opt.board, "scenario.ini");
    std::string rtc = path_in_board(opt.board, "rtc");
    bool had_fram = exists(fram);
    std::string fram_before;
    if (had_fram) {
        std::ifstream in(fram, std::ios::binary);
        std::ostringstream ss;
        ss << in.rdbuf();
        fram_before = ss.str();
    }
    if (!exists(eeprom)) {
        if (!write_factory_defaults(eeprom)) {
            return false;
        }
        // Storing the settings may touch the FRAM too: it keeps what it had before.
        if (!write_file(fram, had_fram ? fram_before : std::string(fram_size, '\0'))) {
            return false;
        }
    } else if (!had_fram && !write_file(fram, std::string(fram_size, '\0'))) {
        return false;
    }
    if (!exists(rtc)) {
        HibState h{};
        h.trim = 0x7FFF;
        h.rtc_seconds = opt.has_time ? opt.time : static_cast<uint32_t>(std::time(nullptr));
        if (!board::save_rtc(rtc, h)) {
            return false;
        }
    } else if (opt.has_time) {
        message("--time ignored: the board in %s already has its clock", opt.board.c_str());
    }
    if (!exists(scenario) && !write_file(scenario, board::scenario_template())) {
        return false;
    }
    // A new card, formatted as a PC would format it (FAT32), by the firmware's own FAT module, with
    // the spectrometer's factory calibration on it. A board without one runs on with an empty slot.
    std::string card = path_in_board(opt.board, "sdcard.img");
    if (!exists(card) &&
        !sd_make_image(card, card_bytes, FM_FAT32, {{"UVSCAL.CSV", dev::uvs_calibration_file()}})) {
        message("no card image in %s: the microSD slot is empty", opt.board.c_str());
    }
    return true;
}

// A memory file of the wrong size is not a board's memory (a truncated copy, another file): it is
// refused rather than padded into something the firmware would take as written.
bool memories_whole(const Options& opt) {
    struct Memory {
        const char* name;
        uintmax_t bytes;
    };
    bool ok = true;
    for (Memory m : {Memory{"eeprom.bin", eeprom_size}, Memory{"fram.bin", fram_size}}) {
        std::string path = path_in_board(opt.board, m.name);
        struct stat st {};
        if (stat(path.c_str(), &st) != 0) {
            message("cannot read %s: %s", path.c_str(), std::strerror(errno));
            ok = false;
        } else if (static_cast<uintmax_t>(st.st_size) != m.bytes) {
            message("%s: %ju bytes, the memory holds %ju; refused", path.c_str(),
                    static_cast<uintmax_t>(st.st_size), m.bytes);
            ok = false;
        }
    }
    return ok;
}

} // namespace sim::frontend
