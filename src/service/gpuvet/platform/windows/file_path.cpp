#include "platform/file_path.h"

namespace gpuvet::platform {

std::string JoinPath(const std::string& directory, const std::string& fileName) {
  return directory + "\\" + fileName;
}

const char* PathSeparators() { return "\\/"; }

}  // namespace gpuvet::platform
