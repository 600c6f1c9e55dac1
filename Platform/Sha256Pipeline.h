// Sha256Pipeline computes the SHA-256 digest of a body as the transfer receives it. Past the
// first megabyte the bytes are hashed on a thread of its own, so that hashing a large file (about
// half a second a gigabyte) runs beside receiving and writing it instead of adding to them; a
// small body is hashed on the caller's thread and starts no thread. Only a few blocks wait for
// the hashing thread: a body that arrives faster than it is hashed waits for it, and the memory
// held is the same whatever the file's size. One caller thread; the hashing thread touches only
// the digest and the blocks handed to it.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Sha256.h"

namespace ondrel {

class Sha256Pipeline {
 public:
  // Goes on from start: the digest of a file's first part, for a body that continues it.
  explicit Sha256Pipeline(Sha256 start = Sha256());
  // Drops what is still to hash.
  ~Sha256Pipeline();
  Sha256Pipeline(const Sha256Pipeline&) = delete;
  Sha256Pipeline& operator=(const Sha256Pipeline&) = delete;

  void add(std::string_view bytes);
  // The digest of everything added, once all of it is hashed; the value starts afresh afterwards.
  std::string hexDigest();

 private:
  bool startThread();
  void handOver();
  void hashHandedOver();
  // Ends the hashing thread, after it has hashed what was handed over unless dropping.
  void stopThread(bool dropping);

  static constexpr std::uint64_t kBytesHashedHere = std::uint64_t{1} << 20;
  // Bytes are handed over in blocks of this size, whatever pieces they arrive in.
  static constexpr std::size_t kBlockSize = std::size_t{128} << 10;
  static constexpr std::size_t kBlocksWaiting = 8;

  Sha256 digest_;
  std::uint64_t bytesAdded_ = 0;
  bool noThread_ = false;
  std::string filling_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> handedOver_;
  std::vector<std::string> spare_;
  bool stopping_ = false;
  bool dropping_ = false;
};

}  // namespace ondrel
