#pragma once

#include <string>

// How the tool names a file inside a directory.
namespace gpuvet::platform {

// The directory text, the platform's separator and the file name, joined as
// they stand: a separator at the end of the directory is not looked for.
std::string JoinPath(const std::string& directory, const std::string& fileName);

// The characters that end a folder's name in a path.
const char* PathSeparators();

// The folder part of a path ("." when it names none) and the file name after it.
void SplitPath(const std::string& path, std::string& directory, std::string& fileName);

}  // namespace gpuvet::platform
