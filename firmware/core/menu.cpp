// Operator menus and deployed command mode.
//
// Placeholder module: the console entry routines are complete, while exec_command knows only the
// words that end a deployment, and exec_main_menu and deploy_start do nothing yet. The menus and
// the full command set replace them.
#include "core/menu.h"

#include <cstring>
#include <ctime>

#include "core/board_util.h"
#include "core/system.h"
#include "driverlib/hibernate.h"
#include "hostlink/serial.h"
#include "ports/uartstdio.h"

namespace {
bool starts_with(const char* line, const char* word) {
    return strncmp(line, word, strlen(word)) == 0;
}
} // namespace

// Placeholder: a line starting with stop, exit or quit ends the deployment, a time-out resumes it,
// anything else is refused.
uint32_t exec_command(uint32_t timeout_s) {
    if (sys_data.app_cfg[APPCFG_DEPLOY_UARTECHO] == 0) {
        UARTEchoSet(false);
    }
    char line[81];
    for (;;) {
        UARTFlushRx();
        if (getUserInputTimeLimit(line, sizeof(line), timeout_s) == -1) {
            return 1;
        }
        if (starts_with(line, "stop") || starts_with(line, "exit") || starts_with(line, "quit")) {
            sys_samp.state = IDLE;
            UARTEchoSet(true);
            storeSysSampFRAMVariables();
            return 0;
        }
        uprintf("NAK\r\n");
    }
}

// Placeholder: the main menu is not built yet.
void exec_main_menu(void) {}

// Placeholder: the deployment start dialogue is not built yet.
void deploy_start(void) {}

int32_t getUserInputTimeLimit(char* buf, uint32_t size, uint32_t timeout_s) {
    uint32_t start = HibernateRTCGet();
    while (UARTPeek('\r') < 0) {
        if (HibernateRTCGet() - start > timeout_s) {
            return -1;
        }
        wdog_pet();
    }
    return UARTgets(buf, size);
}

uint32_t yesOrNoMenuChoice(const char* prompt, uint32_t dflt) {
    uprintf("%s", prompt);
    uint8_t key = get_key_m2m();
    if (key == 'Y' || key == 'y') {
        return 1;
    }
    if (key == 'N' || key == 'n') {
        return 0;
    }
    return dflt;
}

void print_time_t_Time(uint32_t t) {
    time_t seconds = static_cast<time_t>(t);
    char text[32];
    if (strftime(text, sizeof(text), "%m/%d/%Y %H:%M:%S", localtime(&seconds)) == 0) {
        return;
    }
    uprintf("%s", text);
}
