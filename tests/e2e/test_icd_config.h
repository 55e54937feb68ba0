#pragma once

// Gives a fixture machine OpenCL platforms and devices through the project's
// test vendor library (tests/test_icd), and reads back which OpenCL calls the
// program under test made.
//
//   IcdConfig config;
//   IcdPlatform& platform = config.platforms.emplace_back();
//   platform.devices.push_back(IcdDevice{});                    // a GPU of vendor 0x10de
//   platform.devices[0].faults.push_back({CL_DEVICE_EXTENSIONS, CL_OUT_OF_RESOURCES});
//   UseTestIcd(machine, config);
//   RunResult run = machine.RunGpuvet({"--details"});
//   std::vector<IcdCall> calls = ReadIcdCallLog(machine);
//
// A watchdog timeout: a fault with code CL_SUCCESS and sleepSeconds set delays
// that query and then answers it normally. "No OpenCL call at all": the call log
// is empty after the run (the loader never even loaded the vendor).
//
// Only the calls of the program under test are logged and failed: the loader's
// own queries while it loads the vendor (its platform list, and each platform's
// CL_PLATFORM_EXTENSIONS and CL_PLATFORM_ICD_SUFFIX_KHR) never are. The one
// exception is platformListCode, which the loader alone asks for.
//
// UseTestIcd sets OCL_ICD_PLATFORM_SORT=none, so the platforms stand in the
// order of the config; other sorting would make the loader count devices itself.

#ifndef CL_TARGET_OPENCL_VERSION
#define CL_TARGET_OPENCL_VERSION 300
#endif
#include <CL/cl.h>
#include <CL/cl_ext.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "fixture_machine.h"

namespace gpuvet::e2e {

// Makes an info query (or, on IcdPlatform::deviceIdsFaults, clGetDeviceIDs)
// sleep and then fail. The first `skip` matching calls pass untouched; each later
// one sleeps sleepSeconds and answers `code`. A text query is two calls (size,
// then value), a fixed-size one a single call.
struct IcdFault {
  uint32_t param = 0;  // the info query; ignored for clGetDeviceIDs
  int32_t code = CL_INVALID_VALUE;  // CL_SUCCESS: only the sleep, then the normal answer
  unsigned skip = 0;
  unsigned sleepSeconds = 0;
};

// One device. The defaults make a GPU of vendor 0x10de.
struct IcdDevice {
  uint64_t type = CL_DEVICE_TYPE_GPU;
  uint32_t vendorId = 0x10de;
  std::string name = "Test GPU 1000";
  std::string version = "OpenCL 3.0 TEST 1.0";
  std::string driverVersion = "100.1";
  std::string openClCVersion = "OpenCL C 1.2";
  std::string extensions = "cl_khr_fp64 cl_khr_icd";
  // Further text queries answered, by their number (CL_DEVICE_VENDOR, ...).
  std::map<uint32_t, std::string> moreTexts;
  std::vector<IcdFault> faults;
};

// One platform. Its extensions must name cl_khr_icd, or the loader drops it.
struct IcdPlatform {
  std::string profile = "FULL_PROFILE";
  std::string version = "OpenCL 3.0 Test";
  std::string name = "gpuvet test platform";
  std::string vendor = "gpuvet tests";
  std::string icdSuffix = "TEST";
  std::string extensions = "cl_khr_icd";
  std::vector<IcdDevice> devices;
  std::vector<IcdFault> faults;            // the platform's info queries
  std::vector<IcdFault> deviceIdsFaults;   // clGetDeviceIDs of this platform
};

struct IcdConfig {
  std::vector<IcdPlatform> platforms;
  // Not CL_SUCCESS: the vendor answers its platform list with this code, the
  // loader drops it, and the machine has no platform of it.
  int32_t platformListCode = CL_SUCCESS;
};

// The text of the vendor's config file.
std::string IcdConfigText(const IcdConfig& config);

// Writes the config under the fixture root, registers the vendor as
// "gpuvet_test" and points it at its config and call log.
void UseTestIcd(FixtureMachine& machine, const IcdConfig& config);

// One logged call: "clGetDeviceInfo device=1 param=0x102b size=0 result=0".
struct IcdCall {
  std::string function;                       // "clGetDeviceInfo"
  std::map<std::string, std::string> fields;  // "device" -> "1", "param" -> "0x102b", ...
  std::string line;
};

std::string IcdCallLogPath(const FixtureMachine& machine);
// The calls of every run since the last clear, oldest first; none when no run
// made an OpenCL call.
std::vector<IcdCall> ReadIcdCallLog(const FixtureMachine& machine);
void ClearIcdCallLog(const FixtureMachine& machine);

// Each device's reference count change over the logged calls, by device number
// (position among all devices of the config): retains minus releases.
std::map<unsigned, int> DeviceReferenceChanges(const std::vector<IcdCall>& calls);

// How many logged calls are of this function (and of this query, unless 0).
std::size_t CountCalls(const std::vector<IcdCall>& calls, const std::string& function, uint32_t param = 0);

}  // namespace gpuvet::e2e
