#include "lists/items.h"

#include <CL/opencl.hpp>
#include <tinyxml2.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "adapters/collect_adapters.h"
#include "adapters/select_adapter.h"
#include "lists/describe.h"
#include "opencl/cl_device_key.h"
#include "opencl/device_census.h"
#include "opencl/match_cl_device.h"
#include "print.h"
#include "verdict/list_file.h"

namespace gpuvet::lists {
namespace {

using Origins = std::map<ClDeviceKey, std::string, bool (*)(const ClDeviceKey&, const ClDeviceKey&)>;

// Where each key of the census came from: "platform NAME, device J", for the comments.
Origins DeviceOrigins() {
  Origins origins(ClDeviceKeyLess);
  std::vector<cl::Platform> platforms;
  try {
    cl::Platform::get(&platforms);
  } catch (const cl::Error&) {
    return origins;
  }
  for (const cl::Platform& platform : platforms) {
    try {
      std::vector<cl::Device> devices;
      platform.getDevices(CL_DEVICE_TYPE_GPU, &devices);
      std::string name = platform.getInfo<CL_PLATFORM_NAME>();
      name.resize(std::min(name.size(), name.find('\0')));
      for (std::size_t j = 0; j < devices.size(); ++j) {
        origins.emplace(FetchDeviceKey(devices[j]), "platform \"" + name + "\", device " + std::to_string(j));
      }
    } catch (const cl::Error&) {
      // A platform without a GPU, or one that fails, gave the census no row either.
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

void PrintItem(tinyxml2::XMLPrinter& printer, const ClDeviceKey& key, const std::string& comment) {
  printer.OpenElement(kItemElement);
  printer.PushComment(CommentText(comment).c_str());
  for (const KeyField& field : kKeyFields) {
    printer.OpenElement(field.name);
    printer.PushText(FieldValue(key, field).c_str());
    printer.CloseElement();
  }
  printer.CloseElement();
}

}  // namespace

int PrintItems(int32_t gpuIndex, ListKind wrapIn) {
  SilencePrint(true);
  AdapterList adapters;
  CollectAdapters(adapters);
  AdapterEntry selected;
  if (gpuIndex >= 0 && SelectAdapter(gpuIndex, adapters, selected) != 0) {
    std::fprintf(stderr, "gpuvet-lists: no adapter %d: the machine has %zu\n", static_cast<int>(gpuIndex),
                 adapters.size());
    return 1;
  }
  try {
    ListClDevices();
  } catch (const cl::Error&) {
    // No platform at all: no device.
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

  const Origins origins = DeviceOrigins();
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
