// The data file and its headers, and the upload of logged data.
//
// A data file holds, per deployment, the metadata header (lines beginning "//"), the data-field
// block inside it, the data header (the column names) and then one data line per sample. Each
// writer opens the file, seeks to its end, writes and closes it again, so that a power cut loses at
// most the text being written. A failed open or seek ends the file copy for the rest of that call
// and is reported; the console copy always runs to its end.
#include "storage/config.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "board/board_util.h"
#include "records/system.h"
#include "storage/settings.h"
#include "ports/uartstdio.h"
#include "storage/fatfs/ff.h"
#include "storage/microsd.h"
#include "storage/sd_append.h"

namespace {

// Open mode of the data file: read, write, create when missing (0x13).
constexpr BYTE DATA_FILE_MODE = FA_READ | FA_WRITE | FA_OPEN_ALWAYS;

// Longest metadata line (a deployment note of 79 characters makes about 100).
constexpr size_t LINE_SIZE = 192;
// The time lines are formatted in a buffer of this size.
constexpr size_t TIME_LINE_SIZE = 50;
// The longest data header (every column, the Brisa group, a CTD group and the pump) is about 480.
constexpr size_t DATA_HEADER_SIZE = 640;
// Bytes read from the card per console write while uploading.
constexpr UINT UPLOAD_CHUNK = 256;

// Pump sequence types of sys_data.pump_seq_type.
constexpr uint32_t PUMP_SINGLE = 1;
constexpr uint32_t PUMP2_BEAMSV1 = 2;

// One call of a writer: where its text goes, and whether a file operation failed.
struct Writer {
    bool print;  // console copy
    bool write;  // file copy wanted and not yet given up
    bool open;   // an append session on the data file is open now
    bool failed; // a file operation failed
    bool stuck;  // a write failed: the session takes no more (one message, not one a line)
};

// A text field of sys_data as a terminated string, even when the stored bytes lack their NUL.
// The result lives until the next call.
char text_copy[81];

const char* field_text(const unsigned char* field, size_t size) {
    memcpy(text_copy, field, size);
    text_copy[size] = '\0';
    return text_copy;
}

template <size_t N>
const char* text(const unsigned char (&field)[N]) {
    static_assert(N < sizeof text_copy);
    return field_text(field, N);
}

Writer start_writer(uint32_t printFlg, uint32_t writeFlg) {
    Writer w{};
    w.print = printFlg != 0;
    w.write = writeFlg != 0;
    return w;
}

// Opens the data file and moves to its end. With logging off the file copy is dropped silently.
void open_for_append(Writer& w) {
    if (!w.write) {
        return;
    }
    if (sys_data.app_cfg[APPCFG_MICROSD_ENABLE] == 0) {
        w.write = false;
        return;
    }
    FRESULT fr =
        sd_append_report("", AppendStep::open, sd_append_open(text(sys_data.fileName), TailSlot::data_file));
    if (fr != FR_OK) {
        w.failed = true;
        w.write = false;
        return;
    }
    w.open = true;
    if (sd_append_report("", AppendStep::seek, sd_append_seek()) != FR_OK) {
        w.failed = true;
        w.write = false;
        sd_append_close(); // nothing was written: only the file is let go
        w.open = false;
    }
}

void close_file(Writer& w) {
    if (!w.open) {
        return;
    }
    w.open = false;
    w.stuck = false;
    if (sd_append_report("", AppendStep::close, sd_append_close()) != FR_OK) {
        w.failed = true;
    }
}

// Appends text to the open file; `prefix` goes before the failure's "f_write error: ...". A card too
// full for the header keeps none of it (the session is taken back when it closes).
void file_write(Writer& w, const char* data, size_t len, const char* prefix = "") {
    if (!w.open || w.stuck) {
        return;
    }
    if (sd_append_report(prefix, AppendStep::write, sd_append_write(data, static_cast<uint32_t>(len))) !=
        FR_OK) {
        w.failed = true;
        w.stuck = true;
    }
}

void vput(Writer& w, bool to_console, bool to_file, const char* fmt, va_list args) {
    char line[LINE_SIZE];
    int n = vsnprintf(line, sizeof line, fmt, args);
    if (n <= 0) {
        return;
    }
    size_t len = static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : sizeof line - 1;
    if (to_console && w.print) {
        UARTwrite(line, static_cast<uint32_t>(len));
    }
    if (to_file) {
        file_write(w, line, len);
    }
}

// One line to both copies.
void put(Writer& w, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void put(Writer& w, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vput(w, true, true, fmt, args);
    va_end(args);
}

// Lines whose console spelling differs from the file's.
void put_console(Writer& w, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void put_console(Writer& w, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vput(w, true, false, fmt, args);
    va_end(args);
}

void put_file(Writer& w, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void put_file(Writer& w, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vput(w, false, true, fmt, args);
    va_end(args);
}

// A line made in the 50-byte time buffer: a strftime format of RTC seconds t in local time, or a
// fixed text when format_time is false.
void put_time_line(Writer& w, const char* format, uint32_t t, bool format_time) {
    char line[TIME_LINE_SIZE];
    size_t len = 0;
    if (format_time) {
        time_t when = static_cast<time_t>(t);
        const struct tm* cal = localtime(&when);
        if (cal == nullptr) {
            return;
        }
        len = strftime(line, sizeof line, format, cal);
    } else {
        len = static_cast<size_t>(snprintf(line, sizeof line, "%s", format));
    }
    if (w.print) {
        UARTwrite(line, static_cast<uint32_t>(len));
    }
    file_write(w, line, len, "Current time ");
}

void put_pump_times(Writer& w) {
    put(w, "// Pump1 on time (s):\t%u\r\n", (unsigned)sys_data.pump1_ontime);
    put(w, "// Pump2 on time (s):\t%u\r\n", (unsigned)sys_data.pump2_ontime);
    put(w, "// Pump1 cycles:     \t%u\r\n", (unsigned)sys_data.pump1_cycles);
    put(w, "// Pump2 cycles:     \t%u\r\n", (unsigned)sys_data.pump2_cycles);
}

// Without a pump on-time there is no pump, whatever the sequence type says. Type 5 and above write
// the BEAMSV2 group and then the SELFCAL group: the two tests are separate on purpose.
void put_pump_block(Writer& w) {
    if (sys_data.pump1_ontime == 0) {
        put(w, "// Pump on time (s):\t%u\r\n", (unsigned)sys_data.pump1_ontime);
        return;
    }
    if (sys_data.start_pump_time == 0) {
        put_time_line(w, "// Pump start delay: \t0\r\n", 0, false);
    } else {
        put_time_line(w, "// Pump delay until:\t%Y/%m/%d %H:%M:%S\r\n", sys_data.start_pump_time, true);
    }
    const uint32_t type = sys_data.pump_seq_type;
    if (type == PUMP_SINGLE) {
        put(w, "// Pump seq type:   \tPUMP_SINGLE\r\n");
        if (sys_data.test_mode != 0) {
            put(w, "// Pump on time (s):\t%u  (TEST MODE, pump disabled)\r\n",
                (unsigned)sys_data.pump1_ontime);
        } else {
            put(w, "// Pump on time (s):\t%u\r\n", (unsigned)sys_data.pump1_ontime);
        }
    }
    if (type == PUMP2_BEAMSV1) {
        put(w, "// Pump seq type:   \t2PUMP_BEAMSV1\r\n");
        put_pump_times(w);
    }
    if (type > 2) {
        put(w, "// Pump seq type:   \t2PUMP_BEAMSV2\r\n");
        put_pump_times(w);
    }
    if (type > 4) {
        put(w, "// Pump seq type:   \t2PUMP_SELFCAL\r\n");
        put_pump_times(w);
    }
}

// The file spells the thermistor labels in capitals, the console in lower case; the quadratic
// terms carry the "S-H" label too. Both spellings are what readers of these files expect.
void put_thermistor(Writer& w) {
    if (sys_data.app_cfg[APPCFG_TEMPC_SH_ALG] == 0) {
        put_file(w, "// S-H c0        \t%f\r\n", sys_data.quadTherm_c0);
        put_file(w, "// S-H c1        \t%f\r\n", sys_data.quadTherm_c1);
        put_file(w, "// S-H c2        \t%f\r\n", sys_data.quadTherm_c2);
        put_file(w, "// S-H c3        \t%f\r\n", sys_data.quadTherm_c3);
        put_console(w, "// s-h c0        \t%f\r\n", sys_data.quadTherm_c0);
        put_console(w, "// s-h c1        \t%f\r\n", sys_data.quadTherm_c1);
        put_console(w, "// s-h c2        \t%f\r\n", sys_data.quadTherm_c2);
        put_console(w, "// s-h c3        \t%f\r\n", sys_data.quadTherm_c3);
        return;
    }
    put_file(w, "// S-H A         \t%f\r\n", sys_data.shTherm_A);
    put_file(w, "// S-H B         \t%f\r\n", sys_data.shTherm_B);
    put_file(w, "// S-H C         \t%f\r\n", sys_data.shTherm_C);
    put_console(w, "// s-h A         \t%f\r\n", sys_data.shTherm_A);
    put_console(w, "// s-h B         \t%f\r\n", sys_data.shTherm_B);
    put_console(w, "// s-h C         \t%f\r\n", sys_data.shTherm_C);
}

void put_deployment_settings(Writer& w) {
    const systemData& d = sys_data;
    put(w, "//++************** Deployment Settings ***************\r\n");
    put(w, "// Firmware version: \t%s\r\n", text(d.firmware_version));
    put(w, "// Sampling period (s)\t%u\r\n", (unsigned)d.sampling_period);
    if (d.sample_aligned == 0) {
        put(w, "// Samples hour align:\tNo\r\n");
    } else {
        put(w, "// Samples hour align:\tYes\r\n");
    }
    put(w, "// Vrsi sps,trials: \t%u, %u\r\n", (unsigned)d.Vrsi_sps, (unsigned)d.Vrsi_trials);
    put(w, "// Vrse sps,trials: \t%u, %u\r\n", (unsigned)d.Vrse_sps, (unsigned)d.Vrse_trials);
    put(w, "// Vtherm sps,trials\t%u, %u\r\n", (unsigned)d.Vtherm_sps, (unsigned)d.Vtherm_trials);
    put(w, "// Ik sps, trials:   \t%u, %u\r\n", (unsigned)d.Ik_sps, (unsigned)d.Ik_trials);
    put(w, "// Vk sps, trials:   \t%u, %u\r\n", (unsigned)d.Vk_sps, (unsigned)d.Vk_trials);
    put(w, "// Ib sps, trials:   \t%u, %u\r\n", (unsigned)d.Ib_sps, (unsigned)d.Ib_trials);
    put(w, "// Vb sps, trials:   \t%u, %u\r\n", (unsigned)d.Vb_sps, (unsigned)d.Vb_trials);
    put(w, "// Vbias sps,trials: \t%u, %u\r\n", (unsigned)d.Vbias_sps, (unsigned)d.Vbias_trials);
    put_pump_block(w);
    if (d.sampleCnt_duty_on != 0) {
        put(w, "// Exp Duty Cycle On \t%u\r\n", (unsigned)d.sampleCnt_duty_on);
        put(w, "// Exp Duty Cycle Off\t%u\r\n", (unsigned)d.sampleCnt_duty_off);
    }
    put(w, "// Low battery voltage:\t%.1f\r\n", (double)d.low_batt_volt);
    if (d.output == NORMAL) {
        put(w, "// Output mode:        \tNormal\r\n");
    } else if (d.output == VERBOSE) {
        put(w, "// Output mode:        \tVerbose\r\n");
    }
    put_time_line(w, "// Deploy time:   \t%Y/%m/%d %H:%M:%S\r\n", d.deploy_time, true);
    if (d.GMT == 0) {
        put(w, "// Time zone:       \tLocal\r\n");
    } else {
        put(w, "// Time zone:       \tGMT\r\n");
    }
}

void put_calibration(Writer& w) {
    const systemData& d = sys_data;
    put(w, "// TCOffset:     \t%f\r\n", (double)d.TCOffset);
    put(w, "// k0int:        \t%f\r\n", (double)d.k0int);
    put(w, "// k0ext:        \t%f\r\n", (double)d.k0ext);
    put(w, "// k2int:        \t%f\r\n", (double)d.k2int);
    put(w, "// k2ext:        \t%f\r\n", (double)d.k2ext);
    put(w, "// Def Sal (ppt):\t%f\r\n", (double)d.default_sal);
    put(w, "// Offset Ik:    \t%f\r\n", (double)d.offset_Ik);
    put(w, "// Offset Ib:    \t%f\r\n", (double)d.offset_Ib);
    put_thermistor(w);
    put(w, "// Cal filename  \t%s\r\n", text(d.cal_filename));
    put(w, "// PT_Cal_date   \t%s\r\n", text(d.PT_Cal_date));
    for (unsigned i = 0; i < 4; i++) {
        put(w, "// k2_C%u         \t%e\r\n", i, (double)d.K2_Cal[i]);
    }
    for (unsigned i = 0; i < 7; i++) {
        put(w, "// fP_%u          \t%e\r\n", i, (double)d.fP_Cal[i]);
    }
    put(w, "// k0_Cal_date   \t%s\r\n", text(d.k0_Cal_date));
    put(w, "// k0_HCl        \t%e\r\n", (double)d.k0_HCL);
    put(w, "// k0_SW         \t%e\r\n", (double)d.k0_SW);
    put(w, "// k0std_SW      \t%e\r\n", (double)d.k0std_SW);
    put(w, "// service_date  \t%s\r\n", text(d.service_date));
}

void put_identity(Writer& w) {
    const systemData& d = sys_data;
    put(w, "// Version Info: \t%s\r\n", FIRMWARE_VERSION);
    put(w, "// File name:     \t%s\r\n", text(d.fileName));
    put(w, "// User initials: \t%s\r\n", text(d.user));
    put(w, "// Board SN:      \t%s\r\n", text(d.board_SN));
    put(w, "// MCAP SN:       \t%s\r\n", text(d.mcap_SN));
    put(w, "// Sensor SN:     \t%s\r\n", text(d.sensor_SN));
    put(w, "// ISFET SN:      \t%s\r\n", text(d.isfet_SN));
    put(w, "// ISE SN:        \t%s\r\n", text(d.ise_SN));
    put(w, "// Optode SN:     \t%s\r\n", text(d.optode_SN));
    put(w, "// CTD SN:        \t%s\r\n", text(d.ctd_SN));
    put(w, "// Pump1 SN:      \t%s\r\n", text(d.pump_SN));
    put(w, "// Pump2 SN:      \t%s\r\n", text(d.pump2_SN));
    put(w, "// Package name:  \t%s\r\n", text(d.package_name));
    put(w, "// Fab Note:      \t%s\r\n", text(d.package_fab_note));
    put(w, "// Deploy note:   \t%s\r\n", text(d.deploy_note));
    put(w, "// MicroSD Logging:  \t%u\r\n", (unsigned)d.app_cfg[APPCFG_MICROSD_ENABLE]);
    put(w, "// Uart Echo:     \t%u\r\n", (unsigned)d.app_cfg[APPCFG_DEPLOY_UARTECHO]);
    put(w, "// App Exec:      \t%u\r\n", (unsigned)d.app_cfg[APPCFG_EXEC_SWITCHERONI]);
}

// Appends text to a bounded buffer; what does not fit is cut.
void append(char* buf, size_t size, size_t& len, const char* text) {
    size_t n = strlen(text);
    if (len + n >= size) {
        n = size - 1 - len;
    }
    memcpy(buf + len, text, n);
    len += n;
    buf[len] = '\0';
}

// The column names, in the order of the data line's fields.
size_t build_data_header(char* buf, size_t size) {
    const unsigned char* cfg = sys_data.data_cfg;
    size_t len = 0;
    buf[0] = '\0';
    struct Column {
        uint8_t index;
        const char* name;
    };
    static constexpr Column leading[] = {
        {CFG_VIN_BAT_VOLT, "VbatMain\t"},
        {CFG_BIAS_BAT_POS, "VbiasPos\t"},
        {CFG_BIAS_BAT_NEG, "VbiasNeg\t"},
        {CFG_BRD_TEMP, " TC_cont\t"},
        {CFG_BRD_HUMIDITY, "Humidity\t"},
        {CFG_V_THERMISTOR, "  Vtherm\t"},
        {CFG_V_THERMISTOR_STD, "VthrmStd\t"},
        {CFG_CALC_TEMP, " TC_Dfet\t"},
        {CFG_VRSI, "    Vrsi\t"},
        {CFG_VRSI_STD, "Vrsi_std\t"},
        {CFG_CALC_PH_VRSI, "pHintEst\t"},
        {CFG_VRSE, "    Vrse\t"},
        {CFG_VRSE_STD, "Vrse_std\t"},
        {CFG_CALC_PH_VRSE, "pHextEst\t"},
        {CFG_VRSI_BIASED, "  Vrsi_B\t"},
        {CFG_VRSI_BIASED_STD, "VrsiBstd\t"},
        {CFG_VRSE_BIASED, "  Vrse_B\t"},
        {CFG_VRSE_BIASED_STD, "VrseBstd\t"},
        {CFG_V_COUNTER_ELECT, "      Vk\t"},
        {CFG_V_COUNTER_ELECT_STD, "  Vk_std\t"},
        {CFG_I_COUNTER, "      Ik\t"},
        {CFG_I_SUBSTRATE, "      Ib\t"},
    };

    if (cfg[CFG_SAMPLE_NUM] != 0) {
        append(buf, size, len, " SampNum\t");
    }
    if (cfg[CFG_TIMESTAMP] == 1) {
        append(buf, size, len, "     MM/DD/YYYY HH:MM:SS\t");
    }
    if (cfg[CFG_TIMESTAMP] == 2) {
        append(buf, size, len, "Epoch millisec\t");
    }
    for (const Column& column : leading) {
        if (cfg[column.index] != 0) {
            append(buf, size, len, column.name);
        }
    }
    switch (cfg[CFG_UART3_INST]) {
    case 1: // optode
        append(buf, size, len,
               "Opt_PN\tOpt_SN\tMoxy\tO2satper\tTC_opt\tDphase\tBphase\tRphase\tBamp\tBpot\tRamp\t"
               "Opt_rawtemp\t");
        break;
    case 2: // radiometer
        append(buf, size, len, "OCR_PN  \tChan_1 \tChan_2 \tChan_3 \tChan_4 \t");
        break;
    case 3: // Brisa pH instrument
        append(buf, size, len,
               " SampNum\tMM/DD/YYYY HH:MM:SS\tVbiasPos\t TC_cont\tHumidity\t  Vtherm\tVthrmStd\t"
               " TC_Dfet\t    Vrse\tVrse_std\t      Vk\t  Vk_std\t      Ik \t      Ib\t");
        break;
    case 4: // Corrib pH instrument
        append(buf, size, len,
               "MEA  \tChan \tSensors \tErrors \tdphi \t0 \t0 \t0 \tTC_samp \tTC_case \tsigInt \t"
               "ambLight \tPres \tHum \tTO_res \t0 \t0 \tpH \t0 \t0 \t0 \t");
        break;
    default:
        break;
    }
    switch (cfg[CFG_UART4_INST]) {
    case 6: // SBE37 CTD
        append(buf, size, len, "TC_MCat\tCond\tPres\tpSal\tDate_MC\tTime_MC\t");
        break;
    case 7: // Aanderaa CTD
        append(buf, size, len, "Cond_PN\tCond_SN\tCond\tTemp\tSal\tDensity \tSSpeed\t");
        break;
    default:
        break;
    }
    if (sys_data.pump_seq_type == PUMP2_BEAMSV1) {
        append(buf, size, len, "   Pump\t");
    }
    append(buf, size, len, "\r\n");
    return len;
}

} // namespace

bool print_write_metadata_header(uint32_t printFlg, uint32_t writeFlg) {
    Writer w = start_writer(printFlg, writeFlg);
    open_for_append(w);
    put(w, "\r\n\r\n");
    put_deployment_settings(w);
    put_calibration(w);
    put_identity(w);
    if (w.open) {
        sys_samp.next_gdata_fptr = sd_append_tell();
    }
    close_file(w);

    // A file copy given up above stays given up, so a missing card is reported once.
    if (print_write_config_data_fields(w.print, w.write, 1)) {
        w.failed = true;
    }

    open_for_append(w);
    put(w, "//--**************************************************\r\n");
    put(w, "\r\n\r\n");
    close_file(w);
    return w.failed;
}

bool write_metadata_header(void) {
    return print_write_metadata_header(0, 1);
}

bool print_metadata_header(void) {
    return print_write_metadata_header(1, 0);
}

// The letters skip C, E, J, K, N..Q and S: those columns are not listed.
bool print_write_config_data_fields(uint32_t printFlg, uint32_t writeFlg, uint32_t padFlg) {
    Writer w = start_writer(printFlg, writeFlg);
    open_for_append(w);
    const char* pad = padFlg == 1 ? "// " : "";
    const unsigned char* cfg = sys_data.data_cfg;
    put(w, "%sA -- Sample Num               = %u\r\n", pad, (unsigned)cfg[CFG_SAMPLE_NUM]);
    if (cfg[CFG_TIMESTAMP] == 2) {
        put(w, "%sB -- MM/DD/YYYY HH:MM:SS      = %u,  Epoch millisec\r\n\r\n", pad,
            (unsigned)cfg[CFG_TIMESTAMP]);
    } else {
        put(w, "%sB -- MM/DD/YYYY HH:MM:SS      = %u\r\n", pad, (unsigned)cfg[CFG_TIMESTAMP]);
    }
    put(w, "%sD -- Bias Battery Pos         = %u\r\n", pad, (unsigned)cfg[CFG_BIAS_BAT_POS]);
    put(w, "%sF -- Board Temperature        = %u\r\n", pad, (unsigned)cfg[CFG_BRD_TEMP]);
    put(w, "%sG -- Board Humidity           = %u\r\n", pad, (unsigned)cfg[CFG_BRD_HUMIDITY]);
    put(w, "%sH -- Vthermistor              = %u\r\n", pad, (unsigned)cfg[CFG_V_THERMISTOR]);
    put(w, "%s     Vtermistor Std           = %u\r\n", pad, (unsigned)cfg[CFG_V_THERMISTOR_STD]);
    put(w, "%sI -- Temperature Calc         = %u\r\n", pad, (unsigned)cfg[CFG_CALC_TEMP]);
    put(w, "%sL -- Vrse (Ext Ref pH volt)   = %u\r\n", pad, (unsigned)cfg[CFG_VRSE]);
    put(w, "%s     Vrse Std                 = %u\r\n", pad, (unsigned)cfg[CFG_VRSE_STD]);
    put(w, "%sM -- pH Vrse Calc             = %u\r\n", pad, (unsigned)cfg[CFG_CALC_PH_VRSE]);
    put(w, "%sR -- Counter Electrode Vk     = %u\r\n", pad, (unsigned)cfg[CFG_V_COUNTER_ELECT]);
    put(w, "%s     Counter Electrode Vk Std = %u\r\n", pad, (unsigned)cfg[CFG_V_COUNTER_ELECT_STD]);
    put(w, "%sT -- Counter Electrode Cur Ik = %u\r\n", pad, (unsigned)cfg[CFG_I_COUNTER]);
    put(w, "%sU -- Substrate Current        = %u\r\n", pad, (unsigned)cfg[CFG_I_SUBSTRATE]);
    close_file(w);
    return w.failed;
}

void print_config_data_fields(void) {
    print_write_config_data_fields(1, 0, 0);
}

bool print_write_data_header(uint32_t printFlg, uint32_t writeFlg) {
    char line[DATA_HEADER_SIZE];
    size_t len = build_data_header(line, sizeof line);
    if (printFlg != 0) {
        UARTwrite(line, static_cast<uint32_t>(len));
        wait_consoleTx();
    }
    if (writeFlg == 0 || sys_data.app_cfg[APPCFG_MICROSD_ENABLE] != 1) {
        return false;
    }
    Writer w = start_writer(0, 1);
    open_for_append(w);
    file_write(w, line, len);
    if (w.open) {
        sys_samp.next_gdata_fptr = sd_append_tell();
    }
    close_file(w);
    return w.failed;
}

bool write_data_header(void) {
    return print_write_data_header(0, 1);
}

bool print_data_header(void) {
    return print_write_data_header(1, 0);
}

// The data-field block already sits inside the metadata header.
void print_all_metadata(void) {
    print_metadata_header();
}

void print_config(void) {
    const systemData& d = sys_data;
    uprintf("\r\nData file:           %s\r\n", text(d.fileName));
    uprintf("MicroSD logging:     %u\r\n", (unsigned)d.app_cfg[APPCFG_MICROSD_ENABLE]);
    uprintf("Sampling period (s): %u\r\n", (unsigned)d.sampling_period);
    uprintf("Samples hour align:  %s\r\n", d.sample_aligned != 0 ? "Yes" : "No");
    uprintf("Thermistor equation: %s\r\n",
            d.app_cfg[APPCFG_TEMPC_SH_ALG] != 0 ? "Steinhart-Hart" : "Quadratic");
    uprintf("Port 3 instrument:   %u\r\n", (unsigned)d.data_cfg[CFG_UART3_INST]);
    uprintf("Port 4 instrument:   %u\r\n", (unsigned)d.data_cfg[CFG_UART4_INST]);
    uprintf("Pump seq type:       %u\r\n", (unsigned)d.pump_seq_type);
    uprintf("\r\nData fields:\r\n");
    print_config_data_fields();
    uprintf("\r\nData header:\r\n");
    print_data_header();
}

// The float controller reads the header of the running deployment from the console.
void get_header(void) {
    print_metadata_header();
}

// The data is sent raw, as it stands in the file. A position past the end means the file was
// replaced or cut since the last header, so the whole file is new to the reader and goes out.
uint32_t get_data(void) {
    if (sys_data.app_cfg[APPCFG_MICROSD_ENABLE] == 0) {
        uprintf("get_data() not supported with microSD disabled\r\n");
        return 1;
    }
    FIL* fil = sd_file_take();
    FRESULT fr = fil != nullptr ? f_open(fil, text(sys_data.fileName), FA_READ) : FR_LOCKED;
    if (fr != FR_OK) {
        sd_file_give();
        uprintf("f_open error: %s\r\n", StringFromFresult(fr));
        return 1;
    }
    FSIZE_t pos = sys_samp.next_gdata_fptr;
    if (pos > f_size(fil)) {
        pos = 0;
    }
    uint32_t result = 0;
    fr = f_lseek(fil, pos);
    if (fr != FR_OK) {
        uprintf("f_lseek error: %s\r\n", StringFromFresult(fr));
        result = 1;
    }
    while (result == 0) {
        char chunk[UPLOAD_CHUNK];
        UINT got = 0;
        fr = f_read(fil, chunk, sizeof chunk, &got);
        if (fr != FR_OK) {
            uprintf("f_read error: %s\r\n", StringFromFresult(fr));
            result = 1;
            break;
        }
        if (got == 0) {
            break;
        }
        UARTwrite(chunk, got);
        pos += got;
        wdog_pet(); // a year of data takes minutes at 115200 baud
    }
    // The next upload continues after what was sent, also after a read error.
    sys_samp.next_gdata_fptr = static_cast<uint32_t>(pos);
    storeSysSampFRAMVariables();
    fr = f_close(fil);
    sd_file_give();
    if (fr != FR_OK) {
        uprintf("f_close error: %s\r\n", StringFromFresult(fr));
        result = 1;
    }
    wait_consoleTx();
    return result;
}
