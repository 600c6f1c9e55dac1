// What a sync does to the product index after the merge: the automatic mirror and enable
// policies, the deprecation chains, the check of files on disk with the product index cache,
// and the served form of a product's entry.
#include <memory>
#include <utility>

#include "KTCatalogKeys.h"
#include "KTSCatalog.h"
#include "KTSPassContext.h"
#include "KTSPassRecord.h"
#include "KTSPath.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSProductIndexCacheWrite.h"
#include "KTSSettings.h"
#include "KTSUtilities.h"

namespace ondrel {

void KTSCatalog::applyGlobalProductPreferences() {
  KTSPreferences& preferences = context_.preferences();
  bool automatic = preferences.automaticPresetsEnabled();
  log_.debug("CTLG: Mode is {}.", preferences.modeName());
  applyAutoMirrorsForAllProducts();
  applyAutoEnablesForAllProducts();
  if (automatic || !products_) return;
  for (const auto& [productId, product] : *products_) {
    if (product->state().mirror() == KTSProductState::PleaseMirror) {
      cancelPendingAutoRequestsForAllProducts();
      return;
    }
  }
}

void KTSCatalog::applyAutoMirrorsForAllProducts() {
  KTSPreferences& preferences = context_.preferences();
  bool onlyNew = preferences.autoMirrorOnlyNew();
  if (!preferences.autoMirror() && !onlyNew) {
    log_.info("* Auto-copy options are OFF. No products were changed.");
    return;
  }
  log_.info("* Auto-copy ({}) option is ON.  Applying option to eligible products.",
            onlyNew ? "ONLY NEW" : "ALL");
  log_.debug("CTLG: auto-copy - evaluating {} products.", products_ ? products_->size() : 0);
  if (!products_) return;
  KTSProductState::FetchPolicy policy = KTSSettings::autoMirrorPolicy(preferences.prefs());
  for (const auto& [productId, product] : *products_) {
    std::string outcome;
    std::int64_t state = compositeStateForProduct(*product);
    if (product->state().mirror() != KTSProductState::DoNotMirror) {
      outcome = fmt::format("SKIPPED (state: {})", product->state().mirrorDescription());
    } else if (state != Unknown && (!onlyNew || state == New)) {
      product->state().setFetchPolicy(policy);
      product->state().scheduleMirroring();
      outcome = "scheduled";
    } else {
      outcome = fmt::format("SKIPPED (state: {})", compositeProductStringForStateValue(state));
    }
    log_.debug("CTLG: auto-copy - product \"{}\" {}.", productId, outcome);
  }
}

void KTSCatalog::applyAutoEnablesForAllProducts() {
  if (!context_.preferences().autoEnable()) {
    log_.info("* Auto-enable option is OFF. No products were changed.");
    return;
  }
  log_.info("* Auto-enable option is ON.  Applying option to eligible products.");
  log_.debug("CTLG: auto-enable - evaluating {} products.", products_ ? products_->size() : 0);
  if (!products_) return;
  for (const auto& [productId, product] : *products_) {
    std::string outcome;
    KTSProductState& state = product->state();
    switch (state.mirror()) {
      case KTSProductState::Mirrored:
        state.enable();
        outcome = "enabled";
        break;
      case KTSProductState::PleaseMirror:
      case KTSProductState::Downloading:
      case KTSProductState::LocalOnly:
        state.enableOnceMirrored();
        outcome = "will enable when mirrored";
        break;
      default:
        outcome = fmt::format("SKIPPED (state: {})", state.mirrorDescription());
        break;
    }
    log_.debug("CTLG: auto-enable - product \"{}\" {}.", productId, outcome);
  }
}

void KTSCatalog::cancelPendingAutoRequestsForAllProducts() {
  bool autoMirror = context_.preferences().autoMirror();
  log_.info("* Manual mode - auto-download {}. Canceling pending {}.",
            autoMirror ? "is ON, auto-enable option is OFF" : "and auto-enable options are OFF",
            autoMirror ? "enable requests only" : "download and enable requests");
  if (!products_) return;
  for (const auto& [productId, product] : *products_) {
    KTSProductState& state = product->state();
    if (state.mirror() == KTSProductState::Downloading) {
      log_.debug("CTLG: canceling pending enable for in-progress download; product {}", productId);
      state.cancelPendingEnable();
    } else if (state.mirror() == KTSProductState::PleaseMirror) {
      log_.debug("CTLG: canceling pending {} for product {}",
                 autoMirror ? "enable" : "mirror and enable", productId);
      state.cancelPendingEnable();
      if (!autoMirror) state.stopMirroring();
    }
  }
}

void KTSCatalog::updateAllDeprecatedProductsStates() {
  log_.debug("CTLG: updating enable state for deprecated products");
  if (!products_) return;
  for (const auto& [productId, product] : *products_) {
    std::int64_t composite = compositeStateForProduct(*product);
    KTSProductState& state = product->state();
    std::int32_t mirror = state.mirror();
    if (composite == Orphaned) {
      log_.info("Product {} is no longer available and has no replacement.", productId);
      state.markOrphaned();
    } else if (composite == Deprecated && mirror < KTSProductState::Mirrored) {
      log_.info(
          "Product {} (not downloaded) is no longer available and will be removed from the "
          "catalog.",
          productId);
      state.markWithdrawnUnmirrored();
    } else if (composite == Deprecated && mirror == KTSProductState::Mirrored) {
      log_.info("Product {} is no longer available but may still be enabled.", productId);
      state.keepLocally();
    }
  }
  for (const auto& [productId, product] : *products_) {
    if (product->deprecators().size() != 0) continue;
    std::set<std::string> visited;
    updateDeprecatedProductsStatesInWalk(*product, nullptr, false, visited);
  }
}

void KTSCatalog::updateDeprecatedProductsStatesWithDeprecatorSuperiorEnabled(
    KTSProduct& product, const KTSProduct* deprecator, bool superiorEnabled) {
  std::set<std::string> visited;
  updateDeprecatedProductsStatesInWalk(product, deprecator, superiorEnabled, visited);
}

// One step of the walk down a deprecation chain. A product already visited in this walk ends
// it, so a cycle in a hostile deprecations list cannot make the walk endless.
void KTSCatalog::updateDeprecatedProductsStatesInWalk(KTSProduct& product,
                                                      const KTSProduct* deprecator,
                                                      bool superiorEnabled,
                                                      std::set<std::string>& visited) {
  const std::string productId = product.productId().value_or("");
  if (!visited.insert(productId).second) return;
  bool carry = superiorEnabled;
  if (deprecator != nullptr) {
    const std::string deprecatorId = deprecator->productId().value_or("");
    if (!superiorEnabled && !deprecator->state().enabled()) {
      if (product.state().mirror() == KTSProductState::LocalDeprecated) {
        log_.info("Product {} may be re-enabled; replacement product {} was disabled.", productId,
                  deprecatorId);
        product.state().keepLocally();
      }
      carry = false;
    } else {
      log_.info("Product {} is disabled because replacement product {} was enabled.", productId,
                deprecatorId);
      product.state().markReplaced();
      carry = true;
    }
  }
  for (const Plist& deprecatedId : product.deprecatedProducts().elements()) {
    std::shared_ptr<KTSProduct> deprecated = productForProductId(deprecatedId.stringValue());
    if (deprecated) updateDeprecatedProductsStatesInWalk(*deprecated, &product, carry, visited);
  }
}

bool KTSCatalog::loadProductIndexCache() {
  if (KTSUtilities::fileExistsAtPath(productsCachePath_)) {
    log_.debug("CTLG: refreshing product list from saved state");
    Plist cache = KTSUtilities::readPropertyListAtPath(productsCachePath_);
    if (!cache.isArray()) {
      log_.debug("CTLG: *** product index cache restore failed");
    } else {
      std::optional<ProductIndex> restored;
      for (const Plist& element : cache.elements()) {
        std::shared_ptr<KTSProduct> product =
            element.isDictionary()
                ? KTSProduct::productWithArchiveRepresentation(element, context_.layout())
                : nullptr;
        if (!product || !product->productId()) {
          log_.debug("CTLG: *** product init from cache item failed! ID = {}",
                     element["productId"]);
          continue;
        }
        if (!restored) restored.emplace();
        (*restored)[*product->productId()] = std::move(product);
      }
      products_ = std::move(restored);
    }
  }
  return products_.has_value();
}

void KTSCatalog::saveProductIndexCache() { saveProductIndexCaches({this}); }

void KTSCatalog::saveProductIndexCacheUnlessCurrent() {
  if (!productIndexCacheIsCurrent()) saveProductIndexCache();
}

bool KTSCatalog::productIndexCacheIsCurrent() {
  KTSPassRecord* record = context_.record();
  if (!record || !compositeUnchanged_) return false;
  std::string inputs = productIndexCacheInputs(*record);
  if (!record->isCurrent(productsCachePath_, inputs)) return false;
  record->recordFile(productsCachePath_, inputs);
  log_.debug("CTLG: product index cache unchanged.");
  return true;
}

void KTSCatalog::saveProductIndexCaches(const std::vector<KTSCatalog*>& catalogs) {
  KTSProductIndexCacheWrite(catalogs).finish();
}

// A product's record in the cache is made from its composite entry, its server metadata and its
// states; the entries are those of the composite catalog, which the caller compares itself.
std::string KTSCatalog::productIndexCacheInputs(KTSPassRecord& record) const {
  KTSPassRecord::Inputs inputs;
  if (!products_) return inputs.text();
  for (const auto& [productId, product] : *products_) {
    const KTSProductState& state = product->state();
    inputs.add(std::string_view(productId))
        .add(state.mirror())
        .add(state.enabled())
        .add(state.enableWhenMirrored())
        .add(static_cast<std::int64_t>(state.fetchPolicy()))
        .add(state.progress().downloadStatus)
        .addValue(state.progress().totalDownloadSize)
        .addValue(state.progress().downloadedSize);
    inputs.add(record.stampOfSettledFile(product->serverMetadataLocalPath()));
  }
  return inputs.text();
}

std::int64_t KTSCatalog::compositeStateForProduct(const KTSProduct& product) const {
  if (!product.productId()) return Unknown;
  const Plist& state =
      compositeCatalog_[KTCatalogProductsDictKey][*product.productId()]["CompositeProductState"];
  std::int64_t value = state.isNumber() ? state.integerValue() : Unknown;
  return value >= New && value <= Orphaned ? value : Unknown;
}

// Files of a product on demand come when clients ask for them: none need be here.
bool KTSCatalog::filesAreVerified(const KTSProductState& state) {
  return state.fetchPolicy() != KTSProductState::FetchPolicy::OnDemand &&
         (state.hasStanding() || state.mirror() == KTSProductState::Mirrored);
}

void KTSCatalog::verifyAllProductDownloadStates() {
  if (!products_) return;
  std::vector<std::string> removed;
  for (const auto& [productId, product] : *products_) {
    KTSProductState& state = product->state();
    if (!filesAreVerified(state)) continue;
    if (state.hasStanding() && !product->verifyMirroredFiles(context_.memo())) {
      removed.push_back(productId);
      log_.debug(
          "CTLG: WARNING - Removing {} product {} (reason: missing files, no longer "
          "available).",
          state.mirrorDescription(), productId);
      log_.info(
          "Partially copied product {} missing some local files. The product is no longer "
          "available and will be removed.",
          productId);
    } else if (state.mirror() == KTSProductState::Mirrored &&
               !product->verifyMirroredFiles(context_.memo())) {
      state.scheduleMirroring();
      log_.debug("CTLG: WARNING - {} product {} not found / missing files.",
                 state.mirrorDescription(), productId);
      log_.info(
          "Previously copied product {} missing from local storage. This product will be "
          "re-download.",
          productId);
    }
  }
  for (const std::string& productId : removed) removeProductForProductId(productId);
  if (!removed.empty()) commitCatalogProductRemovals();
}

Plist KTSCatalog::mirrorRepresentationForProduct(KTSProduct& product) const {
  const Plist& master = product.masterRepresentation();
  Plist result = master.isDictionary() ? master : Plist::dictionary();
  const KTSServerLayout& layout = product.layout();
  auto childURL = [&layout](const Plist& upstream) {
    return Plist(
        KTSPath::pathWithString(upstream.stringValue()).asChildServerURL(layout).value_or(""));
  };
  Plist distributions = Plist::dictionary();
  for (const auto& [language, url] : master[KTCatalogProductDistributionsDictKey].items()) {
    distributions.set(language, childURL(url));
  }
  result.set(KTCatalogProductDistributionsDictKey, std::move(distributions));
  Plist packages = Plist::array();
  for (const Plist& package : master[KTCatalogProductPackagesKey].elements()) {
    Plist served = package.isDictionary() ? package : Plist::dictionary();
    served.set(KTCatalogPackageURLStringKey, childURL(package[KTCatalogPackageURLStringKey]));
    if (package.contains(KTCatalogPackageMetadataURLStringKey)) {
      served.set(KTCatalogPackageMetadataURLStringKey,
                 childURL(package[KTCatalogPackageMetadataURLStringKey]));
    }
    packages.append(std::move(served));
  }
  result.set(KTCatalogProductPackagesKey, std::move(packages));

  const std::string productId = product.productId().value_or("");
  if (!product.smdPath() && master["ServerMetadataURL"].isString()) {
    KTSPath path = KTSPath::pathWithString(master["ServerMetadataURL"].stringValue());
    if (path.parentServerURL()) {
      product.setSmdPath(path);
      log_.debug(
          "SYNC: (internal) mirror representation required generated smd path for product "
          "{}",
          productId);
    }
  }
  if (!product.smdPath()) {
    log_.debug("CTLG: (internal) mirror representation has no .smd URL for product {}", productId);
    // The upstream's URL would send clients elsewhere than this server.
    result.remove("ServerMetadataURL");
    return result;
  }
  // Like every file a served entry names, the metadata must be on disk here: one that was
  // refused or never fetched is not named. In a pass it is looked at once, as every served
  // catalog's record of its inputs sees it.
  const std::optional<std::string>& local = product.serverMetadataLocalPath();
  std::optional<std::string> served = product.smdPath()->asChildServerURL(layout);
  KTSPassRecord* record = context_.record();
  auto onDisk = [record, &local] {
    return record != nullptr ? !record->stampOfSettledFile(local).empty()
                             : KTSUtilities::sizeOfExistingItemAtPath(*local).has_value();
  };
  if (served && local && layout.isInsideHtmlFolder(*local) && onDisk()) {
    result.set("ServerMetadataURL", *served);
  } else {
    log_.debug("CTLG: (internal) the .smd file of product {} is not on this server", productId);
    result.remove("ServerMetadataURL");
  }
  return result;
}

}  // namespace ondrel
