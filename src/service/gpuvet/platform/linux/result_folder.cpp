// The result folder on Linux: every name is looked up relative to an open
// folder with O_PATH and O_NOFOLLOW, so a link is seen before it is followed
// and nothing is opened for reading or writing before its type is known.
#include "platform/result_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <deque>
#include <utility>

namespace gpuvet::platform {
namespace {

// Links followed before a path counts as a loop, as the kernel counts them.
constexpr int kMaxLinkHops = 40;
// A temporary file is the process's user's alone while it is written.
constexpr mode_t kTempMode = 0600;
// Permission bits of a new file, before the process's umask.
constexpr mode_t kNewFileMode = 0666;
constexpr mode_t kPermissionBits = 07777;
constexpr uid_t kRootUid = 0;
// Names tried for the temporary file before the write gives up.
constexpr int kTempNameAttempts = 16;
// What a temporary file's name adds to the name of the file it replaces.
constexpr const char* kTempMarker = ".tmp-";
constexpr std::size_t kReadChunk = std::size_t{1} << 16;

using Status = FolderFileStatus;

// Closes a descriptor it holds when it goes.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd = -1) : fd_(fd) {}
  ~FileDescriptor() { Reset(); }
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.Release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      Reset(other.Release());
    }
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int Get() const { return fd_; }
  bool Valid() const { return fd_ >= 0; }
  void Reset(int fd = -1) {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = fd;
  }
  int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};

Status StatusOfErrno() {
  switch (errno) {
    case ENOENT:
      return Status::kMissing;
    case ENOTDIR:
      return Status::kNotRegular;
    default:
      return Status::kFailed;
  }
}

// Links are trusted as the kernel's protected-symlinks rule trusts them in a
// sticky folder, in every folder: the process's user's and root's alone.
bool TrustedLinkOwner(uid_t owner) { return owner == ::geteuid() || owner == kRootUid; }

bool TrustedFileOwner(uid_t owner, uid_t folderOwner) { return TrustedLinkOwner(owner) || owner == folderOwner; }

// The name itself, not what it points to, and nothing opened for reading yet:
// an O_PATH descriptor never blocks on a FIFO nor wakes a device.
struct Entry {
  FileDescriptor fd;
  struct stat status {};
};

Status OpenEntry(int dirFd, const std::string& name, Entry& entry) {
  entry.fd.Reset(::openat(dirFd, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!entry.fd.Valid()) {
    return StatusOfErrno();
  }
  return ::fstat(entry.fd.Get(), &entry.status) == 0 ? Status::kUsable : Status::kFailed;
}

// The target of a link entry that the process's user or root owns.
Status TrustedLinkTarget(const Entry& entry, std::string& target) {
  if (!TrustedLinkOwner(entry.status.st_uid)) {
    return Status::kForeignLink;
  }
  std::array<char, PATH_MAX> text{};
  const ssize_t length = ::readlinkat(entry.fd.Get(), "", text.data(), text.size());
  if (length <= 0 || static_cast<std::size_t>(length) >= text.size()) {
    return Status::kFailed;
  }
  target.assign(text.data(), static_cast<std::size_t>(length));
  return Status::kUsable;
}

void AppendComponents(const std::string& path, std::deque<std::string>& components, bool atFront) {
  std::deque<std::string> split;
  std::size_t start = 0;
  while (start <= path.size()) {
    const std::size_t slash = std::min(path.find('/', start), path.size());
    std::string part = path.substr(start, slash - start);
    if (!part.empty() && part != ".") {
      split.push_back(std::move(part));
    }
    start = slash + 1;
  }
  components.insert(atFront ? components.begin() : components.end(), split.begin(), split.end());
}

// Walks the path from the folder `startFd` (or from "/" for an absolute path)
// one component at a time, following only trusted links, and opens the folder
// it ends in. `hops` counts the links followed, across calls.
Status WalkToFolder(int startFd, const std::string& path, int& hops, FileDescriptor& folder) {
  const bool absolute = path.rfind('/', 0) == 0;
  FileDescriptor current(::openat(absolute ? AT_FDCWD : startFd, absolute ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!current.Valid()) {
    return StatusOfErrno();
  }
  std::deque<std::string> components;
  AppendComponents(path, components, false);
  while (!components.empty()) {
    const std::string name = std::move(components.front());
    components.pop_front();
    Entry entry;
    if (const Status opened = OpenEntry(current.Get(), name, entry); opened != Status::kUsable) {
      return opened;
    }
    if (S_ISDIR(entry.status.st_mode)) {
      current = std::move(entry.fd);
      continue;
    }
    if (!S_ISLNK(entry.status.st_mode)) {
      return Status::kNotRegular;
    }
    std::string target;
    if (const Status followed = TrustedLinkTarget(entry, target); followed != Status::kUsable) {
      return followed;
    }
    if (++hops > kMaxLinkHops) {
      return Status::kFailed;
    }
    if (target.front() == '/') {
      current.Reset(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
      if (!current.Valid()) {
        return Status::kFailed;
      }
    }
    AppendComponents(target, components, true);
  }
  folder = std::move(current);
  return Status::kUsable;
}

std::string DirectoryPart(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string NamePart(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Where a name of the folder finally leads once trusted links are followed:
// the folder that holds the file, the file's own name there, and the file's
// entry when there is one.
struct Place {
  FileDescriptor folder;
  uid_t folderOwner = 0;
  std::string name;
  Entry entry;
  bool exists = false;
};

Status FolderOwner(int folderFd, uid_t& owner) {
  struct stat status {};
  if (::fstat(folderFd, &status) != 0) {
    return Status::kFailed;
  }
  owner = status.st_uid;
  return Status::kUsable;
}

// kUsable with place.exists false when nothing stands under the name; any
// other status is a refusal of the name.
Status Locate(int folderFd, const std::string& name, Place& place) {
  place.folder.Reset(::fcntl(folderFd, F_DUPFD_CLOEXEC, 0));
  place.name = name;
  if (!place.folder.Valid() || FolderOwner(place.folder.Get(), place.folderOwner) != Status::kUsable) {
    return Status::kFailed;
  }
  for (int hops = 0;;) {
    const Status opened = OpenEntry(place.folder.Get(), place.name, place.entry);
    if (opened == Status::kMissing) {
      place.exists = false;
      return Status::kUsable;
    }
    if (opened != Status::kUsable) {
      return opened;
    }
    const mode_t type = place.entry.status.st_mode;
    if (S_ISREG(type)) {
      place.exists = true;
      return TrustedFileOwner(place.entry.status.st_uid, place.folderOwner) ? Status::kUsable
                                                                            : Status::kForeignOwner;
    }
    if (!S_ISLNK(type)) {
      return Status::kNotRegular;
    }
    std::string target;
    if (const Status followed = TrustedLinkTarget(place.entry, target); followed != Status::kUsable) {
      return followed;
    }
    if (++hops > kMaxLinkHops) {
      return Status::kFailed;
    }
    FileDescriptor next;
    if (const Status walked = WalkToFolder(place.folder.Get(), DirectoryPart(target), hops, next);
        walked != Status::kUsable) {
      return walked == Status::kMissing ? Status::kFailed : walked;
    }
    place.folder = std::move(next);
    place.name = NamePart(target);
    if (place.name.empty() || FolderOwner(place.folder.Get(), place.folderOwner) != Status::kUsable) {
      return Status::kNotRegular;
    }
  }
}

// Opens the regular file that an O_PATH entry holds, for reading, through the
// entry itself: the name can't be swapped for a FIFO or a device in between.
FileDescriptor OpenEntryForReading(const Entry& entry) {
  const std::string self = "/proc/self/fd/" + std::to_string(entry.fd.Get());
  FileDescriptor file(::open(self.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (!file.Valid() || ::fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_ino != entry.status.st_ino || status.st_dev != entry.status.st_dev) {
    file.Reset();
  }
  return file;
}

Status ReadBounded(int fd, std::size_t maxBytes, std::string& text) {
  std::array<char, kReadChunk> buffer{};
  for (;;) {
    const ssize_t count = ::read(fd, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      return Status::kFailed;
    }
    if (count == 0) {
      return Status::kUsable;
    }
    if (text.size() + static_cast<std::size_t>(count) > maxBytes) {
      return Status::kTooLarge;
    }
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

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

bool SameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// A writer holds an exclusive lock on its temporary file until the rename, and
// the lock goes with the process: a leftover whose lock can be taken belongs to
// a run that is gone. Only trusted regular files are opened, through their
// O_PATH entry, and the name is removed only while it still stands for them.
void RemoveLeftovers(const Place& place) {
  const std::string prefix = place.name + kTempMarker;
  FileDescriptor listing(::openat(place.folder.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, DirCloser> dir(listing.Valid() ? ::fdopendir(listing.Get()) : nullptr);
  if (!dir) {
    return;
  }
  listing.Release();  // the DIR owns it now
  while (const dirent* found = ::readdir(dir.get())) {
    const std::string name = found->d_name;
    if (name.compare(0, prefix.size(), prefix) != 0) {
      continue;
    }
    Entry entry;
    if (OpenEntry(place.folder.Get(), name, entry) != Status::kUsable || !S_ISREG(entry.status.st_mode) ||
        !TrustedFileOwner(entry.status.st_uid, place.folderOwner)) {
      continue;
    }
    const FileDescriptor file = OpenEntryForReading(entry);
    struct stat now {};
    if (file.Valid() && ::flock(file.Get(), LOCK_EX | LOCK_NB) == 0 &&
        ::fstatat(place.folder.Get(), name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 && SameFile(now, entry.status)) {
      ::unlinkat(place.folder.Get(), name.c_str(), 0);
    }
  }
}

// A new temporary file beside the target, the process's user's alone and
// locked for this run; an invalid descriptor when none can be made.
FileDescriptor CreateLockedTemp(const Place& place, std::string& tempName) {
  for (int attempt = 0; attempt < kTempNameAttempts; ++attempt) {
    tempName = place.name + kTempMarker + std::to_string(::getpid()) + "-" + std::to_string(attempt);
    // O_EXCL with O_CREAT never follows a link: a name that exists is tried no further.
    FileDescriptor fd(
        ::openat(place.folder.Get(), tempName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kTempMode));
    if (!fd.Valid()) {
      if (errno == EEXIST) {
        continue;
      }
      return FileDescriptor();
    }
    struct stat byFd {};
    struct stat byName {};
    // A cleaner may take the name away between the create and the lock.
    if (::fchmod(fd.Get(), kTempMode) == 0 && ::flock(fd.Get(), LOCK_EX) == 0 && ::fstat(fd.Get(), &byFd) == 0 &&
        ::fstatat(place.folder.Get(), tempName.c_str(), &byName, AT_SYMLINK_NOFOLLOW) == 0 &&
        SameFile(byFd, byName)) {
      return fd;
    }
  }
  return FileDescriptor();
}

// The umask is only read here; it is put back at once.
mode_t NewFileMode() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return kNewFileMode & ~mask;
}

// The permissions, owner and group the new content ends with. Ownership first:
// a change of owner may clear the set-id bits.
bool SetFinalAttributes(int fd, const Place& place) {
  if (!place.exists) {
    return ::fchmod(fd, NewFileMode()) == 0;
  }
  (void)::fchown(fd, place.entry.status.st_uid, place.entry.status.st_gid);
  return ::fchmod(fd, place.entry.status.st_mode & kPermissionBits) == 0;
}

// What stands under the name just before the rename is still what was checked,
// or still nothing.
bool TargetUnchanged(const Place& place) {
  struct stat now {};
  if (::fstatat(place.folder.Get(), place.name.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT && !place.exists;
  }
  return place.exists && SameFile(now, place.entry.status);
}

// Makes the rename itself durable; a folder that refuses fsync changes nothing.
void SyncFolder(int folderFd) {
  const FileDescriptor folder(::openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.Valid()) {
    (void)::fsync(folder.Get());
  }
}

}  // namespace

struct ResultFolder::Native {
  FileDescriptor folder;
};

ResultFolder::ResultFolder() = default;
ResultFolder::~ResultFolder() = default;
ResultFolder::ResultFolder(ResultFolder&& other) noexcept = default;
ResultFolder& ResultFolder::operator=(ResultFolder&& other) noexcept = default;

FolderFileStatus ResultFolder::Open(const std::string& path) {
  native_.reset();
  if (path.empty()) {
    return Status::kMissing;
  }
  int hops = 0;
  auto native = std::make_unique<Native>();
  const Status walked = WalkToFolder(AT_FDCWD, path, hops, native->folder);
  if (walked == Status::kUsable) {
    native_ = std::move(native);
  }
  return walked;
}

bool ResultFolder::IsOpen() const { return native_ != nullptr; }

FolderFileStatus ResultFolder::Read(const std::string& name, std::size_t maxBytes, std::string& text) const {
  text.clear();
  if (!native_) {
    return Status::kMissing;
  }
  Place place;
  if (const Status located = Locate(native_->folder.Get(), name, place); located != Status::kUsable) {
    return located;
  }
  if (!place.exists) {
    return Status::kMissing;
  }
  if (static_cast<std::size_t>(place.entry.status.st_size) > maxBytes) {
    return Status::kTooLarge;
  }
  const FileDescriptor file = OpenEntryForReading(place.entry);
  if (!file.Valid()) {
    return Status::kFailed;
  }
  const Status read = ReadBounded(file.Get(), maxBytes, text);
  if (read != Status::kUsable) {
    text.clear();
  }
  return read;
}

FolderFileStatus ResultFolder::Replace(const std::string& name, const std::string& text) const {
  if (!native_) {
    return Status::kMissing;
  }
  Place place;
  if (const Status located = Locate(native_->folder.Get(), name, place); located != Status::kUsable) {
    return located;
  }
  RemoveLeftovers(place);
  std::string tempName;
  FileDescriptor temp = CreateLockedTemp(place, tempName);
  if (!temp.Valid()) {
    return Status::kFailed;
  }
  const bool written =
      WriteAll(temp.Get(), text) && ::fsync(temp.Get()) == 0 && SetFinalAttributes(temp.Get(), place);
  const bool unchanged = written && TargetUnchanged(place);
  // The lock stays held through the rename: the descriptor closes after it.
  if (!unchanged || ::renameat(place.folder.Get(), tempName.c_str(), place.folder.Get(), place.name.c_str()) != 0) {
    ::unlinkat(place.folder.Get(), tempName.c_str(), 0);
    // Something was put under the name since it was checked: say what it is now.
    Place now;
    const Status planted = written && !unchanged ? Locate(native_->folder.Get(), name, now) : Status::kUsable;
    return planted != Status::kUsable ? planted : Status::kFailed;
  }
  const bool closed = ::close(temp.Release()) == 0;
  SyncFolder(place.folder.Get());
  return closed ? Status::kUsable : Status::kFailed;
}

}  // namespace gpuvet::platform
