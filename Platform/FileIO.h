// Whole-file reads and atomic file replacement for the platform layer and the library.
// An atomic write goes to a temporary file in the destination's folder, is flushed to disk and
// then renamed over the destination, so a reader or a crash sees the old file or the new one.
// Thread-safe: no shared state.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ondrel {

// What a whole-file read accepts at most by default (catalogs of many thousand products), and
// the limit for the small records the two processes exchange (settings, tickets, status notes).
inline constexpr std::size_t kDefaultReadLimit = std::size_t{256} << 20;
inline constexpr std::size_t kSmallFileReadLimit = std::size_t{4} << 20;

// Reads the whole file into contents. Only a regular file is read (a FIFO, device or folder is
// a failure, and opening never blocks), and one larger than maxBytes is a failure, not an
// allocation. On failure gives false and the reason.
bool readWholeFile(const std::string& path, std::string* contents, std::string* error,
                   std::size_t maxBytes = kDefaultReadLimit);
// readWholeFile that also gives the identity of the file it read, as fileIdentity gives it for a
// file that is no link: a reader that compares the file with another saves looking at it again.
bool readWholeFileAndIdentity(const std::string& path, std::string* contents,
                              std::uint64_t* identity, std::size_t maxBytes);

// The whole lines at the end of the regular file at path, at most maxBytes of them (a line cut
// by that limit is left out); empty when it cannot be read. For logs that only grow.
std::string readFileTail(const std::string& path, std::size_t maxBytes);

// Writes through writeContents (which returns false on failure) and renames into place; runs
// beforeReplace, when given, once the new contents are safely on disk and just before the rename.
// The new file gets the process's default permissions, as a newly created file would.
bool writeFileAtomically(const std::string& path,
                         const std::function<bool(std::FILE*)>& writeContents, std::string* error,
                         const std::function<void()>& beforeReplace = {});

// One atomic write made piece by piece, for a writer that fills several files side by side: the
// stream goes to a temporary file in the destination's folder, which place renames over the
// destination; destroyed unplaced, the temporary is removed. One owner, one thread.
class AtomicFileWrite {
 public:
  explicit AtomicFileWrite(const std::string& path);
  ~AtomicFileWrite();
  AtomicFileWrite(const AtomicFileWrite&) = delete;
  AtomicFileWrite& operator=(const AtomicFileWrite&) = delete;

  // Where the contents go; null when the temporary file could not be made.
  std::FILE* stream() const { return file_; }
  const std::string& temporaryPath() const { return temporary_; }
  // Records a failed write (errno's value, or 0 for one without a system reason).
  void fail(int code);
  bool ok() const { return code_ == 0; }
  // Flushes and closes the stream; synced, waits for the bytes to reach the disk first.
  void close(bool synced);
  // Closes the stream (synced, when still open) and renames the temporary into place.
  bool place();
  // Why the write failed, once ok() is false.
  std::string errorText() const;

 private:
  static constexpr std::size_t kBufferSize = std::size_t{1} << 18;

  std::string path_;
  std::string temporary_;
  std::FILE* file_ = nullptr;
  std::unique_ptr<char[]> buffer_;
  int code_ = 0;
  bool placed_ = false;
};

// Writes like writeFileAtomically without waiting for the bytes to reach the disk: for a file
// made again from others, which after a crash may be found empty (never half-written).
bool writeDerivedFileAtomically(const std::string& path,
                                const std::function<bool(std::FILE*)>& writeContents,
                                std::string* error);

// Writes like writeFileAtomically, but when the new contents are the file's own, byte for byte,
// the file is left as it was (its inode and modification time too, so that what readers cached of
// it stays valid), beforeReplace is not run and *replaced is false.
bool writeFileAtomicallyUnlessUnchanged(const std::string& path,
                                        const std::function<bool(std::FILE*)>& writeContents,
                                        bool* replaced, std::string* error,
                                        const std::function<void()>& beforeReplace = {});

// Whether the two regular files hold the same bytes, read side by side in blocks.
bool sameFileContents(const std::string& one, const std::string& other);

// Temporary files of atomic writes are named with this prefix, so that scans of a shared folder
// can tell another process's write in progress from the folder's own entries.
inline constexpr std::string_view kAtomicWritePrefix = ".ondrel-write-";
bool isAtomicWriteTemporary(std::string_view fileName);

bool writeStringAtomically(const std::string& path, const std::string& text, std::string* error);

// The item's last modification time; none with the system's reason when it cannot be read.
std::optional<std::chrono::system_clock::time_point> modificationDate(const std::string& path,
                                                                      std::string* error);

// The item's creation (birth) time where the file system records one, else its last change.
std::optional<std::chrono::system_clock::time_point> creationDate(const std::string& path,
                                                                  std::string* error);

// Keeps the file at path as previousPath (replacing it) by a hard link, or a copy where links
// are not possible, leaving path itself in place. Does nothing when path does not exist.
void keepPreviousVersion(const std::string& path, const std::string& previousPath);

// The item's path with every link resolved, as realpath gives it; none when it cannot be
// reached. The system names the item it opened: three calls, where resolving the path folder
// by folder costs one for each folder on the way.
std::optional<std::string> resolvedPath(const std::string& path);

// Identifies the file now at path (its inode), so a later look can tell whether it was replaced.
std::optional<std::uint64_t> fileIdentity(const std::string& path);

// The file now at path as text: its inode, size and modification time at full resolution. Every
// write this system makes replaces the file, so an equal stamp later means nobody wrote it since.
std::optional<std::string> fileStamp(const std::string& path);

// A short note kept with the file itself, as the extended attribute "user.ondrel.NAME": it goes
// with the file through renames and is gone with it. Where the file system keeps no such
// attributes the note is simply absent; one longer than 512 bytes is not read.
std::optional<std::string> fileNote(const std::string& path, const std::string& name);
bool setFileNote(const std::string& path, const std::string& name, const std::string& value);
void removeFileNote(const std::string& path, const std::string& name);

// True when path itself is a symbolic link (it is not followed).
bool isSymbolicLink(const std::string& path);

// The system's description of an errno value.
std::string systemErrorText(int errorNumber);

}  // namespace ondrel
