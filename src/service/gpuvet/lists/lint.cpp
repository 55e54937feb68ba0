#include "lists/lint.h"

#include <tinyxml2.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <utility>

#include "lists/node_places.h"
#include "lists/text_compare.h"
#include "opencl/cl_device_key.h"
#include "platform/pci_ids.h"
#include "verdict/list_file.h"
#include "verdict/white_list.h"

namespace gpuvet::lists {
namespace {

constexpr std::array<const char*, 5> kFields = {"VID", "DeviceName", "OpenCLCVersion", "DeviceVersion",
                                                "DriverVersion"};
constexpr std::array<const char*, 3> kVersionFields = {"OpenCLCVersion", "DeviceVersion", "DriverVersion"};
constexpr unsigned long kMaxVendorId = 65535;

bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

bool AllOf(const std::string& text, int (*test)(int)) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [test](char c) { return test(static_cast<unsigned char>(c)) != 0; });
}

const std::string& VersionOf(const ClDeviceKey& key, const std::string& field) {
  if (field == "OpenCLCVersion") return key.OpenCLCVersion;
  if (field == "DeviceVersion") return key.DeviceVersion;
  return key.DriverVersion;
}

// What gpuvet does with a list it reads no item from.
std::string NothingRead(ListKind kind) {
  switch (kind) {
    case ListKind::kBlack: return "as a black list it lets every device pass";
    case ListKind::kWhite: return "as a white list it refuses every device";
    case ListKind::kEither: break;
  }
  return "a black list lets every device pass, a white list refuses every device";
}

struct ReadItemAt {
  const tinyxml2::XMLElement* element;
  ClDeviceKey key;
};

class Linter {
 public:
  Linter(std::string path, const std::string& text, const tinyxml2::XMLDocument& document, ListKind expected)
      : path_(std::move(path)), places_(text, document), document_(document), kind_(expected) {}

  std::vector<Finding> Run() {
    const tinyxml2::XMLElement* root = document_.FirstChildElement();
    if (root == nullptr) {
      Add(nullptr, Severity::kError, "root", "no root element: gpuvet reads no item; " + NothingRead(kind_));
      return Sorted();
    }
    if (!CheckRoot(*root)) {
      return Sorted();
    }
    const tinyxml2::XMLElement* first = FirstItem(*root);
    if (first == nullptr) {
      const bool white = kind_ == ListKind::kWhite;
      Add(root, white ? Severity::kError : Severity::kWarning, "no-items",
          std::string("no <Item> under the root: ") + NothingRead(kind_));
      return Sorted();
    }
    std::vector<ReadItemAt> items;
    const tinyxml2::XMLElement* last = first;
    for (const tinyxml2::XMLElement* item = first; item != nullptr; item = NextItem(*item)) {
      items.push_back({item, ReadItem(*item)});
      last = item;
    }
    CheckListEnd(*last);
    for (const ReadItemAt& item : items) {
      CheckItem(*item.element, item.key);
    }
    CheckPairs(items);
    return Sorted();
  }

 private:
  bool CheckRoot(const tinyxml2::XMLElement& root) {
    const std::string name = root.Value();
    const ListKind rootKind = name == kBlackListRoot   ? ListKind::kBlack
                              : name == kWhiteListRoot ? ListKind::kWhite
                                                       : ListKind::kEither;
    if (rootKind == ListKind::kEither) {
      Add(&root, Severity::kError, "root",
          "root element <" + name + "> is neither <BlackList> nor <WhiteList>: gpuvet reads no item; " +
              NothingRead(kind_));
      return false;
    }
    if (kind_ != ListKind::kEither && kind_ != rootKind) {
      Add(&root, Severity::kError, "root",
          "root element <" + name + "> where a " + (kind_ == ListKind::kBlack ? "black" : "white") +
              " list is expected: gpuvet reads no item; " + NothingRead(kind_));
      return false;
    }
    kind_ = rootKind;
    return true;
  }

  // The node that ended the walk, when items stand behind it.
  void CheckListEnd(const tinyxml2::XMLElement& lastItem) {
    const tinyxml2::XMLNode* end = lastItem.NextSibling();
    if (end == nullptr) {
      return;
    }
    int behind = 0;
    for (const tinyxml2::XMLNode* node = end->NextSibling(); node != nullptr; node = node->NextSibling()) {
      behind += node->ToElement() != nullptr ? 1 : 0;
    }
    if (behind > 0) {
      const char* what = end->ToComment() != nullptr ? "a comment" : "a text";
      Add(end, Severity::kError, "unread-items",
          std::string(what) + " between items ends the list: the " + std::to_string(behind) +
              (behind == 1 ? " item behind it is" : " items behind it are") + " never read");
    }
  }

  void CheckItem(const tinyxml2::XMLElement& item, const ClDeviceKey& key) {
    if (std::strcmp(item.Value(), kItemElement) != 0) {
      Add(&item, Severity::kWarning, "not-item",
          std::string("<") + item.Value() + "> after the first <Item> is read as an item all the same");
    }
    for (const char* field : kFields) {
      const tinyxml2::XMLElement* element = item.FirstChildElement(field);
      const std::string text = FieldText(item, field);
      if (text.empty()) {
        CheckMissing(element != nullptr ? *element : static_cast<const tinyxml2::XMLNode&>(item), field,
                     element != nullptr);
      } else if (std::strcmp(field, "VID") == 0) {
        CheckVid(*element, text, key.VID);
      } else if (IsSpace(text.front()) || IsSpace(text.back())) {
        const char* where = IsSpace(text.front()) && IsSpace(text.back()) ? "both ends"
                            : IsSpace(text.front())                       ? "its start"
                                                                          : "its end";
        Add(element, Severity::kError, "padded",
            std::string("<") + field + "> " + Quoted(text) + " has white space at " + where +
                ": gpuvet compares it byte for byte with the device's trimmed text");
      }
    }
    for (const tinyxml2::XMLElement* child = item.FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
      CheckKnownField(*child);
    }
  }

  void CheckMissing(const tinyxml2::XMLNode& at, const std::string& field, bool present) {
    const bool version = field != "VID" && field != "DeviceName";
    const bool widens = kind_ == ListKind::kWhite && version;
    const std::string what = present ? "<" + field + "> has no text" : "no <" + field + ">";
    const std::string reads = field == "VID" ? "0" : "the empty text";
    Add(&at, widens ? Severity::kWarning : Severity::kError, "missing-field",
        what + ": gpuvet reads " + reads +
            (widens ? ", and an empty minimum admits every version" : ", and the item can never match"));
  }

  void CheckVid(const tinyxml2::XMLElement& element, const std::string& text, uint32_t read) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    const std::string trimmed = text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
    if (AllOf(trimmed, ::isdigit) && trimmed.size() <= 5 && std::stoul(trimmed) <= kMaxVendorId) {
      const auto vendor = static_cast<uint32_t>(std::stoul(trimmed));
      if (!platform::IsKnownVendor(vendor)) {
        std::ostringstream hex;
        hex << std::hex << vendor;
        Add(&element, Severity::kWarning, "vid-unknown",
            "vendor id " + trimmed + " (0x" + hex.str() + ") is not in the PCI ID database");
      }
      return;
    }
    const bool prefixed = trimmed.size() > 2 && trimmed[0] == '0' && (trimmed[1] == 'x' || trimmed[1] == 'X');
    const std::string digits = prefixed ? trimmed.substr(2) : trimmed;
    std::string message = "<VID> " + Quoted(text) + " is not a decimal number from 0 to 65535: gpuvet reads " +
                          std::to_string(static_cast<int32_t>(read));
    if (AllOf(digits, ::isxdigit) && digits.size() <= 4 && (prefixed || !AllOf(digits, ::isdigit))) {
      message += "; for the hexadecimal 0x" + digits + " write " + std::to_string(std::stoul(digits, nullptr, 16));
    }
    Add(&element, Severity::kError, "vid", message);
  }

  void CheckKnownField(const tinyxml2::XMLElement& child) {
    const std::string name = child.Value();
    if (std::find(kFields.begin(), kFields.end(), name) != kFields.end()) {
      return;
    }
    const auto nearest = std::min_element(kFields.begin(), kFields.end(), [&name](const char* a, const char* b) {
      return EditDistance(name, a) < EditDistance(name, b);
    });
    Add(&child, Severity::kWarning, "unknown-field",
        "<" + name + "> is not a field and is not read: did you mean <" + *nearest + ">?");
  }

  // Items of one device, compared with the earlier ones of the same device.
  void CheckPairs(const std::vector<ReadItemAt>& items) {
    std::map<std::pair<uint32_t, std::string>, std::vector<const ReadItemAt*>> byDevice;
    for (const ReadItemAt& item : items) {
      std::vector<const ReadItemAt*>& earlier = byDevice[{item.key.VID, item.key.DeviceName}];
      CheckAgainstEarlier(item, earlier);
      earlier.push_back(&item);
    }
  }

  void CheckAgainstEarlier(const ReadItemAt& item, const std::vector<const ReadItemAt*>& earlier) {
    for (const ReadItemAt* before : earlier) {
      if (ClDeviceKeyEqual(before->key, item.key)) {
        Add(item.element, Severity::kWarning, "duplicate",
            "the same item as at line " + Line(*before->element) + ": gpuvet counts it once");
        return;
      }
    }
    if (kind_ != ListKind::kWhite) {
      return;
    }
    for (const ReadItemAt* before : earlier) {
      for (const char* field : kVersionFields) {
        CheckVersionOrder(item, *before, field);
      }
    }
    for (const ReadItemAt* before : earlier) {
      if (Admits(before->key, item.key)) {
        Add(item.element, Severity::kWarning, "shadowed",
            "admits nothing that the item at line " + Line(*before->element) +
                " does not already admit: its versions are each at least that item's");
        return;
      }
    }
  }

  void CheckVersionOrder(const ReadItemAt& item, const ReadItemAt& before, const std::string& field) {
    const std::string& mine = VersionOf(item.key, field);
    const std::string& theirs = VersionOf(before.key, field);
    const int asNumbers = CompareAsNumbers(mine, theirs);
    const bool opposite = (asNumbers < 0 && StringLess(theirs, mine)) || (asNumbers > 0 && StringLess(mine, theirs));
    if (opposite) {
      const std::string& higher = StringLess(mine, theirs) ? theirs : mine;
      Add(item.element, Severity::kWarning, "version-order",
          "<" + field + "> " + Quoted(mine) + " and " + Quoted(theirs) + " of the item at line " +
              Line(*before.element) + " order one way as numbers and the other byte by byte: gpuvet takes " +
              Quoted(higher) + " as the higher");
    }
  }

  std::string Line(const tinyxml2::XMLNode& node) const { return std::to_string(places_.Of(node).line); }

  void Add(const tinyxml2::XMLNode* node, Severity severity, const std::string& check, const std::string& message) {
    const Place place = node != nullptr ? places_.Of(*node) : Place{};
    findings_.push_back({path_, place.line, place.column, severity, check, message});
  }

  std::vector<Finding> Sorted() {
    std::stable_sort(findings_.begin(), findings_.end(), [](const Finding& a, const Finding& b) {
      return std::make_pair(a.line, a.column) < std::make_pair(b.line, b.column);
    });
    return findings_;
  }

  std::string path_;
  NodePlaces places_;
  const tinyxml2::XMLDocument& document_;
  ListKind kind_;
  std::vector<Finding> findings_;
};

bool IsOpenFailure(tinyxml2::XMLError error) {
  return error == tinyxml2::XML_ERROR_FILE_NOT_FOUND || error == tinyxml2::XML_ERROR_FILE_COULD_NOT_BE_OPENED ||
         error == tinyxml2::XML_ERROR_FILE_READ_ERROR;
}

}  // namespace

LintResult LintListFile(const std::string& path, ListKind expected) {
  LintResult result;
  const std::unique_ptr<tinyxml2::XMLDocument> document = NewListDocument();
  const tinyxml2::XMLError error = document->LoadFile(path.c_str());
  if (IsOpenFailure(error)) {
    result.openError = document->ErrorName();
    return result;
  }
  result.opened = true;
  if (error != tinyxml2::XML_SUCCESS) {
    const std::string what = error == tinyxml2::XML_ERROR_EMPTY_DOCUMENT
                                 ? std::string("empty file")
                                 : std::string("not well-formed XML (") + document->ErrorName() + ")";
    result.findings.push_back({path, std::max(document->ErrorLineNum(), 1), 1, Severity::kError, "xml-error",
                               what + ": gpuvet reads no item; " + NothingRead(expected)});
    return result;
  }
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  result.findings = Linter(path, text.str(), *document, expected).Run();
  return result;
}

}  // namespace gpuvet::lists
