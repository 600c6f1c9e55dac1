#include "KTSServerMetadata.h"

#include <cstdio>
#include <set>

#include "Clock.h"
#include "FileIO.h"
#include "KTCatalogKeys.h"
#include "KTSFetchScheduler.h"
#include "KTSFileDownloader.h"
#include "KTSMetadataGenerator.h"
#include "KTSPassMemo.h"
#include "KTSUtilities.h"
#include "PathString.h"
#include "ProductId.h"
#include "Utf8.h"

namespace ondrel {

namespace {

constexpr int kMetadataDownloadAttempts = 3;
constexpr std::chrono::seconds kMetadataRetryPause(3);
// A metadata file fetched ahead is held in memory until placed; a larger one is left to its
// product's own fetch.
constexpr std::size_t kPrefetchedMetadataLimit = std::size_t{1} << 20;
// Upstream host recorded for metadata files that legacy products only have on disk.
constexpr const char* kContentDeliveryHost = "cdn.vantor.example";

// Writes bytes to a new file at path, which nothing reads before it is renamed into place.
bool writeSideFile(const std::string& path, const std::string& bytes) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) return false;
  bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  if (std::fclose(file) != 0) written = false;
  if (!written) std::remove(path.c_str());
  return written;
}

std::optional<Url> firstDistributionURL(const Plist& entry) {
  const Plist& distributions = entry[KTCatalogProductDistributionsDictKey];
  if (distributions.size() == 0) return std::nullopt;
  return Url::parse(distributions.items().begin()->second.stringValue());
}

// A file is about to be written: what the pass's products found of their files is forgotten.
void fileWillChange(KTSPassMemo* memo) {
  if (memo != nullptr) memo->fileWillChange();
}

}  // namespace

KTSServerMetadata::KTSServerMetadata(std::string productId, const Plist& entry,
                                     const KTSServerLayout& layout, LogHandle log)
    : productId_(std::move(productId)), entry_(entry), layout_(layout), log_(std::move(log)) {}

std::optional<std::string> KTSServerMetadata::localPathInsideDocumentRoot(
    const KTSServerLayout& layout, const std::optional<Url>& url) {
  std::optional<std::string> localPath = KTSPath(url).asLocalPath(layout);
  if (!localPath || !layout.isInsideHtmlFolder(*localPath)) return std::nullopt;
  return standardizingPath(*localPath);
}

std::optional<std::string> KTSServerMetadata::enclosingDir() const {
  std::optional<std::string> local = localPathInsideDocumentRoot(firstDistributionURL(entry_));
  if (!local) return std::nullopt;
  return deletingLastPathComponent(*local);
}

std::optional<std::string> KTSServerMetadata::makeGenericServerMetadataLocalPath() const {
  std::optional<std::string> folder = enclosingDir();
  if (!folder) return std::nullopt;
  return standardizingPath(appendingPathComponent(*folder, productId_ + ".smd"));
}

Plist KTSServerMetadata::getServerMetadataForURL(const std::optional<Url>& url,
                                                 KTSPassServices pass) {
  Plist metadata;
  bool active = isActiveEntry(entry_);
  if (active) {
    log_.debug("PROD: {}: (active) reading SMD data for product", productId_);
    if (url) {
      metadata = loadActiveServerMetadataAtURL(*url, pass);
    } else if (std::optional<std::string> generic = makeGenericServerMetadataLocalPath()) {
      metadata = generateServerMetadataDictionaryAtPath(*generic, pass.memo);
    }
  } else {
    metadata = readLegacyServerMetadata(url);
  }
  if (metadata.isDictionary() && validateContentForServerMetadata(metadata)) return metadata;

  Plist repaired = repairMalformedServerMetadata(metadata);
  if (repaired.isNull()) return metadata;
  if (!active) {
    std::optional<std::string> generic = makeGenericServerMetadataLocalPath();
    if (generic && KTSUtilities::createDirectoryAtPath(deletingLastPathComponent(*generic))) {
      fileWillChange(pass.memo);
      KTSUtilities::writeDictionaryToPath(repaired, *generic);
    }
  }
  return repaired;
}

Plist KTSServerMetadata::readLegacyServerMetadata(const std::optional<Url>& url) {
  log_.debug("PROD: {}: (legacy) locating SMD data for product", productId_);
  log_.debug("PROD: {}: (legacy) SMD URL = {}", productId_, url ? url->text() : "(null)");
  std::optional<std::string> file;
  if (std::optional<std::string> mapped = localPathInsideDocumentRoot(url);
      mapped && KTSUtilities::fileExistsAtPath(*mapped)) {
    file = mapped;
    smdPath_ = std::make_shared<const KTSPath>(url);
  } else {
    std::optional<std::string> generic = makeGenericServerMetadataLocalPath();
    log_.debug("PROD: {}: (legacy) generating URL for local SMD file", productId_);
    if (generic) {
      smdPath_ = std::make_shared<const KTSPath>(
          KTSPath::pathWithLocalFilePathParentHost(*generic, kContentDeliveryHost, layout_));
      if (KTSUtilities::fileExistsAtPath(*generic)) file = generic;
    }
  }
  if (!file) return Plist();
  log_.debug("PROD: {}: (legacy) reading SMD data for product ({})", productId_,
             lastPathComponent(*file));
  return KTSUtilities::readPropertyListAtPath(*file);
}

Plist KTSServerMetadata::loadActiveServerMetadataAtURL(const Url& url, KTSPassServices pass) {
  std::optional<std::string> localPath = localPathInsideDocumentRoot(url);
  if (!localPath) {
    log_.error("*** Server metadata URL of product {} lies outside the updates folder: {}",
               productId_, url.text());
    return Plist();
  }
  // This pass fetched it already: ahead of the catalog's products, or for another catalog.
  KTSPassMemo* memo = pass.memo;
  if (const KTSPassMemo::ServerMetadata* fetched =
          memo != nullptr ? memo->serverMetadataFetchedFrom(url.text()) : nullptr) {
    smdPath_ = fetched->smdPath;
    return fetched->contents;
  }
  KTSPassMemo::ServerMetadata fetched;
  if (downloadServerMetadata(url, *localPath, pass.scheduler)) {
    fetched = placeServerMetadata(url, *localPath, memo);
  }
  smdPath_ = fetched.smdPath;
  if (memo != nullptr) memo->recordServerMetadataFetchedFrom(url.text(), fetched);
  return fetched.contents;
}

bool KTSServerMetadata::downloadServerMetadata(const Url& url, const std::string& localPath,
                                               KTSFetchScheduler* scheduler) {
  std::string target = sideFilePath(localPath, "downloading");
  std::string fileName = lastPathComponent(localPath);
  for (int attempt = 1;; ++attempt) {
    if (KTSFetchScheduler::downloadFileWithURLToPathReplaceExistingArchivePrevious(
            url, target, false, true, scheduler)) {
      break;
    }
    log_.error("*** Error downloading file {} for product {}. Retrying...", fileName, productId_);
    log_.debug("PROD: {}: SMD download attempts remaining {}.", productId_,
               kMetadataDownloadAttempts - attempt);
    if (attempt == kMetadataDownloadAttempts) return false;
    Clock::sleepFor(kMetadataRetryPause);
  }
  return true;
}

// The old file becomes L.previous by a link and the new one replaces it by a rename, so L
// always holds a whole file.
KTSPassMemo::ServerMetadata KTSServerMetadata::placeServerMetadata(const Url& url,
                                                                   const std::string& localPath,
                                                                   KTSPassMemo* memo) {
  fileWillChange(memo);
  keepPreviousVersion(localPath, sideFilePath(localPath, "previous"));
  std::rename(sideFilePath(localPath, "downloading").c_str(), localPath.c_str());
  return {KTSUtilities::readPropertyListAtPath(localPath), std::make_shared<const KTSPath>(url)};
}

// Bytes equal to the file at L leave L in place and make L.previous the same file, which is
// what replacing L would give: a pass in which nothing changed upstream creates and deletes no
// file (on some file systems a deleted file costs a synchronous discard, and a new one a scan
// past every file deleted in the last half minute).
std::optional<KTSPassMemo::ServerMetadata> KTSServerMetadata::placeFetchedServerMetadata(
    const Url& url, const std::string& localPath, const std::string& bytes,
    std::optional<std::uint64_t> readFromFile, KTSPassMemo& memo) {
  std::string previousPath = sideFilePath(localPath, "previous");
  std::string current;
  std::uint64_t identity = 0;
  if (!readFromFile && readWholeFileAndIdentity(localPath, &current, &identity, bytes.size()) &&
      current == bytes) {
    readFromFile = identity;
  }
  // What the pass found of a file it leaves as it was still holds.
  if (readFromFile) {
    if (fileIdentity(previousPath) != readFromFile) {
      memo.fileWillChange();
      keepPreviousVersion(localPath, previousPath);
    }
  } else {
    memo.fileWillChange();
    // Named as the product's own fetch names its side file, which it overwrites.
    std::string sidePath = sideFilePath(sideFilePath(localPath, "downloading"), "downloading");
    if (!KTSUtilities::createDirectoryAtPath(deletingLastPathComponent(localPath)) ||
        !writeSideFile(sidePath, bytes)) {
      return std::nullopt;
    }
    keepPreviousVersion(localPath, previousPath);
    if (std::rename(sidePath.c_str(), localPath.c_str()) != 0) {
      std::remove(sidePath.c_str());
      return std::nullopt;
    }
  }
  return KTSPassMemo::ServerMetadata{KTSUtilities::propertyListWithData(bytes),
                                     std::make_shared<const KTSPath>(url)};
}

void KTSServerMetadata::prefetchServerMetadataForEntries(const Plist& entries,
                                                         const KTSServerLayout& layout,
                                                         KTSPassMemo& memo,
                                                         KTSFetchScheduler& scheduler) {
  auto placeFetched = [&memo](KTSFileDownloader& fetched) {
    if (fetched.downloadError()) return;
    std::string bytes;
    std::optional<std::uint64_t> readFromFile;
    if (!fetched.wasNotModified()) {
      bytes = fetched.takeReceivedBody();
    } else if (std::uint64_t identity = 0; readWholeFileAndIdentity(
                   fetched.downloadPath(), &bytes, &identity, kPrefetchedMetadataLimit)) {
      readFromFile = identity;
    } else {
      return;
    }
    std::optional<KTSPassMemo::ServerMetadata> placed = placeFetchedServerMetadata(
        fetched.sourceUrl(), fetched.downloadPath(), bytes, readFromFile, memo);
    if (!placed) return;
    fetched.recordValidatorsOfPlacedFile();
    memo.recordServerMetadataFetchedFrom(fetched.sourceUrl().text(), std::move(*placed));
  };
  std::set<std::string> localPaths;
  auto next = entries.items().begin();
  auto queueNext = [&]() -> bool {
    for (; next != entries.items().end(); ++next) {
      const auto& [productId, entry] = *next;
      std::optional<Url> url = prefetchableServerMetadataURL(productId, entry, memo);
      std::optional<std::string> localPath = localPathInsideDocumentRoot(layout, url);
      // Of two URLs that name one local file only the first is fetched here, the other by its
      // product in turn; a side file left by an interrupted pass is the product's to take.
      if (!localPath || !localPaths.insert(*localPath).second ||
          KTSUtilities::fileExistsAtPath(sideFilePath(*localPath, "downloading"))) {
        continue;
      }
      auto downloader =
          KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(*url, *localPath, false);
      downloader->receiveIntoMemory(kPrefetchedMetadataLimit);
      scheduler.enqueue(std::move(downloader), placeFetched);
      ++next;
      return true;
    }
    return false;
  };
  scheduler.run(queueNext);
}

// The metadata URL a product made from the entry would fetch, unless this pass fetched it.
std::optional<Url> KTSServerMetadata::prefetchableServerMetadataURL(const std::string& productId,
                                                                    const Plist& entry,
                                                                    const KTSPassMemo& memo) {
  if (!isValidProductId(productId) || !isActiveEntry(entry) ||
      !entry["ServerMetadataURL"].isString()) {
    return std::nullopt;
  }
  // The memo knows metadata by the URL's text, which a parsed URL keeps as it was: it answers
  // before the URL is parsed (most entries name metadata another catalog's entry named).
  const std::string& text = entry["ServerMetadataURL"].stringValue();
  if (memo.serverMetadataFetchedFrom(text)) return std::nullopt;
  return Url::parse(text);
}

Plist KTSServerMetadata::generateServerMetadataDictionaryAtPath(const std::string& path,
                                                                KTSPassMemo* memo) {
  Plist metadata = KTSUtilities::readPropertyListAtPath(path);
  if (metadata.isNull()) {
    log_.debug("PROD: {}: generating substitute SMD", productId_);
    KTSMetadataGenerator generator(layout_);
    metadata = generator.createMetadataWithDictionaryIdentifier(entry_, productId_);
    if (metadata.isDictionary() &&
        KTSUtilities::createDirectoryAtPath(deletingLastPathComponent(path))) {
      fileWillChange(memo);
      KTSUtilities::writeDictionaryToPath(metadata, path);
    }
    if (generator.smdResult() == -2) productIsDead_ = true;
    if (metadata.isNull()) return Plist();
  }
  if (std::optional<Url> distribution = firstDistributionURL(entry_)) {
    std::string besideDistribution = appendingPathComponent(
        deletingLastPathComponent(distribution->path()), lastPathComponent(path));
    smdPath_ = std::make_shared<const KTSPath>(KTSPath::pathWithString(
        fmt::format("http://{}{}", distribution->host(), besideDistribution)));
  }
  return metadata;
}

bool KTSServerMetadata::validateContentForServerMetadata(const Plist& metadata) const {
  if (!metadata.isDictionary()) return false;
  for (const char* key :
       {"IFPkgFlagInstalledSize", "IFPkgFlagRestartAction", "localization", "platforms"}) {
    if (!metadata.contains(key)) return false;
  }
  return true;
}

Plist KTSServerMetadata::repairMalformedServerMetadata(const Plist& metadata) const {
  bool hadMetadata = metadata.isDictionary();
  Plist repaired = hadMetadata ? metadata : Plist::dictionary();
  bool changed = false;
  if (!repaired.contains("localization")) {
    changed = true;
    if (repaired.contains("localizations")) {
      log_.debug("PROD: {}: Attempting self-repair for bad SMD key (localizations).", productId_);
      repaired.set("localization", repaired["localizations"]);
    } else {
      log_.debug("PROD: {}: Creating substitute data for missing SMD key (localization).",
                 productId_);
      const std::string description = "No description available.";
      Plist english = Plist::dictionary();
      english.set("description", Plist::data(Plist::Bytes(description.begin(), description.end())));
      english.set("serverComment", "No comment available.");
      english.set("title", "_productId Update");
      Plist localization = Plist::dictionary();
      localization.set("English", std::move(english));
      repaired.set("localization", std::move(localization));
    }
  }
  if (!repaired.contains("platforms")) {
    changed = true;
    log_.debug("PROD: {}: Creating substitute data for missing SMD key (platforms).", productId_);
    Plist platforms = Plist::dictionary();
    platforms.set("client", Plist::stringArray({"intel"}));
    repaired.set("platforms", std::move(platforms));
  }
  if (!changed) return Plist();
  log_.debug("PROD: {}: {} incomplete SMD data", productId_,
             hadMetadata ? "repaired" : "generated");
  return repaired;
}

Plist KTSServerMetadata::getServerMetadataBundleTitles(const Plist& metadata) {
  Plist titles = Plist::dictionary();
  for (const auto& [language, strings] : metadata["localization"].items()) {
    if (strings.isDictionary() && strings.contains("title")) titles.set(language, strings["title"]);
  }
  return titles;
}

Plist KTSServerMetadata::getServerMetadataDescriptions(const Plist& metadata) {
  Plist descriptions = Plist::dictionary();
  for (const auto& [language, strings] : metadata["localization"].items()) {
    const Plist& description = strings["description"];
    if (!description.isData()) continue;
    std::string text(description.dataValue().begin(), description.dataValue().end());
    if (isValidUtf8(text)) descriptions.set(language, std::move(text));
  }
  return descriptions;
}

}  // namespace ondrel
