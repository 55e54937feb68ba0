#pragma once

#include <string>

namespace gpuvet::platform {

// The name that stands for standard input.
constexpr const char* kStandardInputName = "-";

// Reads the whole of a file that a user named: a regular file, or standard
// input for "-". Anything else (a FIFO, a device, a folder) is refused without
// waiting on it: false, with why in a few words.
bool ReadNamedFile(const std::string& path, std::string& text, std::string& why);

}  // namespace gpuvet::platform
