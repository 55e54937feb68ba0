#include "platform/runtime_text.h"

#include <cstdlib>
#include <cwchar>
#include <vector>

#include "platform/process.h"
#include "platform/windows/wide_text.h"

namespace gpuvet::platform {

// The narrow texts are command line elements as the entry passed them on: each
// stands for the wide element, which is what the runtime's calls look at. The
// tool never sets a locale, so all of them run in the "C" locale.

int CompareIgnoreCase(const char* a, const char* b) {
  // msvcrt's _wcsicmp answers a null argument with a number instead of calling
  // the invalid parameter handler: the check is made here.
  if (a == nullptr || b == nullptr) {
    ReportInvalidParameter();
    return 1;
  }
  return ::_wcsicmp(windows::FromArgument(a).c_str(), windows::FromArgument(b).c_str());
}

// The _wtoi rule, with saturation at the 32-bit limits: wcstol gives it on every
// Windows (long is 32 bits there), while what msvcrt's _wtoi does past the range
// is not documented.
int32_t TextToInt(const char* text) {
  return static_cast<int32_t>(std::wcstol(windows::FromArgument(text).c_str(), nullptr, 10));
}

// wcstombs into a zeroed buffer of kMaxPathValueBytes + 1 bytes: each character
// up to U+00FF becomes one byte, and the first beyond it ends the value without
// a word. A value that fills the whole buffer is refused.
bool NarrowPathValue(const char* value, std::string& target) {
  std::vector<char> buffer(kMaxPathValueBytes + 1, '\0');
  std::wcstombs(buffer.data(), windows::FromArgument(value).c_str(), buffer.size());
  if (buffer.back() != '\0') {
    return false;
  }
  target = buffer.data();
  return true;
}

}  // namespace gpuvet::platform
