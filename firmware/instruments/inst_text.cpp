// Field texts of the instrument column groups, and the reply-line parsing helpers.
#include "instruments/inst_text.h"

#include <cctype>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

} // namespace

void inst_blank_fields(char* buf, size_t size, uint32_t fields) {
    if (size == 0) {
        return;
    }
    size_t n = 0;
    for (uint32_t i = 1; i < fields && n + 1 < size; i++) {
        buf[n++] = '\t';
    }
    buf[n] = '\0';
}

uint32_t inst_split(char* line, const char* seps, char** fields, uint32_t max) {
    uint32_t count = 0;
    char* p = line;
    for (;;) {
        while (*p != '\0' && strchr(seps, *p) != nullptr) {
            p++;
        }
        if (*p == '\0') {
            return count;
        }
        if (count == max) {
            return max + 1;
        }
        fields[count++] = p;
        while (*p != '\0' && strchr(seps, *p) == nullptr) {
            p++;
        }
        if (*p != '\0') {
            *p++ = '\0';
        }
    }
}

bool inst_split_exact(char* line, const char* seps, char** fields, uint32_t count) {
    if (inst_split(line, seps, fields, count) != count) {
        return false;
    }
    for (uint32_t i = 0; i < count; i++) {
        fields[i] = inst_trim(fields[i]);
    }
    return true;
}

bool inst_join_fields(char* buf, size_t size, const char* const* fields, uint32_t count) {
    if (size == 0) {
        return false;
    }
    size_t n = 0;
    for (uint32_t i = 0; i < count; i++) {
        const char* f = fields[i] != nullptr ? fields[i] : "";
        int w = snprintf(buf + n, size - n, i == 0 ? "%s" : "\t%s", f);
        if (w < 0 || static_cast<size_t>(w) >= size - n) {
            inst_blank_fields(buf, size, count);
            return false;
        }
        n += static_cast<size_t>(w);
    }
    buf[n] = '\0';
    return true;
}

// strtod and strtol skip any leading white space; a form feed or vertical tab before the digits is
// line noise, not a number, and would reach the data line as it stands.
namespace {
bool starts_with_noise(const char* text) {
    while (is_blank(*text)) {
        text++;
    }
    return std::isspace(static_cast<unsigned char>(*text)) != 0;
}
} // namespace

bool inst_is_number(const char* text) {
    if (starts_with_noise(text)) {
        return false;
    }
    char* end = nullptr;
    double v = strtod(text, &end);
    if (end == text || !std::isfinite(v)) {
        return false;
    }
    while (is_blank(*end)) {
        end++;
    }
    return *end == '\0';
}

bool inst_is_integer(const char* text) {
    if (starts_with_noise(text)) {
        return false;
    }
    char* end = nullptr;
    strtol(text, &end, 10);
    if (end == text) {
        return false;
    }
    while (is_blank(*end)) {
        end++;
    }
    return *end == '\0';
}

bool inst_is_printable(const char* text) {
    for (const char* p = text; *p != '\0'; p++) {
        if (*p < ' ' || *p > '~') {
            return false;
        }
    }
    return true;
}

char* inst_trim(char* text) {
    while (is_blank(*text)) {
        text++;
    }
    size_t n = strlen(text);
    while (n > 0 && is_blank(text[n - 1])) {
        text[--n] = '\0';
    }
    return text;
}
