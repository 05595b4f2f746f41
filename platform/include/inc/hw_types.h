/* Our own declaration of the TivaWare API subset: register access macros (hw_types.h). */
#ifndef HW_TYPES_H
#define HW_TYPES_H

#include <stdbool.h>
#include <stdint.h>

/* Register access: word, half-word and byte. */
#define HWREG(x) (*((volatile uint32_t*)(x)))
#define HWREGH(x) (*((volatile uint16_t*)(x)))
#define HWREGB(x) (*((volatile uint8_t*)(x)))

/* Bit-band alias of bit b of the word at x (SRAM and peripheral regions). */
#define HWREGBITW(x, b)                                                                                      \
    HWREG(((uint32_t)(x)&0xF0000000) | 0x02000000 | (((uint32_t)(x)&0x000FFFFF) << 5) | ((b) << 2))
#define HWREGBITH(x, b)                                                                                      \
    HWREGH(((uint32_t)(x)&0xF0000000) | 0x02000000 | (((uint32_t)(x)&0x000FFFFF) << 5) | ((b) << 2))
#define HWREGBITB(x, b)                                                                                      \
    HWREGB(((uint32_t)(x)&0xF0000000) | 0x02000000 | (((uint32_t)(x)&0x000FFFFF) << 5) | ((b) << 2))

#endif
