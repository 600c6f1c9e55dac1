// KTSFileCheckAhead looks, on a thread of its own, whether the files of a product's list are all
// in place, while the pass goes on making the next products: when the pass comes to check the
// product, the answer is mostly there already. Looking at a file is a system call; at ten
// thousand products they are a tenth of a settled pass, which the second core does instead of
// idling.
//
// The pass's memo owns one and calls it only on the pass's thread. The checking thread runs only
// the check it is handed, which must read nothing the pass changes but the file system: a file
// list is a value whose storage the queue holds, so the pass's own copy changes apart from it.
// A list found whole is the only answer given: one with a file missing is looked at again by the
// pass, which tells what is missing. A file about to change makes every answer so far void.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "Plist.h"

namespace ondrel {

class KTSFileCheckAhead {
 public:
  // Whether every file of the list is in place; called on the checking thread.
  using Check = std::function<bool(const Plist& mirrorFiles)>;

  KTSFileCheckAhead() = default;
  KTSFileCheckAhead(const KTSFileCheckAhead&) = delete;
  KTSFileCheckAhead& operator=(const KTSFileCheckAhead&) = delete;
  // Checks not begun are dropped; the thread is waited for.
  ~KTSFileCheckAhead();

  // Queues check for the list mirrorFiles of productId, unless that very list is queued already.
  // Without a thread to be had nothing is queued.
  void queue(const std::string& productId, const Plist& mirrorFiles, Check check);
  // Whether check found every file of this very list (the same storage) in place, waiting for it
  // when it is still to run; false when it was not queued since the last forgetAll.
  bool foundWhole(const std::string& productId, const Plist& mirrorFiles);
  // A file is about to be written or replaced: what was found or is still to be found is void.
  void forgetAll();

 private:
  struct Item {
    Plist mirrorFiles;
    Check check;
    bool whole = false;
  };
  void release();
  void checkQueued();
  static bool checkedWhole(const Item& item);

  static constexpr std::size_t kBatch = 64;

  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_: the checks in the order queued (a deque keeps each where it is), how
  // many the thread may start and how many it finished, whether the pass waits for one, whether
  // the thread is to stop, and the first check not made void by forgetAll (written on the pass's
  // thread only, which reads it without the lock).
  std::deque<Item> items_;
  std::size_t released_ = 0;
  std::size_t checked_ = 0;
  bool waiting_ = false;
  bool stopping_ = false;
  std::size_t firstValid_ = 0;
  // On the pass's thread only: where each product's last list is in items_.
  std::unordered_map<std::string, std::size_t> indexOf_;
  std::thread thread_;
  bool noThread_ = false;
};

}  // namespace ondrel
