// Clock is the one source of "now" and of pauses for the library, so that tests can replace
// time with a manual clock and never really sleep. The installed source is process-wide; install
// it before starting work and reset it afterwards (tests do this in their fixture).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "Plist.h"

namespace ondrel {

class ClockSource {
 public:
  virtual ~ClockSource() = default;
  virtual Date now() = 0;
  virtual void sleepFor(std::chrono::duration<double> seconds) = 0;
};

class Clock {
 public:
  static Date now();
  // now() in whole seconds since the epoch.
  static std::int64_t secondsNow();
  static void sleepFor(std::chrono::duration<double> seconds);
  // Installs a replacement source; an empty pointer restores the system clock.
  static void install(std::shared_ptr<ClockSource> source);
};

}  // namespace ondrel
