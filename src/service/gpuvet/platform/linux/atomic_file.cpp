#include "platform/atomic_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <memory>
#include <utility>

namespace gpuvet::platform {
namespace {

// Permission bits of a newly created file, before the process's umask.
constexpr mode_t kNewFileMode = 0666;
constexpr mode_t kPermissionBits = 07777;
// Names tried for the temporary file before the write gives up.
constexpr int kTempNameAttempts = 16;
// Links followed before a path counts as a loop.
constexpr int kMaxLinkHops = 40;
// What a temporary file's name adds to the name of the file it replaces.
constexpr const char* kTempMarker = ".tmp-";

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
  bool Close() { return ::close(Release()) == 0; }
  // Hands the descriptor to the caller, who closes it.
  int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
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

std::string NameOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The file that path finally names once every symbolic link on it is followed;
// a link that points nowhere names the file it would point to.
std::string FollowLinks(std::string path) {
  for (int hop = 0; hop < kMaxLinkHops; ++hop) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 || !S_ISLNK(status.st_mode)) {
      return path;
    }
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size() - 1);
    if (length <= 0) {
      return path;
    }
    const std::string next(target.data(), static_cast<std::size_t>(length));
    path = next.front() == '/' ? next : DirectoryOf(path) + "/" + next;
  }
  return path;
}

// A writer holds an exclusive lock on its temporary file until the rename, and
// the lock goes with the process: a leftover whose lock can be taken belongs to
// a run that is gone, and goes too.
void RemoveLeftovers(const std::string& target) {
  const std::string directory = DirectoryOf(target);
  const std::string prefix = NameOf(target) + kTempMarker;
  const std::unique_ptr<DIR, DirCloser> dir(::opendir(directory.c_str()));
  if (!dir) {
    return;
  }
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name.compare(0, prefix.size(), prefix) != 0) {
      continue;
    }
    const std::string leftover = directory + "/" + name;
    const FileDescriptor file(::open(leftover.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (file.Get() >= 0 && ::flock(file.Get(), LOCK_EX | LOCK_NB) == 0) {
      ::unlink(leftover.c_str());
    }
  }
}

// True when the name still stands for the open file: a cleaner may have taken
// it away between the create and the lock.
bool NameIsFile(const std::string& path, int fd) {
  struct stat byName {};
  struct stat byFd {};
  return ::stat(path.c_str(), &byName) == 0 && ::fstat(fd, &byFd) == 0 && byName.st_dev == byFd.st_dev &&
         byName.st_ino == byFd.st_ino;
}

// A new temporary file beside the target, locked for this run; -1 when none can be made.
int CreateLockedTemp(const std::string& target, std::string& tempPath) {
  for (int attempt = 0; attempt < kTempNameAttempts; ++attempt) {
    tempPath = target + kTempMarker + std::to_string(::getpid()) + "-" + std::to_string(attempt);
    FileDescriptor fd(::open(tempPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode));
    if (fd.Get() < 0) {
      if (errno == EEXIST) {
        continue;
      }
      return -1;
    }
    if (::flock(fd.Get(), LOCK_EX) == 0 && NameIsFile(tempPath, fd.Get())) {
      return fd.Release();
    }
  }
  return -1;
}

// Makes the rename itself durable; a directory that refuses fsync changes nothing.
void SyncDirectory(const std::string& directory) {
  const FileDescriptor dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.Get() >= 0) {
    ::fsync(dir.Get());
  }
}

}  // namespace

int32_t ReplaceFileAtomically(const std::string& path, const std::string& text) {
  const std::string target = FollowLinks(path);
  RemoveLeftovers(target);

  struct stat old {};
  const bool replacing = ::stat(target.c_str(), &old) == 0;
  std::string tempPath;
  FileDescriptor temp(CreateLockedTemp(target, tempPath));
  if (temp.Get() < 0) {
    return -1;
  }
  if (replacing) {
    // Ownership first: a change of owner may clear the set-id bits.
    (void)::fchown(temp.Get(), old.st_uid, old.st_gid);
  }
  const bool written = WriteAll(temp.Get(), text) &&
                       (!replacing || ::fchmod(temp.Get(), old.st_mode & kPermissionBits) == 0) &&
                       ::fsync(temp.Get()) == 0;
  // The lock stays held through the rename: the descriptor closes after it.
  if (!written || std::rename(tempPath.c_str(), target.c_str()) != 0) {
    ::unlink(tempPath.c_str());
    return -1;
  }
  const bool closed = temp.Close();
  SyncDirectory(DirectoryOf(target));
  return closed ? 0 : -1;
}

}  // namespace gpuvet::platform
