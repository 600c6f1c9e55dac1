#include "KTSFetchScheduler.h"

#include <algorithm>
#include <thread>

#include "KTSPreferences.h"
#include "KTSSettings.h"
#include "KTSUtilities.h"
#include "PathString.h"
#include "Transfer.h"

namespace ondrel {

namespace {

// The feeder is asked for more while fewer than this many windows of work are queued, so that a
// transfer that ends is followed at once by the next without holding every file of a pass.
constexpr std::size_t kQueuedWindows = 2;
// A server asking to be left alone for longer than this (or more often) is taken as failing.
constexpr std::int64_t kLongestDeferral = 300;
constexpr int kMostDeferrals = 5;
constexpr auto kWaitSlice = std::chrono::milliseconds(100);
// Light requests (for kept files, mostly answered by a bodiless 304; for small bodies received
// into memory) cost the upstream and the link a round trip and little bandwidth: they run beside
// the downloads of bodies, this many times as many at once, within a ceiling.
constexpr std::size_t kLightShare = 4;
constexpr std::size_t kMostLight = 64;

void (*schedulerHeartbeat)() = nullptr;

}  // namespace

KTSFetchScheduler::KTSFetchScheduler(std::size_t maxConcurrent,
                                     std::shared_ptr<KTSFileValidators> validators,
                                     KTSTransferLimits limits)
    : maxConcurrent_(
          std::clamp<std::size_t>(maxConcurrent, 1, KTSSettings::kMostConcurrentDownloads)),
      maxLight_(std::min(maxConcurrent_ * kLightShare, kMostLight)),
      validators_(std::move(validators)),
      pace_(std::make_shared<KTSSyncPace>(
          KTSSyncPace{std::nullopt, 0, maxConcurrent_ + maxLight_, limits})) {}

KTSFetchScheduler::KTSFetchScheduler(KTSPreferences& preferences,
                                     std::shared_ptr<KTSFileValidators> validators)
    : KTSFetchScheduler(preferredConcurrency(preferences), std::move(validators),
                        {preferences.syncBandwidth().integerValue() * 1024,
                         preferences.minimumDownloadSpeed().integerValue() * 1024}) {}

KTSFetchScheduler::~KTSFetchScheduler() = default;

std::size_t KTSFetchScheduler::preferredConcurrency(const KTSPreferences& preferences) {
  return static_cast<std::size_t>(KTSSettings::maxConcurrentDownloads(preferences.prefs()));
}

void KTSFetchScheduler::setHeartbeat(void (*heartbeat)()) { schedulerHeartbeat = heartbeat; }

void KTSFetchScheduler::sizeConnectionPool() const {
  Transfer::setConnectionsPerHost(maxConcurrent_ + maxLight_);
}

void KTSFetchScheduler::enqueue(std::shared_ptr<KTSFileDownloader> downloader, Finished finished) {
  queueJob({std::move(downloader), std::move(finished)}, false);
}

void KTSFetchScheduler::enqueueFirst(std::shared_ptr<KTSFileDownloader> downloader,
                                     Finished finished) {
  queueJob({std::move(downloader), std::move(finished)}, true);
}

void KTSFetchScheduler::queueJob(Job job, bool first) {
  job.light = job.downloader->expectsConditionalRequest(validators_.get()) ||
              job.downloader->receivesIntoMemory();
  std::deque<Job>& queue = job.light ? lightQueue_ : queue_;
  if (first) {
    queue.push_front(std::move(job));
  } else {
    queue.push_back(std::move(job));
  }
}

bool KTSFetchScheduler::nothingQueued() const { return queue_.empty() && lightQueue_.empty(); }

void KTSFetchScheduler::run(const Feeder& feed) {
  bool feeding = static_cast<bool>(feed);
  for (;;) {
    while (feeding && queue_.size() < kQueuedWindows * maxConcurrent_ &&
           lightQueue_.size() < kQueuedWindows * maxLight_) {
      feeding = !Transfer::isCancelled() && feed();
    }
    startQueued();
    if (running_.empty()) {
      if (nothingQueued() && !feeding && deferred_.empty()) return;
      if (nothingQueued() && !deferred_.empty()) waitForDeferred();
      continue;
    }
    runSlice();
  }
}

void KTSFetchScheduler::runUntil(const std::function<bool()>& done) {
  while (!done()) {
    startQueued();
    if (running_.empty() && nothingQueued()) {
      if (deferred_.empty()) return;
      waitForDeferred();
      continue;
    }
    runSlice();
  }
}

void KTSFetchScheduler::runToEnd(KTSFileDownloader& downloader) {
  bool ended = false;
  // Shares no ownership: the caller holds the downloader until it ended.
  std::shared_ptr<KTSFileDownloader> unowned(std::shared_ptr<KTSFileDownloader>(), &downloader);
  enqueueFirst(std::move(unowned), [&ended](KTSFileDownloader&) { ended = true; });
  runUntil([&ended] { return ended; });
}

void KTSFetchScheduler::fetchToEnd(KTSFileDownloader& downloader, KTSFetchScheduler* scheduler) {
  if (scheduler != nullptr) return scheduler->runToEnd(downloader);
  KTSFetchScheduler own(1, nullptr);
  own.runToEnd(downloader);
}

bool KTSFetchScheduler::downloadFileWithURLToPathReplaceExistingArchivePrevious(
    const Url& url, const std::string& path, bool replaceExisting, bool archivePrevious,
    KTSFetchScheduler* scheduler) {
  std::string localPath = standardizingPath(path);
  if (!replaceExisting && KTSUtilities::fileExistsAtPath(localPath)) {
    LogHandle::shared().info("Skipping download; REPLACE = NO, file exists: {})",
                             lastPathComponent(url.path()));
    return true;
  }
  auto downloader =
      KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(url, localPath, archivePrevious);
  fetchToEnd(*downloader, scheduler);
  if (const std::optional<KTSError>& error = downloader->downloadError()) {
    logFailedDownload(localPath, error->description());
    return false;
  }
  return true;
}

void KTSFetchScheduler::logFailedDownload(const std::string& localPath, const std::string& reason) {
  LogHandle::shared().error("Download for \"{}\" failed (reason: {})", lastPathComponent(localPath),
                            reason);
}

void KTSFetchScheduler::startQueued() {
  auto now = std::chrono::steady_clock::now();
  for (auto due = deferred_.begin(); due != deferred_.end();) {
    if (due->due > now) {
      ++due;
      continue;
    }
    queueJob(std::move(due->job), true);
    due = deferred_.erase(due);
  }
  for (bool started = true; started;) {
    started = false;
    if (!lightQueue_.empty() && runningLight_ < maxLight_) {
      startNext(lightQueue_);
      started = true;
    }
    if (!queue_.empty() && running_.size() - runningLight_ < maxConcurrent_) {
      startNext(queue_);
      started = true;
    }
  }
}

void KTSFetchScheduler::startNext(std::deque<Job>& queue) {
  // The limit paces what arrives while transfers run, not the time between busy spells.
  if (running_.empty()) {
    *pace_ = KTSSyncPace{std::nullopt, 0, maxConcurrent_ + maxLight_, pace_->limits};
  }
  Job job = std::move(queue.front());
  queue.pop_front();
  job.downloader->setPace(pace_);
  if (job.downloader->startDownload(validators_)) {
    ++counters_.requests;
    if (job.light) ++runningLight_;
    running_.push_back(std::move(job));
  } else {
    finish(std::move(job));
  }
}

void KTSFetchScheduler::runSlice() {
  if (schedulerHeartbeat != nullptr) schedulerHeartbeat();
  auto takeEnded = [this] {
    std::vector<Job> ended;
    for (auto job = running_.begin(); job != running_.end();) {
      if (job->downloader->isDone()) {
        if (job->light) --runningLight_;
        ended.push_back(std::move(*job));
        job = running_.erase(job);
      } else {
        ++job;
      }
    }
    return ended;
  };
  std::vector<Job> ended = takeEnded();
  if (ended.empty() && !running_.empty()) {
    // One transfer's event loop drives every transfer of the thread.
    running_.front().downloader->continueDownload();
    ended = takeEnded();
  }
  for (Job& job : ended) {
    job.downloader->finishTransfer();
    finish(std::move(job));
  }
}

void KTSFetchScheduler::waitForDeferred() {
  auto first = std::min_element(deferred_.begin(), deferred_.end(),
                                [](const auto& a, const auto& b) { return a.due < b.due; });
  while (first != deferred_.end() && std::chrono::steady_clock::now() < first->due &&
         !Transfer::isCancelled()) {
    if (schedulerHeartbeat != nullptr) schedulerHeartbeat();
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
        kWaitSlice, first->due - std::chrono::steady_clock::now()));
  }
  if (!Transfer::isCancelled()) return;
  std::vector<Deferred> ended = std::move(deferred_);
  deferred_.clear();
  for (Deferred& waiting : ended) finish(std::move(waiting.job));
}

void KTSFetchScheduler::finish(Job job) {
  std::optional<std::int64_t> wait = job.downloader->retryAfterSeconds();
  // Busy without saying for how long, while several transfers run at once: most likely the
  // server's limit of connections per client (a 503 is what common servers answer past it).
  // Asked again in a second, with half as many; at one at a time, a busy answer fails the file.
  if (!wait && job.downloader->wasBusy() && (maxConcurrent_ > 1 || maxLight_ > 1)) {
    wait = 1;
  }
  if (wait && *wait <= kLongestDeferral && job.deferrals < kMostDeferrals &&
      !Transfer::isCancelled()) {
    ++job.deferrals;
    ++counters_.deferred;
    maxConcurrent_ = std::max<std::size_t>(1, maxConcurrent_ / 2);
    maxLight_ = std::max<std::size_t>(1, maxLight_ / 2);
    auto due =
        std::chrono::steady_clock::now() + std::chrono::seconds(std::max<std::int64_t>(1, *wait));
    deferred_.push_back({std::move(job), due});
    return;
  }
  counters_.unansweredInARow = job.downloader->wasAnswered() ? 0 : counters_.unansweredInARow + 1;
  if (job.downloader->wasAnswered()) ++counters_.answered;
  counters_.bytesReceived += job.downloader->downloadBytes();
  if (job.downloader->downloadError()) {
    ++counters_.failed;
  } else if (job.downloader->wasNotModified()) {
    ++counters_.notModified;
  }
  if (job.finished) job.finished(*job.downloader);
}

}  // namespace ondrel
