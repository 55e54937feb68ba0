#pragma once

#include <string>
#include <vector>

namespace gpuvet::lists {

enum class Severity { kWarning, kError };

// One place where a list file does not do what its author most likely meant.
struct Finding {
  std::string file;
  int line = 0;
  int column = 0;
  Severity severity = Severity::kWarning;
  std::string check;
  std::string message;
};

// "FILE:LINE:COLUMN: error: MESSAGE [CHECK]", the form compilers use.
std::string FormatFinding(const Finding& finding);
// An array of objects with file, line, column, severity, check and message.
std::string FindingsJson(const std::vector<Finding>& findings);
// 0 when there is none, 1 with warnings only, 2 with any error.
int FindingsStatus(const std::vector<Finding>& findings);

}  // namespace gpuvet::lists
