// The Satlantic OCR-504 multispectral radiometer on port 3 (UART3, 57600 baud, 8N1), sending its
// ASCII short frame in engineering units.
//
// It runs free: once the board's port is open (UART3 enabled), the first frame arrives 1 s later
// and one more every second, whatever the board sends (it reads nothing). A frame is
//   SATFI40123\t<412 nm>\t<443 nm>\t<490 nm>\t<555 nm>\r\n
// the instrument's name and serial number, then the four channels' downwelling irradiance
// (uW/cm^2/nm, four decimals): `bath.light` times 1.00, 0.95, 0.80 and 0.60, as daylight falls off
// towards the green under water. A frame that is due while the receiver is off is not sent.
//
// Frames are made one at a time when their time comes, and only while the port is open: a board
// that sleeps with the port closed sees no events from the radiometer. It cannot be told when the
// board opens or closes the port, so it looks each time the runtime asks for its next event (at
// every step of virtual time); closing the port drops a frame on its way.
//
// `port3` = `ocr` and its variants: `-silent` never sends; `-garbage` sends noise instead of each
// frame; `-slow` starts 10 s late (its first frame 11 s after the port opens); `-short` cuts every
// frame off half way.
#include "serial_instrument.h"
#include "registers.h"
#include "sim.h"

#include "inc/hw_uart.h"

#include <cstdio>
#include <string>

namespace sim::dev {

namespace {

constexpr uint64_t frame_period_ns = ns_per_s;
constexpr double channel_share[4] = {1.00, 0.95, 0.80, 0.60}; // 412, 443, 490, 555 nm

struct Ocr {
    SerialLine line{3, 57600};
    bool streaming = false;
    uint64_t next_frame_ns = UINT64_MAX;
    uint32_t scenario_seen = UINT32_MAX; // the scenario's change count when `variant` was read
    Variant variant = Variant::absent;
};

Ocr g_ocr;

// The scenario is read again only when it has changed: this runs at every step of virtual time.
Variant variant() {
    if (scenario_changes() != g_ocr.scenario_seen) {
        g_ocr.scenario_seen = scenario_changes();
        g_ocr.variant = instrument_variant(scenario_str("port3", "none"), "ocr");
    }
    return g_ocr.variant;
}

bool sends(Variant v) {
    return v != Variant::absent && v != Variant::silent;
}

std::string frame() {
    double light = scenario_num("bath.light", 10.0);
    std::string text = "SATFI40123";
    for (double share : channel_share) {
        char value[32];
        std::snprintf(value, sizeof value, "\t%.4f", light * share);
        text += value;
    }
    return text + "\r\n";
}

void stop() {
    g_ocr.streaming = false;
    g_ocr.next_frame_ns = UINT64_MAX;
    g_ocr.line.out.clear();
}

uint64_t next_event_ns() {
    Variant v = variant();
    if (!sends(v) || uart_baud(g_ocr.line.port) == 0) {
        stop();
        return UINT64_MAX;
    }
    if (!g_ocr.streaming) {
        g_ocr.streaming = true;
        g_ocr.next_frame_ns = now_ns() + answer_delay_ns(v, frame_period_ns);
    }
    return g_ocr.next_frame_ns;
}

void service(uint64_t now) {
    if (!g_ocr.streaming || g_ocr.next_frame_ns > now) {
        return;
    }
    uint64_t at = g_ocr.next_frame_ns;
    g_ocr.next_frame_ns = at + frame_period_ns;
    if ((uart_reg_read(g_ocr.line.port, UART_O_CTL) & UART_CTL_RXE) == 0) {
        return;
    }
    line_reply(g_ocr.line, g_ocr.variant, frame(), at);
}

void power_on() {
    g_ocr = Ocr{};
}

} // namespace

const InstrumentModel ocr_model = {"ocr", 3, &g_ocr.line, power_on, nullptr, next_event_ns, service};

} // namespace sim::dev
