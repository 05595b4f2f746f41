/* Our own declaration of the TivaWare API subset: TM4C123 exception and interrupt numbers (hw_ints.h). */
#ifndef HW_INTS_H
#define HW_INTS_H

/* Processor exceptions (vector numbers). */
#define FAULT_NMI 2
#define FAULT_HARD 3
#define FAULT_MPU 4
#define FAULT_BUS 5
#define FAULT_USAGE 6
#define FAULT_SVCALL 11
#define FAULT_DEBUG 12
#define FAULT_PENDSV 14
#define FAULT_SYSTICK 15

/* Peripheral interrupts of the TM4C123 (vector numbers). */
#define INT_GPIOA 16
#define INT_GPIOB 17
#define INT_GPIOC 18
#define INT_GPIOD 19
#define INT_GPIOE 20
#define INT_UART0 21
#define INT_UART1 22
#define INT_SSI0 23
#define INT_I2C0 24
#define INT_PWM0_FAULT 25
#define INT_PWM0_0 26
#define INT_PWM0_1 27
#define INT_PWM0_2 28
#define INT_QEI0 29
#define INT_ADC0SS0 30
#define INT_ADC0SS1 31
#define INT_ADC0SS2 32
#define INT_ADC0SS3 33
#define INT_WATCHDOG 34
#define INT_TIMER0A 35
#define INT_TIMER0B 36
#define INT_TIMER1A 37
#define INT_TIMER1B 38
#define INT_TIMER2A 39
#define INT_TIMER2B 40
#define INT_COMP0 41
#define INT_COMP1 42
#define INT_COMP2 43
#define INT_SYSCTL 44
#define INT_FLASH 45
#define INT_GPIOF 46
#define INT_UART2 49
#define INT_SSI1 50
#define INT_TIMER3A 51
#define INT_TIMER3B 52
#define INT_I2C1 53
#define INT_QEI1 54
#define INT_CAN0 55
#define INT_CAN1 56
#define INT_HIBERNATE 59
#define INT_USB0 60
#define INT_PWM0_3 61
#define INT_UDMA 62
#define INT_UDMAERR 63
#define INT_ADC1SS0 64
#define INT_ADC1SS1 65
#define INT_ADC1SS2 66
#define INT_ADC1SS3 67
#define INT_SSI2 73
#define INT_SSI3 74
#define INT_UART3 75
#define INT_UART4 76
#define INT_UART5 77
#define INT_UART6 78
#define INT_UART7 79
#define INT_I2C2 84
#define INT_I2C3 85
#define INT_TIMER4A 86
#define INT_TIMER4B 87
#define INT_TIMER5A 108
#define INT_TIMER5B 109
#define INT_WTIMER0A 110
#define INT_WTIMER0B 111
#define INT_WTIMER1A 112
#define INT_WTIMER1B 113
#define INT_WTIMER2A 114
#define INT_WTIMER2B 115
#define INT_WTIMER3A 116
#define INT_WTIMER3B 117
#define INT_WTIMER4A 118
#define INT_WTIMER4B 119
#define INT_WTIMER5A 120
#define INT_WTIMER5B 121
#define INT_SYSEXC 122
#define INT_PWM1_0 150
#define INT_PWM1_1 151
#define INT_PWM1_2 152
#define INT_PWM1_3 153
#define INT_PWM1_FAULT 154

/* Vector table size, exceptions included. */
#define NUM_INTERRUPTS 155
#define NUM_PRIORITY 8
#define NUM_PRIORITY_BITS 3

#endif
