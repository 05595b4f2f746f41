// Calibration coefficient files: reading the 20-line ".cal" text from memory or from the card into
// sys_data, and printing the stored calibration as such a text or as one record line.
//
// Lines are read by position. Every line is scanned into a holder first; only when all twenty carry
// their key and a readable value does anything reach sys_data, so a bad file changes nothing. The
// texts are cut to the sizes the record keeps (7 characters for serial numbers, 10 for dates).
#include "storage/calfile.h"

#include "records/system.h"
#include "board/timebase.h"
#include "ports/uartstdio.h"
#include "storage/microsd.h"
#include "storage/sd_append.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

uint32_t calFileFlg = 0;

namespace {

// Holders wide enough for a whole line, so no scan can overrun them (the widths in the scan formats
// below are HOLDER_TEXT_SIZE - 1).
constexpr uint32_t HOLDER_TEXT_SIZE = CAL_MEM_LINE_MAX + 1;
static_assert(HOLDER_TEXT_SIZE == 33, "scan widths below are %32s");
static_assert(CAL_CARD_LINE_MAX < HOLDER_TEXT_SIZE);

struct CalHolders {
    char sensor_sn[HOLDER_TEXT_SIZE];
    char isfet_sn[HOLDER_TEXT_SIZE];
    char ise_sn[HOLDER_TEXT_SIZE];
    char pt_cal_date[HOLDER_TEXT_SIZE];
    float k2[4];
    float fp[7];
    char k0_cal_date[HOLDER_TEXT_SIZE];
    float k0_hcl;
    float k0_sw;
    float k0std_sw;
    char service_date[HOLDER_TEXT_SIZE];
};

// The card's reader works on one file at a time; kept out of the stack (a FIL holds a sector).
FIL* cal_fil = nullptr;

// The key each line must begin with, by position.
constexpr const char* CAL_KEYS[CAL_LINE_COUNT] = {
    "Sensor_SN", "ISFET_SN",    "ISE_SN", "PT_Cal_date", "k2_C0",    "k2_C1",        "k2_C2",
    "k2_C3",     "fP_0",        "fP_1",   "fP_2",        "fP_3",     "fP_4",         "fP_5",
    "fP_6",      "k0_Cal_date", "k0_HCl", "k0_SW",       "k0std_SW", "service_date",
};

bool scan_text(const char* line, const char* format, char* holder) {
    return sscanf(line, format, holder) == 1;
}

// A coefficient must be a finite number: "nan" and "inf" scan as floats but are no calibration.
bool scan_float(const char* line, const char* format, float* holder) {
    return sscanf(line, format, holder) == 1 && std::isfinite(*holder);
}

// Scans line n (0-based) of a calibration file into its holder; false when the line does not carry
// its key and a readable value. ise_sn is where the ISE number goes.
bool scan_cal_line(uint32_t n, const char* line, CalHolders& h, char* ise_sn) {
    switch (n) {
    case 0:
        return scan_text(line, "Sensor_SN,%32s", h.sensor_sn);
    case 1:
        return scan_text(line, "ISFET_SN,%32s", h.isfet_sn);
    case 2:
        return scan_text(line, "ISE_SN,%32s", ise_sn);
    case 3:
        return scan_text(line, "PT_Cal_date,%32s", h.pt_cal_date);
    case 4:
        return scan_float(line, "k2_C0,%f", &h.k2[0]);
    case 5:
        return scan_float(line, "k2_C1,%f", &h.k2[1]);
    case 6:
        return scan_float(line, "k2_C2,%f", &h.k2[2]);
    case 7:
        return scan_float(line, "k2_C3,%f", &h.k2[3]);
    case 8:
        return scan_float(line, "fP_0,%f", &h.fp[0]);
    case 9:
        return scan_float(line, "fP_1,%f", &h.fp[1]);
    case 10:
        return scan_float(line, "fP_2,%f", &h.fp[2]);
    case 11:
        return scan_float(line, "fP_3,%f", &h.fp[3]);
    case 12:
        return scan_float(line, "fP_4,%f", &h.fp[4]);
    case 13:
        return scan_float(line, "fP_5,%f", &h.fp[5]);
    case 14:
        return scan_float(line, "fP_6,%f", &h.fp[6]);
    case 15:
        return scan_text(line, "k0_Cal_date,%32s", h.k0_cal_date);
    case 16:
        return scan_float(line, "k0_HCl,%f", &h.k0_hcl);
    case 17:
        return scan_float(line, "k0_SW,%f", &h.k0_sw);
    case 18:
        return scan_float(line, "k0std_SW,%f", &h.k0std_sw);
    case 19:
        return scan_text(line, "service_date,%32s", h.service_date);
    default:
        return false;
    }
}

// A calibration is taken whole or not at all: one bad line would otherwise zero a coefficient and
// the pH would go wrong without a word.
void refuse_calibration(uint32_t line_number, const char* line) {
    uprintf("\r\nCalibration file refused: line %u \"%.32s\" is not \"%s,value\"; the calibration is "
            "unchanged\r\n",
            static_cast<unsigned>(line_number), line, CAL_KEYS[line_number - 1]);
}

// Stores at most max characters of text in a record field, terminated and zero-filled.
void store_text(unsigned char* field, uint32_t field_size, const char* text, uint32_t max) {
    if (max > field_size - 1) {
        max = field_size - 1;
    }
    memset(field, 0, field_size);
    for (uint32_t i = 0; i < max && text[i] != '\0'; i++) {
        field[i] = static_cast<unsigned char>(text[i]);
    }
}

// The stored calibration texts as terminated strings, also when a field holds no NUL (a blank
// EEPROM).
struct CalTexts {
    char cal_filename[sizeof(systemData::cal_filename) + 1];
    char sensor_sn[sizeof(systemData::sensor_SN) + 1];
    char isfet_sn[sizeof(systemData::isfet_SN) + 1];
    char ise_sn[sizeof(systemData::ise_SN) + 1];
    char pt_cal_date[sizeof(systemData::PT_Cal_date) + 1];
    char k0_cal_date[sizeof(systemData::k0_Cal_date) + 1];
    char service_date[sizeof(systemData::service_date) + 1];
};

void copy_field(char* out, const unsigned char* field, uint32_t field_size) {
    memcpy(out, field, field_size);
    out[field_size] = '\0';
}

CalTexts stored_texts(void) {
    CalTexts t;
    copy_field(t.cal_filename, sys_data.cal_filename, sizeof sys_data.cal_filename);
    copy_field(t.sensor_sn, sys_data.sensor_SN, sizeof sys_data.sensor_SN);
    copy_field(t.isfet_sn, sys_data.isfet_SN, sizeof sys_data.isfet_SN);
    copy_field(t.ise_sn, sys_data.ise_SN, sizeof sys_data.ise_SN);
    copy_field(t.pt_cal_date, sys_data.PT_Cal_date, sizeof sys_data.PT_Cal_date);
    copy_field(t.k0_cal_date, sys_data.k0_Cal_date, sizeof sys_data.k0_Cal_date);
    copy_field(t.service_date, sys_data.service_date, sizeof sys_data.service_date);
    return t;
}

// Appends formatted text to prnBuf, never past its end.
size_t prn_used = 0;
__attribute__((format(printf, 1, 2))) void prn_add(const char* fmt, ...) {
    if (prn_used >= sizeof prnBuf - 1) {
        return;
    }
    va_list args;
    va_start(args, fmt);
    int n = vsnprintf(prnBuf + prn_used, sizeof prnBuf - prn_used, fmt, args);
    va_end(args);
    if (n > 0) {
        prn_used += static_cast<size_t>(n);
        if (prn_used > sizeof prnBuf - 1) {
            prn_used = sizeof prnBuf - 1;
        }
    }
}

// Sends what prn_add collected as one burst and waits until it has left.
void prn_send(void) {
    UARTwrite(prnBuf, static_cast<uint32_t>(prn_used));
    wait_consoleTx();
    prn_used = 0;
}

void show_card_holders(const CalHolders& h) {
    uprintf("Filename: %s\r\n", CAL_CARD_FILENAME);
    uprintf("Sensor_SN: %s\r\n", h.sensor_sn);
    uprintf("ISFET_SN: %s\r\n", h.isfet_sn);
    uprintf("ISE_SN: %s\r\n", h.ise_sn);
    uprintf("PT_Cal_date: %s\r\n", h.pt_cal_date);
    for (uint32_t i = 0; i < 4; i++) {
        uprintf("k2_C%u: %e\r\n", static_cast<unsigned>(i), static_cast<double>(h.k2[i]));
    }
    for (uint32_t i = 0; i < 7; i++) {
        uprintf("fP_%u: %e\r\n", static_cast<unsigned>(i), static_cast<double>(h.fp[i]));
    }
    uprintf("k0_Cal_date: %s\r\n", h.k0_cal_date);
    uprintf("k0_HCl: %e\r\n", static_cast<double>(h.k0_hcl));
    uprintf("k0_SW: %e\r\n", static_cast<double>(h.k0_sw));
    uprintf("k0std_SW: %e\r\n", static_cast<double>(h.k0std_sw));
    uprintf("service_date: %s\r\n", h.service_date);
}

} // namespace

void set_cal_filename(const char* filename) {
    store_text(sys_data.cal_filename, sizeof sys_data.cal_filename, filename != nullptr ? filename : "",
               CAL_FILENAME_MAX);
}

const char* egets(char* line, const char* buf, const char* end) {
    uint32_t i = 0;
    while (buf < end && *buf != '\0') {
        char c = *buf++;
        if (c == '\n') {
            break;
        }
        // A line longer than the buffer is cut; the rest of it up to the "\n" is skipped.
        if (i < CAL_MEM_LINE_MAX) {
            line[i++] = c == '\r' ? '\0' : c;
        }
    }
    line[i] = '\0';
    return buf;
}

uint32_t parse_cal_packet(const char* buf, uint32_t len) {
    CalHolders h{};
    const char* pos = buf != nullptr ? buf : "";
    const char* end = buf != nullptr ? buf + len : pos;
    char line[CAL_MEM_LINE_MAX + 1];
    for (uint32_t n = 0; n < CAL_LINE_COUNT; n++) {
        pos = egets(line, pos, end);
        if (!scan_cal_line(n, line, h, h.ise_sn)) {
            refuse_calibration(n + 1, line);
            return n + 1;
        }
    }

    store_text(sys_data.sensor_SN, sizeof sys_data.sensor_SN, h.sensor_sn, CAL_SN_MAX);
    store_text(sys_data.isfet_SN, sizeof sys_data.isfet_SN, h.isfet_sn, CAL_SN_MAX);
    store_text(sys_data.ise_SN, sizeof sys_data.ise_SN, h.ise_sn, CAL_SN_MAX);
    store_text(sys_data.PT_Cal_date, sizeof sys_data.PT_Cal_date, h.pt_cal_date, CAL_DATE_MAX);
    store_text(sys_data.k0_Cal_date, sizeof sys_data.k0_Cal_date, h.k0_cal_date, CAL_DATE_MAX);
    store_text(sys_data.service_date, sizeof sys_data.service_date, h.service_date, CAL_DATE_MAX);
    memcpy(sys_data.K2_Cal, h.k2, sizeof sys_data.K2_Cal);
    memcpy(sys_data.fP_Cal, h.fp, sizeof sys_data.fP_Cal);
    sys_data.k0_HCL = h.k0_hcl;
    sys_data.k0_SW = h.k0_sw;
    sys_data.k0std_SW = h.k0std_sw;
    return 0;
}

uint32_t efgets(FIL* fil, char* line) {
    uint32_t i = 0;
    uint32_t got = 0;
    while (i < CAL_CARD_LINE_MAX) {
        char c = 0;
        UINT br = 0;
        if (f_read(fil, &c, 1, &br) != FR_OK || br != 1) {
            break;
        }
        got++;
        if (c == '\n') {
            break;
        }
        line[i++] = c == '\r' ? '\0' : c;
    }
    line[i] = '\0';
    return got;
}

namespace {

// Reads and shows the card file's twenty lines; 0 when all of them scanned, else the first bad one.
uint32_t read_card_holders(CalHolders& h) {
    char line[CAL_CARD_LINE_MAX + 1];
    for (uint32_t n = 0; n < CAL_LINE_COUNT; n++) {
        efgets(cal_fil, line);
        uprintf("%s\r\n", line);
        // The ISFET and ISE numbers are read into one holder on this path (kept as it is).
        if (!scan_cal_line(n, line, h, h.isfet_sn)) {
            refuse_calibration(n + 1, line);
            return n + 1;
        }
    }
    return 0;
}

// Stored from the card: the file name, sensor and ISFET numbers, the k2 and fP terms and the service
// date; the PT date and the k0 block stay as they were.
void store_card_holders(const CalHolders& h) {
    store_text(sys_data.cal_filename, sizeof sys_data.cal_filename, CAL_CARD_FILENAME, CAL_FILENAME_MAX);
    store_text(sys_data.sensor_SN, sizeof sys_data.sensor_SN, h.sensor_sn, CAL_SN_MAX);
    store_text(sys_data.isfet_SN, sizeof sys_data.isfet_SN, h.isfet_sn, CAL_SN_MAX);
    memcpy(sys_data.K2_Cal, h.k2, sizeof sys_data.K2_Cal);
    memcpy(sys_data.fP_Cal, h.fp, sizeof sys_data.fP_Cal);
    store_text(sys_data.service_date, sizeof sys_data.service_date, h.service_date, CAL_DATE_MAX);
}

} // namespace

uint32_t import_pH_sensor_cal_coeff(void) {
    UARTEchoSet(false);
    cal_fil = sd_file_take();
    FRESULT fr = cal_fil != nullptr ? f_open(cal_fil, CAL_CARD_FILENAME, FA_READ) : FR_LOCKED;
    if (fr != FR_OK) {
        sd_file_give();
        uprintf("f_open error: %s\r\n", StringFromFresult(fr));
        UARTEchoSet(true);
        return 1;
    }
    uprintf("importing %s, %lu bytes...\r\n", CAL_CARD_FILENAME, static_cast<unsigned long>(f_size(cal_fil)));
    UARTFlushTx(false);

    CalHolders h{};
    uint32_t bad_line = read_card_holders(h);
    if (bad_line == 0) {
        uprintf("\r\n\r\n");
        show_card_holders(h);
        store_card_holders(h);
    }

    uprintf("\r\n\r\n");
    fr = f_close(cal_fil);
    sd_file_give();
    if (fr != FR_OK) {
        uprintf("f_close error: %s\r\n", StringFromFresult(fr));
    }
    UARTEchoSet(true);
    return bad_line == 0 ? 0 : 1;
}

void export_pH_sensor_cal_coeff(void) {
    CalTexts t = stored_texts();
    uprintf("\r\n");
    prn_used = 0;
    prn_add("Cal filename: %s\r\n\r\n", t.cal_filename);
    prn_add("Sensor_SN,%s\r\n", t.sensor_sn);
    prn_add("ISFET_SN,%s\r\n", t.isfet_sn);
    prn_add("ISE_SN,%s\r\n", t.ise_sn);
    prn_add("PT_Cal_date,%s\r\n", t.pt_cal_date);
    for (uint32_t i = 0; i < 4; i++) {
        prn_add("k2_C%u,%e\r\n", static_cast<unsigned>(i), static_cast<double>(sys_data.K2_Cal[i]));
    }
    prn_send();

    for (uint32_t i = 0; i < 7; i++) {
        prn_add("fP_%u,%e\r\n", static_cast<unsigned>(i), static_cast<double>(sys_data.fP_Cal[i]));
    }
    prn_send();

    prn_add("k0_Cal_date,%s\r\n", t.k0_cal_date);
    prn_add("k0_HCl,%e\r\n", static_cast<double>(sys_data.k0_HCL));
    prn_add("k0_SW,%e\r\n", static_cast<double>(sys_data.k0_SW));
    prn_add("k0std_SW,%e\r\n", static_cast<double>(sys_data.k0std_SW));
    prn_add("service_date,%s\r\n", t.service_date);
    prn_send();
    uprintf("\r\n");
}

void get_pH_sensor_cal_coeff(void) {
    CalTexts t = stored_texts();
    prn_used = 0;
    prn_add("%s\t", t.sensor_sn);
    prn_add("%s\t", t.isfet_sn);
    prn_add("%s\t", t.ise_sn);
    prn_add("%s\t", t.pt_cal_date);
    for (float k2 : sys_data.K2_Cal) {
        prn_add("%e\t", static_cast<double>(k2));
    }
    for (float fp : sys_data.fP_Cal) {
        prn_add("%e\t", static_cast<double>(fp));
    }
    prn_send();

    prn_add("%s\t", t.k0_cal_date);
    prn_add("%e\t", static_cast<double>(sys_data.k0_HCL));
    prn_add("%e\t", static_cast<double>(sys_data.k0_SW));
    prn_add("%e\t", static_cast<double>(sys_data.k0std_SW));
    prn_add("%s\r\n", t.service_date);
    prn_send();
}
