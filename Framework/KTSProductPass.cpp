#include "KTSProductPass.h"

namespace ondrel {

KTSProductPass::Memory* KTSProductPass::current_ = nullptr;

KTSProductPass::KTSProductPass() : previous_(current_) { current_ = &memory_; }

KTSProductPass::~KTSProductPass() { current_ = previous_; }

const KTSProductPass::ServerMetadata* KTSProductPass::serverMetadataFetchedFrom(
    const std::string& url) {
  if (current_ == nullptr) return nullptr;
  auto found = current_->serverMetadata.find(url);
  return found == current_->serverMetadata.end() ? nullptr : &found->second;
}

void KTSProductPass::recordServerMetadataFetchedFrom(const std::string& url,
                                                     ServerMetadata metadata) {
  if (current_ != nullptr) current_->serverMetadata[url] = std::move(metadata);
}

Plist KTSProductPass::shareEqualValue(const std::string& key, Plist value) {
  if (current_ == nullptr) return value;
  auto [found, inserted] = current_->values.try_emplace(key, value);
  if (inserted || found->second == value) return found->second;
  found->second = value;
  return value;
}

}  // namespace ondrel
