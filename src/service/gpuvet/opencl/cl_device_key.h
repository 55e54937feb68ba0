#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace gpuvet {

// One OpenCL GPU device, or one item of a list file. The field order is the
// order of comparison.
struct ClDeviceKey {
  uint32_t VID = 0;
  std::string DeviceName;
  std::string OpenCLCVersion;
  std::string DeviceVersion;
  std::string DriverVersion;
};

bool ClDeviceKeyEqual(const ClDeviceKey& a, const ClDeviceKey& b);
// Strict total order: VID as unsigned numbers, then each string by StringLess.
bool ClDeviceKeyLess(const ClDeviceKey& a, const ClDeviceKey& b);
// Byte order, the way memcmp sees it; a prefix sorts first.
bool StringLess(const std::string& a, const std::string& b);

// Sorts by ClDeviceKeyLess and folds equal neighbours into one.
void SortUnique(std::vector<ClDeviceKey>& keys);

// Every device the census found, ascending and free of duplicates after each census.
extern std::vector<ClDeviceKey> ClDeviceTable;
// The device that stands for the selected adapter.
extern ClDeviceKey SelectedClDevice;

}  // namespace gpuvet
