// KTSWorkingSet is the product list the sync daemon and the administration side share: every
// product's states, sizes and settings in one file. The daemon merges each catalog's products
// into it and records state changes; the administration side edits "mirror" and "enable" and
// saves; each reloads when the other has rewritten the file. One thread per instance; processes
// meet only through the file, which is always replaced whole.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "KTSLogger.h"
#include "KTSProductState.h"
#include "Plist.h"

namespace ondrel {

class KTSPassRecord;
class KTSPreferences;
class KTSProduct;

class KTSWorkingSet {
 public:
  using ProductsById = std::map<std::string, std::shared_ptr<KTSProduct>>;

  // Where the server keeps it, before the preferences map it into their service root.
  static std::string defaultPath();
  // Maps path through the preferences' status working path and loads it.
  KTSWorkingSet(const KTSPreferences& preferences, const std::string& path);

  void refreshProducts();
  // Inverted on purpose: true when the file exists but cannot be used (the records in memory
  // stay); false after a successful load, for a file without products, or when no file could
  // be made.
  bool loadProducts();
  // Replaces the file whole; with a pass record, records the file written in it.
  bool saveProductsArchivingPrevious(bool archivePrevious, KTSPassRecord* record = nullptr);
  bool initProductCache();
  void setProductCache(Plist products);
  // Merges a catalog's products, keeping the administration side's "mirror" and "enable" and
  // every record of other products, then saves. Revocations are accepted and ignored.
  bool updateWithProductsAndRevocationsArchivingPrevious(const ProductsById& products,
                                                         const Plist& revocations,
                                                         bool archivePrevious);
  // The merge alone, in memory.
  void mergeProducts(const ProductsById& products);
  // Records a product's changed state; saves at most once a second (recording the file in the
  // pass record, when there is one).
  void updateProductStatus(const KTSProduct& product, KTSPassRecord* record = nullptr);
  // Records a product's changed state in memory; true when it changed.
  bool applyProductStatus(const KTSProduct& product);
  // Saves unless the records are exactly those of the file on disk as the pass record shows it;
  // the file replaced becomes ".previous" when archivePrevious is true.
  bool saveProductsUnlessCurrent(bool archivePrevious, KTSPassRecord* record);
  // The record of a product, or null when it lacks required data.
  Plist representationForProduct(const KTSProduct* product) const;

  // Gives a product just made what its record holds (mirror, enable and fetch settings, and
  // the posting date when the product's own is assumed), and lets the record hold the product's
  // copy of the texts both hold alike, so that the two share memory. A product without a record
  // keeps its defaults.
  void restoreSettingsOfProduct(KTSProduct& product);

  Plist productDictForID(const std::string& productId) const;
  void setProductDictForID(const Plist& record, const std::string& productId);
  bool containsProductID(const std::string& productId) const;
  std::int32_t mirrorSettingForProductID(const std::string& productId) const;
  void setMirrorSettingForProductID(std::int32_t state,
                                    const std::optional<std::string>& productId);
  bool enableSettingForProductID(const std::string& productId) const;
  void setEnableSettingForProductID(bool enable, const std::optional<std::string>& productId);
  // How the product's files are to come ("fetchPolicy"); a product without a record gets none.
  void setFetchPolicyForProductID(KTSProductState::FetchPolicy policy,
                                  const std::string& productId);

  const std::string& currentPath() const { return currentPath_; }
  const Plist& products() const { return products_; }
  const std::optional<Date>& cacheDate() const { return cacheDate_; }
  bool cacheDirty() const { return cacheDirty_; }
  const std::optional<Date>& lastWrite() const { return lastWrite_; }

 private:
  // The file as this process last loaded or saved it: its modification time at full resolution
  // and its inode (every save replaces the file, so another process's save changes it).
  struct FileStamp {
    std::optional<Date> modified;
    std::optional<std::uint64_t> identity;
    bool operator==(const FileStamp&) const = default;
  };
  FileStamp currentFileStamp() const;
  static void setFetchPolicyIn(Plist& record, KTSProductState::FetchPolicy policy);
  void setSettingForProductID(const char* key, Plist value,
                              const std::optional<std::string>& productId);

  std::string currentPath_;
  Plist products_;
  // The records as last loaded from or saved to the file.
  Plist savedProducts_;
  std::optional<Date> cacheDate_;
  bool cacheDirty_ = false;
  std::optional<Date> lastWrite_;
  FileStamp cachedFileStamp_;
  LogHandle log_;
};

}  // namespace ondrel
