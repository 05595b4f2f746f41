// The I2C master modules behind the TivaWare I2C master calls, and the bus of I2C0 with the chips
// attached to it (the FRAM at 0x50; the board sensors join through i2c_attach).
//
// A command written to the master control register (START, RUN, STOP and ACK bits) runs the bus
// for as many SCL periods as it takes: a start and the address byte with its acknowledge, a data
// byte with its acknowledge (9 periods), a stop. The master reports busy for that long, and the
// received byte and the error bits appear only when the command has finished, as on the chip, so a
// driver that forgets to wait for the busy flag reads stale data. The SCL period follows from the
// clock and the timer period register that I2CMasterInitExpClk computes (100 kHz standard,
// 400 kHz fast).
#include "devices.h"
#include "registers.h"
#include "sim.h"

#include "driverlib/i2c.h"
#include "driverlib/sysctl.h"
#include "inc/hw_i2c.h"
#include "inc/hw_memmap.h"

#include <vector>

namespace sim::dev {

namespace {

constexpr int masters = 4;
constexpr uint32_t access_cycles = 4;

// Command bits of the master control/status register.
constexpr uint32_t cmd_run = 0x01;
constexpr uint32_t cmd_start = 0x02;
constexpr uint32_t cmd_stop = 0x04;
constexpr uint32_t cmd_ack = 0x08;

// Status bits of the same register.
constexpr uint32_t st_error = 0x02;
constexpr uint32_t st_adrack = 0x04;
constexpr uint32_t st_datack = 0x08;

// Raw interrupt status: a command finished.
constexpr uint32_t ris_done = 0x01;

const char* const master_names[masters] = {"I2C0", "I2C1", "I2C2", "I2C3"};

struct Master {
    bool enabled;
    uint32_t clock_hz; // the module clock given to I2CMasterInitExpClk; 0: the system clock
    uint32_t tpr;      // timer period register
    uint8_t slave;     // slave address register: 7-bit address and the receive bit
    bool receive;
    uint8_t data;      // master data register
    uint32_t status;   // error bits of the last finished command
    bool owns_bus;     // between a start and a stop
    bool reading;      // direction of the current transfer
    I2cDevice* target; // the chip that acknowledged the address, if any
    // The command in flight: its results appear when it finishes.
    bool busy;
    uint64_t done_ns;
    uint8_t pending_data;
    bool pending_has_data;
    uint32_t pending_status;
    // Register door only: the control register as written, the interrupt mask and raw status, the
    // clock low time-out count.
    uint32_t mcr;
    uint32_t imr;
    uint32_t ris;
    uint32_t clkocnt;
};

Master ms[masters];
std::vector<I2cDevice*> bus0;

int master_index(uint32_t base) {
    switch (base) {
    case I2C0_BASE:
        return 0;
    case I2C1_BASE:
        return 1;
    case I2C2_BASE:
        return 2;
    case I2C3_BASE:
        return 3;
    default:
        return -1;
    }
}

void ensure_bus() {
    if (bus0.empty()) {
        bus0.push_back(&fram_device());
    }
}

// SCL period: (2 * (6 + 4) * (TPR + 1)) module clocks.
uint64_t scl_period_ns(const Master& m) {
    uint64_t clock = m.clock_hz ? m.clock_hz : system_clock_hz();
    return 20ull * (m.tpr + 1) * ns_per_s / clock;
}

// Makes the results of a finished command visible.
void settle(int i) {
    Master& m = ms[i];
    if (!m.busy || now_ns() < m.done_ns) {
        return;
    }
    m.busy = false;
    if (m.pending_has_data) {
        m.data = m.pending_data;
    }
    m.status = m.pending_status;
    m.ris |= ris_done;
}

Master* master_of(uint32_t base, int* index) {
    bool time_passes = access(access_cycles);
    int i = master_index(base);
    if (i < 0) {
        return nullptr;
    }
    require_clock(SYSCTL_PERIPH_I2C0 + static_cast<uint32_t>(i), master_names[i], base);
    // Inside an interrupt handler virtual time stands still: a command in flight completes at once
    // rather than leave a busy-wait spinning.
    if (!time_passes && ms[i].busy) {
        ms[i].done_ns = now_ns();
    }
    settle(i);
    *index = i;
    return &ms[i];
}

// A start (or repeated start) with the address byte. Every chip sees it; the one whose address it
// is acknowledges. Only I2C0 has chips on its bus.
I2cDevice* address_phase(int i, bool read) {
    if (i != 0) {
        return nullptr;
    }
    ensure_bus();
    I2cDevice* found = nullptr;
    for (I2cDevice* d : bus0) {
        if (d->start(ms[i].slave, read) && !found) {
            found = d;
        }
    }
    return found;
}

void run_command(int i, uint32_t cmd) {
    Master& m = ms[i];
    uint64_t periods = 0;
    uint32_t status = 0;
    bool has_data = false;
    uint8_t data = 0;

    if (cmd & cmd_start) {
        m.owns_bus = true;
        m.reading = m.receive;
        m.target = address_phase(i, m.reading);
        periods += 1 + 9;
        if (!m.target) {
            status = st_error | st_adrack;
        }
    }
    // After an unanswered address the master stops transferring: the burst must end with a stop.
    if ((cmd & cmd_run) && m.owns_bus && status == 0) {
        periods += 9;
        if (m.reading) {
            // Nobody driving SDA reads as all ones.
            data = m.target ? m.target->read((cmd & cmd_ack) != 0) : 0xFF;
            has_data = true;
        } else if (!m.target || !m.target->write(m.data)) {
            status = st_error | st_datack;
        }
    }
    if ((cmd & cmd_stop) && m.owns_bus) {
        periods += 1;
        if (i == 0) {
            for (I2cDevice* d : bus0) {
                d->stop();
            }
        }
        m.owns_bus = false;
        m.target = nullptr;
    }

    m.busy = periods > 0;
    m.done_ns = now_ns() + periods * scl_period_ns(m);
    m.pending_data = data;
    m.pending_has_data = has_data;
    m.pending_status = status;
    if (!m.busy) {
        m.status = status;
        m.ris |= ris_done;
    }
}

} // namespace

void i2c_attach(I2cDevice* device) {
    ensure_bus();
    bus0.push_back(device);
}

void i2c_reset() {
    ensure_bus();
    for (int i = 0; i < masters; ++i) {
        ms[i] = Master{};
        ms[i].tpr = 1;
    }
    for (I2cDevice* d : bus0) {
        d->power_on();
    }
}

uint64_t i2c_next_event_ns() {
    uint64_t next = UINT64_MAX;
    for (const Master& m : ms) {
        if (m.busy && m.done_ns < next) {
            next = m.done_ns;
        }
    }
    return next;
}

// ---------------------------------------------------------------- register door

namespace {

// The master control/status register as read: only the busy flags while a command runs; then the
// outcome of the last command, and whether the master still holds the bus after it.
uint32_t read_mcs(int i) {
    settle(i);
    const Master& m = ms[i];
    if (m.busy) {
        return I2C_MCS_BUSY | I2C_MCS_BUSBSY;
    }
    uint32_t bus = m.owns_bus ? I2C_MCS_BUSBSY : I2C_MCS_IDLE;
    return (m.status & (I2C_MCS_ERROR | I2C_MCS_ADRACK | I2C_MCS_DATACK)) | bus;
}

// A command written while the master is disabled goes nowhere, as with I2CMasterControl.
void write_mcs(int i, uint32_t value) {
    settle(i);
    uint32_t cmd = value & (cmd_run | cmd_start | cmd_stop | cmd_ack);
    if (!ms[i].enabled || (cmd & (cmd_run | cmd_start | cmd_stop)) == 0) {
        return;
    }
    run_command(i, cmd);
}

} // namespace

uint32_t i2c_reg_read(int master, uint32_t offset) {
    if (master < 0 || master >= masters) {
        return 0;
    }
    Master& m = ms[master];
    switch (offset) {
    case I2C_O_MSA:
        return (static_cast<uint32_t>(m.slave) << 1) | (m.receive ? I2C_MSA_RS : 0);
    case I2C_O_MCS:
        return read_mcs(master);
    case I2C_O_MDR:
        settle(master);
        return m.data;
    case I2C_O_MTPR:
        return m.tpr;
    case I2C_O_MIMR:
        return m.imr;
    case I2C_O_MRIS:
        settle(master);
        return m.ris;
    case I2C_O_MMIS:
        settle(master);
        return m.ris & m.imr;
    case I2C_O_MCR:
        return m.mcr;
    case I2C_O_MCLKOCNT:
        return m.clkocnt;
    case I2C_O_MBMON:
        return I2C_MBMON_SCL | I2C_MBMON_SDA; // nothing holds the lines low between transfers
    default:
        return 0;
    }
}

// The interrupt line of the masters is not wired to the processor: the board's drivers poll.
void i2c_reg_write(int master, uint32_t offset, uint32_t value) {
    if (master < 0 || master >= masters) {
        return;
    }
    Master& m = ms[master];
    switch (offset) {
    case I2C_O_MSA:
        m.slave = static_cast<uint8_t>((value & I2C_MSA_SA_M) >> 1);
        m.receive = (value & I2C_MSA_RS) != 0;
        break;
    case I2C_O_MCS:
        write_mcs(master, value);
        break;
    case I2C_O_MDR:
        m.data = static_cast<uint8_t>(value);
        break;
    case I2C_O_MTPR:
        // The module runs from the system clock; its rate is taken when each command starts.
        m.tpr = value & I2C_MTPR_TPR_M;
        m.clock_hz = 0;
        break;
    case I2C_O_MIMR:
        m.imr = value & 0x3;
        break;
    case I2C_O_MICR:
        m.ris &= ~value;
        break;
    case I2C_O_MCR:
        m.mcr = value & (I2C_MCR_LPBK | I2C_MCR_MFE | I2C_MCR_SFE | I2C_MCR_GFE);
        m.enabled = (value & I2C_MCR_MFE) != 0;
        break;
    case I2C_O_MCLKOCNT:
        m.clkocnt = value & 0xFF;
        break;
    default:
        break;
    }
}

} // namespace sim::dev

using namespace sim::dev;

extern "C" {

// Enables the master and sets the SCL rate from the module clock: TPR = clock / (20 * rate) - 1,
// rounded up so that the bus is never faster than asked.
void I2CMasterInitExpClk(uint32_t ui32Base, uint32_t ui32I2CClk, bool bFast) {
    int i = 0;
    Master* m = master_of(ui32Base, &i);
    if (!m) {
        return;
    }
    uint32_t scl = bFast ? 400000 : 100000;
    m->enabled = true;
    m->mcr |= I2C_MCR_MFE;
    m->clock_hz = ui32I2CClk;
    uint32_t tpr = (ui32I2CClk + 2 * 10 * scl - 1) / (2 * 10 * scl);
    m->tpr = tpr > 0 ? tpr - 1 : 0;
}

void I2CMasterEnable(uint32_t ui32Base) {
    int i = 0;
    if (Master* m = master_of(ui32Base, &i)) {
        m->enabled = true;
        m->mcr |= I2C_MCR_MFE;
    }
}

void I2CMasterDisable(uint32_t ui32Base) {
    int i = 0;
    if (Master* m = master_of(ui32Base, &i)) {
        m->enabled = false;
        m->mcr &= ~I2C_MCR_MFE;
    }
}

void I2CMasterSlaveAddrSet(uint32_t ui32Base, uint8_t ui8SlaveAddr, bool bReceive) {
    int i = 0;
    if (Master* m = master_of(ui32Base, &i)) {
        m->slave = ui8SlaveAddr & 0x7f;
        m->receive = bReceive;
    }
}

void I2CMasterDataPut(uint32_t ui32Base, uint8_t ui8Data) {
    int i = 0;
    if (Master* m = master_of(ui32Base, &i)) {
        m->data = ui8Data;
    }
}

uint32_t I2CMasterDataGet(uint32_t ui32Base) {
    int i = 0;
    Master* m = master_of(ui32Base, &i);
    return m ? m->data : 0;
}

void I2CMasterControl(uint32_t ui32Base, uint32_t ui32Cmd) {
    int i = 0;
    Master* m = master_of(ui32Base, &i);
    if (!m || !m->enabled) {
        return;
    }
    run_command(i, ui32Cmd);
}

// A busy-wait loop ends at the same virtual time however often it polls; letting half of the
// remaining byte time pass per poll keeps a transfer to a few host-side polls per byte.
bool I2CMasterBusy(uint32_t ui32Base) {
    int i = 0;
    Master* m = master_of(ui32Base, &i);
    if (!m || !m->busy) {
        return false;
    }
    // A polling loop would only spin until the command ends: time runs on to its end at once.
    uint64_t now = sim::now_ns();
    if (m->done_ns > now) {
        sim::advance_ns(m->done_ns - now);
        settle(i);
    }
    return m->busy;
}

bool I2CMasterBusBusy(uint32_t ui32Base) {
    int i = 0;
    Master* m = master_of(ui32Base, &i);
    return m && (m->busy || m->owns_bus);
}

// As TivaWare reports it: nothing while busy; otherwise the acknowledge bits of a failed command.
uint32_t I2CMasterErr(uint32_t ui32Base) {
    int i = 0;
    Master* m = master_of(ui32Base, &i);
    if (!m || m->busy || !(m->status & st_error)) {
        return I2C_MASTER_ERR_NONE;
    }
    return m->status & (st_adrack | st_datack);
}

void I2CMasterTimeoutSet(uint32_t ui32Base, uint32_t ui32Value) {
    int i = 0;
    master_of(ui32Base, &i);
}

// SCL in bit 0, SDA in bit 1: the model's bus is never held low between transfers.
uint32_t I2CMasterLineStateGet(uint32_t ui32Base) {
    int i = 0;
    master_of(ui32Base, &i);
    return 0x3;
}

} // extern "C"
