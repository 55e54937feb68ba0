#pragma once

#include <cstdint>

namespace gpuvet {

// True when a device under test equals an item of the black list file in all
// five fields. An unreadable file gives false.
bool IsInBlackList(const char* path, int32_t gpuIndex);

}  // namespace gpuvet
