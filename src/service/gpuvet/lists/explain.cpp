#include "lists/explain.h"

#include <CL/opencl.hpp>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "adapters/collect_adapters.h"
#include "adapters/select_adapter.h"
#include "entry.h"
#include "exit_codes.h"
#include "exit_watchdog.h"
#include "lists/describe.h"
#include "lists/text_compare.h"
#include "opencl/cl_device_key.h"
#include "opencl/device_census.h"
#include "platform/process.h"
#include "print.h"
#include "result_serialize.h"
#include "verdict/black_list.h"
#include "verdict/list_file.h"
#include "verdict/run_verdict.h"
#include "verdict/white_list.h"

namespace gpuvet::lists {
namespace {

// Items of one device named in the evidence before the rest is only counted.
constexpr std::size_t kMostItemsShown = 5;
// The closest names are measured on this many bytes of each: enough to tell
// names apart, and a hostile list of long names costs no more than short ones.
constexpr std::size_t kComparedNameBytes = 64;
constexpr std::size_t kClosestNames = 3;

// One step of the run, said in words: what it came to and why.
struct Step {
  std::string name;
  std::string outcome;
  std::vector<std::string> evidence;
};

// Where the run ended, and what it had learnt by then.
enum class RunEnd { kCommandLine, kNoTest, kNoAdapter, kStored, kVerdict, kException };

struct RunFacts {
  RunEnd end = RunEnd::kCommandLine;
  AdapterList adapters;
  std::size_t position = 0;
  AdapterEntry selected;
  StoredVerdict stored = StoredVerdict::kNoAdapterNamed;
  AdapterResult found;
  bool noPlatform = false;
  ListFile black;
  ListFile white;
  bool blackRead = false;
  bool whiteRead = false;
};

cl_uint CountPlatforms() {
  cl_uint count = 0;
  clGetPlatformIDs(0, nullptr, &count);
  return count;
}

// The part of a run that the watchdog guards, as gpuvet's entry makes it, but
// that nothing is stored.
int32_t CheckAdapters(const RunOptions& options, RunFacts& facts) {
  CollectAdapters(facts.adapters);
  facts.end = RunEnd::kNoAdapter;
  if (SelectAdapter(options.gpuIndex, facts.adapters, facts.selected) != 0) {
    return GPUVET_NO_PLATFORM;
  }
  facts.position = SelectedPosition(options.gpuIndex, facts.adapters);
  ResultSerialize store;
  if (!options.resultDir.empty()) {
    store.Load(options.resultDir, facts.adapters);
  }
  facts.stored = TestStoredVerdict(options, facts.selected, store, facts.found);
  if (facts.stored == StoredVerdict::kAnswers) {
    facts.end = RunEnd::kStored;
    return facts.found.checkResult;
  }
  facts.end = RunEnd::kVerdict;
  const int32_t code = RunVerdict(facts.selected);
  facts.noPlatform = code == GPUVET_NO_PLATFORM && CountPlatforms() == 0;
  return code;
}

// The whole run as gpuvet makes it for this command line, up to its code; the
// lists it reads are kept as read.
int32_t RunAsGpuvet(const CommandLine& line, RunFacts& facts) {
  for (const CommandLineAction action : line.actions) {
    switch (action) {
      case CommandLineAction::kDetails:
        ListClDevices();
        break;
      case CommandLineAction::kHelp:
        break;
      case CommandLineAction::kBlankRun:
        return kNoVerdict;
      case CommandLineAction::kInvalidParameter:
        return GPUVET_INVALID_PARAMETER;
    }
  }
  if (line.options.noTest) {
    facts.end = RunEnd::kNoTest;
    return GPUVET_NO_TEST;
  }
  ObserveListFiles([&facts](const char* rootName, const ListFile& list) {
    const bool black = std::string(rootName) == kBlackListRoot;
    (black ? facts.black : facts.white) = list;
    (black ? facts.blackRead : facts.whiteRead) = true;
  });
  ExitWatchdog watchdog(GPUVET_NOT_IN_WHITELIST, kWatchdogTickCount);
  watchdog.Start();
  const int32_t code = CheckAdapters(line.options, facts);
  watchdog.Stop();
  ObserveListFiles(nullptr);
  return code;
}

std::string PathText(const std::string& path) { return path.empty() ? "none" : Quoted(path); }

Step CommandLineStep(const CommandLine& line) {
  const RunOptions& options = line.options;
  Step step{"command line", options.gpuIndex >= 0 ? "adapter " + std::to_string(options.gpuIndex) : "no adapter named",
            {}};
  step.evidence.push_back("black list " + PathText(options.blackListPath) + ", white list " +
                          PathText(options.whiteListPath) + ", result folder " + PathText(options.resultDir) +
                          ", recheck " + (options.recheck ? "1" : "0") + (options.noTest ? ", notest" : ""));
  for (const CommandLineAction action : line.actions) {
    switch (action) {
      case CommandLineAction::kDetails:
        step.evidence.push_back("--details: gpuvet prints the OpenCL census here");
        break;
      case CommandLineAction::kHelp:
        step.evidence.push_back("--help: gpuvet prints its usage here and goes on");
        break;
      case CommandLineAction::kBlankRun:
        step.outcome = "--blankrun: gpuvet counts seconds until its host ends it, and gives no verdict";
        step.evidence.push_back("nothing behind --blankrun is read");
        break;
      case CommandLineAction::kInvalidParameter:
        step.outcome = "gpuvet ends here with \"_invalid_parameter\"";
        step.evidence.push_back("a value option stands last, or a path value is longer than 2047 bytes");
        break;
    }
  }
  return step;
}

bool SameDevice(const ClDeviceKey& a, const ClDeviceKey& b) {
  return a.VID == b.VID && a.DeviceName == b.DeviceName;
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

std::string At(const std::string& path, const ListFile& list, std::size_t index) {
  return path + ":" + std::to_string(list.lines[index]) + ": ";
}

// The items whose names come closest to the device's: those that differ in
// case, blanks or VID alone, else the nearest by edit distance. Each item is
// measured once, on the first bytes of its name, so the search is linear.
void AddClosestNames(const std::string& path, const ListFile& list, const ClDeviceKey& device, Step& step) {
  std::vector<std::string> near;
  for (std::size_t i = 0; i < list.items.size() && near.size() < kClosestNames; ++i) {
    const std::string difference = NameDifference(list.items[i], device);
    if (!difference.empty()) {
      near.push_back(At(path, list, i) + Quoted(list.items[i].DeviceName) + " differs in " + difference);
    }
  }
  if (near.empty()) {
    const std::string name = device.DeviceName.substr(0, kComparedNameBytes);
    std::vector<std::pair<std::size_t, std::size_t>> byDistance;  // distance, index
    byDistance.reserve(list.items.size());
    for (std::size_t i = 0; i < list.items.size(); ++i) {
      byDistance.emplace_back(EditDistance(list.items[i].DeviceName.substr(0, kComparedNameBytes), name), i);
    }
    const auto shown = byDistance.begin() + static_cast<std::ptrdiff_t>(std::min(byDistance.size(), kClosestNames));
    std::partial_sort(byDistance.begin(), shown, byDistance.end());
    for (auto at = byDistance.begin(); at != shown; ++at) {
      const ClDeviceKey& item = list.items[at->second];
      near.push_back(At(path, list, at->second) + Quoted(item.DeviceName) + " VID " + std::to_string(item.VID) +
                     " is another name");
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
  return "byte " + std::to_string(at + 1) + ": " + Quoted(std::string(1, device[at])) + " is below " +
         Quoted(std::string(1, item[at]));
}

// Says why a list was read as no list, or false when it was read.
bool NotAList(const std::string& path, const ListFile& list, bool read, const std::string& consequence, Step& step) {
  if (!read) {
    step.evidence.push_back(Quoted(path) + " was not read");
    return true;
  }
  switch (list.outcome) {
    case ListFileOutcome::kRead: return false;
    case ListFileOutcome::kLoadFailed:
      step.evidence.push_back(Quoted(path) + " is read as no list: it does not load as XML (" + list.loadError +
                              "); " + consequence);
      return true;
    case ListFileOutcome::kNotAList:
      step.evidence.push_back(Quoted(path) + " is read as no list: its root is " +
                              (list.rootFound.empty() ? "missing" : "element " + Quoted(list.rootFound)) + "; " +
                              consequence);
      return true;
  }
  return true;
}

void AddMoreItems(std::size_t shown, std::size_t all, Step& step) {
  if (all > shown) {
    step.evidence.push_back("and " + std::to_string(all - shown) + " more items of this device");
  }
}

Step BlackListStep(const std::string& path, const RunFacts& facts, int32_t gpuIndex, int32_t code) {
  Step step{"black list", code == GPUVET_IN_BLACKLIST ? "hit: the device is refused" : "no hit", {}};
  const ListFile& list = facts.black;
  if (NotAList(path, list, facts.blackRead, "every device passes", step)) {
    return step;
  }
  for (const ClDeviceKey& device : BlackListDevicesUnderTest(gpuIndex)) {
    std::size_t named = 0;
    for (std::size_t i = 0; i < list.items.size(); ++i) {
      const ClDeviceKey& item = list.items[i];
      if (!SameDevice(item, device)) {
        continue;
      }
      if (++named > kMostItemsShown) {
        continue;
      }
      if (ClDeviceKeyEqual(item, device)) {
        step.evidence.push_back(At(path, list, i) + "lists " + KeyText(device));
        continue;
      }
      for (const KeyField& field : kKeyFields) {
        if (FieldValue(item, field) != FieldValue(device, field)) {
          step.evidence.push_back(At(path, list, i) + "the nearest item differs first in " + field.name + ": item " +
                                  Quoted(FieldValue(item, field)) + ", device " + Quoted(FieldValue(device, field)));
          break;
        }
      }
    }
    AddMoreItems(kMostItemsShown, named, step);
    if (named == 0) {
      AddClosestNames(path, list, device, step);
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

// The first version of the device below the item's, in the order the test looks.
void AddVersionBelow(const std::string& at, const ClDeviceKey& item, const ClDeviceKey& device, Step& step) {
  for (std::string ClDeviceKey::*version :
       {&ClDeviceKey::DeviceVersion, &ClDeviceKey::OpenCLCVersion, &ClDeviceKey::DriverVersion}) {
    if (StringLess(device.*version, item.*version)) {
      const auto field = std::find_if(kKeyFields.begin(), kKeyFields.end(),
                                      [version](const KeyField& f) { return f.text == version; });
      step.evidence.push_back(at + field->name + " " + Quoted(device.*version) + " of the device is below " +
                              Quoted(item.*version) + ", compared byte by byte: " +
                              WhereBelow(device.*version, item.*version));
      return;
    }
  }
}

Step WhiteListStep(const std::string& path, const RunFacts& facts, int32_t gpuIndex, int32_t code) {
  const bool missed = code == GPUVET_NOT_IN_WHITELIST || code == GPUVET_NOT_IN_WHITELIST_OLD_DRIVER;
  Step step{"white list", missed ? "miss: the device is not admitted" : "listed", {}};
  const ListFile& list = facts.white;
  if (NotAList(path, list, facts.whiteRead, "every device is refused", step)) {
    return step;
  }
  ClDeviceKey tocheck;
  if (!ChooseDeviceUnderTest(gpuIndex, tocheck)) {
    step.evidence.push_back("no OpenCL GPU device to test");
    return step;
  }
  step.evidence.push_back("device under test: " + KeyText(tocheck));
  std::size_t named = 0;
  for (std::size_t i = 0; i < list.items.size(); ++i) {
    if (!SameDevice(list.items[i], tocheck)) {
      continue;
    }
    ++named;
    if (Admits(list.items[i], tocheck)) {
      step.evidence.push_back(At(path, list, i) + "admits it");
      break;
    }
    if (named <= kMostItemsShown) {
      AddVersionBelow(At(path, list, i), list.items[i], tocheck, step);
    }
  }
  AddMoreItems(kMostItemsShown, named, step);
  if (named == 0) {
    AddClosestNames(path, list, tocheck, step);
  }
  return step;
}

std::string CodeName(int32_t code) {
  switch (code) {
    case GPUVET_OK: return "GPUVET_OK";
    case GPUVET_NOT_IN_WHITELIST: return "GPUVET_NOT_IN_WHITELIST";
    case GPUVET_NOT_IN_WHITELIST_OLD_DRIVER: return "GPUVET_NOT_IN_WHITELIST_OLD_DRIVER";
    case GPUVET_OLD_DRIVER: return "GPUVET_OLD_DRIVER";
    case GPUVET_NO_TEST: return "GPUVET_NO_TEST";
    case GPUVET_NO_PLATFORM: return "GPUVET_NO_PLATFORM";
    case GPUVET_IN_BLACKLIST: return "GPUVET_IN_BLACKLIST";
    case GPUVET_INVALID_PARAMETER: return "GPUVET_INVALID_PARAMETER";
    case kNoVerdict: return "no verdict";
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

// The steps of the test itself, from the device on.
void AddVerdictSteps(const RunOptions& options, const RunFacts& facts, int32_t code, std::vector<Step>& steps) {
  if (code == GPUVET_NO_PLATFORM) {
    steps.push_back({"device", facts.noPlatform ? "no OpenCL platform" : "no OpenCL GPU device fits the adapter",
                     {std::to_string(ClDeviceTable.size()) + " GPU devices in the census; a device fits when one name "
                                                             "contains the other or the vendor is the adapter's"}});
    return;
  }
  if (options.gpuIndex >= 0) {
    steps.push_back(
        {"device", KeyText(SelectedClDevice), {"matched by " + DeviceMatchWhy(facts.selected, SelectedClDevice)}});
  } else {
    steps.push_back({"device", "no adapter named: " + std::to_string(ClDeviceTable.size()) + " GPU devices in the census",
                     {"the black list tests all of them, the white list one"}});
  }
  if (!options.blackListPath.empty()) {
    steps.push_back(BlackListStep(options.blackListPath, facts, options.gpuIndex, code));
  } else {
    steps.push_back({"black list", "no --blacklist: no hit", {}});
  }
  if (code == GPUVET_IN_BLACKLIST) {
    steps.push_back({"driver date", "not consulted", {}});
    steps.push_back({"white list", "not consulted", {}});
    return;
  }
  steps.push_back(DriverStep(facts.selected));
  if (!options.whiteListPath.empty()) {
    steps.push_back(WhiteListStep(options.whiteListPath, facts, options.gpuIndex, code));
  } else {
    steps.push_back({"white list", "no --whitelist: counts as listed", {}});
  }
}

// What the run came to, in words; made after the run, so it never bears on the code.
std::vector<Step> Steps(const CommandLine& line, const RunFacts& facts, int32_t code) {
  const RunOptions& options = line.options;
  std::vector<Step> steps = {CommandLineStep(line)};
  switch (facts.end) {
    case RunEnd::kCommandLine: return steps;
    case RunEnd::kException:
      steps.push_back({"run", "ended by an exception", {}});
      return steps;
    case RunEnd::kNoTest:
      steps.push_back({"test", "--notest: nothing is tested", {}});
      return steps;
    case RunEnd::kNoAdapter:
      steps.push_back({"adapter", "none selected",
                       {"the machine has " + std::to_string(facts.adapters.size()) + " display adapters" +
                        (options.gpuIndex >= 0 ? "; --gpu " + std::to_string(options.gpuIndex) + " is beyond them"
                                               : "")}});
      return steps;
    case RunEnd::kStored:
    case RunEnd::kVerdict: break;
  }
  const std::string why = options.gpuIndex >= 0 ? "--gpu " + std::to_string(options.gpuIndex) + " names it"
                          : facts.selected.venID != kIntelVendorId ? "no --gpu: the first adapter that is not Intel's"
                                                                   : "no --gpu and every adapter is Intel's: the first";
  steps.push_back({"adapter", AdapterText(facts.position, facts.selected), {why}});
  if (facts.end == RunEnd::kStored) {
    steps.push_back({"stored verdict", "answers the run with " + std::to_string(facts.found.checkResult),
                     {StoredWhy(facts.stored, options), "no rule is consulted; --recheck 1 tests again"}});
    return steps;
  }
  steps.push_back({"stored verdict", "does not answer the run", {StoredWhy(facts.stored, options)}});
  AddVerdictSteps(options, facts, code, steps);
  return steps;
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
    std::printf("%s\n", report.dump(2, ' ', true, nlohmann::ordered_json::error_handler_t::replace).c_str());
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
int32_t Explain(const CommandLine& line, bool json) {
  g_runOptions = line.options;
  SilencePrint(true);
  platform::GuardProcessEnd(GPUVET_NOT_IN_WHITELIST);
  RunFacts facts;
  int32_t code = 0;
  try {
    code = RunAsGpuvet(line, facts);
  } catch (...) {
    code = CodeOfRunException();
    facts.end = RunEnd::kException;
  }
  ObserveListFiles(nullptr);
  platform::AllowProcessEnd();
  PrintReport(Steps(line, facts, code), code, json);
  return code;
}

}  // namespace gpuvet::lists
