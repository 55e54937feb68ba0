// The JSON operations over nlohmann::ordered_json: members keep their order, a
// new member goes to the end, and integers keep their signed or unsigned kind.
#include "platform/zavkit_json.h"

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/atomic_file.h"

namespace zavkit {
namespace {

using Json = nlohmann::ordered_json;

// Deeper documents are refused as unparseable. Dumping a tree recurses, one
// stack frame per level: without the limit a file of a hundred thousand nested
// arrays would overflow the stack. The tool's own section lies three levels
// below the root.
constexpr int kMaxNestingDepth = 512;

// The indentation of a whole document, in the file and in the log.
constexpr int kDocumentIndent = 4;

// Text that is not valid UTF-8 (an adapter name in another encoding) is
// written with replacement characters, the same way to the file and to the
// log, so that whatever is written parses again.
constexpr Json::error_handler_t kInvalidUtf8 = Json::error_handler_t::replace;

// A larger file is refused unread: reading it could outlast the run's bound.
constexpr std::size_t kMaxFileBytes = 16u << 20;

Json& Node(void* node) { return *static_cast<Json*>(node); }

std::string Dump(const Json& value, int indent) {
  return value.dump(indent, ' ', /*ensure_ascii=*/false, kInvalidUtf8);
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

enum class FileRead { kRead, kUnreadable, kTooLarge };

FileRead ReadWholeFile(const std::string& path, std::string& text) {
  const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rb"));
  if (!file) {
    return FileRead::kUnreadable;
  }
  char buffer[1 << 16];
  std::size_t count = 0;
  while ((count = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) {
    if (text.size() + count > kMaxFileBytes) {
      return FileRead::kTooLarge;
    }
    text.append(buffer, count);
  }
  return std::ferror(file.get()) == 0 ? FileRead::kRead : FileRead::kUnreadable;
}

// True when brackets outside strings nest deeper than the limit. One pass over
// the text; what is no JSON at all is left for the parser to refuse.
bool NestsTooDeep(const std::string& text) {
  int depth = 0;
  bool inString = false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (inString) {
      if (c == '\\') {
        ++at;  // the escaped character can't end the string
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxNestingDepth) {
        return true;
      }
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return false;
}

}  // namespace

// ---- JsonValue ----

int32_t JsonValue::Tag() const {
  switch (Node(node_).type()) {
    case Json::value_t::boolean:
      return kJsonBool;
    case Json::value_t::number_float:
      return kJsonFloat;
    case Json::value_t::number_integer:
      return kJsonInt;
    case Json::value_t::number_unsigned:
      return kJsonUint;
    case Json::value_t::string:
      return kJsonString;
    case Json::value_t::array:
      return kJsonArray;
    case Json::value_t::object:
      return kJsonObject;
    default:
      return kJsonNull;
  }
}

bool JsonValue::Get(std::optional<JsonObject>& object) const {
  if (!Node(node_).is_object()) {
    return false;
  }
  object = JsonObject(node_);
  return true;
}

JsonObject JsonValue::AsObject() const {
  if (!Node(node_).is_object()) {
    Node(node_).get_ref<Json::object_t&>();  // throws the library's own type error
  }
  return JsonObject(node_);
}

JsonArray JsonValue::AsArray() const {
  if (!Node(node_).is_array()) {
    Node(node_).get_ref<Json::array_t&>();  // throws the library's own type error
  }
  return JsonArray(node_);
}

const char* JsonValue::AsString() const {
  const Json& value = Node(node_);
  return value.is_string() ? value.get_ref<const Json::string_t&>().c_str() : "";
}

// Both integer kinds are cut to their low 32 bits.
int32_t JsonValue::AsInt() const { return static_cast<int32_t>(AsUint()); }

uint32_t JsonValue::AsUint() const {
  const Json& value = Node(node_);
  if (value.is_number_unsigned()) {
    return static_cast<uint32_t>(value.get<Json::number_unsigned_t>());
  }
  if (value.is_number_integer()) {
    return static_cast<uint32_t>(value.get<Json::number_integer_t>());
  }
  return 0;
}

void JsonValue::Clear() { Node(node_) = nullptr; }

JsonObject JsonValue::MakeEmptyObject() {
  Node(node_) = Json::object();
  return JsonObject(node_);
}

JsonArray JsonValue::MakeEmptyArray() {
  Node(node_) = Json::array();
  return JsonArray(node_);
}

JsonObject JsonValue::Set(const JsonObject& object) {
  Node(node_) = Json(Node(object.node_));
  return JsonObject(node_);
}

void JsonValue::Set(const std::string& text) { Node(node_) = text; }

void JsonValue::SetInt(int64_t payload) { Node(node_) = Json::number_integer_t{payload}; }

void JsonValue::SetUint(uint64_t payload) { Node(node_) = Json::number_unsigned_t{payload}; }

void JsonValue::PrettyDump(std::string& text, int32_t indent) const { text = Dump(Node(node_), indent); }

// ---- JsonObject ----

JsonObject::JsonObject() {
  auto tree = std::make_shared<Json>(Json::object());
  node_ = tree.get();
  owned_ = std::move(tree);
}

std::optional<JsonMember> JsonObject::Find(const char* name) const {
  auto& members = Node(node_).get_ref<Json::object_t&>();
  const auto found = members.find(name);
  if (found == members.end()) {
    return std::nullopt;
  }
  return JsonMember(&found->first, &found->second);
}

bool JsonObject::Erase(const char* name) { return Node(node_).get_ref<Json::object_t&>().erase(name) != 0; }

JsonMember JsonObject::Add(const char* name) {
  auto& members = Node(node_).get_ref<Json::object_t&>();
  const auto added = members.emplace(std::string(name), Json()).first;
  added->second = nullptr;
  return JsonMember(&added->first, &added->second);
}

JsonMember JsonObject::MemberAt(void* node, std::size_t index) {
  auto& member = *(Node(node).get_ref<Json::object_t&>().begin() + static_cast<std::ptrdiff_t>(index));
  return JsonMember(&member.first, &member.second);
}

detail::JXIterator<JsonMember> JsonObject::begin() const { return {node_, 0, &JsonObject::MemberAt}; }

detail::JXIterator<JsonMember> JsonObject::end() const {
  return {node_, Node(node_).get_ref<Json::object_t&>().size(), &JsonObject::MemberAt};
}

// ---- JsonArray ----

JsonElem JsonArray::Add() {
  auto& elements = Node(node_).get_ref<Json::array_t&>();
  elements.emplace_back();
  return JsonElem(&elements.back());
}

JsonElem JsonArray::ElemAt(void* node, std::size_t index) {
  return JsonElem(&Node(node).get_ref<Json::array_t&>()[index]);
}

detail::JXIterator<JsonElem> JsonArray::begin() const { return {node_, 0, &JsonArray::ElemAt}; }

detail::JXIterator<JsonElem> JsonArray::end() const {
  return {node_, Node(node_).get_ref<Json::array_t&>().size(), &JsonArray::ElemAt};
}

// ---- JsonDoc ----

// The library's destructor is not declared noexcept, though freeing a tree never throws.
struct JsonDoc::Tree {  // NOLINT(bugprone-exception-escape)
  Json root;
};

JsonDoc::JsonDoc() : tree_(std::make_unique<Tree>()) {}
JsonDoc::~JsonDoc() = default;

int32_t JsonDoc::ParseFile(const std::string& path) {
  tree_->root = nullptr;
  refusedForLimit_ = false;
  std::string text;
  const FileRead read = ReadWholeFile(path, text);
  refusedForLimit_ = read == FileRead::kTooLarge || (read == FileRead::kRead && NestsTooDeep(text));
  if (read != FileRead::kRead || refusedForLimit_) {
    return -1;
  }
  Json parsed = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) {
    return -1;
  }
  tree_->root = std::move(parsed);
  return 0;
}

int32_t JsonDoc::PrettyDumpFile(const std::string& path) const {
  return gpuvet::platform::ReplaceFileAtomically(path, Dump(tree_->root, kDocumentIndent) + "\n");
}
int32_t JsonDoc::PrettyDump(std::string& text) const {
  text = Dump(tree_->root, kDocumentIndent);
  return 0;
}

JsonValue JsonDoc::Root() { return JsonValue(&tree_->root); }

}  // namespace zavkit
