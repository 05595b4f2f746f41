// The serial flash socket on SSI2 (PB4 clock, PB6 receive, PB7 transmit; two chips with their own
// active-low selects). Only a JEDEC identification probe for the developer test menu: the deployed
// system stores nothing in the flash.
#pragma once

#include <cstdint>

// Chip selects of the two flash chips, driven as plain GPIO outputs.
inline constexpr uint32_t FLASH_CS0_PORT = 0x40005000; // GPIO_PORTB_BASE
inline constexpr uint8_t FLASH_CS0_PIN = 0x20;         // PB5, chip 0
inline constexpr uint32_t FLASH_CS1_PORT = 0x40024000; // GPIO_PORTE_BASE
inline constexpr uint8_t FLASH_CS1_PIN = 0x10;         // PE4, chip 1

inline constexpr uint8_t FLASH_CMD_JEDEC_ID = 0x9F;
inline constexpr uint8_t FLASH_CMD_READ_STATUS = 0x05;

// Both selects raised, flash supply on, SSI2 at 1 MHz, SPI mode 0, master, 8-bit frames.
void spi_flash_open(void);
// Reads and prints the manufacturer byte of chip 0 or 1 ("chipId 0x%02x"); returns it.
uint8_t spi_flash_probe(uint32_t chip);
// Developer test: opens the port, probes both chips and prints their status registers.
void spi_flash_test(void);
