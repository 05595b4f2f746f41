// Console file shell of the microSD card. The current directory is kept here as an absolute path;
// every argument is turned into an absolute path before it reaches the file system. File-system
// refusals are reported as "<call> error: <result name>", as everywhere else in the firmware.
#include "storage/file_shell.h"

#include "board/board_util.h"
#include "board/timebase.h"
#include "ports/uartstdio.h"
#include "storage/fatfs/ff.h"
#include "storage/microsd.h"
#include "storage/sd_append.h"

#include "driverlib/hibernate.h"

#include <cstring>

namespace {

char cwd[FILE_SHELL_PATH_SIZE] = "/";

constexpr char CTRL_C = 0x03;

struct ShellCommand {
    const char* name;
    int (*run)(int argc, char* argv[]);
    const char* usage;
    const char* help;
};

const ShellCommand commands[] = {
    {"ls", Cmd_ls, "ls [dir]", "list files with their sizes and dates, and the free space"},
    {"cd", Cmd_cd, "cd [dir]", "change directory (.. goes up, / or nothing goes to the top)"},
    {"pwd", Cmd_pwd, "pwd", "show the current directory"},
    {"cat", Cmd_cat, "cat file", "print a file (Ctrl-C stops)"},
    {"mkdir", Cmd_mkdir, "mkdir dir", "make a directory"},
    {"rm", Cmd_rm, "rm name", "remove a file or an empty directory"},
    {"mv", Cmd_mv, "mv old new", "rename, or move into an existing directory"},
    {"help", Cmd_help, "help", "list these commands"},
    {"exit", Cmd_exit, "exit", "leave the file shell"},
};

bool same_word(const char* a, const char* b) {
    for (; *a != '\0' && *b != '\0'; a++, b++) {
        char ca = (*a >= 'A' && *a <= 'Z') ? static_cast<char>(*a - 'A' + 'a') : *a;
        if (ca != *b) {
            return false;
        }
    }
    return *a == '\0' && *b == '\0';
}

const ShellCommand* find_command(const char* word) {
    for (const ShellCommand& c : commands) {
        if (same_word(word, c.name)) {
            return &c;
        }
    }
    return nullptr;
}

// Checks the word count against the command's limits; prints its usage when it is off.
int check_args(int argc, char* argv[], int min, int max) {
    if (argc >= min && argc <= max) {
        return 0;
    }
    const ShellCommand* c = argc > 0 ? find_command(argv[0]) : nullptr;
    if (c != nullptr) {
        uprintf("usage: %s\r\n", c->usage);
    }
    return argc < min ? SHELL_TOO_FEW_ARGS : SHELL_TOO_MANY_ARGS;
}

bool is_separator(char c) {
    return c == '/' || c == '\\';
}

// True when dir is path itself or one of the directories above it.
bool holds(const char* dir, const char* path) {
    if (strcmp(dir, "/") == 0) {
        return true;
    }
    size_t n = strlen(dir);
    return strncmp(dir, path, n) == 0 && (path[n] == '\0' || path[n] == '/');
}

// Turns a command's argument into an absolute path; says so when it is too long.
bool resolve(const char* arg, char* out) {
    if (file_shell_path(arg, out, FILE_SHELL_PATH_SIZE)) {
        return true;
    }
    uprintf("path too long\r\n");
    return false;
}

// A command's one path argument: checks the word count and resolves the argument, or `dflt` when
// it is left out. 0, or the code the command returns.
int path_arg(int argc, char* argv[], int min, const char* dflt, char* out) {
    int bad = check_args(argc, argv, min, 2);
    if (bad != 0) {
        return bad;
    }
    if (!resolve(argc > 1 ? argv[1] : dflt, out)) {
        return SHELL_INVALID_ARG;
    }
    return 0;
}

// The last part of an absolute path ("" for the top).
const char* last_part(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

bool is_directory(const char* path) {
    if (strcmp(path, "/") == 0) {
        return true;
    }
    DIR dir;
    if (f_opendir(&dir, path) != FR_OK) {
        return false;
    }
    f_closedir(&dir);
    return true;
}

int report(const char* call, FRESULT fr) {
    uprintf("%s error: %s\r\n", call, StringFromFresult(fr));
    return static_cast<int>(fr);
}

void print_entry(const FILINFO& fno) {
    unsigned year = 1980u + (fno.fdate >> 9);
    unsigned month = (fno.fdate >> 5) & 0x0Fu;
    unsigned day = fno.fdate & 0x1Fu;
    unsigned hour = fno.ftime >> 11;
    unsigned minute = (fno.ftime >> 5) & 0x3Fu;
    uprintf("%04u/%02u/%02u %02u:%02u ", year, month, day, hour, minute);
    if ((fno.fattrib & AM_DIR) != 0) {
        uprintf("     <DIR>  %s\r\n", fno.fname);
    } else {
        uprintf("%10lu  %s\r\n", static_cast<unsigned long>(fno.fsize), fno.fname);
    }
}

enum class LineWait { line, idle, overflow };

// Waits for a whole typed line, feeding the watchdog. A receive buffer filled without a line end
// cannot become a line: it is reported as an overflow.
LineWait wait_for_line(void) {
    uint32_t start = HibernateRTCGet();
    while (UARTPeek('\r') < 0) {
        if (UARTRxBytesAvail() >= static_cast<int>(UART_RX_BUFFER_SIZE) - 1) {
            return LineWait::overflow;
        }
        if (HibernateRTCGet() - start >= FILE_SHELL_IDLE_S) {
            return LineWait::idle;
        }
        // Typed bytes wait in the receive buffer, so a look every millisecond is enough.
        wdog_pet();
        delay_msec(1);
    }
    return LineWait::line;
}

} // namespace

bool file_shell_path(const char* arg, char* out, uint32_t size) {
    if (size < 2) {
        return false;
    }
    // Built without the leading "/" of the top directory: "" is the top, "/A/B" below it.
    size_t len = 0;
    if (!is_separator(arg[0]) && strcmp(cwd, "/") != 0) {
        len = strlen(cwd);
        if (len >= size) {
            return false;
        }
        memcpy(out, cwd, len);
    }
    out[len] = '\0';

    const char* p = arg;
    while (*p != '\0') {
        while (is_separator(*p)) {
            p++;
        }
        const char* part = p;
        while (*p != '\0' && !is_separator(*p)) {
            p++;
        }
        size_t part_len = static_cast<size_t>(p - part);
        if (part_len == 0 || (part_len == 1 && part[0] == '.')) {
            continue;
        }
        if (part_len == 2 && part[0] == '.' && part[1] == '.') {
            char* slash = strrchr(out, '/');
            len = slash != nullptr ? static_cast<size_t>(slash - out) : 0;
            out[len] = '\0';
            continue;
        }
        if (len + 1 + part_len + 1 > size) {
            return false;
        }
        out[len++] = '/';
        for (size_t i = 0; i < part_len; i++) {
            char c = part[i];
            out[len++] = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
        }
        out[len] = '\0';
    }
    if (len == 0) {
        out[0] = '/';
        out[1] = '\0';
    }
    return true;
}

const char* file_shell_cwd(void) {
    return cwd;
}

int Cmd_ls(int argc, char* argv[]) {
    char path[FILE_SHELL_PATH_SIZE];
    int bad = path_arg(argc, argv, 1, ".", path);
    if (bad != 0) {
        return bad;
    }
    DIR dir;
    FRESULT fr = f_opendir(&dir, path);
    if (fr != FR_OK) {
        return report("f_opendir", fr);
    }
    uint32_t files = 0;
    uint32_t dirs = 0;
    uint64_t bytes = 0;
    while (true) {
        FILINFO fno;
        fr = f_readdir(&dir, &fno);
        if (fr != FR_OK || fno.fname[0] == '\0') {
            break;
        }
        if (strcmp(fno.fname, ".") == 0 || strcmp(fno.fname, "..") == 0) {
            continue;
        }
        print_entry(fno);
        if ((fno.fattrib & AM_DIR) != 0) {
            dirs++;
        } else {
            files++;
            bytes += fno.fsize;
        }
        wdog_pet();
    }
    f_closedir(&dir);
    if (fr != FR_OK) {
        return report("f_readdir", fr);
    }
    uprintf("%4u file(s), %lu bytes\r\n", static_cast<unsigned>(files), static_cast<unsigned long>(bytes));
    uprintf("%4u dir(s)", static_cast<unsigned>(dirs));

    DWORD free_clusters = 0;
    FATFS* fs = nullptr;
    fr = f_getfree("", &free_clusters, &fs);
    if (fr != FR_OK) {
        uprintf("\r\n");
        return report("f_getfree", fr);
    }
    // Sectors are 512 bytes: two to a kilobyte.
    uint64_t free_kb = static_cast<uint64_t>(free_clusters) * fs->csize / 2;
    uprintf(", %lu KB free\r\n", static_cast<unsigned long>(free_kb));
    return 0;
}

int Cmd_cd(int argc, char* argv[]) {
    char path[FILE_SHELL_PATH_SIZE];
    int bad = path_arg(argc, argv, 1, "/", path);
    if (bad != 0) {
        return bad;
    }
    if (strcmp(path, "/") != 0) {
        DIR dir;
        FRESULT fr = f_opendir(&dir, path);
        if (fr != FR_OK) {
            return report("f_opendir", fr);
        }
        f_closedir(&dir);
    }
    memcpy(cwd, path, sizeof cwd);
    return 0;
}

int Cmd_pwd(int argc, char* argv[]) {
    int bad = check_args(argc, argv, 1, 1);
    if (bad != 0) {
        return bad;
    }
    uprintf("%s\r\n", cwd);
    return 0;
}

int Cmd_cat(int argc, char* argv[]) {
    char path[FILE_SHELL_PATH_SIZE];
    int bad = path_arg(argc, argv, 2, nullptr, path);
    if (bad != 0) {
        return bad;
    }
    FIL* fil = sd_file_take();
    FRESULT fr = fil != nullptr ? f_open(fil, path, FA_READ) : FR_LOCKED;
    if (fr != FR_OK) {
        sd_file_give();
        return report("f_open", fr);
    }
    char chunk[FILE_SHELL_CAT_CHUNK];
    char last = '\n';
    while (true) {
        UINT got = 0;
        fr = f_read(fil, chunk, sizeof chunk, &got);
        if (fr != FR_OK || got == 0) {
            break;
        }
        UARTwrite(chunk, got);
        last = chunk[got - 1];
        wdog_pet();
        if (UARTPeek(CTRL_C) >= 0) {
            UARTFlushRx();
            uprintf("^C");
            last = 0;
            break;
        }
    }
    // The prompt goes on a line of its own even when the file does not end with one.
    if (last != '\n') {
        uprintf("\r\n");
    }
    f_close(fil);
    sd_file_give();
    if (fr != FR_OK) {
        return report("f_read", fr);
    }
    return 0;
}

int Cmd_mkdir(int argc, char* argv[]) {
    char path[FILE_SHELL_PATH_SIZE];
    int bad = path_arg(argc, argv, 2, nullptr, path);
    if (bad != 0) {
        return bad;
    }
    FRESULT fr = f_mkdir(path);
    if (fr != FR_OK) {
        return report("f_mkdir", fr);
    }
    return 0;
}

int Cmd_rm(int argc, char* argv[]) {
    char path[FILE_SHELL_PATH_SIZE];
    int bad = path_arg(argc, argv, 2, nullptr, path);
    if (bad != 0) {
        return bad;
    }
    if (holds(path, cwd)) {
        uprintf("rm: %s holds the current directory\r\n", path);
        return SHELL_INVALID_ARG;
    }
    FRESULT fr = f_unlink(path);
    if (fr != FR_OK) {
        return report("f_unlink", fr);
    }
    sd_append_space_freed();
    return 0;
}

int Cmd_mv(int argc, char* argv[]) {
    int bad = check_args(argc, argv, 3, 3);
    if (bad != 0) {
        return bad;
    }
    char from[FILE_SHELL_PATH_SIZE];
    char to[FILE_SHELL_PATH_SIZE];
    if (!resolve(argv[1], from) || !resolve(argv[2], to)) {
        return SHELL_INVALID_ARG;
    }
    if (holds(from, cwd)) {
        uprintf("mv: %s holds the current directory\r\n", from);
        return SHELL_INVALID_ARG;
    }
    if (is_directory(to)) {
        size_t len = strcmp(to, "/") == 0 ? 0 : strlen(to);
        const char* name = last_part(from);
        if (len + 1 + strlen(name) + 1 > sizeof to) {
            uprintf("path too long\r\n");
            return SHELL_INVALID_ARG;
        }
        to[len] = '/';
        strcpy(to + len + 1, name);
    }
    // A directory moved below itself would leave the tree.
    if (strcmp(from, to) != 0 && holds(from, to)) {
        uprintf("mv: %s cannot go into itself\r\n", from);
        return SHELL_INVALID_ARG;
    }
    FRESULT fr = f_rename(from, to);
    if (fr != FR_OK) {
        return report("f_rename", fr);
    }
    return 0;
}

int Cmd_help(int argc, char* argv[]) {
    uprintf("File commands (paths relative to the current directory or from /):\r\n");
    for (const ShellCommand& c : commands) {
        uprintf("  %-12s %s\r\n", c.usage, c.help);
    }
    return 0;
}

int Cmd_exit(int argc, char* argv[]) {
    return SHELL_EXIT;
}

int file_shell_command(char* line) {
    char* argv[FILE_SHELL_MAX_ARGS + 1];
    int argc = 0;
    char* p = line;
    while (*p != '\0') {
        while (*p == ' ' || *p == '\t') {
            *p++ = '\0';
        }
        if (*p == '\0') {
            break;
        }
        if (argc == static_cast<int>(FILE_SHELL_MAX_ARGS)) {
            uprintf("too many words\r\n");
            return SHELL_TOO_MANY_ARGS;
        }
        argv[argc++] = p;
        while (*p != '\0' && *p != ' ' && *p != '\t') {
            p++;
        }
    }
    argv[argc] = nullptr;
    if (argc == 0) {
        return 0;
    }
    const ShellCommand* c = find_command(argv[0]);
    if (c == nullptr) {
        uprintf("%s: unknown command, help lists them\r\n", argv[0]);
        return SHELL_BAD_CMD;
    }
    return c->run(argc, argv);
}

void viewFiles(void) {
    strcpy(cwd, "/");
    UARTFlushRx();
    uprintf("\r\nmicroSD card files: help lists the commands, exit returns to the menu\r\n");
    // Room for one character more than accepted, to tell a cut line from a full one.
    char line[FILE_SHELL_LINE_MAX + 2];
    bool skip_line = false;
    while (true) {
        if (!skip_line) {
            uprintf("%s> ", cwd);
        }
        LineWait got = wait_for_line();
        if (got == LineWait::idle) {
            uprintf("\r\nno input, leaving the file shell\r\n");
            return;
        }
        if (got == LineWait::overflow) {
            // The rest of that line, up to its line end, is dropped too.
            UARTFlushRx();
            uprintf("\r\nline too long\r\n");
            skip_line = true;
            continue;
        }
        int len = UARTgets(line, sizeof line);
        if (skip_line) {
            skip_line = false;
            continue;
        }
        if (len > static_cast<int>(FILE_SHELL_LINE_MAX)) {
            uprintf("line too long\r\n");
            continue;
        }
        if (file_shell_command(line) == SHELL_EXIT) {
            return;
        }
    }
}
