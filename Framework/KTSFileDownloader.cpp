#include "KTSFileDownloader.h"

#include <algorithm>
#include <cstdio>

#include "Clock.h"
#include "FileIO.h"
#include "KTSFileValidators.h"
#include "KTSUtilities.h"
#include "PathString.h"

namespace ondrel {

namespace {

constexpr std::chrono::seconds kIdleTimeout(120);
// However slow the floor, no transfer runs longer than this; it fails like any other and is
// tried again next pass.
constexpr std::chrono::seconds kLongestTransfer(24 * 3600);
constexpr std::chrono::milliseconds kEventLoopSlice(100);
constexpr double kShortestPause = 0.05;
constexpr const char* kTransferErrorDomain = "com.vantor.OndrelServer.Transfer";
// The note on a side file that says which version of the file upstream its bytes are the start
// of: the response's strong ETag, else its Last-Modified.
constexpr const char* kResumeNote = "if-range";

std::string resumeValidator(const TransferResponse& response) {
  if (!response.etag.empty() && response.etag.rfind("W/", 0) != 0) return response.etag;
  return response.lastModified;
}

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
      downloadingPath_(sideFilePath(localPath, "downloading")),
      archivePath_(sideFilePath(localPath, "previous")),
      archivePrevious_(archivePrevious),
      log_(LogHandle::shared()) {}

KTSFileDownloader::~KTSFileDownloader() = default;

bool KTSFileDownloader::expectsConditionalRequest(const KTSFileValidators* validators) const {
  return usesValidators_ && validators != nullptr && validators->recordsFile(downloadPath_);
}

bool KTSFileDownloader::startDownload(const std::shared_ptr<KTSFileValidators>& validators) {
  log_.debug("FILE: {} - downloading", downloadName_);
  if (!pace_) pace_ = std::make_shared<KTSSyncPace>();
  maxSyncBW_ = pace_->limits.syncBandwidth;
  downloadStart_ = Clock::now();
  if (!pace_->start) pace_->start = downloadStart_;
  downloadError_.reset();
  notModified_ = false;
  receivedDigest_.reset();
  answeredStatus_ = 0;
  tooSlow_ = false;
  retryAfterSeconds_.reset();
  busy_ = false;
  responseETag_.clear();
  responseLastModified_.clear();
  validators_ = usesValidators_ ? validators : nullptr;

  // A body received into memory is placed by its caller, which makes the folder it needs.
  std::string folder = memoryLimit_ ? std::string() : deletingLastPathComponent(downloadPath_);
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
    continuePartialDownload(*fileDownload_);
  }
  if (expectedSize_ && *expectedSize_ >= 0) {
    fileDownload_->setLengthLimit(static_cast<std::uint64_t>(*expectedSize_));
  }
  applyTimeLimits(*fileDownload_);
  sentValidators_ = validators_ ? validators_->validatorsForFile(downloadPath_) : std::nullopt;
  if (sentValidators_) {
    fileDownload_->setConditions(sentValidators_->etag, sentValidators_->lastModified);
  }
  isDone_ = false;
  fileDownload_->start();
  return true;
}

// A first part fetched before (a pass cut short, a dropped connection, a daemon killed) is
// continued when the version of the file upstream it came from is still there; any other side
// file is started afresh.
void KTSFileDownloader::continuePartialDownload(Transfer& transfer) {
  std::optional<std::int64_t> part = KTSUtilities::sizeOfExistingItemAtPath(downloadingPath_);
  if (!part) return;
  std::optional<std::string> validator = fileNote(downloadingPath_, kResumeNote);
  if (*part > 0 && validator && !validator->empty() && !isSymbolicLink(downloadingPath_) &&
      (!expectedSize_ || *part < *expectedSize_)) {
    log_.debug("FILE: {} - continuing from byte {}", downloadName_, *part);
    transfer.resumeFrom(static_cast<std::uint64_t>(*part), *validator);
    return;
  }
  KTSUtilities::removePath(downloadingPath_);
}

void KTSFileDownloader::applyTimeLimits(Transfer& transfer) const {
  std::uint64_t floor = static_cast<std::uint64_t>(
      std::clamp<std::int64_t>(pace_->limits.minimumSpeed, 0, std::int64_t{1} << 30));
  // Under a sync limit, a transfer's fair share may be below the floor: it must not fail for it.
  if (maxSyncBW_ > 0 && pace_) {
    floor = std::min<std::uint64_t>(floor, static_cast<std::uint64_t>(maxSyncBW_) /
                                               (2 * std::max<std::size_t>(pace_->sharers, 1)));
  }
  floor = std::max<std::uint64_t>(floor, 1);
  std::chrono::seconds deadline = kLongestTransfer;
  if (expectedSize_ && *expectedSize_ >= 0) {
    auto needed = static_cast<std::uint64_t>(*expectedSize_) / floor;
    if (needed < static_cast<std::uint64_t>(kLongestTransfer.count())) {
      deadline = std::min(kLongestTransfer,
                          kIdleTimeout + std::chrono::seconds(static_cast<std::int64_t>(needed)));
    }
  }
  transfer.setTimeLimits(deadline, floor, kIdleTimeout);
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
  if (maxSyncBW_ < 1 || !pace_ || !pace_->start || Transfer::isCancelled()) return;
  double elapsed = std::chrono::duration<double>(Clock::now() - *pace_->start).count();
  auto allowance = static_cast<std::uint64_t>(elapsed * static_cast<double>(maxSyncBW_));
  if (pace_->bytes <= allowance) return;
  double pause = static_cast<double>(pace_->bytes) / static_cast<double>(maxSyncBW_) - elapsed;
  if (pause > kShortestPause) Clock::sleepFor(std::chrono::duration<double>(pause));
}

void KTSFileDownloader::recordValidatorsOfPlacedFile() {
  if (!validators_) return;
  // A 304 that names the validators it was asked with leaves their record as it is.
  if (notModified_ && sentValidators_ && sentValidators_->etag == responseETag_ &&
      sentValidators_->lastModified == responseLastModified_) {
    return;
  }
  validators_->recordValidatorsForFile(downloadPath_, {responseETag_, responseLastModified_});
}

void KTSFileDownloader::setDownloadErrorWithReason(std::int64_t code, const std::string& reason) {
  downloadError_ = KTSError(KTSError::kDomain, code, reason);
}

void KTSFileDownloader::transferDidReceiveResponse(const TransferResponse& response) {
  downloadResponse_ = response;
  downloadBytes_ = 0;
  notModified_ = response.notModified();
  answeredStatus_ = response.status;
  responseETag_ = response.etag;
  responseLastModified_ = response.lastModified;
  // A whole body that may be cut short notes what it is the start of, so that the next try can
  // ask for the rest.
  if (!memoryLimit_ && response.status == 200) {
    std::string validator = resumeValidator(response);
    if (validator.empty() || !setFileNote(downloadingPath_, kResumeNote, validator)) {
      removeFileNote(downloadingPath_, kResumeNote);
    }
  }
}

void KTSFileDownloader::transferDidReceiveDataOfLength(std::uint64_t length) {
  downloadBytes_ += length;
  if (pace_) pace_->bytes += length;
  enforceSyncBandwidthLimit();
  if (downloadResponse_ && downloadResponse_->expectedContentLength >= 1) {
    percentComplete_ = static_cast<float>(downloadBytes_) /
                       static_cast<float>(downloadResponse_->expectedContentLength) * 100.0f;
  }
}

void KTSFileDownloader::transferDidFailWithError(const TransferError& error) {
  endDownload();
  if (error.httpStatus != 0) answeredStatus_ = error.httpStatus;
  tooSlow_ = error.tooSlow;
  retryAfterSeconds_ = error.retryAfterSeconds;
  busy_ = error.httpStatus == 429 || error.httpStatus == 503;
  downloadError_ = KTSError(kTransferErrorDomain, error.code, error.description);
  // A body cut short is kept to be continued when it can be; one refused is not.
  if (memoryLimit_) {
    receivedBody_.clear();
  } else if (KTSUtilities::fileExistsAtPath(downloadingPath_) &&
             (!error.cutShort || !fileNote(downloadingPath_, kResumeNote))) {
    KTSUtilities::removePath(downloadingPath_);
  }
}

void KTSFileDownloader::transferWillRedirect(const std::string&) {}

void KTSFileDownloader::transferDidFinish() {
  endDownload();
  log_.debug("FILE: {} - download finished ({} bytes)", downloadName_, downloadBytes_);
  if (memoryLimit_) return;
  if (notModified_) return keepUnchangedFile();
  if (!KTSUtilities::fileExistsAtPath(downloadingPath_)) return;
  // Bytes that are not what the catalog (or the parent's digest) says never take the place of
  // the file there.
  std::optional<std::int64_t> received = KTSUtilities::sizeOfExistingItemAtPath(downloadingPath_);
  if (expectedSize_ && *expectedSize_ >= 0 && received != expectedSize_) {
    setDownloadErrorWithReason(-1, fmt::format("Received {} bytes, not the {} expected",
                                               received.value_or(0), *expectedSize_));
    KTSUtilities::removePath(downloadingPath_);
    return;
  }
  std::optional<std::string> digest = fileDownload_->destinationDigest();
  if (expectedDigest_ && digest != expectedDigest_) {
    setDownloadErrorWithReason(
        -1, "Received bytes whose SHA-256 is not the one its upstream published; refused");
    KTSUtilities::removePath(downloadingPath_);
    return;
  }
  removeFileNote(downloadingPath_, kResumeNote);
  // The same bytes again (an upstream that ignores the validators, a rebuild) leave the file
  // where it is: its inode, and what clients cached of it, stay valid.
  if (sameFileContents(downloadingPath_, downloadPath_)) {
    KTSUtilities::removePath(downloadingPath_);
    keepUnchangedFile();
  } else {
    placeDownloadedFile();
  }
  receivedDigest_ = std::move(digest);
  recordValidatorsOfPlacedFile();
}

// What replacing the file by the same bytes would leave: the file, and its previous version
// the same file. Nothing is created or deleted when that is so already.
void KTSFileDownloader::keepUnchangedFile() {
  log_.debug("FILE: {} - not modified upstream; kept as it is", downloadName_);
  if (archivePrevious_ && fileIdentity(archivePath_) != fileIdentity(downloadPath_)) {
    keepPreviousVersion(downloadPath_, archivePath_);
  }
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
