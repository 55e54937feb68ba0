#pragma once

// Gives a fixture machine OpenCL platforms and devices through the project's
// test vendor library (tests/test_icd), and reads back which OpenCL calls the
// program under test made: only its own, never the loader's while it loads the
// vendor. The platforms stand in the order of the config.

#ifndef CL_TARGET_OPENCL_VERSION
#define CL_TARGET_OPENCL_VERSION 300
#endif
#include <CL/cl.h>
#include <CL/cl_ext.h>

#include <cstdint>
#include <string>
#include <vector>

#include "fixture_machine.h"

namespace gpuvet::e2e {

// Makes an info query (on IcdPlatform::deviceIdsFaults, clGetDeviceIDs) sleep
// and then fail: the first `skip` matching calls pass, each later one sleeps
// sleepSeconds and answers `code` (CL_SUCCESS: the normal answer, late). A text
// query is two calls (size, then value), a fixed-size one a single call.
// Codes beyond OpenCL's: the call crashes, aborts or calls exit(0) instead of answering.
constexpr int32_t kIcdCrash = 1001;
constexpr int32_t kIcdAbort = 1002;
constexpr int32_t kIcdExitZero = 1003;
// The call runs the shell command of UseTestIcd's hook, then answers as usual.
constexpr int32_t kIcdRunHook = 1004;

struct IcdFault {
  uint32_t param = 0;  // ignored for clGetDeviceIDs
  int32_t code = CL_INVALID_VALUE;
  unsigned skip = 0;
  unsigned sleepSeconds = 0;
};

struct IcdDevice {
  uint64_t type = CL_DEVICE_TYPE_GPU;
  uint32_t vendorId = 0x10de;
  std::string name = "Test GPU 1000";
  std::string version = "OpenCL 3.0 TEST 1.0";
  std::string driverVersion = "100.1";
  std::string openClCVersion = "OpenCL C 1.2";
  std::string extensions = "cl_khr_fp64 cl_khr_icd";
  std::vector<IcdFault> faults;
};

// Its extensions must name cl_khr_icd, or the loader drops it.
struct IcdPlatform {
  std::string profile = "FULL_PROFILE";
  std::string version = "OpenCL 3.0 Test";
  std::string name = "gpuvet test platform";
  std::string vendor = "gpuvet tests";
  std::string icdSuffix = "TEST";
  std::string extensions = "cl_khr_icd";
  std::vector<IcdDevice> devices;
  std::vector<IcdFault> faults;           // the platform's info queries
  std::vector<IcdFault> deviceIdsFaults;  // its clGetDeviceIDs
};

struct IcdConfig {
  std::vector<IcdPlatform> platforms;  // none: the loader drops the vendor
  // kIcdCrash, kIcdAbort or kIcdExitZero once more while the process ends, in
  // the library's destructor or in an exit handler it registered; 0: none.
  int32_t destructorFault = 0;
  int32_t exitHandlerFault = 0;
};

// Registers the vendor as "gpuvet_test" with this config and its call log;
// `hook` is the shell command that kIcdRunHook runs.
void UseTestIcd(FixtureMachine& machine, const IcdConfig& config, const std::string& hook = "");

// The calls of every run since the last clear, oldest first, one line each:
// "clGetDeviceInfo device=1 param=0x102b size=0 result=0". None when no run made one.
std::vector<std::string> ReadIcdCallLog(const FixtureMachine& machine);
void ClearIcdCallLog(const FixtureMachine& machine);

std::size_t CountCalls(const std::vector<std::string>& calls, const std::string& function);
// True when every device was released as often as it was retained.
bool DeviceReferencesBalanced(const std::vector<std::string>& calls);

}  // namespace gpuvet::e2e
