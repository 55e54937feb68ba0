#include "verdict/list_file.h"

#include <tinyxml2.h>

#include <cstdio>
#include <cstring>

#include "platform/runtime_text.h"

namespace gpuvet {
namespace {

constexpr const char* kItemElement = "Item";
constexpr const char* kVidElement = "VID";
constexpr const char* kDeviceNameElement = "DeviceName";
constexpr const char* kOpenCLCVersionElement = "OpenCLCVersion";
constexpr const char* kDeviceVersionElement = "DeviceVersion";
constexpr const char* kDriverVersionElement = "DriverVersion";

// The text of the named field of an item: the field's first child node, when
// that node is a text (CDATA included). Null when the field or the text is missing.
const char* FieldText(const tinyxml2::XMLElement& item, const char* fieldName) {
  const tinyxml2::XMLElement* field = item.FirstChildElement(fieldName);
  if (field == nullptr) {
    return nullptr;
  }
  const tinyxml2::XMLNode* first = field->FirstChild();
  const tinyxml2::XMLText* text = first == nullptr ? nullptr : first->ToText();
  return text == nullptr ? nullptr : text->Value();
}

void ReadTextField(const tinyxml2::XMLElement& item, const char* fieldName, std::string& target) {
  if (const char* text = FieldText(item, fieldName)) {
    target.assign(text);
  }
}

// The vendor id is a decimal "%d" scan: no hexadecimal form, so "0x8086" reads
// as 0. The signed number is kept bit for bit.
uint32_t ReadVendorId(const tinyxml2::XMLElement& item) {
  const char* text = FieldText(item, kVidElement);
  return text == nullptr ? 0 : static_cast<uint32_t>(platform::TextToInt(text));
}

ClDeviceKey ReadItem(const tinyxml2::XMLElement& item) {
  ClDeviceKey key;
  key.VID = ReadVendorId(item);
  ReadTextField(item, kDeviceNameElement, key.DeviceName);
  ReadTextField(item, kOpenCLCVersionElement, key.OpenCLCVersion);
  ReadTextField(item, kDeviceVersionElement, key.DeviceVersion);
  ReadTextField(item, kDriverVersionElement, key.DriverVersion);
  return key;
}

// The element after an item, when the very next node is one. Anything else
// between two items (a comment, a text) ends the list: deliberate, the list
// format has always been read this way.
const tinyxml2::XMLElement* NextItem(const tinyxml2::XMLElement& item) {
  const tinyxml2::XMLNode* next = item.NextSibling();
  return next == nullptr ? nullptr : next->ToElement();
}

// Counted ahead, so that a long list is stored without regrowing.
std::size_t CountItems(const tinyxml2::XMLElement* firstItem) {
  std::size_t count = 0;
  for (const tinyxml2::XMLElement* item = firstItem; item != nullptr; item = NextItem(*item)) {
    ++count;
  }
  return count;
}

// The items in file order. The document goes when the items are read.
ListFile ReadItems(const char* path, const char* rootName) {
  ListFile list;
  tinyxml2::XMLDocument document(true, tinyxml2::PRESERVE_WHITESPACE);
  if (document.LoadFile(path) != tinyxml2::XML_SUCCESS) {
    std::fprintf(stderr, "fail to parse xml file: %s\n", path);
    list.outcome = ListFileOutcome::kLoadFailed;
    return list;
  }
  const tinyxml2::XMLElement* root = document.FirstChildElement();
  if (root == nullptr || std::strcmp(root->Value(), rootName) != 0) {
    list.outcome = ListFileOutcome::kNotAList;
    return list;
  }
  const tinyxml2::XMLElement* firstItem = root->FirstChildElement(kItemElement);
  list.items.reserve(CountItems(firstItem));
  for (const tinyxml2::XMLElement* item = firstItem; item != nullptr; item = NextItem(*item)) {
    list.items.push_back(ReadItem(*item));
  }
  list.outcome = ListFileOutcome::kRead;
  return list;
}

}  // namespace

ListFile ReadListFile(const char* path, const char* rootName) {
  ListFile list = ReadItems(path, rootName);
  SortUnique(list.items);
  return list;
}

}  // namespace gpuvet
