#include "platform/file_path.h"

namespace platform {

std::string JoinPath(const std::string& directory, const std::string& fileName) {
  return directory + "/" + fileName;
}

}  // namespace platform
