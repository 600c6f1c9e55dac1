#include "Sha256.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace ondrel {

namespace {

// Large enough that reading costs few system calls, small enough to stay in the cache.
constexpr std::size_t kReadBlock = std::size_t{1} << 20;

// Reads up to length bytes of the open file (all of it without a length) through the digest.
bool readThrough(int fd, Sha256& digest, std::optional<std::uint64_t> length, std::string* error,
                 const std::function<void(std::uint64_t)>& progress) {
  // Not zeroed: clearing a megabyte for every file of two kilobytes cost a verify a fifth of
  // its time.
  auto block = std::make_unique_for_overwrite<char[]>(kReadBlock);
  std::uint64_t left = length.value_or(UINT64_MAX);
  while (left > 0) {
    std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(kReadBlock, left));
    ssize_t count = ::read(fd, block.get(), wanted);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      if (error) *error = std::strerror(errno);
      return false;
    }
    if (count == 0) break;
    digest.add(std::string_view(block.get(), static_cast<std::size_t>(count)));
    left -= static_cast<std::uint64_t>(count);
    if (progress) progress(static_cast<std::uint64_t>(count));
  }
  if (length && left > 0) {
    if (error) *error = "the file is shorter than expected";
    return false;
  }
  return true;
}

// The regular file at path opened for reading, never through a symbolic link; -1 otherwise.
int openRegularFile(const std::string& path, std::string* error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (error) *error = std::strerror(errno);
    return -1;
  }
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    if (error) *error = "not a regular file";
    ::close(fd);
    return -1;
  }
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  return fd;
}

}  // namespace

struct Sha256::State {
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  State() { EVP_DigestInit_ex(context, EVP_sha256(), nullptr); }
  ~State() { EVP_MD_CTX_free(context); }
};

Sha256::Sha256() : state_(std::make_unique<State>()) {}
Sha256::~Sha256() = default;
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;

void Sha256::add(std::string_view bytes) {
  EVP_DigestUpdate(state_->context, bytes.data(), bytes.size());
}

std::string Sha256::hexDigest() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(state_->context, digest, &length);
  EVP_DigestInit_ex(state_->context, EVP_sha256(), nullptr);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * length);
  for (unsigned int i = 0; i < length; ++i) {
    text += kHex[digest[i] >> 4];
    text += kHex[digest[i] & 0xf];
  }
  return text;
}

bool Sha256::isHexDigest(std::string_view text) {
  return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::optional<std::string> Sha256::ofFile(const std::string& path, std::string* error,
                                          const std::function<void(std::uint64_t)>& progress) {
  int fd = openRegularFile(path, error);
  if (fd < 0) return std::nullopt;
  Sha256 digest;
  bool read = readThrough(fd, digest, std::nullopt, error, progress);
  ::close(fd);
  if (!read) return std::nullopt;
  return digest.hexDigest();
}

std::optional<Sha256> Sha256::ofFilePrefix(const std::string& path, std::uint64_t length) {
  int fd = openRegularFile(path, nullptr);
  if (fd < 0) return std::nullopt;
  Sha256 digest;
  bool read = readThrough(fd, digest, length, nullptr, {});
  ::close(fd);
  if (!read) return std::nullopt;
  return digest;
}

}  // namespace ondrel
