#include "lists/finding.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace gpuvet::lists {
namespace {

const char* SeverityName(Severity severity) { return severity == Severity::kError ? "error" : "warning"; }

}  // namespace

std::string FormatFinding(const Finding& finding) {
  return finding.file + ":" + std::to_string(finding.line) + ":" + std::to_string(finding.column) + ": " +
         SeverityName(finding.severity) + ": " + finding.message + " [" + finding.check + "]";
}

std::string FindingsJson(const std::vector<Finding>& findings) {
  nlohmann::ordered_json array = nlohmann::ordered_json::array();
  for (const Finding& finding : findings) {
    array.push_back({{"file", finding.file},
                     {"line", finding.line},
                     {"column", finding.column},
                     {"severity", SeverityName(finding.severity)},
                     {"check", finding.check},
                     {"message", finding.message}});
  }
  // List texts are bytes: what is not UTF-8 is replaced rather than refused,
  // and all else beyond ASCII is escaped, so no control reaches a terminal.
  return array.dump(2, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

int FindingsStatus(const std::vector<Finding>& findings) {
  if (findings.empty()) {
    return 0;
  }
  const bool anyError = std::any_of(findings.begin(), findings.end(),
                                    [](const Finding& finding) { return finding.severity == Severity::kError; });
  return anyError ? 2 : 1;
}

}  // namespace gpuvet::lists
