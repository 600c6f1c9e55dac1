#include "Clock.h"

#include <thread>

namespace ondrel {

namespace {
std::shared_ptr<ClockSource>& installedSource() {
  static std::shared_ptr<ClockSource> source;
  return source;
}
}  // namespace

Date Clock::now() {
  if (auto& source = installedSource()) return source->now();
  return std::chrono::system_clock::now();
}

std::int64_t Clock::secondsNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(now().time_since_epoch()).count();
}

void Clock::sleepFor(std::chrono::duration<double> seconds) {
  if (auto& source = installedSource()) return source->sleepFor(seconds);
  if (seconds.count() > 0) std::this_thread::sleep_for(seconds);
}

void Clock::install(std::shared_ptr<ClockSource> source) { installedSource() = std::move(source); }

}  // namespace ondrel
