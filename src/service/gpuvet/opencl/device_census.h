#pragma once

#include <string>

namespace gpuvet {

// Asks every OpenCL platform for its GPU devices, prints all it learns and adds
// one key per device to ClDeviceTable, which it leaves sorted and unique.
void ListClDevices();

// Erases the blanks (0x20 only) at both ends.
std::string TrimBlanks(std::string text);

}  // namespace gpuvet
