#include "platform/windows/wide_text.h"

#include "platform/utf8.h"

#include <windows.h>

namespace gpuvet::platform::windows {
namespace {

constexpr char32_t kHighSurrogateFirst = 0xD800;
constexpr char32_t kLowSurrogateFirst = 0xDC00;
constexpr char32_t kSurrogateEnd = 0xE000;
constexpr char32_t kSupplementaryFirst = 0x10000;

bool IsHigh(wchar_t unit) {
  return unit >= kHighSurrogateFirst && unit < kLowSurrogateFirst;
}
bool IsLow(wchar_t unit) {
  return unit >= kLowSurrogateFirst && unit < kSurrogateEnd;
}

void AppendUnits(char32_t point, std::wstring& text) {
  if (point < kSupplementaryFirst) {
    text += static_cast<wchar_t>(point);
    return;
  }
  point -= kSupplementaryFirst;
  text += static_cast<wchar_t>(kHighSurrogateFirst + (point >> 10));
  text += static_cast<wchar_t>(kLowSurrogateFirst + (point & 0x3FF));
}

}  // namespace

std::string ToUtf8(const wchar_t* text) {
  const int bytes = ::WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
  if (bytes <= 1) {
    return std::string();
  }
  std::string result(static_cast<std::size_t>(bytes), '\0');
  ::WideCharToMultiByte(CP_UTF8, 0, text, -1, result.data(), bytes, nullptr, nullptr);
  result.resize(static_cast<std::size_t>(bytes - 1));
  return result;
}

std::string ToArgument(const wchar_t* text) {
  std::string result;
  for (; *text != L'\0'; ++text) {
    char32_t point = static_cast<char32_t>(*text);
    if (IsHigh(text[0]) && IsLow(text[1])) {
      point = kSupplementaryFirst + ((point - kHighSurrogateFirst) << 10) + (text[1] - kLowSurrogateFirst);
      ++text;
    }
    AppendUtf8(result, point);
  }
  return result;
}

// Reads only what ToArgument writes; a byte outside that form stands for itself.
std::wstring FromArgument(const char* text) {
  std::wstring result;
  const auto* byte = reinterpret_cast<const unsigned char*>(text);
  while (*byte != 0) {
    const unsigned lead = *byte;
    const int trail = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
    char32_t point = trail == 0 ? lead : (lead & (0x3F >> trail));
    int taken = 1;
    for (; taken <= trail && (byte[taken] & 0xC0) == 0x80; ++taken) {
      point = (point << 6) | (byte[taken] & 0x3F);
    }
    if (taken <= trail) {
      point = lead;
      taken = 1;
    }
    AppendUnits(point, result);
    byte += taken;
  }
  return result;
}

std::wstring PathToWide(const std::string& path) {
  const int units = ::MultiByteToWideChar(CP_ACP, 0, path.c_str(), -1, nullptr, 0);
  if (units <= 1) {
    return std::wstring();
  }
  std::wstring result(static_cast<std::size_t>(units), L'\0');
  ::MultiByteToWideChar(CP_ACP, 0, path.c_str(), -1, result.data(), units);
  result.resize(static_cast<std::size_t>(units - 1));
  return result;
}

}  // namespace gpuvet::platform::windows
