#include "Progress.h"

#include <fmt/format.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdio>

namespace ondrel::syncd {

Progress::Progress(const std::string& progressPath)
    : terminal_(::isatty(STDOUT_FILENO) == 1), published_(progressPath) {}

void Progress::mirroringStarted(std::size_t products, std::uint64_t bytes) {
  published_.mirroringStarted(products, bytes);
  if (products > 0) {
    note(fmt::format("Mirroring {} products, {:.1f} MB", products,
                     static_cast<double>(bytes) / 1e6));
  }
}

void Progress::passWorkEnded() {
  published_.passEnded();
  finish();
}

void Progress::catalogStarted(std::size_t number, std::size_t count, const std::string& name) {
  published_.catalogStarted(number, count, name);
  catalogLabel_ = fmt::format("catalog {} of {}", number, count);
  notifySystemd("syncing " + catalogLabel_);
  note(fmt::format("Syncing {}: {}", catalogLabel_, name));
}

void Progress::productMirrored(const std::string& productId, std::size_t files, std::uint64_t bytes,
                               std::chrono::duration<double> took) {
  published_.productMirrored(bytes);
  double rate = took.count() > 0 ? static_cast<double>(bytes) / 1048576.0 / took.count() : 0;
  std::string text = fmt::format("Mirrored {}: {} files, {:.1f} MiB, {:.1f} MiB/s", productId,
                                 files, static_cast<double>(bytes) / 1048576.0, rate);
  notifySystemd("mirroring " + productId);
  if (terminal_) {
    live(text);
  } else {
    note(text);
  }
}

void Progress::note(const std::string& text) {
  finish();
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

void Progress::finish() {
  if (!lineOpen_) return;
  std::printf("\n");
  lineOpen_ = false;
}

void Progress::live(const std::string& text) {
  std::printf("\r\033[K%s", text.c_str());
  std::fflush(stdout);
  lineOpen_ = true;
}

void Progress::notifySystemd(const std::string& status) const {
  sd_notify(0, ("STATUS=" + status).c_str());
  heartbeat();
}

void Progress::heartbeat() {
  static std::chrono::steady_clock::time_point lastPing;
  auto now = std::chrono::steady_clock::now();
  if (now - lastPing < std::chrono::seconds(1)) return;
  lastPing = now;
  sd_notify(0, "WATCHDOG=1");
}

}  // namespace ondrel::syncd
