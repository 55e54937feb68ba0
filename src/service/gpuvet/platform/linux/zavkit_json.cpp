// The JSON operations over nlohmann::ordered_json: members keep their order, a
// new member goes to the end, and integers keep their signed or unsigned kind.
#include "platform/zavkit_json.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace zavkit {
namespace {

using Json = nlohmann::ordered_json;

// Deeper documents are refused as unparseable. Parsing and freeing a tree do
// not recurse, but dumping one does, one stack frame per level: without the
// limit a file of a hundred thousand nested arrays would overflow the stack.
// The tool's own section lies three levels below the root.
constexpr int kMaxNestingDepth = 512;

// The indentation of a whole document, in the file and in the log.
constexpr int kDocumentIndent = 4;

// Text that is not valid UTF-8 (an adapter name in another encoding) is
// written with replacement characters, the same way to the file and to the
// log, so that whatever is written parses again.
constexpr Json::error_handler_t kInvalidUtf8 = Json::error_handler_t::replace;

// Permission bits of a newly created file, before the process's umask.
constexpr mode_t kNewFileMode = 0666;
constexpr mode_t kPermissionBits = 07777;
// Names tried for the temporary file before the write gives up.
constexpr int kTempNameAttempts = 16;

Json& Node(void* node) { return *static_cast<Json*>(node); }

std::string Dump(const Json& value, int indent) {
  return value.dump(indent, ' ', /*ensure_ascii=*/false, kInvalidUtf8);
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

bool ReadWholeFile(const std::string& path, std::string& text) {
  const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rb"));
  if (!file) {
    return false;
  }
  char buffer[1 << 16];
  std::size_t count = 0;
  while ((count = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) {
    text.append(buffer, count);
  }
  return std::ferror(file.get()) == 0;
}

// Closes a descriptor it holds when it goes.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int Get() const { return fd_; }
  bool Close() {
    const int fd = fd_;
    fd_ = -1;
    return ::close(fd) == 0;
  }

 private:
  int fd_;
};

bool WriteAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return false;
    }
    done += static_cast<std::size_t>(written);
  }
  return true;
}

std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Makes the rename itself durable; a directory that refuses fsync changes nothing.
void SyncDirectory(const std::string& directory) {
  const FileDescriptor dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.Get() >= 0) {
    ::fsync(dir.Get());
  }
}

// Writes the text to a new file beside `path` and renames it over `path`, so
// that a run cut off at any moment leaves the old file or the new one, never a
// torn one. A replaced file keeps its permission bits; a new one gets those of
// a plain create. A run killed between the create and the rename leaves its
// temporary file behind.
int32_t ReplaceFile(const std::string& path, const std::string& text) {
  struct stat old {};
  const bool replacing = ::stat(path.c_str(), &old) == 0;

  std::string tempPath;
  int fd = -1;
  for (int attempt = 0; attempt < kTempNameAttempts && fd < 0; ++attempt) {
    tempPath = path + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(attempt);
    fd = ::open(tempPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode);
    if (fd < 0 && errno != EEXIST) {
      return -1;
    }
  }
  if (fd < 0) {
    return -1;
  }
  FileDescriptor temp(fd);
  const bool written = WriteAll(temp.Get(), text) &&
                       (!replacing || ::fchmod(temp.Get(), old.st_mode & kPermissionBits) == 0) &&
                       ::fsync(temp.Get()) == 0;
  const bool closed = temp.Close();
  if (!written || !closed || std::rename(tempPath.c_str(), path.c_str()) != 0) {
    ::unlink(tempPath.c_str());
    return -1;
  }
  SyncDirectory(DirectoryOf(path));
  return 0;
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
    throw JsonException("value is not an object");
  }
  return JsonObject(node_);
}

JsonArray JsonValue::AsArray() const {
  if (!Node(node_).is_array()) {
    throw JsonException("value is not an array");
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
  std::string text;
  if (!ReadWholeFile(path, text)) {
    return -1;
  }
  bool tooDeep = false;
  const Json::parser_callback_t limitDepth = [&tooDeep](int depth, Json::parse_event_t event, Json&) {
    const bool opens = event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start;
    if (opens && depth >= kMaxNestingDepth) {
      tooDeep = true;
      return false;  // the subtree is skipped, not built
    }
    return true;
  };
  Json parsed = Json::parse(text, limitDepth, /*allow_exceptions=*/false);
  if (tooDeep || parsed.is_discarded()) {
    return -1;
  }
  tree_->root = std::move(parsed);
  return 0;
}

int32_t JsonDoc::PrettyDumpFile(const std::string& path) const {
  return ReplaceFile(path, Dump(tree_->root, kDocumentIndent) + "\n");
}

int32_t JsonDoc::PrettyDump(std::string& text) const {
  text = Dump(tree_->root, kDocumentIndent);
  return 0;
}

JsonValue JsonDoc::Root() { return JsonValue(&tree_->root); }

}  // namespace zavkit
