#include "verdict/list_file.h"

#include <tinyxml2.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "platform/runtime_text.h"

namespace gpuvet {
namespace {

ListFileObserver& Observer() {
  static ListFileObserver observer;
  return observer;
}

// Sorts the items with their lines and keeps the first of each run of equal
// items, the one that stands first in the file.
void SortUniqueWithLines(std::vector<std::pair<ClDeviceKey, int>>& read, ListFile& list) {
  std::stable_sort(read.begin(), read.end(),
                   [](const auto& a, const auto& b) { return ClDeviceKeyLess(a.first, b.first); });
  list.items.reserve(read.size());
  list.lines.reserve(read.size());
  for (auto& [key, line] : read) {
    if (list.items.empty() || !ClDeviceKeyEqual(list.items.back(), key)) {
      list.items.push_back(std::move(key));
      list.lines.push_back(line);
    }
  }
}

ListFile Read(const char* path, const char* rootName) {
  ListFile list;
  const std::unique_ptr<tinyxml2::XMLDocument> documentOwner = NewListDocument();
  tinyxml2::XMLDocument& document = *documentOwner;
  if (document.LoadFile(path) != tinyxml2::XML_SUCCESS) {
    std::fprintf(stderr, "fail to parse xml file: %s\n", path);
    list.outcome = ListFileOutcome::kLoadFailed;
    list.loadError = document.ErrorName();
    return list;
  }
  const tinyxml2::XMLElement* root = document.FirstChildElement();
  if (root == nullptr || std::strcmp(root->Value(), rootName) != 0) {
    list.outcome = ListFileOutcome::kNotAList;
    list.rootFound = root == nullptr ? "" : root->Value();
    return list;
  }
  std::vector<std::pair<ClDeviceKey, int>> read;
  for (const tinyxml2::XMLElement* item = FirstItem(*root); item != nullptr; item = NextItem(*item)) {
    read.emplace_back(ReadItem(*item), item->GetLineNum());
  }
  SortUniqueWithLines(read, list);
  list.outcome = ListFileOutcome::kRead;
  return list;
}

}  // namespace

std::string FieldValue(const ClDeviceKey& key, const KeyField& field) {
  return field.text == nullptr ? std::to_string(key.VID) : key.*field.text;
}

const char* FieldText(const tinyxml2::XMLElement& item, const char* fieldName) {
  return ElementText(item.FirstChildElement(fieldName));
}

const char* ElementText(const tinyxml2::XMLElement* field) {
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
  for (const KeyField& field : kKeyFields) {
    const char* text = FieldText(item, field.name);
    if (field.text == nullptr) {
      key.VID = ReadVid(text);
    } else {
      key.*field.text = text;
    }
  }
  return key;
}

uint32_t ReadVid(const char* text) {
  return static_cast<uint32_t>(platform::TextToInt(text));
}

ListFile ReadListFile(const char* path, const char* rootName) {
  ListFile list = Read(path, rootName);
  if (Observer()) {
    Observer()(rootName, list);
  }
  return list;
}

std::shared_ptr<const ListFile> ReadListFileAnew(const char* path, const char* rootName) {
  return std::make_shared<const ListFile>(ReadListFile(path, rootName));
}

void ObserveListFiles(ListFileObserver observer) {
  Observer() = std::move(observer);
}

}  // namespace gpuvet
