// Pin multiplexing of the 64-pin TM4C123GH6PM on the HXC3 board.
//
//   UART0  PA0 RX, PA1 TX           console
//   SSI0   PA2 CLK, PA3 FSS, PA4 RX, PA5 TX   microSD card
//   PA7    watchdog monitor (input)
//   I2C0   PB2 SCL, PB3 SDA         FRAM, BME280, INA260, PCAL6416
//   SSI2   PB4 CLK, PB5 FSS, PB6 RX, PB7 TX   serial flash
//   UART4  PC4 RX, PC5 TX           port 4 (CTD)
//   UART3  PC6 RX, PC7 TX           port 3 (optode, radiometer, pH instrument)
//   SSI3   PD0 CLK, PD2 RX, PD3 TX   isolated ADC; PD1 its chip select (GPIO output). The ADC
//          driver hands PD0/PD2/PD3 to SSI3 while the isolated side is powered; until then they
//          idle as in its power-down: PD0, PD1, PD3 driven low, PD2 an input
//   UART6  PD4 RX, PD5 TX           spare instrument port
//   UART2  PD6 RX, PD7 TX           UV spectrometer
//   PE0 isolated supply enable (low: off), PE1 ADC data-ready (input), PE2 ADC START, PE3 ADC
//          reset (outputs, high)
//   PE4 serial flash chip 1 select (output, high), PE5 serial flash supply (output, low: off)
//
// UART5 (PE4/PE5) and UART7 (PE0/PE1) have no other pins on this package; the board needs those
// lines, so the two UARTs are not brought out.
//   PF0 watchdog enable, PF1 watchdog feed, PF2 red LED, PF3 green LED, PF4 the UV spectrometer
//          port's RTS: its line driver's supply (outputs, low)
//
// PC0-PC3 stay JTAG. PD7 and PF0 come out of reset locked (NMI pins): their function and digital
// enable cannot change until they are unlocked.
#include "board/pinmux.h"

#include <cstdint>

#include "driverlib/gpio.h"
#include "driverlib/pin_map.h"
#include "driverlib/sysctl.h"
#include "inc/hw_memmap.h"
#include "ports/uartstdio.h"

namespace {
void enable_ports(void) {
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOA);
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOB);
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOC);
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOD);
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOE);
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOF);
}

void uart_pins(uint32_t rx, uint32_t tx, uint32_t port, uint8_t pins) {
    GPIOPinConfigure(rx);
    GPIOPinConfigure(tx);
    GPIOPinTypeUART(port, pins);
}

void ssi_pins(uint32_t clk, uint32_t fss, uint32_t rx, uint32_t tx, uint32_t port, uint8_t pins) {
    GPIOPinConfigure(clk);
    GPIOPinConfigure(fss);
    GPIOPinConfigure(rx);
    GPIOPinConfigure(tx);
    GPIOPinTypeSSI(port, pins);
}

void port_a(void) {
    uart_pins(GPIO_PA0_U0RX, GPIO_PA1_U0TX, GPIO_PORTA_BASE, GPIO_PIN_0 | GPIO_PIN_1);
    ssi_pins(GPIO_PA2_SSI0CLK, GPIO_PA3_SSI0FSS, GPIO_PA4_SSI0RX, GPIO_PA5_SSI0TX, GPIO_PORTA_BASE,
             GPIO_PIN_2 | GPIO_PIN_3 | GPIO_PIN_4 | GPIO_PIN_5);
    GPIOPinTypeGPIOInput(GPIO_PORTA_BASE, GPIO_PIN_7);
}

void port_b(void) {
    GPIOPinConfigure(GPIO_PB2_I2C0SCL);
    GPIOPinConfigure(GPIO_PB3_I2C0SDA);
    GPIOPinTypeI2CSCL(GPIO_PORTB_BASE, GPIO_PIN_2);
    GPIOPinTypeI2C(GPIO_PORTB_BASE, GPIO_PIN_3);
    ssi_pins(GPIO_PB4_SSI2CLK, GPIO_PB5_SSI2FSS, GPIO_PB6_SSI2RX, GPIO_PB7_SSI2TX, GPIO_PORTB_BASE,
             GPIO_PIN_4 | GPIO_PIN_5 | GPIO_PIN_6 | GPIO_PIN_7);
}

void port_c(void) {
    uart_pins(GPIO_PC4_U4RX, GPIO_PC5_U4TX, GPIO_PORTC_BASE, GPIO_PIN_4 | GPIO_PIN_5);
    uart_pins(GPIO_PC6_U3RX, GPIO_PC7_U3TX, GPIO_PORTC_BASE, GPIO_PIN_6 | GPIO_PIN_7);
}

void port_d(void) {
    GPIOUnlockPin(GPIO_PORTD_BASE, GPIO_PIN_7);
    GPIOPinTypeGPIOOutput(GPIO_PORTD_BASE, GPIO_PIN_0 | GPIO_PIN_1 | GPIO_PIN_3);
    GPIOPinWrite(GPIO_PORTD_BASE, GPIO_PIN_0 | GPIO_PIN_1 | GPIO_PIN_3, 0);
    GPIOPinTypeGPIOInput(GPIO_PORTD_BASE, GPIO_PIN_2);
    uart_pins(GPIO_PD4_U6RX, GPIO_PD5_U6TX, GPIO_PORTD_BASE, GPIO_PIN_4 | GPIO_PIN_5);
    uart_pins(GPIO_PD6_U2RX, GPIO_PD7_U2TX, GPIO_PORTD_BASE, GPIO_PIN_6 | GPIO_PIN_7);
}

void port_e(void) {
    GPIOPinTypeGPIOOutput(GPIO_PORTE_BASE, GPIO_PIN_0 | GPIO_PIN_2 | GPIO_PIN_3);
    GPIOPinWrite(GPIO_PORTE_BASE, GPIO_PIN_0 | GPIO_PIN_2 | GPIO_PIN_3, GPIO_PIN_2 | GPIO_PIN_3);
    GPIOPinTypeGPIOInput(GPIO_PORTE_BASE, GPIO_PIN_1);
    GPIOPinTypeGPIOOutput(GPIO_PORTE_BASE, GPIO_PIN_4 | GPIO_PIN_5);
    GPIOPinWrite(GPIO_PORTE_BASE, GPIO_PIN_4 | GPIO_PIN_5, GPIO_PIN_4);
}

void port_f(void) {
    uint8_t pins = GPIO_PIN_0 | GPIO_PIN_1 | GPIO_PIN_2 | GPIO_PIN_3 | GPIO_PIN_4;
    GPIOUnlockPin(GPIO_PORTF_BASE, GPIO_PIN_0);
    GPIOPinTypeGPIOOutput(GPIO_PORTF_BASE, pins);
    GPIOPinWrite(GPIO_PORTF_BASE, pins, 0);
}
} // namespace

void init_TM4C123GH6PM_64pin(void) {
    enable_ports();
    port_a();
    port_b();
    port_c();
    port_d();
    port_e();
    port_f();

    // The console's baud clock is the 16 MHz precision oscillator, independent of the system clock.
    UARTStdioConfig(0, 115200, 16000000);
}
