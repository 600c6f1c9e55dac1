#include "KTSProductDownload.h"

#include <algorithm>
#include <map>

#include "KTSDigestManifests.h"
#include "KTSFetchScheduler.h"
#include "KTSFileDownloader.h"
#include "KTSFileOwnership.h"
#include "KTSProduct.h"
#include "KTSProductFileRules.h"
#include "KTSProductTable.h"
#include "KTSUtilities.h"
#include "PathString.h"

namespace ondrel {

namespace {

constexpr int kFileDownloadAttempts = 3;
constexpr const char* kFileURLKey = KTSProduct::kFileURLKey;
constexpr const char* kFileLocalPathKey = KTSProduct::kFileLocalPathKey;
constexpr const char* kFileSizeKey = KTSProduct::kFileSizeKey;
constexpr const char* kFileReplaceKey = KTSProduct::kFileReplaceKey;

std::string sizeText(const Plist& size) { return size.isNull() ? "--" : size.description(); }

std::optional<std::int64_t> expectedSizeOf(const Plist& record) {
  const Plist& size = record[kFileSizeKey];
  return size.isNumber() ? std::optional(size.integerValue()) : std::nullopt;
}

}  // namespace

void KTSProductDownload::start(KTSProduct& product, KTSFetchScheduler& scheduler,
                               std::function<void(bool complete)> finished,
                               const KTSFileOwnership* ownership, KTSProductTable* files) {
  auto download = std::make_shared<KTSProductDownload>(product, scheduler, std::move(finished),
                                                       ownership, files);
  download->beginDownload();
}

bool KTSProductDownload::downloadMirroredFiles(KTSProduct& product, std::size_t concurrency) {
  KTSFetchScheduler scheduler(concurrency, nullptr);
  bool complete = false;
  start(product, scheduler, [&complete](bool done) { complete = done; });
  scheduler.run();
  return complete;
}

KTSProductDownload::KTSProductDownload(KTSProduct& product, KTSFetchScheduler& scheduler,
                                       std::function<void(bool complete)> finished,
                                       const KTSFileOwnership* ownership, KTSProductTable* files)
    : product_(product),
      scheduler_(scheduler),
      finished_(std::move(finished)),
      ownership_(ownership),
      files_(files),
      log_(product.logger()) {}

KTSProductState::Progress& KTSProductDownload::progress() const {
  return product_.state().progress();
}

const std::string& KTSProductDownload::productId() const {
  static const std::string none;
  return product_.productId() ? *product_.productId() : none;
}

// Records that name one local file share its fetch: the first one fetches, the others find it
// in place afterwards, so two transfers never write the same file. One that gives that file
// another size could only ever replace the other's: it is refused.
void KTSProductDownload::beginDownload() {
  log_.debug("PROD: {}: ...starting download", productId());
  progress().restart();
  const Plist& files = product_.mirrorFiles();
  std::map<std::string, Plist> sizes;
  std::vector<std::size_t> first;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const Plist& record = files[i];
    auto [known, isFirst] = sizes.try_emplace(
        standardizingPath(record[kFileLocalPathKey].stringValue()), record[kFileSizeKey]);
    if (isFirst) {
      first.push_back(i);
      continue;
    }
    if (known->second != record[kFileSizeKey]) conflictingFiles_.push_back(i);
    pendingSharedFiles_.push_back(i);
  }
  // A parent mirror vouches for its files: what it published is known before any is fetched.
  KTSUpstreamDigests* upstream = files_ != nullptr ? files_->upstreamDigests() : nullptr;
  std::optional<Url> url =
      files.size() > 0 ? Url::parse(files[0][kFileURLKey].stringValue()) : std::nullopt;
  if (upstream == nullptr || !url) return attemptFiles(first);
  upstream->fetch(productId(), *url, scheduler_,
                  [self = shared_from_this(), this, first = std::move(first)](
                      std::shared_ptr<const KTSDigestManifests::Manifest> manifest) {
                    manifest_ = std::move(manifest);
                    attemptFiles(first);
                  });
}

// The count holds one more until every file has been started, so that files found in place
// cannot end the product while others are still to start.
void KTSProductDownload::attemptFiles(const std::vector<std::size_t>& indexes) {
  filesLeft_ = indexes.size() + 1;
  for (std::size_t index : indexes) attemptFile(index, 0, KTSProductState::DownloadBegun);
  fileProcessed(false);
}

void KTSProductDownload::attemptFile(std::size_t index, int attempt, std::int64_t fileStatus) {
  const std::string& localPath = product_.mirrorFiles()[index][kFileLocalPathKey].stringValue();
  const std::string fileName = lastPathComponent(localPath);
  if (std::optional<std::string> owner = otherOwnerOfFile(index)) {
    log_.error("*** File {} of product {} belongs to {}; it is neither fetched nor touched.",
               localPath, productId(), *owner);
    progress().downloadStatus = KTSProductState::FileAbsent;
    return fileProcessed(true);
  }
  if (attempt == kFileDownloadAttempts) {
    log_.debug("PROD: {} ({}) download retries exhausted, skipping file.", productId(), fileName);
    progress().downloadStatus = KTSProductState::FileAbsent;
    return fileProcessed(true);
  }
  product_.state().beginFetching();
  if (fileStatus == KTSProductState::FileSuspect) {
    // A file where no product file may be (a served catalog, say) is never deleted as suspect.
    if (!product_.layout().isInsideHtmlFolder(localPath) ||
        KTSProductFileRules::refusalOutsideDownloads(product_.layout(), localPath)) {
      progress().downloadStatus = KTSProductState::FileAbsent;
      return fileProcessed(true);
    }
    log_.debug("PROD: {} ({}) removing suspect file.", productId(), fileName);
    if (files_ != nullptr) files_->fileChanged(product_.mirrorFiles()[index][kFileLocalPathKey]);
    if (!KTSUtilities::removePath(localPath)) {
      // Left as it is: the file counts as neither verified nor given up.
      progress().downloadStatus = KTSProductState::FileSuspect;
      return fileProcessed(false);
    }
    fileStatus = KTSProductState::FileAbsent;
  }
  if (fileStatus == KTSProductState::FileAbsent) {
    log_.debug("PROD: {} ({}) retrying download...", productId(), fileName);
  }
  progress().downloadStatus = KTSProductState::FileInTransfer;
  downloadFile(index, attempt);
}

void KTSProductDownload::downloadFile(std::size_t index, int attempt) {
  const Plist& fileInfo = product_.mirrorFiles()[index];
  std::optional<Url> url = Url::parse(fileInfo[kFileURLKey].stringValue());
  const std::string& localPath = fileInfo[kFileLocalPathKey].stringValue();
  const Plist& size = fileInfo[kFileSizeKey];
  bool replace = fileInfo[kFileReplaceKey].boolValue();
  const std::string fileName = lastPathComponent(localPath);

  std::optional<std::int64_t> expectedSize = expectedSizeOf(fileInfo);
  if (!replace && product_.layout().isInsideHtmlFolder(localPath) &&
      KTSUtilities::fileExistsAtPathWithSize(localPath, expectedSize)) {
    log_.debug("PROD: {}:   ...download skipped, file exists with expected size: {}", productId(),
               fileName);
    return attemptEnded(index, attempt, expectedSize.value_or(0));
  }
  std::string reason;
  if (!prepareDownloadFolder(url, localPath, &reason)) {
    log_.error("*** Product file URL contains possible security violation.");
    log_.error("*** Product ID: \"{}\"; file URL: \"{}\"", productId(), fileInfo[kFileURLKey]);
    log_.error("*** Local path: {}", localPath);
    log_.error("*** Reason: {}", reason);
    log_.error("*** The suspect product file will not be downloaded.");
    return attemptEnded(index, attempt, 0);
  }
  log_.debug("PROD: {}:   ...download started: {}; expected size={}; replace={}", productId(),
             fileName, sizeText(size), replace ? "YES" : "NO");
  if (!replace && KTSUtilities::fileExistsAtPath(localPath)) {
    LogHandle::shared().info("Skipping download; REPLACE = NO, file exists: {})",
                             lastPathComponent(url->path()));
    log_.debug("PROD: {}:   ...download completed: {}", productId(), fileName);
    return attemptEnded(index, attempt, expectedSize.value_or(0));
  }
  auto downloader =
      KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(*url, localPath, false);
  // A product file is fetched only when missing or of the wrong size: never conditionally.
  downloader->setUsesValidators(false);
  downloader->setExpectedSize(expectedSize);
  if (manifest_)
    downloader->setExpectedDigest(files_->upstreamDigests()->digestOf(*manifest_, localPath));
  if (files_ != nullptr) files_->fileFetching(fileInfo[kFileLocalPathKey]);
  scheduler_.enqueue(std::move(downloader), [self = shared_from_this(), this, index, attempt,
                                             expectedSize, fileName](KTSFileDownloader& fetched) {
    if (const std::optional<KTSError>& error = fetched.downloadError()) {
      KTSFetchScheduler::logFailedDownload(fetched.downloadPath(), error->description());
    }
    log_.debug("PROD: {}:   ...download completed: {}", productId(), fileName);
    // A server too slow for the floor would be as slow again at once: the next pass tries.
    if (fetched.wasTooSlow()) {
      log_.debug("PROD: {} ({}) too slow; left for the next pass.", productId(), fileName);
      if (files_ != nullptr) files_->fileChanged(fetched.downloadPath());
      progress().downloadStatus = KTSProductState::FileAbsent;
      return fileProcessed(true);
    }
    attemptEnded(index, attempt, fetched.downloadError() ? 0 : expectedSize.value_or(0),
                 fetched.receivedDigest());
  });
}

void KTSProductDownload::attemptEnded(std::size_t index, int attempt, std::int64_t bytesPlaced,
                                      const std::optional<std::string>& sha256) {
  const Plist& record = product_.mirrorFiles()[index];
  log_.debug("PROD: {}: ...downloaded {} bytes of total {}", productId(),
             progress().downloadedSize.integerValue() + bytesPlaced,
             progress().totalDownloadSize.integerValue());
  const std::string& localPath = record[kFileLocalPathKey].stringValue();
  if (product_.verifyMirroredFileWithInfo(record)) {
    if (files_ != nullptr) {
      files_->filePlaced(record[kFileLocalPathKey], expectedSizeOf(record), sha256, productId());
    }
    progress().downloadStatus = KTSProductState::FileVerified;
    ++progress().totalDownloadCount;
    progress().addDownloaded(bytesPlaced);
    return fileProcessed(false);
  }
  if (files_ != nullptr) files_->fileChanged(record[kFileLocalPathKey]);
  bool present = KTSUtilities::fileExistsAtPath(localPath);
  attemptFile(index, attempt + 1,
              present ? KTSProductState::FileSuspect : KTSProductState::FileAbsent);
}

// Another product that owns the record's file, or this product itself when another of its
// records gives the file another size.
std::optional<std::string> KTSProductDownload::otherOwnerOfFile(std::size_t index) const {
  if (std::find(conflictingFiles_.begin(), conflictingFiles_.end(), index) !=
      conflictingFiles_.end()) {
    return fmt::format("another file of product {} with another size", productId());
  }
  if (ownership_ == nullptr) return std::nullopt;
  const std::string* owner = ownership_->otherOwnerOfPath(
      product_.mirrorFiles()[index][kFileLocalPathKey].stringValue(), productId());
  if (owner == nullptr) return std::nullopt;
  return fmt::format("product {}", *owner);
}

void KTSProductDownload::fileProcessed(bool givenUp) {
  givenUp_ = givenUp_ || givenUp;
  if (--filesLeft_ > 0) return;
  if (!pendingSharedFiles_.empty()) {
    // The files shared by several records are in place now: the others take them as found,
    // and those that conflict are refused.
    std::vector<std::size_t> later = std::move(pendingSharedFiles_);
    pendingSharedFiles_.clear();
    return attemptFiles(later);
  }
  // A product with a file given up keeps its state until the next attempt.
  if (givenUp_) {
    progress().downloadStatus = KTSProductState::FileAbsent;
  } else {
    endDownload();
  }
  if (finished_) finished_(!givenUp_);
}

void KTSProductDownload::endDownload() {
  log_.info("Finished downloading product: {}", productId());
  auto expected = static_cast<std::int64_t>(product_.mirrorFiles().size());
  std::int64_t downloaded = progress().totalDownloadCount;
  log_.debug("PROD: {}: files downloaded = {}, expected {}", productId(), downloaded, expected);
  bool enabling = downloaded == expected && product_.state().enableWhenMirrored();
  product_.state().finishFetching(downloaded == expected);
  log_.debug("PROD: {}: mirror = {}", productId(), product_.state().mirrorDescription());
  if (enabling) {
    log_.debug("PROD: {}: enabled = YES (based on request)", productId());
  }
}

// Nothing is created until the URL and the path are acceptable as text.
bool KTSProductDownload::prepareDownloadFolder(const std::optional<Url>& url,
                                               const std::string& localPath,
                                               std::string* refusal) const {
  if (std::optional<std::string> reason =
          KTSProductFileRules::refusalBeforeCreatingFolder(product_.layout(), url, localPath)) {
    *refusal = *reason;
    return false;
  }
  std::string folder = deletingLastPathComponent(localPath);
  if (!KTSUtilities::directoryExistsAtPath(folder)) {
    KTSUtilities::createDirectoryAtPath(folder);
    log_.debug("PROD: {}:   ...created download folder: {}", productId(), folder);
  }
  std::optional<std::string> reason =
      KTSProductFileRules::refusalOfTransfer(product_.layout(), url, localPath);
  if (reason) *refusal = *reason;
  return !reason;
}

}  // namespace ondrel
