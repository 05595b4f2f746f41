// FRAM driver: reads and writes through the I2C0 bus transfers (two memory-address bytes, high byte
// first, open every frame), the probe, the record map, and the operator's FRAM tests.
#include "storage/i2c_fram.h"

#include "board/i2c0.h"
#include "board/board_util.h"
#include "records/system.h"
#include "records/apf.h"
#include "records/sample.h"
#include "ports/uartstdio.h"

#include <cstring>

namespace {

// Counts of the map are 16-bit.
uint32_t map_count(uint32_t count) {
    return count & 0xFFFF;
}

void print_block(const uint8_t* block, uint32_t len) {
    for (uint32_t i = 0; i < len; i++) {
        uprintf("%02x", block[i]);
        uprintf((i % 16) == 15 ? "\r\n" : " ");
    }
}

uint8_t byte_sum(const void* record, uint32_t len) {
    const auto* p = static_cast<const uint8_t*>(record);
    uint8_t sum = 0;
    for (uint32_t i = 0; i < len; i++) {
        sum = static_cast<uint8_t>(sum + p[i]);
    }
    return sum;
}

} // namespace

uint32_t fram_read(uint32_t offset, uint8_t* pBuf, uint32_t byteCount) {
    const uint8_t at[2] = {static_cast<uint8_t>(offset >> 8), static_cast<uint8_t>(offset)};
    return i2c0_read(FRAM_I2C_ADDR, at, sizeof at, pBuf, byteCount) == 0 ? byteCount : 0;
}

uint32_t fram_write(uint32_t offset, uint8_t* pBuf, uint32_t byteCount) {
    const uint8_t at[2] = {static_cast<uint8_t>(offset >> 8), static_cast<uint8_t>(offset)};
    return i2c0_write(FRAM_I2C_ADDR, at, sizeof at, pBuf, byteCount) == 0 ? byteCount : 0;
}

uint32_t fram_probe(void) {
    uint8_t pattern[4] = {0x55, 0xAA, 0x55, 0xAA};
    uint8_t back[4];
    // A refused write must fail the probe even though the pattern of an earlier probe reads back.
    if (fram_write(FRAM_PROBE_ADDR, pattern, sizeof pattern) != sizeof pattern) {
        return 0;
    }
    memset(back, 0, sizeof back);
    fram_read(FRAM_PROBE_ADDR, back, sizeof back);
    return memcmp(pattern, back, sizeof back) == 0 ? FRAM_PROBE_OK : 0;
}

uint32_t fram_init(void) {
    if (fram_probe() == FRAM_PROBE_OK) {
        return 0;
    }
    uprintf("\r\nERROR: FRAM fails probe, do not deploy until resolved\r\n");
    return 1;
}

void fram_sys_samp_store(void) {
    fram_write(FRAM_SYS_SAMP_ADDR, reinterpret_cast<uint8_t*>(&sys_samp), sizeof sys_samp);
}

void fram_sys_samp_retrieve(void) {
    fram_read(FRAM_SYS_SAMP_ADDR, reinterpret_cast<uint8_t*>(&sys_samp), sizeof sys_samp);
}

void fram_last_samp_store(void) {
    fram_write(FRAM_LAST_SAMP_ADDR, reinterpret_cast<uint8_t*>(&sampl), sizeof sampl);
}

void fram_last_samp_retrieve(void) {
    fram_read(FRAM_LAST_SAMP_ADDR, reinterpret_cast<uint8_t*>(&sampl), sizeof sampl);
}

void fram_apf_vars_store(void) {
    fram_write(FRAM_APF_ADDR, reinterpret_cast<uint8_t*>(&apf), sizeof apf);
}

void fram_apf_vars_retrieve(void) {
    fram_read(FRAM_APF_ADDR, reinterpret_cast<uint8_t*>(&apf), sizeof apf);
}

void fram_apf_dbuf_store(uint8_t* sampBuf, uint16_t byteCnt) {
    fram_write(FRAM_DBUF_ADDR, sampBuf, map_count(byteCnt));
}

// The buffer is emptied when the FRAM does not answer, so that whatever it held before is not taken
// for the stored line.
void fram_apf_dbuf_retrieve(uint8_t* sampBuf, uint16_t byteCnt) {
    if (fram_read(FRAM_DBUF_ADDR, sampBuf, map_count(byteCnt)) == 0) {
        memset(sampBuf, 0, map_count(byteCnt));
    }
}

void fram_apf_store_all(void) {
    fram_apf_vars_store();
    fram_last_samp_store();
}

uint32_t fram_test(void) {
    static const char* const write_headings[4] = {
        "\r\n1st block of 128, write 127 to 0\r\n",
        "\r\n2nd block of 128, write 0 to 127\r\n",
        "\r\n3rd block of 128, write 255 to 128\r\n",
        "\r\n4th block of 128, write 128 to 255\r\n",
    };
    static const char* const read_headings[4] = {
        "\r\n1st block of 128, read:\r\n",
        "\r\n2nd block of 128, read:\r\n",
        "\r\n3rd block of 128, read:\r\n",
        "\r\n4th block of 128, read:\r\n",
    };
    constexpr uint32_t block_len = 128;
    uint8_t blocks[4][block_len];
    for (uint32_t i = 0; i < block_len; i++) {
        blocks[0][i] = static_cast<uint8_t>(127 - i);
        blocks[1][i] = static_cast<uint8_t>(i);
        blocks[2][i] = static_cast<uint8_t>(255 - i);
        blocks[3][i] = static_cast<uint8_t>(128 + i);
    }
    for (uint32_t b = 0; b < 4; b++) {
        uprintf("%s", write_headings[b]);
        print_block(blocks[b], block_len);
        fram_write(FRAM_TEST_ADDR + b * block_len, blocks[b], block_len);
    }
    uint32_t wrong = 0;
    for (uint32_t b = 0; b < 4; b++) {
        uint8_t back[block_len];
        memset(back, 0, sizeof back);
        fram_read(FRAM_TEST_ADDR + b * block_len, back, block_len);
        uprintf("%s", read_headings[b]);
        print_block(back, block_len);
        for (uint32_t i = 0; i < block_len; i++) {
            if (back[i] != blocks[b][i]) {
                wrong++;
            }
        }
    }
    return wrong;
}

// Each round changes the float variables and the last sample in RAM, stores both, clears the RAM
// copies, reads them back and compares. The records (RAM and FRAM) are put back at the end.
uint32_t fram_soak_test(uint32_t iterations) {
    uprintf("fram soak test start\r\n");
    const apfGlobals apf_saved = apf;
    const sampData sampl_saved = sampl;
    uint8_t apf_image[sizeof(apfGlobals)];
    uint8_t sampl_image[sizeof(sampData)];
    // Records it could not read it could not put back either: no round is run.
    if (fram_read(FRAM_APF_ADDR, apf_image, sizeof apf_image) == 0 ||
        fram_read(FRAM_LAST_SAMP_ADDR, sampl_image, sizeof sampl_image) == 0) {
        uprintf("Err: FRAM does not answer\r\n");
        return 1;
    }

    uint32_t errors = 0;
    for (uint32_t n = 0; n < iterations; n++) {
        if (UARTrdy()) {
            getChar();
            break;
        }
        wdog_pet();
        uprintf("[%07u]\b\b\b\b\b\b\b\b\b", (unsigned)n);
        apf.sys_error_ctr = n;
        sampl.fVrsi_std = static_cast<float>(n) * 0.001f;
        const float std_written = sampl.fVrsi_std;
        const uint8_t sum_written = byte_sum(&apf, sizeof apf);
        fram_apf_store_all();
        memset(&apf, 0, sizeof apf);
        memset(&sampl, 0, sizeof sampl);
        fram_apf_vars_retrieve();
        fram_last_samp_retrieve();
        if (apf.sys_error_ctr != n) {
            errors++;
            uprintf("Err: errNum does not match\r\n");
        }
        if (sampl.fVrsi_std != std_written) {
            errors++;
            uprintf("Err: DataStdDev does not match\r\n");
        }
        const uint8_t sum_read = byte_sum(&apf, sizeof apf);
        if (sum_read != sum_written) {
            errors++;
            uprintf(
                "Err: [%u] %u %02x %02x checksum does not match, apf read modify write fram_soak_test\r\n",
                (unsigned)n, (unsigned)errors, (unsigned)sum_written, (unsigned)sum_read);
        }
    }
    uprintf("\r\n");

    fram_write(FRAM_APF_ADDR, apf_image, sizeof apf_image);
    fram_write(FRAM_LAST_SAMP_ADDR, sampl_image, sizeof sampl_image);
    apf = apf_saved;
    sampl = sampl_saved;
    return errors;
}
