#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "adapters/adapter_entry.h"
#include "platform/result_folder.h"
#include "platform/zavkit_json.h"

namespace gpuvet {

// One adapter's stored record.
struct AdapterResult {
  int32_t checked = 0;  // not 0 when checkResult holds a verdict
  int32_t checkResult = 0;
  AdapterEntry adapter;
  std::string clCVersion;
  std::string clDevVersion;
  std::string clDrvVersion;
};

// The result store: one record per live adapter, kept in "gpuvet.json".
class ResultSerialize {
 public:
  static constexpr const char* kFileName = "gpuvet.json";

  // The directory up to its first zero byte, the separator and "gpuvet.json".
  static std::string BuildPath(const std::string& dir);
  // Names the file and opens its directory, once for the reader and the writer.
  void Open(const std::string& dir);
  // Reads the file and keeps its records only when they match the live
  // adapters one by one, in order; otherwise every record starts afresh. Always 0.
  int32_t Load(const std::string& dir, const AdapterList& adapters);
  // One fresh, unchecked record per live adapter.
  void Rebuild(const AdapterList& adapters);
  // Copies the first record of the adapter into `found`; false when there is none.
  bool Find(const AdapterEntry& adapter, AdapterResult& found) const;
  // Refreshes the first record of the same adapter: identity and OpenCL strings
  // always, the verdict only when `record` is checked. -1 when there is none.
  int32_t Update(const AdapterResult& record);

  // The reader: the records of the file into `records`; `path` names it in the
  // log. 0, or -1 on any failure, after which `records` holds what was
  // complete by then.
  int32_t ReadConfig(const std::string& path, std::vector<AdapterResult>& records) const;
  int32_t ParseResults(const std::string& path, std::vector<AdapterResult>& records) const;
  // The writer: `results` into the file, other root members kept. 0, -3 when
  // the section could not be made, -1 after a JSON error or when the file may
  // not be written (one line says why; the file stays as it is).
  int32_t AddResult() const;
  int32_t save_result() const;
  // Replaces the "GpuVet" member of the root by a new one, at the end. Always 0.
  static int32_t WriteSection(zavkit::JsonObject& root, const std::vector<AdapterResult>& results);

  std::string path;
  std::vector<AdapterResult> results;
  // The directory, opened by Open; folderStatus says why it is not open.
  platform::ResultFolder folder;
  platform::FolderFileStatus folderStatus = platform::FolderFileStatus::kMissing;

 private:
  std::vector<AdapterResult>::const_iterator RecordOf(const AdapterEntry& adapter) const;
};

// After a test: fresh OpenCL strings for every adapter with a device, the run
// code for the tested one, then the file is written. Always 0.
int32_t SaveAdapterResults(ResultSerialize& store, const AdapterList& adapters, int32_t gpuIndex,
                           int32_t runCode);

}  // namespace gpuvet
