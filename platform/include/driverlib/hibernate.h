/* Our own declaration of the TivaWare API subset: hibernation module and its RTC. */
#ifndef DRIVERLIB_HIBERNATE_H
#define DRIVERLIB_HIBERNATE_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* HibernateWakeSet() / HibernateWakeGet(). */
#define HIBERNATE_WAKE_PIN 0x00000010
#define HIBERNATE_WAKE_RTC 0x00000008
#define HIBERNATE_WAKE_LOW_BAT 0x00000200

/* HibernateLowBatSet(). */
#define HIBERNATE_LOW_BAT_DETECT 0x00000020
#define HIBERNATE_LOW_BAT_ABORT 0x000000A0
#define HIBERNATE_LOW_BAT_1_9V 0x00000000
#define HIBERNATE_LOW_BAT_2_1V 0x00002000
#define HIBERNATE_LOW_BAT_2_3V 0x00004000
#define HIBERNATE_LOW_BAT_2_5V 0x00006000

/* Interrupt and status flags. */
#define HIBERNATE_INT_VDDFAIL 0x00000080
#define HIBERNATE_INT_RESET_WAKE 0x00000040
#define HIBERNATE_INT_GPIO_WAKE 0x00000020
#define HIBERNATE_INT_WR_COMPLETE 0x00000010
#define HIBERNATE_INT_PIN_WAKE 0x00000008
#define HIBERNATE_INT_LOW_BAT 0x00000004
#define HIBERNATE_INT_RTC_MATCH_0 0x00000001

/* HibernateClockConfig(). */
#define HIBERNATE_OSC_LFIOSC 0x00080000
#define HIBERNATE_OSC_LOWDRIVE 0x00000000
#define HIBERNATE_OSC_HIGHDRIVE 0x00020000
#define HIBERNATE_OSC_DISABLE 0x00010000

void HibernateEnableExpClk(uint32_t ui32HibClk);
void HibernateDisable(void);
uint32_t HibernateIsActive(void);
void HibernateClockConfig(uint32_t ui32Config);
void HibernateRTCEnable(void);
void HibernateRTCDisable(void);
void HibernateWakeSet(uint32_t ui32WakeFlags);
uint32_t HibernateWakeGet(void);
void HibernateLowBatSet(uint32_t ui32LowBatFlags);
uint32_t HibernateLowBatGet(void);
void HibernateRTCSet(uint32_t ui32RTCValue);
uint32_t HibernateRTCGet(void);
void HibernateRTCMatchSet(uint32_t ui32Match, uint32_t ui32Value);
uint32_t HibernateRTCMatchGet(uint32_t ui32Match);
void HibernateRTCSSMatchSet(uint32_t ui32Match, uint32_t ui32Value);
uint32_t HibernateRTCSSMatchGet(uint32_t ui32Match);
uint32_t HibernateRTCSSGet(void);
void HibernateRTCTrimSet(uint32_t ui32Trim);
uint32_t HibernateRTCTrimGet(void);
void HibernateDataSet(uint32_t* pui32Data, uint32_t ui32Count);
void HibernateDataGet(uint32_t* pui32Data, uint32_t ui32Count);
void HibernateRequest(void);
void HibernateIntEnable(uint32_t ui32IntFlags);
void HibernateIntDisable(uint32_t ui32IntFlags);
uint32_t HibernateIntStatus(bool bMasked);
void HibernateIntClear(uint32_t ui32IntFlags);
void HibernateGPIORetentionEnable(void);
void HibernateGPIORetentionDisable(void);
bool HibernateGPIORetentionGet(void);

#ifdef __cplusplus
}
#endif

#endif
