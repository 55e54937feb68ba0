#pragma once

#include <vector>

#include "opencl/cl_device_key.h"

namespace gpuvet {

constexpr const char* kBlackListRoot = "BlackList";
constexpr const char* kWhiteListRoot = "WhiteList";

// What reading a list file came to; each list test acts on it in its own way.
enum class ListFileOutcome {
  kLoadFailed,  // the file could not be loaded as XML; the message is on standard error
  kNotAList,    // no element at all, or a root of another name; nothing is said
  kRead,        // the items are read; there may be none
};

struct ListFile {
  ListFileOutcome outcome = ListFileOutcome::kLoadFailed;
  // Ascending by ClDeviceKeyLess, no two equal.
  std::vector<ClDeviceKey> items;
};

// Reads the items of the list file at path whose root element is named rootName.
// The items are the run of sibling elements that starts at the root's first
// "Item" and ends at the first node that is not an element; a field an item
// lacks keeps its fresh value.
ListFile ReadListFile(const char* path, const char* rootName);

}  // namespace gpuvet
