// KTSPassHistory remembers what the sync daemon's passes did, from one pass to the next: the last
// pass (when, how it ended, why it failed, what it brought), when the last good pass ended, and
// running totals of passes, failed passes and bytes fetched. The daemon records every pass in the
// status folder's ".pass_history"; the metrics and the health check read it. The file is written
// atomically and read as untrusted: a damaged or hostile one counts as no history. One thread
// uses an instance.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "KTSServerLayout.h"
#include "Plist.h"

namespace ondrel {

class KTSPassHistory {
 public:
  enum class Outcome { Succeeded, Failed, Interrupted };

  struct Pass {
    Date started;
    Date ended;
    Outcome outcome = Outcome::Succeeded;
    bool fullSync = true;
    std::string note;  // why it failed or was interrupted; empty when it succeeded
    std::uint64_t catalogs = 0;
    std::uint64_t productsNew = 0;
    std::uint64_t productsRemoved = 0;
    std::uint64_t bytesFetched = 0;
    // What the products still to be mirrored lacked when the pass ended.
    std::uint64_t filesStillToFetch = 0;
    std::uint64_t bytesStillToFetch = 0;
    // The products served before their files are here: how many, their bytes, the bytes of
    // them here, and what was fetched on demand since the pass before.
    std::uint64_t onDemandProducts = 0;
    std::uint64_t onDemandBytes = 0;
    std::uint64_t onDemandBytesHere = 0;
    std::uint64_t onDemandFetchedFiles = 0;
    std::uint64_t onDemandFetchedBytes = 0;
    // When the daemon means to run the next full pass; none when it runs no more on its own.
    std::optional<Date> nextPassDue;
    double seconds() const;
  };

  // The status folder's ".pass_history".
  static std::string defaultPath(const KTSServerLayout& layout);
  // "succeeded", "failed" or "interrupted".
  static std::string outcomeName(Outcome outcome);

  // Reads the history at path; a missing, damaged or hostile file gives an empty history.
  explicit KTSPassHistory(std::string path);

  const std::optional<Pass>& lastPass() const { return lastPass_; }
  // The last passes, oldest first (at most kRecentPasses), for a chart of them.
  static constexpr std::size_t kRecentPasses = 60;
  const std::vector<Pass>& recentPasses() const { return recent_; }
  const std::optional<Date>& lastGoodPassEnd() const { return lastGoodPassEnd_; }
  std::uint64_t passes() const { return passes_; }
  std::uint64_t failedPasses() const { return failedPasses_; }
  std::uint64_t bytesFetched() const { return bytesFetched_; }
  // Files, and their bytes, fetched on demand since the history began.
  std::uint64_t onDemandFetchedFiles() const { return onDemandFetchedFiles_; }
  std::uint64_t onDemandFetchedBytes() const { return onDemandFetchedBytes_; }

  // Adds the pass to the history and writes it; false when it could not be written.
  bool record(const Pass& pass);

  // Overdue at now: the daemon meant to run a pass by now and, an hour later, has not.
  bool overdue(Date now) const;
  // Healthy at now: a good pass has ended, the last pass did not fail, and none is overdue.
  bool healthy(Date now) const;
  // The passes' part of the health document: healthy, the last good pass and its age in seconds
  // at now, whether the last pass failed and why, and whether the next one is overdue.
  Plist healthDocument(Date now) const;
  // The Prometheus text of the counters and of the last pass.
  std::string prometheusText() const;

 private:
  Plist asPlist() const;

  std::string path_;
  std::optional<Pass> lastPass_;
  std::vector<Pass> recent_;
  std::optional<Date> lastGoodPassEnd_;
  std::uint64_t passes_ = 0;
  std::uint64_t failedPasses_ = 0;
  std::uint64_t bytesFetched_ = 0;
  std::uint64_t onDemandFetchedFiles_ = 0;
  std::uint64_t onDemandFetchedBytes_ = 0;
};

}  // namespace ondrel
