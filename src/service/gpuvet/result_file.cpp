// The result file's format: the reader and the writer of "gpuvet.json".
#include <cstddef>
#include <optional>
#include <string>

#include "print.h"
#include "result_serialize.h"

namespace gpuvet {
namespace {

using zavkit::JsonValue;

constexpr const char* kSectionKey = "GpuVet";
constexpr const char* kAdaptersKey = "Adapters";

// The source path and the numbers in the reader's and the writer's lines are
// fixed texts of those lines: hosts match them as they stand.
constexpr const char* kSourcePath = "src/service/gpuvet/result_serialize";
constexpr int kParseFailedLine = 159;
constexpr int kNoRootLine = 167;
constexpr int kSaveFailedLine = 130;
// The root as it was read goes to the log without indentation.
constexpr int32_t kLogDumpIndent = 0;

// The reader's limits. Its time and memory follow the file's size; a file
// larger than this could outlast the run's bound. Deeper nesting would only
// serve to make dumps recurse deeply; the tool's own section lies three levels
// below the root. A file beyond either limit may hold a host's data that the
// reader could not see, so it is never replaced.
constexpr std::size_t kMaxFileBytes = std::size_t{16} << 20;
constexpr int32_t kMaxNestingDepth = 512;

constexpr int32_t kOk = 0;
constexpr int32_t kFailed = -1;
constexpr int32_t kSectionFailed = -3;

const char* MessageOf(const zavkit::JsonException& error) {
  return error.what() != nullptr ? error.what() : "unknown exception";
}

// A member of another type than its field reads as absent: the field keeps
// what it had. Integers of either kind serve, since a parsed number that is
// not negative is unsigned whatever kind it was written with.
bool IsInteger(const JsonValue& value) {
  return value.Tag() == zavkit::kJsonInt || value.Tag() == zavkit::kJsonUint;
}
void ReadUnsigned(const JsonValue& value, uint32_t& field) {
  if (IsInteger(value)) {
    field = value.AsUint();
  }
}
void ReadSigned(const JsonValue& value, int32_t& field) {
  if (IsInteger(value)) {
    field = value.AsInt();
  }
}
void ReadText(const JsonValue& value, std::string& field) {
  if (value.Tag() == zavkit::kJsonString) {
    field = value.AsString();
  }
}

// The ids are written unsigned, widened with zeros; the two verdict numbers
// signed, widened with their sign.
void WriteUnsigned(JsonValue& value, uint32_t field) {
  value.Clear();
  value.SetUint(field);
}
void WriteSigned(JsonValue& value, int32_t field) {
  value.Clear();
  value.SetInt(field);
}

// The ten members of an adapter object, in the order they are written.
struct AdapterField {
  const char* key;
  void (*read)(const JsonValue& value, AdapterResult& record);
  void (*write)(JsonValue& value, const AdapterResult& record);
};

const AdapterField kAdapterFields[] = {
    {"devID", [](const JsonValue& v, AdapterResult& r) { ReadUnsigned(v, r.adapter.devID); },
     [](JsonValue& v, const AdapterResult& r) { WriteUnsigned(v, r.adapter.devID); }},
    {"venID", [](const JsonValue& v, AdapterResult& r) { ReadUnsigned(v, r.adapter.venID); },
     [](JsonValue& v, const AdapterResult& r) { WriteUnsigned(v, r.adapter.venID); }},
    {"devName", [](const JsonValue& v, AdapterResult& r) { ReadText(v, r.adapter.devName); },
     [](JsonValue& v, const AdapterResult& r) { v.Set(r.adapter.devName); }},
    {"strDrvVer", [](const JsonValue& v, AdapterResult& r) { ReadText(v, r.adapter.strDrvVer); },
     [](JsonValue& v, const AdapterResult& r) { v.Set(r.adapter.strDrvVer); }},
    {"strDrvDate", [](const JsonValue& v, AdapterResult& r) { ReadText(v, r.adapter.strDrvDate); },
     [](JsonValue& v, const AdapterResult& r) { v.Set(r.adapter.strDrvDate); }},
    {"clCVersion", [](const JsonValue& v, AdapterResult& r) { ReadText(v, r.clCVersion); },
     [](JsonValue& v, const AdapterResult& r) { v.Set(r.clCVersion); }},
    {"clDevVersion", [](const JsonValue& v, AdapterResult& r) { ReadText(v, r.clDevVersion); },
     [](JsonValue& v, const AdapterResult& r) { v.Set(r.clDevVersion); }},
    {"clDrvVersion", [](const JsonValue& v, AdapterResult& r) { ReadText(v, r.clDrvVersion); },
     [](JsonValue& v, const AdapterResult& r) { v.Set(r.clDrvVersion); }},
    {"checkResult", [](const JsonValue& v, AdapterResult& r) { ReadSigned(v, r.checkResult); },
     [](JsonValue& v, const AdapterResult& r) { WriteSigned(v, r.checkResult); }},
    {"checked", [](const JsonValue& v, AdapterResult& r) { ReadSigned(v, r.checked); },
     [](JsonValue& v, const AdapterResult& r) { WriteSigned(v, r.checked); }},
};

// Names are compared byte for byte, case counting; unknown members are passed over.
AdapterResult ReadAdapterObject(const zavkit::JsonObject& object) {
  AdapterResult record;
  for (const zavkit::JsonMember member : object) {
    const std::string name = member.Name();
    for (const AdapterField& field : kAdapterFields) {
      if (name == field.key) {
        field.read(member, record);
      }
    }
  }
  return record;
}

// What the file gives a run: a document, nothing that must be kept (no file,
// or no JSON at all: the writer replaces it), or a reason to leave it alone.
enum class FileState { kParsed, kReplaceable, kRefused };
struct LoadedFile {
  FileState state;
  const char* refusal = nullptr;  // why nothing is stored, for kRefused
};

using platform::FolderFileStatus;

const char* FolderRefusal(FolderFileStatus status) {
  switch (status) {
    case FolderFileStatus::kForeignLink:
      return "lies behind a link of another user's";
    case FolderFileStatus::kNotRegular:
      return "lies in a path that is no folder";
    default:
      return "lies in a folder that can't be opened";
  }
}

const char* FileRefusal(FolderFileStatus status) {
  switch (status) {
    case FolderFileStatus::kForeignLink:
      return "is a link of another user's";
    case FolderFileStatus::kNotRegular:
      return "is not a regular file";
    case FolderFileStatus::kForeignOwner:
      return "belongs to another user";
    case FolderFileStatus::kTooLarge:
      return "is larger than 16 MiB";
    default:
      return "can't be read";
  }
}

// Nothing of a refused file is read, let alone printed.
LoadedFile ReadDocument(const ResultSerialize& store, zavkit::JsonDoc& doc) {
  if (store.folderStatus != FolderFileStatus::kUsable) {
    // A folder that does not exist: the write fails unnoticed later.
    return store.folderStatus == FolderFileStatus::kMissing
               ? LoadedFile{FileState::kReplaceable}
               : LoadedFile{FileState::kRefused, FolderRefusal(store.folderStatus)};
  }
  std::string text;
  const FolderFileStatus read = store.folder.Read(ResultSerialize::kFileName, kMaxFileBytes, text);
  if (read == FolderFileStatus::kMissing) {
    return {FileState::kReplaceable};
  }
  if (read != FolderFileStatus::kUsable) {
    return {FileState::kRefused, FileRefusal(read)};
  }
  switch (doc.Parse(text, kMaxNestingDepth)) {
    case zavkit::JsonParse::kParsed:
      return {FileState::kParsed};
    case zavkit::JsonParse::kTooDeep:
      return {FileState::kRefused, "is nested deeper than 512 levels"};
    default:
      return {FileState::kReplaceable};
  }
}

void PrintNothingStored(const std::string& path, const char* why) {
  Print("ResultSerialize::AddResult: %s %s, nothing stored\n", path.c_str(), why);
}

// Refusals of the replace: what stands under the name changed since the read.
bool IsRefusal(FolderFileStatus status) {
  return status == FolderFileStatus::kForeignLink || status == FolderFileStatus::kNotRegular ||
         status == FolderFileStatus::kForeignOwner;
}

}  // namespace

int32_t ResultSerialize::ReadConfig(const std::string& path, std::vector<AdapterResult>& records) const {
  try {
    return ParseResults(path, records);
  } catch (const zavkit::JsonException& error) {
    Print("ResultSerialize::ReadConfig: %s\n", MessageOf(error));
  }
  return kFailed;
}

int32_t ResultSerialize::ParseResults(const std::string& path, std::vector<AdapterResult>& records) const {
  records.clear();
  zavkit::JsonDoc doc;
  if (ReadDocument(*this, doc).state != FileState::kParsed) {
    Print("%s %d parse failed: %s [%d]\n", kSourcePath, kParseFailedLine, path.c_str(), kFailed);
    return kFailed;
  }
  std::optional<zavkit::JsonObject> root;
  doc.Root().Get(root);
  if (!root) {
    Print("%s %d nullptr == root\n", kSourcePath, kNoRootLine);
    return kFailed;
  }
  // The whole file goes to the log, also what belongs to others.
  std::string dump;
  doc.Root().PrettyDump(dump, kLogDumpIndent);
  Print("%s\n", dump.c_str());

  const std::optional<zavkit::JsonMember> section = root->Find(kSectionKey);
  if (!section || section->Tag() != zavkit::kJsonObject) {
    return kFailed;
  }
  const std::optional<zavkit::JsonMember> adapters = section->AsObject().Find(kAdaptersKey);
  if (!adapters || adapters->Tag() != zavkit::kJsonArray) {
    return kFailed;
  }
  for (const zavkit::JsonElem element : adapters->AsArray()) {
    if (element.Tag() != zavkit::kJsonObject) {
      continue;  // gives no record
    }
    records.push_back(ReadAdapterObject(element.AsObject()));
  }
  return kOk;
}

int32_t ResultSerialize::AddResult() const {
  try {
    return save_result();
  } catch (const zavkit::JsonException& error) {
    Print("ResultSerialize::AddResult: %s\n", MessageOf(error));
  }
  return kFailed;
}

// The file is read afresh, so that the members of others that stand in it now
// are kept; a file that can't be parsed, or whose root is no object, is
// dropped. A file that is refused stays as it is, and this run stores nothing.
int32_t ResultSerialize::save_result() const {
  zavkit::JsonDoc doc;
  const LoadedFile loaded = ReadDocument(*this, doc);
  if (loaded.state == FileState::kRefused) {
    PrintNothingStored(path, loaded.refusal);
    return kFailed;
  }
  std::optional<zavkit::JsonObject> root;
  if (loaded.state == FileState::kParsed && doc.Root().Tag() == zavkit::kJsonObject) {
    root = doc.Root().AsObject();
  } else {
    root = doc.Root().MakeEmptyObject();
  }
  const int32_t status = WriteSection(*root, results);
  if (status != kOk) {
    Print("%s %d.error ! save gpu setting failed :%d\n", "ResultSerialize::save_result", kSaveFailedLine, status);
    return kSectionFailed;
  }
  std::string dump;
  doc.PrettyDump(dump, kSectionKey);
  // What the tool writes, the next run must be able to read.
  if (dump.size() + 1 > kMaxFileBytes) {
    PrintNothingStored(path, "would be larger than 16 MiB");
    return kFailed;
  }
  // A failed write goes unnoticed here: the next run finds the old file, or none.
  const FolderFileStatus written = folder.Replace(kFileName, dump + "\n");
  if (IsRefusal(written)) {
    PrintNothingStored(path, FileRefusal(written));
    return kFailed;
  }
  Print("%s\n", dump.c_str());
  Print("file:%s\n", path.c_str());
  return kOk;
}

// Nothing of an old section survives, also no member unknown to the tool.
int32_t ResultSerialize::WriteSection(zavkit::JsonObject& root, const std::vector<AdapterResult>& results) {
  root.Erase(kSectionKey);
  zavkit::JsonObject section = root.Add(kSectionKey).MakeEmptyObject();
  zavkit::JsonArray adapters = section.Add(kAdaptersKey).MakeEmptyArray();
  for (const AdapterResult& record : results) {
    zavkit::JsonObject object;
    for (const AdapterField& field : kAdapterFields) {
      zavkit::JsonMember member = object.Add(field.key);
      field.write(member, record);
    }
    adapters.Add().Set(object);
  }
  return kOk;
}

}  // namespace gpuvet
