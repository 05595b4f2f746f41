// Console scripts: one command a line, played against the board in virtual time. Parsing checks the
// whole file before the board starts, so a bad line never stops a run half way.
#include "script.h"

#include "runtime.h"

#include <cstring>

namespace sim::script {

namespace {

constexpr uint64_t never = UINT64_MAX;

bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

void skip_space(const std::string& s, size_t& pos) {
    while (pos < s.size() && is_space(s[pos])) {
        ++pos;
    }
}

// Nothing but blanks or a comment from pos on.
bool at_end(const std::string& s, size_t pos) {
    skip_space(s, pos);
    return pos >= s.size() || s[pos] == '#';
}

std::string token(const std::string& s, size_t& pos) {
    skip_space(s, pos);
    size_t start = pos;
    while (pos < s.size() && !is_space(s[pos]) && s[pos] != '#') {
        ++pos;
    }
    return s.substr(start, pos - start);
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

bool valid_key(const std::string& key) {
    if (key.empty()) {
        return false;
    }
    for (char c : key) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                  c == '_' || c == '-';
        if (!ok) {
            return false;
        }
    }
    return true;
}

// The arguments of one command after its name; false with `error` set when they do not fit.
bool parse_arguments(Command& c, const std::string& name, const std::string& line, size_t pos,
                     std::string& error) {
    auto need_text = [&]() {
        skip_space(line, pos);
        if (pos >= line.size() || line[pos] != '"') {
            error = name + " needs a double-quoted TEXT";
            return false;
        }
        if (!parse_text(line, pos, c.text, error)) {
            return false;
        }
        if (c.text.empty()) {
            error = name + " needs a non-empty TEXT";
            return false;
        }
        return true;
    };
    auto need_seconds = [&]() {
        std::string t = token(line, pos);
        if (t.empty()) {
            error = name + " needs SECONDS";
            return false;
        }
        if (!parse_seconds(t, c.ns)) {
            error = "bad SECONDS '" + t + "' (a number, at most three decimals)";
            return false;
        }
        return true;
    };

    bool ok = true;
    if (name == "expect") {
        c.op = Op::expect;
        ok = need_text();
    } else if (name == "send") {
        c.op = Op::send;
        ok = need_text();
    } else if (name == "timeout") {
        c.op = Op::timeout;
        ok = need_seconds();
    } else if (name == "wait") {
        c.op = Op::wait;
        ok = need_seconds();
    } else if (name == "pin") {
        c.op = Op::pin;
    } else if (name == "power-cycle") {
        c.op = Op::power_cycle;
    } else if (name == "exit") {
        c.op = Op::exit;
    } else if (name == "card") {
        std::string what = token(line, pos);
        if (what == "remove") {
            c.op = Op::card_remove;
        } else if (what == "insert") {
            c.op = Op::card_insert;
        } else {
            error = "card needs 'remove' or 'insert'";
            return false;
        }
    } else if (name == "set") {
        c.op = Op::set;
        c.key = token(line, pos);
        if (!valid_key(c.key)) {
            error = c.key.empty() ? "set needs KEY VALUE" : "bad scenario key '" + c.key + "'";
            return false;
        }
        skip_space(line, pos);
        if (pos < line.size() && line[pos] == '"') {
            ok = parse_text(line, pos, c.text, error);
        } else {
            c.text = token(line, pos);
            if (c.text.empty()) {
                error = "set needs a VALUE after the key";
                return false;
            }
        }
        std::string why;
        if (ok && !scenario_check(c.key, c.text, why)) {
            error = "set " + c.key + " " + c.text + ": " + why;
            return false;
        }
    } else {
        error = "unknown command '" + name + "'";
        return false;
    }
    if (ok && !at_end(line, pos)) {
        error = "unexpected text after the " + name + " command";
        return false;
    }
    return ok;
}

bool find_match(State& st, const std::string& text) {
    size_t n = text.size();
    if (st.match_len < n) {
        return false;
    }
    uint32_t from = st.searched >= n - 1 ? st.searched - static_cast<uint32_t>(n - 1) : 0;
    const char* hay = st.match;
    for (uint32_t i = from; i + n <= st.match_len; ++i) {
        if (hay[i] == text[0] && std::memcmp(hay + i, text.data(), n) == 0) {
            uint32_t end = i + static_cast<uint32_t>(n);
            std::memmove(st.match, st.match + end, st.match_len - end);
            st.match_len -= end;
            st.searched = 0;
            return true;
        }
    }
    st.searched = st.match_len;
    return false;
}

void next_command(State& st) {
    ++st.cursor;
    st.started = false;
}

} // namespace

bool parse_text(const std::string& s, size_t& pos, std::string& out, std::string& error) {
    out.clear();
    if (pos >= s.size() || s[pos] != '"') {
        error = "TEXT must start with a double quote";
        return false;
    }
    ++pos;
    while (pos < s.size()) {
        char c = s[pos++];
        if (c == '"') {
            return true;
        }
        if (c != '\\') {
            out += c;
            continue;
        }
        if (pos >= s.size()) {
            break;
        }
        char e = s[pos++];
        switch (e) {
        case 'r':
            out += '\r';
            break;
        case 'n':
            out += '\n';
            break;
        case 't':
            out += '\t';
            break;
        case '\\':
            out += '\\';
            break;
        case '"':
            out += '"';
            break;
        case 'x': {
            int hi = pos < s.size() ? hex_digit(s[pos]) : -1;
            int lo = pos + 1 < s.size() ? hex_digit(s[pos + 1]) : -1;
            if (hi < 0 || lo < 0) {
                error = "\\x needs two hex digits";
                return false;
            }
            out += static_cast<char>(hi * 16 + lo);
            pos += 2;
            break;
        }
        default:
            error = std::string("unknown escape \\") + e;
            return false;
        }
    }
    error = "TEXT has no closing double quote";
    return false;
}

bool parse_seconds(const std::string& t, uint64_t& ns) {
    uint64_t whole = 0;
    uint64_t frac = 0;
    int frac_digits = 0;
    int whole_digits = 0;
    bool point = false;
    for (char c : t) {
        if (c == '.' && !point) {
            point = true;
            continue;
        }
        if (c < '0' || c > '9') {
            return false;
        }
        if (point) {
            if (++frac_digits > 3) {
                return false;
            }
            frac = frac * 10 + static_cast<uint64_t>(c - '0');
        } else {
            if (++whole_digits > 9) { // over 31 years of virtual time is a typo
                return false;
            }
            whole = whole * 10 + static_cast<uint64_t>(c - '0');
        }
    }
    if (whole_digits + frac_digits == 0) {
        return false;
    }
    for (int i = frac_digits; i < 3; ++i) {
        frac *= 10;
    }
    ns = whole * 1000000000ull + frac * 1000000ull;
    return true;
}

std::string quote(const std::string& text) {
    std::string q = "\"";
    for (unsigned char c : text) {
        switch (c) {
        case '\r':
            q += "\\r";
            break;
        case '\n':
            q += "\\n";
            break;
        case '\t':
            q += "\\t";
            break;
        case '\\':
            q += "\\\\";
            break;
        case '"':
            q += "\\\"";
            break;
        default:
            if (c < 0x20 || c >= 0x7f) {
                static const char digits[] = "0123456789abcdef";
                q += "\\x";
                q += digits[c >> 4];
                q += digits[c & 15];
            } else {
                q += static_cast<char>(c);
            }
        }
    }
    return q + "\"";
}

bool parse(const std::string& name, const std::string& source, Script& out, std::string& error) {
    out.name = name;
    out.commands.clear();
    size_t start = 0;
    int line_no = 0;
    while (start < source.size()) {
        size_t end = source.find('\n', start);
        if (end == std::string::npos) {
            end = source.size();
        }
        std::string line = source.substr(start, end - start);
        start = end + 1;
        ++line_no;
        size_t pos = 0;
        if (at_end(line, pos)) {
            continue;
        }
        std::string word = token(line, pos);
        Command c{};
        c.line = line_no;
        std::string why;
        if (!parse_arguments(c, word, line, pos, why)) {
            error = name + ":" + std::to_string(line_no) + ": " + why;
            return false;
        }
        out.commands.push_back(c);
    }
    return true;
}

void reset(State& st) {
    std::memset(&st, 0, sizeof st);
    st.timeout_ns = default_timeout_ns;
}

void console_output(State& st, uint8_t b) {
    if (st.match_len == match_capacity) {
        // Nothing matched in a long time: keep the newer half.
        uint32_t drop = match_capacity / 2;
        std::memmove(st.match, st.match + drop, match_capacity - drop);
        st.match_len -= drop;
        st.searched = st.searched > drop ? st.searched - drop : 0;
    }
    st.match[st.match_len++] = static_cast<char>(b);
    st.tail[st.tail_head] = static_cast<char>(b);
    st.tail_head = (st.tail_head + 1) % tail_capacity;
    if (st.tail_len < tail_capacity) {
        ++st.tail_len;
    }
}

std::string console_tail(const State& st) {
    std::string t;
    uint32_t first = (st.tail_head + tail_capacity - st.tail_len) % tail_capacity;
    for (uint32_t i = 0; i < st.tail_len; ++i) {
        t += st.tail[(first + i) % tail_capacity];
    }
    return t;
}

uint64_t step(const Script& script, State& st, uint64_t now, Effects& fx) {
    while (!st.ended) {
        if (st.cursor >= script.commands.size()) {
            st.ended = true;
            fx.exit();
            return now;
        }
        const Command& c = script.commands[st.cursor];
        switch (c.op) {
        case Op::expect:
            if (!st.started) {
                st.started = true;
                st.searched = 0;
                st.deadline_ns = st.timeout_ns > never - now ? never : now + st.timeout_ns;
            }
            if (find_match(st, c.text)) {
                next_command(st);
                continue;
            }
            if (now >= st.deadline_ns) {
                st.ended = true;
                st.failed = true;
                fx.expect_failed(c);
                return now;
            }
            return st.deadline_ns;
        case Op::timeout:
            st.timeout_ns = c.ns;
            next_command(st);
            continue;
        case Op::send:
            if (!st.started) {
                st.started = true;
                st.send_pos = 0;
                st.next_byte_ns = now + fx.char_ns();
            }
            while (st.send_pos < c.text.size() && now >= st.next_byte_ns) {
                uint8_t b = static_cast<uint8_t>(c.text[st.send_pos++]);
                if (!fx.type(b)) {
                    st.send_pos = static_cast<uint32_t>(c.text.size());
                }
                st.next_byte_ns += fx.char_ns();
            }
            if (st.send_pos < c.text.size()) {
                return st.next_byte_ns;
            }
            next_command(st);
            continue;
        case Op::wait:
            if (!st.started) {
                st.started = true;
                st.deadline_ns = now + c.ns;
            }
            if (now < st.deadline_ns) {
                return st.deadline_ns;
            }
            next_command(st);
            continue;
        case Op::pin:
            next_command(st);
            fx.pin();
            continue;
        case Op::power_cycle:
            next_command(st);
            fx.power_cycle();
            return now;
        case Op::set:
            next_command(st);
            fx.set(c.key, c.text);
            continue;
        case Op::card_remove:
        case Op::card_insert:
            next_command(st);
            fx.card(c.op == Op::card_insert);
            continue;
        case Op::exit:
            next_command(st);
            st.ended = true;
            fx.exit();
            return now;
        }
    }
    return never;
}

} // namespace sim::script
