// Rate-limited logging of lasting faults (see fault_note.h).
#include "storage/fault_note.h"

#include "board/timebase.h"
#include "storage/error_log.h"
#include "ports/uartstdio.h"

#include "driverlib/hibernate.h"

namespace {

uint32_t logged_at(uint32_t slot) {
    uint32_t words[FAULT_SLOTS] = {};
    HibernateDataGet(words, slot + 1);
    return words[slot];
}

void set_logged_at(uint32_t slot, uint32_t when) {
    uint32_t words[FAULT_SLOTS] = {};
    HibernateDataGet(words, FAULT_SLOTS);
    words[slot] = when;
    HibernateDataSet(words, FAULT_SLOTS);
}

} // namespace

void fault_note(uint32_t slot, const char* text) {
    if (slot >= FAULT_SLOTS) {
        return;
    }
    uprintf("\r\n%s\r\n", text);
    uint32_t logged = logged_at(slot);
    uint32_t now = HibernateRTCGet();
    if (logged != 0 && now - logged < FAULT_REPEAT_S) {
        return;
    }
    error_store(text);
    set_logged_at(slot, now == 0 ? 1 : now);
}

void fault_clear(uint32_t slot) {
    if (slot >= FAULT_SLOTS || logged_at(slot) == 0) {
        return;
    }
    set_logged_at(slot, 0);
}
