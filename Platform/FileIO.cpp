#include "FileIO.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "PathString.h"

namespace ondrel {

std::string systemErrorText(int errorNumber) {
  char buffer[256];
  return strerror_r(errorNumber, buffer, sizeof buffer);
}

std::string readFileTail(const std::string& path, std::size_t maxBytes) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  struct stat info {};
  if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    if (fd >= 0) ::close(fd);
    return "";
  }
  off_t start = info.st_size > static_cast<off_t>(maxBytes) ? info.st_size - maxBytes : 0;
  std::string tail(static_cast<std::size_t>(info.st_size - start), '\0');
  ssize_t read = ::pread(fd, tail.data(), tail.size(), start);
  ::close(fd);
  tail.resize(read > 0 ? static_cast<std::size_t>(read) : 0);
  if (start > 0) tail.erase(0, std::min(tail.size(), tail.find('\n') + 1));
  std::size_t lastLine = tail.rfind('\n');
  tail.resize(lastLine == std::string::npos ? 0 : lastLine + 1);
  return tail;
}

namespace {

// readWholeFile, which also leaves what the opened file's status said in status.
bool readOpenedWholeFile(const std::string& path, std::string* contents, std::string* error,
                         std::size_t maxBytes, struct stat& status) {
  auto failWith = [error](std::string reason) {
    if (error) *error = std::move(reason);
    return false;
  };
  // Non-blocking, so that opening a FIFO nobody writes to returns at once.
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return failWith(systemErrorText(errno));
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    int code = errno;
    ::close(fd);
    if (S_ISDIR(status.st_mode)) return failWith(systemErrorText(EISDIR));
    return failWith(code != 0 ? systemErrorText(code) : "not a regular file");
  }
  if (static_cast<std::uint64_t>(status.st_size) > maxBytes) {
    ::close(fd);
    return failWith(fmt::format("file larger than {} bytes", maxBytes));
  }
  // Read straight into the string: one byte more than the size, so that a file that grew
  // since its size was taken shows it, and the loop asks for more only then. A read that
  // stops short at that size found the end: no second read is needed to learn it.
  const std::size_t ceiling = maxBytes < SIZE_MAX ? maxBytes + 1 : maxBytes;
  const auto sizeFound = static_cast<std::size_t>(status.st_size);
  contents->resize(std::min(sizeFound + 1, ceiling));
  std::size_t filled = 0;
  for (;;) {
    if (filled == contents->size()) {
      if (filled > maxBytes) {
        ::close(fd);
        return failWith(fmt::format("file larger than {} bytes", maxBytes));
      }
      contents->resize(std::min(filled + filled / 2 + 4096, ceiling));
    }
    const std::size_t asked = contents->size() - filled;
    ssize_t count = ::read(fd, contents->data() + filled, asked);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      int code = errno;
      ::close(fd);
      return failWith(systemErrorText(code));
    }
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
    if (filled == sizeFound && static_cast<std::size_t>(count) < asked) break;
  }
  ::close(fd);
  contents->resize(filled);
  return true;
}

}  // namespace

bool readWholeFile(const std::string& path, std::string* contents, std::string* error,
                   std::size_t maxBytes) {
  struct stat status {};
  return readOpenedWholeFile(path, contents, error, maxBytes, status);
}

bool readWholeFileAndIdentity(const std::string& path, std::string* contents,
                              std::uint64_t* identity, std::size_t maxBytes) {
  struct stat status {};
  if (!readOpenedWholeFile(path, contents, nullptr, maxBytes, status)) return false;
  *identity = static_cast<std::uint64_t>(status.st_ino);
  return true;
}

std::optional<std::chrono::system_clock::time_point> modificationDate(const std::string& path,
                                                                      std::string* error) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    if (error) *error = systemErrorText(errno);
    return std::nullopt;
  }
  auto sinceEpoch = std::chrono::seconds(status.st_mtim.tv_sec) +
                    std::chrono::nanoseconds(status.st_mtim.tv_nsec);
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(sinceEpoch));
}

std::optional<std::chrono::system_clock::time_point> creationDate(const std::string& path,
                                                                  std::string* error) {
  struct statx status {};
  if (::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME | STATX_CTIME, &status) != 0) {
    if (error) *error = systemErrorText(errno);
    return std::nullopt;
  }
  const struct statx_timestamp& stamp =
      (status.stx_mask & STATX_BTIME) != 0 ? status.stx_btime : status.stx_ctime;
  auto sinceEpoch = std::chrono::seconds(stamp.tv_sec) + std::chrono::nanoseconds(stamp.tv_nsec);
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(sinceEpoch));
}

void keepPreviousVersion(const std::string& path, const std::string& previousPath) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return;
  ::unlink(previousPath.c_str());
  if (::link(path.c_str(), previousPath.c_str()) == 0) return;
  std::error_code ignored;
  std::filesystem::copy_file(path, previousPath, std::filesystem::copy_options::overwrite_existing,
                             ignored);
}

std::optional<std::string> resolvedPath(const std::string& path) {
  int fd = ::open(path.c_str(), O_PATH | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  char target[PATH_MAX];
  ssize_t length = ::readlink(fmt::format("/proc/self/fd/{}", fd).c_str(), target, sizeof target);
  ::close(fd);
  // A name that fills the buffer may be cut; one the system marks as deleted is no path.
  if (length > 0 && static_cast<std::size_t>(length) < sizeof target && target[0] == '/') {
    std::string_view named(target, static_cast<std::size_t>(length));
    if (!named.ends_with(" (deleted)")) return std::string(named);
  }
  // Without /proc, or for an item removed meanwhile, the path is resolved folder by folder.
  std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                       &std::free);
  if (!resolved) return std::nullopt;
  return std::string(resolved.get());
}

std::optional<std::uint64_t> fileIdentity(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return std::nullopt;
  return static_cast<std::uint64_t>(status.st_ino);
}

std::optional<std::string> fileStamp(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return std::nullopt;
  return fmt::format("{}:{}:{}:{}.{:09}", status.st_dev, status.st_ino, status.st_size,
                     status.st_mtim.tv_sec, status.st_mtim.tv_nsec);
}

bool isSymbolicLink(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool isAtomicWriteTemporary(std::string_view fileName) {
  return fileName.substr(0, kAtomicWritePrefix.size()) == kAtomicWritePrefix;
}

namespace {

mode_t processUmask() {
  static const mode_t mask = [] {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind("Umask:", 0) == 0)
        return static_cast<mode_t>(std::stoul(line.substr(6), nullptr, 8));
    }
    return static_cast<mode_t>(022);
  }();
  return mask;
}

}  // namespace

bool sameFileContents(const std::string& one, const std::string& other) {
  struct stat first {};
  struct stat second {};
  if (::stat(one.c_str(), &first) != 0 || ::stat(other.c_str(), &second) != 0 ||
      !S_ISREG(first.st_mode) || !S_ISREG(second.st_mode) || first.st_size != second.st_size) {
    return false;
  }
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> a(std::fopen(one.c_str(), "rb"), &std::fclose);
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> b(std::fopen(other.c_str(), "rb"), &std::fclose);
  if (!a || !b) return false;
  static thread_local char left[1 << 16];
  static thread_local char right[1 << 16];
  for (;;) {
    std::size_t count = std::fread(left, 1, sizeof left, a.get());
    if (std::fread(right, 1, sizeof right, b.get()) != count ||
        std::memcmp(left, right, count) != 0) {
      return false;
    }
    if (count < sizeof left) return std::ferror(a.get()) == 0 && std::ferror(b.get()) == 0;
  }
}

namespace {

bool syncToDisk(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool synced = ::fsync(fd) == 0;
  ::close(fd);
  return synced;
}

// The contents go to a temporary file beside path, reach the disk, and are renamed into place.
// With replaced, contents equal to the file's own are dropped instead (and need no disk sync).
bool writeAtomically(const std::string& path, const std::function<bool(std::FILE*)>& writeContents,
                     std::string* error, const std::function<void()>& beforeReplace, bool* replaced,
                     bool synced = true) {
  AtomicFileWrite write(path);
  if (write.stream() != nullptr) {
    errno = 0;
    if (!writeContents(write.stream())) write.fail(errno);
  }
  write.close(synced && replaced == nullptr);
  if (write.ok() && replaced != nullptr) {
    *replaced = !sameFileContents(write.temporaryPath(), path);
    if (!*replaced) return true;
    if (!syncToDisk(write.temporaryPath())) write.fail(errno);
  }
  if (write.ok() && beforeReplace) beforeReplace();
  if (write.place()) return true;
  if (error) *error = write.errorText();
  return false;
}

}  // namespace

AtomicFileWrite::AtomicFileWrite(const std::string& path) : path_(path) {
  std::string folder = deletingLastPathComponent(path);
  temporary_ = appendingPathComponent(
      folder.empty() ? "." : folder,
      fmt::format("{}{}.XXXXXX", kAtomicWritePrefix, lastPathComponent(path)));
  int fd = ::mkstemp(temporary_.data());
  if (fd < 0) {
    fail(errno);
    temporary_.clear();
    return;
  }
  ::fchmod(fd, 0666 & ~processUmask());
  file_ = ::fdopen(fd, "w");
  if (file_ == nullptr) {
    fail(errno);
    ::close(fd);
    return;
  }
  buffer_.reset(new char[kBufferSize]);
  std::setvbuf(file_, buffer_.get(), _IOFBF, kBufferSize);
}

AtomicFileWrite::~AtomicFileWrite() {
  if (file_ != nullptr) std::fclose(file_);
  if (!placed_ && !temporary_.empty()) ::unlink(temporary_.c_str());
}

void AtomicFileWrite::fail(int code) {
  if (code_ == 0) code_ = code != 0 ? code : EIO;
}

void AtomicFileWrite::close(bool synced) {
  if (file_ == nullptr) return;
  if (ok() && std::fflush(file_) != 0) fail(errno);
  if (ok() && synced && ::fsync(fileno(file_)) != 0) fail(errno);
  if (std::fclose(file_) != 0) fail(errno);
  file_ = nullptr;
}

bool AtomicFileWrite::place() {
  close(true);
  if (ok() && ::rename(temporary_.c_str(), path_.c_str()) != 0) fail(errno);
  placed_ = ok();
  return placed_;
}

std::string AtomicFileWrite::errorText() const { return systemErrorText(code_); }

bool writeFileAtomically(const std::string& path,
                         const std::function<bool(std::FILE*)>& writeContents, std::string* error,
                         const std::function<void()>& beforeReplace) {
  return writeAtomically(path, writeContents, error, beforeReplace, nullptr);
}

bool writeDerivedFileAtomically(const std::string& path,
                                const std::function<bool(std::FILE*)>& writeContents,
                                std::string* error) {
  return writeAtomically(path, writeContents, error, {}, nullptr, false);
}

bool writeFileAtomicallyUnlessUnchanged(const std::string& path,
                                        const std::function<bool(std::FILE*)>& writeContents,
                                        bool* replaced, std::string* error,
                                        const std::function<void()>& beforeReplace) {
  return writeAtomically(path, writeContents, error, beforeReplace, replaced);
}

bool writeStringAtomically(const std::string& path, const std::string& text, std::string* error) {
  return writeFileAtomically(
      path,
      [&text](std::FILE* file) {
        return std::fwrite(text.data(), 1, text.size(), file) == text.size();
      },
      error);
}

namespace {

constexpr std::size_t kLongestFileNote = 512;

std::string fileNoteAttribute(const std::string& name) { return "user.ondrel." + name; }

}  // namespace

std::optional<std::string> fileNote(const std::string& path, const std::string& name) {
  char value[kLongestFileNote];
  ssize_t length = ::lgetxattr(path.c_str(), fileNoteAttribute(name).c_str(), value, sizeof value);
  if (length < 0) return std::nullopt;
  return std::string(value, static_cast<std::size_t>(length));
}

bool setFileNote(const std::string& path, const std::string& name, const std::string& value) {
  return value.size() <= kLongestFileNote &&
         ::lsetxattr(path.c_str(), fileNoteAttribute(name).c_str(), value.data(), value.size(),
                     0) == 0;
}

void removeFileNote(const std::string& path, const std::string& name) {
  ::lremovexattr(path.c_str(), fileNoteAttribute(name).c_str());
}

}  // namespace ondrel
