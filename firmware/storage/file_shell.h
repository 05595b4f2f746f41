// The console file shell of the microSD card: list, show, make, remove and rename files and
// directories from the terminal. It keeps its own current directory as text and hands the file
// system absolute paths, so the file system needs no directory-change call.
//
// The commands have the form of a command-line table's handlers, `int Cmd_x(int argc, char* argv[])`,
// with argv[0] the command word, so the console command line can call them with the words of its
// line. They print their results and errors on the console and return 0 when done, the FatFs result
// (> 0) when the file system refused, or one of the SHELL_* codes below.
#pragma once

#include <cstdint>

constexpr int SHELL_BAD_CMD = -1;       // not a command of this shell
constexpr int SHELL_TOO_MANY_ARGS = -2; // more words than the command takes
constexpr int SHELL_TOO_FEW_ARGS = -3;  // fewer words than the command needs
constexpr int SHELL_INVALID_ARG = -4;   // a path too long, or one the command may not touch
constexpr int SHELL_EXIT = -5;          // Cmd_exit: leave the shell

// Longest absolute path the shell builds, with its NUL (the current directory included).
constexpr uint32_t FILE_SHELL_PATH_SIZE = 80;
// Longest typed line and most words in it.
constexpr uint32_t FILE_SHELL_LINE_MAX = 80;
constexpr uint32_t FILE_SHELL_MAX_ARGS = 8;
// viewFiles returns after this many seconds without a typed line, so that the menu that called it
// can time out and put the board to sleep.
constexpr uint32_t FILE_SHELL_IDLE_S = 300;
// Bytes Cmd_cat reads and sends at a time.
constexpr uint32_t FILE_SHELL_CAT_CHUNK = 64;

// ls [dir]: names, sizes and dates of a directory (the current one by default), then the counts and
// the free space of the card.
int Cmd_ls(int argc, char* argv[]);
// cd [dir]: changes the current directory; ".." goes up, a leading "/" starts at the top, no
// argument goes to the top.
int Cmd_cd(int argc, char* argv[]);
// pwd: prints the current directory.
int Cmd_pwd(int argc, char* argv[]);
// cat file: sends a file's bytes as stored; Ctrl-C stops it.
int Cmd_cat(int argc, char* argv[]);
// mkdir dir
int Cmd_mkdir(int argc, char* argv[]);
// rm name: removes a file or an empty directory (not one holding the current directory).
int Cmd_rm(int argc, char* argv[]);
// mv old new: renames; when new is an existing directory, moves old into it.
int Cmd_mv(int argc, char* argv[]);
// help: lists the commands.
int Cmd_help(int argc, char* argv[]);
// exit: returns SHELL_EXIT.
int Cmd_exit(int argc, char* argv[]);

// Splits a typed line into words (in place) and runs the command its first word names (letter case
// does not matter). An empty line does nothing and returns 0.
int file_shell_command(char* line);
// The absolute path that arg names from the current directory: "." and empty parts dropped, ".."
// going up (not above the top), letters upper-cased as the card stores 8.3 names. False when the
// result does not fit in size bytes (out is then undefined).
bool file_shell_path(const char* arg, char* out, uint32_t size);
// The current directory, "/" or "/DIR/SUB".
const char* file_shell_cwd(void);

// The shell on the console: from the top directory, prompts with the current directory, reads a
// line (feeding the watchdog while it waits) and runs it, until "exit" or FILE_SHELL_IDLE_S seconds
// without a line. Typed characters are echoed as the caller set the console (the main menu turns echo
// on).
void viewFiles(void);
