// A hostile YMODEM sender: its bytes arrive on the console while the board receives a batch, to the
// card (replacing DATA.TXT when the sender names it) or into memory as a calibration file. The
// receiver must end with one of its results, never leave its temporary file behind, and never lose
// the file a transfer was to replace unless a whole file arrived in its place.
#include <cstring>
#include <string>

#include "core/main.h"
#include "records/system.h"
#include "fuzz_board.h"
#include "hostlink/ymodem.h"
#include "runtime.h"
#include "storage/calfile.h"
#include "storage/fatfs/ff.h"

namespace {

constexpr size_t MAX_INPUT = 4096;
constexpr double SETTLE_S = 1.5; // the receiver's last reply and its purge of the line

uint32_t g_mode;
int32_t g_result;

void receive(void) {
    g_result = ymodem_receive(g_mode);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::factory_eeprom();
    return 0;
}

// The first byte chooses: bit 0 the memory mode, bit 1 calFileFlg; the rest is what the sender sends.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > MAX_INPUT) {
        return -1;
    }
    fuzz::factory_board();
    fuzz::insert_card();
    fuzz::check(sim::test::run(init).returned, "init did not return");
    g_mode = (data[0] & 1) != 0 ? YMODEM_TO_MEMORY : YMODEM_TO_CARD;
    calFileFlg = (data[0] & 2) != 0 ? 1 : 0;
    const systemData before = sys_data;

    std::string sent(reinterpret_cast<const char*>(data + 1), size - 1);
    sim::test::type_after(0.05, sent);
    double char_s = static_cast<double>(sim::console_char_ns()) / sim::ns_per_s;
    sim::test::Outcome o =
        fuzz::run_for(receive, 0.05 + static_cast<double>(sent.size()) * char_s + SETTLE_S);
    fuzz::check(o.returned || o.event == sim::PowerEvent::end, "the receiver ended the power-on period");
    if (!o.returned) {
        return 0; // still waiting for a sender that went quiet
    }
    fuzz::check(g_result >= 0 || g_result == YMODEM_CANCELLED || g_result == YMODEM_TIMEOUT ||
                    g_result == YMODEM_FAILED,
                "the receiver returned no result it knows");
    fuzz::check(calFileFlg == 0, "calFileFlg outlived the receive");
    if (g_mode == YMODEM_TO_MEMORY && g_result < 0) {
        fuzz::check(memcmp(&before, &sys_data, sizeof sys_data) == 0, "a failed transfer changed sys_data");
    }
    static std::string text;
    static bool tmp_left;
    static bool data_there;
    o = sim::test::run([] {
        std::string tmp;
        tmp_left = fuzz::read_card_file("~YMODEM.TMP", tmp);
        data_there = fuzz::read_card_file(fuzz::DATA_NAME, text);
    });
    fuzz::check(o.returned, "reading the card back failed");
    fuzz::check(!tmp_left, "the receiver left ~YMODEM.TMP on the card");
    if (g_result < 0 || g_mode == YMODEM_TO_MEMORY) {
        fuzz::check(data_there && text == fuzz::DATA_TEXT,
                    "a transfer that did not complete changed DATA.TXT");
    }
    return 0;
}
