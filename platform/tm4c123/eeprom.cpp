// On-chip EEPROM of the TM4C123: 2 KB in blocks of 16 words, addressed by block and word offset.
// Reads and writes take any word-aligned byte address and byte count and cross blocks as needed.
#include "driverlib/eeprom.h"

#include "driverlib/sysctl.h"
#include "inc/hw_eeprom.h"
#include "inc/hw_types.h"

namespace {

constexpr uint32_t WORDS_PER_BLOCK = 16;

void wait_idle(void) {
    while (HWREG(EEPROM_EEDONE) & EEPROM_EEDONE_WORKING) {
    }
}

bool retry_pending(void) {
    return (HWREG(EEPROM_EESUPP) & (EEPROM_EESUPP_PRETRY | EEPROM_EESUPP_ERETRY)) != 0;
}

// Words from ui32Address that lie inside the EEPROM, for a request of ui32Count bytes.
uint32_t words_in_range(uint32_t address, uint32_t count) {
    uint32_t size = EEPROMSizeGet();
    if (address >= size) {
        return 0;
    }
    uint32_t bytes = count > size - address ? size - address : count;
    return bytes / 4;
}

void select_word(uint32_t address) {
    HWREG(EEPROM_EEBLOCK) = address / (WORDS_PER_BLOCK * 4);
    HWREG(EEPROM_EEOFFSET) = (address / 4) % WORDS_PER_BLOCK;
}

} // namespace

extern "C" {

// The start-up sequence of the datasheet: wait for the controller, check that no erase or program
// was interrupted by a power loss, reset the block so it recovers, and check again.
uint32_t EEPROMInit(void) {
    SysCtlDelay(2);
    wait_idle();
    if (retry_pending()) {
        return EEPROM_INIT_ERROR;
    }
    SysCtlPeripheralReset(SYSCTL_PERIPH_EEPROM0);
    SysCtlDelay(2);
    wait_idle();
    if (retry_pending()) {
        return EEPROM_INIT_ERROR;
    }
    return EEPROM_INIT_OK;
}

uint32_t EEPROMSizeGet(void) {
    return (HWREG(EEPROM_EESIZE) & EEPROM_EESIZE_WORDCNT_M) * 4;
}

uint32_t EEPROMBlockCountGet(void) {
    return (HWREG(EEPROM_EESIZE) & EEPROM_EESIZE_BLKCNT_M) >> EEPROM_EESIZE_BLKCNT_S;
}

void EEPROMRead(uint32_t* pui32Data, uint32_t ui32Address, uint32_t ui32Count) {
    ui32Address &= ~3u;
    uint32_t words = words_in_range(ui32Address, ui32Count);
    if (pui32Data == nullptr || words == 0) {
        return;
    }
    wait_idle();
    select_word(ui32Address);
    for (uint32_t i = 0; i < words; ++i) {
        pui32Data[i] = HWREG(EEPROM_EERDWRINC);
        // The offset wraps within a block; step to the next block by hand.
        if (HWREG(EEPROM_EEOFFSET) == 0) {
            HWREG(EEPROM_EEBLOCK) = HWREG(EEPROM_EEBLOCK) + 1;
            HWREG(EEPROM_EEOFFSET) = 0;
        }
    }
}

uint32_t EEPROMProgram(uint32_t* pui32Data, uint32_t ui32Address, uint32_t ui32Count) {
    ui32Address &= ~3u;
    uint32_t words = words_in_range(ui32Address, ui32Count);
    if (pui32Data == nullptr || words == 0) {
        return 0;
    }
    wait_idle();
    select_word(ui32Address);
    uint32_t status = 0;
    for (uint32_t i = 0; i < words; ++i) {
        HWREG(EEPROM_EERDWRINC) = pui32Data[i];
        wait_idle();
        status = HWREG(EEPROM_EEDONE);
        if (status & (EEPROM_EEDONE_NOPERM | EEPROM_EEDONE_INVPL)) {
            return status;
        }
        if (HWREG(EEPROM_EEOFFSET) == 0) {
            HWREG(EEPROM_EEBLOCK) = HWREG(EEPROM_EEBLOCK) + 1;
            HWREG(EEPROM_EEOFFSET) = 0;
        }
    }
    return status;
}

uint32_t EEPROMProgramNonBlocking(uint32_t ui32Data, uint32_t ui32Address) {
    ui32Address &= ~3u;
    if (ui32Address >= EEPROMSizeGet()) {
        return 0;
    }
    select_word(ui32Address);
    HWREG(EEPROM_EERDWR) = ui32Data;
    return HWREG(EEPROM_EEDONE);
}

// Erases everything and leaves the controller reset, as after power-up.
uint32_t EEPROMMassErase(void) {
    wait_idle();
    HWREG(EEPROM_EEDBGME) = EEPROM_EEDBGME_KEY | EEPROM_EEDBGME_ME;
    wait_idle();
    SysCtlPeripheralReset(SYSCTL_PERIPH_EEPROM0);
    SysCtlDelay(2);
    wait_idle();
    return HWREG(EEPROM_EEDONE);
}

uint32_t EEPROMStatusGet(void) {
    return HWREG(EEPROM_EEDONE);
}

} // extern "C"
