#include "platform/named_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace gpuvet::platform {
namespace {

constexpr std::size_t kReadChunk = 1 << 16;

}  // namespace

FilePtr OpenRegularFile(const std::string& path, std::string& why) {
  // Opening without blocking: a FIFO with no writer would otherwise hold the open.
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    why = std::strerror(errno);
    return nullptr;
  }
  struct stat info {};
  const bool statted = fstat(fd, &info) == 0;
  if (!statted || !S_ISREG(info.st_mode)) {
    why = !statted ? std::strerror(errno) : S_ISDIR(info.st_mode) ? "a folder, not a regular file" : "not a regular file";
    close(fd);
    return nullptr;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  FilePtr file(fdopen(fd, "rb"));
  if (file == nullptr) {
    why = std::strerror(errno);
    close(fd);
  }
  return file;
}

bool ReadStandardInput(std::string& text, std::string& why) {
  char chunk[kReadChunk];
  for (;;) {
    const ssize_t got = read(STDIN_FILENO, chunk, sizeof chunk);
    if (got == 0) return true;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      why = std::strerror(errno);
      return false;
    }
    text.append(chunk, static_cast<std::size_t>(got));
  }
}

}  // namespace gpuvet::platform
