// The JSON operations over nlohmann::ordered_json: members keep their order, a
// new member goes to the end, and integers keep their signed or unsigned kind.
#include "platform/zavkit_json.h"

#include "platform/utf8.h"

#include <utility>

namespace zavkit {
namespace {

// Every string the layer writes is valid UTF-8, so this handler never acts; it
// keeps a dump from throwing all the same.
constexpr Json::error_handler_t kInvalidUtf8 = Json::error_handler_t::replace;
// The indentation of the readable member.
constexpr int kReadableIndent = 4;
constexpr int kCompact = -1;
const std::string kMemberIndent(kReadableIndent, ' ');

// Bytes in JSON strings. JSON carries text, and what Set is given may be any
// bytes (an adapter name cut inside a UTF-8 character, an OpenCL text in
// another encoding). A well-formed UTF-8 character is kept as it is; every
// other byte B, and each byte of a character that falls in the escape block
// itself, becomes the character U+10FF00 + B of the last private use plane.
// AsString turns each character of that block back into its byte, so any
// bytes written come back as the same bytes.
constexpr char32_t kByteEscapeBase = 0x10FF00;
constexpr char32_t kMaxCodePoint = 0x10FFFF;

// The length of the well-formed UTF-8 character at `at`, 0 when there is none,
// with the character in `point`.
std::size_t Utf8CharAt(const std::string& bytes, std::size_t at, char32_t& point) {
  const auto byte = [&bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const unsigned char lead = byte(at);
  std::size_t length = 0;
  char32_t minimum = 0;
  if (lead < 0x80) {
    point = lead;
    return 1;
  }
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, point = lead & 0x1Fu, minimum = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, point = lead & 0x0Fu, minimum = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, point = lead & 0x07u, minimum = 0x10000;
  } else {
    return 0;
  }
  if (at + length > bytes.size()) {
    return 0;
  }
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0u) != 0x80u) {
      return 0;
    }
    point = (point << 6) | (byte(at + i) & 0x3Fu);
  }
  const bool surrogate = point >= 0xD800 && point <= 0xDFFF;
  return point < minimum || point > kMaxCodePoint || surrogate ? 0 : length;
}

std::string BytesToText(const std::string& bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (std::size_t at = 0; at < bytes.size();) {
    char32_t point = 0;
    const std::size_t length = Utf8CharAt(bytes, at, point);
    if (length > 0 && point < kByteEscapeBase) {
      text.append(bytes, at, length);
      at += length;
    } else {
      gpuvet::platform::AppendUtf8(text, kByteEscapeBase + static_cast<unsigned char>(bytes[at]));
      ++at;
    }
  }
  return text;
}

// Text that the parser read is well-formed UTF-8; a byte that is not (a tree
// built otherwise) is kept as it stands.
std::string TextToBytes(const std::string& text) {
  std::string bytes;
  bytes.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    char32_t point = 0;
    const std::size_t length = Utf8CharAt(text, at, point);
    if (length == 0) {
      bytes += text[at++];
    } else if (point >= kByteEscapeBase) {
      bytes += static_cast<char>(point - kByteEscapeBase);
      at += length;
    } else {
      bytes.append(text, at, length);
      at += length;
    }
  }
  return bytes;
}

std::string Dump(const Json& value, int indent) {
  return value.dump(indent, ' ', /*ensure_ascii=*/false, kInvalidUtf8);
}

// A readable value as it stands inside the root object: each of its lines
// after the first moves in by one level.
std::string IndentedOneLevel(const Json& value) {
  const std::string dumped = Dump(value, kReadableIndent);
  std::string text;
  text.reserve(dumped.size() + dumped.size() / 8);
  for (const char c : dumped) {
    text += c;
    if (c == '\n') {
      text += kMemberIndent;
    }
  }
  return text;
}

}  // namespace

// ---- JsonValue ----

int32_t JsonValue::Tag() const {
  switch (node_->type()) {
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
  if (!node_->is_object()) {
    return false;
  }
  object = JsonObject(node_);
  return true;
}

JsonObject JsonValue::AsObject() const {
  node_->get_ref<Json::object_t&>();  // throws the library's own type error on another kind
  return JsonObject(node_);
}

JsonArray JsonValue::AsArray() const {
  node_->get_ref<Json::array_t&>();
  return JsonArray(node_);
}

std::string JsonValue::AsString() const {
  return node_->is_string() ? TextToBytes(node_->get_ref<const Json::string_t&>()) : std::string();
}

// Both integer kinds are cut to their low 32 bits.
int32_t JsonValue::AsInt() const { return static_cast<int32_t>(AsUint()); }

uint32_t JsonValue::AsUint() const {
  if (node_->is_number_unsigned()) {
    return static_cast<uint32_t>(node_->get<Json::number_unsigned_t>());
  }
  if (node_->is_number_integer()) {
    return static_cast<uint32_t>(node_->get<Json::number_integer_t>());
  }
  return 0;
}

void JsonValue::Clear() { *node_ = nullptr; }

JsonObject JsonValue::MakeEmptyObject() {
  *node_ = Json::object();
  return JsonObject(node_);
}

JsonArray JsonValue::MakeEmptyArray() {
  *node_ = Json::array();
  return JsonArray(node_);
}

JsonObject JsonValue::Set(const JsonObject& object) {
  *node_ = *object.node_;
  return JsonObject(node_);
}

void JsonValue::Set(const std::string& bytes) { *node_ = BytesToText(bytes); }

void JsonValue::SetInt(int64_t payload) { *node_ = Json::number_integer_t{payload}; }

void JsonValue::SetUint(uint64_t payload) { *node_ = Json::number_unsigned_t{payload}; }

void JsonValue::PrettyDump(std::string& text, int32_t indent) const { text = Dump(*node_, indent); }

// ---- JsonMember, JsonElem ----

JsonMember JsonMember::At(Json& object, std::size_t index) {
  auto& member = *(object.get_ref<Json::object_t&>().begin() + static_cast<std::ptrdiff_t>(index));
  return JsonMember(&member.first, &member.second);
}

JsonElem JsonElem::At(Json& array, std::size_t index) { return JsonElem(&array.get_ref<Json::array_t&>()[index]); }

// ---- JsonObject ----

JsonObject::JsonObject() : owned_(std::make_shared<Json>(Json::object())), node_(owned_.get()) {}

std::optional<JsonMember> JsonObject::Find(const char* name) const {
  auto& members = node_->get_ref<Json::object_t&>();
  const auto found = members.find(name);
  if (found == members.end()) {
    return std::nullopt;
  }
  return JsonMember(&found->first, &found->second);
}

bool JsonObject::Erase(const char* name) { return node_->get_ref<Json::object_t&>().erase(name) != 0; }

JsonMember JsonObject::Add(const char* name) {
  auto& members = node_->get_ref<Json::object_t&>();
  const auto added = members.emplace(std::string(name), Json()).first;
  added->second = nullptr;
  return JsonMember(&added->first, &added->second);
}

detail::JXIterator<JsonMember> JsonObject::begin() const { return {node_, 0}; }

detail::JXIterator<JsonMember> JsonObject::end() const { return {node_, node_->get_ref<Json::object_t&>().size()}; }

// ---- JsonArray ----

JsonElem JsonArray::Add() {
  auto& elements = node_->get_ref<Json::array_t&>();
  elements.emplace_back();
  return JsonElem(&elements.back());
}

detail::JXIterator<JsonElem> JsonArray::begin() const { return {node_, 0}; }

detail::JXIterator<JsonElem> JsonArray::end() const { return {node_, node_->get_ref<Json::array_t&>().size()}; }

// ---- JsonDoc ----

// The library's own tree builder, with the depth counted as objects and arrays
// open and close: the parse stops at the first one nested too deep, so a
// refused text costs no more than the part read before it. (The library's
// parser callback would see the depth too, but its builder then searches the
// enclosing array for dropped values at the end of every object, which makes
// a long array of objects take quadratic time.)
class DepthBoundBuilder : public nlohmann::detail::json_sax_dom_parser<Json> {
 public:
  DepthBoundBuilder(Json& root, int32_t maxDepth)
      : json_sax_dom_parser(root, /*allow_exceptions=*/false), maxDepth_(maxDepth) {}

  bool start_object(std::size_t size) { return Opens() && json_sax_dom_parser::start_object(size); }
  bool start_array(std::size_t size) { return Opens() && json_sax_dom_parser::start_array(size); }
  bool end_object() {
    --depth_;
    return json_sax_dom_parser::end_object();
  }
  bool end_array() {
    --depth_;
    return json_sax_dom_parser::end_array();
  }
  bool TooDeep() const { return tooDeep_; }

 private:
  bool Opens() {
    tooDeep_ = ++depth_ > maxDepth_;
    return !tooDeep_;
  }

  int32_t maxDepth_;
  int32_t depth_ = 0;
  bool tooDeep_ = false;
};

JsonParse JsonDoc::Parse(const std::string& text, int32_t maxDepth) {
  Json parsed;
  DepthBoundBuilder builder(parsed, maxDepth);
  const bool complete = Json::sax_parse(text, &builder);
  root_ = nullptr;
  if (builder.TooDeep()) {
    return JsonParse::kTooDeep;
  }
  if (!complete || builder.is_errored()) {
    return JsonParse::kInvalid;
  }
  root_ = std::move(parsed);
  return JsonParse::kParsed;
}

void JsonDoc::PrettyDump(std::string& text, const char* readableMember) const {
  if (!root_.is_object() || root_.empty()) {
    text = Dump(root_, kReadableIndent);
    return;
  }
  text = "{";
  const char* separator = "\n";
  for (const auto& [name, value] : root_.items()) {
    text += separator + kMemberIndent + Dump(Json(name), kCompact) + ": ";
    text += name == readableMember ? IndentedOneLevel(value) : Dump(value, kCompact);
    separator = ",\n";
  }
  text += "\n}";
}

}  // namespace zavkit
