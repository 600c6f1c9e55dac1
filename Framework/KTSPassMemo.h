// KTSPassMemo is the memo of one pass: the products built during it share what does not depend
// on the catalog that lists them. While one lives, each server metadata URL is fetched and read
// once (a fetch that failed is not retried for the next catalog either), equal values recorded
// under the same key, such as a product's file list, share one copy in memory, and each file of
// a product is looked at once. The sync daemon holds one while a pass loads its catalogs, so
// every pass fetches and looks anew; without one nothing is shared. Used by KTSProduct. One
// thread; the newest instance is in effect until it ends.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "KTSPath.h"
#include "Plist.h"

namespace ondrel {

class KTSPassMemo {
 public:
  // A server metadata file as the first product of the pass got it: its contents (null when
  // the fetch failed) and where it came from.
  struct ServerMetadata {
    Plist contents;
    std::optional<KTSPath> smdPath;
  };

  KTSPassMemo();
  ~KTSPassMemo();
  KTSPassMemo(const KTSPassMemo&) = delete;
  KTSPassMemo& operator=(const KTSPassMemo&) = delete;

  static bool isInEffect() { return current_ != nullptr; }
  // What the current pass got from url; none outside a pass or before the first fetch.
  static const ServerMetadata* serverMetadataFetchedFrom(const std::string& url);
  static void recordServerMetadataFetchedFrom(const std::string& url, ServerMetadata metadata);
  // value itself, or the identical value recorded under key earlier in the current pass, which
  // then shares its storage; value unchanged outside a pass.
  static Plist shareEqualValue(const std::string& key, Plist value);
  // The size of the item at path (none when there is none), looked at once in the current pass:
  // the catalogs that list a product check its files alike. A file written while the memo is
  // in effect is forgotten first. Outside a pass, looked at every time.
  static std::optional<std::int64_t> sizeOfExistingItemAtPath(const std::string& path);
  static void forgetItemAtPath(const std::string& path);

 private:
  struct Memory {
    std::map<std::string, ServerMetadata, std::less<>> serverMetadata;
    std::map<std::string, Plist, std::less<>> values;
    std::map<std::string, std::optional<std::int64_t>, std::less<>> itemSizes;
  };

  // The memory of the pass in effect; only its thread builds products.
  static Memory* current_;

  Memory memory_;
  Memory* previous_;
};

}  // namespace ondrel
