// KTSProductIndexCacheWrite writes the product index caches of several catalogs side by side on
// a thread of its own, so that the sync pass writes its served catalogs meanwhile; KTSCatalog
// uses it to write caches at once. The caches are large (the larger catalogs list the smaller
// ones' products again). Made on the pass's thread, it turns each product the caches list into
// its archive record once, a copy of the product as it is then that nothing the pass does later
// changes, and takes what the pass record is to keep of each cache; the writing thread turns each
// record into text once, appends it to every cache that lists it and places the files. finish(),
// on the pass's thread, waits for that and records each cache written in the pass record, or
// logs and removes one that could not be written. The writing thread touches only those records
// and files (it logs nothing); the destructor waits for it. Made, finished and destroyed on one
// thread; the catalogs must outlive it.
#pragma once

#include <cstddef>
#include <future>
#include <string>
#include <vector>

#include "Plist.h"

namespace ondrel {

class KTSCatalog;

class KTSProductIndexCacheWrite {
 public:
  explicit KTSProductIndexCacheWrite(const std::vector<KTSCatalog*>& catalogs);
  KTSProductIndexCacheWrite(const KTSProductIndexCacheWrite&) = delete;
  KTSProductIndexCacheWrite& operator=(const KTSProductIndexCacheWrite&) = delete;

  // Waits for the files and settles each cache; nothing more on a later call.
  void finish();

 private:
  // A product's archive record and the caches (indexes into catalogs_) that list it.
  struct Element {
    Plist archive;
    std::vector<std::size_t> caches;
  };
  struct Written {
    bool written = false;
    std::string error;
  };
  static std::vector<Written> write(const std::vector<std::string>& paths,
                                    const std::vector<Element>& elements);

  std::vector<KTSCatalog*> catalogs_;
  // What the pass record keeps of each cache, taken as its records were.
  std::vector<std::string> inputs_;
  // Its destruction waits for the writing thread.
  std::future<std::vector<Written>> writing_;
};

}  // namespace ondrel
