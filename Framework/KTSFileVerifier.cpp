#include "KTSFileVerifier.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "KTSCatalog.h"
#include "KTSPassContext.h"
#include "KTSProduct.h"
#include "KTSProductFileRules.h"
#include "KTSWorkingSet.h"
#include "PathString.h"
#include "Sha256.h"

namespace ondrel {

std::vector<KTSFileVerifier::KeptFile> KTSFileVerifier::keptFiles(
    KTSPassContext& context, const std::set<std::string>& productIds) {
  std::map<std::string, KeptFile> byPath;
  KTSCatalog::forEachCachedCatalog(context, [&](const KTSCatalog& catalog) {
    for (const auto& [productId, product] : *catalog.products()) {
      if (!product->state().keepsFiles()) continue;
      if (!productIds.empty() && productIds.count(productId) == 0) continue;
      // A product on demand keeps the files clients asked for; the others are not missing.
      bool onDemand = product->state().fetchPolicy() == KTSProductState::FetchPolicy::OnDemand;
      for (const Plist& record : product->mirrorFiles().elements()) {
        std::string path = standardizingPath(record[KTSProduct::kFileLocalPathKey].stringValue());
        if (!product->layout().isInsideHtmlFolder(path)) continue;
        std::error_code error;
        if (onDemand && std::filesystem::symlink_status(path, error).type() ==
                            std::filesystem::file_type::not_found) {
          continue;
        }
        const Plist& size = record[KTSProduct::kFileSizeKey];
        std::optional<std::int64_t> expected;
        if (size.isNumber()) expected = size.integerValue();
        byPath.try_emplace(path, KeptFile{path, expected, productId});
      }
    }
  });
  std::vector<KeptFile> files;
  files.reserve(byPath.size());
  for (auto& [path, file] : byPath) files.push_back(std::move(file));
  return files;
}

std::vector<KTSFileVerifier::KeptFile> KTSFileVerifier::recordedFiles(
    KTSPassContext& context, const KTSFileDigests& digests,
    const std::set<std::string>& productIds) {
  KTSWorkingSet& workingSet = context.workingSet();
  const KTSServerLayout& layout = context.layout();
  std::vector<KeptFile> files;
  for (const auto& [path, record] : digests.records()) {
    if (!productIds.empty() && productIds.count(record.productId) == 0) continue;
    if (!workingSet.containsProductID(record.productId) ||
        !KTSProductState::keepsFilesIn(workingSet.mirrorSettingForProductID(record.productId)) ||
        !layout.isInsideHtmlFolder(path.stringValue())) {
      continue;
    }
    files.push_back({path.stringValue(), std::nullopt, record.productId});
  }
  std::sort(files.begin(), files.end(),
            [](const KeptFile& a, const KeptFile& b) { return a.path < b.path; });
  return files;
}

const char* KTSFileVerifier::findingName(Finding finding) {
  switch (finding) {
    case Finding::Good:
      return "good";
    case Finding::FirstDigest:
      return "first digest";
    case Finding::Missing:
      return "missing";
    case Finding::Changed:
      return "changed";
  }
  return "changed";
}

void KTSFileVerifier::takeOut(const KTSServerLayout& layout, KTSFileDigests& digests,
                              const std::string& path) {
  if (!KTSProductFileRules::mayDelete(layout, path)) return;
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
  digests.forgetFile(path);
}

KTSFileVerifier::KTSFileVerifier(KTSFileDigests& digests, const KTSServerLayout& layout,
                                 Depth depth)
    : digests_(digests), layout_(layout), depth_(depth) {}

KTSFileVerifier::Result KTSFileVerifier::check(const KeptFile& file,
                                               const std::function<void(std::uint64_t)>& progress) {
  Result result = checkFile(file, progress);
  count(result);
  return result;
}

KTSFileVerifier::Result KTSFileVerifier::checkFile(
    const KeptFile& file, const std::function<void(std::uint64_t)>& progress) {
  if (!layout_.isInsideHtmlFolder(file.path)) {
    return {Finding::Missing, "not in the served tree"};
  }
  std::optional<KTSFileRecordFormat::Stamp> stamp = KTSFileRecordFormat::stampOf(file.path);
  if (!stamp) {
    std::error_code error;
    bool present = std::filesystem::symlink_status(file.path, error).type() !=
                   std::filesystem::file_type::not_found;
    if (!present) return {Finding::Missing, "not there"};
    return {Finding::Changed, "not a regular file"};
  }
  if (file.size && stamp->size != *file.size) {
    return {Finding::Changed,
            fmt::format("{} bytes, where its product names {}", stamp->size, *file.size)};
  }
  if (depth_ == Depth::Full) return checkDigest(file, *stamp, progress);
  const KTSFileDigests::Record* record = digests_.recordOf(file.path);
  if (record == nullptr || record->stamp != *stamp) {
    return {Finding::Changed, "its size or modification time is not the one recorded"};
  }
  return {Finding::Good, ""};
}

KTSFileVerifier::Result KTSFileVerifier::checkDigest(
    const KeptFile& file, const KTSFileRecordFormat::Stamp& stamp,
    const std::function<void(std::uint64_t)>& progress) {
  const std::string& path = file.path;
  std::string error;
  std::optional<std::string> digest = Sha256::ofFile(path, &error, [&](std::uint64_t bytes) {
    summary_.bytesRead += bytes;
    if (progress) progress(bytes);
  });
  if (!digest) return {Finding::Changed, "unreadable: " + error};
  const KTSFileDigests::Record* record = digests_.recordOf(path);
  if (record != nullptr && record->sha256.hex() != *digest) {
    return {Finding::Changed, "its bytes are not those recorded"};
  }
  // A file found as recorded leaves the record as it is.
  if (record != nullptr && record->stamp == stamp && record->productId == file.productId) {
    return {Finding::Good, ""};
  }
  Finding finding = record == nullptr ? Finding::FirstDigest : Finding::Good;
  digests_.recordFile(path, *digest, file.productId);
  return {finding, ""};
}

void KTSFileVerifier::count(const Result& result) {
  ++summary_.checked;
  switch (result.finding) {
    case Finding::Good:
      ++summary_.good;
      break;
    case Finding::FirstDigest:
      ++summary_.good;
      ++summary_.firstDigests;
      break;
    case Finding::Missing:
      ++summary_.missing;
      break;
    case Finding::Changed:
      ++summary_.changed;
      break;
  }
}

}  // namespace ondrel
