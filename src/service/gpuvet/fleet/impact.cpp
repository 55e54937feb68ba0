#include "fleet/impact.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <tuple>

#include "entry.h"
#include "exit_codes.h"
#include "fleet/json_bytes.h"
#include "opencl/match_cl_device.h"
#include "fleet/quiet_print.h"
#include "verdict/black_list.h"
#include "verdict/white_list.h"

namespace gpuvet::fleet {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kPartialFormat = "gpuvet-impact-partial";
constexpr int kPartialFormatVersion = 1;
constexpr int kStatusUnreadable = 2;
constexpr int kStatusChanged = 1;

// The codes of a run that matched a device and went on to the lists.
bool ReachedLists(int32_t code) {
  return code == GPUVET_OK || code == GPUVET_NOT_IN_WHITELIST || code == GPUVET_NOT_IN_WHITELIST_OLD_DRIVER ||
         code == GPUVET_OLD_DRIVER || code == GPUVET_IN_BLACKLIST;
}
bool ReachedWhiteList(int32_t code) { return ReachedLists(code) && code != GPUVET_IN_BLACKLIST; }

// The device the lists tested in the run just made: the selected device, or
// without a gpu index the one the white list would test.
DeviceOf DeviceUnderTest(int32_t gpuIndex, int32_t code) {
  ClDeviceKey tocheck;
  if (!ReachedLists(code) || !ChooseDeviceUnderTest(gpuIndex, tocheck)) {
    return std::nullopt;
  }
  return tocheck;
}

std::vector<ClDeviceKey> ItemsOf(const std::shared_ptr<const ListFile>& list) {
  return list && list->outcome == ListFileOutcome::kRead ? list->items : std::vector<ClDeviceKey>{};
}

std::string Grouped(uint64_t count) {
  std::string digits = std::to_string(count);
  for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3) {
    digits.insert(static_cast<std::size_t>(at), ",");
  }
  return digits;
}

std::string Machines(uint64_t count) { return Grouped(count) + (count == 1 ? " machine" : " machines"); }

std::string KeyText(const ClDeviceKey& key) {
  return "VID " + std::to_string(key.VID) + " \"" + key.DeviceName + "\" \"" + key.OpenCLCVersion + "\" \"" +
         key.DeviceVersion + "\" \"" + key.DriverVersion + "\"";
}



bool SameKeys(const std::vector<ClDeviceKey>& a, const std::vector<ClDeviceKey>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), ClDeviceKeyEqual);
}

// The items no machine was decided by, of one list.
template <typename Visit>
void ForUndeciding(const std::vector<ClDeviceKey>& items, const std::vector<uint64_t>& decides, Visit visit) {
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (decides[i] == 0) {
      visit(items[i]);
    }
  }
}

}  // namespace

bool VendorOnlyMatch::operator<(const VendorOnlyMatch& other) const {
  return std::tie(venID, adapterName) < std::tie(other.venID, other.adapterName) ||
         (std::tie(venID, adapterName) == std::tie(other.venID, other.adapterName) &&
          ClDeviceKeyLess(device, other.device));
}

ImpactRun::ImpactRun(const ImpactLists& lists) {
  summary_.lists = lists;
  const std::pair<const std::string*, const char*> files[] = {{&lists.oldBlack, kBlackListRoot},
                                                              {&lists.oldWhite, kWhiteListRoot},
                                                              {&lists.newBlack, kBlackListRoot},
                                                              {&lists.newWhite, kWhiteListRoot}};
  for (const auto& [path, root] : files) {
    if (!path->empty() && read_.count({*path, root}) == 0) {
      read_[{*path, root}] = ReadListFileAnew(path->c_str(), root);
    }
  }
  reader_ = [this](const char* path, const char* root) { return read_.at({path, root}); };
  if (!lists.newBlack.empty()) summary_.newBlackItems = ItemsOf(read_.at({lists.newBlack, kBlackListRoot}));
  if (!lists.newWhite.empty()) summary_.newWhiteItems = ItemsOf(read_.at({lists.newWhite, kWhiteListRoot}));
  summary_.blackItemDecides.assign(summary_.newBlackItems.size(), 0);
  summary_.whiteItemDecides.assign(summary_.newWhiteItems.size(), 0);
}

// A machine's run starts from a fresh process's state.
int32_t ImpactRun::Verdict(const MachineSource& machine, const std::string& blackList, const std::string& whiteList) {
  RunOptions options;
  options.gpuIndex = summary_.lists.gpuIndex;
  options.blackListPath = blackList;
  options.whiteListPath = whiteList;
  ClDeviceTable.clear();
  SelectedClDevice = ClDeviceKey{};
  const QuietPrint quiet;
  return EndRunOnEscape([&] { return CheckAdapters(options, machine, reader_); });
}

void ImpactRun::AddMachine(const MachineRecord& record, const SnapshotPlace& place) {
  const ImpactLists& lists = summary_.lists;
  const int32_t gpuIndex = lists.gpuIndex;
  const MachineSource machine = RecordedMachine(record);

  const int32_t oldCode = Verdict(machine, lists.oldBlack, lists.oldWhite);
  // The match does not depend on the lists: the state the old run left says how it fitted.
  if (gpuIndex >= 0 && ReachedLists(oldCode) && static_cast<std::size_t>(gpuIndex) < record.adapters.size()) {
    const AdapterEntry& adapter = record.adapters[gpuIndex];
    const auto ofVendor = std::count_if(ClDeviceTable.begin(), ClDeviceTable.end(),
                                        [&adapter](const ClDeviceKey& key) { return key.VID == adapter.venID; });
    if (!NamesFit(adapter, SelectedClDevice) && ofVendor > 1) {
      std::pair<uint64_t, std::string>& counted = summary_.vendorOnly[{adapter.venID, adapter.devName, SelectedClDevice}];
      if (counted.first++ == 0) {
        counted.second = PlaceText(place);
      }
    }
  }

  const int32_t newCode = Verdict(machine, lists.newBlack, lists.newWhite);
  if (ReachedLists(newCode)) {
    for (const ClDeviceKey& device : BlackListDevicesUnderTest(gpuIndex)) {
      const auto& items = summary_.newBlackItems;
      const auto at = std::lower_bound(items.begin(), items.end(), device, ClDeviceKeyLess);
      if (at != items.end() && ClDeviceKeyEqual(*at, device)) {
        ++summary_.blackItemDecides[at - items.begin()];
      }
    }
  }
  ClDeviceKey tocheck;
  if (ReachedWhiteList(newCode) && ChooseDeviceUnderTest(gpuIndex, tocheck)) {
    const auto& items = summary_.newWhiteItems;
    const auto admitting = FirstAdmitting(items, tocheck);
    if (admitting != items.end()) {
      ++summary_.whiteItemDecides[admitting - items.begin()];
    }
  }
  if (newCode != oldCode) {
    ++summary_.changes[{oldCode, newCode}][DeviceUnderTest(gpuIndex, newCode)];
  }
  ++summary_.machines;
}

void ImpactRun::AddUnreadable(const SnapshotPlace& place, const std::string& reason) {
  summary_.unreadable.emplace_back(PlaceText(place), reason);
}

bool MergeSummary(ImpactSummary& whole, const ImpactSummary& part, std::string& reason) {
  const ImpactLists& a = whole.lists;
  const ImpactLists& b = part.lists;
  if (std::tie(a.oldBlack, a.oldWhite, a.newBlack, a.newWhite, a.gpuIndex) !=
          std::tie(b.oldBlack, b.oldWhite, b.newBlack, b.newWhite, b.gpuIndex) ||
      !SameKeys(whole.newBlackItems, part.newBlackItems) || !SameKeys(whole.newWhiteItems, part.newWhiteItems)) {
    reason = "made with other lists or another --gpu";
    return false;
  }
  for (std::size_t i = 0; i < part.blackItemDecides.size(); ++i) whole.blackItemDecides[i] += part.blackItemDecides[i];
  for (std::size_t i = 0; i < part.whiteItemDecides.size(); ++i) whole.whiteItemDecides[i] += part.whiteItemDecides[i];
  whole.machines += part.machines;
  for (const auto& [codes, devices] : part.changes) {
    for (const auto& [device, count] : devices) {
      whole.changes[codes][device] += count;
    }
  }
  for (const auto& [match, counted] : part.vendorOnly) {
    std::pair<uint64_t, std::string>& sum = whole.vendorOnly[match];
    if (sum.first == 0) {
      sum.second = counted.second;
    }
    sum.first += counted.first;
  }
  whole.unreadable.insert(whole.unreadable.end(), part.unreadable.begin(), part.unreadable.end());
  return true;
}

int ImpactStatus(const ImpactSummary& summary) {
  if (!summary.unreadable.empty()) return kStatusUnreadable;
  return summary.changes.empty() ? 0 : kStatusChanged;
}

std::string ImpactText(const ImpactSummary& summary) {
  std::string text = Machines(summary.machines) + " judged, " + Grouped(summary.unreadable.size()) +
                     " snapshots unreadable\n\nverdict changes:\n";
  if (summary.changes.empty()) text += "  none\n";
  for (const auto& [codes, devices] : summary.changes) {
    uint64_t total = 0;
    for (const auto& device : devices) total += device.second;
    text += "  " + std::to_string(codes.first) + " -> " + std::to_string(codes.second) + "  " + Machines(total) + "\n";
    for (const auto& [device, count] : devices) {
      text += "      " + (device ? KeyText(*device) : std::string("no device")) + "  " + Machines(count) + "\n";
    }
  }
  text += "\nitems of the new lists that decide no machine:\n";
  std::string undeciding;
  ForUndeciding(summary.newBlackItems, summary.blackItemDecides,
                [&](const ClDeviceKey& key) { undeciding += "  black list: " + KeyText(key) + "\n"; });
  ForUndeciding(summary.newWhiteItems, summary.whiteItemDecides,
                [&](const ClDeviceKey& key) { undeciding += "  white list: " + KeyText(key) + "\n"; });
  text += undeciding.empty() ? "  none\n" : undeciding;
  text += "\nmatched by vendor alone while several devices of that vendor were present:\n";
  if (summary.vendorOnly.empty()) text += "  none\n";
  for (const auto& [match, counted] : summary.vendorOnly) {
    text += "  adapter \"" + match.adapterName + "\" tested as " + KeyText(match.device) + "  " +
            Machines(counted.first) + " (first: " + counted.second + ")\n";
  }
  text += "\nunreadable snapshots: " + Grouped(summary.unreadable.size()) + "\n";
  for (const auto& [place, reason] : summary.unreadable) {
    text += "  " + place + ": " + reason + "\n";
  }
  return text;
}

namespace {

// The parts the report and the partial summary write alike.
Json VendorOnlyJson(const ImpactSummary& summary) {
  Json vendorOnly = Json::array();
  for (const auto& [match, counted] : summary.vendorOnly) {
    vendorOnly.push_back({{"venID", match.venID},
                          {"adapter", BytesJson(match.adapterName)},
                          {"device", KeyJson(match.device)},
                          {"machines", counted.first},
                          {"first", BytesJson(counted.second)}});
  }
  return vendorOnly;
}

Json UnreadableJson(const ImpactSummary& summary) {
  Json unreadable = Json::array();
  for (const auto& [place, reason] : summary.unreadable) {
    unreadable.push_back({{"place", BytesJson(place)}, {"reason", BytesJson(reason)}});
  }
  return unreadable;
}

}  // namespace

std::string ImpactJson(const ImpactSummary& summary) {
  Json changes = Json::array();
  for (const auto& [codes, devices] : summary.changes) {
    Json keys = Json::array();
    uint64_t total = 0;
    for (const auto& [device, count] : devices) {
      keys.push_back({{"device", device ? KeyJson(*device) : Json(nullptr)}, {"machines", count}});
      total += count;
    }
    changes.push_back({{"old", codes.first}, {"new", codes.second}, {"machines", total}, {"devices", keys}});
  }
  Json undeciding = Json::array();
  ForUndeciding(summary.newBlackItems, summary.blackItemDecides,
                [&](const ClDeviceKey& key) { undeciding.push_back({{"list", "black"}, {"item", KeyJson(key)}}); });
  ForUndeciding(summary.newWhiteItems, summary.whiteItemDecides,
                [&](const ClDeviceKey& key) { undeciding.push_back({{"list", "white"}, {"item", KeyJson(key)}}); });
  return Json{{"machines", summary.machines},
              {"changes", changes},
              {"undecidingItems", undeciding},
              {"vendorOnly", VendorOnlyJson(summary)},
              {"unreadable", UnreadableJson(summary)}}
             .dump(2);
}

namespace {

std::string CsvField(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  }
  return quoted + "\"";
}

std::string CsvKey(const ClDeviceKey& key) {
  return std::to_string(key.VID) + "," + CsvField(key.DeviceName) + "," + CsvField(key.OpenCLCVersion) + "," +
         CsvField(key.DeviceVersion) + "," + CsvField(key.DriverVersion);
}

constexpr const char* kNoKey = ",,,,";

}  // namespace

// One table: what each row is, the codes of a change, its count of machines,
// the device key, and a place and a note where the row has them.
std::string ImpactCsv(const ImpactSummary& summary) {
  std::string csv = "kind,old,new,machines,VID,DeviceName,OpenCLCVersion,DeviceVersion,DriverVersion,place,note\n";
  for (const auto& [codes, devices] : summary.changes) {
    for (const auto& [device, count] : devices) {
      csv += "change," + std::to_string(codes.first) + "," + std::to_string(codes.second) + "," +
             std::to_string(count) + "," + (device ? CsvKey(*device) : kNoKey) + ",,\n";
    }
  }
  ForUndeciding(summary.newBlackItems, summary.blackItemDecides,
                [&](const ClDeviceKey& key) { csv += "undeciding-black-item,,,0," + CsvKey(key) + ",,\n"; });
  ForUndeciding(summary.newWhiteItems, summary.whiteItemDecides,
                [&](const ClDeviceKey& key) { csv += "undeciding-white-item,,,0," + CsvKey(key) + ",,\n"; });
  for (const auto& [match, counted] : summary.vendorOnly) {
    csv += "vendor-only,,," + std::to_string(counted.first) + "," + CsvKey(match.device) + "," +
           CsvField(counted.second) + "," + CsvField("adapter " + match.adapterName) + "\n";
  }
  for (const auto& [place, reason] : summary.unreadable) {
    csv += "unreadable,,,," + std::string(kNoKey) + "," + CsvField(place) + "," + CsvField(reason) + "\n";
  }
  return csv;
}

std::string PartialJson(const ImpactSummary& summary) {
  Json black = Json::array();
  for (std::size_t i = 0; i < summary.newBlackItems.size(); ++i) {
    black.push_back({{"item", KeyJson(summary.newBlackItems[i])}, {"decides", summary.blackItemDecides[i]}});
  }
  Json white = Json::array();
  for (std::size_t i = 0; i < summary.newWhiteItems.size(); ++i) {
    white.push_back({{"item", KeyJson(summary.newWhiteItems[i])}, {"decides", summary.whiteItemDecides[i]}});
  }
  Json changes = Json::array();
  for (const auto& [codes, devices] : summary.changes) {
    for (const auto& [device, count] : devices) {
      changes.push_back({{"old", codes.first},
                         {"new", codes.second},
                         {"device", device ? KeyJson(*device) : Json(nullptr)},
                         {"machines", count}});
    }
  }
  const ImpactLists& lists = summary.lists;
  return Json{{"format", kPartialFormat},
              {"formatVersion", kPartialFormatVersion},
              {"lists",
               {{"blacklist", BytesJson(lists.oldBlack)},
                {"whitelist", BytesJson(lists.oldWhite)},
                {"newBlacklist", BytesJson(lists.newBlack)},
                {"newWhitelist", BytesJson(lists.newWhite)},
                {"gpu", lists.gpuIndex}}},
              {"machines", summary.machines},
              {"newBlackItems", black},
              {"newWhiteItems", white},
              {"changes", changes},
              {"vendorOnly", VendorOnlyJson(summary)},
              {"unreadable", UnreadableJson(summary)}}
             .dump() + "\n";
}

bool ReadPartial(const std::string& text, ImpactSummary& summary, std::string& reason) {
  summary = ImpactSummary{};
  try {
    const nlohmann::json json = nlohmann::json::parse(text);
    if (json.at("format") != kPartialFormat || json.at("formatVersion") != kPartialFormatVersion) {
      reason = "not a partial impact summary of format version 1";
      return false;
    }
    const nlohmann::json& lists = json.at("lists");
    summary.lists.oldBlack = BytesFromJson(lists.at("blacklist"));
    summary.lists.oldWhite = BytesFromJson(lists.at("whitelist"));
    summary.lists.newBlack = BytesFromJson(lists.at("newBlacklist"));
    summary.lists.newWhite = BytesFromJson(lists.at("newWhitelist"));
    summary.lists.gpuIndex = lists.at("gpu").get<int32_t>();
    summary.machines = json.at("machines").get<uint64_t>();
    for (const nlohmann::json& item : json.at("newBlackItems")) {
      summary.newBlackItems.push_back(KeyFromJson(item.at("item")));
      summary.blackItemDecides.push_back(item.at("decides").get<uint64_t>());
    }
    for (const nlohmann::json& item : json.at("newWhiteItems")) {
      summary.newWhiteItems.push_back(KeyFromJson(item.at("item")));
      summary.whiteItemDecides.push_back(item.at("decides").get<uint64_t>());
    }
    for (const nlohmann::json& change : json.at("changes")) {
      const DeviceOf device = change.at("device").is_null() ? DeviceOf{} : KeyFromJson(change.at("device"));
      summary.changes[{change.at("old").get<int32_t>(), change.at("new").get<int32_t>()}][device] +=
          change.at("machines").get<uint64_t>();
    }
    for (const nlohmann::json& match : json.at("vendorOnly")) {
      summary.vendorOnly[{match.at("venID").get<uint32_t>(), BytesFromJson(match.at("adapter")),
                          KeyFromJson(match.at("device"))}] = {match.at("machines").get<uint64_t>(),
                                                                BytesFromJson(match.at("first"))};
    }
    for (const nlohmann::json& entry : json.at("unreadable")) {
      summary.unreadable.emplace_back(BytesFromJson(entry.at("place")), BytesFromJson(entry.at("reason")));
    }
    return true;
  } catch (const std::exception& error) {
    reason = error.what();
  }
  return false;
}

}  // namespace gpuvet::fleet
