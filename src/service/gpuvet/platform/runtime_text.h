#pragma once

#include <cstdint>
#include <string>

// The runtime library's text operations the command line relies on.
namespace gpuvet::platform {

// Compares two option names ignoring case (ASCII). 0 when equal. A null argument
// goes to the invalid parameter handler, which ends the process.
int CompareIgnoreCase(const char* a, const char* b);

// Leading white space, an optional sign, decimal digits up to the first other
// character; saturates at the 32-bit limits; no number gives 0.
int32_t TextToInt(const char* text);

// Stores a command line path value byte for byte. A value too long for the
// tool's path buffer goes to the invalid parameter handler.
void StorePathValue(const char* value, std::string& target);

// The longest path value, in bytes, that the tool accepts.
constexpr std::size_t kMaxPathValueBytes = 2047;

}  // namespace gpuvet::platform
