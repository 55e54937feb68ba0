#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fleet/machine_record.h"
#include "fleet/snapshot_stream.h"
#include "opencl/cl_device_key.h"
#include "run_options.h"
#include "verdict/list_file.h"

namespace gpuvet::fleet {

// The lists of an impact run: each path as gpuvet's options give it (empty:
// no such list), read once.
struct ImpactLists {
  std::string oldBlack, oldWhite, newBlack, newWhite;
  int32_t gpuIndex = -1;
};

// A device key, or none where the run found no device.
using DeviceOf = std::optional<ClDeviceKey>;
struct DeviceOfLess {
  bool operator()(const DeviceOf& a, const DeviceOf& b) const {
    return a.has_value() != b.has_value() ? !a.has_value() : a && ClDeviceKeyLess(*a, *b);
  }
};

// Machines whose adapter fitted a device of its vendor by the vendor alone,
// while the census held several devices of that vendor.
struct VendorOnlyMatch {
  uint32_t venID = 0;
  std::string adapterName;
  ClDeviceKey device;
  bool operator<(const VendorOnlyMatch& other) const;
};

// What an impact run found, summed over machines; a summary of part of a fleet
// merges with the summaries of the other parts into that of the whole.
struct ImpactSummary {
  ImpactLists lists;
  std::vector<ClDeviceKey> newBlackItems;  // as the new lists hold them, sorted
  std::vector<ClDeviceKey> newWhiteItems;
  std::vector<uint64_t> blackItemDecides;  // per item: the machines it decides
  std::vector<uint64_t> whiteItemDecides;
  uint64_t machines = 0;
  // (old code, new code) -> device under test -> machines
  std::map<std::pair<int32_t, int32_t>, std::map<DeviceOf, uint64_t, DeviceOfLess>> changes;
  // -> machines and the place of the first
  std::map<VendorOnlyMatch, std::pair<uint64_t, std::string>> vendorOnly;
  std::vector<std::pair<std::string, std::string>> unreadable;  // place, reason
};

// Judges machines under the old lists and the new ones with gpuvet's own run,
// the list files read once when it is made.
class ImpactRun {
 public:
  explicit ImpactRun(const ImpactLists& lists);
  void AddMachine(const MachineRecord& record, const SnapshotPlace& place);
  void AddUnreadable(const SnapshotPlace& place, const std::string& reason);
  const ImpactSummary& Summary() const { return summary_; }

  // The verdict code of gpuvet's run over the machine with these lists.
  int32_t Verdict(const MachineSource& machine, const std::string& blackList, const std::string& whiteList);

 private:
  ListReader reader_;
  std::map<std::pair<std::string, std::string>, std::shared_ptr<const ListFile>> read_;
  ImpactSummary summary_;
};

// Adds the counts of `part` to `whole`; false, with the reason, when the two
// were not made with the same lists and gpu index.
bool MergeSummary(ImpactSummary& whole, const ImpactSummary& part, std::string& reason);

// The exit status of a summary: 2 when a snapshot was unreadable, else 1 when
// a verdict changed, else 0.
int ImpactStatus(const ImpactSummary& summary);

// The report, in words, as JSON or as CSV.
std::string ImpactText(const ImpactSummary& summary);
std::string ImpactJson(const ImpactSummary& summary);
std::string ImpactCsv(const ImpactSummary& summary);

// A summary as a file for a later merge, and back.
std::string PartialJson(const ImpactSummary& summary);
bool ReadPartial(const std::string& text, ImpactSummary& summary, std::string& reason);

}  // namespace gpuvet::fleet
