// The last sample record.
#include "records/sample.h"

sampData sampl;
