#pragma once

#include <cstdint>

#include "opencl/cl_device_key.h"
#include "verdict/list_file.h"

namespace gpuvet {

// The one device under test. A named adapter brings its own device; without
// one, the first device of another vendor than Intel, else the first device.
// False when there is no device at all.
bool ChooseDeviceUnderTest(int32_t gpuIndex, ClDeviceKey& tocheck);

// An item admits a device of its vendor and name whose versions are each at
// least the item's, in byte order.
bool Admits(const ClDeviceKey& item, const ClDeviceKey& tocheck);

// True when an item of the white list file admits the device under test: same
// vendor and name, each version at least the item's in byte order.
bool IsInWhiteList(const char* path, int32_t gpuIndex, const ListReader& readList = ReadListFile);

}  // namespace gpuvet
