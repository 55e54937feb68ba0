#include "fixture_machine.h"

#include "snapshot_proof.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace gpuvet::e2e {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUnshare = "/usr/bin/unshare";
constexpr const char* kPciDevicesPath = "/sys/bus/pci/devices";
constexpr const char* kToolsFolderVariable = "GPUVET_E2E_TOOLS";
constexpr const char* kSearchPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) {
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return quoted + "'";
}

std::string Hex(uint32_t value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%0*x\n", digits, value);
  return text;
}

std::string ReadAll(std::FILE* file) {
  std::string text;
  std::rewind(file);
  char buffer[4096];
  for (std::size_t count = 0; (count = std::fread(buffer, 1, sizeof buffer, file)) > 0;) {
    text.append(buffer, count);
  }
  std::fclose(file);
  return text;
}

// Runs argv with the environment, its output streams going to unnamed files,
// until it ends or the time limit passes.
RunResult Spawn(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                const std::string& workDir, int timeoutSeconds) {
  std::FILE* out = std::tmpfile();
  std::FILE* err = std::tmpfile();
  if (out == nullptr || err == nullptr || fcntl(fileno(out), F_SETFD, FD_CLOEXEC) != 0 ||
      fcntl(fileno(err), F_SETFD, FD_CLOEXEC) != 0) {
    throw std::runtime_error("cannot make the output files");
  }

  const auto started = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    // The test process has a single thread: the child may allocate before exec.
    clearenv();
    for (const auto& [name, value] : env) {
      setenv(name.c_str(), value.c_str(), 1);
    }
    std::vector<char*> args;
    for (const std::string& arg : argv) {
      args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    if (dup2(fileno(out), STDOUT_FILENO) >= 0 && dup2(fileno(err), STDERR_FILENO) >= 0 && chdir(workDir.c_str()) == 0) {
      execv(args[0], args.data());
    }
    _exit(127);
  }
  RunResult result;
  pollfd ended{static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0};
  if (poll(&ended, 1, timeoutSeconds * 1000) == 0) {
    kill(pid, SIGKILL);
    result.timedOut = true;
  }
  close(ended.fd);
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  result.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                      static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  result.peakMemoryKb = usage.ru_maxrss;
  result.out = ReadAll(out);
  result.err = ReadAll(err);
  return result;
}

// The unshare flags that work here: a plain mount namespace as root, or one
// inside a new user namespace where only that is allowed.
struct NamespaceProbe {
  std::string unshareFlags;
  std::string reason;
};

const NamespaceProbe& Probe() {
  static const NamespaceProbe probe = [] {
    const std::string script = std::string("mount --bind ") + kPciDevicesPath + " " + kPciDevicesPath;
    for (const char* flags : {"-m", "-rm"}) {
      if (Spawn({kUnshare, flags, "--", "/bin/sh", "-c", script}, {{"PATH", kSearchPath}}, "/", 30).status == 0) {
        return NamespaceProbe{flags, ""};
      }
    }
    return NamespaceProbe{"", "end-to-end test skipped: this machine permits no private mount namespace "
                              "(unshare -m and unshare -rm with a bind mount over /sys/bus/pci/devices both failed)"};
  }();
  return probe;
}

// The tools of this build, or those of the folder that GPUVET_E2E_TOOLS names:
// one build of the suite runs over the sanitizer builds and the installed package.
const char* ToolsFolder() {
  const char* folder = std::getenv(kToolsFolderVariable);
  return folder != nullptr && *folder != '\0' ? folder : nullptr;
}

std::string ToolPath(const char* built, const char* name) {
  return ToolsFolder() != nullptr ? std::string(ToolsFolder()) + "/" + name : std::string(built);
}

}  // namespace

const std::string& NamespaceUnavailableReason() {
  return Probe().reason;
}

bool ToolsOfThisBuild() {
  return ToolsFolder() == nullptr;
}

const char* GpuvetBinary() {
  static const std::string path = ToolPath(GPUVET_BINARY, "gpuvet");
  return path.c_str();
}

const char* GpuvetListsBinary() {
  static const std::string path = ToolPath(GPUVET_LISTS_BINARY, "gpuvet-lists");
  return path.c_str();
}

const char* TestIcdLibrary() {
  return GPUVET_TEST_ICD_LIBRARY;
}

FixtureMachine::FixtureMachine() {
  char folder[] = "/tmp/gpuvet-fixture-XXXXXX";
  if (mkdtemp(folder) == nullptr) {
    throw std::runtime_error("cannot make the fixture folder");
  }
  root_ = folder;
  chmod(root_.c_str(), 0755);
  mounts_[kPciDevicesPath] = MakeDir("pci/devices");
  env_["PATH"] = kSearchPath;
  env_["OCL_ICD_VENDORS"] = MakeDir("opencl/vendors");
  // Sanitizer builds run the binary under the same options as the tests.
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS"}) {
    if (const char* value = std::getenv(name)) {
      env_[name] = value;
    }
  }
}

FixtureMachine::~FixtureMachine() {
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

std::string FixtureMachine::PathOf(const std::string& relativePath) const {
  return root_ + "/" + relativePath;
}

std::string FixtureMachine::WriteFile(const std::string& relativePath, const std::string& content) const {
  const std::string path = PathOf(relativePath);
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
  return path;
}

std::string FixtureMachine::MakeDir(const std::string& relativePath) const {
  const std::string path = PathOf(relativePath);
  fs::create_directories(path);
  return path;
}

std::string FixtureMachine::AddPciDevice(const PciFixtureDevice& device) const {
  const std::string folder = "pci/devices/" + device.address;
  WriteFile(folder + "/class", Hex(device.classCode, 6));
  WriteFile(folder + "/vendor", Hex(device.vendorId, 4));
  WriteFile(folder + "/device", Hex(device.deviceId, 4));
  WriteFile(folder + "/subsystem_vendor", Hex(0, 4));
  WriteFile(folder + "/subsystem_device", Hex(0, 4));
  WriteFile(folder + "/revision", Hex(0, 2));
  return PathOf(folder);
}

void FixtureMachine::AddOpenClVendor(const std::string& name, const std::string& libraryPath) const {
  WriteFile("opencl/vendors/" + name + ".icd", libraryPath + "\n");
}

void FixtureMachine::MountOver(const std::string& systemPath, const std::string& relativePath) {
  mounts_[systemPath] = PathOf(relativePath);
}

void FixtureMachine::SetEnv(const std::string& name, const std::string& value) {
  env_[name] = value;
}

void FixtureMachine::BindModuleDriver(const std::string& address, const std::string& module,
                                      const std::string& version) {
  const std::string driverDir = MakeDir("drivers/" + module);
  const std::string moduleDir = fs::path(WriteFile("sys-module/" + module + "/version", version + "\n")).parent_path();
  std::error_code ignored;  // where the links exist already
  fs::create_symlink(moduleDir, driverDir + "/module", ignored);
  fs::remove(PathOf("pci/devices/" + address + "/driver"), ignored);
  fs::create_symlink(driverDir, PathOf("pci/devices/" + address + "/driver"));
  mounts_["/sys/module"] = PathOf("sys-module");
}

void FixtureMachine::SetKernelBuildDate(const std::string& date) {
  mounts_["/proc/sys/kernel/version"] =
      WriteFile("proc/kernel-version", "#1 SMP PREEMPT_DYNAMIC Debian 6.1.0-1 (" + date + ")\n");
}

RunResult FixtureMachine::Run(const std::vector<std::string>& argv, int timeoutSeconds) const {
  std::string script;
  for (const auto& [target, source] : mounts_) {
    script += "mount --bind " + ShellQuote(source) + " " + ShellQuote(target) + " || exit 125\n";
  }
  script += "exec \"$@\"\n";
  std::vector<std::string> command = {kUnshare, Probe().unshareFlags, "--", "/bin/sh", "-c", script, "sh"};
  command.insert(command.end(), argv.begin(), argv.end());
  return Spawn(command, env_, root_, timeoutSeconds);
}

RunResult FixtureMachine::RunGpuvet(const std::vector<std::string>& args, int timeoutSeconds) const {
  std::vector<std::string> argv = {GpuvetBinary()};
  argv.insert(argv.end(), args.begin(), args.end());
  const RunResult live = Run(argv, timeoutSeconds);
  // The recorded machine is proven once, with the tools of this build; a run
  // of the suite over other builds of the tools checks their live runs.
  if (ToolsOfThisBuild()) {
    ExpectSnapshotGivesTheSameRun(*this, args, live);
  }
  return live;
}

}  // namespace gpuvet::e2e
