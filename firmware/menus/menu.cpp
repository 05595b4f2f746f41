// Operator menus, deployed command mode, deployment start and the console entry routines.
//
// The main menu is what an operator at the console reaches from the idle board; it starts a
// deployment. A deployed board woken by a key offers only the short command mode, with a time limit,
// so that a stray key at sea costs a few seconds and never the deployment.
#include "menus/menu.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "board/board_util.h"
#include "menus/config_menu.h"
#include "storage/microsd.h"
#include "measure/schedule.h"
#include "menus/menu_edit.h"
#include "measure/sleep.h"
#include "records/system.h"
#include "storage/settings.h"
#include "board/timebase.h"
#include "menus/test_menu.h"
#include "driverlib/hibernate.h"
#include "hostlink/serial.h"
#include "hostlink/serial_cmd.h"
#include "measure/sample.h"
#include "measure/sample_line.h"
#include "measure/pump.h"
#include "ports/uartstdio.h"
#include "storage/calfile.h"
#include "storage/config.h"
#include "storage/file_shell.h"

namespace {
// Longest command line of the deployed command mode.
constexpr uint32_t command_line_size = 81;
// Time the operator has to answer a question of the deployment start that needs typing.
constexpr uint32_t entry_timeout_s = 60;
// Time "ss" waits for the "sl" that fetches the sample it took.
constexpr uint32_t ss_reply_timeout_s = 6;

bool starts_with(const char* line, const char* word) {
    return strncmp(line, word, strlen(word)) == 0;
}

bool verbose(void) {
    return sys_data.output == VERBOSE;
}

// No key while the menu waited: an idle board sleeps until the next key, a deployed one (the menu was
// reached from a deployed wake) goes on with its deployment.
void menu_timed_out(void) {
    if (sys_samp.state != DEPLOYED) {
        dbg_printf("\r\nexec_main_menu:***** SLEEP *****\r\n");
        sleep(0, 0);
        return;
    }
    dbg_printf("\r\nEMM: DEPLOYED, calling deploy(DEPLOYED)\r\n");
    deploy(DEPLOYED, 1);
}

// Waits until the key reader has a whole answer (a line, or a controller's "U") or the RTC reaches
// deadline; false on the deadline. A stray byte without its Enter (line noise on a cable left at sea)
// therefore still lets the menu time out instead of holding the board awake.
bool wait_key_until(const RtcDeadline& deadline) {
    while (UARTPeek('\r') < 0 && UARTPeek('U') < 0) {
        if (rtc_deadline_passed(deadline)) {
            return false;
        }
        wdog_pet();
    }
    return true;
}

// Result of one command of the deployed command mode.
enum class CmdResult { resume, stopped, next };

CmdResult command_ss(void) {
    UARTFlushRx();
    pump_and_sample(0, 1);
    char line[command_line_size];
    if (getUserInputTimeLimit(line, sizeof(line), ss_reply_timeout_s) == -1) {
        if (verbose()) {
            uprintf("\r\n\r\nNo command, resuming deployment...");
        }
        return CmdResult::resume;
    }
    if (starts_with(line, "sl")) {
        print_sampBuf();
        wait_consoleTx();
        return CmdResult::resume;
    }
    uprintf("\r\nexpected sl, received %s", line);
    return CmdResult::next;
}

CmdResult command_stop(void) {
    sys_samp.state = IDLE;
    UARTEchoSet(true);
    storeSysSampFRAMVariables();
    return CmdResult::stopped;
}

// The keywords are tried in this order, each over its own length, so a line that begins with a
// keyword acts as that keyword. "pumpon" and "pumpoff" are offered by the prompt but have no action.
CmdResult run_command(const char* line) {
    if (starts_with(line, "gdata") && sys_data.app_cfg[APPCFG_MICROSD_ENABLE] == 1) {
        get_data();
        return CmdResult::next;
    }
    if (starts_with(line, "ts")) {
        pump_and_sample(1, 1);
        return CmdResult::resume;
    }
    if (starts_with(line, "ss")) {
        return command_ss();
    }
    if (starts_with(line, "gc")) {
        get_pH_sensor_cal_coeff();
        return CmdResult::resume;
    }
    if (starts_with(line, "ec")) {
        export_pH_sensor_cal_coeff();
        return CmdResult::resume;
    }
    if (starts_with(line, "gh")) {
        get_header();
        return CmdResult::resume;
    }
    if (starts_with(line, "gm")) {
        print_metadata_header();
        return CmdResult::resume;
    }
    if (starts_with(line, "stop") || starts_with(line, "exit") || starts_with(line, "quit")) {
        return command_stop();
    }
    if (starts_with(line, "dump")) {
        state_dump();
        return CmdResult::next;
    }
    if (starts_with(line, "go") || starts_with(line, "resume")) {
        return CmdResult::resume;
    }
    if (verbose()) {
        uprintf("\r\nInvalid command");
    }
    uprintf("NAK\r\n");
    return CmdResult::next;
}

void ask_pump_delay_minutes(void) {
    uprintf("\r\nEnter delay [%u] min: ", 0u);
    char text[6];
    if (getUserInputTimeLimit(text, sizeof(text), entry_timeout_s) == -1) {
        return;
    }
    unsigned minutes = 0;
    if (sscanf(text, "%5u", &minutes) != 1) {
        return;
    }
    sys_samp.start_pump_cntdown = minutes * 60;
    sys_data.start_pump_time = HibernateRTCGet() + minutes * 60;
    uprintf("\r\nPump start delay is %d minutes, pump starts at ", static_cast<int>(minutes));
    print_time_t_Time(sys_data.start_pump_time);
}

void ask_pump_delay_date(void) {
    uint32_t t = getDateAndTime();
    if (t == 0) {
        return;
    }
    uprintf("\r\nPump will start at: ");
    print_time_t_Time(t);
    uprintf(sys_data.GMT ? " GMT" : " Local");
    sys_data.start_pump_time = t;
    sys_samp.start_pump_cntdown = t - HibernateRTCGet();
    uprintf("\r\nPump delay %d minutes\r\n", static_cast<int>(sys_samp.start_pump_cntdown) / 60);
}

// The prompts still ask for a start delay although the message calls the feature disabled: both
// are what operators have been trained on.
void ask_pump_settings(void) {
    uprintf("\r\nSBE pump will run and must be immersed at start time!\r\n\r\n");
    uprintf(" Delayed start feature is disabled... Next Quillon release should have it, feedback on delay "
            "parm entry is requested. \r\n");
    sys_data.test_mode = 0;
    uprintf("\r\n\r\n");
    if (yesOrNoMenuChoice("    Pump Test Mode ([Y] allows testing without activating pump)? (Y/N) [N]? ",
                          0)) {
        uprintf("\r\nPump test mode active\r\n");
        sys_data.test_mode = 1;
    }
    sys_data.start_pump_time = 0;
    sys_samp.start_pump_cntdown = 0;
    uprintf("\r\n\r\n");
    if (!yesOrNoMenuChoice("    Enter pump delayed start? (Y/N) [N]? ", 0)) {
        sys_data.start_pump_time = 0;
        return;
    }
    uprintf("\r\n\r\n");
    if (yesOrNoMenuChoice("    Pump start delay entry in Minutes (Y) or DateTime (N)? (Y/N) [Y]? ", 1)) {
        ask_pump_delay_minutes();
    } else {
        ask_pump_delay_date();
    }
}

// Set by run_main_menu_key when the key chose an entry (which restarts the menu's deadline).
bool main_menu_entry_ran = false;

// Acts on one key of the main menu; true when the operator chose the command line.
bool run_main_menu_key(uint8_t key) {
    main_menu_entry_ran = true;
    switch (key) {
    case '1':
        configuration_menu();
        return false;
    case '2':
        test_menu();
        return false;
    case '3':
        sleep(0, 0);
        return false;
    case '4':
        deploy_start();
        return false;
    case '5':
        if (microSD_flg == 1) {
            viewFiles();
        } else {
            uprintf("\r\nMicroSD card not detected, file commands are not available\r\n");
        }
        return false;
    case '6':
    case 'C':
    case 'c':
        return true;
    case '7':
        vesk_zone_menu();
        return false;
    case 'H':
    case 'h':
        help_menu();
        return false;
    default:
        main_menu_entry_ran = false;
        return false;
    }
}

// Calendar fields typed by the operator to RTC seconds; 0 when a field is out of range.
uint32_t seconds_from_fields(int mon, int day, int year, int hour, int min, int sec) {
    if (year < 0 || year > 99 || day < 1 || static_cast<uint32_t>(day) > days_in_month(year + 2000, mon) ||
        hour < 0 || hour > 23 || min < 0 || min > 59 || sec < 0 || sec > 59) {
        return 0;
    }
    return rtc_seconds_of(year + 2000, mon, day, hour, min, sec);
}
} // namespace

namespace {
// Seconds the main menu shows as left before it sleeps.
uint32_t menu_seconds_left = 30;
} // namespace

void print_main_menu(void) {
    eeprom_firmware_qa_check();
    uprintf("\r\n\r\n\r\n");
    uprintf("Main Menu -- %s -- Will sleep in %u seconds\r\n", FIRMWARE_VERSION,
            static_cast<unsigned>(menu_seconds_left));
    uprintf("1 -- Configure\r\n");
    uprintf("2 -- Test\r\n");
    uprintf("3 -- Sleep\r\n");
    uprintf("4 -- Deploy\r\n");
    uprintf("5 -- Files\r\n");
    uprintf("6 -- Commandline\r\n");
    uprintf("7 -- VeskZone\r\n");
    uprintf("H -- Help\r\n");
    uprintf("Enter Selection: ");
}

// The deadline restarts only when an entry has run: a key that selects nothing, or a controller's
// "U", shows the menu again with the time that is left, so no stream of bytes (line noise, a
// controller retrying) keeps the board awake past it.
void exec_main_menu(void) {
    UARTEchoSet(true);
    menu_abandoned = false;
    RtcDeadline deadline = rtc_deadline(deployDelay);
    for (;;) {
        menu_seconds_left = rtc_seconds_left(deadline);
        print_main_menu();
        UARTFlushRx();
        if (!wait_key_until(deadline)) {
            menu_timed_out();
            return;
        }
        if (run_main_menu_key(get_key_m2m())) {
            return;
        }
        if (menu_abandoned) {
            menu_timed_out(); // a question of a sub-menu went unanswered
            return;
        }
        if (main_menu_entry_ran) {
            deadline = rtc_deadline(deployDelay);
        }
    }
}

uint32_t exec_command(uint32_t timeout_s) {
    if (sys_data.app_cfg[APPCFG_DEPLOY_UARTECHO] == 0) {
        UARTEchoSet(false);
    }
    char line[command_line_size];
    for (;;) {
        if (verbose() || sys_data.test_mode != 0) {
            uprintf("\r\nEnter command (ts, ss, gh, gm, gc, gdata, pumpon, pumpoff, stop): ");
        }
        UARTFlushRx();
        if (getUserInputTimeLimit(line, sizeof(line), timeout_s) == -1) {
            if (verbose()) {
                uprintf("\r\n\r\nNo command, resuming...");
            }
            return 1;
        }
        CmdResult r = run_command(line);
        if (r == CmdResult::resume) {
            return 1;
        }
        if (r == CmdResult::stopped) {
            return 0;
        }
        dbg_printf("\r\nbottom of command loop\r\n");
    }
}

void deploy_start(void) {
    uint32_t now = HibernateRTCGet();
    sys_samp.nextWakeUp = now;
    sys_data.deploy_time = now + 1;
    pump_and_sample_start();
    if (sys_data.pump1_ontime != 0) {
        ask_pump_settings();
    }
    enter_deployment_note(30);

    sys_samp.current_sample = 0;
    sys_samp.state = DEPLOYED;
    if (sys_data.sampling_period == 0) {
        uprintf("\r\n\r\nDeployed in polled mode, space to wake, then ts ...\r\n\r\n");
        sys_samp.state = IDLE;
    }

    if (print_write_metadata_header(1, 1)) {
        sys_samp.state = IDLE;
        storeSysSampFRAMVariables();
        uprintf("\r\n\r\nFile system error, check SD Card, Aborting deployment, sleeping in IDLE state\r\n");
        wait_consoleTx();
        sleep(0, 0);
        return;
    }

    uprintf("\r\n\r\nStarting deployment...       Hit a key, then type 'stop' to end deployment.");
    if (sys_data.pump1_ontime != 0) {
        uprintf("  Ctrl-X <Enter> to terminate pump cycle");
    }
    uprintf("\r\n");
    print_write_data_header(1, 1);
    wait_consoleTx();
    storeSysSampFRAMVariables();
    // nextWakeUp is the start time itself, so the sleep guard makes the first sample come two seconds
    // from now.
    if (sys_samp.state == DEPLOYED) {
        sleep(DEPLOYED, sys_samp.nextWakeUp);
    } else {
        sleep(0, 0);
    }
}

// The note goes into the data file's header. An empty line or no answer keeps the note there is;
// the settings of the deployment being started are stored with it either way.
void enter_deployment_note(uint32_t timeout_s) {
    uprintf("\r\n\r\nDeployment note: %s\r\n", reinterpret_cast<const char*>(sys_data.deploy_note));
    uprintf("Enter a new note (up to %u characters), or Enter to keep it: ",
            static_cast<unsigned>(sizeof(sys_data.deploy_note) - 1));
    char note[sizeof(sys_data.deploy_note)];
    if (getUserInputTimeLimit(note, sizeof(note), timeout_s) > 0) {
        snprintf(reinterpret_cast<char*>(sys_data.deploy_note), sizeof(sys_data.deploy_note), "%s", note);
    }
    storeSysDataVariables();
}

// Continuous output: sample until a console byte arrives, then let the command interpreter have it;
// a command that ends the deployment ends the loop.
void databarf_loop(void) {
    for (;;) {
        while (!UARTrdy()) {
            get_sample(1, 1);
        }
        if (exec_command(5) == 0) {
            break;
        }
    }
    sys_samp.state = 0;
}

void state_dump(void) {
    print_sys_data_structure();
    print_sys_samp_data_structure();
}

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

int32_t getUserInput(char* buf, uint32_t size) {
    while (UARTPeek('\r') < 0) {
        wdog_pet();
    }
    return UARTgets(buf, size);
}

uint8_t get_key(void) {
    while (!UARTrdy()) {
        wdog_pet();
    }
    return getChar();
}

uint32_t getDateAndTime(void) {
    uprintf("\r\nEnter date and time (MM/DD/YY HH:MM:SS): ");
    char text[32];
    if (getUserInputTimeLimit(text, sizeof(text), entry_timeout_s) == -1) {
        return 0;
    }
    int mon = 0, day = 0, year = 0, hour = 0, min = 0, sec = 0;
    uint32_t t = 0;
    if (sscanf(text, "%2d/%2d/%2d %2d:%2d:%2d", &mon, &day, &year, &hour, &min, &sec) == 6) {
        t = seconds_from_fields(mon, day, year, hour, min, sec);
    }
    if (t == 0) {
        uprintf("\r\nNot a date and time: %s\r\n", text);
    }
    return t;
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
