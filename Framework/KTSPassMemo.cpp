#include "KTSPassMemo.h"

#include "KTSProduct.h"

namespace ondrel {

KTSPassMemo::Memory* KTSPassMemo::current_ = nullptr;

KTSPassMemo::KTSPassMemo() : previous_(current_) { current_ = &memory_; }

KTSPassMemo::~KTSPassMemo() { current_ = previous_; }

const KTSPassMemo::ServerMetadata* KTSPassMemo::serverMetadataFetchedFrom(const std::string& url) {
  if (current_ == nullptr) return nullptr;
  auto found = current_->serverMetadata.find(url);
  return found == current_->serverMetadata.end() ? nullptr : &found->second;
}

void KTSPassMemo::recordServerMetadataFetchedFrom(const std::string& url, ServerMetadata metadata) {
  if (current_ != nullptr) current_->serverMetadata[url] = std::move(metadata);
}

Plist KTSPassMemo::shareEqualValue(const std::string& productId, ProductValue kind, Plist value) {
  if (current_ == nullptr) return value;
  auto [found, inserted] = current_->values.try_emplace({productId, kind}, value);
  if (inserted || found->second.isIdenticalTo(value)) return found->second;
  found->second = value;
  return value;
}

void KTSPassMemo::fileWillChange() {
  if (current_ != nullptr) current_->verifiedFiles.clear();
}

std::optional<bool> KTSPassMemo::filesVerifiedEarlier(const std::string& productId,
                                                      const Plist& mirrorFiles) {
  if (current_ == nullptr) return std::nullopt;
  auto found = current_->verifiedFiles.find(productId);
  if (found == current_->verifiedFiles.end() ||
      !found->second.first.sharesStorageWith(mirrorFiles)) {
    return std::nullopt;
  }
  return found->second.second;
}

void KTSPassMemo::recordFilesVerified(const std::string& productId, const Plist& mirrorFiles,
                                      bool verified) {
  if (current_ != nullptr) current_->verifiedFiles[productId] = {mirrorFiles, verified};
}

KTSPassMemo::FilesVerified KTSPassMemo::filesVerified() {
  return current_ == nullptr ? FilesVerified() : current_->verifiedFiles;
}

std::shared_ptr<const KTSProduct> KTSPassMemo::productMadeFirst(const std::string& productId) {
  if (current_ == nullptr) return nullptr;
  auto found = current_->products.find(productId);
  return found == current_->products.end() ? nullptr : found->second;
}

void KTSPassMemo::recordProductMadeFirst(const std::string& productId,
                                         std::shared_ptr<const KTSProduct> product) {
  if (current_ != nullptr) current_->products.try_emplace(productId, std::move(product));
}

}  // namespace ondrel
