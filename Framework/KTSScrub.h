// KTSScrub reads the kept product files again in the background, a little at a time, so that rot
// is found without an administrator asking: each file in path order against the digest recorded
// when it arrived, at the lowest I/O priority, for at most the day's budget ("scrubMaxDuration"),
// starting a new cycle through all of them every "scrubCycleDays". It remembers where it stopped,
// so that a cycle goes on where the last slice ended. A damaged file is taken out at once (a
// client is never served a file known to be wrong) and remembered until a pass has put a good one
// in its place; the daemon then runs a pass to fetch it again.
//
// Its record is the status folder's ".scrub", written atomically and read as untrusted: a
// damaged or hostile one starts a new cycle. The daemon runs the scrub between passes holding the
// files lock; the health check, the metrics and the administration page read the record. One
// thread uses an instance.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "KTSFileRecordFormat.h"
#include "KTSFileVerifier.h"
#include "KTSServerLayout.h"
#include "Plist.h"

namespace ondrel {

class KTSPassContext;

class KTSScrub {
 public:
  // How much the scrub may do: seconds of checking a day (0: none), and the days in which it
  // reads every kept file once.
  struct Pace {
    std::int64_t secondsPerDay = 3600;
    std::int64_t cycleDays = 7;
    static Pace of(const Plist& preferences);
  };
  // A file found missing or changed, and what was at its path when it was last looked at (none:
  // nothing). While the same is still there, the damage stands; once a pass or a repair has put
  // something else there, it is over.
  struct Damage {
    std::string path;
    std::string productId;
    KTSFileVerifier::Finding finding = KTSFileVerifier::Finding::Changed;
    std::string reason;
    Date found;
    std::optional<KTSFileRecordFormat::Stamp> left;
    bool stands() const;
  };
  struct Cycle {
    std::optional<Date> started;
    std::optional<Date> ended;  // none while it goes on
    std::string position;       // the last file checked
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;
    std::uint64_t totalFiles = 0;  // the kept files when the last slice began
  };
  struct Totals {
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;
    std::uint64_t damaged = 0;
    std::optional<Date> lastCheck;
    // How long the last whole cycle took; beyond the cycle's days the budget is too small.
    std::optional<double> lastCycleSeconds;
  };

  // The status folder's ".scrub".
  static std::string defaultPath(const KTSServerLayout& layout);

  // Reads the record at path; a missing, damaged or hostile one gives a scrub yet to begin.
  explicit KTSScrub(std::string path);

  // Whether there is work to do at now: the day's budget is not spent and a cycle goes on (or
  // the last one began at least the cycle's days ago).
  bool due(Date now, const Pace& pace) const;
  // Checks files, from where the last slice stopped, for as long as keepGoing says so (asked
  // before each file) within the day's budget and at most slice; heartbeat is called as blocks
  // are read. Takes out every damaged file and returns how many were found. The caller holds the
  // files lock; the record is saved.
  std::size_t run(KTSPassContext& context, const Pace& pace, std::chrono::seconds slice,
                  const std::function<bool()>& keepGoing, const std::function<void()>& heartbeat);
  // Forgets the list of kept files taken when the cycle's last slice began: after a pass, the
  // next slice takes it anew.
  void forgetKeptFiles() { keptFiles_.clear(); }

  const Cycle& cycle() const { return cycle_; }
  const Totals& totals() const { return totals_; }
  // The damage that still stands.
  std::vector<Damage> standingDamage() const;

  // The record's figures as the status and the administration page show them.
  Plist statusPlist() const;
  // The Prometheus text of the checks.
  std::string prometheusText() const;

 private:
  void startDay(Date now);
  void startCycle(Date now);
  void takeKeptFiles(KTSPassContext& context);
  void recordFinding(const KTSFileVerifier::KeptFile& file, const KTSFileVerifier::Result& result,
                     KTSPassContext& context, KTSFileDigests& digests);
  void read();
  bool save() const;

  std::string path_;
  Cycle cycle_;
  Totals totals_;
  std::string day_;  // the day (UTC) the budget was last spent on, "2026-11-26"
  double daySeconds_ = 0;
  std::vector<Damage> damage_;
  std::vector<KTSFileVerifier::KeptFile> keptFiles_;
};

}  // namespace ondrel
