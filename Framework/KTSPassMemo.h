// KTSPassMemo is the memo of one pass: the products built during it share what does not depend
// on the catalog that lists them. While one lives, each server metadata URL is fetched and read
// once (a fetch that failed is not retried for the next catalog either), equal values recorded
// for one product, such as its file list, share one copy in memory, and the files of
// a list are checked once; a product listed alike by several catalogs is made once and
// copied. The sync daemon holds one while a pass loads its catalogs, so
// every pass fetches and looks anew; without one nothing is shared. Used by KTSProduct. One
// thread; the newest instance is in effect until it ends.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "KTSPath.h"
#include "Plist.h"

namespace ondrel {

class KTSProduct;

class KTSPassMemo {
 public:
  // A server metadata file as the first product of the pass got it: its contents (null when
  // the fetch failed) and where it came from.
  struct ServerMetadata {
    Plist contents;
    std::shared_ptr<const KTSPath> smdPath;
  };

  KTSPassMemo();
  ~KTSPassMemo();
  KTSPassMemo(const KTSPassMemo&) = delete;
  KTSPassMemo& operator=(const KTSPassMemo&) = delete;

  static bool isInEffect() { return current_ != nullptr; }
  // What the current pass got from url; none outside a pass or before the first fetch.
  static const ServerMetadata* serverMetadataFetchedFrom(const std::string& url);
  static void recordServerMetadataFetchedFrom(const std::string& url, ServerMetadata metadata);
  // What of a product equal values are shared for.
  enum class ProductValue { BundleNames, Descriptions, MirrorFiles };
  // value itself, or the identical value recorded for the product earlier in the current pass,
  // which then shares its storage; value unchanged outside a pass.
  static Plist shareEqualValue(const std::string& productId, ProductValue kind, Plist value);
  // A file is about to be written or replaced while the memo is in effect: what products'
  // checks found is forgotten, since any list may name it.
  static void fileWillChange();
  // Whether the files of this very list (the same storage) were all in place when a product
  // checked them earlier in the current pass; none when none did.
  static std::optional<bool> filesVerifiedEarlier(const std::string& productId,
                                                  const Plist& mirrorFiles);
  static void recordFilesVerified(const std::string& productId, const Plist& mirrorFiles,
                                  bool verified);
  // Each product id with the file list checked last and whether its files were all in place.
  using FilesVerified = std::map<std::string, std::pair<Plist, bool>, std::less<>>;
  // What the current pass found so far; empty outside a pass.
  static FilesVerified filesVerified();
  // The product as first made in the current pass from a catalog entry, before any catalog's
  // settings and policies touched it; null outside a pass or before it was made.
  static std::shared_ptr<const KTSProduct> productMadeFirst(const std::string& productId);
  static void recordProductMadeFirst(const std::string& productId,
                                     std::shared_ptr<const KTSProduct> product);

 private:
  struct Memory {
    std::map<std::string, ServerMetadata, std::less<>> serverMetadata;
    std::map<std::pair<std::string, ProductValue>, Plist> values;
    std::map<std::string, std::shared_ptr<const KTSProduct>, std::less<>> products;
    FilesVerified verifiedFiles;
  };

  // The memory of the pass in effect; only its thread builds products.
  static Memory* current_;

  Memory memory_;
  Memory* previous_;
};

}  // namespace ondrel
