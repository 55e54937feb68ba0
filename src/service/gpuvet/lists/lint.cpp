#include "lists/lint.h"

#include <tinyxml2.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "lists/node_columns.h"
#include "lists/text_compare.h"
#include "lists/volatile_name.h"
#include "opencl/cl_device_key.h"
#include "platform/named_file.h"
#include "platform/pci_ids.h"
#include "platform/runtime_text.h"
#include "verdict/list_file.h"

namespace gpuvet::lists {
namespace {

constexpr uint32_t kHighestPciVendorId = 0xffff;
// Vendors without a PCI id get theirs from Khronos, from 0x10000 on.
constexpr uint32_t kHighestKhronosVendorId = 0x1ffff;
// Element names are compared with the field names on this many bytes at most.
constexpr std::size_t kComparedNameBytes = 64;
constexpr const char* kBlanks = " \t\r\n";
// The shadowed check of many items walks them in key order, which puts
// OpenCLCVersion first; these two are the other minimums.
constexpr std::size_t kDeviceVersionField = 3;
constexpr std::size_t kDriverVersionField = 4;
// Up to this many items of one device are compared pair by pair.
constexpr std::size_t kFewItems = 16;
static_assert(kKeyFields[kDeviceVersionField].text == &ClDeviceKey::DeviceVersion &&
              kKeyFields[kDriverVersionField].text == &ClDeviceKey::DriverVersion);

bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

bool AllOf(std::string_view text, int (*test)(int)) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [test](char c) { return test(static_cast<unsigned char>(c)) != 0; });
}

std::string Hex(uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
  return text;
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

std::string Element(const char* name) { return "element " + Quoted(name); }

// An item as gpuvet reads it, its texts seen in place in the document:
// texts[i] is the text of kKeyFields[i].
struct ItemRead {
  const tinyxml2::XMLElement* element = nullptr;
  uint32_t vid = 0;
  std::array<std::string_view, kKeyFields.size()> texts;

  std::string_view Name() const { return texts[1]; }
  bool SameDevice(const ItemRead& other) const { return vid == other.vid && Name() == other.Name(); }
  // The order and equality of gpuvet's keys: VID, then each text byte by byte.
  bool KeyLess(const ItemRead& other) const {
    return vid != other.vid ? vid < other.vid
                            : std::lexicographical_compare(texts.begin() + 1, texts.end(), other.texts.begin() + 1,
                                                           other.texts.end());
  }
  bool KeyEqual(const ItemRead& other) const {
    return vid == other.vid && std::equal(texts.begin() + 1, texts.end(), other.texts.begin() + 1);
  }
};

// "one more ..." / "N more ...", for the rest of a group reported once.
std::string More(std::size_t count, const std::string& what) {
  return count == 0 ? "" : "; " + std::to_string(count) + " more " + what;
}

class Linter {
 public:
  // lineSource gives the texts of the lines asked for; it is asked only when
  // there is a finding to place.
  using LineSource = std::function<LineTexts(const std::unordered_set<int>&)>;
  Linter(std::string path, LineSource lineSource, const tinyxml2::XMLDocument& document, ListKind expected)
      : path_(std::move(path)), lineSource_(std::move(lineSource)), document_(document), kind_(expected) {}

  std::vector<Finding> Run() {
    const tinyxml2::XMLElement* root = document_.FirstChildElement();
    if (root == nullptr) {
      Add(nullptr, Severity::kError, "root", "no root element: gpuvet reads no item; " + NothingRead(kind_));
      return Placed();
    }
    if (!CheckRoot(*root)) {
      return Placed();
    }
    const tinyxml2::XMLElement* first = FirstItem(*root);
    if (first == nullptr) {
      const bool white = kind_ == ListKind::kWhite;
      Add(root, white ? Severity::kError : Severity::kWarning, "no-items",
          std::string("no <Item> under the root: ") + NothingRead(kind_));
      return Placed();
    }
    std::deque<ItemRead> items;  // grows without moving what it holds
    const tinyxml2::XMLElement* last = first;
    for (const tinyxml2::XMLElement* item = first; item != nullptr; item = NextItem(*item)) {
      items.push_back(CheckItem(*item));
      last = item;
    }
    CheckListEnd(*last);
    CheckDevices(items);
    return Placed();
  }

 private:
  bool CheckRoot(const tinyxml2::XMLElement& root) {
    const std::string name = root.Value();
    const ListKind rootKind = name == kBlackListRoot   ? ListKind::kBlack
                              : name == kWhiteListRoot ? ListKind::kWhite
                                                       : ListKind::kEither;
    if (rootKind == ListKind::kEither) {
      Add(&root, Severity::kError, "root",
          "root " + Element(root.Value()) + " is neither <BlackList> nor <WhiteList>: gpuvet reads no item; " +
              NothingRead(kind_));
      return false;
    }
    if (kind_ != ListKind::kEither && kind_ != rootKind) {
      Add(&root, Severity::kError, "root",
          "root <" + name + "> where a " + (kind_ == ListKind::kBlack ? "black" : "white") +
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

  // One walk over the item's children finds each field's element as the
  // reading does, the first of its name, and its text by the reading's rule.
  ItemRead CheckItem(const tinyxml2::XMLElement& element) {
    if (std::strcmp(element.Value(), kItemElement) != 0) {
      Add(&element, Severity::kWarning, "not-item",
          Element(element.Value()) + " after the first <Item> is read as an item all the same");
    }
    std::array<const tinyxml2::XMLElement*, kKeyFields.size()> fields{};
    for (const tinyxml2::XMLElement* child = element.FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
      const auto field = std::find_if(kKeyFields.begin(), kKeyFields.end(),
                                      [child](const KeyField& f) { return std::strcmp(f.name, child->Value()) == 0; });
      if (field == kKeyFields.end()) {
        CheckUnknownField(*child);
      } else if (fields[static_cast<std::size_t>(field - kKeyFields.begin())] == nullptr) {
        fields[static_cast<std::size_t>(field - kKeyFields.begin())] = child;
      }
    }
    ItemRead item;
    item.element = &element;
    for (std::size_t i = 0; i < kKeyFields.size(); ++i) {
      item.texts[i] = ElementText(fields[i]);
    }
    item.vid = ReadVid(ElementText(fields[0]));
    for (std::size_t i = 0; i < kKeyFields.size(); ++i) {
      CheckField(element, fields[i], i, item);
    }
    return item;
  }

  void CheckField(const tinyxml2::XMLElement& item, const tinyxml2::XMLElement* element, std::size_t index,
                  const ItemRead& read) {
    const KeyField& field = kKeyFields[index];
    const std::string_view text = read.texts[index];
    if (text.empty()) {
      CheckMissing(element != nullptr ? *element : static_cast<const tinyxml2::XMLNode&>(item), index,
                   element != nullptr);
      return;
    }
    if (field.text == nullptr) {
      CheckVid(*element, text, read.vid);
      return;
    }
    if (IsSpace(text.front()) || IsSpace(text.back())) {
      const char* where = IsSpace(text.front()) && IsSpace(text.back()) ? "both ends"
                          : IsSpace(text.front())                       ? "its start"
                                                                        : "its end";
      Add(element, Severity::kError, "padded",
          std::string("<") + field.name + "> " + Quoted(text) + " has white space at " + where +
              ": gpuvet compares it byte for byte with the device's trimmed text");
    }
    if (field.text == &ClDeviceKey::DeviceName) {
      const std::string part = VolatileNamePart(text);
      if (!part.empty()) {
        Add(element, Severity::kWarning, "volatile-name",
            "<DeviceName> carries the driver stack's version " + Quoted(part) +
                ": the device's name changes with the next update of the stack, and the item then names no device");
      }
    }
  }

  void CheckMissing(const tinyxml2::XMLNode& at, std::size_t index, bool present) {
    const std::string field = kKeyFields[index].name;
    const bool widens = kind_ == ListKind::kWhite && index >= kFirstVersionField;
    const std::string what = present ? "<" + field + "> has no text" : "no <" + field + ">";
    const std::string reads = kKeyFields[index].text == nullptr ? "0" : "the empty text";
    Add(&at, widens ? Severity::kWarning : Severity::kError, "missing-field",
        what + ": gpuvet reads " + reads +
            (widens ? ", and an empty minimum admits every version" : ", and the item can never match"));
  }

  // gpuvet reads a decimal number; an error only where what it reads is not
  // what the text says.
  void CheckVid(const tinyxml2::XMLElement& element, std::string_view text, uint32_t read) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    const std::string_view trimmed =
        first == std::string_view::npos ? std::string_view() : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
    std::string_view digits = trimmed.substr(!trimmed.empty() && trimmed[0] == '+' ? 1 : 0);
    const std::size_t significant = std::min(digits.find_first_not_of('0'), digits.size() - 1);
    const bool exact = AllOf(digits, ::isdigit) && digits.substr(significant) == std::to_string(read) &&
                       read <= static_cast<uint32_t>(std::numeric_limits<int32_t>::max());
    if (exact) {
      CheckVendorKnown(element, read);
      return;
    }
    const bool prefixed = trimmed.size() > 2 && trimmed[0] == '0' && (trimmed[1] == 'x' || trimmed[1] == 'X');
    digits = prefixed ? trimmed.substr(2) : trimmed;
    std::string message = "<VID> " + Quoted(text) + " is not a decimal vendor id: gpuvet reads " +
                          std::to_string(static_cast<int32_t>(read));
    if (AllOf(digits, ::isxdigit) && digits.size() <= 8 && (prefixed || !AllOf(digits, ::isdigit))) {
      const uint64_t value = std::stoull(std::string(digits), nullptr, 16);
      message += "; for the hexadecimal " + Hex(value) + " write " + std::to_string(value);
    }
    Add(&element, Severity::kError, "vid", message);
  }

  void CheckVendorKnown(const tinyxml2::XMLElement& element, uint32_t vendor) {
    if (vendor <= kHighestPciVendorId && !KnownVendor(vendor)) {
      Add(&element, Severity::kWarning, "vid-unknown",
          "vendor id " + std::to_string(vendor) + " (" + Hex(vendor) + ") is not in the PCI ID database");
    } else if (vendor > kHighestKhronosVendorId) {
      Add(&element, Severity::kWarning, "vid-unknown",
          "vendor id " + std::to_string(vendor) + " (" + Hex(vendor) +
              ") is neither a PCI vendor id nor one that Khronos assigns");
    }
  }

  // The database is asked once per vendor: a list names few of them.
  bool KnownVendor(uint32_t vendor) {
    const auto [known, added] = knownVendors_.emplace(vendor, false);
    if (added) {
      known->second = platform::IsKnownVendor(vendor);
    }
    return known->second;
  }

  void CheckUnknownField(const tinyxml2::XMLElement& child) {
    const std::string name = std::string(child.Value()).substr(0, kComparedNameBytes);
    const auto nearest = std::min_element(kKeyFields.begin(), kKeyFields.end(), [&name](const KeyField& a, const KeyField& b) {
      return EditDistance(name, a.name) < EditDistance(name, b.name);
    });
    Add(&child, Severity::kWarning, "unknown-field",
        Element(child.Value()) + " is not a field and is not read: did you mean <" + nearest->name + ">?");
  }

  // The items of each device side by side: sorted once by a hash of the
  // device, then of the whole key, then by their place in the file, so that
  // the sort compares numbers only; each device is then one run (two devices
  // of one hash are told apart after) and its repeats stand together in the
  // file's order. Each finding covers a group, so the work and the output grow
  // with the list, never with its pairs.
  void CheckDevices(const std::deque<ItemRead>& items) {
    struct Sorted {
      std::size_t deviceHash;
      std::size_t keyHash;
      std::size_t place;
      const ItemRead* item;
    };
    std::vector<Sorted> sorted;
    sorted.reserve(items.size());
    const std::hash<std::string_view> hash;
    for (const ItemRead& item : items) {
      const std::size_t deviceHash = hash(item.Name()) ^ item.vid;
      std::size_t keyHash = deviceHash;
      for (std::size_t field = kFirstVersionField; field < kKeyFields.size(); ++field) {
        keyHash = keyHash * 31 + hash(item.texts[field]);
      }
      sorted.push_back({deviceHash, keyHash, sorted.size(), &item});
    }
    std::sort(sorted.begin(), sorted.end(), [](const Sorted& a, const Sorted& b) {
      return std::tie(a.deviceHash, a.keyHash, a.place) < std::tie(b.deviceHash, b.keyHash, b.place);
    });
    std::vector<const ItemRead*> device;
    for (std::size_t begin = 0; begin < sorted.size();) {
      std::size_t end = begin;
      device.clear();
      for (; end < sorted.size() && sorted[end].deviceHash == sorted[begin].deviceHash; ++end) {
        device.push_back(sorted[end].item);
      }
      // Two devices behind one hash: each apart, in the file's order.
      std::stable_partition(device.begin(), device.end(),
                            [&device](const ItemRead* item) { return item->SameDevice(*device.front()); });
      for (auto first = device.begin(); first != device.end();) {
        const auto last = std::find_if(first, device.end(),
                                       [first](const ItemRead* item) { return !item->SameDevice(**first); });
        CheckDevice(std::vector<const ItemRead*>(first, last));
        first = last;
      }
      begin = end;
    }
  }

  void CheckDevice(const std::vector<const ItemRead*>& device) {
    const std::vector<const ItemRead*> distinct = CheckDuplicates(device);
    if (kind_ == ListKind::kWhite && distinct.size() > 1) {
      for (std::size_t field = kFirstVersionField; field < kKeyFields.size(); ++field) {
        CheckVersionOrder(distinct, field);
      }
      CheckShadowed(distinct);
    }
  }

  // One finding per repeated item; gives the first of each. Repeats have one
  // key hash, so they stand next to each other, in the file's order.
  std::vector<const ItemRead*> CheckDuplicates(const std::vector<const ItemRead*>& device) {
    std::vector<const ItemRead*> distinct;
    for (std::size_t begin = 0; begin < device.size();) {
      std::size_t end = begin + 1;
      while (end < device.size() && device[end]->KeyEqual(*device[begin])) {
        ++end;
      }
      distinct.push_back(device[begin]);
      if (end - begin > 1) {
        Add(device[begin + 1]->element, Severity::kWarning, "duplicate",
            "the same item as at line " + Line(*device[begin]->element) + ": gpuvet counts it once" +
                More(end - begin - 2, "repeats of it follow"));
      }
      begin = end;
    }
    return distinct;
  }

  // The values of one version field of a device, in byte order, against their
  // order as numbers: where two neighbours disagree, the author's order is not
  // gpuvet's.
  void CheckVersionOrder(const std::vector<const ItemRead*>& device, std::size_t index) {
    const KeyField& field = kKeyFields[index];
    std::vector<const ItemRead*> byValue = device;
    std::sort(byValue.begin(), byValue.end(), [index](const ItemRead* a, const ItemRead* b) {
      return a->texts[index] != b->texts[index] ? a->texts[index] < b->texts[index] : a < b;
    });
    std::size_t disagreements = 0;
    const ItemRead* lower = nullptr;
    const ItemRead* higher = nullptr;
    for (std::size_t i = 0; i + 1 < byValue.size(); ++i) {
      if (CompareAsNumbers(byValue[i]->texts[index], byValue[i + 1]->texts[index]) > 0 &&
          disagreements++ == 0) {
        lower = byValue[i];
        higher = byValue[i + 1];
      }
    }
    if (disagreements == 0) {
      return;
    }
    const bool lowerLater = lower->element->GetLineNum() > higher->element->GetLineNum();
    const ItemRead& mine = lowerLater ? *lower : *higher;
    const ItemRead& theirs = lowerLater ? *higher : *lower;
    Add(mine.element, Severity::kWarning, "version-order",
        std::string("<") + field.name + "> " + Quoted(mine.texts[index]) + " and " +
            Quoted(theirs.texts[index]) + " of the item at line " + Line(*theirs.element) +
            " order one way as numbers and the other byte by byte: gpuvet takes " +
            Quoted(higher->texts[index]) + " as the higher" +
            More(disagreements - 1, "such pairs among this device's items"));
  }

  // An item whose three minimums are each at least another item's admits
  // nothing more. A few items are compared with each other; many are taken in
  // key order, in which whatever covers an item comes before it, through a
  // staircase of the other two versions seen so far.
  void CheckShadowed(std::vector<const ItemRead*> device) {
    std::vector<std::pair<const ItemRead*, const ItemRead*>> shadowed;  // item, covered by
    if (device.size() <= kFewItems) {
      const auto covers = [](const ItemRead* a, const ItemRead* b) {
        return a != b && std::equal(a->texts.begin() + kFirstVersionField, a->texts.end(),
                                    b->texts.begin() + kFirstVersionField,
                                    [](std::string_view x, std::string_view y) { return x <= y; });
      };
      for (const ItemRead* item : device) {
        const auto by = std::find_if(device.begin(), device.end(), [&](const ItemRead* other) { return covers(other, item); });
        if (by != device.end()) {
          shadowed.emplace_back(item, *by);
        }
      }
    } else {
      std::sort(device.begin(), device.end(), [](const ItemRead* a, const ItemRead* b) { return a->KeyLess(*b); });
      CoveredOnTheStairs(device, shadowed);
    }
    if (shadowed.empty()) {
      return;
    }
    const auto first = std::min_element(shadowed.begin(), shadowed.end(), [](const auto& a, const auto& b) {
      return a.first->element->GetLineNum() < b.first->element->GetLineNum();
    });
    Add(first->first->element, Severity::kWarning, "shadowed",
        "admits nothing that the item at line " + Line(*first->second->element) +
            " does not already admit: its versions are each at least that item's" +
            More(shadowed.size() - 1, "items of this device are shadowed likewise"));
  }

  // The items in key order: OpenCLCVersion first, so an item can only be
  // covered by one before it; the stairs hold, by DeviceVersion, the lowest
  // DriverVersion seen up to there.
  static void CoveredOnTheStairs(const std::vector<const ItemRead*>& device,
                                 std::vector<std::pair<const ItemRead*, const ItemRead*>>& shadowed) {
    struct Stair {
      std::string_view driverVersion;
      const ItemRead* item;
    };
    std::map<std::string_view, Stair> stairs;
    for (const ItemRead* item : device) {
      const std::string_view deviceVersion = item->texts[kDeviceVersionField];
      const std::string_view driverVersion = item->texts[kDriverVersionField];
      auto at = stairs.upper_bound(deviceVersion);
      if (at != stairs.begin() && std::prev(at)->second.driverVersion <= driverVersion) {
        shadowed.emplace_back(item, std::prev(at)->second.item);
        continue;
      }
      at = stairs.lower_bound(deviceVersion);
      while (at != stairs.end() && at->second.driverVersion >= driverVersion) {
        at = stairs.erase(at);
      }
      stairs.emplace(deviceVersion, Stair{driverVersion, item});
    }
  }

  static std::string Line(const tinyxml2::XMLNode& node) { return std::to_string(node.GetLineNum()); }

  void Add(const tinyxml2::XMLNode* node, Severity severity, const std::string& check, const std::string& message) {
    findings_.push_back({path_, node != nullptr ? node->GetLineNum() : 1, 1, severity, check, message});
    nodes_.push_back(node);
  }

  // The findings with their columns, in the order of the file.
  std::vector<Finding> Placed() {
    if (findings_.empty()) {
      return {};
    }
    std::unordered_set<const tinyxml2::XMLNode*> wanted(nodes_.begin(), nodes_.end());
    wanted.erase(nullptr);
    std::unordered_set<int> lines;
    for (const tinyxml2::XMLNode* node : wanted) {
      lines.insert(node->GetLineNum());
    }
    const NodeColumns columns(lineSource_(lines), document_, wanted);
    for (std::size_t i = 0; i < findings_.size(); ++i) {
      findings_[i].column = nodes_[i] != nullptr ? columns.Of(*nodes_[i]) : 1;
    }
    std::stable_sort(findings_.begin(), findings_.end(), [](const Finding& a, const Finding& b) {
      return std::make_pair(a.line, a.column) < std::make_pair(b.line, b.column);
    });
    return std::move(findings_);
  }

  std::string path_;
  LineSource lineSource_;
  const tinyxml2::XMLDocument& document_;
  ListKind kind_;
  std::vector<Finding> findings_;
  std::vector<const tinyxml2::XMLNode*> nodes_;
  std::unordered_map<uint32_t, bool> knownVendors_;
};

}  // namespace

// A regular file is handed to the parser as it stands, as gpuvet's own reading
// does; standard input is read whole first.
LintResult LintListFile(const std::string& path, ListKind expected) {
  LintResult result;
  std::string text;
  platform::FilePtr file;
  if (path == platform::kStandardInputName) {
    result.opened = platform::ReadStandardInput(text, result.openError);
  } else {
    file = platform::OpenRegularFile(path, result.openError);
    result.opened = file != nullptr;
  }
  if (!result.opened) {
    return result;
  }
  const std::unique_ptr<tinyxml2::XMLDocument> document = NewListDocument();
  const tinyxml2::XMLError error =
      file != nullptr ? document->LoadFile(file.get()) : document->Parse(text.data(), text.size());
  if (error != tinyxml2::XML_SUCCESS) {
    const std::string what = error == tinyxml2::XML_ERROR_EMPTY_DOCUMENT
                                 ? std::string("empty file")
                                 : std::string("not well-formed XML (") + document->ErrorName() + ")";
    result.findings.push_back({path, std::max(document->ErrorLineNum(), 1), 1, Severity::kError, "xml-error",
                               what + ": gpuvet reads no item; " + NothingRead(expected)});
    return result;
  }
  const auto lines = [&file, &text](const std::unordered_set<int>& wanted) {
    return file != nullptr ? CollectLines(file.get(), wanted) : CollectLines(text, wanted);
  };
  result.findings = Linter(path, lines, *document, expected).Run();
  return result;
}

}  // namespace gpuvet::lists
