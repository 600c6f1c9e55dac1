// The catalog's files, its sync and load sequences and the product index rebuild.
#include "KTSCatalog.h"

#include "Clock.h"
#include "FileIO.h"
#include "KTCatalogKeys.h"
#include "KTSCatalogDownloader.h"
#include "KTSError.h"
#include "KTSFetchScheduler.h"
#include "KTSMetaIndex.h"
#include "KTSPassContext.h"
#include "KTSPassMemo.h"
#include "KTSPassRecord.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSServerMetadata.h"
#include "KTSUtilities.h"
#include "KTSWorkingSet.h"
#include "PathString.h"

namespace ondrel {

std::shared_ptr<KTSCatalog> KTSCatalog::catalogWithUrl(const Url& url, KTSPassContext& context) {
  return std::make_shared<KTSCatalog>(url, context);
}

std::string KTSCatalog::compositeProductStringForStateValue(std::int64_t state) {
  return KTSProductState::compositeStateName(state);
}

std::int64_t KTSCatalog::compositeProductStateForString(const std::string& name) {
  return KTSProductState::compositeStateForName(name);
}

void KTSCatalog::forEachCachedCatalog(KTSPassContext& context,
                                      const std::function<void(const KTSCatalog&)>& visit) {
  KTSMetaIndex& metaIndex = context.metaIndex();
  metaIndex.updateLocalPaths();
  metaIndex.refresh();
  for (const KTSURL& url : metaIndex.catalogs()) {
    KTSCatalog catalog(*url.url(), context);
    if (catalog.loadProductIndexCache()) visit(catalog);
  }
}

KTSCatalog::KTSCatalog(const Url& catalogURL, KTSPassContext& context)
    : catalogURL_(catalogURL), context_(context), log_(context.log()) {
  KTSPreferences& preferences = context.preferences();
  updatesDocRoot_ = preferences.updatesDocRoot();
  // The formats join their parts without a separator of their own: the document root ends in
  // a slash and the URL path begins with one.
  const std::string& urlPath = catalogURL_.path();
  vantorCatalogPath_ = fmt::format("{}html{}.vantor", updatesDocRoot_, urlPath);
  compositeCatalogPath_ = fmt::format("{}html{}.composite", updatesDocRoot_, urlPath);
  productsCachePath_ =
      fmt::format("{}html{}.productscache", updatesDocRoot_, deletingPathExtension(urlPath));
  catalogPrimePath_ =
      fmt::format("http://{}:{}{}", preferences.hostName(), preferences.portToUse(), urlPath);
}

KTSCatalog::~KTSCatalog() = default;

void KTSCatalog::syncCatalogWithDeprecationsForcingUpdate(const Plist& deprecations, bool force) {
  syncCatalogLeavingCache(deprecations, force);
  if (products_) saveProductIndexCacheUnlessCurrent();
}

void KTSCatalog::syncCatalogLeavingCache(const Plist& deprecations, bool force) {
  log_.info("Updating local catalog: {}", lastPathComponent(catalogPrimePath_));
  log_.debug("CTLG: ==== syncing composite catalog with Vantor server ====");
  log_.debug("CTLG: URL   = {}", catalogURL_);
  log_.debug("CTLG: Local = {}", vantorCatalogPath_);
  setDeprecatedProducts(deprecations);
  try {
    loadCompositeCatalog();
    if (!mergeChangesNothing(deprecations)) {
      Plist incoming = downloadCatalogToPathForcingUpdate(vantorCatalogPath_, force);
      updateCompositeCatalogWithCatalog(incoming);
    }
  } catch (...) {
    setDeprecatedProducts(Plist());
    throw;
  }
  loadProductIndexForcingUpdate(true);
  applyGlobalProductPreferences();
  updateAllDeprecatedProductsStates();
  verifyAllProductDownloadStates();
  setDeprecatedProducts(Plist());
}

void KTSCatalog::loadCatalog() {
  log_.debug("CTLG: ==== loading composite catalog from cache ====");
  loadCompositeCatalog();
  if (loadProductIndexForcingUpdate(false)) mergeWorkingSetProductsStates();
}

void KTSCatalog::loadCompositeCatalog() {
  log_.debug("CTLG: loading composite catalog");
  std::string previous = appendingPathExtension(vantorCatalogPath_, "previous");
  if (!KTSUtilities::fileExistsAtPath(compositeCatalogPath_) &&
      KTSUtilities::fileExistsAtPath(previous)) {
    KTSUtilities::copyItemAtPathToPath(previous, compositeCatalogPath_);
  }
  log_.debug("CTLG: FILE = {}", compositeCatalogPath_);
  if (KTSUtilities::fileExistsAtPath(compositeCatalogPath_)) {
    KTSPassMemo* memo = context_.memo();
    Plist read = memo != nullptr ? memo->takeReadAhead(compositeCatalogPath_) : Plist();
    if (read.isNull()) read = KTSUtilities::readPropertyListAtPath(compositeCatalogPath_);
    compositeCatalog_ = read.isDictionary() ? read : Plist();
  } else {
    compositeCatalog_ = Plist::dictionary();
  }
  KTSPassRecord* record = context_.record();
  compositeAsRecorded_ = record && record->inputsOfCurrentFile(compositeCatalogPath_);
  loadedComposite_ = compositeAsRecorded_ ? compositeCatalog_ : Plist();
  compositeUnchanged_ = false;
}

void KTSCatalog::saveCompositeCatalog() {
  if (compositeCatalog_.isNull()) return;
  KTSUtilities::writeDictionaryToPath(compositeCatalog_, compositeCatalogPath_);
  if (KTSPassRecord* record = context_.record()) {
    record->recordFile(compositeCatalogPath_, "");
  }
  log_.debug("CTLG: composite catalog saved.");
}

void KTSCatalog::saveMergedCompositeCatalog() {
  compositeUnchanged_ = compositeAsRecorded_ && compositeCatalog_.isIdenticalTo(loadedComposite_);
  loadedComposite_ = Plist();
  if (!compositeUnchanged_) return saveCompositeCatalog();
  // Merging the same upstream copy into it again would leave it as it is, too.
  context_.record()->recordFile(compositeCatalogPath_, mergeInputs_);
  log_.debug("CTLG: composite catalog unchanged.");
}

// A merge that left the composite catalog as it was leaves it so again while the upstream copy,
// the deprecations and the composite catalog itself stay as they were: the copy need not even
// be read. Only once the pass fetched the copy ahead, so no download is skipped.
bool KTSCatalog::mergeChangesNothing(const Plist& deprecations) {
  KTSPassRecord* record = context_.record();
  mergeInputs_.clear();
  if (record == nullptr || !fetchAhead_) return false;
  mergeInputs_ = KTSPassRecord::Inputs()
                     .add(fileStamp(vantorCatalogPath_).value_or(""))
                     .addValue(deprecations)
                     .text();
  if (record->inputsOfCurrentFile(compositeCatalogPath_) != mergeInputs_) return false;
  fetchAhead_.reset();
  compositeUnchanged_ = true;
  loadedComposite_ = Plist();
  record->recordFile(compositeCatalogPath_, mergeInputs_);
  log_.debug("CTLG: upstream copy, deprecations and composite catalog unchanged.");
  return true;
}

void KTSCatalog::fetchCatalogAheadWithScheduler(KTSFetchScheduler& scheduler) {
  fetchAhead_ = KTSCatalogDownloader::downloaderWithURLLocalPathArchivePrevious(
      catalogURL_, vantorCatalogPath_, true, context_.status());
  lastDownloadSucceeded_ = false;
  fetchAhead_->downloadWithScheduler(scheduler, [this, downloader = fetchAhead_.get()] {
    lastDownloadSucceeded_ = downloader->downloadStatus() == 1;
  });
}

Plist KTSCatalog::downloadCatalogToPathForcingUpdate(const std::string& path, bool force) {
  log_.debug("CTLG: URL = {}", catalogURL_);
  log_.debug("CTLG: FORCE = {}", force ? "YES" : "NO");
  if (fetchAhead_ && path == vantorCatalogPath_) {
    // Fetched beside the other catalogs of the pass; its outcome stands for this download.
    fetchAhead_.reset();
  } else if (force || !KTSUtilities::fileExistsAtPath(path)) {
    auto downloader = KTSCatalogDownloader::downloaderWithURLLocalPathArchivePrevious(
        catalogURL_, path, true, context_.status());
    if (downloader->downloadStatus() == 1) downloader->downloadSynchronously(context_.scheduler());
    lastDownloadSucceeded_ = downloader->downloadStatus() == 1;
  }
  if (!KTSUtilities::fileExistsAtPath(path)) return Plist();
  return KTSUtilities::readPropertyListAtPath(path);
}

bool KTSCatalog::loadProductIndexForcingUpdate(bool force) {
  if (!force && loadProductIndexCache()) return false;
  log_.debug("CTLG: rebuilding product list from available data.");
  prefetchServerMetadata();
  ProductIndex rebuilt;
  for (const auto& [productId, entry] : compositeCatalog_[KTCatalogProductsDictKey].items()) {
    // Each product is made and released in its own scope; one that fails never ends the rebuild.
    try {
      log_.debug("CTLG: creating product instance for {}", productId);
      std::optional<KTSError> error;
      std::shared_ptr<KTSProduct> product = makeProductItemForProductIDError(productId, &error);
      if (product) {
        if (KTSPassMemo* memo = context_.memo(); memo && filesAreVerified(product->state())) {
          product->checkMirroredFilesAhead(*memo);
        }
        rebuilt.emplace(productId, std::move(product));
      } else if (error && error->code() == -1) {
        log_.debug("CTLG: detected dead product {}", productId);
      } else if (error) {
        log_.debug("CTLG: general initialization failure for product {}", productId);
      }
    } catch (const std::exception& failure) {
      log_.debug("CTLG: Error creating product {}; reason {}", productId, failure.what());
    }
  }
  // A product copied from another catalog holds that catalog's entry: the composite catalog
  // takes it too, so the catalogs keep one copy in memory of what they list alike.
  if (!rebuilt.empty()) shareEntriesOfProducts(rebuilt);
  products_ = std::move(rebuilt);
  return true;
}

// Only within a pass: what is fetched ahead is kept in the pass's memo.
void KTSCatalog::prefetchServerMetadata() {
  KTSPassMemo* memo = context_.memo();
  if (memo == nullptr) return;
  std::optional<KTSFetchScheduler> own;
  KTSFetchScheduler* scheduler = context_.scheduler();
  if (scheduler == nullptr) {
    scheduler = &own.emplace(context_.preferences(), nullptr);
  }
  KTSServerMetadata::prefetchServerMetadataForEntries(compositeCatalog_[KTCatalogProductsDictKey],
                                                      context_.layout(), *memo, *scheduler);
  memo->serverMetadataFetched();
}

void KTSCatalog::shareEntriesOfProducts(const ProductIndex& products) {
  Plist& entries = compositeCatalog_.mutableValue(KTCatalogProductsDictKey);
  for (const auto& [productId, product] : products) {
    Plist& entry = entries.mutableValue(productId);
    if (!entry.sharesStorageWith(product->masterRepresentation())) {
      entry = product->masterRepresentation();
    }
  }
}

std::shared_ptr<KTSProduct> KTSCatalog::makeProductItemForProductIDError(
    const std::string& productId, std::optional<KTSError>* error) {
  const Plist& entry = compositeCatalog_[KTCatalogProductsDictKey][productId];
  std::shared_ptr<KTSProduct> product = madeEarlierInPass(productId, entry);
  if (!product) {
    std::optional<Url> metadataURL;
    if (entry["ServerMetadataURL"].isString()) {
      metadataURL = Url::parse(entry["ServerMetadataURL"].stringValue());
    }
    product = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
        productId, entry, metadataURL, context_.services());
    if (KTSPassMemo* memo = context_.memo()) {
      memo->recordProductMadeFirst(productId, std::make_shared<const KTSProduct>(*product));
    }
  }
  if (product->initStatus() != 1) {
    if (error) {
      Plist userInfo;
      if (entry.contains("CompositeProductState")) {
        userInfo = Plist::dictionary();
        userInfo.set("CompositeProductState", entry["CompositeProductState"]);
      }
      error->emplace(KTSError::kDomain, product->initStatus(),
                     fmt::format("product {} could not be made", productId), userInfo);
    }
    return nullptr;
  }
  context_.workingSet().restoreSettingsOfProduct(*product);
  return product;
}

// A product is made from its entry alone, and only an active one fetches its server metadata: a
// copy of the product another catalog made in this pass from the same entry (but for its
// composite state, active alike) is what making it again would give.
std::shared_ptr<KTSProduct> KTSCatalog::madeEarlierInPass(const std::string& productId,
                                                          const Plist& entry) const {
  KTSPassMemo* memo = context_.memo();
  std::shared_ptr<const KTSProduct> earlier =
      memo != nullptr ? memo->productMadeFirst(productId) : nullptr;
  if (!earlier) return nullptr;
  const Plist& earlierEntry = earlier->masterRepresentation();
  if (KTSServerMetadata::isActiveEntry(earlierEntry) != KTSServerMetadata::isActiveEntry(entry)) {
    return nullptr;
  }
  const Plist::Dictionary& mine = entry.items();
  const Plist::Dictionary& theirs = earlierEntry.items();
  auto skipState = [](const Plist::Dictionary& items, Plist::Dictionary::const_iterator at) {
    return at != items.end() && at->first == "CompositeProductState" ? std::next(at) : at;
  };
  auto a = skipState(mine, mine.begin());
  auto b = skipState(theirs, theirs.begin());
  while (a != mine.end() && b != theirs.end()) {
    if (a->first != b->first || !a->second.isIdenticalTo(b->second)) return nullptr;
    a = skipState(mine, std::next(a));
    b = skipState(theirs, std::next(b));
  }
  if (a != mine.end() || b != theirs.end()) return nullptr;
  // The earlier entry with this one's state: alike, and sharing what they say alike (all of it
  // when the states are alike too).
  Plist shared = earlierEntry;
  if (entry.contains("CompositeProductState")) {
    const Plist& state = entry["CompositeProductState"];
    if (!earlierEntry["CompositeProductState"].isIdenticalTo(state)) {
      shared.set("CompositeProductState", state);
    }
  } else {
    shared.remove("CompositeProductState");
  }
  auto product = std::make_shared<KTSProduct>(*earlier);
  product->setMasterRepresentation(std::move(shared));
  return product;
}

void KTSCatalog::mergeWorkingSetProductsStates() {
  log_.debug("CTLG: merging existing working set data");
  if (!products_) return;
  KTSWorkingSet& workingSet = context_.workingSet();
  for (const auto& [productId, product] : *products_) {
    if (!workingSet.containsProductID(productId)) continue;
    log_.debug("CTLG: transferring working set data for {}", productId);
    Plist record = workingSet.productDictForID(productId);
    // The working set keeps one record per product; the standing this catalog gave it, kept in
    // its cache, stays.
    KTSProductState& state = product->state();
    state.restoreKeepingStanding(
        record.contains("mirror")
            ? KTSProductState::mirrorStateForString(record["mirror"].stringValue())
            : state.mirror(),
        record.contains("enable") ? record["enable"].boolValue() : state.enabled());
    state.restoreFetchPolicy(record["fetchPolicy"]);
    if (record.contains("DownloadedSize"))
      product->state().progress().downloadedSize = record["DownloadedSize"];
    if (record.contains("TotalDownloadSize")) {
      product->state().progress().totalDownloadSize = record["TotalDownloadSize"];
    }
  }
}

void KTSCatalog::commitCatalogProductRemovals() {
  std::vector<std::string> removed;
  for (const auto& [productId, entry] : compositeCatalog_[KTCatalogProductsDictKey].items()) {
    if (!products_ || products_->count(productId) == 0) removed.push_back(productId);
  }
  if (removed.empty()) return;
  log_.debug("CTLG: committing changes in product index.");
  Plist catalog = compositeCatalog_;
  catalog.mutableValue(KTCatalogProductsDictKey).removeKeys(removed);
  compositeCatalog_ = std::move(catalog);
  compositeUnchanged_ = false;
  saveCompositeCatalog();
}

std::shared_ptr<KTSProduct> KTSCatalog::productForProductId(const std::string& productId) const {
  if (!products_) return nullptr;
  auto found = products_->find(productId);
  return found == products_->end() ? nullptr : found->second;
}

void KTSCatalog::removeProductForProductId(const std::string& productId) {
  if (products_) products_->erase(productId);
}

}  // namespace ondrel
