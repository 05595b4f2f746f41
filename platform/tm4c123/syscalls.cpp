// newlib-nano system calls and the few C++ run-time hooks of a bare-metal image. There is no file
// system below stdio (the console goes through the firmware's UART driver), the heap serves only
// newlib's own number conversions, and time() reads the hibernation module's RTC.
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/time.h>

#include "driverlib/hibernate.h"
#include "inc/hw_sysctl.h"
#include "inc/hw_types.h"

extern "C" {
extern char end[];           // first byte after .bss (linker script)
extern char __stack_limit[]; // lowest address of the stack reserve

void* _sbrk(ptrdiff_t increment) {
    static char* heap_end = end;
    if (increment < 0 || increment > __stack_limit - heap_end) {
        errno = ENOMEM;
        return reinterpret_cast<void*>(-1);
    }
    char* previous = heap_end;
    heap_end += increment;
    return previous;
}

int _write(int fd, const char* buf, int len) {
    return len;
}

int _read(int fd, char* buf, int len) {
    return 0;
}

int _close(int fd) {
    return -1;
}

int _fstat(int fd, struct stat* st) {
    st->st_mode = S_IFCHR;
    return 0;
}

int _isatty(int fd) {
    return 1;
}

int _lseek(int fd, int offset, int whence) {
    return 0;
}

void _exit(int status) {
    for (;;) {
    }
}

int _kill(int pid, int sig) {
    errno = EINVAL;
    return -1;
}

int _getpid(void) {
    return 1;
}

int _gettimeofday(struct timeval* tv, void* tz) {
    if (tv == nullptr) {
        return 0;
    }
    tv->tv_sec = 0;
    tv->tv_usec = 0;
    // The hibernation registers fault while the module is not clocked.
    if ((HWREG(SYSCTL_PRHIB) & 1) == 0) {
        return 0;
    }
    tv->tv_sec = HibernateRTCGet();
    tv->tv_usec = static_cast<suseconds_t>((HibernateRTCSSGet() * 1000000ULL) >> 15);
    return 0;
}

// newlib's own consistency checks (number conversions out of heap) end here; there is no stderr
// to print them on, and this keeps its FILE machinery out of the image.
void __assert_func(const char* file, int line, const char* func, const char* expr) {
    for (;;) {
    }
}

// Start-up files are not linked; __libc_init_array still calls these.
void _init(void) {}

void _fini(void) {}

// No exceptions, no RTTI, no heap: these only satisfy references the compiler emits.
void __cxa_pure_virtual(void) {
    for (;;) {
    }
}
}

void operator delete(void*) noexcept {}

void operator delete(void*, size_t) noexcept {}
