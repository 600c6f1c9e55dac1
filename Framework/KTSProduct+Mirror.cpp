// A product's files to mirror: the list built from its catalog entry, the start of their
// download (a KTSProductDownload), verification by size, and removal.
#include <algorithm>
#include <climits>

#include "KTCatalogKeys.h"
#include "KTSPassMemo.h"
#include "KTSProduct.h"
#include "KTSProductFileRules.h"
#include "KTSServerMetadata.h"
#include "KTSUtilities.h"
#include "PathString.h"

namespace ondrel {

namespace {

std::string sizeText(const Plist& size, const char* none) {
  return size.isNull() ? none : size.description();
}

// The size of the file at localPath when it is inside the html folder and there.
std::optional<std::int64_t> sizeInPlace(const KTSServerLayout& layout, const std::string& localPath,
                                        KTSUtilities::ItemSizes* sizes) {
  if (!layout.isInsideHtmlFolder(localPath)) return std::nullopt;
  return sizes != nullptr ? sizes->sizeOfExistingItemAtPath(localPath)
                          : KTSUtilities::sizeOfExistingItemAtPath(localPath);
}

// Whether a file of the size found matches the record's size, when the record gives one.
bool hasRecordedSize(const Plist& size, std::int64_t found) {
  return !size.isNumber() || size.integerValue() == found;
}

// The pass's check of a list, without a word to the log: what the check ahead runs.
bool mirroredFilesAreInPlace(const KTSServerLayout& layout, const Plist& mirrorFiles) {
  KTSUtilities::ItemSizes sizes;
  for (const Plist& record : mirrorFiles.elements()) {
    std::optional<std::int64_t> found =
        sizeInPlace(layout, record[KTSProduct::kFileLocalPathKey].stringValue(), &sizes);
    if (!found || !hasRecordedSize(record[KTSProduct::kFileSizeKey], *found)) return false;
  }
  return true;
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
             KTSPath::pathWithString(url.stringValue()).asLocalPath(*layout_).value_or(""));
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
             KTSPath::pathWithString(url.stringValue()).asLocalPath(*layout_).value_or(""));
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

bool KTSProduct::verifyDownloadFileURLDestPathFailureReason(const std::optional<Url>& url,
                                                            const std::string& destPath,
                                                            std::string* failureReason) const {
  std::optional<std::string> reason =
      KTSProductFileRules::refusalOfTransfer(*layout_, url, destPath);
  if (reason && failureReason) *failureReason = *reason;
  return !reason;
}

bool KTSProduct::verifyMirroredFileWithInfo(const Plist& fileInfo,
                                            KTSUtilities::ItemSizes* sizes) const {
  const std::string& localPath = fileInfo[kFileLocalPathKey].stringValue();
  const std::string fileName = lastPathComponent(localPath);
  const Plist& size = fileInfo[kFileSizeKey];
  log_.debug("PROD: {}: verifying: {}; size: {}", id(), fileName, sizeText(size, "(N/A)"));
  std::optional<std::int64_t> found = sizeInPlace(*layout_, localPath, sizes);
  if (!found) {
    log_.debug("PROD: {}: verification failed; file not found: {}", id(), fileName);
    return false;
  }
  if (hasRecordedSize(size, *found)) return true;
  log_.debug("PROD: {}: verification failed; incorrect size: {} (expected={}, actual={})", id(),
             fileName, size, *found);
  return false;
}

void KTSProduct::checkMirroredFilesAhead(KTSPassMemo& memo) const {
  memo.checkFilesAhead(id(), facts_->mirrorFiles, [layout = layout_](const Plist& mirrorFiles) {
    return mirroredFilesAreInPlace(*layout, mirrorFiles);
  });
}

bool KTSProduct::verifyMirroredFiles(KTSPassMemo* memo) const {
  if (std::optional<bool> known =
          memo != nullptr ? memo->filesVerifiedEarlier(id(), facts_->mirrorFiles) : std::nullopt) {
    return *known;
  }
  bool allVerified = true;
  KTSUtilities::ItemSizes sizes;
  for (const Plist& record : facts_->mirrorFiles.elements()) {
    if (!verifyMirroredFileWithInfo(record, &sizes)) allVerified = false;
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
  std::optional<std::string> metadataPath = facts_->smdPath
                                                ? KTSServerMetadata::localPathInsideDocumentRoot(
                                                      *layout_, facts_->smdPath->parentServerURL())
                                                : std::nullopt;
  if (metadataPath) {
    std::string folder = deletingLastPathComponent(deletingLastPathComponent(*metadataPath));
    // The folder two levels up must still be a product's folder below the html folder.
    if (layout_->isInsideHtmlFolder(folder) && KTSUtilities::directoryExistsAtPath(folder)) {
      log_.debug("PROD: {}: removing product update downloads folder", id());
      KTSUtilities::removePath(folder);
    }
  }
  state_.filesRemoved();
}

void KTSProduct::removeAllMirroredFiles(
    const std::function<bool(const std::string& path)>& ownedByAnother) {
  for (const Plist& record : facts_->mirrorFiles.elements()) {
    const std::string& localPath = record[kFileLocalPathKey].stringValue();
    std::string extension = pathExtension(localPath);
    // Only its own files, where product files belong: never another product's or a served one.
    if (extension == "dist" || extension == "smd" ||
        !KTSProductFileRules::mayDelete(*layout_, localPath) ||
        (ownedByAnother && ownedByAnother(localPath))) {
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
