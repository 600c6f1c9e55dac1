#include "Sha256Pipeline.h"

#include <system_error>
#include <utility>

namespace ondrel {

Sha256Pipeline::Sha256Pipeline(Sha256 start) : digest_(std::move(start)) {}

Sha256Pipeline::~Sha256Pipeline() { stopThread(true); }

void Sha256Pipeline::add(std::string_view bytes) {
  bytesAdded_ += bytes.size();
  if (!thread_.joinable() && (bytesAdded_ <= kBytesHashedHere || !startThread())) {
    digest_.add(bytes);
    return;
  }
  filling_.append(bytes);
  if (filling_.size() >= kBlockSize) handOver();
}

std::string Sha256Pipeline::hexDigest() {
  if (thread_.joinable()) {
    if (!filling_.empty()) handOver();
    stopThread(false);
  }
  bytesAdded_ = 0;
  return digest_.hexDigest();
}

// From here on the digest is the hashing thread's until it ends. Without a thread to be had,
// the caller's thread hashes everything.
bool Sha256Pipeline::startThread() {
  if (noThread_) return false;
  stopping_ = false;
  dropping_ = false;
  try {
    thread_ = std::thread([this] { hashHandedOver(); });
    return true;
  } catch (const std::system_error&) {
    noThread_ = true;
    return false;
  }
}

void Sha256Pipeline::handOver() {
  std::string emptied;
  {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return handedOver_.size() < kBlocksWaiting; });
    handedOver_.push_back(std::move(filling_));
    if (!spare_.empty()) {
      emptied = std::move(spare_.back());
      spare_.pop_back();
    }
  }
  changed_.notify_all();
  emptied.clear();
  filling_ = std::move(emptied);
}

// Blocks are hashed without the lock, in the order they were handed over; their storage goes
// back to be filled again.
void Sha256Pipeline::hashHandedOver() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stopping_ || !handedOver_.empty(); });
    if (dropping_ || handedOver_.empty()) return;
    std::string block = std::move(handedOver_.front());
    handedOver_.pop_front();
    lock.unlock();
    changed_.notify_all();
    digest_.add(block);
    lock.lock();
    spare_.push_back(std::move(block));
  }
}

void Sha256Pipeline::stopThread(bool dropping) {
  if (!thread_.joinable()) return;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    dropping_ = dropping;
  }
  changed_.notify_all();
  thread_.join();
  handedOver_.clear();
  filling_.clear();
}

}  // namespace ondrel
