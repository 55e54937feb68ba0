#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

// The folder that keeps the result file. A service runs the tool as root or
// SYSTEM while that folder may be writable by other users, so the folder is
// hostile ground: nothing in it is trusted that the process's user, root (or
// SYSTEM and the Administrators) or the folder's owner did not make, and nothing
// is done by path twice. Declarations only; each platform folder implements them.
namespace gpuvet::platform {

// Why a file of the folder can't be read or replaced; kUsable when it can.
// Each reason stands for one line the store prints when it stores nothing.
enum class FolderFileStatus : int32_t {
  kUsable = 0,
  kMissing,       // nothing of that name (or no such folder): a first run
  kForeignLink,   // a link (a reparse point) that neither the process's user nor root owns
  kNotRegular,    // a FIFO, socket, device or folder where a regular file belongs;
                  // for the folder itself: something that is no folder
  kForeignOwner,  // a file that neither the process's user, root nor the folder's owner owns
  kTooLarge,      // a file larger than the reader's bound
  kFailed,        // the system refused a call (no access, an I/O error, no room)
};

// A folder opened once: the read, the temporary file, the clean-up of
// leftovers and the rename are all done relative to the open folder, so that a
// folder swapped on the path between a check and its use changes nothing.
class ResultFolder {
 public:
  ResultFolder();
  ~ResultFolder();
  ResultFolder(ResultFolder&& other) noexcept;
  ResultFolder& operator=(ResultFolder&& other) noexcept;
  ResultFolder(const ResultFolder&) = delete;
  ResultFolder& operator=(const ResultFolder&) = delete;

  // Opens the folder at path. A link on the way (the folder itself, or one of
  // its parents) is followed only when the process's user or root owns it;
  // otherwise kForeignLink, and the folder stays closed.
  FolderFileStatus Open(const std::string& path);
  bool IsOpen() const;

  // Reads the whole named file of the folder into text (emptied first). The
  // file is opened without blocking and only once its type is known: a link
  // is followed only when the process's user or root owns it, and only a
  // regular file is read, one owned by the process's user, root or the
  // folder's owner, of at most maxBytes. Nothing is read on a refusal.
  FolderFileStatus Read(const std::string& name, std::size_t maxBytes, std::string& text) const;

  // Replaces the named file with the text, atomically: a run cut off at any
  // moment leaves the old content or the new one, never a torn file.
  // - An existing file passes the checks of Read first (the bound aside), with
  //   the same refusals, and is then never touched. A trusted link stays a
  //   link: the file it points to is replaced, in that file's own folder.
  // - The text goes to a temporary file beside it, created exclusively (never
  //   through a link) with access for the process's user alone. Just before
  //   the rename it gets the final permissions, owner and group: those of the
  //   file it replaces, where the process may set them, or a new file's.
  // - Temporary files that runs no longer alive left behind are removed by
  //   name first, without following anything: regular files of a trusted
  //   owner only, none that is not regular is ever opened, and never one that
  //   a live run is still writing.
  // kUsable once the new content stands under the name.
  FolderFileStatus Replace(const std::string& name, const std::string& text) const;

  struct Native;  // the open folder as each platform holds it

 private:
  std::unique_ptr<Native> native_;
};

}  // namespace gpuvet::platform
