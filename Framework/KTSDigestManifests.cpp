#include "KTSDigestManifests.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "FileIO.h"
#include "KTSFetchScheduler.h"
#include "KTSFileDigests.h"
#include "KTSFileDownloader.h"
#include "KTSFileRecordFormat.h"
#include "KTSProductState.h"
#include "KTSWorkingSet.h"
#include "PathString.h"
#include "ProductId.h"
#include "SecondThread.h"
#include "Sha256.h"

namespace ondrel {

namespace {

constexpr std::string_view kHeader = "ondrel-digests 1\n";
constexpr const char* kFolderName = "digests";

std::string servedTreePrefix(const KTSServerLayout& layout) {
  return standardizingPath(layout.htmlFolder()) + "/";
}

// The folder of the manifests in the served tree, and a product's manifest in it.
std::string manifestFolder(const KTSServerLayout& layout) {
  return servedTreePrefix(layout) + kFolderName;
}

std::string manifestIn(const std::string& folder, const std::string& productId) {
  return folder + "/" + productId;
}

// scheme://host[:port] of url, as a key of the upstreams a pass fetches from.
std::string originOf(const Url& url) {
  bool bracketed = url.host().find(':') != std::string::npos;
  std::string origin = fmt::format("{}://{}{}{}", url.scheme(), bracketed ? "[" : "", url.host(),
                                   bracketed ? "]" : "");
  if (url.port()) origin += fmt::format(":{}", *url.port());
  return origin;
}

// The size of the regular file at path; none for anything else.
std::optional<std::int64_t> fileSize(const std::string& path) {
  std::optional<KTSFileRecordFormat::Stamp> stamp = KTSFileRecordFormat::stampOf(path);
  return stamp ? std::optional(stamp->size) : std::nullopt;
}

using FileLine = std::pair<std::string_view, const KTSFileDigests::Record*>;

bool writeManifest(std::FILE* file, std::vector<FileLine>& lines) {
  std::sort(lines.begin(), lines.end(),
            [](const FileLine& a, const FileLine& b) { return a.first < b.first; });
  if (std::fwrite(kHeader.data(), 1, kHeader.size(), file) != kHeader.size()) return false;
  for (const auto& [relative, record] : lines) {
    if (std::fprintf(file, "%s\t%lld\t%.*s\n", record->sha256.hex().c_str(),
                     static_cast<long long>(record->stamp.size), static_cast<int>(relative.size()),
                     relative.data()) < 0) {
      return false;
    }
  }
  return true;
}

// Removes the manifests of products not kept, and whatever else is in the folder.
void removeOthers(const std::string& folder, const std::set<std::string>& kept) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    std::string name = entry->path().filename().string();
    if (kept.count(name) == 0 && !isAtomicWriteTemporary(name)) {
      std::error_code ignored;
      std::filesystem::remove_all(entry->path(), ignored);
    }
  }
}

}  // namespace

namespace KTSDigestManifests {

std::string manifestPath(const KTSServerLayout& layout, const std::string& productId) {
  return manifestIn(manifestFolder(layout), productId);
}

std::string manifestUrlPath(const std::string& productId) {
  return fmt::format("/{}/{}", kFolderName, productId);
}

std::optional<Url> manifestUrlFor(const std::string& productId, const Url& fileUrl) {
  if (!isValidProductId(productId)) return std::nullopt;
  return Url::parse(originOf(fileUrl) + manifestUrlPath(productId));
}

std::future<KeptProducts> findKeptProducts(const KTSServerLayout& layout,
                                           const KTSWorkingSet& workingSet) {
  KeptProducts kept;
  for (const auto& [productId, entry] : workingSet.products().items()) {
    if (isValidProductId(productId) &&
        KTSProductState::keepsFilesIn(workingSet.mirrorSettingForProductID(productId))) {
      kept.emplace_back(productId, std::nullopt);
    }
  }
  return runOnSecondThread([folder = manifestFolder(layout), kept = std::move(kept)]() mutable {
    for (auto& [productId, size] : kept) size = fileSize(manifestIn(folder, productId));
    return std::move(kept);
  });
}

std::size_t publish(const KTSServerLayout& layout, const KTSFileDigests& digests,
                    const KTSWorkingSet& workingSet, const LogHandle& log) {
  return publish(layout, digests, findKeptProducts(layout, workingSet).get(), log);
}

std::size_t publish(const KTSServerLayout& layout, const KTSFileDigests& digests, KeptProducts kept,
                    const LogHandle& log) {
  const std::string prefix = servedTreePrefix(layout);
  const std::string folder = manifestFolder(layout);
  std::error_code made;
  // Never written or emptied through a link to a folder elsewhere.
  if (std::filesystem::is_symlink(folder, made)) {
    log.warning("{} is a link; no digests are published.", folder);
    return 0;
  }
  std::filesystem::create_directories(folder, made);
  // Only what changed is written again: a manifest whose product's records changed, or one that
  // is missing (or was left empty by a crash).
  std::set<std::string> keptIds;
  std::unordered_map<std::string, std::vector<FileLine>> due;
  for (auto& [productId, size] : kept) {
    if (digests.productsChanged().count(productId) != 0 || !size || *size == 0) {
      due.try_emplace(productId);
    }
    keptIds.insert(std::move(productId));
  }
  // The record is read only when a manifest is to be written.
  if (!due.empty()) {
    for (const auto& [key, record] : digests.records()) {
      const std::string& path = key.stringValue();
      auto product = due.find(record.productId);
      if (product != due.end() && path.size() > prefix.size() &&
          path.compare(0, prefix.size(), prefix) == 0) {
        product->second.emplace_back(std::string_view(path).substr(prefix.size()), &record);
      }
    }
  }
  for (auto& [productId, fileLines] : due) {
    std::vector<FileLine>& lines = fileLines;
    std::string error;
    if (!writeDerivedFileAtomically(
            manifestPath(layout, productId),
            [&lines](std::FILE* file) { return writeManifest(file, lines); }, &error)) {
      log.warning("The digests of {} could not be published: {}", productId, error);
    }
  }
  removeOthers(folder, keptIds);
  return due.size();
}

std::optional<Manifest> parse(std::string_view text) {
  if (text.size() > kManifestReadLimit || text.substr(0, kHeader.size()) != kHeader) {
    return std::nullopt;
  }
  Manifest manifest;
  std::size_t at = kHeader.size();
  while (at < text.size()) {
    std::size_t end = text.find('\n', at);
    if (end == std::string_view::npos) break;  // a line cut short
    std::string_view line = text.substr(at, end - at);
    at = end + 1;
    std::size_t first = line.find('\t');
    std::size_t second = first == std::string_view::npos ? first : line.find('\t', first + 1);
    if (second == std::string_view::npos) continue;
    std::string_view digest = line.substr(0, first);
    std::string_view path = line.substr(second + 1);
    if (!Sha256::isHexDigest(digest) ||
        !KTSFileRecordFormat::parseNumber(line.substr(first + 1, second - first - 1)) ||
        !KTSFileRecordFormat::isRecordablePath(path)) {
      continue;
    }
    manifest.try_emplace(std::string(path), std::string(digest));
  }
  return manifest;
}

}  // namespace KTSDigestManifests

void KTSUpstreamDigests::fetch(const std::string& productId, const Url& fileUrl,
                               KTSFetchScheduler& scheduler, Ready ready) {
  std::string origin = originOf(fileUrl);
  std::optional<Url> url = KTSDigestManifests::manifestUrlFor(productId, fileUrl);
  if (originsWithout_.count(origin) != 0 || !url) {
    return ready(nullptr);
  }
  // Received into memory: nothing is written where the path says.
  auto downloader = KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(
      *url, KTSDigestManifests::manifestPath(layout_, productId), false);
  downloader->setUsesValidators(false);
  downloader->receiveIntoMemory(KTSDigestManifests::kManifestReadLimit);
  scheduler.enqueueFirst(std::move(downloader), [this, origin, productId, ready = std::move(ready)](
                                                    KTSFileDownloader& fetched) {
    if (fetched.downloadError()) {
      if (fetched.answeredStatus() == 404) {
        originsWithout_.insert(origin);
      } else {
        log_.warning(
            "The digests {} publishes for {} could not be fetched ({}); its files are "
            "checked by their size alone.",
            origin, productId, fetched.downloadError()->description());
      }
      return ready(nullptr);
    }
    std::optional<KTSDigestManifests::Manifest> manifest =
        KTSDigestManifests::parse(fetched.takeReceivedBody());
    if (!manifest) {
      log_.warning(
          "The digests {} publishes for {} are not readable; its files are checked by "
          "their size alone.",
          origin, productId);
      return ready(nullptr);
    }
    ready(std::make_shared<const KTSDigestManifests::Manifest>(std::move(*manifest)));
  });
}

std::optional<std::string> KTSUpstreamDigests::digestOf(
    const KTSDigestManifests::Manifest& manifest, const std::string& localPath) const {
  const std::string prefix = servedTreePrefix(layout_);
  std::string path = standardizingPath(localPath);
  if (path.size() <= prefix.size() || path.compare(0, prefix.size(), prefix) != 0) {
    return std::nullopt;
  }
  auto found = manifest.find(path.substr(prefix.size()));
  return found != manifest.end() ? std::optional(found->second) : std::nullopt;
}

}  // namespace ondrel
