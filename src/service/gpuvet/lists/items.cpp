#include "lists/items.h"

#include <tinyxml2.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "adapters/collect_adapters.h"
#include "adapters/select_adapter.h"
#include "opencl/cl_device_key.h"
#include "opencl/device_census.h"
#include "opencl/match_cl_device.h"
#include "print.h"
#include "verdict/list_file.h"

namespace gpuvet::lists {
namespace {

using Origins = std::map<ClDeviceKey, std::string, bool (*)(const ClDeviceKey&, const ClDeviceKey&)>;

// Where each key of the census came from: "platform NAME, device J", for the
// comments. Of two devices with one key, the first names it.
Origins DeviceOrigins(const DeviceCensus& census) {
  Origins origins(ClDeviceKeyLess);
  for (const CensusPlatform& platform : census.platforms) {
    for (std::size_t j = 0; j < platform.devices.size(); ++j) {
      if (platform.devices[j].key) {
        origins.emplace(*platform.devices[j].key,
                        "platform \"" + platform.name.value_or("") + "\", device " + std::to_string(j));
      }
    }
  }
  return origins;
}

// A comment may not hold "--" nor end in "-".
std::string CommentText(std::string text) {
  for (std::size_t at = text.find("--"); at != std::string::npos; at = text.find("--", at)) {
    text.replace(at, 2, "- -");
  }
  return " " + text + " ";
}

std::string AdapterText(std::size_t index, const AdapterEntry& adapter) {
  char ids[32];
  std::snprintf(ids, sizeof ids, "[%04x:%04x]", adapter.venID, adapter.devID);
  return "adapter " + std::to_string(index) + " " + adapter.devName + " " + ids;
}

void PrintItem(tinyxml2::XMLPrinter& printer, const ClDeviceKey& key, const std::string& comment) {
  printer.OpenElement(kItemElement);
  printer.PushComment(CommentText(comment).c_str());
  const std::pair<const char*, std::string> fields[] = {{"VID", std::to_string(key.VID)},
                                                        {"DeviceName", key.DeviceName},
                                                        {"OpenCLCVersion", key.OpenCLCVersion},
                                                        {"DeviceVersion", key.DeviceVersion},
                                                        {"DriverVersion", key.DriverVersion}};
  for (const auto& [name, text] : fields) {
    printer.OpenElement(name);
    printer.PushText(text.c_str());
    printer.CloseElement();
  }
  printer.CloseElement();
}

}  // namespace

int PrintItems(int32_t gpuIndex, ListKind wrapIn) {
  SilencePrint(true);
  const MachineSource machine = ThisMachine();
  AdapterList adapters;
  CollectAdapters(adapters, machine);
  AdapterEntry selected;
  if (gpuIndex >= 0 && SelectAdapter(gpuIndex, adapters, selected) != 0) {
    std::fprintf(stderr, "gpuvet-lists: no adapter %d: the machine has %zu\n", static_cast<int>(gpuIndex),
                 adapters.size());
    return 1;
  }
  const DeviceCensus census = machine.takeCensus();
  if (!census.platformListFailed) {  // else no platform at all: no device
    AddCensusToTable(census);
  }

  std::vector<ClDeviceKey> devices = ClDeviceTable;
  if (gpuIndex >= 0) {
    ClDeviceKey matched;
    devices.clear();
    if (MatchClDevice(gpuIndex, selected, matched) == 0) {
      devices.push_back(matched);
    }
  }
  if (devices.empty()) {
    std::fprintf(stderr, "gpuvet-lists: no OpenCL GPU device%s\n", gpuIndex >= 0 ? " matches the adapter" : "");
    return 1;
  }

  const Origins origins = DeviceOrigins(census);
  tinyxml2::XMLPrinter printer;
  const char* root = wrapIn == ListKind::kBlack ? kBlackListRoot : kWhiteListRoot;
  if (wrapIn != ListKind::kEither) {
    printer.PushDeclaration("xml version=\"1.0\" encoding=\"UTF-8\"");
    printer.OpenElement(root);
  }
  for (const ClDeviceKey& device : devices) {
    const auto origin = origins.find(device);
    std::string comment = origin != origins.end() ? origin->second : "census device";
    std::string matchedBy;
    for (std::size_t i = 0; i < adapters.size(); ++i) {
      ClDeviceKey match;
      if (MatchClDevice(0, adapters[i], match) == 0 && ClDeviceKeyEqual(match, device)) {
        matchedBy += (matchedBy.empty() ? "; matched by " : ", ") + AdapterText(i, adapters[i]);
      }
    }
    PrintItem(printer, device, comment + (matchedBy.empty() ? "; no adapter matches it" : matchedBy));
  }
  if (wrapIn != ListKind::kEither) {
    printer.CloseElement();
  }
  std::fputs(printer.CStr(), stdout);
  return 0;
}

}  // namespace gpuvet::lists
