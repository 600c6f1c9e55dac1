// KTSFetchScheduler runs the downloads of a pass: up to "maxConcurrentDownloads" transfers of
// bodies at once across every file of every product, and beside them up to four times as many
// (at most 64) light requests, which cost a round trip and little bandwidth: conditional
// requests for kept files, mostly answered by a bodiless 304, and small bodies received into
// memory (the server metadata a first pass fetches for every product). All are driven by the event
// loop of the calling thread, with the sync bandwidth limit paced across them together and the
// validators of kept files sent along. A pass makes one and puts it in its context; every download
// of the pass (a catalog, a server metadata file, a product's files) joins it, and one started
// without a context's scheduler runs under a scheduler of its own. Used by the sync pass,
// KTSProduct, the catalogs and the server metadata. A server that answers 429 or 503 with
// Retry-After is asked again after that wait (up to five minutes, five times a file), one that
// gives no wait after a second while more than one transfer may run, and the scheduler then runs
// half as many transfers of each kind at once: a busy upstream slows the pass, it does not fail it.
// One thread; never two running on one thread except nested, a download of one scheduler's callback
// run to its end by the same scheduler.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "KTSFileDownloader.h"
#include "KTSFileValidators.h"

namespace ondrel {

class KTSPreferences;

class KTSFetchScheduler {
 public:
  using Finished = std::function<void(KTSFileDownloader&)>;
  // Queues more work (by calling enqueue) when the queue runs low; false once it has none left.
  using Feeder = std::function<bool()>;

  struct Counters {
    std::uint64_t requests = 0;
    std::uint64_t notModified = 0;
    std::uint64_t failed = 0;
    // Bytes of the bodies received, whole or in part.
    std::uint64_t bytesReceived = 0;
    // Transfers that ended, one after the other, without any answer from their server; a
    // transfer that got an HTTP status of any kind sets it back to 0.
    std::uint64_t unansweredInARow = 0;
    // Transfers the server answered with some HTTP status.
    std::uint64_t answered = 0;
    // Downloads the server asked to come back to later (429 or 503, with Retry-After or,
    // while more than one transfer may run, without), each time it asked.
    std::uint64_t deferred = 0;
  };

  // validators: where the kept files' validators are recorded and read; none sends no
  // conditional request.
  KTSFetchScheduler(std::size_t maxConcurrent, std::shared_ptr<KTSFileValidators> validators,
                    KTSTransferLimits limits = {});
  // With the preferences' "maxConcurrentDownloads", "syncBandwidth" (KiB/s) and
  // "minimumDownloadSpeed" (KB/s).
  KTSFetchScheduler(KTSPreferences& preferences, std::shared_ptr<KTSFileValidators> validators);
  ~KTSFetchScheduler();
  KTSFetchScheduler(const KTSFetchScheduler&) = delete;
  KTSFetchScheduler& operator=(const KTSFetchScheduler&) = delete;

  // The preference "maxConcurrentDownloads", within 1 to 64 (16 when unset or unusable).
  static std::size_t preferredConcurrency(const KTSPreferences& preferences);
  // Called on every turn of any scheduler's event loop (at least once a second while transfers
  // run), so that a service manager's watchdog can tell a long download from a hang.
  static void setHeartbeat(void (*heartbeat)());

  // Lets the process keep as many connections per upstream host open as this scheduler runs
  // transfers at once, of both kinds (the pass's scheduler does, so that its connections are
  // reused).
  void sizeConnectionPool() const;
  // Queues a download; finished gets it, on this thread inside run, once it ended either way.
  void enqueue(std::shared_ptr<KTSFileDownloader> downloader, Finished finished);
  // The same, ahead of everything queued of its kind (light request or body).
  void enqueueFirst(std::shared_ptr<KTSFileDownloader> downloader, Finished finished);
  // Runs the queued downloads, asking feed for more whenever the queue runs low, until nothing
  // is queued, running or left to feed. Ends early, with the rest failed, once transfers are
  // cancelled.
  void run(const Feeder& feed = {});
  // Runs until done holds (or nothing is left to run), the other downloads going on beside.
  void runUntil(const std::function<bool()>& done);
  // Runs one download to its end, ahead of those queued, while the others go on beside it.
  void runToEnd(KTSFileDownloader& downloader);
  // Runs the download to its end on scheduler beside its other downloads, or without one on a
  // scheduler of its own; afterwards downloadError tells the outcome (none on success).
  static void fetchToEnd(KTSFileDownloader& downloader, KTSFetchScheduler* scheduler);
  // Downloads url to path unless replaceExisting is false and the file exists (then true without
  // a transfer). False, with one error line, when the download failed.
  static bool downloadFileWithURLToPathReplaceExistingArchivePrevious(
      const Url& url, const std::string& path, bool replaceExisting, bool archivePrevious,
      KTSFetchScheduler* scheduler = nullptr);
  // The error line of a download to localPath that failed for reason.
  static void logFailedDownload(const std::string& localPath, const std::string& reason);

  std::size_t maxConcurrent() const { return maxConcurrent_; }
  std::size_t maxLight() const { return maxLight_; }
  const Counters& counters() const { return counters_; }
  const std::shared_ptr<KTSFileValidators>& validators() const { return validators_; }

 private:
  struct Job {
    std::shared_ptr<KTSFileDownloader> downloader;
    Finished finished;
    int deferrals = 0;
    // Queued and run among the light requests, under their own limit.
    bool light = false;
  };
  struct Deferred {
    Job job;
    std::chrono::steady_clock::time_point due;
  };
  // Starts queued downloads while there is room (deferred ones that are due first); a download
  // that cannot start ends at once.
  void startQueued();
  void startNext(std::deque<Job>& queue);
  // Queues the job among the light requests or the downloads of bodies, as it expects.
  void queueJob(Job job, bool first);
  bool nothingQueued() const;
  // Waits, the heartbeat going on, until the first deferred download is due; once transfers are
  // cancelled, ends every deferred one as it failed.
  void waitForDeferred();
  // Runs the event loop for one slice, then hands every download that ended to its callback.
  void runSlice();
  void finish(Job job);

  std::size_t maxConcurrent_;
  std::size_t maxLight_;
  std::shared_ptr<KTSFileValidators> validators_;
  std::shared_ptr<KTSSyncPace> pace_;
  std::deque<Job> queue_;
  std::deque<Job> lightQueue_;
  std::vector<Job> running_;
  std::size_t runningLight_ = 0;
  std::vector<Deferred> deferred_;
  Counters counters_;
};

}  // namespace ondrel
