// Progress tells a person (and systemd) what a pass is doing: on a terminal one live line that is
// rewritten (catalog n of m, product, files, bytes, rate); otherwise one line per step on
// standard output. The administration side is told through the published pass progress. Status
// lines also go to systemd when the daemon runs as a notify service, and so do the watchdog's pings
// while the daemon is alive. The observer of the daemon's passes; used by main; one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "KTSPassProgress.h"
#include "KTSSyncPass.h"

namespace ondrel::syncd {

class Progress : public KTSPassObserver {
 public:
  // Publishes the pass's progress for the administration side at progressPath too.
  explicit Progress(const std::string& progressPath);
  void passStarted() override { published_.passStarted(); }
  void mirroringStarted(std::size_t products, std::uint64_t bytes) override;
  void catalogStarted(std::size_t number, std::size_t count, const std::string& name) override;
  void productMirrored(const std::string& productId, std::size_t files, std::uint64_t bytes,
                       std::chrono::duration<double> took) override;
  void passWorkEnded() override;
  // A line that stays (a step, a warning); ends a live line first.
  void note(const std::string& text);
  // Ends a live line, if any.
  void finish();
  // Tells systemd's watchdog the daemon is alive; at most once a second, however often called.
  static void heartbeat();

 private:
  void live(const std::string& text);
  void notifySystemd(const std::string& status) const;

  bool terminal_;
  KTSPassProgress published_;
  bool lineOpen_ = false;
  std::string catalogLabel_;
};

}  // namespace ondrel::syncd
