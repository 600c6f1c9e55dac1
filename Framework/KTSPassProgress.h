// KTSPassProgress is what the pass under way has done so far, as the daemon publishes it for the
// administration side in the status folder (".pass_progress"): its step, the catalog in hand, the
// products and bytes mirrored out of those it set out to mirror, and when the pass and its
// mirroring began; the speed and the time left are worked out from them. The daemon's observer
// writes it (at each step, else at most once a second) and removes it when the pass's work ends;
// ondrelctl and the page read it as untrusted. One thread per instance.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "KTSServerLayout.h"
#include "Plist.h"

namespace ondrel {

class KTSPassProgress {
 public:
  struct State {
    std::string step;  // "catalogs", "mirroring"
    std::string catalog;
    std::uint64_t catalogsDone = 0;
    std::uint64_t catalogs = 0;
    std::uint64_t productsDone = 0;
    std::uint64_t products = 0;
    std::uint64_t bytesDone = 0;
    std::uint64_t bytes = 0;
    Date started;
    std::optional<Date> mirroringStarted;

    // Bytes a second since mirroring began; none before, or before a byte arrived.
    std::optional<double> bytesPerSecond(Date now) const;
    // At that speed, the time the bytes still to mirror take; none without a speed.
    std::optional<std::chrono::seconds> timeLeft(Date now) const;
    // One line for a person: "mirroring: 12 of 40 products, 1.2 GB of 3.4 GB, 45.0 MB/s, 51 s
    // left".
    std::string summary(Date now) const;
    // The fields with the speed and time left, as ondrelctl status --json and the page get them.
    Plist asPlist(Date now) const;
  };

  static std::string defaultPath(const KTSServerLayout& layout);
  // The progress the file holds; none when there is none or it is not one.
  static std::optional<State> read(const std::string& path);

  explicit KTSPassProgress(std::string path);

  void passStarted();
  void catalogStarted(std::size_t number, std::size_t count, const std::string& name);
  void mirroringStarted(std::size_t products, std::uint64_t bytes);
  void productMirrored(std::uint64_t bytes);
  // Removes the file: nothing is under way.
  void passEnded();

 private:
  // Writes the file now, or only when a second has passed since the last write.
  void publish(bool now);

  std::string path_;
  State state_;
  std::optional<Date> lastWrite_;
};

}  // namespace ondrel
