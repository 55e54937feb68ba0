// The Windows entry: the host passes UTF-16 arguments. Each goes to the run as
// narrow text that keeps it whole (see ToArgument); the runtime text functions
// of this layer compare, convert and narrow the wide element it stands for, so
// option names, numbers and path values come out as the wide calls give them.
#include <string>
#include <vector>

#include "entry.h"
#include "platform/process.h"
#include "platform/windows/wide_text.h"

int wmain(int argc, wchar_t** argv) {
  std::vector<std::string> texts;
  texts.reserve(static_cast<std::size_t>(argc));
  for (int index = 0; index < argc; ++index) {
    texts.push_back(gpuvet::platform::windows::ToArgument(argv[index]));
  }
  // argv[argc] stays a null pointer, as the runtime hands it over.
  std::vector<char*> arguments;
  arguments.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    arguments.push_back(text.data());
  }
  arguments.push_back(nullptr);
  gpuvet::platform::EndProcess(gpuvet::GpuvetMain(argc, arguments.data()));
}
