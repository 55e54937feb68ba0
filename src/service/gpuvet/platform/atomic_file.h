#pragma once

#include <cstdint>
#include <string>

namespace gpuvet::platform {

// Replaces the file at path with the text so that a run cut off at any moment
// leaves the old content or the new one, never a torn file. A path that is a
// symbolic link stays one: the file it points to is replaced. The replaced file
// keeps its permission bits, and its owner and group where the process may set
// them. Temporary files that cut-off runs left beside it are removed on the way;
// one that a live run is writing is never touched. 0, or -1 on failure.
int32_t ReplaceFileAtomically(const std::string& path, const std::string& text);

}  // namespace gpuvet::platform
