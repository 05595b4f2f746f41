// PCAL6416 I/O expander.
//
// Placeholder module: the board-sensor driver replaces it.
#include "board/pcal6416.h"

// Placeholder: nothing is probed yet.
int32_t pcal6416_init(void) {
    return 0;
}
