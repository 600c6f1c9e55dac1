#include "PassLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

namespace ondrel::programs {

PassLock::PassLock(std::string path) : path_(std::move(path)) { take(); }

bool PassLock::waitUntilHeld(const std::function<bool()>& keepWaiting) {
  while (!held() && keepWaiting()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    take();
  }
  return held();
}

void PassLock::take() {
  holder_.reset();
  int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd < 0) return;
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    char buffer[32] = {};
    ssize_t count = ::pread(fd, buffer, sizeof buffer - 1, 0);
    long pid = count > 0 ? std::strtol(buffer, nullptr, 10) : 0;
    if (pid > 0) holder_ = static_cast<pid_t>(pid);
    ::close(fd);
    return;
  }
  std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(fd, 0) == 0) {
    [[maybe_unused]] ssize_t written = ::pwrite(fd, pid.data(), pid.size(), 0);
  }
  fd_ = fd;
}

PassLock::~PassLock() {
  if (fd_ < 0) return;
  [[maybe_unused]] int truncated = ::ftruncate(fd_, 0);
  ::close(fd_);
}

}  // namespace ondrel::programs
