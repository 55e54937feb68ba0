#pragma once

// What the end-to-end tests share: exit statuses, fixture adapters and
// devices, list files and output lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "fixture_machine.h"
#include "test_icd_config.h"

namespace gpuvet::e2e {

// Exit statuses as the parent sees them: the low eight bits of the code.
constexpr int kStatusOk = 0;
constexpr int kStatusNotInWhiteList = 11;
constexpr int kStatusNotInWhiteListOldDriver = 12;
constexpr int kStatusOldDriver = 13;
constexpr int kStatusInvalidParameter = 24;  // -1000
constexpr int kStatusInBlackList = 245;      // -11
constexpr int kStatusNoPlatform = 246;       // -10
constexpr int kStatusNoTest = 255;           // -1

inline const PciFixtureDevice kIntelAdapter{"0000:00:02.0", 0x030000, 0x8086, 0x3e92};
inline const PciFixtureDevice kAmdAdapter{"0000:03:00.0", 0x030000, 0x1002, 0x67df};
inline const PciFixtureDevice kNvidiaAdapter{"0000:65:00.0", 0x030000, 0x10de, 0x1b80};

// The OpenCL device of kNvidiaAdapter, with blanks that its key drops.
inline IcdDevice NvidiaDevice() {
  IcdDevice device;
  device.name = " NVIDIA GeForce GTX 1080 ";
  device.version = "OpenCL 3.0 CUDA";
  device.driverVersion = "535.183.01";
  device.openClCVersion = "OpenCL C 1.2 ";
  return device;
}

inline std::string TrimBlanks(const std::string& text) {
  const std::size_t first = text.find_first_not_of(' ');
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// A black list (root "BlackList") or white list (root "WhiteList") that names these devices exactly.
inline std::string ListFileText(const std::string& root, const std::vector<IcdDevice>& devices) {
  std::string text = "<?xml version=\"1.0\"?>\n<" + root + ">";
  for (const IcdDevice& device : devices) {
    text += "<Item><VID>" + std::to_string(device.vendorId) + "</VID><DeviceName>" + TrimBlanks(device.name) +
            "</DeviceName><OpenCLCVersion>" + TrimBlanks(device.openClCVersion) + "</OpenCLCVersion><DeviceVersion>" +
            TrimBlanks(device.version) + "</DeviceVersion><DriverVersion>" + TrimBlanks(device.driverVersion) +
            "</DriverVersion></Item>";
  }
  return text + "</" + root + ">\n";
}

inline std::string ReadWhole(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

// True when the landmarks stand in the output in this order, each a whole line.
inline ::testing::AssertionResult LinesInOrder(const std::string& out, const std::vector<std::string>& landmarks) {
  const std::vector<std::string> lines = Lines(out);
  auto at = lines.begin();
  for (const std::string& landmark : landmarks) {
    at = std::find(at, lines.end(), landmark);
    if (at == lines.end()) {
      return ::testing::AssertionFailure() << "missing or out of order: \"" << landmark << "\" in:\n" << out;
    }
    ++at;
  }
  return ::testing::AssertionSuccess();
}

}  // namespace gpuvet::e2e
