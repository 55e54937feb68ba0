#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

// The JSON operations of the base library that the result file is read and
// written with, over nlohmann::ordered_json. Values are handles into a
// document's tree: a handle stays valid while its document lives and the
// object or array that holds it gains or loses no member. The layer knows no
// file and no limit of its own: the result file's reader gives it the text and
// the deepest nesting it accepts.
namespace zavkit {

using Json = nlohmann::ordered_json;

// The type tag of a value.
enum JsonTag : int32_t {
  kJsonNull = 0,
  kJsonBool = 1,
  kJsonFloat = 2,
  kJsonInt = 3,   // signed integer, 64-bit payload
  kJsonUint = 4,  // unsigned integer, 64-bit payload
  kJsonString = 101,
  kJsonArray = 102,
  kJsonObject = 103,
};

// What the JSON operations throw: the base of every error of the JSON library
// beneath them, so that one guard catches them all.
using JsonException = nlohmann::json::exception;

// How a text parsed.
enum class JsonParse { kParsed, kInvalid, kTooDeep };

class JsonObject;
class JsonArray;
class JsonMember;
class JsonElem;

namespace detail {

// Forward iteration by position over the members of an object or the elements
// of an array.
template <typename Item>
class JXIterator {
 public:
  JXIterator(Json* container, std::size_t index) : container_(container), index_(index) {}
  Item operator*() const { return Item::At(*container_, index_); }
  JXIterator& operator++() {
    ++index_;
    return *this;
  }
  bool operator==(const JXIterator& other) const { return container_ == other.container_ && index_ == other.index_; }
  bool operator!=(const JXIterator& other) const { return !(*this == other); }

 private:
  Json* container_;
  std::size_t index_;
};

}  // namespace detail

// One value of a document: the root, a member's value or an array element.
class JsonValue {
 public:
  int32_t Tag() const;

  // Stores a view of the object when the value is one; otherwise leaves `object` as it was.
  bool Get(std::optional<JsonObject>& object) const;
  // The object or array of a value of that tag; throws JsonException on another tag.
  JsonObject AsObject() const;
  JsonArray AsArray() const;
  // The bytes that Set stored in a string value; an empty text for any other kind.
  std::string AsString() const;
  // An integer value cut to 32 bits; 0 for any other kind.
  int32_t AsInt() const;
  uint32_t AsUint() const;

  // Turns the value into null, freeing what it held.
  void Clear();
  JsonObject MakeEmptyObject();
  JsonArray MakeEmptyArray();
  // Makes the value a copy of the object and returns a view of the copy.
  JsonObject Set(const JsonObject& object);
  // Makes the value a string that holds these bytes, whatever they are.
  void Set(const std::string& bytes);
  // Sets the tag kJsonInt or kJsonUint with the payload.
  void SetInt(int64_t payload);
  void SetUint(uint64_t payload);

  // The value as JSON text; indent 0 breaks lines without indenting, a
  // negative indent writes it compact on one line.
  void PrettyDump(std::string& text, int32_t indent) const;

 protected:
  friend class JsonDoc;
  friend class JsonObject;
  friend class JsonArray;
  explicit JsonValue(Json* node) : node_(node) {}

  Json* node_;
};

// A member of an object: its value and its name.
class JsonMember : public JsonValue {
 public:
  const char* Name() const { return name_->c_str(); }

 private:
  friend class JsonObject;
  friend class detail::JXIterator<JsonMember>;
  JsonMember(const std::string* name, Json* node) : JsonValue(node), name_(name) {}
  static JsonMember At(Json& object, std::size_t index);

  const std::string* name_;
};

// An element of an array.
class JsonElem : public JsonValue {
 private:
  friend class JsonArray;
  friend class detail::JXIterator<JsonElem>;
  explicit JsonElem(Json* node) : JsonValue(node) {}
  static JsonElem At(Json& array, std::size_t index);
};

// An object: either a view of an object in a document, or an object of its own
// when constructed as a local.
class JsonObject {
 public:
  JsonObject();

  std::optional<JsonMember> Find(const char* name) const;
  bool Erase(const char* name);
  // Adds a member with a null value at the end (an existing one of that name is
  // set to null in its place) and returns it.
  JsonMember Add(const char* name);

  detail::JXIterator<JsonMember> begin() const;
  detail::JXIterator<JsonMember> end() const;

 private:
  friend class JsonValue;
  explicit JsonObject(Json* node) : node_(node) {}

  std::shared_ptr<Json> owned_;  // the tree of a local object; empty for a view
  Json* node_;
};

// An array, always a view of an array in a document.
class JsonArray {
 public:
  // Appends a null element and returns it.
  JsonElem Add();

  detail::JXIterator<JsonElem> begin() const;
  detail::JXIterator<JsonElem> end() const;

 private:
  friend class JsonValue;
  explicit JsonArray(Json* node) : node_(node) {}

  Json* node_;
};

// One document with its root value. (The library's destructor is not declared
// noexcept, though freeing a tree never throws.)
class JsonDoc {  // NOLINT(bugprone-exception-escape)
 public:
  // Parses the text into the root, in one pass whatever its nesting: a text
  // nested deeper than maxDepth is refused as it is met, before any deeper
  // value is kept. On a refusal the root is null.
  JsonParse Parse(const std::string& text, int32_t maxDepth);
  // The document as text. A root object stands one member a line; the member
  // named readableMember is indented for people to read, every other one is
  // compact, so that the text grows with the content and never with how deep
  // the members of others nest.
  void PrettyDump(std::string& text, const char* readableMember) const;

  JsonValue Root() { return JsonValue(&root_); }

 private:
  Json root_;
};

}  // namespace zavkit
