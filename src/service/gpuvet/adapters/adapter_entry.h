#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace gpuvet {

// PCI vendor ids the tool treats in a way of their own.
constexpr uint32_t kIntelVendorId = 0x8086;

// One display adapter, a plain value copied whole.
struct AdapterEntry {
  uint32_t venID = 0;
  uint32_t devID = 0;
  std::string devName;     // the adapter library's text, byte for byte
  std::string strDrvVer;   // UTF-8; empty when unknown
  std::string strDrvDate;  // CIM datetime of the driver; "2012" when the lookup failed
};

// The adapter list; its index is the number that --gpu gives.
using AdapterList = std::vector<AdapterEntry>;

// All five fields equal: ids as numbers, strings byte for byte, case counting.
bool AdapterEntryEqual(const AdapterEntry& a, const AdapterEntry& b);

// The line that shows one adapter, in the adapter list and for the selection.
void PrintAdapterLine(const AdapterEntry& entry);

}  // namespace gpuvet
