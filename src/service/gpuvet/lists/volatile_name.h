#pragma once

#include <string>
#include <string_view>

namespace gpuvet::lists {

// The part of an OpenCL device name that names the versions of the driver
// stack under it (Mesa's "AMD Radeon RX 6650 XT (radeonsi, navi23, LLVM 17.0.6,
// DRM 3.57, 6.9.0-273-tkg)"): "LLVM 17.0.6", "DRM 3.57" or a kernel release,
// the first found. Empty when the name carries none.
std::string VolatileNamePart(std::string_view name);

}  // namespace gpuvet::lists
