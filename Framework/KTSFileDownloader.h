// KTSFileDownloader fetches one file over HTTP or HTTPS into a local path; a fetch scheduler
// (KTSFetchScheduler) runs it, many at once on the calling thread's event loop. The body goes to
// NAME.downloading and replaces the final file only when complete, optionally keeping the
// replaced file as NAME.previous; a body cut short stays there and the next try asks only for the
// rest, if the file upstream is still the same version; the limits of its scheduler (a sync
// bandwidth shared with the scheduler's other downloads, a slowest speed) pace it. With the
// scheduler's record of validators, a kept file is asked for only if it changed: a 304 leaves it in
// place (and its previous version the same file). A small file can be received into memory instead,
// for a caller that places it itself. Used by the fetch scheduler's download of one file, by
// KTSProduct and, as its base class, by KTSCatalogDownloader. One thread for all downloaders.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KTSError.h"
#include "KTSFileValidators.h"
#include "KTSLogger.h"
#include "Transfer.h"
#include "Url.h"

namespace ondrel {

class KTSFetchScheduler;

// What the downloads of one scheduler may use: the sync bandwidth they share, in bytes per second
// (0: no limit), and the slowest each may be, in bytes per second over two minutes, before it
// fails and waits for the next pass (0: any speed above nothing).
struct KTSTransferLimits {
  std::int64_t syncBandwidth = 0;
  std::int64_t minimumSpeed = 1024;
};

// The bytes that the downloads sharing one sync bandwidth limit received since the first began,
// how many of them may run at once, and their limits.
struct KTSSyncPace {
  std::optional<Date> start;
  std::uint64_t bytes = 0;
  std::size_t sharers = 1;
  KTSTransferLimits limits;
};

class KTSFileDownloader : public TransferReceiver {
 public:
  static std::shared_ptr<KTSFileDownloader> downloaderWithURLLocalPathArchivePrevious(
      const Url& url, const std::string& localPath, bool archivePrevious);

  // Touches neither the network nor the disk.
  KTSFileDownloader(const Url& url, const std::string& localPath, bool archivePrevious);
  ~KTSFileDownloader() override;

  // Marks the download done; the loop that runs the transfer releases it.
  void endDownload();
  // From the next start on, the body goes into memory (at most limit bytes; a longer one fails
  // the download) and nothing is written or placed: takeReceivedBody hands it over.
  void receiveIntoMemory(std::size_t limit) { memoryLimit_ = limit; }
  bool receivesIntoMemory() const { return memoryLimit_.has_value(); }
  std::string takeReceivedBody() { return std::move(receivedBody_); }
  // The size the body must have, when known: a longer one fails the download as soon as that
  // shows, a shorter one when it ends, and neither replaces the file; the download's deadline
  // grows with it.
  void setExpectedSize(std::optional<std::int64_t> size) { expectedSize_ = size; }
  // The SHA-256 the body must have, when known: any other fails the download once it ended, and
  // the file is not replaced.
  void setExpectedDigest(std::optional<std::string> digest) { expectedDigest_ = std::move(digest); }
  // The SHA-256 of the file the last download placed (or found already there with these very
  // bytes), computed as the body arrived; none when nothing was received into the file.
  const std::optional<std::string>& receivedDigest() const { return receivedDigest_; }
  // Whether the download sends the validators of the kept file and records the new ones (the
  // default). Off for a file that is fetched only when missing or of the wrong size, where a
  // conditional request could never be answered 304 and recording would only cost memory.
  void setUsesValidators(bool uses) { usesValidators_ = uses; }
  // Whether the download will most likely be sent as a conditional request, whose answer is a
  // bodiless 304 when nothing changed: it uses validators and validators records its file.
  bool expectsConditionalRequest(const KTSFileValidators* validators) const;
  // The last download was answered 304: the kept file is current and nothing was received.
  bool wasNotModified() const { return notModified_; }
  // The server answered the last download with some HTTP status (it may still have failed).
  bool wasAnswered() const { return answeredStatus_ != 0; }
  // The HTTP status of the server's last answer (404, say); 0 when it did not answer.
  long answeredStatus() const { return answeredStatus_; }
  // The last download failed for running past its deadline or below its floor speed.
  bool wasTooSlow() const { return tooSlow_; }
  // The server answered the last download 429 or 503 and asked to come back after this many
  // seconds; none otherwise.
  std::optional<std::int64_t> retryAfterSeconds() const { return retryAfterSeconds_; }
  // The server answered the last download 429 or 503, with or without a time to come back.
  bool wasBusy() const { return busy_; }
  // Records the last response's validators for the file now at downloadPath, in the record of
  // the scheduler it ran under; for a caller that placed a body received into memory.
  void recordValidatorsOfPlacedFile();
  // Pauses the thread when the downloads sharing its pace received more than the limit allows
  // for the time since the first of them began.
  void enforceSyncBandwidthLimit();
  // Fails the download with code and reason in the downloader's error domain.
  void setDownloadErrorWithReason(std::int64_t code, const std::string& reason);

  const Url& sourceUrl() const { return sourceUrl_; }
  void setSourceUrl(Url url) { sourceUrl_ = std::move(url); }
  const std::string& downloadName() const { return downloadName_; }
  const std::string& downloadPath() const { return downloadPath_; }
  const std::string& downloadingPath() const { return downloadingPath_; }
  const std::string& archivePath() const { return archivePath_; }
  // None while running and after success; why the last download failed otherwise.
  const std::optional<KTSError>& downloadError() const { return downloadError_; }
  // Bytes of the body received by the last download, and its share of the announced length.
  std::uint64_t downloadBytes() const { return downloadBytes_; }
  float percentComplete() const { return percentComplete_; }
  bool isDone() const { return isDone_; }
  // The sync bandwidth this download keeps to, in bytes per second (0: none); set from its
  // pace's limits at every start.
  void setMaxSyncBW(std::int64_t bytesPerSecond) { maxSyncBW_ = bytesPerSecond; }
  // The pace it shares with the downloads of its scheduler.
  void setPace(std::shared_ptr<KTSSyncPace> pace) { pace_ = std::move(pace); }
  const LogHandle& logger() const { return log_; }

 private:
  friend class KTSFetchScheduler;
  // What the transfer reports, on the thread that runs the event loop.
  void transferDidReceiveResponse(const TransferResponse& response) override;
  void transferDidReceiveDataOfLength(std::uint64_t length) override;
  void transferDidFinish() override;
  void transferDidFailWithError(const TransferError& error) override;
  void transferWillRedirect(const std::string& newUrl) override;
  // Starts the transfer, sending the validators recorded in validators when the kept file is
  // the one they came with; false, with downloadError set, when it could not start.
  bool startDownload(const std::shared_ptr<KTSFileValidators>& validators);
  // Runs the event loop for one slice; releases the transfer once it has ended.
  void continueDownload();
  void finishTransfer();
  void continuePartialDownload(Transfer& transfer);
  void placeDownloadedFile();
  void keepUnchangedFile();
  // The floor speed and the deadline of the transfer, from the pace's limits and the expected
  // size.
  void applyTimeLimits(Transfer& transfer) const;

  Url sourceUrl_;
  std::string downloadName_;
  std::string downloadPath_;
  std::string downloadingPath_;
  std::string archivePath_;
  bool archivePrevious_;
  std::optional<Date> downloadStart_;
  std::optional<KTSError> downloadError_;
  std::unique_ptr<Transfer> fileDownload_;
  std::optional<TransferResponse> downloadResponse_;
  std::uint64_t downloadBytes_ = 0;
  float percentComplete_ = 0;
  bool isDone_ = false;
  std::int64_t maxSyncBW_ = 0;
  std::optional<std::size_t> memoryLimit_;
  std::string receivedBody_;
  std::shared_ptr<KTSSyncPace> pace_;
  std::shared_ptr<KTSFileValidators> validators_;
  std::optional<KTSFileValidators::Validators> sentValidators_;
  std::string responseETag_;
  std::string responseLastModified_;
  std::optional<std::int64_t> expectedSize_;
  std::optional<std::string> expectedDigest_;
  std::optional<std::string> receivedDigest_;
  bool usesValidators_ = true;
  bool notModified_ = false;
  long answeredStatus_ = 0;
  bool tooSlow_ = false;
  std::optional<std::int64_t> retryAfterSeconds_;
  bool busy_ = false;
  LogHandle log_;
};

}  // namespace ondrel
