// The board's vector table: fixed in flash on the chip, installed here at every reset from the same
// list of the firmware's handlers.
#include "runtime.h"

#include "board_vectors.h"

namespace sim {

void install_vectors() {
    // With no start-up code in the host build, the firmware's hard-fault handler is the vector itself.
    register_vector(FAULT_HARD, faultISR_handler);
    for (const BoardVector& v : board_vectors) {
        register_vector(static_cast<int>(v.number), v.handler);
    }
}

} // namespace sim
