// The console of hxc3-sim as the outside sees it: keys from the terminal (in raw mode, so that every
// key reaches the board), a pipe or a pseudo-terminal, and the board's console output to stdout or
// the pseudo-terminal; and the signals that end the run.
#include "terminal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace sim::frontend {

namespace {

constexpr uint8_t quit_key = 0x1d; // Ctrl-]

int g_in_fd = -1;        // keys: the terminal, a pipe, or the pty; -1: none (scripts)
int g_out_fd = -1;       // console output: stdout or the pty; -1: --quiet
bool g_quit_key = false; // Ctrl-] ends the run (not on a pty, where it may be data)
bool g_tty_raw = false;
termios g_tty_saved{};
int g_pty_slave = -1;
bool g_on_pty = false; // the end of input on a pty only means that no program has it open now

char g_out_buf[4096];
size_t g_out_len = 0;

void on_signal(int sig) {
    shared().stop_signal = sig;
}

bool open_pty() {
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        message("cannot open a pseudo-terminal: %s", std::strerror(errno));
        return false;
    }
    const char* name = ptsname(master);
    // Holding the other side open keeps the pty alive while no program has it open.
    g_pty_slave = open(name, O_RDWR | O_NOCTTY);
    if (g_pty_slave >= 0) {
        termios t{};
        tcgetattr(g_pty_slave, &t);
        cfmakeraw(&t);
        tcsetattr(g_pty_slave, TCSANOW, &t);
    }
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    std::fprintf(stderr, "console: %s\n", name); // the one line without "sim: ": tools look for it
    g_in_fd = master;
    g_out_fd = master;
    g_on_pty = true;
    return true;
}

} // namespace

void set_signals() {
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0; // no restart: waits return so the stop is seen at once
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

bool open_console(const Options& opt) {
    if (opt.pty) {
        return open_pty();
    }
    g_out_fd = opt.quiet ? -1 : 1;
    if (!opt.script_path.empty()) {
        return true; // the script is the keyboard
    }
    g_in_fd = 0;
    g_quit_key = true;
    if (isatty(0) && tcgetattr(0, &g_tty_saved) == 0) {
        termios raw = g_tty_saved;
        cfmakeraw(&raw);
        raw.c_oflag |= OPOST | ONLCR; // our own messages keep their line ends
        if (tcsetattr(0, TCSAFLUSH, &raw) == 0) {
            g_tty_raw = true;
            std::atexit(restore_terminal);
        }
    }
    return true;
}

void restore_terminal() {
    if (g_tty_raw) {
        tcsetattr(0, TCSAFLUSH, &g_tty_saved);
        g_tty_raw = false;
    }
}

bool keyboard_attached() {
    return g_in_fd >= 0;
}

std::string read_keys(int timeout_ms, bool& quit) {
    quit = false;
    std::string keys;
    if (g_in_fd < 0) {
        return keys;
    }
    pollfd p{g_in_fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) {
        return keys;
    }
    char buf[256];
    ssize_t n = read(g_in_fd, buf, sizeof buf);
    if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) {
        if (!g_on_pty) {
            g_in_fd = -1; // end of input: the board runs on without a keyboard
        }
        return keys;
    }
    for (ssize_t i = 0; i < n; ++i) {
        if (g_quit_key && static_cast<uint8_t>(buf[i]) == quit_key) {
            quit = true;
            break;
        }
        keys += buf[i];
    }
    return keys;
}

void console_byte(uint8_t b) {
    if (g_out_fd < 0) {
        return;
    }
    if (g_out_len == sizeof g_out_buf) {
        flush_output();
    }
    g_out_buf[g_out_len++] = static_cast<char>(b);
}

void flush_output() {
    size_t done = 0;
    while (g_out_fd >= 0 && done < g_out_len) {
        ssize_t n = write(g_out_fd, g_out_buf + done, g_out_len - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break; // nobody reads the pty, or stdout is gone: the output is dropped
        }
        done += static_cast<size_t>(n);
    }
    g_out_len = 0;
}

} // namespace sim::frontend
