#pragma once

#include <cstdint>

#include "lists/lint.h"

namespace gpuvet::lists {

// Prints an <Item> for each OpenCL GPU device of this machine, in census order,
// or only for the device matched to adapter gpuIndex when it is not negative.
// With a kind, a whole list file around them. 0 when it printed an item, 1 when
// there was none.
int PrintItems(int32_t gpuIndex, ListKind wrapIn);

}  // namespace gpuvet::lists
