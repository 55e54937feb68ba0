#include "test_icd_config.h"

#include <cstdio>
#include <fstream>
#include <sstream>

namespace gpuvet::e2e {
namespace {

constexpr const char* kConfigFile = "opencl/test_icd.conf";
constexpr const char* kCallLogFile = "opencl/test_icd_calls.log";

// Blanks stay as they are; the line end, NUL, the escape itself and other
// control bytes are escaped.
std::string EscapeText(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      escaped += "\\\\";
    } else if (c == '\0') {
      escaped += "\\0";
    } else if (byte < 0x20 || byte == 0x7f) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", byte);
      escaped += hex;
    } else {
      escaped += c;
    }
  }
  return escaped;
}

std::string Param(uint32_t param) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%04x", param);
  return text;
}

void WriteText(std::ostringstream& out, uint32_t param, const std::string& value) {
  out << "info " << Param(param) << " text " << EscapeText(value) << "\n";
}

void WriteFaults(std::ostringstream& out, const std::vector<IcdFault>& faults, bool deviceIds) {
  for (const IcdFault& fault : faults) {
    out << "fault " << (deviceIds ? std::string("device_ids") : "info " + Param(fault.param)) << " " << fault.code
        << " " << fault.skip << " " << fault.sleepSeconds << "\n";
  }
}

}  // namespace

std::string IcdConfigText(const IcdConfig& config) {
  std::ostringstream out;
  if (config.platformListCode != CL_SUCCESS) {
    out << "fail_platform_list " << config.platformListCode << "\n";
  }
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
      out << "info " << Param(CL_DEVICE_TYPE) << " u64 " << device.type << "\n";
      out << "info " << Param(CL_DEVICE_VENDOR_ID) << " u32 " << device.vendorId << "\n";
      WriteText(out, CL_DEVICE_NAME, device.name);
      WriteText(out, CL_DEVICE_VERSION, device.version);
      WriteText(out, CL_DRIVER_VERSION, device.driverVersion);
      WriteText(out, CL_DEVICE_OPENCL_C_VERSION, device.openClCVersion);
      WriteText(out, CL_DEVICE_EXTENSIONS, device.extensions);
      for (const auto& [param, value] : device.moreTexts) {
        WriteText(out, param, value);
      }
      WriteFaults(out, device.faults, false);
    }
  }
  return out.str();
}

void UseTestIcd(FixtureMachine& machine, const IcdConfig& config) {
  const std::string configPath = machine.WriteFile(kConfigFile, IcdConfigText(config));
  machine.AddOpenClVendor("gpuvet_test", TestIcdLibrary());
  machine.SetEnv("GPUVET_TEST_ICD_CONFIG", configPath);
  machine.SetEnv("GPUVET_TEST_ICD_CALL_LOG", IcdCallLogPath(machine));
  machine.SetEnv("OCL_ICD_PLATFORM_SORT", "none");
}

std::string IcdCallLogPath(const FixtureMachine& machine) {
  return machine.PathOf(kCallLogFile);
}

std::vector<IcdCall> ReadIcdCallLog(const FixtureMachine& machine) {
  std::vector<IcdCall> calls;
  std::ifstream log(IcdCallLogPath(machine));
  std::string line;
  while (std::getline(log, line)) {
    IcdCall call;
    call.line = line;
    std::istringstream words(line);
    words >> call.function;
    std::string word;
    while (words >> word) {
      const std::size_t equals = word.find('=');
      if (equals != std::string::npos) {
        call.fields[word.substr(0, equals)] = word.substr(equals + 1);
      }
    }
    calls.push_back(call);
  }
  return calls;
}

void ClearIcdCallLog(const FixtureMachine& machine) {
  std::remove(IcdCallLogPath(machine).c_str());
}

std::map<unsigned, int> DeviceReferenceChanges(const std::vector<IcdCall>& calls) {
  std::map<unsigned, int> changes;
  for (const IcdCall& call : calls) {
    const bool retain = call.function == "clRetainDevice";
    if (!retain && call.function != "clReleaseDevice") {
      continue;
    }
    const unsigned device = static_cast<unsigned>(std::stoul(call.fields.at("device")));
    changes[device] += retain ? 1 : -1;
  }
  return changes;
}

std::size_t CountCalls(const std::vector<IcdCall>& calls, const std::string& function, uint32_t param) {
  std::size_t count = 0;
  for (const IcdCall& call : calls) {
    if (call.function != function) {
      continue;
    }
    const auto found = call.fields.find("param");
    if (param == 0 || (found != call.fields.end() && found->second == Param(param))) {
      ++count;
    }
  }
  return count;
}

}  // namespace gpuvet::e2e
