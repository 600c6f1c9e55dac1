#include "KTSFileDownloader.h"

#include <algorithm>
#include <cstdio>

#include "Clock.h"
#include "FileIO.h"
#include "KTSPreferences.h"
#include "KTSUtilities.h"
#include "PathString.h"

namespace ondrel {

namespace {

constexpr std::chrono::seconds kIdleTimeout(120);
constexpr std::chrono::milliseconds kEventLoopSlice(100);
constexpr double kShortestPause = 0.05;
constexpr const char* kTransferErrorDomain = "com.vantor.OndrelServer.Transfer";

}  // namespace

std::shared_ptr<KTSFileDownloader> KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(
    const Url& url, const std::string& localPath, bool archivePrevious) {
  return std::make_shared<KTSFileDownloader>(url, localPath, archivePrevious);
}

KTSFileDownloader::KTSFileDownloader(const Url& url, const std::string& localPath,
                                     bool archivePrevious)
    : sourceUrl_(url),
      downloadName_(lastPathComponent(localPath)),
      downloadPath_(standardizingPath(localPath)),
      downloadingPath_(appendingPathExtension(localPath, "downloading")),
      archivePath_(appendingPathExtension(localPath, "previous")),
      archivePrevious_(archivePrevious),
      trustedHosts_({"catalog.vantor.example", "download.vantor.example", "cdn.vantor.example"}),
      log_(LogHandle::shared()) {}

KTSFileDownloader::~KTSFileDownloader() = default;

void KTSFileDownloader::startSynchronousDownload() {
  if (!startDownload()) return;
  while (!isDone_) continueDownload();
}

void KTSFileDownloader::downloadConcurrently(
    const std::vector<std::shared_ptr<KTSFileDownloader>>& downloaders, std::size_t concurrent,
    const std::function<void(KTSFileDownloader&)>& finished) {
  // Under a bandwidth limit each transfer paces only itself, so they take turns.
  bool limited = KTSPreferences::defaultPreferences()->syncBandwidth().integerValue() > 0;
  std::size_t window = limited ? 1 : std::max<std::size_t>(concurrent, 1);
  std::vector<KTSFileDownloader*> running;
  auto next = downloaders.begin();
  while (next != downloaders.end() || !running.empty()) {
    while (next != downloaders.end() && running.size() < window) {
      KTSFileDownloader& downloader = **next++;
      if (downloader.startDownload()) {
        running.push_back(&downloader);
      } else {
        finished(downloader);
      }
    }
    if (running.empty()) continue;
    running.front()->continueDownload();
    // Any of them may have ended during the slice.
    std::erase_if(running, [&](KTSFileDownloader* downloader) {
      if (!downloader->isDone_) return false;
      downloader->finishTransfer();
      finished(*downloader);
      return true;
    });
  }
}

bool KTSFileDownloader::startDownload() {
  log_.debug("FILE: {} - downloading", downloadName_);
  maxSyncBW_ = KTSPreferences::defaultPreferences()->syncBandwidth().integerValue() * 1024;
  downloadStart_ = Clock::now();
  downloadError_.reset();

  std::string folder = deletingLastPathComponent(downloadPath_);
  if (!folder.empty() && !KTSUtilities::directoryExistsAtPath(folder)) {
    if (!KTSUtilities::createDirectoryAtPath(folder)) {
      setDownloadErrorWithReason(-1, "Enclosing directory creation failed.");
      return false;
    }
    log_.debug("FILE: {} - created download enclosing folder {}", downloadName_, folder);
  }

  fileDownload_ = Transfer::create(sourceUrl_, kIdleTimeout, this);
  if (!fileDownload_) {
    endDownload();
    setDownloadErrorWithReason(-1, "Remote file request could not be created.");
    return false;
  }
  if (memoryLimit_) {
    fileDownload_->setDestinationInMemory(&receivedBody_, *memoryLimit_);
  } else {
    fileDownload_->setDestination(downloadingPath_);
  }
  isDone_ = false;
  fileDownload_->start();
  return true;
}

void KTSFileDownloader::continueDownload() {
  fileDownload_->runEventLoopFor(kEventLoopSlice);
  if (isDone_) finishTransfer();
}

void KTSFileDownloader::finishTransfer() {
  if (!fileDownload_) return;
  fileDownload_.reset();
  if (downloadError_) {
    log_.debug("FILE: {} - ERROR! download failed (reason = {})", downloadName_,
               downloadError_->description());
  }
}

void KTSFileDownloader::endDownload() {
  // The transfer object itself is released by the loop that runs it, once its events are done.
  downloadResponse_.reset();
  isDone_ = true;
}

void KTSFileDownloader::enforceSyncBandwidthLimit() {
  if (maxSyncBW_ < 1 || !downloadStart_) return;
  double elapsed = std::chrono::duration<double>(Clock::now() - *downloadStart_).count();
  auto allowance = static_cast<std::uint64_t>(elapsed * static_cast<double>(maxSyncBW_));
  if (downloadBytes_ <= allowance) return;
  double pause = static_cast<double>(downloadBytes_) / static_cast<double>(maxSyncBW_) - elapsed;
  if (pause > kShortestPause) Clock::sleepFor(std::chrono::duration<double>(pause));
}

void KTSFileDownloader::setDownloadErrorWithReason(std::int64_t code, const std::string& reason) {
  downloadError_ = KTSError(KTSError::kDomain, code, reason);
}

void KTSFileDownloader::transferDidReceiveResponse(const TransferResponse& response) {
  downloadResponse_ = response;
  downloadBytes_ = 0;
}

void KTSFileDownloader::transferDidReceiveDataOfLength(std::uint64_t length) {
  downloadBytes_ += length;
  enforceSyncBandwidthLimit();
  if (downloadResponse_ && downloadResponse_->expectedContentLength >= 1) {
    percentComplete_ = static_cast<float>(downloadBytes_) /
                       static_cast<float>(downloadResponse_->expectedContentLength) * 100.0f;
  }
}

void KTSFileDownloader::transferDidFailWithError(const TransferError& error) {
  endDownload();
  downloadError_ = KTSError(kTransferErrorDomain, error.code, error.description);
  if (memoryLimit_) {
    receivedBody_.clear();
  } else if (KTSUtilities::fileExistsAtPath(downloadingPath_)) {
    KTSUtilities::removePath(downloadingPath_);
  }
}

void KTSFileDownloader::transferWillRedirect(const std::string&) {}

void KTSFileDownloader::transferDidFinish() {
  endDownload();
  log_.debug("FILE: {} - download finished ({} bytes)", downloadName_, downloadBytes_);
  if (memoryLimit_ || !KTSUtilities::fileExistsAtPath(downloadingPath_)) return;
  placeDownloadedFile();
}

// The new file replaces the final one by a rename, so the final path always holds a whole file,
// old or new. The previous version is kept by a link made just before.
void KTSFileDownloader::placeDownloadedFile() {
  if (KTSUtilities::fileExistsAtPath(downloadPath_)) {
    if (archivePrevious_) {
      log_.debug("FILE: {} - archiving previous version", downloadName_);
      keepPreviousVersion(downloadPath_, archivePath_);
    } else {
      log_.debug("FILE: {} - removed previous version", downloadName_);
    }
  }
  std::rename(downloadingPath_.c_str(), downloadPath_.c_str());
}

}  // namespace ondrel
