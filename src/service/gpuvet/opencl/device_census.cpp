#include "opencl/device_census.h"

#include <CL/opencl.hpp>

#include <cstdio>
#include <cstring>
#include <vector>

#include "opencl/cl_device_key.h"
#include "print.h"

namespace gpuvet {
namespace {

constexpr char kBlank = ' ';
constexpr std::size_t kPointerTextBytes = 32;

// The bindings keep every byte of a text value but its closing NUL, NULs inside
// included; a value counts up to its first NUL.
std::string UpToFirstNul(const std::string& value) {
  return std::string(value.c_str(), std::strlen(value.c_str()));
}

std::string PointerText(const void* pointer) {
  char text[kPointerTextBytes];
  std::snprintf(text, sizeof text, "%p", pointer);
  return text;
}

// The platform's texts in the order they are asked for, each with its line.
struct PlatformLine {
  std::optional<std::string> CensusPlatform::*field;
  const char* format;
};
constexpr PlatformLine kPlatformLines[] = {
    {&CensusPlatform::profile, "\tprofile: %s\n"},     {&CensusPlatform::version, "\tversion: %s\n"},
    {&CensusPlatform::name, "\tname: %s\n"},           {&CensusPlatform::vendor, "\tvender: %s\n"},
    {&CensusPlatform::icdSuffix, "\ticdkhr: %s\n"},    {&CensusPlatform::extensions, "\textension: %s\n"},
};
constexpr std::size_t kPlatformLineCount = sizeof kPlatformLines / sizeof kPlatformLines[0];

std::string AskPlatform(const cl::Platform& platform, std::size_t line) {
  switch (line) {
    case 0: return UpToFirstNul(platform.getInfo<CL_PLATFORM_PROFILE>());
    case 1: return UpToFirstNul(platform.getInfo<CL_PLATFORM_VERSION>());
    case 2: return UpToFirstNul(platform.getInfo<CL_PLATFORM_NAME>());
    case 3: return UpToFirstNul(platform.getInfo<CL_PLATFORM_VENDOR>());
    case 4: return UpToFirstNul(platform.getInfo<CL_PLATFORM_ICD_SUFFIX_KHR>());
    default: return UpToFirstNul(platform.getInfo<CL_PLATFORM_EXTENSIONS>());
  }
}

// Prints the platform's line when its value is in; false when it is not.
bool PrintPlatformLine(const CensusPlatform& turn, std::size_t line) {
  const std::optional<std::string>& value = turn.*kPlatformLines[line].field;
  if (!value) {
    return false;
  }
  Print(kPlatformLines[line].format, value->c_str());
  return true;
}

void PrintPlatformHeader(int platformIndex, const CensusPlatform& turn) {
  Print("\n===%d=============\n", platformIndex);
  Print("\nplatform[%d, %s], GPU Device(s) cnt = %llu\n", platformIndex, turn.handle.c_str(),
        static_cast<unsigned long long>(turn.gpuCount.value_or(0)));
}

constexpr std::size_t kDeviceLineCount = 7;

bool PrintText(const std::optional<std::string>& value, const char* format) {
  if (value) {
    Print(format, value->c_str());
  }
  return value.has_value();
}

// Prints the device's line when its value is in; false when it is not.
bool PrintDeviceLine(const CensusDevice& device, std::size_t line) {
  switch (line) {
    case 0:
      if (device.type) {
        Print("\t\tdevice_type: %llu\n", static_cast<unsigned long long>(*device.type));
      }
      return device.type.has_value();
    case 1: return PrintText(device.name, "\t\tdevice_name: %s\n");
    case 2: return PrintText(device.version, "\t\tdevice_version: %s\n");
    case 3: return PrintText(device.driverVersion, "\t\tdriver_version: %s\n");
    case 4:
      if (device.vendorId) {
        Print("\t\tvender_id: %04x\n", static_cast<unsigned>(*device.vendorId));
      }
      return device.vendorId.has_value();
    case 5: return PrintText(device.openClCVersion, "\t\topencl_c_version: %s\n");
    default: return PrintText(device.extensions, "\t\tdevice_extensions: %s\n");
  }
}

void AskDevice(const cl::Device& device, CensusDevice& met, std::size_t line) {
  switch (line) {
    case 0: met.type = device.getInfo<CL_DEVICE_TYPE>(); break;
    case 1: met.name = UpToFirstNul(device.getInfo<CL_DEVICE_NAME>()); break;
    case 2: met.version = UpToFirstNul(device.getInfo<CL_DEVICE_VERSION>()); break;
    case 3: met.driverVersion = UpToFirstNul(device.getInfo<CL_DRIVER_VERSION>()); break;
    case 4: met.vendorId = device.getInfo<CL_DEVICE_VENDOR_ID>(); break;
    case 5: met.openClCVersion = UpToFirstNul(device.getInfo<CL_DEVICE_OPENCL_C_VERSION>()); break;
    default: met.extensions = UpToFirstNul(device.getInfo<CL_DEVICE_EXTENSIONS>()); break;
  }
}

// One platform's turn, recorded into `turn` as it goes. A platform without a
// GPU is a failure like any other: these bindings hand back an empty list where
// OpenCL answers CL_DEVICE_NOT_FOUND, so the empty list is turned back into
// that error.
void TakePlatformTurn(int platformIndex, const cl::Platform& platform, CensusPlatform& turn) {
  std::vector<cl::Device> devices;
  platform.getDevices(CL_DEVICE_TYPE_GPU, &devices);
  if (devices.empty()) {
    throw cl::Error(CL_DEVICE_NOT_FOUND, "clGetDeviceIDs");
  }
  turn.gpuCount = devices.size();
  turn.handle = PointerText(platform());
  PrintPlatformHeader(platformIndex, turn);
  for (std::size_t line = 0; line < kPlatformLineCount; ++line) {
    turn.*kPlatformLines[line].field = AskPlatform(platform, line);
    PrintPlatformLine(turn, line);
  }

  int deviceIndex = 0;
  for (const cl::Device& device : devices) {
    Print("\t\t===%d\n", deviceIndex);
    CensusDevice& met = turn.devices.emplace_back();
    for (std::size_t line = 0; line < kDeviceLineCount; ++line) {
      AskDevice(device, met, line);
      PrintDeviceLine(met, line);
    }
    met.key = FetchDeviceKey(device);
    ++deviceIndex;
  }
}

}  // namespace

uint32_t CountClPlatforms() {
  cl_uint count = 0;
  clGetPlatformIDs(0, nullptr, &count);
  return count;
}

DeviceCensus TakeClCensus() {
  DeviceCensus census;
  Print("\n--details\n");
  std::vector<cl::Platform> platforms;
  try {
    cl::Platform::get(&platforms);
  } catch (const cl::Error&) {
    census.platformListFailed = true;
    return census;
  }

  int platformIndex = 0;
  for (const cl::Platform& platform : platforms) {
    CensusPlatform& turn = census.platforms.emplace_back();
    // Whatever goes wrong in one platform's turn ends that turn only; the
    // error's code and text are not shown.
    try {
      TakePlatformTurn(platformIndex, platform, turn);
    } catch (...) {
      turn.failed = true;
      Print("exception: %d\n", platformIndex);
    }
    ++platformIndex;
  }
  Print("\n\n");
  return census;
}

void PrintCensus(const DeviceCensus& census) {
  Print("\n--details\n");
  if (census.platformListFailed) {
    return;
  }
  int platformIndex = 0;
  for (const CensusPlatform& turn : census.platforms) {
    if (turn.gpuCount) {
      PrintPlatformHeader(platformIndex, turn);
      for (std::size_t line = 0; line < kPlatformLineCount && PrintPlatformLine(turn, line); ++line) {
      }
      int deviceIndex = 0;
      for (const CensusDevice& device : turn.devices) {
        Print("\t\t===%d\n", deviceIndex++);
        for (std::size_t line = 0; line < kDeviceLineCount && PrintDeviceLine(device, line); ++line) {
        }
      }
    }
    if (turn.failed) {
      Print("exception: %d\n", platformIndex);
    }
    ++platformIndex;
  }
  Print("\n\n");
}

// The error of a failed platform list leaves the census before anything is
// added to the table, as it left the fetch.
void AddCensusToTable(const DeviceCensus& census) {
  if (census.platformListFailed) {
    throw cl::Error(CL_PLATFORM_NOT_FOUND_KHR, "clGetPlatformIDs");
  }
  for (const CensusPlatform& turn : census.platforms) {
    for (const CensusDevice& device : turn.devices) {
      if (device.key) {
        ClDeviceTable.push_back(*device.key);
      }
    }
  }
  SortUnique(ClDeviceTable);
}

void ListClDevices() { AddCensusToTable(TakeClCensus()); }

// Asked for anew, not taken over from the printed values.
ClDeviceKey FetchDeviceKey(const cl::Device& device) {
  ClDeviceKey key;
  key.VID = device.getInfo<CL_DEVICE_VENDOR_ID>();
  key.DeviceName = UpToFirstNul(device.getInfo<CL_DEVICE_NAME>());
  key.OpenCLCVersion = UpToFirstNul(device.getInfo<CL_DEVICE_OPENCL_C_VERSION>());
  key.DeviceVersion = UpToFirstNul(device.getInfo<CL_DEVICE_VERSION>());
  key.DriverVersion = UpToFirstNul(device.getInfo<CL_DRIVER_VERSION>());
  key.DeviceName = TrimBlanks(key.DeviceName);
  key.OpenCLCVersion = TrimBlanks(key.OpenCLCVersion);
  key.DeviceVersion = TrimBlanks(key.DeviceVersion);
  key.DriverVersion = TrimBlanks(key.DriverVersion);
  return key;
}

std::string TrimBlanks(std::string text) {
  const std::size_t first = text.find_first_not_of(kBlank);
  if (first == std::string::npos) {
    text.clear();
    return text;
  }
  text.erase(0, first);
  text.erase(text.find_last_not_of(kBlank) + 1);
  return text;
}

}  // namespace gpuvet
