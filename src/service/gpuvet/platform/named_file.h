#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace gpuvet::platform {

// The name that stands for standard input.
constexpr const char* kStandardInputName = "-";

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Opens a file that a user named for reading, when it is a regular file.
// Anything else (a FIFO, a device, a folder) is refused without waiting on it:
// null, with why in a few words.
FilePtr OpenRegularFile(const std::string& path, std::string& why);

// Reads the whole of standard input.
bool ReadStandardInput(std::string& text, std::string& why);

}  // namespace gpuvet::platform
