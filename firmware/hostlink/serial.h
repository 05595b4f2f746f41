// Machine-to-machine session on the console: the receive record rx0, its state machine and the
// line-timing commands shared by people and float controllers.
#pragma once

#include <cstdint>

#include "board/timebase.h"

struct rxStateMach {
    uint32_t state;         // receive state: 0 idle, 1 break-in, 2 text line, 3 framed line
    uint32_t indx;          // bytes stored in buf (the line length)
    uint32_t cnt;           // byte counter
    uint32_t cr_cnt;        // consecutive carriage returns while idle
    uint32_t cmd;           // code of the last command matched, 0 when none
    uint32_t tick_ms_start; // Timer_1ms of the latest byte of the line
    uint32_t tick_ms_now;
    uint32_t tick_ms_delta;
    uint32_t tick_ms_delim; // silence in ms that ends a line
    uint8_t byte;           // the byte just received
    uint8_t buf[64];        // the line, NUL-terminated
    uint8_t buf_end;        // always 0: a line that fills all of buf still ends in a NUL
};

extern rxStateMach rx0;

// Handles at most one received byte: 0 when none waited, -1 when the session is to end, positive
// otherwise (1 after a byte handled while idle or on the way into the menu, 2 in a text line, 3 in a
// framed line).
int32_t handle_m2m_comm(void);
// Echo off, receive record cleared (tick_ms_delim kept), prompt "\r\n>".
void m2m_statemachine_init(void);
// Machine mode: 250 ms of silence ends a line.
void apf_set_m2m_timeout(void);
// Human mode: seconds of silence end a line.
void apf_set_h2m_timeout(uint32_t seconds);
// Seconds the main menu waits for a key before the board goes back to sleep.
extern uint32_t deployDelay;
// What opens the operator's menu when a person breaks in (the fourth Enter) or types "m": the
// menus sit above the host link, so the start-up hands it their entry. Unset, nothing opens.
void m2m_set_menu(void (*open_menu)(void));
void m2m_open_menu(void);
// Seconds a menu question waits for its answer before it gives up.
inline constexpr uint32_t MENU_KEY_TIMEOUT_S = 60;
// Key reader of the menus while a controller may be attached: the first byte of the next line, 1
// after a controller's "U" (refused by the receive machine, which never opens a menu from here), or
// 0 when nothing came within MENU_KEY_TIMEOUT_S seconds.
uint8_t get_key_m2m(void);
// The same with the RTC second at which it gives up.
uint8_t get_key_m2m_until(const RtcDeadline& deadline);
// 6 when text (cut at its first CR or LF) is "ACK" in any case, 21 when it is "NAK", -1 otherwise.
int32_t MatchACK(char* text);
// Waits up to timeout_ms for "ACK" from the other side: 1 on "ACK", 0 on a bad byte, -1 on time-out.
int32_t waitACK(uint32_t timeout_ms);
