// Board QA: every part of the board is checked in turn (card, clock, EEPROM, stored record, FRAM,
// supply monitor, the 24-bit converter and each of its channels, the bias batteries) and the
// results go into sys_data.qa, which the summary and the stored record carry. A converter that does
// not signal data-ready fails at once: its channel readings would otherwise wait for ever.
#include "menus/board_qa.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "board/ina260.h"
#include "board/board_util.h"

#include "menus/menu_edit.h"
#include "records/system.h"
#include "storage/settings.h"
#include "board/timebase.h"
#include "driverlib/eeprom.h"
#include "driverlib/hibernate.h"
#include "measure/ads1248_iso.h"
#include "measure/sample.h"
#include "ports/uartstdio.h"
#include "storage/fatfs/ff.h"
#include "storage/i2c_fram.h"
#include "storage/microsd.h"
#include "storage/sd_append.h"

namespace {

// A channel reading passes when it is inside the converter's range (not clipped at +-2.048 V) and
// steady.
constexpr float CHANNEL_LIMIT_V = 2.0f;
constexpr float CHANNEL_MAX_STD_V = 0.01f;
// Bias batteries: nominally 3.6 V each side.
constexpr float BIAS_MIN_V = 2.5f;
constexpr float BIAS_MAX_V = 5.0f;
// Supply monitor: the main battery as the INA260 reads it.
constexpr float SUPPLY_MIN_V = 5.0f;
constexpr float SUPPLY_MAX_V = 20.0f;
// How long the converter may take to signal its first conversion (5 samples/s after reset).
constexpr uint32_t ADC_READY_MS = 500;
// EEPROM bytes below sys_data that the check writes and restores.
constexpr uint32_t EEPROM_SCRATCH_ADDR = 0;
constexpr uint32_t EEPROM_SCRATCH_WORDS = 4;

// Names of the failed items, for the summary.
char failed[160];
uint32_t failures = 0;

uint32_t judge(const char* item, bool pass) {
    uprintf("%-14s %s\r\n", item, pass ? "PASS" : "FAIL");
    wait_consoleTx();
    if (!pass) {
        size_t used = strlen(failed);
        snprintf(failed + used, sizeof failed - used, "%s%s", used == 0 ? "" : ", ", item);
        failures++;
    }
    return pass ? QA_PASS : QA_FAIL;
}

bool card_works(void) {
    if (microSD_flg != 1) {
        if (uSD_present() == 0 || init_uSDCard() != 0) {
            return false;
        }
        microSD_flg = 1;
    }
    FIL* fil = sd_file_take();
    if (fil == nullptr) {
        return false;
    }
    const char text[] = "HXC3 board QA\r\n";
    UINT n = 0;
    bool ok = f_open(fil, "QATEST.TXT", FA_WRITE | FA_CREATE_ALWAYS) == FR_OK;
    ok = ok && f_write(fil, text, sizeof text - 1, &n) == FR_OK && n == sizeof text - 1;
    ok = f_close(fil) == FR_OK && ok;
    char back[sizeof text] = {};
    ok = ok && f_open(fil, "QATEST.TXT", FA_READ) == FR_OK;
    ok = ok && f_read(fil, back, sizeof back - 1, &n) == FR_OK && n == sizeof text - 1;
    f_close(fil);
    sd_file_give();
    if (f_unlink("QATEST.TXT") == FR_OK) {
        sd_append_space_freed();
    }
    return ok && memcmp(back, text, sizeof text - 1) == 0;
}

bool clock_runs(void) {
    uint32_t t0 = HibernateRTCGet();
    for (uint32_t ms = 0; ms < 2500; ms += 10) {
        delay_msec(10);
        if (HibernateRTCGet() != t0) {
            return true;
        }
    }
    return false;
}

bool eeprom_works(void) {
    uint32_t saved[EEPROM_SCRATCH_WORDS];
    uint32_t pattern[EEPROM_SCRATCH_WORDS] = {0x55AA55AAu, 0xAA55AA55u, 0x01234567u, 0xFEDCBA98u};
    uint32_t back[EEPROM_SCRATCH_WORDS] = {};
    EEPROMRead(saved, EEPROM_SCRATCH_ADDR, sizeof saved);
    bool ok = EEPROMProgram(pattern, EEPROM_SCRATCH_ADDR, sizeof pattern) == 0;
    EEPROMRead(back, EEPROM_SCRATCH_ADDR, sizeof back);
    ok = ok && memcmp(back, pattern, sizeof back) == 0;
    EEPROMProgram(saved, EEPROM_SCRATCH_ADDR, sizeof saved);
    return ok;
}

bool supply_reads(void) {
    float volts = 0.0f;
    float amps = 0.0f;
    if (ina260_system_voltageCurrent(&volts, &amps) != 0) {
        return false;
    }
    uprintf("  main battery %.2f V\r\n", static_cast<double>(volts));
    return volts >= SUPPLY_MIN_V && volts <= SUPPLY_MAX_V;
}

struct Channel {
    const char* name;
    int mux; // multiplexer position, -1 to leave it
    int pos, neg;
    uint32_t* trials;
    uint32_t* sps;
    float* value;
    float* std;
    float* err;
};

void read_channel(const Channel& c) {
    if (c.mux >= 0) {
        ADS1248_gpio_ADG1609_mux(static_cast<uint32_t>(c.mux));
        delay_msec(10);
    }
    *c.value = pollADS1248_iso(c.pos, c.neg, static_cast<int>(*c.trials), 1, static_cast<int>(*c.sps));
    *c.std = sys_samp.AD24_std;
    bool pass = std::fabs(*c.value) < CHANNEL_LIMIT_V && *c.std < CHANNEL_MAX_STD_V;
    *c.err = pass ? 0.0f : 1.0f;
    uprintf("  %-8s %10.6f V  sd %9.6f\r\n", c.name, static_cast<double>(*c.value),
            static_cast<double>(*c.std));
    judge(c.name, pass);
}

// The converter and its channels. Without data-ready every channel fails unread.
uint32_t check_adc(qaData& qa) {
    openADS1248_iso();
    delay_msec(100);
    ADS1248_gpio_init();
    bool ready = ADS1248_ready_within(ADC_READY_MS);
    uint32_t result = judge("adc24", ready);
    systemData& d = sys_data;
    const Channel channels[] = {
        {"Ib", 2, 1, 6, &d.Ib_trials, &d.Ib_sps, &qa.Ib, &qa.Ib_std, &qa.Ib_err},
        {"Ik", 1, 1, 5, &d.Ik_trials, &d.Ik_sps, &qa.Ik, &qa.Ik_std, &qa.Ik_err},
        {"Vk", 1, 1, 6, &d.Vk_trials, &d.Vk_sps, &qa.Vk, &qa.Vk_std, &qa.Vk_err},
        {"Vtherm", -1, 0, 6, &d.Vtherm_trials, &d.Vtherm_sps, &qa.Vtherm, &qa.Vtherm_std, &qa.Vtherm_err},
        {"Vb", 3, 1, 5, &d.Vb_trials, &d.Vb_sps, &qa.Vb, &qa.Vb_std, &qa.Vb_err},
        {"Vrsi", 3, 1, 6, &d.Vrsi_trials, &d.Vrsi_sps, &qa.Vrsi, &qa.Vrsi_std, &qa.Vrsi_err},
        {"Vrse", 0, 1, 6, &d.Vrse_trials, &d.Vrse_sps, &qa.Vrse, &qa.Vrse_std, &qa.Vrse_err},
    };
    for (const Channel& c : channels) {
        if (ready) {
            read_channel(c);
        } else {
            *c.err = 1.0f;
            judge(c.name, false);
        }
    }
    closeADS1248_iso();
    return result;
}

void check_bias(qaData& qa) {
    if (qa.adc24 != QA_PASS) {
        judge("bias batteries", false);
        return;
    }
    read_bias_bat();
    qa.Vbias_pos = fBiasPos;
    qa.Vbias_neg = fBiasNeg;
    uprintf("  bias %+.3f V %+.3f V\r\n", static_cast<double>(fBiasPos), static_cast<double>(fBiasNeg));
    bool pass = fBiasPos >= BIAS_MIN_V && fBiasPos <= BIAS_MAX_V && -fBiasNeg >= BIAS_MIN_V &&
                -fBiasNeg <= BIAS_MAX_V;
    judge("bias batteries", pass);
}

void copy_text(unsigned char* field, size_t size, const unsigned char* from, size_t from_size) {
    memset(field, 0, size);
    const void* end = memchr(from, 0, from_size);
    size_t n =
        end != nullptr ? static_cast<size_t>(static_cast<const unsigned char*>(end) - from) : from_size;
    memcpy(field, from, n < size - 1 ? n : size - 1);
}

// Powers the converter for a bench test; false (and powered down again) when it does not convert.
bool open_converter(void) {
    openADS1248_iso();
    delay_msec(100);
    ADS1248_gpio_init();
    if (ADS1248_ready_within(ADC_READY_MS)) {
        return true;
    }
    uprintf("\r\nADC not ready: no conversions\r\n");
    closeADS1248_iso();
    return false;
}

} // namespace

uint32_t board_qa(void) {
    failed[0] = '\0';
    failures = 0;
    qaData qa;
    memset(&qa, 0, sizeof qa);
    uprintf("\r\n\r\nBoard QA, firmware %s\r\n", FIRMWARE_VERSION);
    qa.test_time = HibernateRTCGet();
    qa.microSD = judge("microSD", card_works());
    qa.time = judge("RTC", clock_runs());
    qa.eeprom = judge("EEPROM", eeprom_works());
    qa.sys_data_init =
        judge("sys_data", memcmp(sys_data.firmware_version, FIRMWARE_VERSION, FIRMWARE_VERSION_LEN) == 0);
    qa.fram = judge("FRAM", fram_probe() == 0xAA55AA55u);
    qa.adc12onchip = judge("supply monitor", supply_reads());
    qa.adc24 = check_adc(qa);
    check_bias(qa);
    // The instrument and auxiliary power switches are on the baseboard's expander on this board.
    qa.aux_pwr1 = qa.aux_pwr2 = qa.aux_pwr3 = QA_NOT_ON_BOARD;
    qa.ctd = qa.optode = qa.comm_pwr = QA_NOT_ON_BOARD;
    uprintf("%-14s n/a on this board\r\n", "power switches");
    copy_text(qa.tester, sizeof qa.tester, sys_data.user, sizeof sys_data.user);
    copy_text(qa.firmware_version, sizeof qa.firmware_version,
              reinterpret_cast<const unsigned char*>(FIRMWARE_VERSION), sizeof FIRMWARE_VERSION);
    copy_text(qa.board_fab_note, sizeof qa.board_fab_note, sys_data.package_fab_note,
              sizeof sys_data.package_fab_note);
    sys_data.qa = qa;
    storeSysDataVariables();
    if (failures == 0) {
        uprintf("\r\nBoard QA: PASS\r\n");
    } else {
        uprintf("\r\nBoard QA: FAIL (%lu): %s\r\n", static_cast<unsigned long>(failures), failed);
    }
    return failures;
}

void adc_mux_test(void) {
    if (!open_converter()) {
        return;
    }
    uprintf("\r\nMultiplexer position, inputs 1-6 (V), inputs 1-5 (V)\r\n");
    for (uint32_t pos = 0; pos < 4; pos++) {
        ADS1248_gpio_ADG1609_mux(pos);
        delay_msec(10);
        float a = pollADS1248_iso(1, 6, 5, 1, 20);
        float b = pollADS1248_iso(1, 5, 5, 1, 20);
        uprintf("%lu\t%10.6f\t%10.6f\r\n", static_cast<unsigned long>(pos), static_cast<double>(a),
                static_cast<double>(b));
    }
    closeADS1248_iso();
}

void ground_fault_test(void) {
    if (!open_converter()) {
        return;
    }
    float v = get_groundfault();
    uprintf("\r\nGround fault (inputs 0-4): %10.6f V  sd %9.6f\r\n", static_cast<double>(v),
            static_cast<double>(sys_samp.AD24_std));
    closeADS1248_iso();
}

void sample_soak_test(uint32_t n) {
    uprintf("\r\nSample soak test: %lu samples, any key stops\r\n", static_cast<unsigned long>(n));
    uint32_t done = 0;
    while (done < n && !UARTrdy()) {
        get_sample(1, 0);
        done++;
    }
    if (UARTrdy()) {
        getChar();
    }
    uprintf("\r\nSample soak test: %lu of %lu samples\r\n", static_cast<unsigned long>(done),
            static_cast<unsigned long>(n));
}

void fram_test_report(void) {
    uint32_t bad = fram_test();
    uprintf("\r\nFRAM test: %lu bytes read back wrong, %s\r\n", static_cast<unsigned long>(bad),
            bad == 0 ? "PASS" : "FAIL");
}

void fram_soak_report(void) {
    uint32_t n = 1000;
    bool kept = false;
    if (!menu_read_u32("FRAM soak iterations", n, 1, 1000000, &n, &kept) && !kept) {
        return;
    }
    uint32_t errors = fram_soak_test(n);
    uprintf("\r\nFRAM soak test: %lu errors in %lu iterations, %s\r\n", static_cast<unsigned long>(errors),
            static_cast<unsigned long>(n), errors == 0 ? "PASS" : "FAIL");
}
