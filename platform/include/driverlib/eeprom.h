/* Our own declaration of the TivaWare API subset: on-chip EEPROM. */
#ifndef DRIVERLIB_EEPROM_H
#define DRIVERLIB_EEPROM_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* EEPROMInit() results. */
#define EEPROM_INIT_OK 0
#define EEPROM_INIT_ERROR 2

/* EEPROMProgram() / EEPROMMassErase() status bits. */
#define EEPROM_RC_WRBUSY 0x00000020
#define EEPROM_RC_NOPERM 0x00000010
#define EEPROM_RC_WKCOPY 0x00000008
#define EEPROM_RC_WKERASE 0x00000004
#define EEPROM_RC_WORKING 0x00000001

#define EEPROMBlockFromAddr(ui32Addr) ((ui32Addr) >> 6)
#define EEPROMAddrFromBlock(ui32Block) ((ui32Block) << 6)

uint32_t EEPROMInit(void);
uint32_t EEPROMSizeGet(void);
uint32_t EEPROMBlockCountGet(void);
void EEPROMRead(uint32_t* pui32Data, uint32_t ui32Address, uint32_t ui32Count);
uint32_t EEPROMProgram(uint32_t* pui32Data, uint32_t ui32Address, uint32_t ui32Count);
uint32_t EEPROMProgramNonBlocking(uint32_t ui32Data, uint32_t ui32Address);
uint32_t EEPROMMassErase(void);
uint32_t EEPROMStatusGet(void);

#ifdef __cplusplus
}
#endif

#endif
