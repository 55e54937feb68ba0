#include "platform/named_file.h"

#include <filesystem>
#include <iostream>
#include <iterator>
#include <system_error>

namespace gpuvet::platform {

FilePtr OpenRegularFile(const std::string& path, std::string& why) {
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(path, error);
  if (error) {
    why = error.message();
    return nullptr;
  }
  if (status.type() != std::filesystem::file_type::regular) {
    why = status.type() == std::filesystem::file_type::directory ? "a folder, not a regular file"
                                                                  : "not a regular file";
    return nullptr;
  }
  FilePtr file(std::fopen(path.c_str(), "rb"));
  if (file == nullptr) {
    why = "it can't be opened";
  }
  return file;
}

bool ReadStandardInput(std::string& text, std::string& /*why*/) {
  text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  return true;
}

}  // namespace gpuvet::platform
