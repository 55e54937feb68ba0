#include "platform/named_file.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <system_error>

namespace gpuvet::platform {

bool ReadNamedFile(const std::string& path, std::string& text, std::string& why) {
  text.clear();
  if (path == kStandardInputName) {
    text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    return true;
  }
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(path, error);
  if (error) {
    why = error.message();
    return false;
  }
  if (status.type() != std::filesystem::file_type::regular) {
    why = status.type() == std::filesystem::file_type::directory ? "a folder, not a regular file"
                                                                  : "not a regular file";
    return false;
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    why = "it can't be opened";
    return false;
  }
  text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return true;
}

}  // namespace gpuvet::platform
