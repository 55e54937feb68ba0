#include "lists/explain.h"

#include <CL/opencl.hpp>
#include <tinyxml2.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "adapters/collect_adapters.h"
#include "adapters/select_adapter.h"
#include "entry.h"
#include "exit_codes.h"
#include "exit_watchdog.h"
#include "lists/text_compare.h"
#include "opencl/cl_device_key.h"
#include "platform/process.h"
#include "print.h"
#include "result_serialize.h"
#include "verdict/black_list.h"
#include "verdict/list_file.h"
#include "verdict/run_verdict.h"
#include "verdict/white_list.h"

namespace gpuvet::lists {
namespace {

// One step of the run, said in words: what it came to and why.
struct Step {
  std::string name;
  std::string outcome;
  std::vector<std::string> evidence;
};

struct ItemAt {
  int line = 0;
  ClDeviceKey key;
};

// A list file read with gpuvet's reading, each item with its line.
struct ListWithLines {
  bool read = false;
  std::string why;  // when not read
  std::vector<ItemAt> items;
};

ListWithLines ReadWithLines(const std::string& path, const char* rootName) {
  ListWithLines list;
  const std::unique_ptr<tinyxml2::XMLDocument> document = NewListDocument();
  if (document->LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS) {
    list.why = std::string("it does not load as XML (") + document->ErrorName() + ")";
    return list;
  }
  const tinyxml2::XMLElement* root = document->FirstChildElement();
  if (root == nullptr || std::string(root->Value()) != rootName) {
    list.why = std::string("its root is not <") + rootName + ">";
    return list;
  }
  list.read = true;
  for (const tinyxml2::XMLElement* item = FirstItem(*root); item != nullptr; item = NextItem(*item)) {
    list.items.push_back({item->GetLineNum(), ReadItem(*item)});
  }
  return list;
}

std::string KeyText(const ClDeviceKey& key) {
  return Quoted(key.DeviceName) + " VID " + std::to_string(key.VID) + ", " + Quoted(key.OpenCLCVersion) + ", " +
         Quoted(key.DeviceVersion) + ", " + Quoted(key.DriverVersion);
}

std::string AdapterText(const AdapterEntry& adapter) {
  char ids[32];
  std::snprintf(ids, sizeof ids, "[%04x:%04x]", adapter.venID, adapter.devID);
  return Quoted(adapter.devName) + " " + ids + ", driver " + Quoted(adapter.strDrvVer) + " dated " +
         Quoted(adapter.strDrvDate);
}

bool SameDevice(const ClDeviceKey& a, const ClDeviceKey& b) {
  return a.VID == b.VID && a.DeviceName == b.DeviceName;
}

// The fields in the order the tests look at them, with their texts.
std::vector<std::pair<const char*, std::string>> Fields(const ClDeviceKey& key) {
  return {{"VID", std::to_string(key.VID)}, {"DeviceName", key.DeviceName},
          {"OpenCLCVersion", key.OpenCLCVersion}, {"DeviceVersion", key.DeviceVersion},
          {"DriverVersion", key.DriverVersion}};
}

std::string FoldCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
  return text;
}

std::string DropSpace(std::string text) {
  text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return std::isspace(static_cast<unsigned char>(c)); }),
             text.end());
  return text;
}

// What sets an item's name apart from the device's, when it is nearly the same.
std::string NameDifference(const ClDeviceKey& item, const ClDeviceKey& device) {
  const std::string& a = item.DeviceName;
  const std::string& b = device.DeviceName;
  std::string what;
  if (a == b) {
    return "another VID, " + std::to_string(item.VID) + " where the device has " + std::to_string(device.VID);
  }
  if (FoldCase(a) == FoldCase(b)) {
    what = "case";
  } else if (DropSpace(a) == DropSpace(b)) {
    what = "blanks";
  } else if (FoldCase(DropSpace(a)) == FoldCase(DropSpace(b))) {
    what = "case and blanks";
  } else {
    return "";
  }
  return what + (item.VID != device.VID ? ", and another VID " + std::to_string(item.VID) : "");
}

// The items whose names come closest to the device's: those that differ in
// case, blanks or VID alone, else the three nearest by edit distance.
void AddClosestNames(const std::string& path, const std::vector<ItemAt>& items, const ClDeviceKey& device,
                     Step& step) {
  std::vector<std::string> near;
  for (const ItemAt& item : items) {
    const std::string difference = NameDifference(item.key, device);
    if (!difference.empty()) {
      near.push_back(path + ":" + std::to_string(item.line) + ": " + Quoted(item.key.DeviceName) + " differs in " +
                     difference);
    }
  }
  if (near.empty()) {
    std::vector<const ItemAt*> byDistance;
    byDistance.reserve(items.size());
    for (const ItemAt& item : items) {
      byDistance.push_back(&item);
    }
    std::stable_sort(byDistance.begin(), byDistance.end(), [&device](const ItemAt* a, const ItemAt* b) {
      return EditDistance(a->key.DeviceName, device.DeviceName) < EditDistance(b->key.DeviceName, device.DeviceName);
    });
    byDistance.resize(std::min<std::size_t>(byDistance.size(), 3));
    for (const ItemAt* item : byDistance) {
      near.push_back(path + ":" + std::to_string(item->line) + ": " + Quoted(item->key.DeviceName) + " VID " +
                     std::to_string(item->key.VID) + " is another name");
    }
  }
  step.evidence.push_back("no item names " + Quoted(device.DeviceName) + " with VID " + std::to_string(device.VID) +
                          (near.empty() ? "; the list has no item" : "; the closest:"));
  step.evidence.insert(step.evidence.end(), near.begin(), near.end());
}

// Where "device below item" turned, byte by byte.
std::string WhereBelow(const std::string& device, const std::string& item) {
  const std::size_t at = TurningByte(device, item);
  if (at == device.size()) {
    return "the device's text is the item's cut short at byte " + std::to_string(at + 1);
  }
  return "byte " + std::to_string(at + 1) + ": '" + std::string(1, device[at]) + "' is below '" +
         std::string(1, item[at]) + "'";
}

Step BlackListStep(const std::string& path, int32_t gpuIndex, int32_t code) {
  Step step{"black list", code == GPUVET_IN_BLACKLIST ? "hit: the device is refused" : "no hit", {}};
  const ListWithLines list = ReadWithLines(path, kBlackListRoot);
  if (!list.read) {
    step.evidence.push_back(path + " is read as no list: " + list.why + "; every device passes");
    return step;
  }
  for (const ClDeviceKey& device : BlackListDevicesUnderTest(gpuIndex)) {
    bool named = false;
    for (const ItemAt& item : list.items) {
      if (ClDeviceKeyEqual(item.key, device)) {
        step.evidence.push_back(path + ":" + std::to_string(item.line) + ": lists " + KeyText(device));
        named = true;
      } else if (SameDevice(item.key, device)) {
        const auto itemFields = Fields(item.key);
        const auto deviceFields = Fields(device);
        for (std::size_t i = 0; i < itemFields.size(); ++i) {
          if (itemFields[i].second != deviceFields[i].second) {
            step.evidence.push_back(path + ":" + std::to_string(item.line) + ": the nearest item differs first in " +
                                    itemFields[i].first + ": item " + Quoted(itemFields[i].second) + ", device " +
                                    Quoted(deviceFields[i].second));
            break;
          }
        }
        named = true;
      }
    }
    if (!named) {
      AddClosestNames(path, list.items, device, step);
    }
  }
  return step;
}

Step DriverStep(const AdapterEntry& adapter) {
  const bool old = IsOldDriver(adapter.strDrvDate);
  Step step{"driver date", old ? "old" : "new enough", {}};
  step.evidence.push_back(Quoted(adapter.strDrvDate) + (old ? " sorts before " : " does not sort before ") +
                          std::to_string(MinDriverYear));
  if (adapter.strDrvDate == kFallbackDriverDate) {
    step.evidence.push_back("the driver lookup found nothing: \"2012\" stands in for the date");
  }
  return step;
}

Step WhiteListStep(const std::string& path, int32_t gpuIndex, int32_t code) {
  const bool missed = code == GPUVET_NOT_IN_WHITELIST || code == GPUVET_NOT_IN_WHITELIST_OLD_DRIVER;
  Step step{"white list", missed ? "miss: the device is not admitted" : "listed", {}};
  const ListWithLines list = ReadWithLines(path, kWhiteListRoot);
  if (!list.read) {
    step.evidence.push_back(path + " is read as no list: " + list.why + "; every device is refused");
    return step;
  }
  ClDeviceKey tocheck;
  if (!ChooseDeviceUnderTest(gpuIndex, tocheck)) {
    step.evidence.push_back("no OpenCL GPU device to test");
    return step;
  }
  step.evidence.push_back("device under test: " + KeyText(tocheck));
  bool named = false;
  for (const ItemAt& item : list.items) {
    if (!SameDevice(item.key, tocheck)) {
      continue;
    }
    named = true;
    const std::string at = path + ":" + std::to_string(item.line) + ": ";
    if (Admits(item.key, tocheck)) {
      step.evidence.push_back(at + "admits it");
      break;
    }
    // The versions in the order the test looks at them; the first below decides.
    const std::pair<const char*, const std::string*> versions[] = {
        {"DeviceVersion", &item.key.DeviceVersion},
        {"OpenCLCVersion", &item.key.OpenCLCVersion},
        {"DriverVersion", &item.key.DriverVersion}};
    const std::string* deviceVersions[] = {&tocheck.DeviceVersion, &tocheck.OpenCLCVersion, &tocheck.DriverVersion};
    for (std::size_t i = 0; i < 3; ++i) {
      if (StringLess(*deviceVersions[i], *versions[i].second)) {
        step.evidence.push_back(at + versions[i].first + " " + Quoted(*deviceVersions[i]) + " of the device is below " +
                                Quoted(*versions[i].second) + ", compared byte by byte: " +
                                WhereBelow(*deviceVersions[i], *versions[i].second));
        break;
      }
    }
  }
  if (!named) {
    AddClosestNames(path, list.items, tocheck, step);
  }
  return step;
}

std::string CodeName(int32_t code) {
  switch (code) {
    case GPUVET_OK: return "GPUVET_OK";
    case GPUVET_NOT_IN_WHITELIST: return "GPUVET_NOT_IN_WHITELIST";
    case GPUVET_NOT_IN_WHITELIST_OLD_DRIVER: return "GPUVET_NOT_IN_WHITELIST_OLD_DRIVER";
    case GPUVET_OLD_DRIVER: return "GPUVET_OLD_DRIVER";
    case GPUVET_NO_PLATFORM: return "GPUVET_NO_PLATFORM";
    case GPUVET_IN_BLACKLIST: return "GPUVET_IN_BLACKLIST";
    default: return "a stored code";
  }
}

std::string StoredWhy(StoredVerdict stored, const RunOptions& options) {
  if (options.resultDir.empty()) return "no --result";
  switch (stored) {
    case StoredVerdict::kAnswers: return "the adapter's record holds a verdict";
    case StoredVerdict::kRecheckAsked: return "--recheck asks for a new test";
    case StoredVerdict::kNoAdapterNamed: return "no --gpu: only a named adapter's verdict is stored";
    case StoredVerdict::kDriverUnknown: return "the adapter's driver version is unknown";
    case StoredVerdict::kNoRecord: return "the store holds no record of the adapter";
    case StoredVerdict::kRecordUnchecked: return "the adapter's record holds no verdict";
  }
  return "";
}

std::string DeviceMatchWhy(const AdapterEntry& adapter, const ClDeviceKey& device) {
  if (adapter.devName.find(device.DeviceName) != std::string::npos) return "the adapter's name contains the device's";
  if (device.DeviceName.find(adapter.devName) != std::string::npos) return "the device's name contains the adapter's";
  return "the same vendor";
}

cl_uint CountPlatforms() {
  cl_uint count = 0;
  clGetPlatformIDs(0, nullptr, &count);
  return count;
}

// The run as gpuvet makes it, up to the code, with the steps said in words.
int32_t ExplainRun(const RunOptions& options, std::vector<Step>& steps) {
  AdapterList adapters;
  CollectAdapters(adapters);
  AdapterEntry selected;
  if (SelectAdapter(options.gpuIndex, adapters, selected) != 0) {
    steps.push_back({"adapter", "none selected",
                     {"the machine has " + std::to_string(adapters.size()) + " display adapters" +
                      (options.gpuIndex >= 0 ? "; --gpu " + std::to_string(options.gpuIndex) + " is beyond them" : "")}});
    return GPUVET_NO_PLATFORM;
  }
  const auto position = std::find_if(adapters.begin(), adapters.end(),
                                     [&selected](const AdapterEntry& a) { return AdapterEntryEqual(a, selected); });
  const std::string why = options.gpuIndex >= 0          ? "--gpu " + std::to_string(options.gpuIndex) + " names it"
                          : selected.venID != kIntelVendorId ? "no --gpu: the first adapter that is not Intel's"
                                                           : "no --gpu and every adapter is Intel's: the first";
  steps.push_back({"adapter", std::to_string(position - adapters.begin()) + ": " + AdapterText(selected), {why}});

  ResultSerialize store;
  if (!options.resultDir.empty()) {
    store.Load(options.resultDir, adapters);
  }
  AdapterResult found;
  const StoredVerdict stored = TestStoredVerdict(options, selected, store, found);
  if (stored == StoredVerdict::kAnswers) {
    steps.push_back({"stored verdict", "answers the run with " + std::to_string(found.checkResult),
                     {StoredWhy(stored, options), "no rule is consulted; --recheck 1 tests again"}});
    return found.checkResult;
  }
  steps.push_back({"stored verdict", "does not answer the run", {StoredWhy(stored, options)}});

  const int32_t code = RunVerdict(selected);
  if (code == GPUVET_NO_PLATFORM) {
    const bool noPlatform = CountPlatforms() == 0;
    steps.push_back({"device", noPlatform ? "no OpenCL platform" : "no OpenCL GPU device fits the adapter",
                     {std::to_string(ClDeviceTable.size()) + " GPU devices in the census; a device fits when one name "
                                                             "contains the other or the vendor is the adapter's"}});
    return code;
  }
  if (options.gpuIndex >= 0) {
    steps.push_back({"device", KeyText(SelectedClDevice), {"matched by " + DeviceMatchWhy(selected, SelectedClDevice)}});
  } else {
    steps.push_back({"device", "no adapter named: " + std::to_string(ClDeviceTable.size()) + " GPU devices in the census",
                     {"the black list tests all of them, the white list one"}});
  }

  if (!options.blackListPath.empty()) {
    steps.push_back(BlackListStep(options.blackListPath, options.gpuIndex, code));
  } else {
    steps.push_back({"black list", "no --blacklist: no hit", {}});
  }
  if (code == GPUVET_IN_BLACKLIST) {
    steps.push_back({"driver date", "not consulted", {}});
    steps.push_back({"white list", "not consulted", {}});
    return code;
  }
  steps.push_back(DriverStep(selected));
  if (!options.whiteListPath.empty()) {
    steps.push_back(WhiteListStep(options.whiteListPath, options.gpuIndex, code));
  } else {
    steps.push_back({"white list", "no --whitelist: counts as listed", {}});
  }
  return code;
}

void PrintReport(const std::vector<Step>& steps, int32_t code, bool json) {
  if (json) {
    nlohmann::ordered_json report;
    report["steps"] = nlohmann::ordered_json::array();
    for (const Step& step : steps) {
      report["steps"].push_back({{"step", step.name}, {"outcome", step.outcome}, {"evidence", step.evidence}});
    }
    report["code"] = code;
    report["name"] = CodeName(code);
    std::printf("%s\n", report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
    return;
  }
  for (const Step& step : steps) {
    std::printf("%s: %s\n", step.name.c_str(), step.outcome.c_str());
    for (const std::string& line : step.evidence) {
      std::printf("  %s\n", line.c_str());
    }
  }
  std::printf("code: %d %s\n", static_cast<int>(code), CodeName(code).c_str());
}

}  // namespace

// Under the same guard and time limit as a run of gpuvet, so that the code is
// the one gpuvet gives whatever a vendor library does.
int32_t Explain(const RunOptions& options, bool json) {
  g_runOptions = options;
  SilencePrint(true);
  platform::GuardProcessEnd(GPUVET_NOT_IN_WHITELIST);
  std::vector<Step> steps;
  int32_t code = 0;
  try {
    ExitWatchdog watchdog(GPUVET_NOT_IN_WHITELIST, kWatchdogTickCount);
    watchdog.Start();
    code = ExplainRun(options, steps);
    watchdog.Stop();
  } catch (...) {
    code = CodeOfRunException();
    steps.push_back({"run", "ended by an exception", {}});
  }
  platform::AllowProcessEnd();
  PrintReport(steps, code, json);
  return code;
}

}  // namespace gpuvet::lists
