// The microSD card as drive 0 of the file system: an SD/MMC card in SPI mode on SSI0, with the
// block functions the file system calls, the 10 ms time-out tick and the time stamps of files.
//
// Wiring: PA2 SSI0 clock, PA3 chip select (a plain GPIO output, low selects), PA4 SSI0 receive
// (weak pull-up, so an empty socket reads 0xFF), PA5 SSI0 transmit; SPI mode 0, 8-bit frames.
// Cards start at 400 kHz and run at up to 12.5 MHz once initialised.
//
// Byte-addressed cards (MMC, SD version 1, SDSC version 2) take a byte offset in the read and
// write commands, SDHC/SDXC cards the sector number itself (CardType's block flag).
#include "storage/fatfs/diskio.h"

#include "board/board_util.h"
#include "storage/microsd.h"

#include "driverlib/gpio.h"
#include "driverlib/hibernate.h"
#include "driverlib/pin_map.h"
#include "driverlib/ssi.h"
#include "driverlib/sysctl.h"
#include "inc/hw_memmap.h"

#include <cstring>

uint8_t CardType = 0;

namespace {

constexpr uint32_t sd_ssi = SSI0_BASE;
constexpr uint32_t sd_port = GPIO_PORTA_BASE;
constexpr uint8_t pin_clk = GPIO_PIN_2;
constexpr uint8_t pin_cs = GPIO_PIN_3;
constexpr uint8_t pin_rx = GPIO_PIN_4;
constexpr uint8_t pin_tx = GPIO_PIN_5;

constexpr uint32_t init_bit_rate = 400000;
constexpr uint32_t max_bit_rate = 12500000;
constexpr UINT sector_size = 512;

// Command indices; 0x80 marks an application command (sent after CMD55).
constexpr uint8_t CMD0 = 0;           // GO_IDLE_STATE
constexpr uint8_t CMD1 = 1;           // SEND_OP_COND (MMC)
constexpr uint8_t CMD8 = 8;           // SEND_IF_COND
constexpr uint8_t CMD9 = 9;           // SEND_CSD
constexpr uint8_t CMD10 = 10;         // SEND_CID
constexpr uint8_t CMD12 = 12;         // STOP_TRANSMISSION
constexpr uint8_t CMD16 = 16;         // SET_BLOCKLEN
constexpr uint8_t CMD17 = 17;         // READ_SINGLE_BLOCK
constexpr uint8_t CMD18 = 18;         // READ_MULTIPLE_BLOCK
constexpr uint8_t CMD24 = 24;         // WRITE_BLOCK
constexpr uint8_t CMD25 = 25;         // WRITE_MULTIPLE_BLOCK
constexpr uint8_t CMD55 = 55;         // APP_CMD
constexpr uint8_t CMD58 = 58;         // READ_OCR
constexpr uint8_t ACMD23 = 0x80 | 23; // SET_WR_BLK_ERASE_COUNT (SD)
constexpr uint8_t ACMD41 = 0x80 | 41; // SD_SEND_OP_COND (SD)

constexpr uint8_t token_single = 0xFE; // start of a block (reads, single-block write)
constexpr uint8_t token_multi = 0xFC;  // start of a block of a multiple-block write
constexpr uint8_t token_stop = 0xFD;   // end of a multiple-block write

// Time-outs in disk_timerproc ticks (10 ms).
constexpr uint8_t init_ticks = 100; // initialisation and data tokens: 1 s
constexpr uint8_t busy_ticks = 50;  // busy after a write: 500 ms

DSTATUS Stat = STA_NOINIT;
uint8_t PowerFlag = 0;
volatile uint8_t Timer1 = 0;
volatile uint8_t Timer2 = 0;

void SELECT(void) {
    GPIOPinWrite(sd_port, pin_cs, 0);
}

void DESELECT(void) {
    GPIOPinWrite(sd_port, pin_cs, pin_cs);
}

// One full-duplex frame: every byte sent brings one back, which keeps the receive FIFO in step.
uint8_t xchg_spi(uint8_t out) {
    uint32_t in = 0;
    SSIDataPut(sd_ssi, out);
    SSIDataGet(sd_ssi, &in);
    return static_cast<uint8_t>(in);
}

void xmit_spi(uint8_t out) {
    xchg_spi(out);
}

uint8_t rcvr_spi(void) {
    return xchg_spi(0xFF);
}

// 80 clocks with the card deselected and the data line high: a card needs at least 74 after its
// supply comes up before it takes commands.
void send_initial_clock_train(void) {
    DESELECT();
    for (int i = 0; i < 10; i++) {
        rcvr_spi();
    }
}

void power_on(void) {
    pwr_uSD_on();
    SysCtlPeripheralEnable(SYSCTL_PERIPH_SSI0);
    SysCtlPeripheralEnable(SYSCTL_PERIPH_GPIOA);
    GPIOPinConfigure(GPIO_PA2_SSI0CLK);
    GPIOPinConfigure(GPIO_PA4_SSI0RX);
    GPIOPinConfigure(GPIO_PA5_SSI0TX);
    GPIOPinTypeSSI(sd_port, pin_clk | pin_rx | pin_tx);
    GPIOPinTypeGPIOOutput(sd_port, pin_cs);
    GPIOPadConfigSet(sd_port, pin_clk | pin_tx | pin_cs, GPIO_STRENGTH_2MA, GPIO_PIN_TYPE_STD);
    GPIOPadConfigSet(sd_port, pin_rx, GPIO_STRENGTH_2MA, GPIO_PIN_TYPE_STD_WPU);
    DESELECT();
    SSIDisable(sd_ssi);
    SSIConfigSetExpClk(sd_ssi, SysCtlClockGet(), SSI_FRF_MOTO_MODE_0, SSI_MODE_MASTER, init_bit_rate, 8);
    SSIEnable(sd_ssi);
    send_initial_clock_train();
    PowerFlag = 1;
}

// The card's supply stays on (this board cannot switch it); only the driver's state follows.
void power_off(void) {
    PowerFlag = 0;
}

int chk_power(void) {
    return PowerFlag;
}

void set_max_speed(void) {
    uint32_t rate = SysCtlClockGet() / 2;
    if (rate > max_bit_rate) {
        rate = max_bit_rate;
    }
    SSIDisable(sd_ssi);
    SSIConfigSetExpClk(sd_ssi, SysCtlClockGet(), SSI_FRF_MOTO_MODE_0, SSI_MODE_MASTER, rate, 8);
    SSIEnable(sd_ssi);
}

// 0xFF when the card released its busy signal, anything else after 500 ms.
uint8_t wait_ready(void) {
    Timer2 = busy_ticks;
    rcvr_spi();
    uint8_t res;
    do {
        res = rcvr_spi();
    } while (res != 0xFF && Timer2 != 0);
    return res;
}

// A command frame; returns the R1 response, or 0xFF when the card stayed busy or never answered.
uint8_t send_cmd(uint8_t cmd, uint32_t arg) {
    if (cmd & 0x80) {
        cmd &= 0x7F;
        uint8_t res = send_cmd(CMD55, 0);
        if (res > 1) {
            return res;
        }
    }
    if (wait_ready() != 0xFF) {
        return 0xFF;
    }
    xmit_spi(static_cast<uint8_t>(0x40 | cmd));
    xmit_spi(static_cast<uint8_t>(arg >> 24));
    xmit_spi(static_cast<uint8_t>(arg >> 16));
    xmit_spi(static_cast<uint8_t>(arg >> 8));
    xmit_spi(static_cast<uint8_t>(arg));
    // Only CMD0 (sent while the card is still in SD mode) and CMD8 are checked; these are their CRCs.
    uint8_t crc = cmd == CMD0 ? 0x95 : cmd == CMD8 ? 0x87 : 0xFF;
    xmit_spi(crc);
    if (cmd == CMD12) {
        rcvr_spi(); // the stuff byte that follows a stop
    }
    uint8_t res = 0xFF;
    for (int n = 0; n < 10; n++) {
        res = rcvr_spi();
        if (!(res & 0x80)) {
            break;
        }
    }
    return res;
}

bool rcvr_datablock(uint8_t* buff, UINT btr) {
    Timer1 = init_ticks;
    uint8_t token;
    do {
        token = rcvr_spi();
    } while (token == 0xFF && Timer1 != 0);
    if (token != token_single) {
        return false;
    }
    for (UINT i = 0; i < btr; i++) {
        buff[i] = rcvr_spi();
    }
    rcvr_spi(); // CRC, not checked
    rcvr_spi();
    return true;
}

bool xmit_datablock(const uint8_t* buff, uint8_t token) {
    if (wait_ready() != 0xFF) {
        return false;
    }
    xmit_spi(token);
    if (token == token_stop) {
        return true;
    }
    for (UINT i = 0; i < sector_size; i++) {
        xmit_spi(buff[i]);
    }
    xmit_spi(0xFF); // CRC: the card does not check it in SPI mode
    xmit_spi(0xFF);
    uint8_t resp = rcvr_spi();
    return (resp & 0x1F) == 0x05; // data accepted
}

void release_card(void) {
    DESELECT();
    rcvr_spi(); // the card lets go of its data line one clock after the select
}

// A version 2 card: it echoed CMD8's voltage and check pattern.
uint8_t init_v2_card(void) {
    uint8_t r7[4];
    for (uint8_t& b : r7) {
        b = rcvr_spi();
    }
    if (r7[2] != 0x01 || r7[3] != 0xAA) {
        return 0;
    }
    while (Timer1 != 0 && send_cmd(ACMD41, 1UL << 30) != 0) { // HCS: the host takes SDHC cards
    }
    if (Timer1 == 0 || send_cmd(CMD58, 0) != 0) {
        return 0;
    }
    uint8_t ocr[4];
    for (uint8_t& b : ocr) {
        b = rcvr_spi();
    }
    return (ocr[0] & 0x40) ? (card_sd | card_block) : card_sd; // CCS: card capacity status
}

// SD version 1 answers ACMD41; an MMC card does not know CMD55 and is started with CMD1.
uint8_t init_v1_or_mmc_card(void) {
    uint8_t type;
    uint8_t cmd;
    if (send_cmd(ACMD41, 0) <= 1) {
        type = card_sd;
        cmd = ACMD41;
    } else {
        type = card_mmc;
        cmd = CMD1;
    }
    while (Timer1 != 0 && send_cmd(cmd, 0) != 0) {
    }
    if (Timer1 == 0 || send_cmd(CMD16, sector_size) != 0) {
        return 0;
    }
    return type;
}

// Sectors of the card from its CSD register (version 2: SDHC/SDXC; else version 1 or MMC).
DWORD csd_sector_count(const uint8_t* csd) {
    if ((csd[0] >> 6) == 1) {
        DWORD c_size = csd[9] | (static_cast<DWORD>(csd[8]) << 8) | (static_cast<DWORD>(csd[7] & 0x3F) << 16);
        return (c_size + 1) << 10;
    }
    uint32_t read_bl_len = csd[5] & 0x0F;
    uint32_t c_size_mult = ((csd[9] & 0x03) << 1) | (csd[10] >> 7);
    DWORD c_size =
        (csd[8] >> 6) | (static_cast<DWORD>(csd[7]) << 2) | (static_cast<DWORD>(csd[6] & 0x03) << 10);
    uint32_t shift = read_bl_len + c_size_mult + 2;
    return shift >= 9 ? (c_size + 1) << (shift - 9) : (c_size + 1) >> (9 - shift);
}

bool read_register(uint8_t cmd, uint8_t* out) {
    return send_cmd(cmd, 0) == 0 && rcvr_datablock(out, 16);
}

// A command that no card answers (the card was taken out, or swapped for one that has not been
// started in SPI mode) leaves the drive not initialised, so that the file system's next call starts
// the card afresh: that call finds it gone (not ready) or works with the card now in the socket.
void note_silence(uint8_t r1) {
    if (r1 == 0xFF) {
        Stat |= STA_NOINIT;
    }
}

// The socket has no write-protect switch; a card is write-protected by its CSD's permanent or
// temporary write-protect bit (bits 13 and 12). Knowing it up front lets every write the file system
// plans fail as write-protected, before anything is written, instead of as a disk error.
void note_write_protection() {
    uint8_t csd[16];
    SELECT();
    bool read = read_register(CMD9, csd);
    release_card();
    if (read && (csd[14] & 0x30) != 0) {
        Stat |= STA_PROTECT;
    } else {
        Stat &= static_cast<DSTATUS>(~STA_PROTECT);
    }
}

DRESULT power_control(uint8_t* ptr) {
    switch (ptr[0]) {
    case 0:
        if (chk_power()) {
            power_off();
        }
        return RES_OK;
    case 1:
        power_on();
        return RES_OK;
    case 2:
        ptr[1] = static_cast<uint8_t>(chk_power());
        return RES_OK;
    default:
        return RES_PARERR;
    }
}

// Days since 1970-01-01 to a civil date (proleptic Gregorian calendar, eras of 400 years).
void civil_from_days(uint32_t days, uint32_t& year, uint32_t& month, uint32_t& day) {
    uint32_t z = days + 719468; // days since 0000-03-01
    uint32_t era = z / 146097;
    uint32_t doe = z - era * 146097;
    uint32_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    uint32_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    uint32_t mp = (5 * doy + 2) / 153; // March = 0
    day = doy - (153 * mp + 2) / 5 + 1;
    month = mp < 10 ? mp + 3 : mp - 9;
    year = yoe + era * 400 + (month <= 2 ? 1 : 0);
}

} // namespace

extern "C" {

DSTATUS disk_initialize(BYTE pdrv) {
    if (pdrv != 0) {
        return STA_NOINIT;
    }
    if (Stat & STA_NODISK) {
        return Stat;
    }
    power_on();
    send_initial_clock_train();
    SELECT();
    uint8_t type = 0;
    if (send_cmd(CMD0, 0) == 1) { // idle state
        Timer1 = init_ticks;
        if (send_cmd(CMD8, 0x1AA) == 1) {
            type = init_v2_card();
        } else {
            type = init_v1_or_mmc_card();
        }
    }
    CardType = type;
    release_card();
    if (type != 0) {
        Stat &= static_cast<DSTATUS>(~STA_NOINIT);
        set_max_speed();
        note_write_protection();
    } else {
        Stat |= STA_NOINIT; // also when a card that worked before stops answering
        power_off();
    }
    return Stat;
}

DSTATUS disk_status(BYTE pdrv) {
    if (pdrv != 0) {
        return STA_NOINIT;
    }
    return Stat;
}

DRESULT disk_read(BYTE pdrv, BYTE* buff, LBA_t sector, UINT count) {
    if (pdrv != 0 || count == 0) {
        return RES_PARERR;
    }
    if (Stat & STA_NOINIT) {
        return RES_NOTRDY;
    }
    DWORD address = static_cast<DWORD>(sector);
    if (!(CardType & card_block)) {
        address *= sector_size;
    }
    SELECT();
    uint8_t r1 = send_cmd(count == 1 ? CMD17 : CMD18, address);
    if (r1 == 0 && count == 1) {
        if (rcvr_datablock(buff, sector_size)) {
            count = 0;
        }
    } else if (r1 == 0) {
        while (count > 0 && rcvr_datablock(buff, sector_size)) {
            buff += sector_size;
            count--;
        }
        send_cmd(CMD12, 0);
    }
    release_card();
    note_silence(r1);
    return count == 0 ? RES_OK : RES_ERROR;
}

DRESULT disk_write(BYTE pdrv, const BYTE* buff, LBA_t sector, UINT count) {
    if (pdrv != 0 || count == 0) {
        return RES_PARERR;
    }
    if (Stat & STA_NOINIT) {
        return RES_NOTRDY;
    }
    if (Stat & STA_PROTECT) {
        return RES_WRPRT;
    }
    DWORD address = static_cast<DWORD>(sector);
    if (!(CardType & card_block)) {
        address *= sector_size;
    }
    SELECT();
    uint8_t r1 = 0;
    if (count == 1) {
        r1 = send_cmd(CMD24, address);
        if (r1 == 0 && xmit_datablock(buff, token_single)) {
            count = 0;
        }
    } else {
        if (CardType & card_sd) {
            send_cmd(ACMD23, count); // lets the card pre-erase the blocks
        }
        r1 = send_cmd(CMD25, address);
        if (r1 == 0) {
            while (count > 0 && xmit_datablock(buff, token_multi)) {
                buff += sector_size;
                count--;
            }
            if (!xmit_datablock(nullptr, token_stop)) {
                count = 1;
            }
        }
    }
    release_card();
    note_silence(r1);
    return count == 0 ? RES_OK : RES_ERROR;
}

DRESULT disk_ioctl(BYTE pdrv, BYTE cmd, void* buff) {
    if (pdrv != 0) {
        return RES_PARERR;
    }
    uint8_t* ptr = static_cast<uint8_t*>(buff);
    if (cmd == CTRL_POWER) {
        return power_control(ptr);
    }
    if (Stat & STA_NOINIT) {
        return RES_NOTRDY;
    }
    SELECT();
    DRESULT res = RES_ERROR;
    uint8_t csd[16];
    switch (cmd) {
    case CTRL_SYNC:
        if (wait_ready() == 0xFF) {
            res = RES_OK;
        }
        break;
    case GET_SECTOR_COUNT:
        if (read_register(CMD9, csd)) {
            DWORD n = csd_sector_count(csd);
            std::memcpy(buff, &n, sizeof n);
            res = RES_OK;
        }
        break;
    case GET_SECTOR_SIZE: {
        WORD size = sector_size;
        std::memcpy(buff, &size, sizeof size);
        res = RES_OK;
        break;
    }
    case MMC_GET_CSD:
        if (read_register(CMD9, ptr)) {
            res = RES_OK;
        }
        break;
    case MMC_GET_CID:
        if (read_register(CMD10, ptr)) {
            res = RES_OK;
        }
        break;
    case MMC_GET_OCR:
        if (send_cmd(CMD58, 0) == 0) {
            for (int i = 0; i < 4; i++) {
                ptr[i] = rcvr_spi();
            }
            res = RES_OK;
        }
        break;
    default:
        res = RES_PARERR;
        break;
    }
    release_card();
    return res;
}

// Called every 10 ms from the system tick interrupt.
void disk_timerproc(void) {
    uint8_t n = Timer1;
    if (n != 0) {
        Timer1 = static_cast<uint8_t>(n - 1);
    }
    n = Timer2;
    if (n != 0) {
        Timer2 = static_cast<uint8_t>(n - 1);
    }
}

// The RTC keeps UTC. FAT time stamps cannot say anything before 1980: an RTC behind that (a board
// whose clock was never set) stamps 1980-01-01 00:00:00.
DWORD get_fattime(void) {
    uint32_t t = HibernateRTCGet();
    uint32_t year;
    uint32_t month;
    uint32_t day;
    civil_from_days(t / 86400, year, month, day);
    if (year < 1980) {
        return (1u << 21) | (1u << 16);
    }
    uint32_t secs = t % 86400;
    return ((year - 1980) << 25) | (month << 21) | (day << 16) | ((secs / 3600) << 11) |
           ((secs / 60 % 60) << 5) | (secs % 60 / 2);
}

} // extern "C"
