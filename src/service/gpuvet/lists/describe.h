#pragma once

#include <cstddef>
#include <string>

#include "adapters/adapter_entry.h"
#include "opencl/cl_device_key.h"

namespace gpuvet::lists {

// A device key in one line, each text quoted.
std::string KeyText(const ClDeviceKey& key);

// "adapter N "NAME" [vvvv:dddd], driver "VERSION" dated "DATE"", the adapter
// at position N of the run's list.
std::string AdapterText(std::size_t position, const AdapterEntry& adapter);

}  // namespace gpuvet::lists
