// The result folder on Windows: the folder is opened once, and every name in it
// is opened relative to that handle (NtCreateFile with a root directory) without
// following a reparse point. A name is trusted only when the file its handle
// reaches is the file of that name in that folder: the reparse attribute says
// so on Windows, and the handle's final path says so also where a link carries
// no such attribute (a Unix link under Wine).
#include "platform/result_folder.h"

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>
#include <winternl.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <utility>
#include <vector>

#include "platform/windows/wide_text.h"

namespace gpuvet::platform {
namespace {

using Status = FolderFileStatus;

// What a temporary file's name adds to the name of the file it replaces, then
// "PID-CREATIONTIME-ATTEMPT" of the run that writes it.
constexpr const wchar_t* kTempMarker = L".tmp-";
constexpr int kTempNameAttempts = 16;
constexpr DWORD kReadChunk = 1u << 16;
constexpr DWORD kWriteChunk = 1u << 30;
constexpr DWORD kListingBytes = 1u << 16;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr ULONG kFileOptions = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT | FILE_OPEN_REPARSE_POINT;
// The only hands on the temporary file: the process's user, SYSTEM and the Administrators.
constexpr const wchar_t* kPrivateDacl = L"D:P(A;;FA;;;%ls)(A;;FA;;;SY)(A;;FA;;;BA)";

constexpr NTSTATUS kNameNotFound = static_cast<NTSTATUS>(0xC0000034);
constexpr NTSTATUS kPathNotFound = static_cast<NTSTATUS>(0xC000003A);
constexpr NTSTATUS kNameCollision = static_cast<NTSTATUS>(0xC0000035);
constexpr NTSTATUS kFileIsADirectory = static_cast<NTSTATUS>(0xC00000BA);

// Closes the handle it holds when it goes.
class Handle {
 public:
  explicit Handle(HANDLE handle = INVALID_HANDLE_VALUE) : handle_(handle) {}
  ~Handle() { Reset(); }
  Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, INVALID_HANDLE_VALUE)) {}
  Handle& operator=(Handle&& other) noexcept {
    if (this != &other) {
      Reset(std::exchange(other.handle_, INVALID_HANDLE_VALUE));
    }
    return *this;
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  HANDLE Get() const { return handle_; }
  bool Valid() const { return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE; }
  void Reset(HANDLE handle = INVALID_HANDLE_VALUE) {
    if (Valid()) {
      ::CloseHandle(handle_);
    }
    handle_ = handle;
  }

 private:
  HANDLE handle_;
};

// Memory that a security call allocated with LocalAlloc.
struct LocalFreer {
  void operator()(void* memory) const { ::LocalFree(memory); }
};
using LocalMemory = std::unique_ptr<void, LocalFreer>;

// A file's owner, or a DACL, with the descriptor that holds it.
struct Security {
  LocalMemory descriptor;
  PSID owner = nullptr;
  PACL dacl = nullptr;
};

bool ReadSecurity(HANDLE handle, SECURITY_INFORMATION what, Security& security) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error = ::GetSecurityInfo(handle, SE_FILE_OBJECT, what, &security.owner, nullptr, &security.dacl,
                                        nullptr, &descriptor);
  security.descriptor.reset(descriptor);
  return error == ERROR_SUCCESS;
}

// The process's user, as its token names it.
std::vector<BYTE> ProcessUser() {
  HANDLE token = nullptr;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token)) {
    return {};
  }
  const Handle owned(token);
  DWORD size = 0;
  ::GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  std::vector<BYTE> user(size);
  if (size == 0 || !::GetTokenInformation(token, TokenUser, user.data(), size, &size)) {
    return {};
  }
  return user;
}

PSID SidOf(std::vector<BYTE>& tokenUser) {
  return tokenUser.empty() ? nullptr : reinterpret_cast<TOKEN_USER*>(tokenUser.data())->User.Sid;
}

// As the kernel's protected-regular rule trusts files in a sticky folder: the
// process's user, SYSTEM, the Administrators, or the folder's owner.
bool TrustedOwner(PSID owner, PSID folderOwner) {
  std::vector<BYTE> user = ProcessUser();
  return owner != nullptr && ((SidOf(user) != nullptr && ::EqualSid(owner, SidOf(user))) ||
                              ::IsWellKnownSid(owner, WinLocalSystemSid) ||
                              ::IsWellKnownSid(owner, WinBuiltinAdministratorsSid) ||
                              (folderOwner != nullptr && ::EqualSid(owner, folderOwner)));
}

// The path the system resolves the handle to, without its "\\?\" prefix.
std::wstring FinalPath(HANDLE handle) {
  std::vector<wchar_t> path(MAX_PATH);
  for (;;) {
    const DWORD length =
        ::GetFinalPathNameByHandleW(handle, path.data(), static_cast<DWORD>(path.size()), FILE_NAME_NORMALIZED);
    if (length == 0) {
      return std::wstring();
    }
    if (length < path.size()) {
      std::wstring text(path.data(), length);
      return text.rfind(L"\\\\?\\", 0) == 0 ? text.substr(4) : text;
    }
    path.resize(length + 1);
  }
}

bool SamePath(const std::wstring& one, const std::wstring& other) {
  return !one.empty() && ::CompareStringOrdinal(one.c_str(), static_cast<int>(one.size()), other.c_str(),
                                                static_cast<int>(other.size()), TRUE) == CSTR_EQUAL;
}

uint64_t CreationTime(HANDLE process) {
  FILETIME creation{}, exited{}, kernel{}, user{};
  if (!::GetProcessTimes(process, &creation, &exited, &kernel, &user)) {
    return 0;
  }
  return (static_cast<uint64_t>(creation.dwHighDateTime) << 32) | creation.dwLowDateTime;
}

// A run is known by its process id and the process's creation time, so that a
// later process with the same id is not taken for it. Anything that can't be
// decided counts as alive: its file is left alone.
bool RunIsAlive(DWORD processId, uint64_t creationTime) {
  const Handle process(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
  if (!process.Valid()) {
    return ::GetLastError() != ERROR_INVALID_PARAMETER;  // no such process
  }
  DWORD exitCode = 0;
  if (::GetExitCodeProcess(process.Get(), &exitCode) && exitCode != STILL_ACTIVE) {
    return false;
  }
  return CreationTime(process.Get()) == creationTime;
}

// This run's part of its temporary files' names.
std::wstring OwnerText() {
  wchar_t text[48] = {};
  std::swprintf(text, 48, L"%lu-%llx", static_cast<unsigned long>(::GetCurrentProcessId()),
                static_cast<unsigned long long>(CreationTime(::GetCurrentProcess())));
  return text;
}

bool WriteAll(HANDLE file, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(text.size() - done, kWriteChunk));
    DWORD written = 0;
    if (!::WriteFile(file, text.data() + done, chunk, &written, nullptr) || written == 0) {
      return false;
    }
    done += written;
  }
  return true;
}

bool SetDisposition(HANDLE file) {
  FILE_DISPOSITION_INFO disposition{};
  disposition.DeleteFile = TRUE;
  return ::SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof disposition) != 0;
}

// Renames the open file to the name in the folder, over what stands there. The
// system call itself: kernelbase's form turns a relative name into a path from
// the current directory under Wine.
bool RenameInFolder(HANDLE file, HANDLE folder, const std::wstring& name) {
  // FILE_RENAME_INFO has the layout of the system's FILE_RENAME_INFORMATION.
  std::vector<BYTE> buffer(sizeof(FILE_RENAME_INFO) + name.size() * sizeof(wchar_t));
  auto* rename = reinterpret_cast<FILE_RENAME_INFO*>(buffer.data());
  rename->ReplaceIfExists = TRUE;
  rename->RootDirectory = folder;
  rename->FileNameLength = static_cast<DWORD>(name.size() * sizeof(wchar_t));
  std::copy(name.begin(), name.end(), rename->FileName);
  IO_STATUS_BLOCK io{};
  return NT_SUCCESS(::NtSetInformationFile(file, &io, rename, static_cast<ULONG>(buffer.size()),
                                           FileRenameInformation));
}

}  // namespace

struct ResultFolder::Native {
  Handle folder;
  std::wstring path;  // the folder's final path
  Security owner;     // the folder's owner

  // Opens a name of the folder itself, never what a reparse point names.
  NTSTATUS OpenName(const std::wstring& name, ACCESS_MASK access, ULONG share, ULONG disposition,
                    PSECURITY_DESCRIPTOR descriptor, Handle& file) const {
    UNICODE_STRING text{};
    text.Buffer = const_cast<wchar_t*>(name.c_str());
    text.Length = static_cast<USHORT>(name.size() * sizeof(wchar_t));
    text.MaximumLength = text.Length;
    OBJECT_ATTRIBUTES attributes{};
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, folder.Get(), descriptor);
    IO_STATUS_BLOCK io{};
    HANDLE opened = INVALID_HANDLE_VALUE;
    const NTSTATUS status = ::NtCreateFile(&opened, access | SYNCHRONIZE, &attributes, &io, nullptr,
                                           FILE_ATTRIBUTE_NORMAL, share, disposition, kFileOptions, nullptr, 0);
    file.Reset(NT_SUCCESS(status) ? opened : INVALID_HANDLE_VALUE);
    return status;
  }

  // The checks every existing name passes before it is read, replaced or removed.
  Status Check(const std::wstring& name, HANDLE file) const {
    BY_HANDLE_FILE_INFORMATION info{};
    if (!::GetFileInformationByHandle(file, &info)) {
      return Status::kFailed;
    }
    const std::wstring expected = path.back() == L'\\' ? path + name : path + L"\\" + name;
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 || !SamePath(FinalPath(file), expected)) {
      return Status::kForeignLink;
    }
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 || ::GetFileType(file) != FILE_TYPE_DISK) {
      return Status::kNotRegular;
    }
    Security security;
    if (!ReadSecurity(file, OWNER_SECURITY_INFORMATION, security)) {
      return Status::kFailed;
    }
    return TrustedOwner(security.owner, owner.owner) ? Status::kUsable : Status::kForeignOwner;
  }

  // Opens an existing name and checks it; kMissing when nothing stands there.
  Status OpenChecked(const std::wstring& name, ACCESS_MASK access, Handle& file) const {
    const NTSTATUS opened = OpenName(name, access | READ_CONTROL | FILE_READ_ATTRIBUTES, kShareAll, FILE_OPEN,
                                     nullptr, file);
    if (opened == kNameNotFound || opened == kPathNotFound) {
      return Status::kMissing;
    }
    if (opened == kFileIsADirectory) {
      return Status::kNotRegular;
    }
    return NT_SUCCESS(opened) ? Check(name, file.Get()) : Status::kFailed;
  }

  std::vector<std::wstring> NamesStartingWith(const std::wstring& prefix) const {
    std::vector<std::wstring> names;
    std::vector<BYTE> buffer(kListingBytes);
    for (FILE_INFO_BY_HANDLE_CLASS kind = FileIdBothDirectoryRestartInfo;
         ::GetFileInformationByHandleEx(folder.Get(), kind, buffer.data(), kListingBytes);
         kind = FileIdBothDirectoryInfo) {
      for (std::size_t at = 0;;) {
        const auto* entry = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(buffer.data() + at);
        const std::wstring name(entry->FileName, entry->FileNameLength / sizeof(wchar_t));
        if (name.compare(0, prefix.size(), prefix) == 0) {
          names.push_back(name);
        }
        if (entry->NextEntryOffset == 0) {
          break;
        }
        at += entry->NextEntryOffset;
      }
    }
    return names;
  }

  // The temporary files of runs that are gone: trusted regular files only,
  // removed through their own handle; a name this layer did not make is left alone.
  void RemoveLeftovers(const std::wstring& target) const {
    const std::wstring prefix = target + kTempMarker;
    for (const std::wstring& name : NamesStartingWith(prefix)) {
      unsigned long processId = 0;
      unsigned long long creationTime = 0;
      int attempt = 0;
      wchar_t end = 0;
      if (std::swscanf(name.c_str() + prefix.size(), L"%lu-%llx-%d%lc", &processId, &creationTime, &attempt, &end) !=
              3 ||
          RunIsAlive(processId, creationTime)) {
        continue;
      }
      Handle file;
      if (OpenChecked(name, DELETE, file) == Status::kUsable) {
        SetDisposition(file.Get());
      }
    }
  }

  // A new temporary file beside the target, private to this run and shared with no one.
  Handle CreateTemp(const std::wstring& target, std::wstring& tempName) const {
    std::vector<BYTE> user = ProcessUser();
    LPWSTR userText = nullptr;
    if (SidOf(user) == nullptr || !::ConvertSidToStringSidW(SidOf(user), &userText)) {
      return Handle();
    }
    const LocalMemory userTextOwner(userText);
    wchar_t dacl[256] = {};
    std::swprintf(dacl, 256, kPrivateDacl, userText);
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(dacl, SDDL_REVISION_1, &descriptor, nullptr)) {
      return Handle();
    }
    const LocalMemory descriptorOwner(descriptor);
    for (int attempt = 0; attempt < kTempNameAttempts; ++attempt) {
      Handle file;
      tempName = target + kTempMarker + OwnerText() + L"-" + std::to_wstring(attempt);
      const NTSTATUS created =
          OpenName(tempName, GENERIC_WRITE | DELETE | READ_CONTROL | WRITE_DAC, 0, FILE_CREATE, descriptor, file);
      if (created != kNameCollision) {
        return file;
      }
    }
    return Handle();
  }
};

ResultFolder::ResultFolder() = default;
ResultFolder::~ResultFolder() = default;
ResultFolder::ResultFolder(ResultFolder&& other) noexcept = default;
ResultFolder& ResultFolder::operator=(ResultFolder&& other) noexcept = default;

FolderFileStatus ResultFolder::Open(const std::string& path) {
  native_.reset();
  const std::wstring wide = windows::PathToWide(path);
  if (wide.empty()) {
    return Status::kMissing;
  }
  auto native = std::make_unique<Native>();
  native->folder.Reset(::CreateFileW(wide.c_str(), FILE_LIST_DIRECTORY | FILE_TRAVERSE | READ_CONTROL, kShareAll,
                                     nullptr, OPEN_EXISTING,
                                     FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  if (!native->folder.Valid()) {
    const DWORD error = ::GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? Status::kMissing : Status::kFailed;
  }
  BY_HANDLE_FILE_INFORMATION info{};
  if (!::GetFileInformationByHandle(native->folder.Get(), &info) ||
      !ReadSecurity(native->folder.Get(), OWNER_SECURITY_INFORMATION, native->owner)) {
    return Status::kFailed;
  }
  // Under Wine a Unix link to a folder shows as a reparse point by its path only.
  const DWORD byPath = ::GetFileAttributesW(wide.c_str());
  if (((info.dwFileAttributes | (byPath == INVALID_FILE_ATTRIBUTES ? 0 : byPath)) & FILE_ATTRIBUTE_REPARSE_POINT) !=
      0) {
    return Status::kForeignLink;
  }
  if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    return Status::kNotRegular;
  }
  native->path = FinalPath(native->folder.Get());
  if (native->path.empty()) {
    return Status::kFailed;
  }
  native_ = std::move(native);
  return Status::kUsable;
}

bool ResultFolder::IsOpen() const { return native_ != nullptr; }

FolderFileStatus ResultFolder::Read(const std::string& name, std::size_t maxBytes, std::string& text) const {
  text.clear();
  if (!native_) {
    return Status::kMissing;
  }
  Handle file;
  if (const Status opened = native_->OpenChecked(windows::PathToWide(name), GENERIC_READ, file);
      opened != Status::kUsable) {
    return opened;
  }
  LARGE_INTEGER size{};
  if (!::GetFileSizeEx(file.Get(), &size)) {
    return Status::kFailed;
  }
  if (static_cast<unsigned long long>(size.QuadPart) > maxBytes) {
    return Status::kTooLarge;
  }
  std::vector<char> buffer(kReadChunk);
  for (;;) {
    DWORD count = 0;
    if (!::ReadFile(file.Get(), buffer.data(), kReadChunk, &count, nullptr)) {
      text.clear();
      return Status::kFailed;
    }
    if (count == 0) {
      return Status::kUsable;
    }
    if (text.size() + count > maxBytes) {  // it grew since its size was read
      text.clear();
      return Status::kTooLarge;
    }
    text.append(buffer.data(), count);
  }
}

FolderFileStatus ResultFolder::Replace(const std::string& name, const std::string& text) const {
  if (!native_) {
    return Status::kMissing;
  }
  const std::wstring target = windows::PathToWide(name);
  Handle old;
  const Status located = native_->OpenChecked(target, 0, old);
  if (located != Status::kUsable && located != Status::kMissing) {
    return located;
  }
  BY_HANDLE_FILE_INFORMATION oldInfo{};
  Security oldSecurity;
  if (located == Status::kUsable && (!::GetFileInformationByHandle(old.Get(), &oldInfo) ||
                                     !ReadSecurity(old.Get(), DACL_SECURITY_INFORMATION, oldSecurity))) {
    return Status::kFailed;
  }
  old.Reset();
  native_->RemoveLeftovers(target);

  // The handle stays open and unshared from the create to the rename: no one
  // else reads the text half written, holds the file, or swaps it.
  std::wstring tempName;
  Handle temp = native_->CreateTemp(target, tempName);
  if (!temp.Valid()) {
    return Status::kFailed;
  }
  bool ready = WriteAll(temp.Get(), text) && ::FlushFileBuffers(temp.Get());
  // The replaced file's permissions go over, where the process may set them; a
  // new file keeps the private ones it was made with.
  if (ready && oldSecurity.dacl != nullptr) {
    (void)::SetSecurityInfo(temp.Get(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                            oldSecurity.dacl, nullptr);
  }
  // What stands under the name is still what was checked, or still nothing.
  Handle now;
  const Status standing = native_->OpenChecked(target, 0, now);
  BY_HANDLE_FILE_INFORMATION nowInfo{};
  ready = ready && standing == located &&
          (standing == Status::kMissing ||
           (::GetFileInformationByHandle(now.Get(), &nowInfo) &&
            nowInfo.dwVolumeSerialNumber == oldInfo.dwVolumeSerialNumber &&
            nowInfo.nFileIndexHigh == oldInfo.nFileIndexHigh && nowInfo.nFileIndexLow == oldInfo.nFileIndexLow));
  now.Reset();

  if (!ready) {
    SetDisposition(temp.Get());
    return Status::kFailed;
  }
  if (RenameInFolder(temp.Get(), native_->folder.Get(), target)) {
    return Status::kUsable;
  }
  if (located == Status::kMissing) {
    SetDisposition(temp.Get());
    return Status::kFailed;
  }
  // The system renames nothing over a file that someone holds open, even one
  // who lets others delete it; ReplaceFileW swaps such a file, by name and
  // once no handle of this run holds the new one. Its private descriptor
  // keeps it this run's meanwhile.
  temp.Reset();
  const std::wstring folder = L"\\\\?\\" + native_->path + (native_->path.back() == L'\\' ? L"" : L"\\");
  if (::ReplaceFileW((folder + target).c_str(), (folder + tempName).c_str(), nullptr, REPLACEFILE_IGNORE_MERGE_ERRORS,
                     nullptr, nullptr)) {
    return Status::kUsable;
  }
  if (NT_SUCCESS(native_->OpenName(tempName, DELETE, kShareAll, FILE_OPEN, nullptr, temp))) {
    SetDisposition(temp.Get());
  }
  return Status::kFailed;
}

}  // namespace gpuvet::platform
