// The ferroelectric RAM on I2C0 (device 0x50, 16-bit memory addresses sent high byte first): reads
// and writes, the probe, and the store/retrieve calls of its fixed map.
#pragma once

#include <cstdint>

inline constexpr uint8_t FRAM_I2C_ADDR = 0x50;

// The map.
inline constexpr uint32_t FRAM_PROBE_ADDR = 0x0000;     // 4 bytes, overwritten by every probe
inline constexpr uint32_t FRAM_SYS_SAMP_ADDR = 0x0040;  // sys_samp, 60 bytes
inline constexpr uint32_t FRAM_LAST_SAMP_ADDR = 0x0080; // sampl, 96 bytes
inline constexpr uint32_t FRAM_APF_ADDR = 0x0100;       // apf, 364 bytes
inline constexpr uint32_t FRAM_APPEND_ADDR = 0x0280;    // where appended files end (sd_append)
inline constexpr uint32_t FRAM_APPEND_SIZE = 0x00C0;
inline constexpr uint32_t FRAM_DBUF_ADDR = 0x0400; // float-link data buffer
// Scratch area of the operator's FRAM test (four 128-byte blocks), clear of everything above.
inline constexpr uint32_t FRAM_TEST_ADDR = 0x1000;

inline constexpr uint32_t FRAM_PROBE_OK = 0xAA55AA55;

// Reads and writes of byteCount bytes at offset, one bus frame each. Both return byteCount, or 0
// when the FRAM does not answer: a read then leaves pBuf as it was, a write may have stored part of
// the bytes.
uint32_t fram_read(uint32_t offset, uint8_t* pBuf, uint32_t byteCount);
uint32_t fram_write(uint32_t offset, uint8_t* pBuf, uint32_t byteCount);

// FRAM_PROBE_OK when the pattern written at 0 reads back, 0 otherwise.
uint32_t fram_probe(void);
// 0 when the probe passes; 1 after printing the error.
uint32_t fram_init(void);

// The records. A FRAM that does not answer leaves a retrieved record in RAM as it was, except the
// data buffer, which is then emptied (zeros).
void fram_sys_samp_store(void);
void fram_sys_samp_retrieve(void);
void fram_last_samp_store(void);
void fram_last_samp_retrieve(void);
void fram_apf_vars_store(void);
void fram_apf_vars_retrieve(void);
void fram_apf_dbuf_store(uint8_t* sampBuf, uint16_t byteCnt);
void fram_apf_dbuf_retrieve(uint8_t* sampBuf, uint16_t byteCnt);
// The float variables and the last sample.
void fram_apf_store_all(void);

// Operator tests. fram_test returns the number of bytes that read back wrong; fram_soak_test runs
// `iterations` store/retrieve rounds (or until a key arrives on the console) and returns the
// number of mismatches (1 without a round when the records cannot be read first). Both leave the
// stored records as they found them.
uint32_t fram_test(void);
uint32_t fram_soak_test(uint32_t iterations = 1000);
