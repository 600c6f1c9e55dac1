// KTSCatalog is one upstream catalog as this server keeps it: the last downloaded copy, the
// composite catalog (every product ever seen, with its state NEW, RECURRING, DEPRECATED or
// ORPHANED), and the product index built from it with the working set's settings, the automatic
// policies, the deprecation chains and the check of files on disk. The sync pass creates one per
// catalog of the meta-index, with the pass context it works in (which must outlive it), and
// drives it from one thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "KTSLogger.h"
#include "Plist.h"
#include "Url.h"

namespace ondrel {

class KTSCatalogDownloader;
class KTSError;
class KTSFetchScheduler;
class KTSPassContext;
class KTSPassRecord;
class KTSProduct;
class KTSProductState;

class KTSCatalog {
 public:
  enum CompositeState : std::int64_t {
    Unknown = 0,
    New = 1,
    Recurring = 2,
    Deprecated = 3,
    Orphaned = 4
  };
  using ProductIndex = std::map<std::string, std::shared_ptr<KTSProduct>>;

  static std::shared_ptr<KTSCatalog> catalogWithUrl(const Url& url, KTSPassContext& context);
  // Loads each catalog of the context's meta-index from its product index cache, without the
  // network (nor the composite catalog, which stays empty), and hands it to visit; a catalog
  // without a usable cache is left out.
  static void forEachCachedCatalog(KTSPassContext& context,
                                   const std::function<void(const KTSCatalog&)>& visit);
  static std::string compositeProductStringForStateValue(std::int64_t state);
  static std::int64_t compositeProductStateForString(const std::string& name);

  KTSCatalog(const Url& catalogURL, KTSPassContext& context);
  ~KTSCatalog();

  // Restores the product index without the network: from the cache, else rebuilt.
  void loadCatalog();
  // Downloads, merges, rebuilds the index and runs the policies. A merge that cannot be made
  // (no usable upstream catalog) throws KTSError and changes nothing.
  void syncCatalogWithDeprecationsForcingUpdate(const Plist& deprecations, bool force);
  // The same without saving the product index cache: a pass saves it once its products are
  // mirrored.
  void syncCatalogLeavingCache(const Plist& deprecations, bool force);
  // Reads the composite catalog from its file (made from the upstream copy's previous version when
  // there is none yet): empty without a file, null when the file is unusable.
  void loadCompositeCatalog();
  // The catalog read from path after an optional download; null when there is none.
  Plist downloadCatalogToPathForcingUpdate(const std::string& path, bool force);
  // Starts the download of the upstream catalog through scheduler, beside other transfers; the
  // next sync takes its outcome instead of downloading. Run the scheduler before that sync.
  void fetchCatalogAheadWithScheduler(KTSFetchScheduler& scheduler);
  // Merges an upstream catalog into the composite catalog (NEW, RECURRING, DEPRECATED, ORPHANED
  // as the listing and the deprecations say); writes nothing.
  void updateCompositeCatalogWithCatalog(const Plist& catalog);

  // Drops from the composite catalog the products the index no longer holds, and writes it when
  // any went.
  void commitCatalogProductRemovals();
  // The product of the index with that id; null when there is none.
  std::shared_ptr<KTSProduct> productForProductId(const std::string& productId) const;
  // Walks the deprecation chain below product (deprecator: the one above it, none at the head):
  // a product whose deprecator or a superior is enabled is marked replaced, one whose deprecator
  // was disabled is kept again. A product met twice ends the walk.
  void updateDeprecatedProductsStatesWithDeprecatorSuperiorEnabled(KTSProduct& product,
                                                                   const KTSProduct* deprecator,
                                                                   bool superiorEnabled);

  // The product index cache: read (false when missing or unusable), written and recorded in the
  // context's pass record, or left as it is when the record shows it was made from this very
  // composite catalog and these products (productIndexCacheIsCurrent, which then records it).
  bool loadProductIndexCache();
  void saveProductIndexCache();
  void saveProductIndexCacheUnlessCurrent();
  bool productIndexCacheIsCurrent();
  // Writes the product index caches of these catalogs side by side and waits for them (see
  // KTSProductIndexCacheWrite, which a pass uses to go on meanwhile).
  static void saveProductIndexCaches(const std::vector<KTSCatalog*>& catalogs);

  // The product's catalog entry with every URL pointing at this server.
  Plist mirrorRepresentationForProduct(KTSProduct& product) const;

  const Url& catalogURL() const { return catalogURL_; }
  const std::string& vantorCatalogPath() const { return vantorCatalogPath_; }
  const std::string& compositeCatalogPath() const { return compositeCatalogPath_; }
  const std::string& productsCachePath() const { return productsCachePath_; }
  const Plist& deprecatedProducts() const { return deprecatedProducts_; }
  void setDeprecatedProducts(const Plist& deprecations);
  const std::string& updatesDocRoot() const { return updatesDocRoot_; }
  const std::string& catalogPrimePath() const { return catalogPrimePath_; }
  const Plist& compositeCatalog() const { return compositeCatalog_; }
  // True after a sync whose merge left the composite catalog exactly as the pass record shows
  // the last pass left it.
  bool compositeUnchanged() const { return compositeUnchanged_; }
  const std::optional<ProductIndex>& products() const { return products_; }
  void setProducts(std::optional<ProductIndex> products) { products_ = std::move(products); }
  // False when the last download of the upstream catalog failed (the sync then merged the copy
  // it had, if any); true before any download.
  bool lastDownloadSucceeded() const { return lastDownloadSucceeded_; }
  const LogHandle& logger() const { return log_; }

 private:
  friend class KTSProductIndexCacheWrite;

  // Writes the composite catalog, and records it in the context's pass record.
  void saveCompositeCatalog();
  // After a merge: writes the composite catalog unless the merge left it exactly as the pass
  // record shows it on disk.
  void saveMergedCompositeCatalog();
  // True, with the composite catalog recorded as unchanged, when the pass record shows that
  // merging the fetched upstream copy would change nothing.
  bool mergeChangesNothing(const Plist& deprecations);
  bool shouldIgnoreProductForDictionaryWithIdentifier(const Plist& dictionary,
                                                      const std::string& identifier);
  Plist makeCompositeProductForIDAndDictionaryProductState(const std::string& productId,
                                                           const Plist& dictionary,
                                                           std::int64_t state) const;
  // The product index. True when it was rebuilt from the composite catalog.
  bool loadProductIndexForcingUpdate(bool force);
  std::shared_ptr<KTSProduct> makeProductItemForProductIDError(const std::string& productId,
                                                               std::optional<KTSError>* error);
  // A copy of the product made from an entry like this one by another catalog in this pass;
  // null when there is none (and always without a pass memo).
  std::shared_ptr<KTSProduct> madeEarlierInPass(const std::string& productId,
                                                const Plist& entry) const;
  void mergeWorkingSetProductsStates();
  void removeProductForProductId(const std::string& productId);
  // Deprecations.
  bool isDeprecatedProductID(const std::string& productId) const;
  Plist getDeprecatedProductsForProductID(const std::string& productId) const;
  Plist getDeprecatorsForProductID(const std::string& productId) const;
  void updateAllDeprecatedProductsStates();
  // Automatic policies.
  void applyGlobalProductPreferences();
  void applyAutoMirrorsForAllProducts();
  void applyAutoEnablesForAllProducts();
  void cancelPendingAutoRequestsForAllProducts();
  std::int64_t compositeStateForProduct(const KTSProduct& product) const;
  // Whether a product in this state has its files checked each pass: one mirrored or with
  // standing, unless its files come on demand.
  static bool filesAreVerified(const KTSProductState& state);
  void verifyAllProductDownloadStates();
  // The steps of the merge: the upstream catalog's index date (now, told, when it has none), then
  // the entries of the products it lists (NEW or RECURRING) and of those it no longer lists
  // (DEPRECATED or ORPHANED, or none when purged), each gathered into merged.
  Date indexDateOfCatalog(const Plist& catalog) const;
  void mergeListedProducts(const Plist& incoming, const Plist& old,
                           std::vector<Plist::Dictionary::Entry>& merged);
  void mergeUnlistedProducts(const Plist& incoming, const Plist& old, bool purge,
                             std::vector<Plist::Dictionary::Entry>& merged);
  // Fetches ahead the server metadata of the composite catalog's products (see KTSServerMetadata).
  void prefetchServerMetadata();
  // Makes the composite catalog hold the very entries the products hold.
  void shareEntriesOfProducts(const ProductIndex& products);
  // The digest of what the product index cache is made from besides the composite catalog: the
  // products' states and their server metadata files.
  std::string productIndexCacheInputs(KTSPassRecord& record) const;
  void updateDeprecatedProductsStatesInWalk(KTSProduct& product, const KTSProduct* deprecator,
                                            bool superiorEnabled, std::set<std::string>& visited);

  Url catalogURL_;
  KTSPassContext& context_;
  std::string vantorCatalogPath_;
  std::string compositeCatalogPath_;
  std::string productsCachePath_;
  Plist deprecatedProducts_;
  // Who deprecates each product, in the deprecations' key order: built once per sync, so the
  // merge does not scan the whole deprecations list for every product.
  std::map<std::string, std::vector<std::string>, std::less<>> deprecatorsById_;
  std::string updatesDocRoot_;
  std::string catalogPrimePath_;
  Plist compositeCatalog_;
  // The composite catalog as loaded, while a merge may still change it, and whether the pass
  // record showed the file as the last pass left it.
  Plist loadedComposite_;
  bool compositeAsRecorded_ = false;
  // The digest of what this sync's merge is made from: the upstream copy and the deprecations.
  std::string mergeInputs_;
  // True when this sync's merge left the composite catalog exactly as the last pass recorded it.
  bool compositeUnchanged_ = false;
  std::optional<ProductIndex> products_;
  bool lastDownloadSucceeded_ = true;
  // The download of the upstream catalog started ahead of the sync; kept until the sync takes it.
  std::shared_ptr<KTSCatalogDownloader> fetchAhead_;
  LogHandle log_;
};

}  // namespace ondrel
