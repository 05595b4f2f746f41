// Console scripts of hxc3-sim: the parser and the engine that plays a script against the board in
// virtual time. The engine keeps its running state in a plain block (State) that survives the
// board's power-on periods; what a command does to the board goes through Effects, which differ
// while the board runs and while it hibernates.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sim::script {

enum class Op : uint8_t {
    expect,
    timeout,
    send,
    wait,
    pin,
    power_cycle,
    set,
    card_remove,
    card_insert,
    exit
};

struct Command {
    Op op;
    int line;         // in the script file, from 1
    std::string text; // expect/send: the text; set: the value
    std::string key;  // set: the scenario key
    uint64_t ns;      // timeout/wait: the time
};

struct Script {
    std::string name; // the file, for messages
    std::vector<Command> commands;
};

constexpr uint64_t default_timeout_ns = 600ull * 1000000000ull;

// Parses a whole script. On a bad line returns false with "NAME:LINE: what is wrong" in `error`.
bool parse(const std::string& name, const std::string& source, Script& out, std::string& error);
// A double-quoted TEXT with C escapes starting at s[pos]; on success pos is just past the closing quote.
bool parse_text(const std::string& s, size_t& pos, std::string& out, std::string& error);
// SECONDS: digits with an optional fraction of at most three digits.
bool parse_seconds(const std::string& token, uint64_t& ns);
// A text as a double-quoted C string (for messages).
std::string quote(const std::string& text);

constexpr uint32_t match_capacity = 65536;
constexpr uint32_t tail_capacity = 400;

// The running state. Plain data only: hxc3-sim keeps it in memory shared across processes.
struct State {
    uint32_t cursor;       // the command being run
    bool started;          // the command at the cursor has begun (its deadline or send is set up)
    bool ended;            // exit, the end of the script, or a failed expect
    bool failed;           // an expect timed out
    uint64_t timeout_ns;   // for expect
    uint64_t deadline_ns;  // expect: gives up; wait: done
    uint32_t send_pos;     // send: next byte
    uint64_t next_byte_ns; // send: when it arrives
    // Console output since the previous match; `searched` bytes of it hold no match of the
    // current expect's text.
    uint32_t match_len;
    uint32_t searched;
    char match[match_capacity];
    // The latest console output, for the report of a failed expect.
    uint32_t tail_len;
    uint32_t tail_head;
    char tail[tail_capacity];
};
void reset(State& st);
// A byte of console output at the time it leaves the UART.
void console_output(State& st, uint8_t b);
// The last console output (at most tail_capacity bytes), oldest first.
std::string console_tail(const State& st);

// What commands do to the board.
class Effects {
  public:
    virtual ~Effects() = default;
    virtual uint64_t char_ns() = 0;   // one character on the console at its baud rate
    virtual bool type(uint8_t b) = 0; // a typed byte arrives; false: the rest of this send is lost
    virtual void pin() = 0;
    virtual void power_cycle() = 0;
    virtual void exit() = 0; // `exit` or the end of the script
    virtual void expect_failed(const Command& c) = 0;
    virtual void set(const std::string& key, const std::string& value) = 0;
    virtual void card(bool insert) = 0;
};

// Plays the script at virtual time `now` as far as it can go. Returns the virtual time at which it
// wants to run again (console output may move it on earlier; UINT64_MAX: only output can).
// power_cycle, exit and expect_failed may end the process; when they return, step returns `now`
// so that the caller acts on them before the script goes on.
uint64_t step(const Script& script, State& st, uint64_t now, Effects& fx);

} // namespace sim::script
