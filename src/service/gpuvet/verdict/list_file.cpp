#include "verdict/list_file.h"

#include <tinyxml2.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/runtime_text.h"

namespace gpuvet {

const char* FieldText(const tinyxml2::XMLElement& item, const char* fieldName) {
  const tinyxml2::XMLElement* field = item.FirstChildElement(fieldName);
  const tinyxml2::XMLNode* first = field == nullptr ? nullptr : field->FirstChild();
  const tinyxml2::XMLText* text = first == nullptr ? nullptr : first->ToText();
  return text == nullptr ? "" : text->Value();
}

std::unique_ptr<tinyxml2::XMLDocument> NewListDocument() {
  return std::make_unique<tinyxml2::XMLDocument>(true, tinyxml2::PRESERVE_WHITESPACE);
}

const tinyxml2::XMLElement* FirstItem(const tinyxml2::XMLElement& root) {
  return root.FirstChildElement(kItemElement);
}

// Anything but an element right after an item ends the list: deliberate, the
// list format has always been read this way.
const tinyxml2::XMLElement* NextItem(const tinyxml2::XMLElement& item) {
  const tinyxml2::XMLNode* next = item.NextSibling();
  return next == nullptr ? nullptr : next->ToElement();
}

// The vendor id is a "%d" scan, kept bit for bit in the unsigned field; the
// texts are taken as they stand, blanks included.
ClDeviceKey ReadItem(const tinyxml2::XMLElement& item) {
  ClDeviceKey key;
  key.VID = static_cast<uint32_t>(platform::TextToInt(FieldText(item, "VID")));
  key.DeviceName = FieldText(item, "DeviceName");
  key.OpenCLCVersion = FieldText(item, "OpenCLCVersion");
  key.DeviceVersion = FieldText(item, "DeviceVersion");
  key.DriverVersion = FieldText(item, "DriverVersion");
  return key;
}

ListFile ReadListFile(const char* path, const char* rootName) {
  ListFile list;
  const std::unique_ptr<tinyxml2::XMLDocument> documentOwner = NewListDocument();
  tinyxml2::XMLDocument& document = *documentOwner;
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
  for (const tinyxml2::XMLElement* item = FirstItem(*root); item != nullptr; item = NextItem(*item)) {
    list.items.push_back(ReadItem(*item));
  }
  SortUnique(list.items);
  list.outcome = ListFileOutcome::kRead;
  return list;
}

std::shared_ptr<const ListFile> ReadListFileAnew(const char* path, const char* rootName) {
  return std::make_shared<const ListFile>(ReadListFile(path, rootName));
}

}  // namespace gpuvet
