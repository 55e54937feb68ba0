#include "platform/file_path.h"

namespace gpuvet::platform {

void SplitPath(const std::string& path, std::string& directory, std::string& fileName) {
  const std::size_t separator = path.find_last_of(PathSeparators());
  if (separator == std::string::npos) {
    directory = ".";
    fileName = path;
    return;
  }
  directory = separator == 0 ? path.substr(0, 1) : path.substr(0, separator);
  fileName = path.substr(separator + 1);
}

}  // namespace gpuvet::platform
