// A product's files to mirror: the list built from its catalog entry, the download of each file
// with retries (every file of the product at once, through the pass's fetch scheduler) and the
// check that keeps every file inside the document root, verification by size, and removal.
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <map>
#include <set>
#include <stdexcept>

#include "KTCatalogKeys.h"
#include "KTSFetchScheduler.h"
#include "KTSFileDownloader.h"
#include "KTSFileOwnership.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSUtilities.h"
#include "PathString.h"

namespace ondrel {

namespace {

constexpr int kFileDownloadAttempts = 3;

std::string lowercased(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// True when the URL's path, read the way some servers decode it, holds a "." or ".." segment
// spelt with percent-encoding ("%2e%2e", "..%2f", ...).
bool hasEncodedDotSegment(const Url& url) {
  std::string path = lowercased(url.encodedPath());
  if (path.find("%2e") == std::string::npos && path.find("%2f") == std::string::npos &&
      path.find("%5c") == std::string::npos) {
    return false;
  }
  std::string decoded;
  for (std::size_t i = 0; i < path.size(); ++i) {
    std::string_view rest(path.data() + i, path.size() - i);
    if (rest.substr(0, 3) == "%2e") {
      decoded += '.', i += 2;
    } else if (rest.substr(0, 3) == "%2f" || rest.substr(0, 3) == "%5c") {
      decoded += '/', i += 2;
    } else {
      decoded += path[i];
    }
  }
  std::size_t start = 0;
  while (start <= decoded.size()) {
    std::size_t end = decoded.find('/', start);
    if (end == std::string::npos) end = decoded.size();
    std::string_view segment(decoded.data() + start, end - start);
    if (segment == "." || segment == "..") return true;
    start = end + 1;
  }
  return false;
}

std::string notInUpdatesFolder(const std::string& documentRoot) {
  return fmt::format("file download path is not part of updates folder (should be \"{}\")",
                     documentRoot);
}

// Why folder is refused once symbolic links are resolved: it cannot be reached, or it lies
// outside the document root. With orNearestAncestor, a folder not made yet is judged by its
// nearest existing ancestor, so that making it cannot create anything through a link.
bool resolvedFolderRefusal(std::string folder, bool orNearestAncestor, std::string* reason) {
  while (orNearestAncestor && !folder.empty() && folder != "/" &&
         ::access(folder.c_str(), F_OK) != 0) {
    folder = deletingLastPathComponent(folder);
  }
  char* resolved = ::realpath(folder.c_str(), nullptr);
  if (resolved == nullptr) {
    if (reason) *reason = "file download path cannot be reached / does not exist.";
    return true;
  }
  std::string resolvedFolder = resolved;
  std::free(resolved);
  std::string documentRoot = KTSPreferences::defaultPreferences()->updatesDocRoot();
  if (resolvedFolder.rfind("/private", 0) == 0 && documentRoot.rfind("/private", 0) != 0) {
    documentRoot = "/private" + documentRoot;
  }
  if (resolvedFolder.rfind(documentRoot, 0) == 0) return false;
  // An ancestor of the document root itself: the folders made below it lead to the root.
  std::string ancestor = resolvedFolder == "/" ? "/" : resolvedFolder + "/";
  if (orNearestAncestor && (standardizingPath(documentRoot) + "/").rfind(ancestor, 0) == 0) {
    return false;
  }
  if (reason) *reason = notInUpdatesFolder(documentRoot);
  return true;
}

// Names the server gives its own files beside the served ones (caches, composites, side files
// of downloads and previous versions, hidden files).
bool isInternalName(const std::string& name) {
  static const std::string kSuffixes[] = {".vantor",    ".composite",   ".productscache",
                                          ".alternate", ".downloading", ".previous"};
  if (name.empty() || name.front() == '.') return true;
  for (const std::string& suffix : kSuffixes) {
    if (name.size() >= suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
      return true;
    }
  }
  return false;
}

// Product files belong under the downloads folder only, never on a served catalog, a name the
// server publishes at the top of the tree, or one of its own files.
std::optional<std::string> refusalOutsideDownloads(const std::string& destPath) {
  std::string downloads = KTSPreferences::defaultPreferences()->updatesDownloadsPath() + "/";
  if (standardizingPath(destPath).rfind(downloads, 0) != 0) {
    return fmt::format(
        "file download path is not part of the downloads folder (should be in \"{}\")", downloads);
  }
  if (isInternalName(lastPathComponent(destPath))) {
    return std::string("file download path names a file the server keeps for itself");
  }
  return std::nullopt;
}

// Why a transfer from url to destPath is refused before its folder is made: the text of both
// (a scheme other than http(s), a path outside the html folder or its downloads folder, a "."
// or ".." segment hidden by percent-encoding, an internal name), or an existing folder on the
// way that resolves outside the document root.
std::optional<std::string> refusalBeforeCreatingFolder(const std::optional<Url>& url,
                                                       const std::string& destPath) {
  if (!url || url->scheme().rfind("http", 0) != 0) {
    return "file URL contains invalid scheme (should be \"http\")";
  }
  if (!KTSPath::isInsideHtmlFolder(destPath) || hasEncodedDotSegment(*url)) {
    return notInUpdatesFolder(KTSPreferences::defaultPreferences()->updatesDocRoot());
  }
  if (std::optional<std::string> outside = refusalOutsideDownloads(destPath)) return outside;
  std::string reason;
  if (resolvedFolderRefusal(deletingLastPathComponent(standardizingPath(destPath)), true,
                            &reason)) {
    return reason;
  }
  return std::nullopt;
}

std::string sizeText(const Plist& size, const char* none) {
  return size.isNull() ? none : size.description();
}

}  // namespace

Plist KTSProduct::makeMirrorFiles() const {
  Plist files = Plist::array();
  for (const auto& [language, url] :
       masterRepresentation_[KTCatalogProductDistributionsDictKey].items()) {
    files.append(mirrorFileInfoForDistribution(language));
  }
  for (const Plist& package : masterRepresentation_[KTCatalogProductPackagesKey].elements()) {
    Plist records = mirrorFilesForPackage(package);
    for (const Plist& record : records.elements()) files.append(record);
  }
  return files;
}

Plist KTSProduct::mirrorFileInfoForDistribution(const std::string& language) const {
  const Plist& url = masterRepresentation_[KTCatalogProductDistributionsDictKey][language];
  Plist record = Plist::dictionary();
  record.set(kFileURLKey, url.isString() ? url : Plist(""));
  record.set(kFileLocalPathKey,
             KTSPath::pathWithString(url.stringValue()).asLocalPath().value_or(""));
  return record;
}

Plist KTSProduct::mirrorFilesForPackage(const Plist& package) const {
  Plist records = Plist::array();
  if (package.contains(KTCatalogPackageMetadataURLStringKey)) {
    records.append(
        mirrorFileInfoForPathExpectedSize(package[KTCatalogPackageMetadataURLStringKey], Plist()));
  }
  records.append(mirrorFileInfoForPathExpectedSize(package[KTCatalogPackageURLStringKey],
                                                   package[KTCatalogPackageSizeKey]));
  return records;
}

// The record keeps the catalog's own URL value, which shares its storage with the entry.
Plist KTSProduct::mirrorFileInfoForPathExpectedSize(const Plist& url, const Plist& size) const {
  Plist record = Plist::dictionary();
  record.set(kFileURLKey, url.isString() ? url : Plist(""));
  record.set(kFileLocalPathKey,
             KTSPath::pathWithString(url.stringValue()).asLocalPath().value_or(""));
  if (size.isNumber()) record.set(kFileSizeKey, size);
  record.set(kFileReplaceKey, Plist::boolean(false));
  return record;
}

Plist KTSProduct::getTotalMirrorSize() const {
  std::int64_t total = 0;
  for (const Plist& record : facts_->mirrorFiles.elements()) {
    std::int64_t size = record[kFileSizeKey].integerValue();
    if (size > 0 && total <= INT64_MAX - size) total += size;
  }
  return total > 0 ? Plist::integer(total) : Plist();
}

bool KTSProduct::downloadMirroredFiles() {
  KTSFetchScheduler scheduler(
      KTSFetchScheduler::preferredConcurrency(*KTSPreferences::defaultPreferences()), nullptr);
  bool complete = false;
  mirrorFilesWithScheduler(scheduler, [&complete](bool done) { complete = done; });
  scheduler.run();
  return complete;
}

void KTSProduct::mirrorFilesWithScheduler(KTSFetchScheduler& scheduler,
                                          std::function<void(bool complete)> finished,
                                          const KTSFileOwnership* ownership) {
  beginDownload();
  mirroring_ = std::make_shared<Mirroring>();
  mirroring_->scheduler = &scheduler;
  mirroring_->ownership = ownership;
  mirroring_->finished = std::move(finished);
  // Records that name one local file share its fetch: the first one fetches, the others find
  // it in place afterwards, so two transfers never write the same file. One that gives that
  // file another size could only ever replace the other's: it is refused.
  std::map<std::string, Plist> sizes;
  std::vector<std::size_t> first;
  pendingSharedFiles_.clear();
  conflictingFiles_.clear();
  for (std::size_t i = 0; i < facts_->mirrorFiles.size(); ++i) {
    const Plist& record = facts_->mirrorFiles[i];
    auto [known, isFirst] = sizes.try_emplace(
        standardizingPath(record[kFileLocalPathKey].stringValue()), record[kFileSizeKey]);
    if (isFirst) {
      first.push_back(i);
      continue;
    }
    if (known->second != record[kFileSizeKey]) conflictingFiles_.push_back(i);
    pendingSharedFiles_.push_back(i);
  }
  attemptFiles(first);
}

// The count holds one more until every file has been started, so that files found in place
// cannot end the product while others are still to start.
void KTSProduct::attemptFiles(const std::vector<std::size_t>& indexes) {
  mirroring_->filesLeft = indexes.size() + 1;
  for (std::size_t index : indexes) attemptFile(index, 0, KTSProductState::DownloadBegun);
  fileProcessed(false);
}

void KTSProduct::beginDownload() {
  log_.debug("PROD: {}: ...starting download", id());
  state_.restartProgress();
}

void KTSProduct::attemptFile(std::size_t index, int attempt, std::int64_t fileStatus) {
  const std::string& localPath = facts_->mirrorFiles[index][kFileLocalPathKey].stringValue();
  const std::string fileName = lastPathComponent(localPath);
  if (std::optional<std::string> owner = otherOwnerOfFile(index)) {
    log_.error("*** File {} of product {} belongs to {}; it is neither fetched nor touched.",
               localPath, id(), *owner);
    state_.setDownloadStatus(KTSProductState::FileAbsent);
    return fileProcessed(true);
  }
  if (attempt == kFileDownloadAttempts) {
    log_.debug("PROD: {} ({}) download retries exhausted, skipping file.", id(), fileName);
    state_.setDownloadStatus(KTSProductState::FileAbsent);
    return fileProcessed(true);
  }
  state_.beginFetching();
  if (fileStatus == KTSProductState::FileSuspect) {
    // A file where no product file may be (a served catalog, say) is never deleted as suspect.
    if (!KTSPath::isInsideHtmlFolder(localPath) || refusalOutsideDownloads(localPath)) {
      state_.setDownloadStatus(KTSProductState::FileAbsent);
      return fileProcessed(true);
    }
    log_.debug("PROD: {} ({}) removing suspect file.", id(), fileName);
    if (!KTSUtilities::removePath(localPath)) {
      // Left as it is: the file counts as neither verified nor given up.
      state_.setDownloadStatus(KTSProductState::FileSuspect);
      return fileProcessed(false);
    }
    fileStatus = KTSProductState::FileAbsent;
  }
  if (fileStatus == KTSProductState::FileAbsent) {
    log_.debug("PROD: {} ({}) retrying download...", id(), fileName);
  }
  state_.setDownloadStatus(KTSProductState::FileInTransfer);
  downloadFileWithInfo(index, attempt);
}

void KTSProduct::downloadFileWithInfo(std::size_t index, int attempt) {
  const Plist& fileInfo = facts_->mirrorFiles[index];
  std::optional<Url> url = Url::parse(fileInfo[kFileURLKey].stringValue());
  const std::string& localPath = fileInfo[kFileLocalPathKey].stringValue();
  const Plist& size = fileInfo[kFileSizeKey];
  bool replace = fileInfo[kFileReplaceKey].boolValue();
  const std::string fileName = lastPathComponent(localPath);

  std::optional<std::int64_t> expectedSize;
  if (size.isNumber()) expectedSize = size.integerValue();
  if (!replace && KTSPath::isInsideHtmlFolder(localPath) &&
      KTSUtilities::fileExistsAtPathWithSize(localPath, expectedSize)) {
    log_.debug("PROD: {}:   ...download skipped, file exists with expected size: {}", id(),
               fileName);
    return attemptEnded(index, attempt, expectedSize.value_or(0));
  }
  std::string reason;
  if (!prepareDownloadFolder(url, localPath, &reason)) {
    log_.error("*** Product file URL contains possible security violation.");
    log_.error("*** Product ID: \"{}\"; file URL: \"{}\"", id(), fileInfo[kFileURLKey]);
    log_.error("*** Local path: {}", localPath);
    log_.error("*** Reason: {}", reason);
    log_.error("*** The suspect product file will not be downloaded.");
    return attemptEnded(index, attempt, 0);
  }
  log_.debug("PROD: {}:   ...download started: {}; expected size={}; replace={}", id(), fileName,
             sizeText(size, "--"), replace ? "YES" : "NO");
  if (!replace && KTSUtilities::fileExistsAtPath(localPath)) {
    LogHandle::shared().info("Skipping download; REPLACE = NO, file exists: {})",
                             lastPathComponent(url->path()));
    log_.debug("PROD: {}:   ...download completed: {}", id(), fileName);
    return attemptEnded(index, attempt, expectedSize.value_or(0));
  }
  auto downloader =
      KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(*url, localPath, false);
  // A product file is fetched only when missing or of the wrong size: never conditionally.
  downloader->setUsesValidators(false);
  downloader->setExpectedSize(expectedSize);
  mirroring_->scheduler->enqueue(std::move(downloader), [this, index, attempt, expectedSize,
                                                         fileName](KTSFileDownloader& fetched) {
    if (const std::optional<KTSError>& error = fetched.downloadError()) {
      KTSUtilities::logFailedDownload(fetched.downloadPath(), error->description());
    }
    log_.debug("PROD: {}:   ...download completed: {}", id(), fileName);
    // A server too slow for the floor would be as slow again at once: the next pass tries.
    if (fetched.wasTooSlow()) {
      log_.debug("PROD: {} ({}) too slow; left for the next pass.", id(), fileName);
      state_.setDownloadStatus(KTSProductState::FileAbsent);
      return fileProcessed(true);
    }
    attemptEnded(index, attempt, fetched.downloadError() ? 0 : expectedSize.value_or(0));
  });
}

void KTSProduct::attemptEnded(std::size_t index, int attempt, std::int64_t bytesPlaced) {
  const Plist& record = facts_->mirrorFiles[index];
  log_.debug("PROD: {}: ...downloaded {} bytes of total {}", id(),
             state_.downloadedSize().integerValue() + bytesPlaced,
             state_.totalDownloadSize().integerValue());
  if (verifyMirroredFileWithInfo(record)) {
    state_.setDownloadStatus(KTSProductState::FileVerified);
    state_.setTotalDownloadCount(state_.totalDownloadCount() + 1);
    state_.addToDownloadedSize(bytesPlaced);
    return fileProcessed(false);
  }
  bool present = KTSUtilities::fileExistsAtPath(record[kFileLocalPathKey].stringValue());
  attemptFile(index, attempt + 1,
              present ? KTSProductState::FileSuspect : KTSProductState::FileAbsent);
}

// Another product that owns the record's file, or this product itself when another of its
// records gives the file another size.
std::optional<std::string> KTSProduct::otherOwnerOfFile(std::size_t index) const {
  if (std::find(conflictingFiles_.begin(), conflictingFiles_.end(), index) !=
      conflictingFiles_.end()) {
    return fmt::format("another file of product {} with another size", id());
  }
  const KTSFileOwnership* ownership = mirroring_ ? mirroring_->ownership : nullptr;
  if (ownership == nullptr) return std::nullopt;
  const std::string* owner = ownership->otherOwnerOfPath(
      facts_->mirrorFiles[index][kFileLocalPathKey].stringValue(), id());
  if (owner == nullptr) return std::nullopt;
  return fmt::format("product {}", *owner);
}

void KTSProduct::fileProcessed(bool givenUp) {
  std::shared_ptr<Mirroring> mirroring = mirroring_;
  if (givenUp) mirroring->givenUp = true;
  if (--mirroring->filesLeft > 0) return;
  if (!pendingSharedFiles_.empty()) {
    // The files shared by several records are in place now: the others take them as found,
    // and those that conflict are refused.
    std::vector<std::size_t> later = std::move(pendingSharedFiles_);
    pendingSharedFiles_.clear();
    return attemptFiles(later);
  }
  mirroring_.reset();
  conflictingFiles_.clear();
  // A product with a file given up keeps its state until the next attempt.
  if (mirroring->givenUp) {
    state_.setDownloadStatus(KTSProductState::FileAbsent);
  } else {
    endDownload();
  }
  if (mirroring->finished) mirroring->finished(!mirroring->givenUp);
}

void KTSProduct::endDownload() {
  log_.info("Finished downloading product: {}", id());
  auto expected = static_cast<std::int64_t>(facts_->mirrorFiles.size());
  std::int64_t downloaded = state_.totalDownloadCount();
  log_.debug("PROD: {}: files downloaded = {}, expected {}", id(), downloaded, expected);
  bool enabling = downloaded == expected && state_.enableWhenMirrored();
  state_.finishFetching(downloaded == expected);
  log_.debug("PROD: {}: mirror = {}", id(), state_.mirrorDescription());
  if (enabling) {
    log_.debug("PROD: {}: enabled = YES (based on request)", id());
  }
}

// Nothing is created until the URL and the path are acceptable as text.
bool KTSProduct::prepareDownloadFolder(const std::optional<Url>& url, const std::string& localPath,
                                       std::string* refusal) const {
  if (std::optional<std::string> reason = refusalBeforeCreatingFolder(url, localPath)) {
    *refusal = *reason;
    return false;
  }
  std::string folder = deletingLastPathComponent(localPath);
  if (!KTSUtilities::directoryExistsAtPath(folder)) {
    KTSUtilities::createDirectoryAtPath(folder);
    log_.debug("PROD: {}:   ...created download folder: {}", id(), folder);
  }
  return verifyDownloadFileURLDestPathFailureReason(url, localPath, refusal);
}

bool KTSProduct::verifyDownloadFileURLDestPathFailureReason(const std::optional<Url>& url,
                                                            const std::string& destPath,
                                                            std::string* failureReason) const {
  auto failWith = [failureReason](std::string reason) {
    if (failureReason) *failureReason = std::move(reason);
    return false;
  };
  if (std::optional<std::string> reason = refusalBeforeCreatingFolder(url, destPath)) {
    return failWith(*reason);
  }
  return !resolvedFolderRefusal(deletingLastPathComponent(standardizingPath(destPath)), false,
                                failureReason);
}

bool KTSProduct::verifyMirroredFileWithInfo(const Plist& fileInfo) const {
  const std::string& localPath = fileInfo[kFileLocalPathKey].stringValue();
  const std::string fileName = lastPathComponent(localPath);
  const Plist& size = fileInfo[kFileSizeKey];
  log_.debug("PROD: {}: verifying: {}; size: {}", id(), fileName, sizeText(size, "(N/A)"));
  std::optional<std::int64_t> found;
  if (KTSPath::isInsideHtmlFolder(localPath)) {
    found = KTSUtilities::sizeOfExistingItemAtPath(localPath);
  }
  if (!found) {
    log_.debug("PROD: {}: verification failed; file not found: {}", id(), fileName);
    return false;
  }
  if (!size.isNumber()) return true;
  std::int64_t actual = *found;
  if (actual == size.integerValue()) return true;
  log_.debug("PROD: {}: verification failed; incorrect size: {} (expected={}, actual={})", id(),
             fileName, size, actual);
  return false;
}

bool KTSProduct::verifyMirroredFiles(KTSPassMemo* memo) const {
  if (std::optional<bool> known =
          memo != nullptr ? memo->filesVerifiedEarlier(id(), facts_->mirrorFiles) : std::nullopt) {
    return *known;
  }
  bool allVerified = true;
  for (const Plist& record : facts_->mirrorFiles.elements()) {
    if (!verifyMirroredFileWithInfo(record)) allVerified = false;
  }
  if (memo != nullptr) memo->recordFilesVerified(id(), facts_->mirrorFiles, allVerified);
  std::string title = "?title?";
  if (facts_->bundleNames.contains("English")) {
    title = facts_->bundleNames["English"].stringValue();
  } else if (facts_->bundleNames.contains("en")) {
    title = facts_->bundleNames["en"].stringValue();
  } else if (facts_->bundleNames.size() > 0) {
    title = facts_->bundleNames.items().begin()->second.stringValue();
  }
  if (allVerified) {
    log_.debug("PROD: {}: ({} {}) verified - all files downloaded", id(), title,
               facts_->version.value_or(""));
  } else {
    log_.debug("PROD: {}: ({} {}) *** one or more files not downloaded ***", id(), title,
               facts_->version.value_or(""));
  }
  return allVerified;
}

void KTSProduct::removeAllFiles() {
  std::optional<std::string> metadataPath =
      facts_->smdPath ? localPathInsideDocumentRoot(facts_->smdPath->parentServerURL())
                      : std::nullopt;
  if (metadataPath) {
    std::string folder = deletingLastPathComponent(deletingLastPathComponent(*metadataPath));
    // The folder two levels up must still be a product's folder below the html folder.
    if (KTSPath::isInsideHtmlFolder(folder) && KTSUtilities::directoryExistsAtPath(folder)) {
      log_.debug("PROD: {}: removing product update downloads folder", id());
      KTSUtilities::removePath(folder);
    }
  }
  state_.filesRemoved();
}

void KTSProduct::removeAllMirroredFiles(const KTSFileOwnership* ownership) {
  for (const Plist& record : facts_->mirrorFiles.elements()) {
    const std::string& localPath = record[kFileLocalPathKey].stringValue();
    std::string extension = pathExtension(localPath);
    // Only its own files, where product files belong: never another product's or a served one.
    if (extension == "dist" || extension == "smd" || !KTSPath::isInsideHtmlFolder(localPath) ||
        refusalOutsideDownloads(localPath) ||
        (ownership != nullptr && ownership->otherOwnerOfPath(localPath, id()))) {
      continue;
    }
    // A download cut short keeps its part to be continued; the product gone, it goes too.
    std::string part = sideFilePath(localPath, "downloading");
    if (KTSUtilities::fileExistsAtPath(part)) KTSUtilities::removePath(part);
    if (!KTSUtilities::fileExistsAtPath(localPath)) continue;
    log_.debug("PROD: {}: removing product file {}", id(), lastPathComponent(localPath));
    KTSUtilities::removePath(localPath);
  }
  state_.filesRemoved();
}

KTSProduct::StillToFetch KTSProduct::stillToFetch() const {
  StillToFetch still;
  for (const Plist& record : facts_->mirrorFiles.elements()) {
    const Plist& size = record[kFileSizeKey];
    std::optional<std::int64_t> expected;
    if (size.isNumber()) expected = size.integerValue();
    if (KTSUtilities::fileExistsAtPathWithSize(record[kFileLocalPathKey].stringValue(), expected)) {
      continue;
    }
    ++still.files;
    // Catalog sizes may be anything: the sum stops at the type's end instead of wrapping.
    if (expected && *expected > 0) {
      still.bytes += std::min(static_cast<std::uint64_t>(*expected), UINT64_MAX - still.bytes);
    }
  }
  return still;
}

}  // namespace ondrel
