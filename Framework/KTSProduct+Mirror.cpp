// A product's files to mirror: the list built from its catalog entry, the download of each file
// with retries and the check that keeps every file inside the document root, verification by
// size, and removal.
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <set>
#include <stdexcept>

#include "KTCatalogKeys.h"
#include "KTSFileDownloader.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSUtilities.h"
#include "PathString.h"

namespace ondrel {

namespace {

constexpr int kFileDownloadAttempts = 3;
// A product's files are fetched this many at a time ahead of the walk that takes them one by one.
constexpr std::size_t kConcurrentFileFetches = 3;

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

// Why a transfer from url to destPath is refused before its folder is made: the text of both
// (a scheme other than http(s), a path outside the html folder, a "." or ".." segment hidden by
// percent-encoding), or an existing folder on the way that resolves outside the document root.
std::optional<std::string> refusalBeforeCreatingFolder(const std::optional<Url>& url,
                                                       const std::string& destPath) {
  if (!url || url->scheme().rfind("http", 0) != 0) {
    return "file URL contains invalid scheme (should be \"http\")";
  }
  if (!KTSPath::isInsideHtmlFolder(destPath) || hasEncodedDotSegment(*url)) {
    return notInUpdatesFolder(KTSPreferences::defaultPreferences()->updatesDocRoot());
  }
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
  const std::string& urlText =
      masterRepresentation_[KTCatalogProductDistributionsDictKey][language].stringValue();
  Plist record = Plist::dictionary();
  record.set(kFileURLKey, urlText);
  record.set(kFileLocalPathKey, KTSPath::pathWithString(urlText).asLocalPath().value_or(""));
  return record;
}

Plist KTSProduct::mirrorFilesForPackage(const Plist& package) const {
  Plist records = Plist::array();
  if (package.contains(KTCatalogPackageMetadataURLStringKey)) {
    records.append(mirrorFileInfoForPathExpectedSize(
        package[KTCatalogPackageMetadataURLStringKey].stringValue(), Plist()));
  }
  records.append(mirrorFileInfoForPathExpectedSize(
      package[KTCatalogPackageURLStringKey].stringValue(), package[KTCatalogPackageSizeKey]));
  return records;
}

Plist KTSProduct::mirrorFileInfoForPathExpectedSize(const std::string& urlText,
                                                    const Plist& size) const {
  Plist record = Plist::dictionary();
  record.set(kFileURLKey, urlText);
  record.set(kFileLocalPathKey, KTSPath::pathWithString(urlText).asLocalPath().value_or(""));
  if (size.isNumber()) record.set(kFileSizeKey, size);
  record.set(kFileReplaceKey, Plist::boolean(false));
  return record;
}

Plist KTSProduct::getTotalMirrorSize() const {
  std::int64_t total = 0;
  for (const Plist& record : mirrorFiles_.elements()) {
    std::int64_t size = record[kFileSizeKey].integerValue();
    if (size > 0 && total <= INT64_MAX - size) total += size;
  }
  return total > 0 ? Plist::integer(total) : Plist();
}

bool KTSProduct::downloadMirroredFiles() {
  beginDownload();
  fetchMissingFilesAhead();
  while (downloadStatus_ != DownloadFinished) {
    downloadNextFile();
    if (downloadStatus_ == FileAbsent) return false;
  }
  return true;
}

void KTSProduct::beginDownload() {
  log_.debug("PROD: {}: ...starting download", id());
  downloadedSize_ = Plist::integer(0);
  downloadEnumerator_ = 0;
  totalDownloadCount_ = 0;
  downloadStatus_ = DownloadBegun;
  filesFailedAhead_.clear();
}

// The walk below then finds these files in place and verifies them; a file whose fetch failed
// here has had its first attempt, and one that may not be fetched is left to the walk to refuse.
void KTSProduct::fetchMissingFilesAhead() {
  std::vector<std::shared_ptr<KTSFileDownloader>> fetches;
  std::vector<std::size_t> fetchedRecords;
  std::set<std::string> localPaths;
  for (std::size_t i = 0; i < mirrorFiles_.size(); ++i) {
    const Plist& record = mirrorFiles_[i];
    const std::string& localPath = record[kFileLocalPathKey].stringValue();
    std::optional<Url> url = Url::parse(record[kFileURLKey].stringValue());
    std::string refusal;
    if (record[kFileReplaceKey].boolValue() || !localPaths.insert(localPath).second ||
        KTSUtilities::fileExistsAtPath(localPath) ||
        !prepareDownloadFolder(url, localPath, &refusal)) {
      continue;
    }
    fetches.push_back(
        KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(*url, localPath, false));
    fetchedRecords.push_back(i);
  }
  // A single file gains nothing from going ahead of the walk.
  if (fetches.size() < 2) return;
  KTSFileDownloader::downloadConcurrently(fetches, kConcurrentFileFetches,
                                          [](KTSFileDownloader&) {});
  filesFailedAhead_.assign(mirrorFiles_.size(), false);
  for (std::size_t i = 0; i < fetches.size(); ++i) {
    if (const std::optional<KTSError>& error = fetches[i]->downloadError()) {
      KTSUtilities::logFailedDownload(fetches[i]->downloadPath(), error->description());
      filesFailedAhead_[fetchedRecords[i]] = true;
    }
  }
}

void KTSProduct::addToDownloadedSize(std::int64_t bytes) {
  downloadedSize_ = Plist::integer(downloadedSize_.integerValue() + bytes);
}

void KTSProduct::downloadNextFile() {
  if (!downloadEnumerator_ || *downloadEnumerator_ >= mirrorFiles_.size()) {
    endDownload();
    return;
  }
  std::size_t index = (*downloadEnumerator_)++;
  const Plist record = mirrorFiles_[index];
  const std::string& localPath = record[kFileLocalPathKey].stringValue();
  const std::string fileName = lastPathComponent(localPath);
  mirror_ = Downloading;
  downloadStatus_ = FileInTransfer;
  int firstAttempt = 0;
  if (index < filesFailedAhead_.size() && filesFailedAhead_[index]) {
    firstAttempt = 1;
    downloadStatus_ = FileAbsent;
  }
  for (int attempt = firstAttempt; attempt < kFileDownloadAttempts; ++attempt) {
    if (downloadStatus_ == FileSuspect) {
      log_.debug("PROD: {} ({}) removing suspect file.", id(), fileName);
      if (!KTSPath::isInsideHtmlFolder(localPath) || !KTSUtilities::removePath(localPath)) return;
      downloadStatus_ = FileAbsent;
    }
    if (downloadStatus_ == FileAbsent) {
      log_.debug("PROD: {} ({}) retrying download...", id(), fileName);
      downloadStatus_ = FileInTransfer;
    }
    Plist sizeBefore = downloadedSize_;
    try {
      downloadFileWithInfo(record);
    } catch (const std::exception& failure) {
      log_.debug("PROD: {} ({}) download failed! Reason: {}", id(), localPath, failure.what());
    }
    log_.debug("PROD: {}: ...downloaded {} bytes of total {}", id(), downloadedSize_.integerValue(),
               totalDownloadSize_.integerValue());
    if (verifyMirroredFileWithInfo(record)) {
      downloadStatus_ = FileVerified;
      ++totalDownloadCount_;
      return;
    }
    downloadStatus_ = KTSUtilities::fileExistsAtPath(localPath) ? FileSuspect : FileAbsent;
    downloadedSize_ = sizeBefore;
  }
  log_.debug("PROD: {} ({}) download retries exhausted, skipping file.", id(), fileName);
  downloadStatus_ = FileAbsent;
}

void KTSProduct::endDownload() {
  log_.info("Finished downloading product: {}", id());
  downloadStatus_ = DownloadFinished;
  auto expected = static_cast<std::int64_t>(mirrorFiles_.size());
  log_.debug("PROD: {}: files downloaded = {}, expected {}", id(), totalDownloadCount_, expected);
  mirror_ = totalDownloadCount_ == expected ? Mirrored : PleaseMirror;
  log_.debug("PROD: {}: mirror = {}", id(), mirrorStateDescription());
  if (mirror_ == Mirrored && enableWhenMirrored_) {
    log_.debug("PROD: {}: enabled = YES (based on request)", id());
    enabled_ = true;
  }
  downloadEnumerator_.reset();
  filesFailedAhead_.clear();
}

void KTSProduct::downloadFileWithInfo(const Plist& fileInfo) {
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
    addToDownloadedSize(expectedSize.value_or(0));
    return;
  }
  auto refuse = [&](const std::string& reason) {
    log_.error("*** Product file URL contains possible security violation.");
    log_.error("*** Product ID: \"{}\"; file URL: \"{}\"", id(), fileInfo[kFileURLKey]);
    log_.error("*** Local path: {}", localPath);
    log_.error("*** Reason: {}", reason);
    log_.error("*** The suspect product file will not be downloaded.");
  };
  std::string reason;
  if (!prepareDownloadFolder(url, localPath, &reason)) return refuse(reason);

  log_.debug("PROD: {}:   ...download started: {}; expected size={}; replace={}", id(), fileName,
             sizeText(size, "--"), replace ? "YES" : "NO");
  try {
    if (KTSUtilities::downloadFileWithURLToPathReplaceExistingArchivePrevious(*url, localPath,
                                                                              replace, false) &&
        expectedSize) {
      addToDownloadedSize(*expectedSize);
    }
    log_.debug("PROD: {}:   ...download completed: {}", id(), fileName);
  } catch (const std::exception& failure) {
    log_.debug("PROD: {}:    ...download exception! {} (reason: {})", id(), "download",
               failure.what());
    log_.error("Download failed for product/file: {}/{}", id(), fileName);
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

bool KTSProduct::verifyMirroredFiles() const {
  bool allVerified = true;
  for (const Plist& record : mirrorFiles_.elements()) {
    if (!verifyMirroredFileWithInfo(record)) allVerified = false;
  }
  std::string title = "?title?";
  if (bundleNames_.contains("English")) {
    title = bundleNames_["English"].stringValue();
  } else if (bundleNames_.contains("en")) {
    title = bundleNames_["en"].stringValue();
  } else if (bundleNames_.size() > 0) {
    title = bundleNames_.items().begin()->second.stringValue();
  }
  if (allVerified) {
    log_.debug("PROD: {}: ({} {}) verified - all files downloaded", id(), title,
               version_.value_or(""));
  } else {
    log_.debug("PROD: {}: ({} {}) *** one or more files not downloaded ***", id(), title,
               version_.value_or(""));
  }
  return allVerified;
}

void KTSProduct::removeAllFiles() {
  std::optional<std::string> metadataPath =
      smdPath_ ? localPathInsideDocumentRoot(smdPath_->parentServerURL()) : std::nullopt;
  if (metadataPath) {
    std::string folder = deletingLastPathComponent(deletingLastPathComponent(*metadataPath));
    // The folder two levels up must still be a product's folder below the html folder.
    if (KTSPath::isInsideHtmlFolder(folder) && KTSUtilities::directoryExistsAtPath(folder)) {
      log_.debug("PROD: {}: removing product update downloads folder", id());
      KTSUtilities::removePath(folder);
    }
  }
  enabled_ = false;
  mirror_ = DoNotMirror;
}

void KTSProduct::removeAllMirroredFiles() {
  for (const Plist& record : mirrorFiles_.elements()) {
    const std::string& localPath = record[kFileLocalPathKey].stringValue();
    std::string extension = pathExtension(localPath);
    if (extension == "dist" || extension == "smd" || !KTSPath::isInsideHtmlFolder(localPath) ||
        !KTSUtilities::fileExistsAtPath(localPath)) {
      continue;
    }
    log_.debug("PROD: {}: removing product file {}", id(), lastPathComponent(localPath));
    KTSUtilities::removePath(localPath);
  }
  enabled_ = false;
  mirror_ = DoNotMirror;
}

}  // namespace ondrel
