#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace gpuvet::lists {

// The number of single-byte insertions, deletions and replacements that turn a into b.
std::size_t EditDistance(const std::string& a, const std::string& b);

// Compares two version texts as a reader would: runs of digits as numbers,
// the rest byte by byte. Below 0, 0 or above 0, as strcmp.
int CompareAsNumbers(std::string_view a, std::string_view b);

// Where a byte-by-byte comparison of a and b turns: the index of the first byte
// that differs, or the shorter length when one begins with the other.
std::size_t TurningByte(const std::string& a, const std::string& b);

// The text with non-printing bytes written as \xNN, for messages.
std::string Quoted(std::string_view text);

}  // namespace gpuvet::lists
