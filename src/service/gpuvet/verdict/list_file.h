#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "opencl/cl_device_key.h"

namespace tinyxml2 {
class XMLDocument;
class XMLElement;
}

namespace gpuvet {

constexpr const char* kBlackListRoot = "BlackList";
constexpr const char* kWhiteListRoot = "WhiteList";
constexpr const char* kItemElement = "Item";

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

// An empty document, set up as every list reading sets it up: entities
// processed, white space kept.
std::unique_ptr<tinyxml2::XMLDocument> NewListDocument();

// Reads the items of the list file at path whose root element is named rootName.
ListFile ReadListFile(const char* path, const char* rootName);
// How a run gets a list: read from the file each time, or lists read once before.
using ListReader = std::function<ListFile(const char* path, const char* rootName)>;

// The steps of the reading, one item at a time. The items are the run of
// sibling elements that starts at the root's first "Item" and ends at the first
// node that is not an element: a comment or a text between two items ends the
// list, and an element of another name after the first item is an item too.
const tinyxml2::XMLElement* FirstItem(const tinyxml2::XMLElement& root);
const tinyxml2::XMLElement* NextItem(const tinyxml2::XMLElement& item);
// The key an item stands for. Each field is the first child element of its
// name; a field that is missing, or whose first child is no text, keeps its
// fresh value. VID is a decimal number: "0x10de" reads as 0.
ClDeviceKey ReadItem(const tinyxml2::XMLElement& item);
// The text of a field element: its first child node, when that node is a text
// (CDATA included). Empty, the fresh value, when there is no such element or text.
const char* FieldText(const tinyxml2::XMLElement& item, const char* fieldName);

}  // namespace gpuvet
