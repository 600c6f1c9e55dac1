#include "Gzip.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "FileIO.h"

namespace ondrel {

namespace {

constexpr std::size_t kChunk = std::size_t{1} << 16;
// Catalogs compress about tenfold at the default level; the best level gains little more and
// costs several times the time of a pass that rewrites them all.
constexpr int kLevel = Z_DEFAULT_COMPRESSION;
// 15 bits of window, plus 16: a gzip header (no name, no time) and trailer instead of zlib's.
constexpr int kGzipWindowBits = 15 + 16;

bool sameModificationTime(const struct stat& one, const struct stat& other) {
  return one.st_mtim.tv_sec == other.st_mtim.tv_sec && one.st_mtim.tv_nsec == other.st_mtim.tv_nsec;
}

// Streams the file open at source through deflate into out.
bool deflateInto(int source, std::FILE* out) {
  z_stream stream{};
  if (deflateInit2(&stream, kLevel, Z_DEFLATED, kGzipWindowBits, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    return false;
  }
  unsigned char in[kChunk];
  unsigned char compressed[kChunk];
  bool ok = true;
  int flush = Z_NO_FLUSH;
  while (ok && flush != Z_FINISH) {
    ssize_t count = ::read(source, in, sizeof in);
    if (count < 0) {
      ok = false;
      break;
    }
    flush = count == 0 ? Z_FINISH : Z_NO_FLUSH;
    stream.next_in = in;
    stream.avail_in = static_cast<uInt>(count);
    do {
      stream.next_out = compressed;
      stream.avail_out = sizeof compressed;
      deflate(&stream, flush);
      std::size_t produced = sizeof compressed - stream.avail_out;
      ok = std::fwrite(compressed, 1, produced, out) == produced;
    } while (ok && stream.avail_out == 0);
  }
  deflateEnd(&stream);
  return ok;
}

}  // namespace

std::string gzipCompanionPath(const std::string& path) { return path + ".gz"; }

bool keepGzipCompanion(const std::string& path, bool* written, std::string* error) {
  *written = false;
  const std::string companion = gzipCompanionPath(path);
  int source = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  struct stat plain {};
  if (source < 0 || ::fstat(source, &plain) != 0 || !S_ISREG(plain.st_mode)) {
    *error = source < 0 ? std::strerror(errno) : "not a regular file";
    if (source >= 0) ::close(source);
    ::unlink(companion.c_str());
    return false;
  }
  struct stat kept {};
  if (::lstat(companion.c_str(), &kept) == 0 && S_ISREG(kept.st_mode) &&
      sameModificationTime(kept, plain)) {
    ::close(source);
    return true;
  }
  bool placed = writeFileAtomically(
      companion, [source](std::FILE* out) { return deflateInto(source, out); }, error);
  ::close(source);
  if (!placed) {
    ::unlink(companion.c_str());
    return false;
  }
  // Without the file's time it is only made again next time: not a failure.
  const struct timespec times[2] = {plain.st_atim, plain.st_mtim};
  ::utimensat(AT_FDCWD, companion.c_str(), times, AT_SYMLINK_NOFOLLOW);
  *written = true;
  return true;
}

}  // namespace ondrel
