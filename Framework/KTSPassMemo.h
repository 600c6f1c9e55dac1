// KTSPassMemo is the memo of one pass: the products built during it share what does not depend
// on the catalog that lists them. While a pass context holds one, each server metadata URL is
// fetched and read once (a fetch that failed is not retried for the next catalog either), equal
// values recorded for one product, such as its file list, share one copy in memory, the files of
// a list are checked once, and a product listed alike by several catalogs is made once and
// copied. The sync pass puts a new one in its context while it loads the catalogs, so every pass
// fetches and looks anew; without one nothing is shared. While one catalog's products are made,
// the next catalog's composite catalog is read on a second thread. Used by KTSProduct, KTSCatalog
// and the sync pass. One thread (the checks of file lists queued ahead and the reading ahead run
// on threads of their own, which the memo waits for when it goes).
#pragma once

#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "KTSFileCheckAhead.h"
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

  KTSPassMemo() = default;
  KTSPassMemo(const KTSPassMemo&) = delete;
  KTSPassMemo& operator=(const KTSPassMemo&) = delete;

  // What the pass got from url; none before the first fetch.
  const ServerMetadata* serverMetadataFetchedFrom(const std::string& url) const;
  void recordServerMetadataFetchedFrom(const std::string& url, ServerMetadata metadata);
  // What of a product equal values are shared for.
  enum class ProductValue { BundleNames, Descriptions, MirrorFiles };
  // value itself, or the identical value recorded for the product earlier in the pass, which
  // then shares its storage.
  Plist shareEqualValue(const std::string& productId, ProductValue kind, Plist value);
  // A file is about to be written or replaced: what products' checks found is forgotten, since
  // any list may name it.
  void fileWillChange();
  // Whether the files of this very list (the same storage) were all in place when a product
  // checked them earlier in the pass, or when a check queued ahead found them so (waiting for it
  // when it is still to run); none when neither did.
  std::optional<bool> filesVerifiedEarlier(const std::string& productId, const Plist& mirrorFiles);
  void recordFilesVerified(const std::string& productId, const Plist& mirrorFiles, bool verified);
  // Has check look at the files of the list on another thread while the pass goes on, unless
  // this very list was checked already.
  void checkFilesAhead(const std::string& productId, const Plist& mirrorFiles,
                       KTSFileCheckAhead::Check check);
  // Each product id with the file list checked last and whether its files were all in place.
  using FilesVerified = std::map<std::string, std::pair<Plist, bool>, std::less<>>;
  // What the pass found so far.
  const FilesVerified& filesVerified() const { return memory_.verifiedFiles; }
  // The product as first made in the pass from a catalog entry, before any catalog's settings
  // and policies touched it; null before it was made.
  std::shared_ptr<const KTSProduct> productMadeFirst(const std::string& productId) const;
  void recordProductMadeFirst(const std::string& productId,
                              std::shared_ptr<const KTSProduct> product);
  // The property list file to read on a second thread once the catalog now loading has fetched
  // its server metadata (those requests keep both cores busy), while it makes its products;
  // replaces one named before that was not read. An empty path names none.
  void readWhenMetadataFetched(std::string path);
  // The catalog now loading has fetched its server metadata.
  void serverMetadataFetched();
  // The property list read ahead from path, when the file is still as it was read; null when
  // none was, or it could not be read (the caller reads it, and learns why).
  Plist takeReadAhead(const std::string& path);

 private:
  struct Memory {
    // Looked up for every entry of every catalog: hashed rather than ordered.
    std::unordered_map<std::string, ServerMetadata> serverMetadata;
    std::map<std::pair<std::string, ProductValue>, Plist> values;
    std::unordered_map<std::string, std::shared_ptr<const KTSProduct>> products;
    FilesVerified verifiedFiles;
  };

  // What was recorded of this very list: a check the pass made, or an answer from ahead it took.
  std::optional<bool> recordedCheckOf(const std::string& productId, const Plist& mirrorFiles) const;

  // A file read ahead: its stamp from before it was read, and what it held.
  struct ReadAhead {
    std::optional<std::string> stamp;
    Plist contents;
  };

  Memory memory_;
  KTSFileCheckAhead checkAhead_;
  std::string toReadAhead_;
  std::string readingAhead_;
  std::future<ReadAhead> readAhead_;
};

}  // namespace ondrel
