// Calibration coefficients as they arrive from outside: a received .cal text handed to
// parse_cal_packet, and a coefficient typed at a menu question (edit_item on a number entry).
// A calibration is taken whole or not at all, and a value is stored only when it is finite and
// within its entry's range.
#include <cmath>
#include <cstring>

#include "menus/menu_edit.h"
#include "records/system.h"
#include "fuzz_board.h"
#include "storage/calfile.h"

namespace {

const uint8_t* g_data;
size_t g_size;
uint32_t g_result;

float g_f32;
double g_f64;
uint32_t g_u32;
MenuItem g_item;

bool texts_terminated(void) {
    return memchr(sys_data.sensor_SN, 0, sizeof sys_data.sensor_SN) != nullptr &&
           memchr(sys_data.isfet_SN, 0, sizeof sys_data.isfet_SN) != nullptr &&
           memchr(sys_data.ise_SN, 0, sizeof sys_data.ise_SN) != nullptr &&
           memchr(sys_data.PT_Cal_date, 0, sizeof sys_data.PT_Cal_date) != nullptr &&
           memchr(sys_data.k0_Cal_date, 0, sizeof sys_data.k0_Cal_date) != nullptr &&
           memchr(sys_data.service_date, 0, sizeof sys_data.service_date) != nullptr;
}

bool coefficients_finite(void) {
    for (float k : sys_data.K2_Cal) {
        if (!std::isfinite(k)) {
            return false;
        }
    }
    for (float f : sys_data.fP_Cal) {
        if (!std::isfinite(f)) {
            return false;
        }
    }
    return std::isfinite(sys_data.k0_HCL) && std::isfinite(sys_data.k0_SW) &&
           std::isfinite(sys_data.k0std_SW);
}

// Everything outside the calibration block: the parser must not reach it.
void copy_calibration(systemData& to, const systemData& from) {
    memcpy(to.K2_Cal, from.K2_Cal, sizeof to.K2_Cal);
    memcpy(to.fP_Cal, from.fP_Cal, sizeof to.fP_Cal);
    to.k0_HCL = from.k0_HCL;
    to.k0_SW = from.k0_SW;
    to.k0std_SW = from.k0std_SW;
    memcpy(to.service_date, from.service_date, sizeof to.service_date);
    memcpy(to.PT_Cal_date, from.PT_Cal_date, sizeof to.PT_Cal_date);
    memcpy(to.k0_Cal_date, from.k0_Cal_date, sizeof to.k0_Cal_date);
    memcpy(to.sensor_SN, from.sensor_SN, sizeof to.sensor_SN);
    memcpy(to.isfet_SN, from.isfet_SN, sizeof to.isfet_SN);
    memcpy(to.ise_SN, from.ise_SN, sizeof to.ise_SN);
}

void fuzz_packet(void) {
    const systemData before = sys_data;
    sim::test::Outcome o = sim::test::run([] {
        g_result = parse_cal_packet(reinterpret_cast<const char*>(g_data), static_cast<uint32_t>(g_size));
    });
    fuzz::check(o.returned, "parse_cal_packet ended the power-on period");
    fuzz::check(g_result <= CAL_LINE_COUNT, "parse_cal_packet returned no line number");
    if (g_result != 0) {
        fuzz::check(memcmp(&before, &sys_data, sizeof sys_data) == 0,
                    "a refused calibration changed sys_data");
        return;
    }
    fuzz::check(coefficients_finite(), "an accepted calibration holds a coefficient that is not finite");
    fuzz::check(texts_terminated(), "an accepted calibration left a text without its NUL");
    systemData outside = before;
    copy_calibration(outside, sys_data);
    fuzz::check(memcmp(&outside, &sys_data, sizeof sys_data) == 0,
                "an accepted calibration changed a setting outside the calibration");
}

// One typed answer to a number question of the calibration menu's kinds.
void fuzz_answer(uint8_t kind) {
    g_f32 = 0.5f;
    g_f64 = 0.5;
    g_u32 = 7;
    switch (kind % 3) {
    case 0:
        g_item = {
            .key = 'L', .label = "k0int (V)", .kind = ItemKind::f32, .f32 = &g_f32, .lo = -5.0, .hi = 5.0};
        break;
    case 1:
        g_item = {.key = 'E', .label = "c0", .kind = ItemKind::f64, .f64 = &g_f64, .lo = -1e30, .hi = 1e30};
        break;
    default:
        g_item = {.key = 'C', .label = "n", .kind = ItemKind::u32, .u32 = &g_u32, .lo = 1, .hi = 86400};
        break;
    }
    std::string typed = fuzz::text_of(g_data, g_size);
    sim::test::type_after(0.01, typed + "\r");
    sim::test::Outcome o = fuzz::run_for([] { g_result = edit_item(g_item) ? 1 : 0; }, 2.0 + 0.001 * g_size);
    fuzz::check(o.returned, "a typed coefficient kept the question waiting or ended the power-on period");
    if (g_result == 0) {
        fuzz::check(g_f32 == 0.5f && g_f64 == 0.5 && g_u32 == 7, "a refused answer changed the value");
        return;
    }
    bool in_range = false;
    switch (g_item.kind) {
    case ItemKind::f32:
        in_range = std::isfinite(g_f32) && g_f32 >= -5.0f && g_f32 <= 5.0f;
        break;
    case ItemKind::f64:
        in_range = std::isfinite(g_f64) && g_f64 >= -1e30 && g_f64 <= 1e30;
        break;
    default:
        in_range = g_u32 >= 1 && g_u32 <= 86400;
        break;
    }
    fuzz::check(in_range, "an accepted answer is outside its entry's range");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::start_board();
    return 0;
}

// The first byte chooses: even, a .cal text; odd, a typed answer (the byte's value picks the kind).
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > 4096) {
        return -1;
    }
    g_data = data + 1;
    g_size = size - 1;
    if ((data[0] & 1) == 0) {
        fuzz::keep_board_on();
        sim::test::clear_console_output();
        fuzz_packet();
        return 0;
    }
    // A question starts from a new board: nothing typed for an earlier one may still be on its way.
    fuzz::start_board();
    fuzz_answer(data[0] >> 1);
    return 0;
}
