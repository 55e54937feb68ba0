#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "opencl/cl_device_key.h"

namespace cl {
class Device;
}

namespace gpuvet {

// One device as the census met it: the values of its printed lines, each
// present when its query answered (they answer in order, so the present ones
// are a prefix), and its key when every one of the key's queries answered.
struct CensusDevice {
  std::optional<uint64_t> type;
  std::optional<std::string> name;
  std::optional<std::string> version;
  std::optional<std::string> driverVersion;
  std::optional<uint32_t> vendorId;
  std::optional<std::string> openClCVersion;
  std::optional<std::string> extensions;
  std::optional<ClDeviceKey> key;
};

// One platform's turn. Without a GPU count its device list failed and nothing
// but its exception line was printed. The texts answered in order; a turn that
// ends early is `failed` and prints its exception line after what it got.
struct CensusPlatform {
  std::optional<uint64_t> gpuCount;
  std::string handle;  // the platform handle as "%p" prints it
  std::optional<std::string> profile;
  std::optional<std::string> version;
  std::optional<std::string> name;
  std::optional<std::string> vendor;
  std::optional<std::string> icdSuffix;
  std::optional<std::string> extensions;
  std::vector<CensusDevice> devices;  // in the platform's order, up to the one that failed
  bool failed = false;
};

// What OpenCL told a run: the direct platform count, and the census proper,
// platform by platform, with its failures as they happened. A failed platform
// list leaves no platforms.
struct DeviceCensus {
  uint32_t platformCount = 0;
  bool platformListFailed = false;
  std::vector<CensusPlatform> platforms;
};

// The direct count of this machine's OpenCL platforms; a failing call gives 0.
uint32_t CountClPlatforms();

// Asks every OpenCL platform of this machine for its GPU devices and prints
// each line as soon as its value is in, so that a vendor library that ends the
// process leaves every line before it. platformCount is left 0.
DeviceCensus TakeClCensus();

// The lines of a census taken before, exactly as taking it printed them.
void PrintCensus(const DeviceCensus& census);

// Adds the keys of the census to ClDeviceTable and leaves it sorted and unique.
// A failed platform list raises the OpenCL error it raised when it was taken.
void AddCensusToTable(const DeviceCensus& census);

// Prints the census of this machine and adds its keys to ClDeviceTable.
void ListClDevices();

// The key of one device as the census builds it: asked for anew, each text up
// to its first NUL and trimmed of blanks.
ClDeviceKey FetchDeviceKey(const cl::Device& device);

// Erases the blanks (0x20 only) at both ends.
std::string TrimBlanks(std::string text);

}  // namespace gpuvet
