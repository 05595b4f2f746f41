/* Our own declaration of the TivaWare API subset: I2C master. */
#ifndef DRIVERLIB_I2C_H
#define DRIVERLIB_I2C_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define I2C_MASTER_CMD_SINGLE_SEND 0x00000007
#define I2C_MASTER_CMD_SINGLE_RECEIVE 0x00000007
#define I2C_MASTER_CMD_BURST_SEND_START 0x00000003
#define I2C_MASTER_CMD_BURST_SEND_CONT 0x00000001
#define I2C_MASTER_CMD_BURST_SEND_FINISH 0x00000005
#define I2C_MASTER_CMD_BURST_SEND_STOP 0x00000004
#define I2C_MASTER_CMD_BURST_SEND_ERROR_STOP 0x00000004
#define I2C_MASTER_CMD_BURST_RECEIVE_START 0x0000000B
#define I2C_MASTER_CMD_BURST_RECEIVE_CONT 0x00000009
#define I2C_MASTER_CMD_BURST_RECEIVE_FINISH 0x00000005
#define I2C_MASTER_CMD_BURST_RECEIVE_ERROR_STOP 0x00000004
#define I2C_MASTER_CMD_QUICK_COMMAND 0x00000027
#define I2C_MASTER_CMD_HS_MASTER_CODE_SEND 0x00000013

#define I2C_MASTER_ERR_NONE 0
#define I2C_MASTER_ERR_ADDR_ACK 0x00000004
#define I2C_MASTER_ERR_DATA_ACK 0x00000008
#define I2C_MASTER_ERR_ARB_LOST 0x00000010
#define I2C_MASTER_ERR_CLK_TOUT 0x00000080

#define I2C_MASTER_INT_CLK_TOUT 0x00000002
#define I2C_MASTER_INT_DATA 0x00000001

void I2CMasterInitExpClk(uint32_t ui32Base, uint32_t ui32I2CClk, bool bFast);
void I2CMasterEnable(uint32_t ui32Base);
void I2CMasterDisable(uint32_t ui32Base);
void I2CMasterSlaveAddrSet(uint32_t ui32Base, uint8_t ui8SlaveAddr, bool bReceive);
void I2CMasterDataPut(uint32_t ui32Base, uint8_t ui8Data);
uint32_t I2CMasterDataGet(uint32_t ui32Base);
void I2CMasterControl(uint32_t ui32Base, uint32_t ui32Cmd);
bool I2CMasterBusy(uint32_t ui32Base);
bool I2CMasterBusBusy(uint32_t ui32Base);
uint32_t I2CMasterErr(uint32_t ui32Base);
void I2CMasterTimeoutSet(uint32_t ui32Base, uint32_t ui32Value);
uint32_t I2CMasterLineStateGet(uint32_t ui32Base);

#ifdef __cplusplus
}
#endif

#endif
