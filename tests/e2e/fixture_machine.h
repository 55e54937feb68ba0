#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace gpuvet::e2e {

// What a program printed and how it ended.
struct RunResult {
  std::string out;
  std::string err;
  int status = -1;        // exit status as the parent sees it (0..255); -1 when killed by a signal
  bool timedOut = false;  // the harness had to kill it
  double wallSeconds = 0;  // from start to end
  double cpuSeconds = 0;   // user and system time of the process
  long peakMemoryKb = 0;   // its largest resident set
};

// One PCI function of a fixture machine, written as sysfs shows it (subsystem and revision 0).
struct PciFixtureDevice {
  std::string address;              // "0000:01:00.0"
  uint32_t classCode = 0x030000;    // VGA controller
  uint32_t vendorId = 0;
  uint32_t deviceId = 0;
};

// A fixture machine: a temporary folder whose trees are bind-mounted over the
// system's paths inside a private mount namespace, for one program run at a
// time. The PCI tree always replaces /sys/bus/pci/devices; OpenCL sees only the
// vendors registered with AddOpenClVendor (none by default).
class FixtureMachine {
 public:
  FixtureMachine();
  ~FixtureMachine();
  FixtureMachine(const FixtureMachine&) = delete;
  FixtureMachine& operator=(const FixtureMachine&) = delete;

  // Absolute path of a path relative to the root.
  std::string PathOf(const std::string& relativePath) const;

  // Writes a file under the root (parents made as needed); returns its absolute path.
  std::string WriteFile(const std::string& relativePath, const std::string& content) const;
  std::string MakeDir(const std::string& relativePath) const;

  // Adds a PCI entry: "pci/devices/ADDRESS/{class,vendor,device,...}". Returns its folder.
  std::string AddPciDevice(const PciFixtureDevice& device) const;
  // Binds a loadable driver module to the PCI entry at address: its version is
  // /sys/module/MODULE/version (the fixture's /sys/module replaces the system's).
  void BindModuleDriver(const std::string& address, const std::string& module, const std::string& version);
  // The running kernel's build date ("YYYY-MM-DD"), the date of drivers whose
  // module file is not found.
  void SetKernelBuildDate(const std::string& date);
  // Registers an OpenCL vendor library for the runs (OCL_ICD_VENDORS folder).
  void AddOpenClVendor(const std::string& name, const std::string& libraryPath) const;
  // Mounts a file or folder of the fixture over a path of the system for the runs.
  void MountOver(const std::string& systemPath, const std::string& relativePath);
  // Sets a variable in the environment of every run.
  void SetEnv(const std::string& name, const std::string& value);

  // Runs a program inside the fixture's namespace with the fixture's mounts and
  // environment; argv[0] is the program's path. Killed after timeoutSeconds.
  RunResult Run(const std::vector<std::string>& argv, int timeoutSeconds = 60) const;
  // Runs the gpuvet binary with the arguments; then a snapshot of the machine
  // must give the same run (snapshot_proof.h).
  RunResult RunGpuvet(const std::vector<std::string>& args, int timeoutSeconds = 60) const;

 private:
  std::string root_;
  std::map<std::string, std::string> mounts_;  // target -> source, a file or folder of the fixture
  std::map<std::string, std::string> env_;
};

// Empty when runs in a private mount namespace are possible here, else why not.
const std::string& NamespaceUnavailableReason();

// The path of the gpuvet binary under test, of gpuvet-lists, and of the project's test ICD.
// The two tools are this build's, or those in the folder named by GPUVET_E2E_TOOLS.
const char* GpuvetBinary();
const char* GpuvetListsBinary();
// False when GPUVET_E2E_TOOLS names the tools' folder.
bool ToolsOfThisBuild();
const char* TestIcdLibrary();

}  // namespace gpuvet::e2e

// Skips the current test, saying why, where no mount namespace can be made.
#define GPUVET_REQUIRE_NAMESPACE()                                                   \
  do {                                                                               \
    const std::string& gpuvetSkipReason = ::gpuvet::e2e::NamespaceUnavailableReason(); \
    if (!gpuvetSkipReason.empty()) GTEST_SKIP() << gpuvetSkipReason;                 \
  } while (false)
