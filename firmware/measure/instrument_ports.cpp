// The serial instruments of ports 3 and 4 in the sample cycle: which driver a port's instrument
// code selects, and whether a port takes part at all.
#include "measure/instrument_ports.h"

#include "instruments/brisa.h"
#include "instruments/ctd_aand5860.h"
#include "instruments/ctd_base.h"
#include "instruments/ctd_sbe37.h"
#include "instruments/ocr.h"
#include "instruments/optode.h"
#include "instruments/picoph.h"
#include "instruments/port3.h"
#include "records/system.h"

namespace {
// CTD codes on port 4 from 6 up are real drivers (5 is "none": the default salinity is used).
constexpr unsigned char uart4_first_ctd = 6;
} // namespace

bool uart3_in_use() {
    return sys_data.data_cfg[CFG_UART3_INST] != 0;
}
bool uart4_in_use() {
    return sys_data.data_cfg[CFG_UART4_INST] >= uart4_first_ctd;
}

int uart3_stateMachine(int state) {
    switch (sys_data.data_cfg[CFG_UART3_INST]) {
    case PORT3_OPTODE:
        return optode_stateMachine(state);
    case PORT3_OCR:
        return ocr_stateMachine(state);
    case PORT3_BRISA:
        return brisa_stateMachine(state);
    case PORT3_PICOPH:
        return picoph_stateMachine(state);
    default:
        return 0;
    }
}

int uart4_stateMachine(int state) {
    switch (sys_data.data_cfg[CFG_UART4_INST]) {
    case CTD_TYPE_SBE37:
        return ctd_sbe37_stateMachine(state);
    case CTD_TYPE_AAND5860:
        return ctd_aand5860_stateMachine(state);
    default:
        return 0;
    }
}
