// Feeds arbitrary argument vectors through the command line reading. The input
// is split at NUL bytes into arguments. The reading carries out nothing, so
// every element may stand in it; what it finds must hold together.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "command_line.h"
#include "platform/runtime_text.h"

namespace {

using gpuvet::CommandLine;
using gpuvet::CommandLineAction;

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

void Check(bool holds) {
  if (!holds) {
    std::abort();
  }
}

bool EndsThePass(CommandLineAction action) {
  return action == CommandLineAction::kBlankRun || action == CommandLineAction::kInvalidParameter;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> arguments = SplitArguments(data, size);
  std::vector<const char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(argument.c_str());
  }
  argv.push_back(nullptr);

  const CommandLine line = gpuvet::ReadCommandLine(static_cast<int>(arguments.size()), argv.data());
  for (const std::string* path : {&line.options.blackListPath, &line.options.whiteListPath, &line.options.resultDir}) {
    Check(path->size() <= gpuvet::platform::kMaxPathValueBytes);
  }
  // Only the last action may end the pass, and each element gives at most two.
  for (std::size_t i = 0; i + 1 < line.actions.size(); ++i) {
    Check(!EndsThePass(line.actions[i]));
  }
  Check(line.actions.size() <= 2 * arguments.size());
  return 0;
}
