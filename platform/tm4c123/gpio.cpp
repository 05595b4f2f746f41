// GPIO ports of the TM4C123: direction, pad configuration, pin-mux and the address-masked data
// register (bits 9:2 of the address select which pins a read or write touches).
#include "driverlib/gpio.h"

#include "inc/hw_gpio.h"
#include "inc/hw_memmap.h"
#include "inc/hw_sysctl.h"
#include "inc/hw_types.h"

namespace {

void set_bits(uint32_t reg, uint8_t pins, bool on) {
    HWREG(reg) = on ? (HWREG(reg) | pins) : (HWREG(reg) & ~static_cast<uint32_t>(pins));
}

// Base of port index 0..5 (A..F) on whichever bus GPIOHBCTL routes it to.
uint32_t port_base(uint32_t index) {
    if (HWREG(SYSCTL_GPIOHBCTL) & (1u << index)) {
        return GPIO_PORTA_AHB_BASE + index * 0x1000;
    }
    return index < 4 ? GPIO_PORTA_BASE + index * 0x1000 : GPIO_PORTE_BASE + (index - 4) * 0x1000;
}

} // namespace

extern "C" {

void GPIODirModeSet(uint32_t ui32Port, uint8_t ui8Pins, uint32_t ui32PinIO) {
    set_bits(ui32Port + GPIO_O_DIR, ui8Pins, ui32PinIO & GPIO_DIR_MODE_OUT);
    set_bits(ui32Port + GPIO_O_AFSEL, ui8Pins, ui32PinIO & GPIO_DIR_MODE_HW);
}

uint32_t GPIODirModeGet(uint32_t ui32Port, uint8_t ui8Pin) {
    uint32_t mode = (HWREG(ui32Port + GPIO_O_DIR) & ui8Pin) ? GPIO_DIR_MODE_OUT : GPIO_DIR_MODE_IN;
    if (HWREG(ui32Port + GPIO_O_AFSEL) & ui8Pin) {
        mode |= GPIO_DIR_MODE_HW;
    }
    return mode;
}

// Setting a pin in one of DR2R/DR4R/DR8R clears it in the other two, so the last one set wins.
void GPIOPadConfigSet(uint32_t ui32Port, uint8_t ui8Pins, uint32_t ui32Strength, uint32_t ui32PadType) {
    set_bits(ui32Port + GPIO_O_DR2R, ui8Pins, ui32Strength & 0x1);
    set_bits(ui32Port + GPIO_O_DR4R, ui8Pins, ui32Strength & 0x2);
    set_bits(ui32Port + GPIO_O_DR8R, ui8Pins, ui32Strength & 0x4);
    set_bits(ui32Port + GPIO_O_SLR, ui8Pins, ui32Strength & 0x8);

    set_bits(ui32Port + GPIO_O_ODR, ui8Pins, ui32PadType & 0x1);
    set_bits(ui32Port + GPIO_O_PUR, ui8Pins, ui32PadType & 0x2);
    set_bits(ui32Port + GPIO_O_PDR, ui8Pins, ui32PadType & 0x4);
    set_bits(ui32Port + GPIO_O_DEN, ui8Pins, ui32PadType & 0x8);
    set_bits(ui32Port + GPIO_O_AMSEL, ui8Pins, ui32PadType == GPIO_PIN_TYPE_ANALOG);
}

void GPIOPadConfigGet(uint32_t ui32Port, uint8_t ui8Pin, uint32_t* pui32Strength, uint32_t* pui32PadType) {
    uint32_t strength = 0;
    if (HWREG(ui32Port + GPIO_O_DR2R) & ui8Pin) {
        strength = GPIO_STRENGTH_2MA;
    } else if (HWREG(ui32Port + GPIO_O_DR4R) & ui8Pin) {
        strength = GPIO_STRENGTH_4MA;
    } else if (HWREG(ui32Port + GPIO_O_DR8R) & ui8Pin) {
        strength = (HWREG(ui32Port + GPIO_O_SLR) & ui8Pin) ? GPIO_STRENGTH_8MA_SC : GPIO_STRENGTH_8MA;
    }
    uint32_t type = 0;
    type |= (HWREG(ui32Port + GPIO_O_ODR) & ui8Pin) ? 0x1 : 0;
    type |= (HWREG(ui32Port + GPIO_O_PUR) & ui8Pin) ? 0x2 : 0;
    type |= (HWREG(ui32Port + GPIO_O_PDR) & ui8Pin) ? 0x4 : 0;
    type |= (HWREG(ui32Port + GPIO_O_DEN) & ui8Pin) ? 0x8 : 0;
    if (pui32Strength) {
        *pui32Strength = strength;
    }
    if (pui32PadType) {
        *pui32PadType = type;
    }
}

int32_t GPIOPinRead(uint32_t ui32Port, uint8_t ui8Pins) {
    return static_cast<int32_t>(HWREG(ui32Port + GPIO_O_DATA + (static_cast<uint32_t>(ui8Pins) << 2)));
}

void GPIOPinWrite(uint32_t ui32Port, uint8_t ui8Pins, uint8_t ui8Val) {
    HWREG(ui32Port + GPIO_O_DATA + (static_cast<uint32_t>(ui8Pins) << 2)) = ui8Val;
}

void GPIOUnlockPin(uint32_t ui32Port, uint8_t ui8Pins) {
    HWREG(ui32Port + GPIO_O_LOCK) = GPIO_LOCK_KEY;
    HWREG(ui32Port + GPIO_O_CR) |= ui8Pins;
    HWREG(ui32Port + GPIO_O_LOCK) = 0;
}

void GPIOPinConfigure(uint32_t ui32PinConfig) {
    uint32_t base = port_base((ui32PinConfig >> 16) & 0xFF);
    uint32_t shift = (ui32PinConfig >> 8) & 0xFF;
    uint32_t pctl = HWREG(base + GPIO_O_PCTL) & ~(0xFu << shift);
    HWREG(base + GPIO_O_PCTL) = pctl | ((ui32PinConfig & 0xF) << shift);
}

void GPIOPinTypeGPIOInput(uint32_t ui32Port, uint8_t ui8Pins) {
    GPIODirModeSet(ui32Port, ui8Pins, GPIO_DIR_MODE_IN);
    GPIOPadConfigSet(ui32Port, ui8Pins, GPIO_STRENGTH_2MA, GPIO_PIN_TYPE_STD);
}

void GPIOPinTypeGPIOOutput(uint32_t ui32Port, uint8_t ui8Pins) {
    GPIOPadConfigSet(ui32Port, ui8Pins, GPIO_STRENGTH_2MA, GPIO_PIN_TYPE_STD);
    GPIODirModeSet(ui32Port, ui8Pins, GPIO_DIR_MODE_OUT);
}

void GPIOPinTypeGPIOOutputOD(uint32_t ui32Port, uint8_t ui8Pins) {
    GPIOPadConfigSet(ui32Port, ui8Pins, GPIO_STRENGTH_2MA, GPIO_PIN_TYPE_OD);
    GPIODirModeSet(ui32Port, ui8Pins, GPIO_DIR_MODE_OUT);
}

// Peripheral-controlled pins: the function selected by GPIOPinConfigure() drives them.
static void pin_type_hw(uint32_t port, uint8_t pins, uint32_t pad_type) {
    GPIODirModeSet(port, pins, GPIO_DIR_MODE_HW);
    GPIOPadConfigSet(port, pins, GPIO_STRENGTH_2MA, pad_type);
}

void GPIOPinTypeUART(uint32_t ui32Port, uint8_t ui8Pins) {
    pin_type_hw(ui32Port, ui8Pins, GPIO_PIN_TYPE_STD);
}

void GPIOPinTypeSSI(uint32_t ui32Port, uint8_t ui8Pins) {
    pin_type_hw(ui32Port, ui8Pins, GPIO_PIN_TYPE_STD);
}

void GPIOPinTypeI2C(uint32_t ui32Port, uint8_t ui8Pins) {
    pin_type_hw(ui32Port, ui8Pins, GPIO_PIN_TYPE_OD);
}

// The I2C block drives SCL itself on this part; the pad stays push-pull.
void GPIOPinTypeI2CSCL(uint32_t ui32Port, uint8_t ui8Pins) {
    pin_type_hw(ui32Port, ui8Pins, GPIO_PIN_TYPE_STD);
}

void GPIOPinTypePWM(uint32_t ui32Port, uint8_t ui8Pins) {
    pin_type_hw(ui32Port, ui8Pins, GPIO_PIN_TYPE_STD);
}

void GPIOPinTypeTimer(uint32_t ui32Port, uint8_t ui8Pins) {
    pin_type_hw(ui32Port, ui8Pins, GPIO_PIN_TYPE_STD);
}

void GPIOPinTypeADC(uint32_t ui32Port, uint8_t ui8Pins) {
    GPIODirModeSet(ui32Port, ui8Pins, GPIO_DIR_MODE_IN);
    GPIOPadConfigSet(ui32Port, ui8Pins, GPIO_STRENGTH_2MA, GPIO_PIN_TYPE_ANALOG);
}

void GPIOIntTypeSet(uint32_t ui32Port, uint8_t ui8Pins, uint32_t ui32IntType) {
    set_bits(ui32Port + GPIO_O_IBE, ui8Pins, ui32IntType & 0x1);
    set_bits(ui32Port + GPIO_O_IS, ui8Pins, ui32IntType & 0x2);
    set_bits(ui32Port + GPIO_O_IEV, ui8Pins, ui32IntType & 0x4);
}

void GPIOIntEnable(uint32_t ui32Port, uint32_t ui32IntFlags) {
    HWREG(ui32Port + GPIO_O_IM) |= ui32IntFlags & 0xFF;
}

void GPIOIntDisable(uint32_t ui32Port, uint32_t ui32IntFlags) {
    HWREG(ui32Port + GPIO_O_IM) &= ~(ui32IntFlags & 0xFF);
}

uint32_t GPIOIntStatus(uint32_t ui32Port, bool bMasked) {
    return HWREG(ui32Port + (bMasked ? GPIO_O_MIS : GPIO_O_RIS));
}

void GPIOIntClear(uint32_t ui32Port, uint32_t ui32IntFlags) {
    HWREG(ui32Port + GPIO_O_ICR) = ui32IntFlags;
}

} // extern "C"
