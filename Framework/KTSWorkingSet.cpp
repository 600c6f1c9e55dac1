#include "KTSWorkingSet.h"

#include "Clock.h"
#include "DateFormats.h"
#include "FileIO.h"
#include "HostPaths.h"
#include "KTCatalogKeys.h"
#include "KTSPassRecord.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSUtilities.h"
#include "PathString.h"

namespace ondrel {

namespace {

constexpr const char* kProductsKey = "workingSetProducts";
constexpr std::chrono::seconds kStatusSaveInterval(1);

const char* yesOrNo(bool value) { return value ? "YES" : "NO"; }

}  // namespace

std::string KTSWorkingSet::defaultPath() {
  return fixedPath("/Library/Server/Ondrel/Status/com.vantor.server.ondrel.plist");
}

KTSWorkingSet::KTSWorkingSet(const KTSPreferences& preferences, const std::string& path)
    : currentPath_(preferences.statusWorkingPathForPath(path)), log_(LogHandle::shared()) {
  loadProducts();
}

KTSWorkingSet::FileStamp KTSWorkingSet::currentFileStamp() const {
  return {modificationDate(currentPath_, nullptr), fileIdentity(currentPath_)};
}

void KTSWorkingSet::setProductCache(Plist products) {
  products_ = std::move(products);
  cacheDirty_ = true;
}

bool KTSWorkingSet::initProductCache() {
  if (KTSUtilities::fileExistsAtPath(currentPath_)) return true;
  log_.debug("WSET: ==== creating new working set ==== ");
  setProductCache(Plist::dictionary());
  if (!saveProductsArchivingPrevious(false)) {
    log_.debug("WSET: ERROR -- failed to save default working set cache");
    return false;
  }
  return true;
}

bool KTSWorkingSet::loadProducts() {
  if (!initProductCache()) {
    log_.error("Error: Can't create working set cache file: {}", currentPath_);
    return false;
  }
  log_.debug("WSET: loading {}", lastPathComponent(currentPath_));
  FileStamp stamp = currentFileStamp();
  Plist root = KTSUtilities::readPropertyListAtPath(currentPath_);
  const Plist& products = root[kProductsKey];
  if (!root.isDictionary() || (root.contains(kProductsKey) && !products.isDictionary())) {
    log_.error("Error: The working set file is inaccessible or corrupt (1): {}", currentPath_);
    return true;
  }
  if (!root.contains(kProductsKey)) return false;
  products_ = products;
  savedProducts_ = products_;
  cacheDirty_ = false;
  cacheDate_ = Clock::now();
  cachedFileStamp_ = stamp;
  log_.debug("WSET: cache date = {}", Plist::date(*cacheDate_));
  if (stamp.modified) lastWrite_ = stamp.modified;
  return false;
}

bool KTSWorkingSet::saveProductsArchivingPrevious(bool archivePrevious, KTSPassRecord* record) {
  KTSUtilities::createDirectoryAtPath(deletingLastPathComponent(currentPath_));
  std::string previous = appendingPathExtension(currentPath_, "previous");
  auto keepPrevious = [&] {
    log_.debug("WSET: archiving {}", lastPathComponent(previous));
    keepPreviousVersion(currentPath_, previous);
  };
  log_.debug("WSET: saving {}", lastPathComponent(currentPath_));
  Plist root = Plist::dictionary();
  root.set(kProductsKey, products_.isDictionary() ? products_ : Plist::dictionary());
  // The replaced file becomes ".previous" just before the new one is renamed into place, so the
  // working set is never missing, not even for a moment.
  bool archive = archivePrevious && KTSUtilities::fileExistsAtPath(currentPath_);
  if (!writeFileAtomically(
          currentPath_, [&root](std::FILE* file) { return root.writeXml(file); }, nullptr,
          archive ? std::function<void()>(keepPrevious) : std::function<void()>())) {
    return false;
  }
  KTSUtilities::setDefaultFileOwnerAtPath(currentPath_);
  lastWrite_ = Clock::now();
  cacheDate_ = lastWrite_;
  cacheDirty_ = false;
  cachedFileStamp_ = currentFileStamp();
  savedProducts_ = root[kProductsKey];
  if (record != nullptr) record->recordFile(currentPath_, "");
  log_.debug("WSET: cache date = {}", Plist::date(*cacheDate_));
  return true;
}

void KTSWorkingSet::refreshProducts() {
  log_.debug("WSET: refreshing working set products");
  if (!products_.isNull() && cacheDate_) {
    if (!KTSUtilities::fileExistsAtPath(currentPath_)) {
      log_.debug("WSET: WARNING! cache file missing or deleted");
      initProductCache();
      return;
    }
    // Compared at full resolution, and by inode: every save replaces the file, so a save by
    // the other process within the same second as ours is still seen.
    FileStamp stamp = currentFileStamp();
    if (stamp == cachedFileStamp_) return;
    log_.debug("WSET: detected cache file changed (date={})",
               stamp.modified ? Plist::date(*stamp.modified) : Plist());
    log_.debug("WSET: cache date = {}", Plist::date(*cacheDate_));
  }
  std::optional<Plist> unsaved;
  if (cacheDirty_) {
    log_.debug("WSET: retaining unsaved changes pending cache load");
    unsaved = products_;
  }
  if (loadProducts() && unsaved) {
    log_.debug("WSET: merging unsaved changes into loaded cache");
    Plist merged = products_.isDictionary() ? products_ : Plist::dictionary();
    merged.setEntries({unsaved->items().begin(), unsaved->items().end()});
    setProductCache(std::move(merged));
  }
}

bool KTSWorkingSet::updateWithProductsAndRevocationsArchivingPrevious(const ProductsById& products,
                                                                      const Plist&,
                                                                      bool archivePrevious) {
  mergeProducts(products);
  return saveProductsArchivingPrevious(archivePrevious);
}

void KTSWorkingSet::mergeProducts(const ProductsById& products) {
  std::vector<Plist::Dictionary::Entry> records;
  for (const auto& [key, product] : products) {
    Plist record = representationForProduct(product.get());
    if (record.isNull()) continue;
    const std::string& productId = *product->productId();
    const Plist& old = products_[productId];
    if (old.isDictionary()) {
      for (const char* setting : {"mirror", "enable", "fetchPolicy"}) {
        if (old.contains(setting)) {
          record.set(setting, old[setting]);
        } else {
          record.remove(setting);
        }
      }
      // A record that stays as it was keeps its memory, shared with the record as saved.
      if (record.isIdenticalTo(old)) continue;
    }
    records.emplace_back(productId, std::move(record));
  }
  Plist merged = products_.isDictionary() ? products_ : Plist::dictionary();
  merged.setEntries(std::move(records));
  setProductCache(std::move(merged));
}

bool KTSWorkingSet::saveProductsUnlessCurrent(bool archivePrevious, KTSPassRecord* record) {
  if (record && products_.isIdenticalTo(savedProducts_) && record->isCurrent(currentPath_, "")) {
    record->recordFile(currentPath_, "");
    log_.debug("WSET: {} unchanged", lastPathComponent(currentPath_));
    return true;
  }
  return saveProductsArchivingPrevious(archivePrevious, record);
}

void KTSWorkingSet::updateProductStatus(const KTSProduct& product, KTSPassRecord* record) {
  if (!applyProductStatus(product)) return;
  if (!lastWrite_ || Clock::now() - *lastWrite_ > kStatusSaveInterval) {
    saveProductsArchivingPrevious(false, record);
  }
}

bool KTSWorkingSet::applyProductStatus(const KTSProduct& product) {
  if (!product.productId()) return false;
  const std::string& productId = *product.productId();
  const Plist& record = products_[productId];
  if (!record.isDictionary()) return false;
  bool changed = false;
  const KTSProductState& state = product.state();
  std::int32_t oldMirror = KTSProductState::mirrorStateForString(record["mirror"].stringValue());
  if (oldMirror != state.mirror()) {
    changed = true;
    log_.debug("WSET: {} mirror state changed: old={}, new={}.", productId,
               KTSProductState::mirrorStringForState(oldMirror), state.mirrorDescription());
  }
  std::int64_t oldSize = record["DownloadedSize"].integerValue();
  std::int64_t newSize = state.progress().downloadedSize.integerValue();
  if (oldSize != newSize) {
    changed = true;
    log_.debug("WSET: {} downloaded size changed: old={}, new={}.", productId, oldSize, newSize);
  }
  // The old enabled value is read from "mirror" on purpose (see the class description): state
  // names read as false, so an enabled product always counts as changed.
  bool oldEnabled = record["mirror"].boolValue();
  if (oldEnabled != state.enabled()) {
    changed = true;
    log_.debug("WSET: {} enabled state changed: old={}, new={}.", productId, yesOrNo(oldEnabled),
               yesOrNo(state.enabled()));
  }
  if (KTSProductState::fetchPolicyForName(record["fetchPolicy"].stringValue())
          .value_or(KTSProductState::FetchPolicy::Immediate) != state.fetchPolicy()) {
    changed = true;
    log_.debug("WSET: {} fetch policy changed: new={}.", productId,
               KTSProductState::fetchPolicyName(state.fetchPolicy()));
  }
  std::string oldAction = record["IFPkgFlagRestartAction"].stringValue();
  std::string newAction = product.getEffectiveRestartAction();
  if (oldAction != newAction) {
    changed = true;
    log_.debug("WSET: {} restart action changed: old={}, new={}.", productId, oldAction, newAction);
  }
  if (!changed) return false;

  Plist updated = record;
  updated.set("mirror", state.mirrorDescription());
  updated.set("DownloadedSize", Plist::integer(newSize));
  updated.set("enable", Plist::boolean(state.enabled()));
  updated.set("IFPkgFlagRestartAction", newAction);
  setFetchPolicyIn(updated, state.fetchPolicy());
  log_.debug("WSET: Updated product {}; mirror={}, d.l.size={}, eanbled={}.", productId,
             state.mirrorDescription(), newSize, yesOrNo(state.enabled()));
  // An enabled product always counts as changed; its record may well stay as it was.
  if (updated.isIdenticalTo(record)) return true;
  // Moved out first, so the change costs one record, not a copy of every record.
  Plist products = std::move(products_);
  products.set(productId, std::move(updated));
  setProductCache(std::move(products));
  return true;
}

Plist KTSWorkingSet::representationForProduct(const KTSProduct* product) const {
  if (product == nullptr) {
    log_.debug("WSET: **ERROR** nil product argument!!");
    return Plist();
  }
  if (!product->productId()) {
    log_.warning("*** Malformed product data: missing product ID (skipped).");
    return Plist();
  }
  const std::string& productId = *product->productId();
  if (!product->version()) log_.warning("*** Missing version string for product {}", productId);
  const char* missing = !product->localization().isDictionary() ? "localization"
                        : !product->postDate()                  ? "post date"
                                                                : nullptr;
  if (missing) {
    log_.debug("Exception creating WS representation for product {} ({})", productId,
               fmt::format("missing {}", missing));
    log_.warning("Cannot process catalog item for product {} due to missing/malformed data.",
                 productId);
    return Plist();
  }
  Plist record = Plist::dictionary();
  record.set("ProductID", productId);
  const KTSProductState& state = product->state();
  record.set("mirror", state.mirrorDescription());
  record.set("enable", Plist::boolean(state.enabled()));
  setFetchPolicyIn(record, state.fetchPolicy());
  if (product->productFamily()) record.set("IFPkgFlagProductFamily", *product->productFamily());
  if (product->version()) record.set("CFBundleShortVersionString", *product->version());
  if (!product->deprecatedProducts().isNull()) {
    record.set("DeprecatedProducts", product->deprecatedProducts());
  }
  if (!product->deprecators().isNull()) record.set("Deprecators", product->deprecators());
  if (!product->installedSize().isNull()) {
    record.set("IFPkgFlagInstalledSize", product->installedSize());
  }
  record.set("localization", product->localization());
  record.set(KTCatalogProductPostDateKey, formatDescriptionDate(*product->postDate()));
  record.set("IFPkgFlagRestartAction", product->getEffectiveRestartAction());
  if (!state.progress().totalDownloadSize.isNull()) {
    record.set("TotalDownloadSize", state.progress().totalDownloadSize);
  }
  if (!state.progress().downloadedSize.isNull()) {
    record.set("DownloadedSize", state.progress().downloadedSize);
  }
  const Plist& master = product->masterRepresentation();
  record.set("CompositeProductState",
             KTSProductState::compositeStateName(master["CompositeProductState"]));
  for (const char* key : {"Internal-BuildVersion", "Internal-StagedPrefix"}) {
    if (master.contains(key)) record.set(key, master[key]);
  }
  return record;
}

Plist KTSWorkingSet::productDictForID(const std::string& productId) const {
  return products_[productId];
}

void KTSWorkingSet::restoreSettingsOfProduct(KTSProduct& product) {
  const std::string& productId = *product.productId();
  const Plist::Dictionary& records = products_.items();
  auto found = records.find(productId);
  if (found == records.end()) return;
  const Plist& record = found->second;
  KTSProductState& state = product.state();
  state.restore(record.isDictionary()
                    ? KTSProductState::mirrorStateForString(record["mirror"].stringValue())
                    : KTSProductState::DoNotMirror,
                record["enable"].boolValue());
  state.restoreFetchPolicy(record["fetchPolicy"]);
  // An unreadable posting date reads as when the product was first seen, not as each pass.
  const Plist& posted = record[KTCatalogProductPostDateKey];
  if (product.postDateAssumed() && posted.isString()) {
    if (std::optional<Date> firstSeen = parseArchiveDate(posted.stringValue())) {
      product.setPostDate(firstSeen);
    }
  }
  const Plist& texts = record["localization"];
  if (!texts.isDictionary() || texts.sharesStorageWith(product.localization()) ||
      !texts.isIdenticalTo(product.localization())) {
    return;
  }
  // The record as last saved takes the product's copy too, or the old one would stay in memory.
  bool saved = savedProducts_[productId].sharesStorageWith(record);
  products_.mutableValue(productId).set("localization", product.localization());
  if (saved) savedProducts_.mutableValue(productId) = products_[productId];
}

void KTSWorkingSet::setProductDictForID(const Plist& record, const std::string& productId) {
  if (record.isNull()) return;
  Plist products = products_.isDictionary() ? std::move(products_) : Plist::dictionary();
  products.set(productId, record);
  setProductCache(std::move(products));
}

bool KTSWorkingSet::containsProductID(const std::string& productId) const {
  return products_.contains(productId);
}

std::int32_t KTSWorkingSet::mirrorSettingForProductID(const std::string& productId) const {
  const Plist& record = products_[productId];
  if (!record.isDictionary()) return KTSProductState::DoNotMirror;
  return KTSProductState::mirrorStateForString(record["mirror"].stringValue());
}

void KTSWorkingSet::setMirrorSettingForProductID(std::int32_t state,
                                                 const std::optional<std::string>& productId) {
  setSettingForProductID("mirror", Plist(KTSProductState::mirrorStringForState(state)), productId);
}

void KTSWorkingSet::setFetchPolicyForProductID(KTSProductState::FetchPolicy policy,
                                               const std::string& productId) {
  Plist record = products_[productId];
  if (!record.isDictionary()) return;
  setFetchPolicyIn(record, policy);
  setProductDictForID(record, productId);
}

// An immediate product's record names no policy, as every record did before there were others.
void KTSWorkingSet::setFetchPolicyIn(Plist& record, KTSProductState::FetchPolicy policy) {
  if (policy == KTSProductState::FetchPolicy::Immediate) {
    record.remove("fetchPolicy");
  } else {
    record.set("fetchPolicy", KTSProductState::fetchPolicyName(policy));
  }
}

// The copy of a missing record is empty and gets no setting; it is stored all the same.
void KTSWorkingSet::setSettingForProductID(const char* key, Plist value,
                                           const std::optional<std::string>& productId) {
  if (!productId) return;
  Plist record = products_[*productId];
  if (record.isDictionary()) {
    record.set(key, std::move(value));
  } else {
    record = Plist::dictionary();
  }
  setProductDictForID(record, *productId);
}

bool KTSWorkingSet::enableSettingForProductID(const std::string& productId) const {
  return products_[productId]["enable"].boolValue();
}

void KTSWorkingSet::setEnableSettingForProductID(bool enable,
                                                 const std::optional<std::string>& productId) {
  setSettingForProductID("enable", Plist::boolean(enable), productId);
}

}  // namespace ondrel
