// PassLock keeps ondrd_syncd one at a time, and keeps a pass and ondrelctl verify from changing
// and checking the kept files at once: an exclusive lock on a file in the status folder, held for
// as long as the object lives, with the holder's PID written in it so that a refused process can
// name the running one. The kernel drops the lock when the holder dies.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

namespace ondrel::programs {

class PassLock {
 public:
  // Takes the lock at path; when another process holds it, holder() names that process.
  explicit PassLock(std::string path);
  // Tries again every fifth of a second for as long as keepWaiting (asked before each try) says
  // so; whether the lock is held then.
  bool waitUntilHeld(const std::function<bool()>& keepWaiting);
  ~PassLock();
  PassLock(const PassLock&) = delete;
  PassLock& operator=(const PassLock&) = delete;

  bool held() const { return fd_ >= 0; }
  // The PID recorded by the process that holds the lock, when this one could not take it.
  std::optional<pid_t> holder() const { return holder_; }

 private:
  void take();

  std::string path_;
  int fd_ = -1;
  std::optional<pid_t> holder_;
};

}  // namespace ondrel::programs
