#include "lists/text_compare.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string_view>
#include <vector>

namespace gpuvet::lists {
namespace {

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

// The run of bytes at `at` that are all digits, or all not.
std::string_view RunAt(std::string_view text, std::size_t at) {
  std::size_t end = at;
  while (end < text.size() && IsDigit(text[end]) == IsDigit(text[at])) {
    ++end;
  }
  return text.substr(at, end - at);
}

int CompareNumberRuns(std::string_view a, std::string_view b) {
  a.remove_prefix(std::min(a.find_first_not_of('0'), a.size()));
  b.remove_prefix(std::min(b.find_first_not_of('0'), b.size()));
  if (a.size() != b.size()) {
    return a.size() < b.size() ? -1 : 1;
  }
  return a.compare(b);
}

// The length of the well-formed UTF-8 sequence at `at`, or 0 when the byte
// there starts none (a stray continuation, an overlong form, a surrogate, a
// value past U+10FFFF, a sequence cut short).
std::size_t Utf8SequenceLength(std::string_view text, std::size_t at) {
  const auto byte = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  if (lead < 0x80) return 1;
  const std::size_t length = lead >= 0xc2 && lead <= 0xdf ? 2 : lead >= 0xe0 && lead <= 0xef ? 3
                             : lead >= 0xf0 && lead <= 0xf4                                 ? 4
                                                                                            : 0;
  if (length == 0 || at + length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xc0) != 0x80) return 0;
  }
  const unsigned char second = byte(at + 1);
  const bool overlongOrBeyond = (lead == 0xe0 && second < 0xa0) || (lead == 0xf0 && second < 0x90) ||
                                (lead == 0xf4 && second > 0x8f) || (lead == 0xed && second > 0x9f);
  return overlongOrBeyond ? 0 : length;
}

char32_t DecodeUtf8(std::string_view text, std::size_t at, std::size_t length) {
  static constexpr unsigned char kLeadMask[] = {0, 0x7f, 0x1f, 0x0f, 0x07};
  char32_t value = static_cast<unsigned char>(text[at]) & kLeadMask[length];
  for (std::size_t i = 1; i < length; ++i) {
    value = (value << 6) | (static_cast<unsigned char>(text[at + i]) & 0x3f);
  }
  return value;
}

// What a terminal acts on rather than shows, or shows in another order.
bool IsControlOrTurn(char32_t c) {
  return c < 0x20 || (c >= 0x7f && c <= 0x9f) || (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069) ||
         c == 0x200e || c == 0x200f || c == 0x061c;
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

int CompareAsNumbers(std::string_view a, std::string_view b) {
  std::size_t i = 0;
  std::size_t j = 0;
  while (i < a.size() && j < b.size()) {
    const std::string_view runA = RunAt(a, i);
    const std::string_view runB = RunAt(b, j);
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

// Control characters, C0 and C1 (a one-byte CSI is U+009B), the marks that turn
// the direction of text, and bytes that are not UTF-8 are written as \xNN, one
// per byte; the quote and the backslash are escaped, so the text reads back whole.
std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t length = Utf8SequenceLength(text, at);
    const bool shown = length > 0 && !IsControlOrTurn(DecodeUtf8(text, at, length));
    if (shown && (text[at] == '"' || text[at] == '\\')) {
      quoted += '\\';
    }
    if (shown) {
      quoted.append(text, at, length);
    }
    for (std::size_t i = 0; !shown && i < std::max<std::size_t>(length, 1); ++i) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(text[at + i]));
      quoted += escaped;
    }
    at += std::max<std::size_t>(length, 1);
  }
  return quoted + "\"";
}

}  // namespace gpuvet::lists
