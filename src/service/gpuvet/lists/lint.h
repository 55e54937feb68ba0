#pragma once

#include <string>
#include <vector>

#include "lists/finding.h"

namespace gpuvet::lists {

// What a list is meant to be: either, or one kind named on the command line.
enum class ListKind { kEither, kBlack, kWhite };

struct LintResult {
  bool opened = false;    // false: the file could not be read at all
  std::string openError;  // why, when not opened
  std::vector<Finding> findings;  // by line and column
};

// Reads the file as gpuvet reads a list and reports every place where it does
// not do what its author most likely meant.
LintResult LintListFile(const std::string& path, ListKind expected);

}  // namespace gpuvet::lists
