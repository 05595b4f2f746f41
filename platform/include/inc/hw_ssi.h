/* Our own declaration of the TivaWare API subset: SSI register offsets and bits (hw_ssi.h). */
#ifndef HW_SSI_H
#define HW_SSI_H

#define SSI_O_CR0 0x00000000
#define SSI_O_CR1 0x00000004
#define SSI_O_DR 0x00000008
#define SSI_O_SR 0x0000000C
#define SSI_O_CPSR 0x00000010
#define SSI_O_IM 0x00000014
#define SSI_O_RIS 0x00000018
#define SSI_O_MIS 0x0000001C
#define SSI_O_ICR 0x00000020
#define SSI_O_DMACTL 0x00000024
#define SSI_O_CC 0x00000FC8

#define SSI_CR0_SCR_M 0x0000FF00
#define SSI_CR0_SCR_S 8
#define SSI_CR0_SPH 0x00000080
#define SSI_CR0_SPO 0x00000040
#define SSI_CR0_FRF_M 0x00000030
#define SSI_CR0_DSS_M 0x0000000F

#define SSI_CR1_EOT 0x00000010
#define SSI_CR1_SOD 0x00000008
#define SSI_CR1_MS 0x00000004
#define SSI_CR1_SSE 0x00000002
#define SSI_CR1_LBM 0x00000001

#define SSI_SR_BSY 0x00000010
#define SSI_SR_RFF 0x00000008
#define SSI_SR_RNE 0x00000004
#define SSI_SR_TNF 0x00000002
#define SSI_SR_TFE 0x00000001

#endif
