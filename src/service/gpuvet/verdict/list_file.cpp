#include "verdict/list_file.h"

#include <tinyxml2.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/runtime_text.h"

namespace gpuvet {
namespace {

constexpr const char* kItemElement = "Item";

// The elements of an item's fields, in the order of the record.
enum Field { kVid, kDeviceName, kOpenCLCVersion, kDeviceVersion, kDriverVersion, kFieldCount };
constexpr const char* kFieldElements[kFieldCount] = {"VID", "DeviceName", "OpenCLCVersion", "DeviceVersion",
                                                     "DriverVersion"};

// The field an element of the given name holds, or kFieldCount for none. Fields
// usually stand in the order of the record, so the search starts at the field
// after the one found last.
int FieldOf(const char* elementName, int likelyField) {
  for (int offset = 0; offset < kFieldCount; ++offset) {
    const int field = (likelyField + offset) % kFieldCount;
    if (std::strcmp(elementName, kFieldElements[field]) == 0) {
      return field;
    }
  }
  return kFieldCount;
}

// The text of a field element: its first child node, when that node is a text
// (CDATA included). Empty, the fresh value, when there is no such text.
std::string_view FieldText(const tinyxml2::XMLElement& field) {
  const tinyxml2::XMLNode* first = field.FirstChild();
  const tinyxml2::XMLText* text = first == nullptr ? nullptr : first->ToText();
  return text == nullptr ? std::string_view() : std::string_view(text->Value());
}

// Each field is found by its name, so fields stand in any order among other
// nodes, and of a repeated field the first counts. One pass over the children
// finds them all: a long list has no time for a search per field.
ClDeviceKeyView ReadItem(const tinyxml2::XMLElement& item) {
  std::string_view texts[kFieldCount];
  bool found[kFieldCount] = {};
  int foundCount = 0;
  int likelyField = kVid;
  for (const tinyxml2::XMLElement* element = item.FirstChildElement(); element != nullptr && foundCount < kFieldCount;
       element = element->NextSiblingElement()) {
    const int field = FieldOf(element->Name(), likelyField);
    if (field < kFieldCount && !found[field]) {
      found[field] = true;
      ++foundCount;
      texts[field] = FieldText(*element);
      likelyField = field + 1;
    }
  }
  ClDeviceKeyView view;
  // The vendor id is a decimal "%d" scan: no hexadecimal form, so "0x8086"
  // reads as 0. The signed number is kept bit for bit. A text view ends where
  // its text does, so the scan sees the same characters.
  if (!texts[kVid].empty()) {
    view.VID = static_cast<uint32_t>(platform::TextToInt(texts[kVid].data()));
  }
  view.DeviceName = texts[kDeviceName];
  view.OpenCLCVersion = texts[kOpenCLCVersion];
  view.DeviceVersion = texts[kDeviceVersion];
  view.DriverVersion = texts[kDriverVersion];
  return view;
}

ClDeviceKey BuildKey(const ClDeviceKeyView& view) {
  return {view.VID, std::string(view.DeviceName), std::string(view.OpenCLCVersion), std::string(view.DeviceVersion),
          std::string(view.DriverVersion)};
}

// The element after an item, when the very next node is one. Anything else
// between two items (a comment, a text) ends the list: deliberate, the list
// format has always been read this way.
const tinyxml2::XMLElement* NextItem(const tinyxml2::XMLElement& item) {
  const tinyxml2::XMLNode* next = item.NextSibling();
  return next == nullptr ? nullptr : next->ToElement();
}

// The keys of the views at the given positions, in that order. In key order
// the items lie scattered over the document, and building each would wait on
// memory, first for its view, then for its text; so both are asked for ahead:
// the view two steps before it is built, its text one step. (The prefetches
// stand in this loop itself: in a function of their own the compiler finds no
// effect in them and drops the call.)
std::vector<ClDeviceKey> BuildKeys(const std::vector<ClDeviceKeyView>& views, const std::vector<std::size_t>& order) {
  constexpr std::size_t kFetchStep = 8;
  std::vector<ClDeviceKey> keys;
  keys.reserve(order.size());
  for (std::size_t position = 0; position < order.size(); ++position) {
    if (position + 2 * kFetchStep < order.size()) {
      __builtin_prefetch(&views[order[position + 2 * kFetchStep]]);
    }
    if (position + kFetchStep < order.size()) {
      const ClDeviceKeyView& ahead = views[order[position + kFetchStep]];
      __builtin_prefetch(ahead.DeviceName.data());
      __builtin_prefetch(ahead.OpenCLCVersion.data());
      __builtin_prefetch(ahead.DeviceVersion.data());
      __builtin_prefetch(ahead.DriverVersion.data());
    }
    keys.push_back(BuildKey(views[order[position]]));
  }
  return keys;
}

}  // namespace

// The items are sorted and folded while their text still lies in the document,
// so that each kept item is built once and a repeated one never.
ListFile ReadListFile(const char* path, const char* rootName) {
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
  std::vector<ClDeviceKeyView> views;
  for (const tinyxml2::XMLElement* item = root->FirstChildElement(kItemElement); item != nullptr;
       item = NextItem(*item)) {
    views.push_back(ReadItem(*item));
  }
  list.items = BuildKeys(views, SortedUniqueOrder(views));
  list.outcome = ListFileOutcome::kRead;
  return list;
}

}  // namespace gpuvet
