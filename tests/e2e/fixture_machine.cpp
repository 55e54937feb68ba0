#include "fixture_machine.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
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

// Runs argv with the environment, reading both output streams until the
// program ends or the deadline passes.
RunResult Spawn(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                const std::string& workDir, std::chrono::milliseconds limit) {
  int outPipe[2];
  int errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  std::vector<std::string> envText;
  for (const auto& [name, value] : env) {
    envText.push_back(name + "=" + value);
  }
  std::vector<char*> args;
  for (const std::string& arg : argv) {
    args.push_back(const_cast<char*>(arg.c_str()));
  }
  args.push_back(nullptr);
  std::vector<char*> envp;
  for (std::string& entry : envText) {
    envp.push_back(entry.data());
  }
  envp.push_back(nullptr);

  const auto started = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(outPipe[1], STDOUT_FILENO);
    dup2(errPipe[1], STDERR_FILENO);
    if (chdir(workDir.c_str()) != 0) {
      _exit(127);
    }
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  close(outPipe[1]);
  close(errPipe[1]);

  RunResult result;
  std::array<pollfd, 2> fds = {pollfd{outPipe[0], POLLIN, 0}, pollfd{errPipe[0], POLLIN, 0}};
  std::array<std::string*, 2> sinks = {&result.out, &result.err};
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int open = 2;
  while (open > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      kill(pid, SIGKILL);
      result.timedOut = true;
      break;
    }
    if (poll(fds.data(), fds.size(), static_cast<int>(left.count())) < 0 && errno != EINTR) {
      break;
    }
    for (std::size_t i = 0; i < fds.size(); ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) {
        continue;
      }
      char buffer[4096];
      const ssize_t count = read(fds[i].fd, buffer, sizeof buffer);
      if (count > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(count));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  for (const pollfd& fd : fds) {
    if (fd.fd >= 0) {
      close(fd.fd);
    }
  }
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                      static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  result.peakMemoryKb = usage.ru_maxrss;
  result.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
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
    char folder[] = "/tmp/gpuvet-probe-XXXXXX";
    if (mkdtemp(folder) == nullptr) {
      return NamespaceProbe{"", "cannot make a temporary folder for the namespace probe"};
    }
    const std::string script = "mount --bind " + ShellQuote(folder) + " " + kPciDevicesPath;
    for (const char* flags : {"-m", "-rm"}) {
      const RunResult result = Spawn({kUnshare, flags, "--", "/bin/sh", "-c", script}, {{"PATH", kSearchPath}}, "/",
                                     std::chrono::seconds(30));
      if (result.status == 0) {
        rmdir(folder);
        return NamespaceProbe{flags, ""};
      }
    }
    rmdir(folder);
    return NamespaceProbe{"", "end-to-end test skipped: this machine permits no private mount namespace "
                              "(unshare -m and unshare -rm with a bind mount over /sys/bus/pci/devices both failed)"};
  }();
  return probe;
}

}  // namespace

const std::string& NamespaceUnavailableReason() {
  return Probe().reason;
}

const char* GpuvetBinary() {
  return GPUVET_BINARY;
}

const char* TestIcdLibrary() {
#ifdef GPUVET_TEST_ICD_LIBRARY
  return GPUVET_TEST_ICD_LIBRARY;
#else
  return "";
#endif
}

FixtureMachine::FixtureMachine() {
  char folder[] = "/tmp/gpuvet-fixture-XXXXXX";
  if (mkdtemp(folder) == nullptr) {
    throw std::runtime_error("cannot make the fixture folder");
  }
  root_ = folder;
  chmod(root_.c_str(), 0755);
  mounts_.emplace_back(MakeDir("pci/devices"), kPciDevicesPath);
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

std::string FixtureMachine::MakeSymlink(const std::string& target, const std::string& relativePath) const {
  const std::string path = PathOf(relativePath);
  fs::create_directories(fs::path(path).parent_path());
  fs::create_symlink(target, path);
  return path;
}

std::string FixtureMachine::AddPciDevice(const PciFixtureDevice& device) const {
  const std::string folder = "pci/devices/" + device.address;
  WriteFile(folder + "/class", Hex(device.classCode, 6));
  WriteFile(folder + "/vendor", Hex(device.vendorId, 4));
  WriteFile(folder + "/device", Hex(device.deviceId, 4));
  WriteFile(folder + "/subsystem_vendor", Hex(device.subsystemVendor, 4));
  WriteFile(folder + "/subsystem_device", Hex(device.subsystemDevice, 4));
  WriteFile(folder + "/revision", Hex(device.revision, 2));
  return PathOf(folder);
}

void FixtureMachine::BindMount(const std::string& source, const std::string& target) {
  mounts_.emplace_back(source, target);
}

void FixtureMachine::AddOpenClVendor(const std::string& name, const std::string& libraryPath) const {
  WriteFile("opencl/vendors/" + name + ".icd", libraryPath + "\n");
}

void FixtureMachine::SetEnv(const std::string& name, const std::string& value) {
  env_[name] = value;
}

void FixtureMachine::BindModuleDriver(const std::string& address, const std::string& module,
                                      const std::string& version) {
  const std::string driverDir = MakeDir("drivers/" + module);
  if (!fs::exists(PathOf("drivers/" + module + "/module"))) {
    MakeSymlink(MakeDir("sys-module/" + module), "drivers/" + module + "/module");
  }
  WriteFile("sys-module/" + module + "/version", version + "\n");
  const std::string link = "pci/devices/" + address + "/driver";
  std::error_code ignored;
  fs::remove(PathOf(link), ignored);
  MakeSymlink(driverDir, link);
  if (!sysModuleMounted_) {
    BindMount(PathOf("sys-module"), "/sys/module");
    sysModuleMounted_ = true;
  }
}

void FixtureMachine::SetKernelBuildDate(const std::string& date) {
  WriteFile("proc/kernel-version", "#1 SMP PREEMPT_DYNAMIC Debian 6.1.0-1 (" + date + ")\n");
  if (!kernelVersionMounted_) {
    BindMount(PathOf("proc/kernel-version"), "/proc/sys/kernel/version");
    kernelVersionMounted_ = true;
  }
}

RunResult FixtureMachine::Run(const std::vector<std::string>& argv, int timeoutSeconds) const {
  return RunFor(argv, std::chrono::seconds(timeoutSeconds));
}

RunResult FixtureMachine::RunGpuvetKilledAfter(const std::vector<std::string>& args, int milliseconds) const {
  std::vector<std::string> argv = {GpuvetBinary()};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunFor(argv, std::chrono::milliseconds(milliseconds));
}

RunResult FixtureMachine::RunFor(const std::vector<std::string>& argv, std::chrono::milliseconds limit) const {
  std::string script;
  for (const auto& [source, target] : mounts_) {
    script += "mount --bind " + ShellQuote(source) + " " + ShellQuote(target) + " || exit 125\n";
  }
  script += "exec \"$@\"\n";
  std::vector<std::string> command = {kUnshare, Probe().unshareFlags, "--", "/bin/sh", "-c", script, "sh"};
  command.insert(command.end(), argv.begin(), argv.end());
  return Spawn(command, env_, root_, limit);
}

RunResult FixtureMachine::RunGpuvet(const std::vector<std::string>& args, int timeoutSeconds) const {
  std::vector<std::string> argv = {GpuvetBinary()};
  argv.insert(argv.end(), args.begin(), args.end());
  return Run(argv, timeoutSeconds);
}

}  // namespace gpuvet::e2e
