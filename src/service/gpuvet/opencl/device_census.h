#pragma once

#include <string>

#include "opencl/cl_device_key.h"

namespace cl {
class Device;
}

namespace gpuvet {

// Asks every OpenCL platform for its GPU devices, prints all it learns and adds
// one key per device to ClDeviceTable, which it leaves sorted and unique.
void ListClDevices();

// The key of one device as the census builds it: asked for anew, each text up
// to its first NUL and trimmed of blanks.
ClDeviceKey FetchDeviceKey(const cl::Device& device);

// Erases the blanks (0x20 only) at both ends.
std::string TrimBlanks(std::string text);

}  // namespace gpuvet
