// hxc3-sim: the simulated HXC3 board on Linux. main sets a run up (the options, the board directory
// and its files, the state shared with the power-on periods, the console) and hands it to the
// supervisor, which runs every power-on period in a child process and the hibernation in between.
#include "board.h"
#include "board_dir.h"
#include "options.h"
#include "runtime.h"
#include "supervisor.h"
#include "terminal.h"

#include <cerrno>
#include <cstring>
#include <sys/mman.h>

using namespace sim;
using namespace sim::frontend;

int main(int argc, char** argv) {
    Options opt = parse_options(argc, argv);
    load_image(opt);
    script::Script parsed;
    load_script(opt, parsed);
    const script::Script* run_script = opt.script_path.empty() ? nullptr : &parsed;

    void* mem = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        message("mmap: %s", std::strerror(errno));
        return exit_internal;
    }
    use_shared(static_cast<Shared*>(mem));
    clear_shared(0);
    set_board_dir(opt.board);

    if (!prepare_board(opt)) {
        return exit_internal;
    }
    if (!memories_whole(opt)) {
        return exit_usage;
    }
    Shared& s = shared();
    if (!board::load_rtc(path_in_board(opt.board, "rtc"), s.hib)) {
        return exit_usage;
    }
    s.hib.fail_requests = 0;
    if (!board::load_scenario(path_in_board(opt.board, "scenario.ini"))) {
        return exit_usage;
    }
    s.run_for_ns = opt.run_for_ns;
    set_script(run_script);

    set_signals();
    if (!open_console(opt)) {
        return exit_internal;
    }
    int status = supervise(opt, run_script);
    restore_terminal();
    return status;
}
