#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "adapters/adapter_entry.h"

namespace gpuvet {

// One adapter's stored record.
struct AdapterResult {
  int32_t checked = 0;
  int32_t checkResult = 0;
  AdapterEntry adapter;
  std::string clCVersion;
  std::string clDevVersion;
  std::string clDrvVersion;
};

// The result store: one record per live adapter, kept in "gpuvet.json".
class ResultSerialize {
 public:
  static std::string BuildPath(const std::string& dir);
  int32_t Load(std::string dir, const AdapterList& adapters);
  void Rebuild(const AdapterList& adapters);
  bool Find(const AdapterEntry& adapter, AdapterResult& found) const;
  int32_t Update(const AdapterResult& record);

  int32_t ReadConfig(std::string path, std::vector<AdapterResult>& records);
  int32_t AddResult();

  std::string path;
  std::vector<AdapterResult> results;
};

bool AdapterEntryEqual(const AdapterEntry& a, const AdapterEntry& b);

// After a test: fresh OpenCL strings for every adapter with a device, the run
// code for the tested one, then the file is written.
int32_t SaveAdapterResults(ResultSerialize& store, const AdapterList& adapters, int32_t gpuIndex,
                           int32_t runCode);

}  // namespace gpuvet
