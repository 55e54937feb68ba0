#include "lists/text_compare.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <vector>

namespace gpuvet::lists {
namespace {

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

// The run of bytes at `at` that are all digits, or all not.
std::string RunAt(const std::string& text, std::size_t at) {
  std::size_t end = at;
  while (end < text.size() && IsDigit(text[end]) == IsDigit(text[at])) {
    ++end;
  }
  return text.substr(at, end - at);
}

int CompareNumberRuns(std::string a, std::string b) {
  a.erase(0, std::min(a.find_first_not_of('0'), a.size()));
  b.erase(0, std::min(b.find_first_not_of('0'), b.size()));
  if (a.size() != b.size()) {
    return a.size() < b.size() ? -1 : 1;
  }
  return a.compare(b);
}

}  // namespace

std::size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) {
    row[j] = j;
  }
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

int CompareAsNumbers(const std::string& a, const std::string& b) {
  std::size_t i = 0;
  std::size_t j = 0;
  while (i < a.size() && j < b.size()) {
    const std::string runA = RunAt(a, i);
    const std::string runB = RunAt(b, j);
    const bool numbers = IsDigit(runA[0]) && IsDigit(runB[0]);
    const int order = numbers ? CompareNumberRuns(runA, runB) : runA.compare(runB);
    if (order != 0) {
      return order < 0 ? -1 : 1;
    }
    i += runA.size();
    j += runB.size();
  }
  if (i < a.size()) {
    return 1;
  }
  return j < b.size() ? -1 : 0;
}

std::size_t TurningByte(const std::string& a, const std::string& b) {
  const auto common = static_cast<std::ptrdiff_t>(std::min(a.size(), b.size()));
  return static_cast<std::size_t>(std::mismatch(a.begin(), a.begin() + common, b.begin()).first - a.begin());
}

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      quoted += escaped;
    } else {
      quoted += c;
    }
  }
  return quoted + "\"";
}

}  // namespace gpuvet::lists
