// The field editors and the page loop of the operator menus: current values in brackets, an empty
// answer keeps, a bad answer changes nothing, an accepted one is stored at once.
#include "menus/menu_edit.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "board/board_util.h"
#include "menus/menu.h"
#include "records/system.h"
#include "storage/settings.h"
#include "driverlib/hibernate.h"
#include "hostlink/serial.h"
#include "ports/uartstdio.h"

bool menu_abandoned = false;

namespace {

// Longest answer line (the 80-character notes and their Enter).
constexpr uint32_t ANSWER_SIZE = 96;

uint8_t upper(uint8_t c) {
    return (c >= 'a' && c <= 'z') ? static_cast<uint8_t>(c - ('a' - 'A')) : c;
}

void format_value(const MenuItem& item, char* text, size_t size) {
    switch (item.kind) {
    case ItemKind::u32:
        snprintf(text, size, "%lu", static_cast<unsigned long>(*item.u32));
        return;
    case ItemKind::f32:
        snprintf(text, size, "%.7g", static_cast<double>(*item.f32));
        return;
    case ItemKind::f64:
        snprintf(text, size, "%.11g", *item.f64);
        return;
    case ItemKind::byte:
        snprintf(text, size, "%u", static_cast<unsigned>(*item.bytes));
        return;
    case ItemKind::text: {
        size_t n = field_text_length(item.bytes, item.size);
        snprintf(text, size, "%.*s", static_cast<int>(n), reinterpret_cast<const char*>(item.bytes));
        return;
    }
    case ItemKind::action:
        text[0] = '\0';
        return;
    }
}

void print_item(const MenuItem& item) {
    if (item.kind == ItemKind::action) {
        uprintf("%c -- %s", item.key, item.label);
        if (item.show != nullptr) {
            uprintf(" [");
            item.show();
            uprintf("]");
        }
        uprintf("\r\n");
        return;
    }
    char value[96];
    format_value(item, value, sizeof value);
    uprintf("%c -- %-32s [%s]\r\n", item.key, item.label, value);
}

void print_page(const char* title, const MenuItem* items, size_t count) {
    uprintf("\r\n\r\n%s\r\n", title);
    for (size_t i = 0; i < count; i++) {
        print_item(items[i]);
        wait_consoleTx();
    }
    uprintf("X -- Exit\r\nEnter Selection: ");
}

const MenuItem* find_item(const MenuItem* items, size_t count, uint8_t key) {
    for (size_t i = 0; i < count; i++) {
        if (static_cast<uint8_t>(items[i].key) == upper(key)) {
            return &items[i];
        }
    }
    return nullptr;
}

// A finite number and nothing after it but blanks.
bool parse_double(const char* text, double* value) {
    char rest = 0;
    double v = 0.0;
    int n = sscanf(text, "%lf %c", &v, &rest);
    if (n != 1 || !std::isfinite(v)) {
        return false;
    }
    *value = v;
    return true;
}

bool parse_u32(const char* text, uint32_t* value) {
    while (*text == ' ') {
        text++;
    }
    if (*text < '0' || *text > '9') {
        return false;
    }
    unsigned long v = 0;
    char rest = 0;
    if (strlen(text) > 10 || sscanf(text, "%10lu %c", &v, &rest) != 1 || v > 0xFFFFFFFFul) {
        return false;
    }
    *value = static_cast<uint32_t>(v);
    return true;
}

bool printable(const char* text) {
    for (; *text != '\0'; text++) {
        if (*text < ' ' || *text > '~') {
            return false;
        }
    }
    return true;
}

bool allowed_value(const MenuItem& item, uint32_t v) {
    for (uint32_t i = 0; i < item.allowed_count; i++) {
        if (item.allowed[i] == v) {
            return true;
        }
    }
    return false;
}

bool accept_number(const MenuItem& item, const char* answer) {
    if (item.kind == ItemKind::u32 || item.kind == ItemKind::byte) {
        uint32_t v = 0;
        if (!parse_u32(answer, &v) || v < item.lo || v > item.hi) {
            uprintf("\r\nEnter a whole number from %lu to %lu; %s unchanged\r\n",
                    static_cast<unsigned long>(item.lo), static_cast<unsigned long>(item.hi), item.label);
            return false;
        }
        if (item.allowed != nullptr && !allowed_value(item, v)) {
            uprintf("\r\n%lu is not one of", static_cast<unsigned long>(v));
            for (uint32_t i = 0; i < item.allowed_count; i++) {
                uprintf(" %lu", static_cast<unsigned long>(item.allowed[i]));
            }
            uprintf("; %s unchanged\r\n", item.label);
            return false;
        }
        if (item.kind == ItemKind::u32) {
            *item.u32 = v;
        } else {
            *item.bytes = static_cast<unsigned char>(v);
        }
        return true;
    }
    double v = 0.0;
    if (!parse_double(answer, &v) || v < item.lo || v > item.hi) {
        uprintf("\r\nEnter a number from %g to %g; %s unchanged\r\n", item.lo, item.hi, item.label);
        return false;
    }
    if (item.kind == ItemKind::f32) {
        *item.f32 = static_cast<float>(v);
    } else {
        *item.f64 = v;
    }
    return true;
}

bool accept_text(const MenuItem& item, const char* answer) {
    size_t len = strlen(answer);
    if (len > item.size - 1 || !printable(answer)) {
        uprintf("\r\nAt most %u printable characters; %s unchanged\r\n", static_cast<unsigned>(item.size - 1),
                item.label);
        return false;
    }
    memset(item.bytes, 0, item.size);
    memcpy(item.bytes, answer, len);
    return true;
}

} // namespace

int32_t menu_read_line(char* buf, uint32_t size) {
    int32_t n = getUserInputTimeLimit(buf, size, MENU_KEY_TIMEOUT_S);
    if (n < 0) {
        buf[0] = '\0';
        menu_abandoned = true;
        uprintf("\r\nNo answer, leaving the menus\r\n");
    }
    return n;
}

bool menu_read_u32(const char* prompt, uint32_t current, uint32_t lo, uint32_t hi, uint32_t* value,
                   bool* kept) {
    uprintf("\r\n%s [%lu]: ", prompt, static_cast<unsigned long>(current));
    char answer[16];
    *kept = false;
    if (menu_read_line(answer, sizeof answer) <= 0) {
        *kept = !menu_abandoned;
        return false;
    }
    uint32_t v = 0;
    if (!parse_u32(answer, &v) || v < lo || v > hi) {
        uprintf("\r\nEnter a whole number from %lu to %lu\r\n", static_cast<unsigned long>(lo),
                static_cast<unsigned long>(hi));
        return false;
    }
    *value = v;
    return true;
}

bool edit_item(const MenuItem& item) {
    if (item.kind == ItemKind::action) {
        item.action();
        return true;
    }
    char value[96];
    format_value(item, value, sizeof value);
    uprintf("\r\n%s [%s]: ", item.label, value);
    char answer[ANSWER_SIZE];
    if (menu_read_line(answer, sizeof answer) <= 0) {
        return false;
    }
    bool ok = item.kind == ItemKind::text ? accept_text(item, answer) : accept_number(item, answer);
    if (!ok) {
        return false;
    }
    storeSysDataVariables();
    format_value(item, value, sizeof value);
    uprintf("\r\n%s = %s, stored\r\n", item.label, value);
    return true;
}

// Like the main menu, a page's time restarts only when an entry has run: keys that choose nothing
// and a controller's "U" show the page again with the time that is left.
void run_menu_page(const char* title, const MenuItem* items, size_t count) {
    RtcDeadline deadline = rtc_deadline(MENU_KEY_TIMEOUT_S);
    while (!menu_abandoned) {
        print_page(title, items, count);
        uint8_t key = get_key_m2m_until(deadline);
        if (key == 0 && rtc_deadline_passed(deadline)) {
            menu_abandoned = true;
            uprintf("\r\nNo answer, leaving the menus\r\n");
            return;
        }
        if (upper(key) == 'X') {
            return;
        }
        const MenuItem* item = find_item(items, count, key);
        if (item == nullptr) {
            if (key >= ' ' && key <= '~') { // not an empty line or a controller's "U"
                uprintf("\r\nNo entry %c on this menu\r\n", key);
            }
            continue;
        }
        edit_item(*item);
        deadline = rtc_deadline(MENU_KEY_TIMEOUT_S);
    }
}

size_t field_text_length(const unsigned char* field, size_t size) {
    const void* end = memchr(field, 0, size);
    return end != nullptr ? static_cast<size_t>(static_cast<const unsigned char*>(end) - field) : size;
}

void print_field_text(const unsigned char* field, size_t size) {
    size_t n = field_text_length(field, size);
    uprintf("%.*s", static_cast<int>(n), reinterpret_cast<const char*>(field));
}
