// The field editors and the page loop the operator menus are built from.
//
// A page lists its entries with their current values in brackets. Choosing an entry asks for the new
// value with the current one in brackets: an empty answer keeps it, a bad or out-of-range answer gets
// a message and changes nothing, and an accepted one is stored at once (sys_data to the EEPROM). A
// question left unanswered for MENU_KEY_TIMEOUT_S seconds abandons the menus, so that a terminal
// walked away from never keeps the board awake.
#pragma once

#include <cstddef>
#include <cstdint>

// What an entry of a page edits.
enum class ItemKind : uint8_t {
    u32,    // an unsigned number within [lo, hi]
    f32,    // a finite float within [lo, hi]
    f64,    // a finite double within [lo, hi]
    byte,   // a one-byte switch or code within [lo, hi]
    text,   // printable text of at most size - 1 characters
    action, // runs `action`; `show` (if set) prints its current value
};

struct MenuItem {
    char key; // upper case; the operator may type either case
    const char* label;
    ItemKind kind;
    uint32_t* u32 = nullptr;
    float* f32 = nullptr;
    double* f64 = nullptr;
    unsigned char* bytes = nullptr; // byte and text items
    uint32_t size = 0;              // text items: the field's size, NUL included
    double lo = 0.0;
    double hi = 0.0;
    const uint32_t* allowed = nullptr; // u32 items: when set, the only values accepted
    uint32_t allowed_count = 0;
    void (*action)(void) = nullptr;
    void (*show)(void) = nullptr;
};

// Set when a question went unanswered: every page returns at once and the main menu ends as on its
// own deadline. Cleared when the main menu opens.
extern bool menu_abandoned;

// Shows the page and runs the chosen entries until "X" (or the menus are abandoned).
void run_menu_page(const char* title, const MenuItem* items, size_t count);
// Asks for one item's new value and stores it (see above). True when the value changed.
bool edit_item(const MenuItem& item);

// One answer line with the menus' time limit: its length, or -1 (and menu_abandoned) on time-out.
int32_t menu_read_line(char* buf, uint32_t size);
// Reads an unsigned number; false (nothing changed) on an empty, malformed or out-of-range answer.
// *kept is set when the answer was empty.
bool menu_read_u32(const char* prompt, uint32_t current, uint32_t lo, uint32_t hi, uint32_t* value,
                   bool* kept);
// Length of the text in a field that may hold no NUL (a blank EEPROM): at most size.
size_t field_text_length(const unsigned char* field, size_t size);
// Prints a field that may hold no NUL (a blank EEPROM) as text.
void print_field_text(const unsigned char* field, size_t size);
