#include "KTSProductState.h"

#include <iterator>

namespace ondrel {

namespace {

constexpr const char* kMirrorStateNames[] = {"DoNotMirror",   "PleaseMirror",    "Downloading",
                                             "Mirrored",      "LocalOnly",       "LocalDeprecated",
                                             "LocalOrphaned", "LocalNotMirrored"};

constexpr const char* kCompositeStateNames[] = {"UNKNOWN", "NEW", "RECURRING", "DEPRECATED",
                                                "ORPHANED"};
constexpr std::int64_t kLastCompositeState = 4;

constexpr const char* kFetchPolicyNames[] = {"immediate", "on-demand", "background"};

}  // namespace

std::string KTSProductState::compositeStateName(std::int64_t state) {
  if (state < 1 || state > kLastCompositeState) return kCompositeStateNames[0];
  return kCompositeStateNames[state];
}

std::int64_t KTSProductState::compositeStateForName(const std::string& name) {
  for (std::int64_t state = 1; state <= kLastCompositeState; ++state) {
    if (name == kCompositeStateNames[state]) return state;
  }
  return 0;
}

std::int32_t KTSProductState::mirrorStateForString(const std::optional<std::string>& name) {
  if (!name) return DoNotMirror;
  for (std::int32_t state = 0; state <= LocalNotMirrored; ++state) {
    if (*name == kMirrorStateNames[state]) return state;
  }
  return DoNotMirror;
}

std::string KTSProductState::mirrorStringForState(std::int64_t state) {
  if (state < PleaseMirror || state > LocalNotMirrored) return kMirrorStateNames[DoNotMirror];
  return kMirrorStateNames[state];
}

std::optional<KTSProductState::FetchPolicy> KTSProductState::fetchPolicyForName(
    std::string_view name) {
  for (std::uint8_t policy = 0; policy < std::size(kFetchPolicyNames); ++policy) {
    if (name == kFetchPolicyNames[policy]) return static_cast<FetchPolicy>(policy);
  }
  return std::nullopt;
}

const char* KTSProductState::fetchPolicyName(FetchPolicy policy) {
  return kFetchPolicyNames[static_cast<std::uint8_t>(policy)];
}

KTSProductState::KTSProductState() : product_(std::make_shared<ProductPart>()) {}

KTSProductState::KTSProductState(const KTSProductState& other)
    : product_(std::make_shared<ProductPart>(*other.product_)), standing_(other.standing_) {}

KTSProductState& KTSProductState::operator=(const KTSProductState& other) {
  if (this != &other) {
    product_ = std::make_shared<ProductPart>(*other.product_);
    standing_ = other.standing_;
  }
  return *this;
}

void KTSProductState::shareProductPartOf(const KTSProductState& other) {
  if (product_ == other.product_) return;
  if (!other.product_->files) other.product_->files = product_->files;
  product_ = other.product_;
}

std::int32_t KTSProductState::mirror() const {
  if (standing_) return *standing_;
  return product_->files.value_or(DoNotMirror);
}

bool KTSProductState::isEqual(const KTSProductState& other, std::string* changedKey) const {
  const char* changed = nullptr;
  if (mirror() != other.mirror()) {
    changed = "mirror";
  } else if (enabled() != other.enabled()) {
    changed = "enabled";
  } else if (enableWhenMirrored() != other.enableWhenMirrored()) {
    changed = "enableWhenMirrored";
  } else if (fetchPolicy() != other.fetchPolicy()) {
    changed = "fetchPolicy";
  }
  if (changedKey) *changedKey = changed ? changed : "";
  return changed == nullptr;
}

void KTSProductState::finishFetching(bool allInPlace) {
  product_->progress.downloadStatus = DownloadFinished;
  setFiles(allInPlace ? Mirrored : PleaseMirror);
  if (allInPlace && product_->enableWhenMirrored) product_->enabled = true;
  if (allInPlace && product_->policy == FetchPolicy::Background) {
    product_->policy = FetchPolicy::Immediate;
  }
}

void KTSProductState::setFetchPolicy(FetchPolicy policy) {
  product_->policy = policy;
  if (policy == FetchPolicy::OnDemand && !standing_ &&
      (product_->files == PleaseMirror || product_->files == Downloading)) {
    product_->files = Mirrored;
  }
}

bool KTSProductState::applyPendingEnable() {
  ProductPart& product = *product_;
  if (!mayServeNow() || !product.enableWhenMirrored || product.enabled) return false;
  product.enabled = true;
  product.enableWhenMirrored = false;
  return true;
}

void KTSProductState::restore(std::int32_t mirror, bool enabled) {
  if (isStanding(mirror)) {
    standing_ = mirror;
  } else {
    setFiles(mirror);
  }
  product_->enabled = enabled;
}

void KTSProductState::restoreKeepingStanding(std::int32_t mirror, bool enabled) {
  if (isStanding(mirror)) {
    standing_ = mirror;
  } else {
    product_->files = mirror;
  }
  product_->enabled = enabled;
}

void KTSProductState::Progress::restart() {
  downloadStatus = DownloadBegun;
  totalDownloadCount = 0;
  downloadedSize = Plist::integer(0);
}

void KTSProductState::Progress::addDownloaded(std::int64_t bytes) {
  downloadedSize = Plist::integer(downloadedSize.integerValue() + bytes);
}

}  // namespace ondrel
