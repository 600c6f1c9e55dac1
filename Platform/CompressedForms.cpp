#include "CompressedForms.h"

#include <brotli/encode.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "FileIO.h"

namespace ondrel {

namespace {

constexpr std::size_t kChunk = std::size_t{1} << 16;
// Catalogs compress some twentyfold. Level 5 makes the sample upstream's seven catalogs (73 MB)
// no larger than the default level 6 does (2.67 MB), in 0.19 s instead of 0.26 s; level 3 takes
// 0.10 s for a sixth more bytes, and the best level costs several times as long for little less.
constexpr int kGzipLevel = 5;
// 15 bits of window, plus 16: a gzip header (no name, no time) and trailer instead of zlib's.
constexpr int kGzipWindowBits = 15 + 16;
// Brotli's quality 5 makes an 11 MB catalog a tenth smaller than gzip does, in 0.2 s; the
// qualities above take longer without doing better on catalogs (7: 0.5 s, 9 a little larger).
constexpr int kBrotliQuality = 5;
// A window of 1 MiB finds every repetition a catalog has (a product's entry looks like its
// neighbours'): the default 4 MiB makes a form no smaller and costs 20 MB more of encoder memory,
// the peak of a pass that serves large catalogs.
constexpr int kBrotliWindowBits = 20;

bool sameModificationTime(const struct stat& one, const struct stat& other) {
  return one.st_mtim.tv_sec == other.st_mtim.tv_sec && one.st_mtim.tv_nsec == other.st_mtim.tv_nsec;
}

bool writeAll(std::FILE* out, const unsigned char* bytes, std::size_t count) {
  return std::fwrite(bytes, 1, count, out) == count;
}

// Streams the file open at source through deflate into out.
bool gzipInto(int source, std::FILE* out) {
  z_stream stream{};
  if (deflateInit2(&stream, kGzipLevel, Z_DEFLATED, kGzipWindowBits, 8, Z_DEFAULT_STRATEGY) !=
      Z_OK) {
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
      ok = writeAll(out, compressed, sizeof compressed - stream.avail_out);
    } while (ok && stream.avail_out == 0);
  }
  deflateEnd(&stream);
  return ok;
}

// Streams the file open at source through the brotli encoder into out.
bool brotliInto(int source, std::FILE* out) {
  std::unique_ptr<BrotliEncoderState, decltype(&BrotliEncoderDestroyInstance)> encoder(
      BrotliEncoderCreateInstance(nullptr, nullptr, nullptr), &BrotliEncoderDestroyInstance);
  if (!encoder || !BrotliEncoderSetParameter(encoder.get(), BROTLI_PARAM_QUALITY, kBrotliQuality) ||
      !BrotliEncoderSetParameter(encoder.get(), BROTLI_PARAM_LGWIN, kBrotliWindowBits)) {
    return false;
  }
  unsigned char in[kChunk];
  unsigned char compressed[kChunk];
  BrotliEncoderOperation operation = BROTLI_OPERATION_PROCESS;
  while (operation != BROTLI_OPERATION_FINISH) {
    ssize_t count = ::read(source, in, sizeof in);
    if (count < 0) return false;
    if (count == 0) operation = BROTLI_OPERATION_FINISH;
    std::size_t availableIn = static_cast<std::size_t>(count);
    const std::uint8_t* nextIn = in;
    do {
      std::size_t availableOut = sizeof compressed;
      std::uint8_t* nextOut = compressed;
      if (!BrotliEncoderCompressStream(encoder.get(), operation, &availableIn, &nextIn,
                                       &availableOut, &nextOut, nullptr) ||
          !writeAll(out, compressed, sizeof compressed - availableOut)) {
        return false;
      }
    } while (availableIn > 0 || BrotliEncoderHasMoreOutput(encoder.get()) ||
             (operation == BROTLI_OPERATION_FINISH && !BrotliEncoderIsFinished(encoder.get())));
  }
  return true;
}

}  // namespace

std::string compressedFormPath(const std::string& path, Encoding encoding) {
  return path + (encoding == Encoding::Gzip ? ".gz" : ".br");
}

bool keepCompressedForm(const std::string& path, Encoding encoding, bool* written,
                        std::string* error) {
  *written = false;
  const std::string form = compressedFormPath(path, encoding);
  int source = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  struct stat plain {};
  if (source < 0 || ::fstat(source, &plain) != 0 || !S_ISREG(plain.st_mode)) {
    *error = source < 0 ? systemErrorText(errno) : "not a regular file";
    if (source >= 0) ::close(source);
    ::unlink(form.c_str());
    return false;
  }
  struct stat kept {};
  if (::lstat(form.c_str(), &kept) == 0 && S_ISREG(kept.st_mode) &&
      sameModificationTime(kept, plain)) {
    ::close(source);
    return true;
  }
  bool placed = writeFileAtomically(
      form,
      [source, encoding](std::FILE* out) {
        return encoding == Encoding::Gzip ? gzipInto(source, out) : brotliInto(source, out);
      },
      error);
  ::close(source);
  if (!placed) {
    ::unlink(form.c_str());
    return false;
  }
  // Without the file's time it is only made again next time: not a failure.
  const struct timespec times[2] = {plain.st_atim, plain.st_mtim};
  ::utimensat(AT_FDCWD, form.c_str(), times, AT_SYMLINK_NOFOLLOW);
  *written = true;
  return true;
}

}  // namespace ondrel
