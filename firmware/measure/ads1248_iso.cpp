// The isolated 24-bit ADC front end: configures the ADS1248 for a channel, averages its
// conversions, and switches the isolated side and the converter's general-purpose pins.
#include "measure/ads1248_iso.h"

#include "board/board_util.h"
#include "records/system.h"
#include "board/timebase.h"
#include "driverlib/gpio.h"
#include "driverlib/pin_map.h"
#include "driverlib/rom.h"
#include "driverlib/ssi.h"
#include "driverlib/sysctl.h"
#include "inc/hw_memmap.h"
#include "ports/uartstdio.h"

#include <cmath>

namespace {

constexpr uint32_t adc_ssi = SSI3_BASE;
constexpr uint32_t cs_port = GPIO_PORTD_BASE;
constexpr uint8_t cs_pin = GPIO_PIN_1;
constexpr uint8_t ssi_pins = GPIO_PIN_0 | GPIO_PIN_2 | GPIO_PIN_3; // clock, receive, transmit
constexpr uint32_t ctl_port = GPIO_PORTE_BASE;
constexpr uint8_t pwr_pin = GPIO_PIN_0;
constexpr uint8_t drdy_pin = GPIO_PIN_1;
constexpr uint8_t start_pin = GPIO_PIN_2;
constexpr uint8_t reset_pin = GPIO_PIN_3;

constexpr uint32_t adc_bit_rate = 1000000;

// Commands: write registers starting at 0 (MUX0) and at 0x0C (GPIOCFG) and 0x0E (GPIODAT).
constexpr uint8_t WREG_MUX0 = 0x40;
constexpr uint8_t WREG_GPIOCFG = 0x4C;
constexpr uint8_t WREG_GPIODAT = 0x4E;
constexpr uint8_t MUX1_INTREF = 0x30; // internal reference always on and selected, normal inputs
constexpr uint8_t NOP = 0xFF;

void cs(bool low) {
    ROM_GPIOPinWrite(cs_port, cs_pin, low ? 0 : cs_pin);
}

void drain_rx(void) {
    uint32_t dummy = 0;
    while (ROM_SSIDataGetNonBlocking(adc_ssi, &dummy)) {
    }
}

void wait_idle(void) {
    while (ROM_SSIBusy(adc_ssi)) {
    }
}

void send(const uint8_t* bytes, int n) {
    for (int i = 0; i < n; i++) {
        ROM_SSIDataPut(adc_ssi, bytes[i]);
    }
}

// One framed command for the general-purpose pin registers.
void gpio_command(const uint8_t* bytes, int n) {
    cs(true);
    drain_rx();
    send(bytes, n);
    wait_idle();
    cs(false);
}

void delay_ms(uint32_t ms) {
    ROM_SysCtlDelay(ADS1248_DELAY_PER_MS * ms);
}

// The Cortex-M4 divides by zero without trapping and yields 0; the host must not trap either.
int32_t div_trunc(int32_t a, int32_t b) {
    return b == 0 ? 0 : a / b;
}

// The three bytes of one conversion, most significant first; missing bytes read as zero.
uint32_t read_code(void) {
    drain_rx();
    cs(true);
    const uint8_t clocks[3] = {NOP, NOP, NOP};
    send(clocks, 3);
    wait_idle();
    uint32_t bytes[3] = {0, 0, 0};
    uint32_t v = 0;
    int n = 0;
    while (ROM_SSIDataGetNonBlocking(adc_ssi, &v)) {
        if (n < 3) {
            bytes[n] = v & 0xFF;
        }
        n++;
    }
    cs(false);
    return (bytes[0] << 16) | (bytes[1] << 8) | bytes[2];
}

int32_t sign_extend(uint32_t code) {
    if (code & 0x800000) {
        return -static_cast<int32_t>((~code & 0x7FFFFF) + 1);
    }
    return static_cast<int32_t>(code);
}

} // namespace

uint8_t ADS1248_gain_sps(int gain, int sps) {
    uint8_t pga = 0;
    switch (gain) {
    case 1:
        pga = 0;
        break;
    case 2:
        pga = 1;
        break;
    case 4:
        pga = 2;
        break;
    case 8:
        pga = 3;
        break;
    case 16:
        pga = 4;
        break;
    case 32:
        pga = 5;
        break;
    case 64:
        pga = 6;
        break;
    case 128:
        pga = 7;
        break;
    default:
        uprintf("\r\n\r\nUnrecognized PGA gain. Setting to 1.");
        pga = 0;
        break;
    }
    uint8_t dr = 0;
    switch (sps) {
    case 5:
        dr = 0;
        break;
    case 10:
        dr = 1;
        break;
    case 20:
        dr = 2;
        break;
    case 40:
        dr = 3;
        break;
    case 80:
        dr = 4;
        break;
    case 160:
        dr = 5;
        break;
    case 320:
        dr = 6;
        break;
    case 640:
        dr = 7;
        break;
    case 1000:
        dr = 8;
        break;
    case 2000:
        dr = 9;
        break;
    default:
        uprintf("\r\n\r\nUnrecognized data rate. Setting to 5 sps.");
        dr = 0;
        break;
    }
    return static_cast<uint8_t>((pga << 4) | dr);
}

float pollADS1248_iso(int muxPos, int muxNeg, int trials, int gain, int sps) {
    if (trials > ADS1248_MAX_TRIALS) {
        uprintf("MAX TRIALS is %u in ADS1248_iso, more trials (avg) than %u was requested, edit "
                "pollADS1248_iso() and recompile",
                static_cast<unsigned>(ADS1248_MAX_TRIALS), static_cast<unsigned>(ADS1248_MAX_TRIALS));
        trials = ADS1248_MAX_TRIALS;
    }

    // A new channel, gain or rate restarts the converter's filter; its first conversion settles.
    cs(true);
    uint8_t sys0 = ADS1248_gain_sps(gain, sps);
    drain_rx();
    const uint8_t setup[6] = {WREG_MUX0, 0x03,        static_cast<uint8_t>(muxPos * 8 + muxNeg),
                              0x00,      MUX1_INTREF, sys0};
    send(setup, 6);
    wait_idle();
    cs(false);

    float readings[ADS1248_MAX_TRIALS];
    int32_t sum = 0;
    for (int i = 0; i < trials; i++) {
        // No time-out: a converter that never gets ready stalls here until the watchdog resets.
        while (ROM_GPIOPinRead(ctl_port, drdy_pin) != 0) {
        }
        int32_t code = sign_extend(read_code());
        sum += code;
        readings[i] = static_cast<float>(code) / static_cast<float>(gain) * ADS1248_VOLTS_PER_CODE;
    }
    if (trials <= 0) {
        sys_samp.AD24_std = 0.0f;
        return 0.0f;
    }

    // The mean is truncated to whole codes before it is scaled, as the instrument always has.
    int32_t mean_code = div_trunc(div_trunc(sum, trials), gain);
    float mean = static_cast<float>(mean_code) * ADS1248_VOLTS_PER_CODE;

    if (trials < 2) {
        sys_samp.AD24_std = 0.0f;
        return mean;
    }
    float squares = 0.0f;
    for (int i = 0; i < trials; i++) {
        float d = readings[i] - mean;
        squares += d * d;
    }
    sys_samp.AD24_std =
        static_cast<float>(std::sqrt(static_cast<double>(squares / static_cast<float>(trials))));
    return mean;
}

bool ADS1248_ready_within(uint32_t timeout_ms) {
    uint32_t start = Timer_1ms(0);
    while (ROM_GPIOPinRead(ctl_port, drdy_pin) != 0) {
        if (Timer_1ms(0) - start > timeout_ms) {
            return false;
        }
        wdog_pet();
    }
    return true;
}

void openADS1248_iso(void) {
    ROM_GPIOPinWrite(ctl_port, pwr_pin | reset_pin | start_pin, pwr_pin | reset_pin | start_pin);
    ROM_GPIOPinWrite(cs_port, cs_pin, cs_pin);

    delay_ms(2);
    ROM_GPIOPinWrite(ctl_port, reset_pin, 0);
    delay_ms(10);
    ROM_GPIOPinWrite(ctl_port, reset_pin, reset_pin);

    ROM_SysCtlPeripheralEnable(SYSCTL_PERIPH_SSI3);
    ROM_GPIOPinConfigure(GPIO_PD0_SSI3CLK);
    ROM_GPIOPinConfigure(GPIO_PD2_SSI3RX);
    ROM_GPIOPinConfigure(GPIO_PD3_SSI3TX);
    ROM_GPIOPinTypeSSI(cs_port, ssi_pins);

    ROM_SSIClockSourceSet(adc_ssi, SSI_CLOCK_SYSTEM);
    ROM_SSIConfigSetExpClk(adc_ssi, ROM_SysCtlClockGet(), SSI_FRF_MOTO_MODE_1, SSI_MODE_MASTER, adc_bit_rate,
                           8);
    ROM_SSIEnable(adc_ssi);

    delay_ms(20);
}

void closeADS1248_iso(void) {
    ROM_GPIOPinWrite(ctl_port, start_pin | reset_pin, start_pin | reset_pin);

    ROM_SSIDisable(adc_ssi);
    ROM_SysCtlPeripheralDisable(SYSCTL_PERIPH_SSI3);

    // Idle lines driven low so that nothing feeds the unpowered isolator.
    ROM_GPIOPinTypeGPIOOutput(cs_port, GPIO_PIN_0 | GPIO_PIN_3);
    ROM_GPIOPinWrite(cs_port, GPIO_PIN_0 | GPIO_PIN_3, 0);
    ROM_GPIOPinTypeGPIOInput(cs_port, GPIO_PIN_2);

    ROM_GPIOPinWrite(cs_port, cs_pin, 0);
    ROM_GPIOPinWrite(ctl_port, pwr_pin, 0);
}

void ADS1248_gpio_init(void) {
    const uint8_t cmd[5] = {WREG_GPIOCFG, 0x02, 0x0F, 0x00, 0x00};
    gpio_command(cmd, 5);
}

void ADS1248_gpio_ADG1609_mux(uint32_t chan) {
    if (chan > 3) {
        uprintf("Mux channels are 0 to 3 in ADS1248_iso, error in arg for ADS1248_gpio_ADG1609_mux\r\n");
        chan = 3;
    }
    uint8_t value = static_cast<uint8_t>((chan ^ 3) & 3);
    if (chan == 0 || chan == 3) {
        value |= 4;
    }
    const uint8_t cmd[3] = {WREG_GPIODAT, 0x00, value};
    gpio_command(cmd, 3);
}

void ADS1248_gpio3(uint32_t state) {
    const uint8_t cmd[3] = {WREG_GPIODAT, 0x00, static_cast<uint8_t>(state == 1 ? 8 : 0)};
    gpio_command(cmd, 3);
}
