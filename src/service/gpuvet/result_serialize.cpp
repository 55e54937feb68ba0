// The result store: the records of the live adapters and the reuse of a verdict.
#include "result_serialize.h"

#include <algorithm>

#include "opencl/cl_device_key.h"
#include "opencl/match_cl_device.h"
#include "platform/file_path.h"

namespace gpuvet {
namespace {

constexpr int32_t kOk = 0;
constexpr int32_t kFailed = -1;

// SaveAdapterResults asks for the search in ClDeviceTable: only the sign of
// the selector counts, so 0 is no adapter number.
constexpr int32_t kSearchDeviceTable = 0;
constexpr int32_t kMatched = 0;
constexpr int32_t kCheckedNow = 1;

}  // namespace

std::string ResultSerialize::BuildPath(const std::string& dir) {
  return platform::JoinPath(dir.substr(0, dir.find('\0')), kFileName);
}

void ResultSerialize::Open(const std::string& dir) {
  path = BuildPath(dir);
  folderStatus = folder.Open(dir.substr(0, dir.find('\0')));
}

// The records are kept only when they match the live adapters position by
// position: a changed field, another order or another count drops every
// stored verdict at once.
int32_t ResultSerialize::Load(const std::string& dir, const AdapterList& adapters) {
  Open(dir);
  results.clear();
  ReadConfig(path, results);
  if (results.size() != adapters.size()) {
    Rebuild(adapters);
    return kOk;
  }
  for (std::size_t position = 0; position < adapters.size(); ++position) {
    if (!AdapterEntryEqual(results[position].adapter, adapters[position])) {
      Rebuild(adapters);
      return kOk;
    }
  }
  return kOk;
}

void ResultSerialize::Rebuild(const AdapterList& adapters) {
  results.clear();
  for (const AdapterEntry& adapter : adapters) {
    AdapterResult fresh;
    fresh.adapter = adapter;
    results.push_back(fresh);
  }
}

// The first record of the adapter: of two equal adapters, both find the first.
std::vector<AdapterResult>::const_iterator ResultSerialize::RecordOf(const AdapterEntry& adapter) const {
  return std::find_if(results.begin(), results.end(),
                      [&adapter](const AdapterResult& record) { return AdapterEntryEqual(record.adapter, adapter); });
}

bool ResultSerialize::Find(const AdapterEntry& adapter, AdapterResult& found) const {
  const auto record = RecordOf(adapter);
  if (record == results.end()) {
    return false;
  }
  found = *record;
  return true;
}

// An unchecked record leaves a stored verdict alone.
int32_t ResultSerialize::Update(const AdapterResult& record) {
  const auto found = RecordOf(record.adapter);
  if (found == results.end()) {
    return kFailed;
  }
  AdapterResult& stored = results[static_cast<std::size_t>(found - results.begin())];
  stored.adapter = record.adapter;
  stored.clCVersion = record.clCVersion;
  stored.clDevVersion = record.clDevVersion;
  stored.clDrvVersion = record.clDrvVersion;
  if (record.checked != 0) {
    stored.checked = record.checked;
    stored.checkResult = record.checkResult;
  }
  return kOk;
}

int32_t SaveAdapterResults(ResultSerialize& store, const AdapterList& adapters, int32_t gpuIndex,
                           int32_t runCode) {
  for (std::size_t position = 0; position < adapters.size(); ++position) {
    const AdapterEntry& adapter = adapters[position];
    ClDeviceKey device;
    if (MatchClDevice(kSearchDeviceTable, adapter, device) != kMatched) {
      continue;  // no device: the record, and any verdict in it, stays as it is
    }
    AdapterResult record;
    record.adapter = adapter;
    record.clCVersion = device.OpenCLCVersion;
    record.clDevVersion = device.DeviceVersion;
    record.clDrvVersion = device.DriverVersion;
    if (gpuIndex >= 0 && position == static_cast<std::size_t>(gpuIndex)) {
      record.checkResult = runCode;
      record.checked = kCheckedNow;
    }
    store.Update(record);
  }
  store.AddResult();
  return kOk;
}

}  // namespace gpuvet
