#include "test_icd_config.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

namespace gpuvet::e2e {
namespace {

constexpr const char* kConfigFile = "opencl/test_icd.conf";
constexpr const char* kCallLogFile = "opencl/test_icd_calls.log";

// "info PARAM HEX": the value's bytes as the query copies them out.
void WriteInfo(std::ostream& out, uint32_t param, const void* bytes, std::size_t size) {
  out << "info " << std::hex << param << " ";
  char digits[3];
  for (std::size_t i = 0; i < size; ++i) {
    std::snprintf(digits, sizeof digits, "%02x", static_cast<const unsigned char*>(bytes)[i]);
    out << digits;
  }
  out << std::dec << "\n";
}

void WriteText(std::ostream& out, uint32_t param, const std::string& text) {
  WriteInfo(out, param, text.c_str(), text.size() + 1);  // with its closing NUL
}

void WriteFaults(std::ostream& out, const std::vector<IcdFault>& faults, bool deviceIds) {
  for (const IcdFault& fault : faults) {
    out << "fault " << std::hex << (deviceIds ? 0 : fault.param) << std::dec << " " << fault.code << " "
        << fault.skip << " " << fault.sleepSeconds << "\n";
  }
}

std::string ConfigText(const IcdConfig& config) {
  std::ostringstream out;
  out << "atend destructor " << config.destructorFault << "\natend exithandler " << config.exitHandlerFault << "\n";
  for (const IcdPlatform& platform : config.platforms) {
    out << "platform\n";
    WriteText(out, CL_PLATFORM_PROFILE, platform.profile);
    WriteText(out, CL_PLATFORM_VERSION, platform.version);
    WriteText(out, CL_PLATFORM_NAME, platform.name);
    WriteText(out, CL_PLATFORM_VENDOR, platform.vendor);
    WriteText(out, CL_PLATFORM_EXTENSIONS, platform.extensions);
    WriteText(out, CL_PLATFORM_ICD_SUFFIX_KHR, platform.icdSuffix);
    WriteFaults(out, platform.faults, false);
    WriteFaults(out, platform.deviceIdsFaults, true);
    for (const IcdDevice& device : platform.devices) {
      out << "device\n";
      WriteInfo(out, CL_DEVICE_TYPE, &device.type, sizeof device.type);
      WriteInfo(out, CL_DEVICE_VENDOR_ID, &device.vendorId, sizeof device.vendorId);
      WriteText(out, CL_DEVICE_NAME, device.name);
      WriteText(out, CL_DEVICE_VERSION, device.version);
      WriteText(out, CL_DRIVER_VERSION, device.driverVersion);
      WriteText(out, CL_DEVICE_OPENCL_C_VERSION, device.openClCVersion);
      WriteText(out, CL_DEVICE_EXTENSIONS, device.extensions);
      WriteFaults(out, device.faults, false);
    }
  }
  return out.str();
}

}  // namespace

void UseTestIcd(FixtureMachine& machine, const IcdConfig& config, const std::string& hook) {
  machine.AddOpenClVendor("gpuvet_test", TestIcdLibrary());
  machine.SetEnv("GPUVET_TEST_ICD_CONFIG", machine.WriteFile(kConfigFile, ConfigText(config)));
  machine.SetEnv("GPUVET_TEST_ICD_CALL_LOG", machine.PathOf(kCallLogFile));
  machine.SetEnv("OCL_ICD_PLATFORM_SORT", "none");
  machine.SetEnv("GPUVET_TEST_ICD_HOOK", hook);
}

std::vector<std::string> ReadIcdCallLog(const FixtureMachine& machine) {
  std::vector<std::string> calls;
  std::ifstream log(machine.PathOf(kCallLogFile));
  for (std::string line; std::getline(log, line);) {
    calls.push_back(line);
  }
  return calls;
}

void ClearIcdCallLog(const FixtureMachine& machine) {
  std::remove(machine.PathOf(kCallLogFile).c_str());
}

std::size_t CountCalls(const std::vector<std::string>& calls, const std::string& function) {
  return std::count_if(calls.begin(), calls.end(),
                       [&function](const std::string& call) { return call.rfind(function + " ", 0) == 0; });
}

bool DeviceReferencesBalanced(const std::vector<std::string>& calls) {
  std::map<std::string, int> changes;  // by "device=N"
  for (const std::string& call : calls) {
    std::istringstream words(call);
    std::string function;
    std::string device;
    words >> function >> device;
    changes[device] += function == "clRetainDevice" ? 1 : function == "clReleaseDevice" ? -1 : 0;
  }
  return std::all_of(changes.begin(), changes.end(), [](const auto& change) { return change.second == 0; });
}

}  // namespace gpuvet::e2e
