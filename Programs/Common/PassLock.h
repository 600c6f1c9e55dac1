// PassLock keeps passes of ondrd_syncd one at a time, and keeps ondrelctl verify from checking
// files a pass is changing: an exclusive lock on a file in the status folder, held for as long
// as the object lives, with the holder's PID written in it so that a refused process can name
// the running one. The kernel drops the lock when the holder dies.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace ondrel::programs {

class PassLock {
 public:
  // Takes the lock at path; when another process holds it, holder() names that process.
  explicit PassLock(std::string path);
  ~PassLock();
  PassLock(const PassLock&) = delete;
  PassLock& operator=(const PassLock&) = delete;

  bool held() const { return fd_ >= 0; }
  // The PID recorded by the process that holds the lock, when this one could not take it.
  std::optional<pid_t> holder() const { return holder_; }

 private:
  std::string path_;
  int fd_ = -1;
  std::optional<pid_t> holder_;
};

}  // namespace ondrel::programs
