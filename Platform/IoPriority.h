// The calling thread's I/O priority, lowered to the idle class for as long as an instance lives:
// its reads then wait for every other process's I/O on the same disk, so that background work
// never slows the clients' downloads. Restores the earlier priority when it ends. Each instance
// belongs to the thread that made it.
#pragma once

namespace ondrel {

class IdleIoPriority {
 public:
  IdleIoPriority();
  ~IdleIoPriority();
  IdleIoPriority(const IdleIoPriority&) = delete;
  IdleIoPriority& operator=(const IdleIoPriority&) = delete;

  // Whether the kernel took the idle class.
  bool lowered() const { return earlier_ >= 0; }

 private:
  int earlier_ = -1;
};

}  // namespace ondrel
