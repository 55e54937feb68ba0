#include "lists/volatile_name.h"

#include <cctype>
#include <cstring>
#include <string_view>

namespace gpuvet::lists {
namespace {

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

// Where a word of the name ends: a blank, a comma or a bracket.
std::size_t WordEnd(std::string_view name, std::size_t at) {
  const std::size_t end = name.find_first_of(" ,()", at);
  return end == std::string_view::npos ? name.size() : end;
}

// "LLVM 17.0.6" or "DRM 3.57": the word, a blank, a version.
std::string_view NamedVersion(std::string_view name, std::string_view prefix) {
  for (std::size_t at = name.find(prefix); at != std::string_view::npos; at = name.find(prefix, at + 1)) {
    const std::size_t version = at + prefix.size();
    const bool wordStarts = at == 0 || std::strchr(" ,(", name[at - 1]) != nullptr;
    if (wordStarts && version < name.size() && IsDigit(name[version])) {
      return name.substr(at, WordEnd(name, version) - at);
    }
  }
  return {};
}

// A kernel release: at least two dot-separated numbers, then a dash and more
// ("6.9.0-273-tkg", "5.15.0-91-generic").
bool IsKernelRelease(std::string_view word) {
  std::size_t at = 0;
  int numbers = 0;
  while (at < word.size() && IsDigit(word[at])) {
    while (at < word.size() && IsDigit(word[at])) ++at;
    ++numbers;
    if (at < word.size() && word[at] == '.') ++at;
    else break;
  }
  return numbers >= 2 && at + 1 < word.size() && word[at] == '-';
}

}  // namespace

std::string VolatileNamePart(std::string_view name) {
  for (const std::string_view stack : {std::string_view("LLVM "), std::string_view("DRM ")}) {
    const std::string_view part = NamedVersion(name, stack);
    if (!part.empty()) {
      return std::string(part);
    }
  }
  const std::string_view text = name;
  for (std::size_t at = 0; at < text.size(); at = WordEnd(text, at) + 1) {
    const std::string_view word = text.substr(at, WordEnd(text, at) - at);
    if (IsKernelRelease(word)) {
      return std::string(word);
    }
  }
  return "";
}

}  // namespace gpuvet::lists
