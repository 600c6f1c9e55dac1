#include "KTSPassMemo.h"

#include "FileIO.h"
#include "SecondThread.h"

namespace ondrel {

const KTSPassMemo::ServerMetadata* KTSPassMemo::serverMetadataFetchedFrom(
    const std::string& url) const {
  auto found = memory_.serverMetadata.find(url);
  return found == memory_.serverMetadata.end() ? nullptr : &found->second;
}

void KTSPassMemo::recordServerMetadataFetchedFrom(const std::string& url, ServerMetadata metadata) {
  memory_.serverMetadata[url] = std::move(metadata);
}

Plist KTSPassMemo::shareEqualValue(const std::string& productId, ProductValue kind, Plist value) {
  auto [found, inserted] = memory_.values.try_emplace({productId, kind}, value);
  if (inserted || found->second.isIdenticalTo(value)) return found->second;
  found->second = value;
  return value;
}

void KTSPassMemo::fileWillChange() {
  memory_.verifiedFiles.clear();
  checkAhead_.forgetAll();
}

std::optional<bool> KTSPassMemo::recordedCheckOf(const std::string& productId,
                                                 const Plist& mirrorFiles) const {
  auto found = memory_.verifiedFiles.find(productId);
  if (found == memory_.verifiedFiles.end() || !found->second.first.sharesStorageWith(mirrorFiles)) {
    return std::nullopt;
  }
  return found->second.second;
}

std::optional<bool> KTSPassMemo::filesVerifiedEarlier(const std::string& productId,
                                                      const Plist& mirrorFiles) {
  if (std::optional<bool> known = recordedCheckOf(productId, mirrorFiles)) return known;
  if (!checkAhead_.foundWhole(productId, mirrorFiles)) return std::nullopt;
  recordFilesVerified(productId, mirrorFiles, true);
  return true;
}

void KTSPassMemo::checkFilesAhead(const std::string& productId, const Plist& mirrorFiles,
                                  KTSFileCheckAhead::Check check) {
  if (recordedCheckOf(productId, mirrorFiles)) return;
  checkAhead_.queue(productId, mirrorFiles, std::move(check));
}

void KTSPassMemo::recordFilesVerified(const std::string& productId, const Plist& mirrorFiles,
                                      bool verified) {
  memory_.verifiedFiles[productId] = {mirrorFiles, verified};
}

std::shared_ptr<const KTSProduct> KTSPassMemo::productMadeFirst(
    const std::string& productId) const {
  auto found = memory_.products.find(productId);
  return found == memory_.products.end() ? nullptr : found->second;
}

void KTSPassMemo::recordProductMadeFirst(const std::string& productId,
                                         std::shared_ptr<const KTSProduct> product) {
  memory_.products.try_emplace(productId, std::move(product));
}

void KTSPassMemo::readWhenMetadataFetched(std::string path) { toReadAhead_ = std::move(path); }

void KTSPassMemo::serverMetadataFetched() {
  if (toReadAhead_.empty()) return;
  readingAhead_ = std::move(toReadAhead_);
  toReadAhead_.clear();
  // The stamp is taken first: a file replaced while it is read then shows a stamp of its own.
  readAhead_ = runOnSecondThread([path = readingAhead_] {
    ReadAhead read{fileStamp(path), Plist()};
    if (read.stamp) read.contents = Plist::readFile(path, nullptr).value_or(Plist());
    return read;
  });
}

Plist KTSPassMemo::takeReadAhead(const std::string& path) {
  if (path != readingAhead_ || !readAhead_.valid()) return Plist();
  readingAhead_.clear();
  try {
    ReadAhead read = readAhead_.get();
    return read.stamp && read.stamp == fileStamp(path) ? std::move(read.contents) : Plist();
  } catch (const std::exception&) {
    return Plist();
  }
}

}  // namespace ondrel
