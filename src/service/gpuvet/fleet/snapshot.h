#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "fleet/machine_record.h"

namespace gpuvet::fleet {

// The snapshot format's name and version. A change of format raises the
// version; the reader keeps reading every older one.
constexpr const char* kSnapshotFormat = "gpuvet-snapshot";
constexpr uint64_t kSnapshotFormatVersion = 1;

// The snapshot of a machine as one line of JSON (no line end): the format and
// its version, the tool and the time it was taken (UTC, ISO 8601), the adapter
// list, the adapter log, the driver rows and the census.
std::string SnapshotJson(const MachineRecord& record, const std::string& tool, const std::string& takenAt);

// The time now as the snapshot states it: "2026-11-23T16:45:00Z".
std::string UtcTimeNow();

// Reads snapshots one document at a time, reusing its buffers: for a file of
// one snapshot and for a stream of millions alike.
class SnapshotReader {
 public:
  SnapshotReader();
  ~SnapshotReader();
  SnapshotReader(const SnapshotReader&) = delete;
  SnapshotReader& operator=(const SnapshotReader&) = delete;

  // Reads the document in text[0, length); the buffer must hold `capacity`
  // bytes, at least length + kReadPadding, readable behind it. False, with the
  // reason, for a document that is no snapshot or does not hold together.
  bool Read(const char* text, std::size_t length, std::size_t capacity, MachineRecord& record, std::string& reason);

 private:
  struct Parser;
  std::unique_ptr<Parser> parser_;
};

// The readable bytes the reader needs behind a document.
extern const std::size_t kReadPadding;

// Reads the snapshot in the file at path. False, with the reason, when the file
// can't be read or holds no snapshot.
bool ReadSnapshotFile(const std::string& path, MachineRecord& record, std::string& reason);

}  // namespace gpuvet::fleet
