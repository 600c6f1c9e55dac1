#include "IoPriority.h"

#include <linux/ioprio.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ondrel {

namespace {

// With who = IOPRIO_WHO_PROCESS and id 0, the calling thread alone.
int ioPriority() { return static_cast<int>(::syscall(SYS_ioprio_get, IOPRIO_WHO_PROCESS, 0)); }

bool setIoPriority(int priority) {
  return ::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, priority) == 0;
}

}  // namespace

IdleIoPriority::IdleIoPriority() {
  int earlier = ioPriority();
  if (earlier >= 0 && setIoPriority(IOPRIO_PRIO_VALUE(IOPRIO_CLASS_IDLE, 0))) earlier_ = earlier;
}

IdleIoPriority::~IdleIoPriority() {
  if (earlier_ >= 0) setIoPriority(earlier_);
}

}  // namespace ondrel
