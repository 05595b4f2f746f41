// UV nitrate spectrometer driver and its sample sequence. Waits poll the port once a millisecond
// through delay_msec, which feeds the watchdog, so a 4 s scan or a 30 s bake cannot starve it; at
// 115200 baud a millisecond brings about 12 bytes, well inside the port's receive ring.
#include "spectrometer/uvs.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "board/pcal6416.h"
#include "board/timebase.h"
#include "driverlib/gpio.h"
#include "inc/hw_memmap.h"
#include "instruments/inst_text.h"
#include "measure/apf_math.h"
#include "ports/uartstdio.h"
#include "ports/uarts.h"

bool uvs_spec_on = false;
bool uvs_lamp_on = false;

namespace {

constexpr uint32_t uart_clock = 16000000; // the precision internal oscillator
constexpr uint8_t rts_pin = GPIO_PIN_4;
// The spectrometer takes 250 ms to start after its supply comes on.
constexpr uint32_t boot_ms = 300;
// A text reply takes a few milliseconds.
constexpr uint32_t reply_ms = 200;
// A frame follows the integration by a 5 ms readout and takes 45 ms to send at 115200 baud.
constexpr uint32_t frame_margin_ms = 500;
constexpr uint8_t frame_sync0 = 0xA5;
constexpr uint8_t frame_sync1 = 0x5A;
constexpr uint16_t full_scale = 65535;
// More scans than this add nothing to a sample but time.
constexpr uint32_t scans_max = 100;

uint16_t scan[UVS_PIXELS_MAX];
// Sums, then means, of the dark and light scans over the calibration's rows.
float dark_row[UVS_COEFS_MAX];
float light_row[UVS_COEFS_MAX];
uint32_t integration_now = 0;
char spec_serial[16];

uint32_t clamp_scans(uint32_t n) {
    return n < 1 ? 1 : (n > scans_max ? scans_max : n);
}

bool read_line(char* buf, uint32_t room, uint32_t timeout_ms) {
    uint32_t start = Timer_1ms(0);
    uint32_t len = 0;
    buf[0] = '\0';
    while (Timer_1ms(0) - start < timeout_ms) {
        int32_t c = uart_getc(UVS_PORT);
        if (c < 0) {
            delay_msec(1);
            continue;
        }
        if (c == '\n') {
            buf[len] = '\0';
            return true;
        }
        if (c != '\r' && len + 1 < room) {
            buf[len++] = static_cast<char>(c);
        }
    }
    buf[len] = '\0';
    return false;
}

void send_command(const char* cmd) {
    uart_flush_rx(UVS_PORT);
    uart_puts(UVS_PORT, cmd);
    uart_putc(UVS_PORT, '\r');
}

bool ask(const char* cmd, char* reply, uint32_t room) {
    send_command(cmd);
    return read_line(reply, room, reply_ms);
}

// The spectrometer on, identified ("V,<serial>,<pixels>,<firmware>") and set to the integration time.
UvsResult open_spectrometer(uint32_t integration_ms) {
    uvs_set_rts(1);
    uart_init(UVS_PORT, UVS_BAUD, uart_clock);
    uvs_spec_power(1);
    delay_msec(boot_ms);
    char reply[48];
    if (!ask("V", reply, sizeof reply) || strncmp(reply, "V,", 2) != 0) {
        return UvsResult::no_spectrometer;
    }
    size_t len = strcspn(reply + 2, ",");
    if (len >= sizeof spec_serial) {
        len = sizeof spec_serial - 1;
    }
    memcpy(spec_serial, reply + 2, len);
    spec_serial[len] = '\0';
    char cmd[16];
    snprintf(cmd, sizeof cmd, "I,%lu", static_cast<unsigned long>(integration_ms));
    if (!ask(cmd, reply, sizeof reply) || strcmp(reply, cmd) != 0) {
        return UvsResult::bad_setting;
    }
    integration_now = integration_ms;
    return UvsResult::ok;
}

// Frame reader: sync, count, counts, sum. Returns true when a whole frame with a good sum came.
struct FrameReader {
    uint32_t step; // bytes of the frame taken
    uint32_t pixels;
    uint16_t sum;
    uint16_t word;
};

// 1: frame complete, 0: more to come, -1: damaged.
int frame_byte(FrameReader& f, uint8_t b, uint16_t* counts) {
    uint32_t i = f.step++;
    if (i == 0) {
        f.step = b == frame_sync0 ? 1 : 0;
        return 0;
    }
    if (i == 1) {
        f.step = b == frame_sync1 ? 2 : (b == frame_sync0 ? 1 : 0);
        return 0;
    }
    if (i == 2) {
        f.pixels = b;
        return 0;
    }
    if (i == 3) {
        f.pixels |= static_cast<uint32_t>(b) << 8;
        return f.pixels >= 1 && f.pixels <= UVS_PIXELS_MAX ? 0 : -1;
    }
    uint32_t k = i - 4; // byte within the counts and the sum
    if ((k & 1) == 0) {
        f.word = b;
        return 0;
    }
    f.word = static_cast<uint16_t>(f.word | (b << 8));
    uint32_t index = k / 2;
    if (index < f.pixels) {
        counts[index] = f.word;
        f.sum = static_cast<uint16_t>(f.sum + f.word);
        return 0;
    }
    return f.word == f.sum ? 1 : -1;
}

float mean_over(const uint16_t* counts, uint32_t beg, uint32_t end) {
    float sum = 0.0f;
    for (uint32_t p = beg; p <= end; p++) {
        sum += counts[p];
    }
    return sum / static_cast<float>(end - beg + 1);
}

// The fit window clipped to the calibrated pixels; false when too little of it is left.
bool fit_window(const UvsSettings& s, uint32_t* beg, uint32_t* end) {
    uint32_t first = uvs_cal.first_pixel;
    uint32_t last = first + uvs_cal.rows - 1;
    *beg = s.pixel_beg > first ? s.pixel_beg : first;
    *end = s.pixel_end < last ? s.pixel_end : last;
    return *end >= *beg && *end - *beg + 1 >= UVS_COEFS_MIN;
}

// Adds the scan to the rows of [beg, end]; the number of pixels at full scale.
uint32_t add_scan(float* rows, uint32_t beg, uint32_t end) {
    uint32_t saturated = 0;
    for (uint32_t p = beg; p <= end; p++) {
        rows[p - uvs_cal.first_pixel] += scan[p];
        if (scan[p] == full_scale) {
            saturated++;
        }
    }
    return saturated;
}

void rows_to_means(float* rows, uint32_t beg, uint32_t end, uint32_t scans) {
    for (uint32_t p = beg; p <= end; p++) {
        rows[p - uvs_cal.first_pixel] /= static_cast<float>(scans);
    }
}

// A scan that must cover the window.
UvsResult scan_window(uint32_t end) {
    uint32_t pixels = 0;
    UvsResult r = uvs_scanSpectra(scan, &pixels);
    if (r != UvsResult::ok) {
        return r;
    }
    return pixels > end ? UvsResult::ok : UvsResult::scan_failed;
}

UvsResult dark_scans(const UvsSettings& s, uint32_t beg, uint32_t end, UvsSample* out) {
    uint32_t n = clamp_scans(s.dark_scans);
    for (uint32_t k = 0; k < n; k++) {
        UvsResult r = scan_window(end);
        if (r != UvsResult::ok) {
            return r;
        }
        if (k == 0) {
            float mean = 0.0f;
            ShortVectorMeanStdDev(end - beg + 1, scan + beg, &mean, &out->dark_sd);
        }
        add_scan(dark_row, beg, end);
    }
    rows_to_means(dark_row, beg, end, n);
    float sum = 0.0f;
    for (uint32_t p = beg; p <= end; p++) {
        sum += dark_row[p - uvs_cal.first_pixel];
    }
    out->dark_mean = sum / static_cast<float>(end - beg + 1);
    return UvsResult::ok;
}

UvsResult light_scans(const UvsSettings& s, uint32_t beg, uint32_t end, UvsSample* out) {
    for (uint32_t k = 1; k < s.pre_scans; k++) { // the lamp check's scan was the first
        UvsResult r = scan_window(end);
        if (r != UvsResult::ok) {
            return r;
        }
    }
    uint32_t n = clamp_scans(s.light_scans);
    out->saturated = 0;
    for (uint32_t k = 0; k < n; k++) {
        UvsResult r = scan_window(end);
        if (r != UvsResult::ok) {
            return r;
        }
        out->saturated += add_scan(light_row, beg, end);
    }
    rows_to_means(light_row, beg, end, n);
    float sum = 0.0f;
    for (uint32_t p = beg; p <= end; p++) {
        sum += light_row[p - uvs_cal.first_pixel];
    }
    out->light_mean = sum / static_cast<float>(end - beg + 1);
    return UvsResult::ok;
}

// "T,<degC>"; NaN when it does not answer.
float detector_temp(void) {
    char reply[32];
    if (!ask("T", reply, sizeof reply) || strncmp(reply, "T,", 2) != 0 || !inst_is_number(reply + 2)) {
        return NAN;
    }
    return strtof(reply + 2, nullptr);
}

// Everything up to the fit, with the spectrometer on; the caller powers down.
UvsResult measure(const UvsSettings& s, uint32_t beg, uint32_t end, UvsSample* out) {
    UvsResult r = open_spectrometer(s.integration_ms);
    if (r == UvsResult::ok) {
        r = dark_scans(s, beg, end, out);
    }
    float lamp_mean = 0.0f;
    if (r == UvsResult::ok) {
        r = uvs_lampPwrOnUsingSpec(s, out->dark_mean, &lamp_mean);
    }
    if (r == UvsResult::ok) {
        r = light_scans(s, beg, end, out);
    }
    if (r == UvsResult::ok) {
        out->spec_temp = detector_temp();
    }
    return r;
}

UvsResult fit(const UvsSettings& s, const UvsWater& water, uint32_t beg, uint32_t end, UvsSample* out) {
    out->water_from_ctd = water.valid;
    out->salinity_used = water.salinity;
    out->temp_used = water.valid ? water.temp : out->spec_temp;
    if (!std::isfinite(out->temp_used)) {
        out->temp_used = uvs_cal.cal_temp;
    }
    uint32_t row = beg - uvs_cal.first_pixel;
    NitrateSpectrum sp{uvs_lambda + row, uvs_cal.eno3 + row, uvs_cal.esw + row, uvs_cal.reference + row,
                       dark_row + row,   light_row + row,    end - beg + 1};
    NitrateSetup setup{};
    setup.temp = out->temp_used;
    setup.salinity = out->salinity_used;
    setup.cal_temp = uvs_cal.cal_temp;
    setup.tcomp = uvs_cal.tcomp;
    setup.tcomp_on = s.tcomp;
    setup.fit_salinity = s.fit_salinity;
    setup.baseline = s.baseline;
    setup.light_scale = static_cast<float>(integration_now) / static_cast<float>(uvs_cal.cal_integration);
    if (!nitrate_fit(sp, setup, &out->fit)) {
        return UvsResult::fit_failed;
    }
    if (s.fit_salinity) {
        out->salinity_used = out->fit.salinity;
    }
    return UvsResult::ok;
}

} // namespace

uint32_t uvs_lamp_seconds(uint32_t seconds) {
    return seconds < UVS_LAMP_SECONDS_MAX ? seconds : UVS_LAMP_SECONDS_MAX;
}

void uvs_set_rts(uint32_t on) {
    GPIOPinWrite(GPIO_PORTF_BASE, rts_pin, on != 0 ? rts_pin : 0);
}

void uvs_spec_power(uint32_t on) {
    pcal6416_write_pin(PCAL6416_PWR_SPEC, on);
    uvs_spec_on = on != 0;
}

void uvs_lamp_power(uint32_t on) {
    pcal6416_write_pin(PCAL6416_PWR_LAMP, on);
    uvs_lamp_on = on != 0;
}

void uvs_power_down(void) {
    uvs_lamp_power(0);
    uvs_spec_power(0);
}

bool uvs_cal_ready(void) {
    if (uvs_cal_state == UvsCalState::loaded) {
        return true;
    }
    Zcoefs = LoadIsusZCoefs();
    if (Zcoefs > 0) {
        InitLambdaArray();
    }
    return Zcoefs > 0;
}

UvsResult uvs_scanSpectra(uint16_t* counts, uint32_t* pixels) {
    send_command("S");
    FrameReader f{};
    uint32_t timeout = integration_now + frame_margin_ms;
    uint32_t start = Timer_1ms(0);
    while (Timer_1ms(0) - start < timeout) {
        int32_t c = uart_getc(UVS_PORT);
        if (c < 0) {
            delay_msec(1);
            continue;
        }
        int done = frame_byte(f, static_cast<uint8_t>(c), counts);
        if (done < 0) {
            return UvsResult::scan_failed;
        }
        if (done > 0) {
            *pixels = f.pixels;
            return UvsResult::ok;
        }
    }
    return UvsResult::scan_failed;
}

UvsResult uvs_lampPwrOnUsingSpec(const UvsSettings& s, float dark_mean, float* window_mean) {
    uint32_t beg = 0;
    uint32_t end = 0;
    if (!fit_window(s, &beg, &end)) {
        return UvsResult::bad_window;
    }
    uvs_lamp_power(1);
    delay_msec(uvs_lamp_seconds(s.warm_lamp_s) * 1000);
    UvsResult r = scan_window(end);
    if (r != UvsResult::ok) {
        return r;
    }
    *window_mean = mean_over(scan, beg, end) - dark_mean;
    return *window_mean >= static_cast<float>(s.ref_limit) ? UvsResult::ok : UvsResult::lamp_failed;
}

UvsResult uvs_takeIsusSample(const UvsSettings& s, const UvsWater& water, UvsSample* out) {
    memset(out, 0, sizeof *out);
    memset(dark_row, 0, sizeof dark_row);
    memset(light_row, 0, sizeof light_row);
    if (!uvs_cal_ready()) {
        return UvsResult::no_cal;
    }
    uint32_t beg = 0;
    uint32_t end = 0;
    if (!fit_window(s, &beg, &end)) {
        return UvsResult::bad_window;
    }
    UvsResult r = measure(s, beg, end, out);
    uvs_power_down();
    if (r != UvsResult::ok) {
        return r;
    }
    return fit(s, water, beg, end, out);
}

UvsResult uvs_bake(const UvsSettings& s, uint32_t seconds, float* window_mean) {
    uint32_t beg = 0;
    uint32_t end = 0;
    if (!uvs_cal_ready()) {
        return UvsResult::no_cal;
    }
    if (!fit_window(s, &beg, &end)) {
        return UvsResult::bad_window;
    }
    UvsResult r = open_spectrometer(s.integration_ms);
    if (r == UvsResult::ok) {
        r = scan_window(end);
    }
    if (r == UvsResult::ok) {
        UvsSettings bake = s;
        bake.warm_lamp_s = seconds;
        r = uvs_lampPwrOnUsingSpec(bake, mean_over(scan, beg, end), window_mean);
    }
    uvs_power_down();
    return r;
}

void uvs_result_text(UvsResult r, char* out, uint32_t room) {
    switch (r) {
    case UvsResult::ok:
        snprintf(out, room, "%s", "");
        return;
    case UvsResult::no_cal:
        uvs_cal_problem(out, room);
        return;
    case UvsResult::no_spectrometer:
        snprintf(out, room, "%s", "NoSpectrometer");
        return;
    case UvsResult::bad_setting:
        snprintf(out, room, "%s", "IntTimeRefused");
        return;
    case UvsResult::scan_failed:
        snprintf(out, room, "%s", "ScanErr");
        return;
    case UvsResult::lamp_failed:
        snprintf(out, room, "%s", "LampFail");
        return;
    case UvsResult::fit_failed:
        snprintf(out, room, "%s", "FitErr");
        return;
    case UvsResult::bad_window:
        snprintf(out, room, "%s", "PixelWindow");
        return;
    }
}

namespace {

// The bench test's settings: the factory ones.
constexpr UvsSettings bench_settings = {1000, 1, 2, 3, 17, 87, 3, 5000, true, false, 1};

void show_scan(const char* what) {
    uint16_t lo = 0;
    uint16_t hi = 0;
    float mean = 0.0f;
    float sd = 0.0f;
    ShortVectorMinMax(static_cast<int>(UVS_PIXELS_MAX), scan, &lo, &hi);
    ShortVectorMeanStdDev(UVS_PIXELS_MAX, scan, &mean, &sd);
    uprintf("  %s scan: mean %.1f sd %.1f min %u max %u\r\n", what, static_cast<double>(mean),
            static_cast<double>(sd), static_cast<unsigned>(lo), static_cast<unsigned>(hi));
}

UvsResult bench_steps(void) {
    if (!uvs_cal_ready()) {
        return UvsResult::no_cal;
    }
    uprintf("  calibration %s: %d rows from pixel %lu, spectrometer %s\r\n", UVS_CAL_FILENAME, Zcoefs,
            static_cast<unsigned long>(uvs_cal.first_pixel), uvs_cal.serial);
    UvsResult r = open_spectrometer(bench_settings.integration_ms);
    if (r != UvsResult::ok) {
        return r;
    }
    uprintf("  spectrometer %s, integration %lu ms\r\n", spec_serial,
            static_cast<unsigned long>(integration_now));
    uint32_t beg = 0;
    uint32_t end = 0;
    if (!fit_window(bench_settings, &beg, &end)) {
        return UvsResult::bad_window;
    }
    r = scan_window(end);
    if (r != UvsResult::ok) {
        return r;
    }
    show_scan("dark");
    float lamp = 0.0f;
    r = uvs_lampPwrOnUsingSpec(bench_settings, mean_over(scan, beg, end), &lamp);
    uprintf("  lamp: %.1f counts over dark in pixels %lu-%lu\r\n", static_cast<double>(lamp),
            static_cast<unsigned long>(beg), static_cast<unsigned long>(end));
    if (r != UvsResult::ok) {
        return r;
    }
    show_scan("light");
    uprintf("  detector temperature %.2f C\r\n", static_cast<double>(detector_temp()));
    return UvsResult::ok;
}

} // namespace

void uvs_dev_test(uint32_t arg) {
    (void)arg;
    uprintf("UV spectrometer test\r\n");
    UvsResult r = bench_steps();
    uvs_power_down();
    if (r == UvsResult::ok) {
        uprintf("ACK,Z");
        return;
    }
    char why[40];
    uvs_result_text(r, why, sizeof why);
    uprintf("NAK,Z,%s", why);
}
