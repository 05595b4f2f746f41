// The UV spectrometer's calibration file: read from the card line by line (the file is larger than
// any buffer the board can spare), checked whole, and the pixel wavelengths built from it.
#include "spectrometer/uvs_cal.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "instruments/inst_text.h"
#include "storage/fatfs/ff.h"

int Zcoefs = 0;
UvsCal uvs_cal = {};
float uvs_lambda[UVS_COEFS_MAX] = {};
UvsCalState uvs_cal_state = UvsCalState::not_loaded;
uint32_t uvs_cal_bad_line = 0;

namespace {

// The header records a file must have.
constexpr uint32_t HAS_PIXELS = 1;
constexpr uint32_t HAS_LAMBDA = 2;
constexpr uint32_t HAS_CAL_TEMP = 4;
constexpr uint32_t HAS_INTEGRATION = 8;
constexpr uint32_t HAS_TCOMP = 16;
constexpr uint32_t HAS_ALL = 31;
constexpr uint32_t MAX_FIELDS = 8;

struct Parser {
    UvsCal* cal;
    uint32_t line_no;
    uint32_t seen;
};

bool numbers(char** fields, uint32_t count, float* out) {
    for (uint32_t i = 0; i < count; i++) {
        if (!inst_is_number(fields[i])) {
            return false;
        }
        out[i] = strtof(fields[i], nullptr);
    }
    return true;
}

bool whole_number(const char* text, uint32_t lo, uint32_t hi, uint32_t* out) {
    if (!inst_is_integer(text)) {
        return false;
    }
    long v = strtol(text, nullptr, 10);
    if (v < static_cast<long>(lo) || v > static_cast<long>(hi)) {
        return false;
    }
    *out = static_cast<uint32_t>(v);
    return true;
}

bool header(Parser& p, char** f, uint32_t n) {
    UvsCal& cal = *p.cal;
    if (strcmp(f[1], "serial") == 0 && n == 3) {
        snprintf(cal.serial, sizeof cal.serial, "%s", f[2]);
        return inst_is_printable(cal.serial);
    }
    if (strcmp(f[1], "pixels") == 0) {
        p.seen |= HAS_PIXELS;
        return n == 3 && whole_number(f[2], UVS_COEFS_MIN, UVS_PIXELS_MAX, &cal.pixels);
    }
    if (strcmp(f[1], "lambda") == 0) {
        p.seen |= HAS_LAMBDA;
        return n == 6 && numbers(f + 2, 4, cal.lambda_coefs);
    }
    if (strcmp(f[1], "cal_temp") == 0) {
        p.seen |= HAS_CAL_TEMP;
        return n == 3 && numbers(f + 2, 1, &cal.cal_temp) && cal.cal_temp > -5.0f && cal.cal_temp < 60.0f;
    }
    if (strcmp(f[1], "cal_integration") == 0) {
        p.seen |= HAS_INTEGRATION;
        return n == 3 && whole_number(f[2], 4, 4000, &cal.cal_integration);
    }
    if (strcmp(f[1], "tcomp") == 0) {
        p.seen |= HAS_TCOMP;
        float v[4];
        if (n != 6 || !numbers(f + 2, 4, v)) {
            return false;
        }
        cal.tcomp = TcompCoefs{v[0], v[1], v[2], v[3]};
        return true;
    }
    return true; // a key of a newer file
}

// A coefficient row continues the pixels before it, on the detector.
bool coefficients(Parser& p, char** f, uint32_t n) {
    UvsCal& cal = *p.cal;
    uint32_t pixel = 0;
    float v[3];
    if (n != 5 || !whole_number(f[1], 0, UVS_PIXELS_MAX - 1, &pixel) || !numbers(f + 2, 3, v)) {
        return false;
    }
    if (cal.rows == 0) {
        cal.first_pixel = pixel;
    }
    if (cal.rows >= UVS_COEFS_MAX || pixel != cal.first_pixel + cal.rows || !(v[2] > 0.0f)) {
        return false;
    }
    cal.eno3[cal.rows] = v[0];
    cal.esw[cal.rows] = v[1];
    cal.reference[cal.rows] = v[2];
    cal.rows++;
    return true;
}

bool parse_line(Parser& p, char* line) {
    p.line_no++;
    char* text = inst_trim(line);
    if (text[0] == '\0' || text[0] == '#') {
        return true;
    }
    char* f[MAX_FIELDS];
    uint32_t n = inst_split(text, ",", f, MAX_FIELDS);
    if (n > MAX_FIELDS || n < 2) {
        return false;
    }
    if (strcmp(f[0], "H") == 0) {
        return header(p, f, n);
    }
    if (strcmp(f[0], "C") == 0) {
        return coefficients(p, f, n);
    }
    return false;
}

// What only the whole file can show: every header there, and the rows on the detector.
bool complete(const Parser& p) {
    const UvsCal& cal = *p.cal;
    return p.seen == HAS_ALL && cal.rows >= UVS_COEFS_MIN && cal.first_pixel + cal.rows <= cal.pixels;
}

void begin(Parser& p, UvsCal* cal) {
    memset(cal, 0, sizeof *cal);
    p.cal = cal;
    p.line_no = 0;
    p.seen = 0;
}

// Feeds the bytes to the parser as lines; a line too long for the buffer is refused. Returns the line
// refused, 0 when all were taken.
struct LineFeeder {
    char line[UVS_CAL_LINE_MAX + 1];
    uint32_t len;
    bool overlong;
};

uint32_t feed(Parser& p, LineFeeder& lf, const char* bytes, uint32_t n) {
    for (uint32_t i = 0; i < n; i++) {
        char c = bytes[i];
        if (c == '\n') {
            lf.line[lf.len] = '\0';
            bool ok = !lf.overlong && parse_line(p, lf.line);
            if (lf.overlong) {
                p.line_no++;
            }
            lf.len = 0;
            lf.overlong = false;
            if (!ok) {
                return p.line_no;
            }
        } else if (lf.len < UVS_CAL_LINE_MAX) {
            lf.line[lf.len++] = c == '\r' ? ' ' : c;
        } else {
            lf.overlong = true;
        }
    }
    return 0;
}

// The last line may lack its line end.
uint32_t finish(Parser& p, LineFeeder& lf) {
    if (lf.len > 0 || lf.overlong) {
        uint32_t bad = feed(p, lf, "\n", 1);
        if (bad != 0) {
            return bad;
        }
    }
    return complete(p) ? 0 : p.line_no + 1;
}

void refuse(uint32_t line) {
    Zcoefs = 0;
    uvs_cal.rows = 0;
    uvs_cal_state = UvsCalState::malformed;
    uvs_cal_bad_line = line;
}

} // namespace

uint32_t uvs_cal_parse(const char* text, uint32_t len, UvsCal* cal) {
    Parser p{};
    begin(p, cal);
    LineFeeder lf{};
    uint32_t bad = feed(p, lf, text, len);
    return bad != 0 ? bad : finish(p, lf);
}

// The file object lives on the stack: the load runs at start-up or under one float word, never
// deep in a call chain, and RAM is short.
int LoadIsusZCoefs(void) {
    FIL fil;
    Zcoefs = 0;
    FRESULT fr = f_open(&fil, UVS_CAL_FILENAME, FA_READ);
    if (fr != FR_OK) {
        uvs_cal_state = fr == FR_NO_FILE ? UvsCalState::missing : UvsCalState::no_card;
        return 0;
    }
    Parser p{};
    begin(p, &uvs_cal);
    LineFeeder lf{};
    uint32_t bad = 0;
    char chunk[64];
    UINT got = 0;
    do {
        fr = f_read(&fil, chunk, sizeof chunk, &got);
        if (fr != FR_OK) {
            f_close(&fil);
            uvs_cal_state = UvsCalState::no_card;
            uvs_cal.rows = 0;
            return 0;
        }
        bad = feed(p, lf, chunk, got);
    } while (bad == 0 && got == sizeof chunk);
    f_close(&fil);
    if (bad == 0) {
        bad = finish(p, lf);
    }
    if (bad != 0) {
        refuse(bad);
        return 0;
    }
    uvs_cal_state = UvsCalState::loaded;
    Zcoefs = static_cast<int>(uvs_cal.rows);
    return Zcoefs;
}

void InitLambdaArray(void) {
    const float* c = uvs_cal.lambda_coefs;
    for (uint32_t r = 0; r < uvs_cal.rows; r++) {
        float x = static_cast<float>(uvs_cal.first_pixel + r);
        uvs_lambda[r] = c[0] + x * (c[1] + x * (c[2] + x * c[3]));
    }
}

void uvs_cal_problem(char* out, uint32_t room) {
    switch (uvs_cal_state) {
    case UvsCalState::loaded:
        snprintf(out, room, "%s", "");
        break;
    case UvsCalState::malformed:
        snprintf(out, room, "CalFileErr line %lu", static_cast<unsigned long>(uvs_cal_bad_line));
        break;
    case UvsCalState::missing:
        snprintf(out, room, "%s", "NoCalFile");
        break;
    case UvsCalState::no_card:
    case UvsCalState::not_loaded:
        snprintf(out, room, "%s", "NoCard");
        break;
    }
}
