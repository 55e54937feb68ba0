#pragma once

#include <cstdint>

namespace gpuvet {

// True when an item of the white list file admits the device under test: same
// vendor and name, each version at least the item's in byte order.
bool IsInWhiteList(const char* path, int32_t gpuIndex);

}  // namespace gpuvet
