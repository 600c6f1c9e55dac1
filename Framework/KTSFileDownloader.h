// KTSFileDownloader fetches one file over HTTP or HTTPS into a local path: the calling thread
// runs the event loop until the transfer ends, and several downloaders can take turns running
// it for transfers that proceed at once. The body goes to NAME.downloading and replaces the
// final file only when complete, optionally keeping the replaced file as NAME.previous; the sync
// bandwidth limit of the preferences paces it. A small file can be received into memory
// instead, for a caller that places it itself. Used by the download wrapper of KTSUtilities, by
// KTSProduct (server metadata, several files at a time) and, as its base class, by
// KTSCatalogDownloader. One thread for all downloaders.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KTSError.h"
#include "KTSLogger.h"
#include "Transfer.h"
#include "Url.h"

namespace ondrel {

class KTSFileDownloader : public TransferReceiver {
 public:
  static std::shared_ptr<KTSFileDownloader> downloaderWithURLLocalPathArchivePrevious(
      const Url& url, const std::string& localPath, bool archivePrevious);

  // Touches neither the network nor the disk.
  KTSFileDownloader(const Url& url, const std::string& localPath, bool archivePrevious);
  ~KTSFileDownloader() override;

  // Runs the whole transfer; afterwards downloadError tells the outcome (none on success).
  void startSynchronousDownload();
  // Runs the downloads, up to `concurrent` at a time over connections of their own (one at a
  // time under a sync bandwidth limit, which each transfer applies to itself alone), on the
  // calling thread; finished gets each one as it ends, in the order they end.
  static void downloadConcurrently(
      const std::vector<std::shared_ptr<KTSFileDownloader>>& downloaders, std::size_t concurrent,
      const std::function<void(KTSFileDownloader&)>& finished);
  void endDownload();
  // From the next start on, the body goes into memory (at most limit bytes; a longer one fails
  // the download) and nothing is written or placed: takeReceivedBody hands it over.
  void receiveIntoMemory(std::size_t limit) { memoryLimit_ = limit; }
  std::string takeReceivedBody() { return std::move(receivedBody_); }
  // Pauses the thread when more has arrived than the limit allows for the time elapsed.
  void enforceSyncBandwidthLimit();
  void setDownloadErrorWithReason(std::int64_t code, const std::string& reason);

  void transferDidReceiveResponse(const TransferResponse& response) override;
  void transferDidReceiveDataOfLength(std::uint64_t length) override;
  void transferDidFinish() override;
  void transferDidFailWithError(const TransferError& error) override;
  void transferWillRedirect(const std::string& newUrl) override;

  const Url& sourceUrl() const { return sourceUrl_; }
  void setSourceUrl(Url url) { sourceUrl_ = std::move(url); }
  const std::string& downloadName() const { return downloadName_; }
  const std::string& downloadPath() const { return downloadPath_; }
  const std::string& downloadingPath() const { return downloadingPath_; }
  const std::string& archivePath() const { return archivePath_; }
  bool replaceExisting() const { return replaceExisting_; }
  void setReplaceExisting(bool replace) { replaceExisting_ = replace; }
  bool archivePrevious() const { return archivePrevious_; }
  void setArchivePrevious(bool archive) { archivePrevious_ = archive; }
  const std::optional<Date>& downloadStart() const { return downloadStart_; }
  const std::optional<KTSError>& downloadError() const { return downloadError_; }
  void setDownloadError(std::optional<KTSError> error) { downloadError_ = std::move(error); }
  const std::optional<TransferResponse>& downloadResponse() const { return downloadResponse_; }
  std::uint64_t downloadBytes() const { return downloadBytes_; }
  void setDownloadBytes(std::uint64_t bytes) { downloadBytes_ = bytes; }
  float percentComplete() const { return percentComplete_; }
  bool isDone() const { return isDone_; }
  const std::vector<std::string>& trustedHosts() const { return trustedHosts_; }
  std::int64_t maxSyncBW() const { return maxSyncBW_; }
  void setMaxSyncBW(std::int64_t bytesPerSecond) { maxSyncBW_ = bytesPerSecond; }
  void setDownloadStart(std::optional<Date> start) { downloadStart_ = start; }
  const LogHandle& logger() const { return log_; }

 private:
  // Starts the transfer; false, with downloadError set, when it could not start.
  bool startDownload();
  // Runs the event loop for one slice; releases the transfer once it has ended.
  void continueDownload();
  void finishTransfer();
  void placeDownloadedFile();

  Url sourceUrl_;
  std::string downloadName_;
  std::string downloadPath_;
  std::string downloadingPath_;
  std::string archivePath_;
  bool replaceExisting_ = false;
  bool archivePrevious_;
  std::optional<Date> downloadStart_;
  std::optional<KTSError> downloadError_;
  std::unique_ptr<Transfer> fileDownload_;
  std::optional<TransferResponse> downloadResponse_;
  std::uint64_t downloadBytes_ = 0;
  float percentComplete_ = 0;
  bool isDone_ = false;
  std::vector<std::string> trustedHosts_;
  std::int64_t maxSyncBW_ = 0;
  std::optional<std::size_t> memoryLimit_;
  std::string receivedBody_;
  LogHandle log_;
};

}  // namespace ondrel
