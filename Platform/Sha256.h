// Sha256 computes the SHA-256 digest of bytes fed to it piece by piece, as a download arrives or
// a file is read, so that no file is ever read twice or held in memory to be hashed. The digest
// is written as 64 lowercase hexadecimal digits, as sha256sum writes it. A value type; one thread
// uses a value.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ondrel {

class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(Sha256&&) noexcept;
  Sha256& operator=(Sha256&&) noexcept;

  void add(std::string_view bytes);
  // The digest of everything added; the value starts afresh afterwards.
  std::string hexDigest();

  // Whether text is a digest as hexDigest writes it.
  static bool isHexDigest(std::string_view text);
  // The digest of the regular file at path, read through once in large blocks, the file not
  // followed when it is a symbolic link; none, with the reason, when it cannot be read.
  // progress(bytes) is told of every block read.
  static std::optional<std::string> ofFile(const std::string& path, std::string* error,
                                           const std::function<void(std::uint64_t)>& progress = {});
  // The digest of the first length bytes of the file at path, for a body that continues it; none
  // when the file is shorter or cannot be read.
  static std::optional<Sha256> ofFilePrefix(const std::string& path, std::uint64_t length);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace ondrel
