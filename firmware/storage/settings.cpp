// The settings in their memories: sys_data in the on-chip EEPROM, sys_samp in the FRAM (with its
// defaults when its mark is missing).
#include "storage/settings.h"

#include "driverlib/eeprom.h"
#include "driverlib/sysctl.h"
#include "ports/uartstdio.h"
#include "records/system.h"
#include "storage/apf_vars.h"
#include "storage/i2c_fram.h"

void retrieveSysDataVariables(void) {
    SysCtlPeripheralEnable(SYSCTL_PERIPH_EEPROM0);
    while (!SysCtlPeripheralReady(SYSCTL_PERIPH_EEPROM0)) {
    }
    if (EEPROMInit() != 0) {
        uprintf("EEPROM Initialization error.\r\n");
    }
    EEPROMRead(reinterpret_cast<uint32_t*>(&sys_data), SYS_DATA_EEPROM_ADDR, SYS_DATA_EEPROM_LEN);
    retrieveSysSampFRAMVariables();
}

uint32_t storeSysDataVariables(void) {
    storeSysSampFRAMVariables();
    return EEPROMProgram(reinterpret_cast<uint32_t*>(&sys_data), SYS_DATA_EEPROM_ADDR, SYS_DATA_EEPROM_LEN);
}

void retrieveSysSampFRAMVariables(void) {
    fram_sys_samp_retrieve();
    if (sys_samp.initNum == SYS_SAMP_INIT_NUM) {
        return;
    }
    uprintf("FRAM sys_samp.init, Num is not 0x55AA55AA.  Defaults assigned\r\n");
    init_sys_samp_default();
    SetDefaultsIntoNVRAM();
    uprintf("APF Set Defaults Into FRAM\r\n");
    sys_samp.initNum = SYS_SAMP_INIT_NUM;
}

uint32_t storeSysSampFRAMVariables(void) {
    if (sys_samp.initNum == SYS_SAMP_INIT_NUM) {
        fram_sys_samp_store();
        return 0;
    }
    // The record is marked now and written by the next store.
    uprintf("FRAM sys_samp.init, Num is not 0x55AA55AA\r\n");
    sys_samp.initNum = SYS_SAMP_INIT_NUM;
    return 1;
}

void init_sys_samp_default(void) {
    sys_samp.state = IDLE;
    sys_samp.nextWakeUp = 0;
    sys_samp.next_gdata_fptr = 0;
    sys_samp.current_sample = 0;
    sys_samp.AD24_std = 0.0f;
    sys_samp.initNum = SYS_SAMP_INIT_NUM;
    fram_sys_samp_store();
}
