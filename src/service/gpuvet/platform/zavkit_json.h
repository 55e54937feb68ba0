#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

// The JSON operations of the base library that the result file is read and
// written with. Values are handles into a document's tree: a handle stays valid
// while its document lives and the object or array that holds it gains or loses
// no member. The tree itself stays behind the implementation.
namespace zavkit {

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
  using ItemAt = Item (*)(void* container, std::size_t index);

  JXIterator(void* container, std::size_t index, ItemAt itemAt)
      : container_(container), index_(index), itemAt_(itemAt) {}
  Item operator*() const { return itemAt_(container_, index_); }
  JXIterator& operator++() {
    ++index_;
    return *this;
  }
  bool operator==(const JXIterator& other) const { return container_ == other.container_ && index_ == other.index_; }
  bool operator!=(const JXIterator& other) const { return !(*this == other); }

 private:
  void* container_;
  std::size_t index_;
  ItemAt itemAt_;
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
  // The text of a string value; an empty text for any other kind.
  const char* AsString() const;
  // An integer value cut to 32 bits; 0 for any other kind.
  int32_t AsInt() const;
  uint32_t AsUint() const;

  // Turns the value into null, freeing what it held.
  void Clear();
  JsonObject MakeEmptyObject();
  JsonArray MakeEmptyArray();
  // Makes the value a copy of the object and returns a view of the copy.
  JsonObject Set(const JsonObject& object);
  void Set(const std::string& text);
  // Sets the tag kJsonInt or kJsonUint with the payload.
  void SetInt(int64_t payload);
  void SetUint(uint64_t payload);

  // The value as JSON text; indent 0 breaks lines without indenting.
  void PrettyDump(std::string& text, int32_t indent) const;

 protected:
  friend class JsonDoc;
  friend class JsonObject;
  friend class JsonArray;
  explicit JsonValue(void* node) : node_(node) {}

  void* node_;  // a node of the implementation's tree
};

// A member of an object: its value and its name.
class JsonMember : public JsonValue {
 public:
  const char* Name() const { return name_->c_str(); }

 private:
  friend class JsonObject;
  JsonMember(const std::string* name, void* node) : JsonValue(node), name_(name) {}

  const std::string* name_;
};

// An element of an array.
class JsonElem : public JsonValue {
 private:
  friend class JsonArray;
  explicit JsonElem(void* node) : JsonValue(node) {}
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
  explicit JsonObject(void* node) : node_(node) {}
  static JsonMember MemberAt(void* node, std::size_t index);

  std::shared_ptr<void> owned_;  // the tree of a local object; empty for a view
  void* node_;
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
  explicit JsonArray(void* node) : node_(node) {}
  static JsonElem ElemAt(void* node, std::size_t index);

  void* node_;
};

// One document with its root value.
class JsonDoc {
 public:
  JsonDoc();
  ~JsonDoc();
  JsonDoc(const JsonDoc&) = delete;
  JsonDoc& operator=(const JsonDoc&) = delete;

  // Reads and parses the file into the root. -1 when the file can't be read or
  // parsed, or is refused for a limit; 0 otherwise.
  int32_t ParseFile(const std::string& path);
  // True when the last ParseFile refused the file for its size or nesting
  // depth: such a file may hold a host's data and is never to be replaced.
  bool RefusedForLimit() const { return refusedForLimit_; }
  // Replaces the file with the document as indented text. -1 on failure.
  int32_t PrettyDumpFile(const std::string& path) const;
  // The same text into the string. Always 0.
  int32_t PrettyDump(std::string& text) const;

  JsonValue Root();

 private:
  struct Tree;
  std::unique_ptr<Tree> tree_;
  bool refusedForLimit_ = false;
};

}  // namespace zavkit
