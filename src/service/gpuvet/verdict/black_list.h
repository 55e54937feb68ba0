#pragma once

#include <cstdint>
#include <vector>

#include "opencl/cl_device_key.h"
#include "verdict/list_file.h"

namespace gpuvet {

// The devices under test: the selected device when an adapter was named, else
// every device of the census.
std::vector<ClDeviceKey> BlackListDevicesUnderTest(int32_t gpuIndex);

// True when a device under test equals an item of the black list file in all
// five fields. An unreadable file gives false.
bool IsInBlackList(const char* path, int32_t gpuIndex, const ListReader& readList = ReadListFile);

}  // namespace gpuvet
