#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>

#include "opencl/cl_device_key.h"

namespace gpuvet::testing {

// Devices as the census lists them: one Intel, two of other vendors.
inline ClDeviceKey IntelDevice() { return {32902, "Intel(R) UHD Graphics 630", "OpenCL C 3.0", "OpenCL 3.0 NEO", "22.43.24595"}; }
inline ClDeviceKey NvidiaDevice() { return {4318, "NVIDIA GeForce GTX 1080", "OpenCL C 1.2", "OpenCL 3.0 CUDA", "391.35"}; }
inline ClDeviceKey AmdDevice() { return {4098, "gfx1030", "OpenCL C 2.0", "OpenCL 2.0 AMD-APP (3513.0)", "3513.0"}; }

inline std::string ItemXml(const ClDeviceKey& key, const std::string& element = "Item") {
  return "<" + element + "><VID>" + std::to_string(key.VID) + "</VID><DeviceName>" + key.DeviceName +
         "</DeviceName><OpenCLCVersion>" + key.OpenCLCVersion + "</OpenCLCVersion><DeviceVersion>" +
         key.DeviceVersion + "</DeviceVersion><DriverVersion>" + key.DriverVersion + "</DriverVersion></" + element +
         ">\n";
}

inline std::string ListXml(const std::string& root, std::initializer_list<ClDeviceKey> items) {
  std::string body;
  for (const ClDeviceKey& item : items) {
    body += ItemXml(item);
  }
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<" + root + ">\n" + body + "</" + root + ">\n";
}

struct Outcome {
  bool result = false;
  std::string out;
  std::string err;
};

// A temp folder for the list files of a test, and the process-wide device
// state put back to fresh around each test.
class ListFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/gpuvet_list_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    ResetDevices();
  }
  void TearDown() override {
    ResetDevices();
    std::filesystem::remove_all(dir_);
  }
  static void ResetDevices() {
    ClDeviceTable.clear();
    SelectedClDevice = ClDeviceKey{};
  }
  static void SetTable(std::initializer_list<ClDeviceKey> devices) {
    ClDeviceTable = devices;
    SortUnique(ClDeviceTable);
  }

  std::string WriteFile(const std::string& content, const std::string& name = "list.xml") const {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  std::string MissingPath() const { return dir_ + "/missing.xml"; }

  template <typename ListTest>
  static Outcome Run(ListTest listTest, const std::string& path, int32_t gpuIndex) {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    Outcome outcome;
    outcome.result = listTest(path.c_str(), gpuIndex);
    outcome.err = ::testing::internal::GetCapturedStderr();
    outcome.out = ::testing::internal::GetCapturedStdout();
    return outcome;
  }

 private:
  std::string dir_;
};

}  // namespace gpuvet::testing
