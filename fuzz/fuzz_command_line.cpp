// Feeds arbitrary argument vectors through the command line parse. The input is
// split at NUL bytes into arguments. --blankrun never returns and --details
// asks OpenCL, so elements naming them are left out.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "command_line.h"
#include "platform/process.h"
#include "platform/runtime_text.h"
#include "run_options.h"

namespace {

// The run ends here in production; the fuzzer goes on with the next input.
struct InvalidParameterStop {};

void ThrowInvalidParameter() {
  throw InvalidParameterStop{};
}

bool IsLeftOut(const std::string& argument) {
  return platform::CompareIgnoreCase(argument.c_str(), "--blankrun") == 0 ||
         platform::CompareIgnoreCase(argument.c_str(), "--details") == 0;
}

std::vector<std::string> SplitArguments(const uint8_t* data, size_t size) {
  std::vector<std::string> arguments = {"gpuvet"};
  std::string current;
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      arguments.push_back(current);
      current.clear();
    } else {
      current += static_cast<char>(data[i]);
    }
  }
  arguments.push_back(current);
  return arguments;
}

void CheckPath(const std::string& path) {
  if (path.size() > platform::kMaxPathValueBytes) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  platform::SetInvalidParameterHandler(ThrowInvalidParameter);
  // --help prints; the usage lines are of no interest here.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) {
    std::abort();
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> arguments = SplitArguments(data, size);
  for (const std::string& argument : arguments) {
    if (IsLeftOut(argument)) {
      return 0;
    }
  }
  std::vector<char*> argv;
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);

  gpuvet::g_runOptions = gpuvet::RunOptions{};
  try {
    gpuvet::ParseCommandLine(static_cast<int>(arguments.size()), argv.data());
  } catch (const InvalidParameterStop&) {
    return 0;
  }
  CheckPath(gpuvet::g_runOptions.blackListPath);
  CheckPath(gpuvet::g_runOptions.whiteListPath);
  CheckPath(gpuvet::g_runOptions.resultDir);
  return 0;
}
