#pragma once

#include <cstdint>

// The PCI ID database of the system.
namespace gpuvet::platform {

// True when the database names the vendor id. Without a database at hand
// every vendor counts as known.
bool IsKnownVendor(uint32_t vendorId);

}  // namespace gpuvet::platform
