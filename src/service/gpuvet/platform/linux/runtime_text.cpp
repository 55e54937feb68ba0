#include "platform/runtime_text.h"

#include <cstring>
#include <limits>

#include "platform/process.h"

namespace gpuvet::platform {
namespace {

char AsciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool IsCSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

}  // namespace

int CompareIgnoreCase(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) {
    ReportInvalidParameter();
    return 1;
  }
  for (;; ++a, ++b) {
    const int difference = static_cast<unsigned char>(AsciiLower(*a)) - static_cast<unsigned char>(AsciiLower(*b));
    if (difference != 0 || *a == '\0') {
      return difference;
    }
  }
}

int32_t TextToInt(const char* text) {
  constexpr int64_t kMax = std::numeric_limits<int32_t>::max();
  constexpr int64_t kMin = std::numeric_limits<int32_t>::min();
  while (IsCSpace(*text)) {
    ++text;
  }
  const bool negative = *text == '-';
  if (*text == '-' || *text == '+') {
    ++text;
  }
  int64_t magnitude = 0;
  for (; *text >= '0' && *text <= '9'; ++text) {
    // Past the limit the value only saturates; stop growing before int64 would overflow.
    if (magnitude <= kMax + 1) {
      magnitude = magnitude * 10 + (*text - '0');
    }
  }
  const int64_t value = negative ? -magnitude : magnitude;
  if (value > kMax) {
    return static_cast<int32_t>(kMax);
  }
  if (value < kMin) {
    return static_cast<int32_t>(kMin);
  }
  return static_cast<int32_t>(value);
}

bool NarrowPathValue(const char* value, std::string& target) {
  if (std::strlen(value) > kMaxPathValueBytes) {
    return false;
  }
  target = value;
  return true;
}

}  // namespace gpuvet::platform
