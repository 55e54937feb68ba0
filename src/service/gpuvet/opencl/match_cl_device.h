#pragma once

#include <cstdint>

#include "adapters/adapter_entry.h"
#include "opencl/cl_device_key.h"

namespace gpuvet {

// Links an adapter to the first device of ClDeviceTable whose name contains or
// is contained in the adapter's, or whose vendor is the adapter's. Only the
// selector's sign counts: negative takes the adapter's name and skips the table.
// 0 on a match, -10 when no device fits.
// True when either name holds the other: the device fits without the vendor.
bool NamesFit(const AdapterEntry& adapter, const ClDeviceKey& device);

int32_t MatchClDevice(int32_t selector, const AdapterEntry& adapter, ClDeviceKey& target);

}  // namespace gpuvet
