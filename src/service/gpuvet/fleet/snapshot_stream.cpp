#include "fleet/snapshot_stream.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "fleet/snapshot.h"

namespace gpuvet::fleet {
namespace {

constexpr std::size_t kBlockBytes = std::size_t{4} << 20;
constexpr const char* kStandardInput = "-";
constexpr const char* kJsonLinesSuffix = ".jsonl";

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool Blank(const char* begin, const char* end) {
  for (const char* at = begin; at < end; ++at) {
    if (*at != ' ' && *at != '\t' && *at != '\r') {
      return false;
    }
  }
  return true;
}

// The lines of the stream, one document each. The buffer always keeps the
// reader's padding behind what it holds; a line longer than a block grows it.
void ReadJsonLines(std::FILE* stream, const std::string& source, SnapshotReader& reader,
                   const MachineHandler& onMachine, const UnreadableHandler& onUnreadable) {
  std::vector<char> buffer(kBlockBytes + kReadPadding);
  std::size_t held = 0;
  uint64_t line = 0;
  MachineRecord record;
  std::string reason;
  bool atEnd = false;
  while (!atEnd) {
    if (held + kBlockBytes + kReadPadding > buffer.size()) {
      buffer.resize(held + kBlockBytes + kReadPadding);
    }
    const std::size_t got = std::fread(buffer.data() + held, 1, kBlockBytes, stream);
    held += got;
    atEnd = got == 0;
    std::memset(buffer.data() + held, 0, kReadPadding);
    const char* begin = buffer.data();
    const char* const end = buffer.data() + held;
    while (begin < end) {
      const char* lineEnd = static_cast<const char*>(std::memchr(begin, '\n', end - begin));
      if (lineEnd == nullptr) {
        if (!atEnd) break;  // the rest of the line comes with the next block
        lineEnd = end;
      }
      ++line;
      if (!Blank(begin, lineEnd)) {
        const std::size_t length = lineEnd - begin;
        if (reader.Read(begin, length, end + kReadPadding - begin, record, reason)) {
          onMachine(record, {source, line});
        } else {
          onUnreadable({source, line}, reason);
        }
      }
      begin = lineEnd + (lineEnd < end ? 1 : 0);
    }
    held = end - begin;
    std::memmove(buffer.data(), begin, held);
  }
  if (std::ferror(stream)) {
    onUnreadable({source, line + 1}, "reading stopped: " + std::string(std::strerror(errno)));
  }
}

}  // namespace

std::string PlaceText(const SnapshotPlace& place) {
  return place.line == 0 ? place.source : place.source + ":" + std::to_string(place.line);
}

void ReadSnapshots(const std::vector<std::string>& inputs, const MachineHandler& onMachine,
                   const UnreadableHandler& onUnreadable, const std::string& stdinName) {
  SnapshotReader reader;
  MachineRecord record;
  std::string reason;
  for (const std::string& input : inputs) {
    if (input == kStandardInput) {
      ReadJsonLines(stdin, stdinName, reader, onMachine, onUnreadable);
    } else if (EndsWith(input, kJsonLinesSuffix)) {
      const File file(std::fopen(input.c_str(), "rb"));
      if (!file) {
        onUnreadable({input, 0}, "can't be opened: " + std::string(std::strerror(errno)));
        continue;
      }
      ReadJsonLines(file.get(), input, reader, onMachine, onUnreadable);
    } else if (ReadSnapshotFile(input, record, reason)) {
      onMachine(record, {input, 0});
    } else {
      onUnreadable({input, 0}, reason);
    }
  }
}

}  // namespace gpuvet::fleet
