// Append sessions on the card's one file object: constant-cost seeks to a file's end through what
// FRAM remembers of it, whole-or-nothing writes, the plan of every write noted in FRAM before the card
// is touched (so that a cut append can be repaired), and the memory of a full card.
#include "storage/sd_append.h"

#include <cstddef>
#include <cstring>

#include "driverlib/hibernate.h"
#include "ports/uartstdio.h"
#include "storage/fatfs/ff_tail.h"
#include "storage/i2c_fram.h"
#include "storage/microsd.h"

namespace {

// ---------------------------------------------------------------- FRAM records

// At FRAM_APPEND_ADDR: the journal of the write in flight, the full-card memory, and one remembered
// end per TailSlot. Each record carries a check of its bytes, so a write torn by a power cut reads as
// no record at all.
constexpr uint32_t JOURNAL_ADDR = FRAM_APPEND_ADDR;
constexpr uint32_t VOLUME_ADDR = FRAM_APPEND_ADDR + 0x30;
constexpr uint32_t SLOTS_ADDR = FRAM_APPEND_ADDR + 0x40;
constexpr uint32_t SLOT_COUNT = 4;

constexpr uint32_t JOURNAL_IN_FLIGHT = 0x4A524E4C;
constexpr uint32_t FULL_RESCAN_S = 86400; // a full card is searched again at most once a day

// The write in flight: the clusters it may take. Where its file stood before it is the remembered
// end of its slot, written (when it changed) before the journal.
struct Journal {
    uint32_t mark; // JOURNAL_IN_FLIGHT while a planned write may be on its way to the card
    uint32_t slot;
    uint32_t n_plan;
    uint32_t check; // of the fields above and the n_plan clusters
    uint32_t plan[FF_TAIL_PLAN];
};

struct VolumeRecord {
    uint32_t vol_id;
    uint32_t full;       // 1: the last search of this volume found no free cluster
    uint32_t scanned_at; // RTC seconds of that search
    uint32_t check;
};

// A remembered end needs no file name: it names the file's directory entry, which the seek compares
// with the entry the name led to.
struct TailRecord {
    FFTAIL tail;
    uint32_t check;
};

// The records' bytes are their FRAM images; host and target builds agree on them.
static_assert(sizeof(FFTAIL) == 28 && offsetof(FFTAIL, size) == 12 && offsetof(FFTAIL, tail_crc) == 24);
static_assert(sizeof(FFPLAN) == 64 && offsetof(FFPLAN, plan) == 32);
static_assert(sizeof(Journal) == 48 && offsetof(Journal, plan) == 16);
static_assert(sizeof(VolumeRecord) == 16);
static_assert(sizeof(TailRecord) == 32 && offsetof(TailRecord, check) == 28);
// After an append only the end changes: it and the check are written, 20 bytes of the 32.
constexpr uint32_t TAIL_END_OFFSET = offsetof(FFTAIL, size);
static_assert(JOURNAL_ADDR + sizeof(Journal) <= VOLUME_ADDR);
static_assert(VOLUME_ADDR + sizeof(VolumeRecord) <= SLOTS_ADDR);
static_assert(SLOTS_ADDR + SLOT_COUNT * sizeof(TailRecord) <= FRAM_APPEND_ADDR + FRAM_APPEND_SIZE);
static_assert(static_cast<uint32_t>(TailSlot::other) < SLOT_COUNT);

// FNV-1a over bytes, continuing from h.
uint32_t fnv1a(const void* bytes, size_t n, uint32_t h = 2166136261u) {
    const auto* p = static_cast<const uint8_t*>(bytes);
    for (size_t i = 0; i < n; i++) {
        h = (h ^ p[i]) * 16777619u;
    }
    return h;
}

// The check of a record: its bytes before the check field.
uint32_t record_check(const void* record, size_t check_offset) {
    return fnv1a(record, check_offset);
}

uint32_t journal_check(const Journal& j) {
    return fnv1a(j.plan, j.n_plan * sizeof j.plan[0], fnv1a(&j, offsetof(Journal, check)));
}

template <typename Record>
bool load_record(uint32_t addr, Record* r) {
    fram_read(addr, reinterpret_cast<uint8_t*>(r), sizeof *r);
    return r->check == record_check(r, offsetof(Record, check));
}

template <typename Record>
void store_record(uint32_t addr, Record* r) {
    r->check = record_check(r, offsetof(Record, check));
    fram_write(addr, reinterpret_cast<uint8_t*>(r), sizeof *r);
}

uint32_t slot_addr(TailSlot slot) {
    return SLOTS_ADDR + static_cast<uint32_t>(slot) * sizeof(TailRecord);
}

bool same_volume(const VolumeRecord& v, const FFTAIL& t) {
    return v.vol_id == t.vol_id;
}

// ---------------------------------------------------------------- the file object and the session

FIL g_file;
bool g_file_taken = false;

struct Session {
    bool open;           // the file is open
    bool at_end;         // and stands at its end
    bool failed;         // a write failed: nothing more goes in, and close takes the session back
    bool journaled;      // the journal in FRAM holds this session's plan
    bool volume_checked; // the full-card memory was consulted
    bool assumed_full;   // and said full: no search was made
    FRESULT write_error;
    TailSlot slot;
    uint32_t start; // the file's size at its last commit
};

Session g_session;
FFPLAN g_plan; // where the file stood at the session's last commit, and the clusters planned since
VolumeRecord g_volume;

// What FRAM holds, kept in RAM for the rest of the power-on period once read: the remembered ends,
// and whether a journal is in flight (unknown until read).
struct SlotCopy {
    bool loaded;
    TailRecord record; // as it stands in FRAM (its check may be wrong: then no end is known)
};
SlotCopy g_slots[SLOT_COUNT];
bool g_journal_known = false;
bool g_journal_in_flight = false;

TailRecord& slot_record(TailSlot slot) {
    SlotCopy& c = g_slots[static_cast<uint32_t>(slot)];
    if (!c.loaded) {
        fram_read(slot_addr(slot), reinterpret_cast<uint8_t*>(&c.record), sizeof c.record);
        c.loaded = true;
    }
    return c.record;
}

bool slot_valid(const TailRecord& r) {
    return r.check == record_check(&r, offsetof(TailRecord, check));
}

// Stores a file's new end; when only the end moved, only it and the check are written.
void remember_tail(TailSlot slot, const FFTAIL& t) {
    TailRecord& r = slot_record(slot);
    bool same_file = slot_valid(r) && std::memcmp(&r.tail, &t, TAIL_END_OFFSET) == 0;
    if (slot_valid(r) && std::memcmp(&r.tail, &t, sizeof t) == 0) {
        return;
    }
    r.tail = t;
    r.check = record_check(&r, offsetof(TailRecord, check));
    uint32_t from = same_file ? TAIL_END_OFFSET : 0;
    fram_write(slot_addr(slot) + from, reinterpret_cast<uint8_t*>(&r) + from, sizeof r - from);
}

void forget_tail(TailSlot slot) {
    TailRecord& r = slot_record(slot);
    if (!slot_valid(r)) {
        return;
    }
    r = TailRecord{};
    fram_write(slot_addr(slot), reinterpret_cast<uint8_t*>(&r), sizeof r);
}

void clear_journal(void) {
    uint32_t none = 0;
    fram_write(JOURNAL_ADDR, reinterpret_cast<uint8_t*>(&none), sizeof none);
    g_journal_in_flight = false;
    g_journal_known = true;
}

// Repairs the append the journal says was in flight. It is dropped once repaired, or when its card
// or file is no longer there to repair; kept while the card cannot be reached.
void repair_pending(void) {
    if (g_journal_known && !g_journal_in_flight) {
        return;
    }
    uint32_t mark = 0;
    fram_read(JOURNAL_ADDR, reinterpret_cast<uint8_t*>(&mark), sizeof mark);
    g_journal_known = true;
    g_journal_in_flight = mark == JOURNAL_IN_FLIGHT;
    if (!g_journal_in_flight) {
        return;
    }
    Journal j;
    fram_read(JOURNAL_ADDR, reinterpret_cast<uint8_t*>(&j), offsetof(Journal, plan));
    const TailRecord& r = slot_record(static_cast<TailSlot>(j.slot < SLOT_COUNT ? j.slot : 0));
    if (j.slot >= SLOT_COUNT || j.n_plan > FF_TAIL_PLAN || !slot_valid(r)) {
        clear_journal(); // torn as it was written: the card had not been touched yet
        return;
    }
    fram_read(JOURNAL_ADDR + offsetof(Journal, plan), reinterpret_cast<uint8_t*>(j.plan),
              j.n_plan * sizeof j.plan[0]);
    if (j.check != journal_check(j)) {
        clear_journal();
        return;
    }
    FFPLAN p{};
    p.tail = r.tail;
    p.n_plan = j.n_plan;
    std::memcpy(p.plan, j.plan, j.n_plan * sizeof j.plan[0]);
    FRESULT fr = f_repair_tail(&p);
    if (fr == FR_NOT_READY || fr == FR_DISK_ERR || fr == FR_NOT_ENABLED) {
        return;
    }
    if (fr != FR_OK && fr != FR_NO_FILE) {
        uprintf("card repair after a power cut: %s\r\n", StringFromFresult(fr));
    }
    clear_journal();
}

// The bytes written since the last commit reach the card, and the journal starts afresh from there.
FRESULT commit(void) {
    FRESULT fr = f_sync(&g_file);
    if (fr == FR_OK) {
        fr = f_get_tail(&g_file, &g_plan.tail);
    }
    if (fr != FR_OK) {
        return fr;
    }
    if (g_session.journaled) {
        clear_journal();
        g_session.journaled = false;
    }
    g_plan.n_plan = 0;
    g_session.start = static_cast<uint32_t>(f_tell(&g_file));
    return FR_OK;
}

// Whether a write of len bytes reaches past the file's last cluster (and so may need a new one).
bool needs_cluster(uint32_t len) {
    uint32_t bcs = static_cast<uint32_t>(g_sFatFs.csize) * 512u;
    uint32_t pos = static_cast<uint32_t>(f_tell(&g_file));
    return pos % bcs == 0 || pos % bcs + len > bcs;
}

// A volume remembered as full is not searched again until space appears or a day has passed. A count
// of 0 in FSInfo that this board did not find itself (a PC wrote it) is looked into once: FSInfo is
// only a hint.
void consult_full_memory(void) {
    g_session.volume_checked = true;
    const FFTAIL& t = g_plan.tail;
    if (!load_record(VOLUME_ADDR, &g_volume) || !same_volume(g_volume, t)) {
        g_volume = VolumeRecord{t.vol_id, 0, 0, 0};
    }
    uint32_t hint = f_free_hint();
    if (g_volume.full == 0) {
        if (hint == 0) {
            f_set_free_hint(0xFFFFFFFF);
        }
        return;
    }
    bool space_appeared = hint != 0 && hint != 0xFFFFFFFF;
    if (space_appeared || HibernateRTCGet() - g_volume.scanned_at >= FULL_RESCAN_S) {
        f_set_free_hint(0xFFFFFFFF);
        return;
    }
    f_set_free_hint(0);
    g_session.assumed_full = true;
}

// Full: a search of the whole FAT found no free cluster, now.
void remember_full(bool full) {
    if (!full && g_volume.full == 0) {
        return;
    }
    g_volume.full = full ? 1 : 0;
    g_volume.scanned_at = HibernateRTCGet();
    store_record(VOLUME_ADDR, &g_volume);
}

// Plans the clusters a write of len bytes takes.
FRESULT plan_write(uint32_t len) {
    bool growing = needs_cluster(len);
    if (growing && !g_session.volume_checked) {
        consult_full_memory();
    }
    FRESULT fr = f_plan_tail(&g_file, len, &g_plan);
    if (fr == FR_NOT_ENOUGH_CORE && g_plan.n_plan > 0) {
        // The plan holds a header's worth of clusters: what is written so far goes in first.
        if ((fr = commit()) == FR_OK) {
            fr = f_plan_tail(&g_file, len, &g_plan);
        }
    }
    // A write refused while some clusters are free (fewer than it needs) does not make the card full.
    if (fr == FR_DENIED && !g_session.assumed_full && f_free_hint() == 0) {
        remember_full(true);
    } else if (fr == FR_OK && growing && g_session.volume_checked) {
        remember_full(false);
    }
    return fr;
}

void note_plan(void) {
    remember_tail(g_session.slot, g_plan.tail);
    Journal j{};
    j.mark = JOURNAL_IN_FLIGHT;
    j.slot = static_cast<uint32_t>(g_session.slot);
    j.n_plan = g_plan.n_plan;
    std::memcpy(j.plan, g_plan.plan, j.n_plan * sizeof j.plan[0]);
    j.check = journal_check(j);
    fram_write(JOURNAL_ADDR, reinterpret_cast<uint8_t*>(&j),
               static_cast<uint32_t>(offsetof(Journal, plan) + j.n_plan * sizeof j.plan[0]));
    g_session.journaled = true;
    g_journal_in_flight = true;
    g_journal_known = true;
}

void end_session(void) {
    g_session = Session{};
    sd_file_give();
}

const char* step_name(AppendStep step) {
    switch (step) {
    case AppendStep::open:
        return "f_open";
    case AppendStep::seek:
        return "f_lseek";
    case AppendStep::write:
        return "f_write";
    case AppendStep::close:
        return "f_close";
    }
    return "";
}

} // namespace

FIL* sd_file_take(void) {
    if (g_file_taken) {
        return nullptr;
    }
    g_file_taken = true;
    std::memset(&g_file, 0, sizeof g_file);
    return &g_file;
}

void sd_file_give(void) {
    g_file_taken = false;
}

FRESULT sd_append_open(const char* name, TailSlot slot) {
    if (g_session.open || sd_file_take() == nullptr) {
        return FR_LOCKED;
    }
    repair_pending();
    FRESULT fr = f_open(&g_file, name, FA_READ | FA_WRITE | FA_OPEN_ALWAYS);
    if (fr != FR_OK) {
        sd_file_give();
        return fr;
    }
    g_session = Session{};
    g_session.open = true;
    g_session.slot = slot;
    return FR_OK;
}

FRESULT sd_append_seek(void) {
    if (!g_session.open) {
        return FR_INVALID_OBJECT;
    }
    const TailRecord& r = slot_record(g_session.slot);
    FFTAIL t = slot_valid(r) ? r.tail : FFTAIL{};
    FRESULT fr = f_seek_tail(&g_file, &t);
    if (fr != FR_OK) {
        return fr;
    }
    g_session.at_end = true;
    g_session.start = static_cast<uint32_t>(f_tell(&g_file));
    g_plan.tail = t;
    g_plan.n_plan = 0;
    return FR_OK;
}

FRESULT sd_append_write(const void* data, uint32_t len) {
    if (!g_session.open || !g_session.at_end) {
        return FR_INVALID_OBJECT;
    }
    if (g_session.failed) {
        return g_session.write_error;
    }
    if (len == 0) {
        return FR_OK;
    }
    UINT planned = g_plan.n_plan;
    FRESULT fr = plan_write(len);
    if (fr == FR_OK && g_plan.n_plan > planned) {
        note_plan();
    }
    if (fr == FR_OK) {
        UINT written = 0;
        fr = f_write(&g_file, data, len, &written);
        if (fr == FR_OK && written != len) {
            fr = SD_CARD_FULL;
        }
    }
    if (fr != FR_OK) {
        g_session.failed = true;
        g_session.write_error = fr;
    }
    return fr;
}

uint32_t sd_append_tell(void) {
    return g_session.open ? static_cast<uint32_t>(f_tell(&g_file)) : 0;
}

FRESULT sd_append_close(void) {
    if (!g_session.open) {
        return FR_INVALID_OBJECT;
    }
    FRESULT fr = FR_OK;
    if (g_session.failed && g_session.at_end && f_tell(&g_file) > g_session.start) {
        fr = f_lseek(&g_file, g_session.start);
        if (fr == FR_OK) {
            fr = f_truncate(&g_file);
        }
    }
    FRESULT synced = f_sync(&g_file);
    if (fr == FR_OK) {
        fr = synced;
    }
    FFTAIL t{};
    bool known = synced == FR_OK && g_session.at_end && f_get_tail(&g_file, &t) == FR_OK;
    FRESULT closed = f_close(&g_file);
    if (fr == FR_OK) {
        fr = closed;
    }
    // A journal still in flight stays for the repair, with the end it was planned from; otherwise it
    // goes before the new end is remembered (never a new end beside an old plan).
    if (fr == FR_OK && g_session.journaled) {
        clear_journal();
    }
    if (known && fr == FR_OK) {
        remember_tail(g_session.slot, t);
    } else if (!g_session.journaled) {
        forget_tail(g_session.slot);
    }
    end_session();
    return fr;
}

const char* sd_append_result_text(AppendStep step, FRESULT fr) {
    if (step == AppendStep::write && fr == SD_CARD_FULL) {
        return "card full";
    }
    return StringFromFresult(fr);
}

FRESULT sd_append_report(const char* prefix, AppendStep step, FRESULT fr) {
    if (fr != FR_OK) {
        uprintf("%s%s error: %s\r\n", prefix, step_name(step), sd_append_result_text(step, fr));
    }
    return fr;
}

void sd_append_space_freed(void) {
    VolumeRecord v;
    if (load_record(VOLUME_ADDR, &v) && v.full != 0) {
        v.full = 0;
        store_record(VOLUME_ADDR, &v);
    }
}

void sd_append_start(void) {
    g_session = Session{};
    g_file_taken = false;
    for (SlotCopy& c : g_slots) {
        c.loaded = false;
    }
    g_journal_known = false;
    repair_pending();
}
