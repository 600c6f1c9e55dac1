#include "KTSFileCheckAhead.h"

#include <exception>
#include <system_error>

namespace ondrel {

KTSFileCheckAhead::~KTSFileCheckAhead() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void KTSFileCheckAhead::queue(const std::string& productId, const Plist& mirrorFiles, Check check) {
  if (noThread_) return;
  auto known = indexOf_.find(productId);
  if (known != indexOf_.end() && known->second >= firstValid_) {
    std::lock_guard lock(mutex_);
    if (items_[known->second].mirrorFiles.sharesStorageWith(mirrorFiles)) return;
  }
  if (!thread_.joinable()) {
    try {
      thread_ = std::thread([this] { checkQueued(); });
    } catch (const std::system_error&) {
      noThread_ = true;
      return;
    }
  }
  std::lock_guard lock(mutex_);
  indexOf_[productId] = items_.size();
  items_.push_back({mirrorFiles, std::move(check)});
  if (items_.size() - released_ >= kBatch) release();
}

// Wakes the thread for every check queued so far. Checks are handed over a batch at a time, so
// that the thread, which outruns the pass, is not woken for each product.
void KTSFileCheckAhead::release() {
  released_ = items_.size();
  changed_.notify_all();
}

bool KTSFileCheckAhead::foundWhole(const std::string& productId, const Plist& mirrorFiles) {
  auto known = indexOf_.find(productId);
  if (known == indexOf_.end() || known->second < firstValid_) return false;
  std::size_t index = known->second;
  std::unique_lock lock(mutex_);
  if (!items_[index].mirrorFiles.sharesStorageWith(mirrorFiles)) return false;
  if (released_ <= index) release();
  waiting_ = true;
  changed_.wait(lock, [&] { return checked_ > index; });
  waiting_ = false;
  return items_[index].whole;
}

void KTSFileCheckAhead::forgetAll() {
  std::lock_guard lock(mutex_);
  firstValid_ = items_.size();
}

// A check that throws (memory exhausted) answers nothing: the pass looks at the files itself.
bool KTSFileCheckAhead::checkedWhole(const Item& item) {
  try {
    return item.check(item.mirrorFiles);
  } catch (const std::exception&) {
    return false;
  }
}

void KTSFileCheckAhead::checkQueued() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [&] { return stopping_ || checked_ < released_; });
    if (stopping_) return;
    Item& item = items_[checked_];
    // A check already void is skipped; the list's storage stays held until the queue goes. The
    // list is read here without the lock: nothing writes an item's list once it is queued.
    bool wanted = checked_ >= firstValid_;
    lock.unlock();
    bool whole = wanted && checkedWhole(item);
    lock.lock();
    item.whole = whole;
    item.check = nullptr;
    ++checked_;
    if (waiting_) changed_.notify_all();
  }
}

}  // namespace ondrel
