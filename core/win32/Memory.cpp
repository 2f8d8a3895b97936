#include "core/Memory.h"

// The Windows heap gives blocks of this size back to the system on its own.
void VeltReturnLargeBlocksAtOnce() {}
