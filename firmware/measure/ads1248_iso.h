// The isolated 24-bit ADC front end: the ADS1248 converter on SSI3 and the ADG1609 multiplexer and
// bias-battery selector that its general-purpose pins drive.
//
// Wiring: PD0 SSI3 clock, PD1 chip select (plain GPIO output, low selects), PD2 SSI3 receive,
// PD3 SSI3 transmit; PE0 isolated supply enable, PE1 data-ready (input, low when a conversion is
// ready), PE2 converter START (held high: continuous conversions), PE3 converter reset (low resets).
#pragma once

#include <cstdint>

// The converter's individual readings kept by one pollADS1248_iso call.
inline constexpr int ADS1248_MAX_TRIALS = 120;

// Volts per code at gain 1: the single-precision value of 2.048 / 2^23 (internal 2.048 V reference).
inline constexpr float ADS1248_VOLTS_PER_CODE = 2.4414066e-07f;

// SysCtlDelay loop count per millisecond at 50 MHz (three cycles a loop, rounded up).
inline constexpr uint32_t ADS1248_DELAY_PER_MS = 16667;

// Mean of `trials` conversions of AIN`muxPos` against AIN`muxNeg`, in volts; the population standard
// deviation of the same conversions goes to sys_samp.AD24_std. Waits for data-ready without limit.
float pollADS1248_iso(int muxPos, int muxNeg, int trials, int gain, int sps);

// The SYS0 register value for a PGA gain and a data rate in samples per second.
uint8_t ADS1248_gain_sps(int gain, int sps);

// True when the converter signals a conversion ready within timeout_ms (the isolated side powered):
// the check a test makes before readings that would otherwise wait for ever.
bool ADS1248_ready_within(uint32_t timeout_ms);
// Powers the isolated side up (reset pulse, SSI3 at 1 MHz, SPI mode 1) and down again.
void openADS1248_iso(void);
void closeADS1248_iso(void);

// The converter's GPIO0..GPIO3: all outputs, all low.
void ADS1248_gpio_init(void);
// Multiplexer position 0..3; clears the bias selector.
void ADS1248_gpio_ADG1609_mux(uint32_t chan);
// Bias selector on GPIO3 (1 positive battery, 0 negative); clears the multiplexer bits.
void ADS1248_gpio3(uint32_t state);
