// The microcontroller's peripherals as the emulated processor sees them: 32-bit registers at byte
// offsets into each module's block, as in the datasheet's register maps (inc/hw_*.h). The same
// models serve the TivaWare API the host build links; these are their second front door.
//
// No virtual time passes inside these calls: the processor's executed cycles advance it, and a
// register whose value depends on time (a busy flag, a FIFO level) shows its state at now_ns().
// Reads with side effects (a FIFO's data register) act as on the chip.
#pragma once

#include <cstdint>

namespace sim::dev {

// UART0..UART7, offset into the module's 4 KiB block (0x000 DR ... 0xFC8 CC).
uint32_t uart_reg_read(int port, uint32_t offset);
void uart_reg_write(int port, uint32_t offset, uint32_t value);

// SSI0..SSI3 (0x000 CR0 ... 0xFC8 CC).
uint32_t ssi_reg_read(int module, uint32_t offset);
void ssi_reg_write(int module, uint32_t offset, uint32_t value);

// GPIO ports A..F (0..5) on either aperture: 0x000..0x3FC the masked DATA window, then DIR, IS,
// ... LOCK at 0x520, CR at 0x524, PCTL at 0x52C.
uint32_t gpio_reg_read(int port, uint32_t offset);
void gpio_reg_write(int port, uint32_t offset, uint32_t value);

// I2C0..I2C3 master registers (0x000 MSA, 0x004 MCS, 0x008 MDR, 0x00C MTPR, ... 0x020 MCR).
uint32_t i2c_reg_read(int master, uint32_t offset);
void i2c_reg_write(int master, uint32_t offset, uint32_t value);

// The hibernation module (offset from 0x400FC000: RTCC, RTCM0, RTCLD, CTL, IM, RIS, MIS, IC, RTCT,
// RTCSS, DATA at 0x030..0x06F).
uint32_t hib_reg_read(uint32_t offset);
void hib_reg_write(uint32_t offset, uint32_t value);

// The EEPROM controller (offset from 0x400AF000: EESIZE, EEBLOCK, EEOFFSET, EERDWR, EERDWRINC,
// EEDONE, EESUPP, ...).
uint32_t eeprom_reg_read(uint32_t offset);
void eeprom_reg_write(uint32_t offset, uint32_t value);

} // namespace sim::dev

namespace sim::dev {

// System control (offset from 0x400FE000): RIS/MISC with the main oscillator's start-up and the
// PLL's lock, RESC, RCC/RCC2 (the clock the processor runs at follows them), the peripheral banks
// PP (present), SR (reset), RCGC (clock gates: what peripheral_enabled reports) and PR (ready).
// The crystal oscillates unless the scenario says `board.xtal = 0`.
void sysctl_reg_reset();
uint32_t sysctl_reg_read(uint32_t offset);
void sysctl_reg_write(uint32_t offset, uint32_t value);

} // namespace sim::dev
