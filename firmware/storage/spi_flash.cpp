// Serial flash on SSI2: port set-up, the JEDEC identification probe and the developer test.
#include "storage/spi_flash.h"

#include "board/timebase.h"
#include "ports/uartstdio.h"

#include "driverlib/gpio.h"
#include "driverlib/pin_map.h"
#include "driverlib/ssi.h"
#include "driverlib/sysctl.h"
#include "inc/hw_memmap.h"

static_assert(FLASH_CS0_PORT == GPIO_PORTB_BASE && FLASH_CS1_PORT == GPIO_PORTE_BASE);

namespace {

void select_chip(uint32_t chip, bool selected) {
    uint32_t port = chip == 0 ? FLASH_CS0_PORT : FLASH_CS1_PORT;
    uint8_t pin = chip == 0 ? FLASH_CS0_PIN : FLASH_CS1_PIN;
    GPIOPinWrite(port, pin, selected ? 0 : pin);
}

// One full-duplex frame.
uint8_t exchange(uint8_t out) {
    uint32_t in = 0;
    SSIDataPut(SSI2_BASE, out);
    SSIDataGet(SSI2_BASE, &in);
    return static_cast<uint8_t>(in);
}

void drain_rx(void) {
    uint32_t junk;
    while (SSIDataGetNonBlocking(SSI2_BASE, &junk)) {
    }
}

// A command byte followed by one dummy byte; the answer arrives during the dummy byte.
uint8_t command_reply(uint32_t chip, uint8_t command) {
    select_chip(chip, true);
    exchange(command);
    uint8_t reply = exchange(0xFF);
    select_chip(chip, false);
    return reply;
}

} // namespace

void spi_flash_open(void) {
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOB);
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOE);
    GPIOPinTypeGPIOOutput(FLASH_CS0_PORT, FLASH_CS0_PIN);
    GPIOPinTypeGPIOOutput(FLASH_CS1_PORT, FLASH_CS1_PIN);
    GPIOPinWrite(FLASH_CS0_PORT, FLASH_CS0_PIN, FLASH_CS0_PIN);
    GPIOPinWrite(FLASH_CS1_PORT, FLASH_CS1_PIN, FLASH_CS1_PIN);

    // The flash supply switch shares PF0 with the external watchdog's enable: high keeps both on.
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOF);
    GPIOPinTypeGPIOOutput(GPIO_PORTF_BASE, GPIO_PIN_0);
    GPIOPinWrite(GPIO_PORTF_BASE, GPIO_PIN_0, GPIO_PIN_0);
    delay_msec(10);

    SysCtlPeripheralEnable(SYSCTL_PERIPH_SSI2);
    GPIOPinConfigure(GPIO_PB4_SSI2CLK);
    GPIOPinConfigure(GPIO_PB6_SSI2RX);
    GPIOPinConfigure(GPIO_PB7_SSI2TX);
    GPIOPinTypeSSI(GPIO_PORTB_BASE, GPIO_PIN_4 | GPIO_PIN_6 | GPIO_PIN_7);
    SSIConfigSetExpClk(SSI2_BASE, SysCtlClockGet(), SSI_FRF_MOTO_MODE_0, SSI_MODE_MASTER, 1000000, 8);
    SSIEnable(SSI2_BASE);
    drain_rx();
}

uint8_t spi_flash_probe(uint32_t chip) {
    uint8_t id = command_reply(chip, FLASH_CMD_JEDEC_ID);
    uprintf("chipId 0x%02x\r\n", id);
    return id;
}

void spi_flash_test(void) {
    spi_flash_open();
    for (uint32_t chip = 0; chip < 2; chip++) {
        spi_flash_probe(chip);
        uprintf("statusReg 0x%02x\r\n", command_reply(chip, FLASH_CMD_READ_STATUS));
    }
}
