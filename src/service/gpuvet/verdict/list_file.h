#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>
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

// The five fields of an item, in the order of the key; each is an element of
// its own name inside the item. VID is the one number and has no text member.
struct KeyField {
  const char* name;
  std::string ClDeviceKey::*text;
};
inline constexpr std::array<KeyField, 5> kKeyFields = {{{"VID", nullptr},
                                                        {"DeviceName", &ClDeviceKey::DeviceName},
                                                        {"OpenCLCVersion", &ClDeviceKey::OpenCLCVersion},
                                                        {"DeviceVersion", &ClDeviceKey::DeviceVersion},
                                                        {"DriverVersion", &ClDeviceKey::DriverVersion}}};
// The three versions follow the vendor and the name.
constexpr std::size_t kFirstVersionField = 2;

// A field's value as a list file writes it: VID in decimal, the texts as they stand.
std::string FieldValue(const ClDeviceKey& key, const KeyField& field);

// What reading a list file came to; each list test acts on it in its own way.
enum class ListFileOutcome {
  kLoadFailed,  // the file could not be loaded as XML; the message is on standard error
  kNotAList,    // no element at all, or a root of another name; nothing is said
  kRead,        // the items are read; there may be none
};

struct ListFile {
  ListFileOutcome outcome = ListFileOutcome::kLoadFailed;
  std::string loadError;  // kLoadFailed: the parser's name for the failure
  std::string rootFound;  // kNotAList: the root element's name, empty when there is none
  // Ascending by ClDeviceKeyLess, no two equal.
  std::vector<ClDeviceKey> items;
  // lines[i]: the line of the first item in the file that reads as items[i].
  std::vector<int> lines;
};

// An empty document, set up as every list reading sets it up: entities
// processed, white space kept.
std::unique_ptr<tinyxml2::XMLDocument> NewListDocument();

// Reads the items of the list file at path whose root element is named rootName.
ListFile ReadListFile(const char* path, const char* rootName);
// How a run gets a list: read from the file each time (ReadListFileAnew), or
// from lists read once before.
using ListReader = std::function<std::shared_ptr<const ListFile>(const char* path, const char* rootName)>;
std::shared_ptr<const ListFile> ReadListFileAnew(const char* path, const char* rootName);

// Hands every list file that ReadListFile reads from now on, as read, to the
// observer (none: the default): a report on a run learns which items decided
// without reading the files a second time.
using ListFileObserver = std::function<void(const char* rootName, const ListFile& list)>;
void ObserveListFiles(ListFileObserver observer);

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
// The vendor id that a VID text reads as.
uint32_t ReadVid(const char* text);
// The text of a field element: its first child node, when that node is a text
// (CDATA included). Empty, the fresh value, when there is no such element or text.
const char* FieldText(const tinyxml2::XMLElement& item, const char* fieldName);
// The text of one field element, by the same rule; empty for no element.
const char* ElementText(const tinyxml2::XMLElement* field);

}  // namespace gpuvet
