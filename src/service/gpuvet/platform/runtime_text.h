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

// A command line path value as the tool keeps it, byte for byte. False, with
// the target untouched, when it is too long for the tool's path buffer: the
// runtime would hand that to the invalid parameter handler.
bool NarrowPathValue(const char* value, std::string& target);

// The longest path value, in bytes, that the tool accepts.
constexpr std::size_t kMaxPathValueBytes = 2047;

}  // namespace gpuvet::platform
