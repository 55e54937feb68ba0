#pragma once

#include <cstdint>
#include <string>
#include <string_view>
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

// The five fields of a key as views of text held elsewhere, so that a long list
// can be put in order before its keys are built, and each kept key built once.
struct ClDeviceKeyView {
  uint32_t VID = 0;
  std::string_view DeviceName;
  std::string_view OpenCLCVersion;
  std::string_view DeviceVersion;
  std::string_view DriverVersion;
};

// The positions of the views in ascending ClDeviceKeyLess order of the keys they
// stand for; of views that stand for equal keys, one position only.
std::vector<std::size_t> SortedUniqueOrder(const std::vector<ClDeviceKeyView>& views);

// Every device the census found, ascending and free of duplicates after each census.
extern std::vector<ClDeviceKey> ClDeviceTable;
// The device that stands for the selected adapter.
extern ClDeviceKey SelectedClDevice;

}  // namespace gpuvet
