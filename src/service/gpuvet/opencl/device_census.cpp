#include "opencl/device_census.h"

#include <CL/opencl.hpp>

#include <cstring>
#include <vector>

#include "opencl/cl_device_key.h"
#include "print.h"

namespace gpuvet {
namespace {

constexpr char kBlank = ' ';

// The bindings keep every byte of a text value but its closing NUL, NULs inside
// included; a value counts up to its first NUL.
std::string UpToFirstNul(const std::string& value) {
  return std::string(value.c_str(), std::strlen(value.c_str()));
}

template <cl_platform_info Query>
void PrintPlatformText(const cl::Platform& platform, const char* format) {
  Print(format, UpToFirstNul(platform.getInfo<Query>()).c_str());
}

template <cl_device_info Query>
void PrintDeviceText(const cl::Device& device, const char* format) {
  Print(format, UpToFirstNul(device.getInfo<Query>()).c_str());
}

void PrintPlatformLines(const cl::Platform& platform) {
  PrintPlatformText<CL_PLATFORM_PROFILE>(platform, "\tprofile: %s\n");
  PrintPlatformText<CL_PLATFORM_VERSION>(platform, "\tversion: %s\n");
  PrintPlatformText<CL_PLATFORM_NAME>(platform, "\tname: %s\n");
  PrintPlatformText<CL_PLATFORM_VENDOR>(platform, "\tvender: %s\n");
  PrintPlatformText<CL_PLATFORM_ICD_SUFFIX_KHR>(platform, "\ticdkhr: %s\n");
  PrintPlatformText<CL_PLATFORM_EXTENSIONS>(platform, "\textension: %s\n");
}

void PrintDeviceLines(const cl::Device& device) {
  Print("\t\tdevice_type: %llu\n", static_cast<unsigned long long>(device.getInfo<CL_DEVICE_TYPE>()));
  PrintDeviceText<CL_DEVICE_NAME>(device, "\t\tdevice_name: %s\n");
  PrintDeviceText<CL_DEVICE_VERSION>(device, "\t\tdevice_version: %s\n");
  PrintDeviceText<CL_DRIVER_VERSION>(device, "\t\tdriver_version: %s\n");
  Print("\t\tvender_id: %04x\n", static_cast<unsigned>(device.getInfo<CL_DEVICE_VENDOR_ID>()));
  PrintDeviceText<CL_DEVICE_OPENCL_C_VERSION>(device, "\t\topencl_c_version: %s\n");
  PrintDeviceText<CL_DEVICE_EXTENSIONS>(device, "\t\tdevice_extensions: %s\n");
}

// One platform's turn. A platform without a GPU is a failure like any other:
// these bindings hand back an empty list where OpenCL answers
// CL_DEVICE_NOT_FOUND, so the empty list is turned back into that error.
void CensusOfPlatform(int platformIndex, const cl::Platform& platform) {
  std::vector<cl::Device> devices;
  platform.getDevices(CL_DEVICE_TYPE_GPU, &devices);
  if (devices.empty()) {
    throw cl::Error(CL_DEVICE_NOT_FOUND, "clGetDeviceIDs");
  }

  Print("\n===%d=============\n", platformIndex);
  Print("\nplatform[%d, %p], GPU Device(s) cnt = %llu\n", platformIndex, static_cast<void*>(platform()),
        static_cast<unsigned long long>(devices.size()));
  PrintPlatformLines(platform);

  int deviceIndex = 0;
  for (const cl::Device& device : devices) {
    Print("\t\t===%d\n", deviceIndex);
    PrintDeviceLines(device);
    ClDeviceTable.push_back(FetchDeviceKey(device));
    ++deviceIndex;
  }
}

}  // namespace

// A failing platform list is not caught here: the error leaves the census
// before anything is added to the table.
void ListClDevices() {
  Print("\n--details\n");
  std::vector<cl::Platform> platforms;
  cl::Platform::get(&platforms);

  int platformIndex = 0;
  for (const cl::Platform& platform : platforms) {
    // Whatever goes wrong in one platform's turn ends that turn only; the
    // error's code and text are not shown.
    try {
      CensusOfPlatform(platformIndex, platform);
    } catch (...) {
      Print("exception: %d\n", platformIndex);
    }
    ++platformIndex;
  }
  Print("\n\n");

  SortUnique(ClDeviceTable);
}

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
