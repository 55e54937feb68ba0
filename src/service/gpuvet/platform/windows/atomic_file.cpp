#include "platform/atomic_file.h"

#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <string>

#include "platform/windows/wide_text.h"

namespace gpuvet::platform {
namespace {

// What a temporary file's name adds to the name of the file it replaces, then
// "PID-CREATIONTIME-ATTEMPT" of the run that writes it.
constexpr const wchar_t* kTempMarker = L".tmp-";
constexpr int kTempNameAttempts = 16;

// Closes the handle it holds when it goes.
class FileHandle {
 public:
  explicit FileHandle(HANDLE handle) : handle_(handle) {}
  ~FileHandle() { Close(); }
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;

  HANDLE Get() const { return handle_; }
  bool Valid() const { return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE; }
  bool Close() {
    const bool closed = !Valid() || ::CloseHandle(handle_) != 0;
    handle_ = nullptr;
    return closed;
  }

 private:
  HANDLE handle_;
};

// Closes a find handle when it goes.
class FindHandle {
 public:
  explicit FindHandle(HANDLE handle) : handle_(handle) {}
  ~FindHandle() {
    if (handle_ != INVALID_HANDLE_VALUE) {
      ::FindClose(handle_);
    }
  }
  FindHandle(const FindHandle&) = delete;
  FindHandle& operator=(const FindHandle&) = delete;

  HANDLE Get() const { return handle_; }

 private:
  HANDLE handle_;
};

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
  const FileHandle process(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
  if (!process.Valid()) {
    return ::GetLastError() != ERROR_INVALID_PARAMETER;  // no such process
  }
  DWORD exitCode = 0;
  if (::GetExitCodeProcess(process.Get(), &exitCode) && exitCode != STILL_ACTIVE) {
    return false;
  }
  return CreationTime(process.Get()) == creationTime;
}

std::wstring DirectoryOf(const std::wstring& path) {
  const std::size_t separator = path.find_last_of(L"\\/");
  return separator == std::wstring::npos ? std::wstring() : path.substr(0, separator + 1);
}

// The temporary files of runs that are gone; a name this layer did not make is left alone.
void RemoveLeftovers(const std::wstring& target) {
  const std::wstring directory = DirectoryOf(target);
  const std::wstring prefix = target.substr(directory.size()) + kTempMarker;
  WIN32_FIND_DATAW found{};
  const FindHandle find(::FindFirstFileW((directory + prefix + L"*").c_str(), &found));
  if (find.Get() == INVALID_HANDLE_VALUE) {
    return;
  }
  do {
    unsigned long processId = 0;
    unsigned long long creationTime = 0;
    int attempt = 0;
    wchar_t end = 0;
    const wchar_t* owner = found.cFileName + prefix.size();
    if (std::wcslen(found.cFileName) > prefix.size() &&
        std::swscanf(owner, L"%lu-%llx-%d%lc", &processId, &creationTime, &attempt, &end) == 3 &&
        !RunIsAlive(processId, creationTime)) {
      ::DeleteFileW((directory + found.cFileName).c_str());
    }
  } while (::FindNextFileW(find.Get(), &found));
}

bool WriteAll(HANDLE file, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(text.size() - done, 1u << 30));
    DWORD written = 0;
    if (!::WriteFile(file, text.data() + done, chunk, &written, nullptr) || written == 0) {
      return false;
    }
    done += written;
  }
  return true;
}

// This run's name for its temporary file.
std::wstring OwnerText() {
  wchar_t text[48] = {};
  std::swprintf(text, 48, L"%lu-%llx", static_cast<unsigned long>(::GetCurrentProcessId()),
                static_cast<unsigned long long>(CreationTime(::GetCurrentProcess())));
  return text;
}

// A new temporary file beside the target, no other handle shared; INVALID_HANDLE_VALUE when none can be made.
HANDLE CreateTemp(const std::wstring& target, std::wstring& tempPath) {
  for (int attempt = 0; attempt < kTempNameAttempts; ++attempt) {
    tempPath = target + kTempMarker + OwnerText() + L"-" + std::to_wstring(attempt);
    const HANDLE file =
        ::CreateFileW(tempPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE || ::GetLastError() != ERROR_FILE_EXISTS) {
      return file;
    }
  }
  return INVALID_HANDLE_VALUE;
}

}  // namespace

int32_t ReplaceFileAtomically(const std::string& path, const std::string& text) {
  const std::wstring target = windows::PathToWide(path);
  if (target.empty()) {
    return -1;
  }
  RemoveLeftovers(target);

  std::wstring tempPath;
  FileHandle temp(CreateTemp(target, tempPath));
  if (!temp.Valid()) {
    return -1;
  }
  const bool written = WriteAll(temp.Get(), text) && ::FlushFileBuffers(temp.Get()) && temp.Close();
  // ReplaceFileW keeps the old file's attributes and security; with no old
  // file there is nothing to keep.
  const bool replacing = ::GetFileAttributesW(target.c_str()) != INVALID_FILE_ATTRIBUTES;
  const bool moved =
      written && (replacing ? ::ReplaceFileW(target.c_str(), tempPath.c_str(), nullptr, REPLACEFILE_IGNORE_MERGE_ERRORS,
                                             nullptr, nullptr) != 0
                            : ::MoveFileExW(tempPath.c_str(), target.c_str(),
                                            MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0);
  if (!moved) {
    temp.Close();
    ::DeleteFileW(tempPath.c_str());
    return -1;
  }
  return 0;
}

}  // namespace gpuvet::platform
