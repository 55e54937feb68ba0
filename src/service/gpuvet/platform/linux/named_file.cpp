#include "platform/named_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace gpuvet::platform {
namespace {

constexpr std::size_t kReadChunk = 1 << 16;

// Closes the descriptor when it goes.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ > STDERR_FILENO) close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return fd_; }

 private:
  int fd_;
};

bool ReadAll(int fd, std::string& text, std::string& why) {
  char chunk[kReadChunk];
  for (;;) {
    const ssize_t got = read(fd, chunk, sizeof chunk);
    if (got == 0) return true;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      why = std::strerror(errno);
      return false;
    }
    text.append(chunk, static_cast<std::size_t>(got));
  }
}

}  // namespace

bool ReadNamedFile(const std::string& path, std::string& text, std::string& why) {
  text.clear();
  if (path == kStandardInputName) {
    return ReadAll(STDIN_FILENO, text, why);
  }
  // Opening without blocking: a FIFO with no writer would otherwise hold the open.
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (file.Get() < 0) {
    why = std::strerror(errno);
    return false;
  }
  struct stat info {};
  if (fstat(file.Get(), &info) != 0) {
    why = std::strerror(errno);
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    why = S_ISDIR(info.st_mode) ? "a folder, not a regular file" : "not a regular file";
    return false;
  }
  text.reserve(static_cast<std::size_t>(info.st_size));
  return ReadAll(file.Get(), text, why);
}

}  // namespace gpuvet::platform
