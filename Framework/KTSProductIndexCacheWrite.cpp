#include "KTSProductIndexCacheWrite.h"

#include <memory>

#include "KTSCatalog.h"
#include "KTSPassContext.h"
#include "KTSPassRecord.h"
#include "KTSProduct.h"
#include "KTSUtilities.h"
#include "PlistXmlArrayFile.h"
#include "SecondThread.h"

namespace ondrel {

KTSProductIndexCacheWrite::KTSProductIndexCacheWrite(const std::vector<KTSCatalog*>& catalogs) {
  struct Walk {
    KTSCatalog::ProductIndex::const_iterator next;
    KTSCatalog::ProductIndex::const_iterator end;
  };
  std::vector<Walk> walks;
  std::vector<std::string> paths;
  for (KTSCatalog* catalog : catalogs) {
    catalog->log_.debug("CTLG: saving product index cache to {}", catalog->productsCachePath_);
    if (catalog->products_) {
      catalogs_.push_back(catalog);
      walks.push_back({catalog->products_->begin(), catalog->products_->end()});
      paths.push_back(catalog->productsCachePath_);
      KTSPassRecord* record = catalog->context_.record();
      inputs_.push_back(record ? catalog->productIndexCacheInputs(*record) : "");
    } else if (KTSUtilities::fileExistsAtPath(catalog->productsCachePath_)) {
      KTSUtilities::removePath(catalog->productsCachePath_);
    }
  }
  // One walk over every cache's products in identifier order, the order of each cache: a
  // product the caches share (the same object) gets one record.
  std::vector<Element> elements;
  for (;;) {
    const std::string* lowest = nullptr;
    for (const Walk& walk : walks) {
      if (walk.next != walk.end && (!lowest || walk.next->first < *lowest)) {
        lowest = &walk.next->first;
      }
    }
    if (!lowest) break;
    const std::string& productId = *lowest;
    const KTSProduct* recorded = nullptr;
    for (std::size_t cache = 0; cache < walks.size(); ++cache) {
      Walk& walk = walks[cache];
      if (walk.next == walk.end || walk.next->first != productId) continue;
      const KTSProduct* product = (walk.next++)->second.get();
      if (product != recorded) {
        recorded = product;
        elements.push_back({product->archiveRepresentation(), {}});
      }
      // Products whose archive form is null are left out.
      if (!elements.back().archive.isNull()) elements.back().caches.push_back(cache);
    }
  }
  writing_ = runOnSecondThread([paths = std::move(paths), elements = std::move(elements)] {
    return write(paths, elements);
  });
}

// Each record is turned into text as it is written: no cache is ever held in memory whole.
std::vector<KTSProductIndexCacheWrite::Written> KTSProductIndexCacheWrite::write(
    const std::vector<std::string>& paths, const std::vector<Element>& elements) {
  // Opened with the first product written: a catalog without any leaves no file.
  std::vector<std::unique_ptr<PlistXmlArrayFile>> files(paths.size());
  std::string text;
  for (const Element& element : elements) {
    if (element.caches.empty()) continue;
    text.clear();
    PlistXmlArrayFile::elementText(element.archive, &text);
    for (std::size_t cache : element.caches) {
      if (!files[cache]) files[cache] = std::make_unique<PlistXmlArrayFile>(paths[cache]);
      files[cache]->appendText(text);
    }
  }
  // A cache is made again from the composite catalog and the products' states: a crash before
  // its bytes reach the disk costs only writing it again.
  std::vector<Written> written(paths.size());
  for (std::size_t cache = 0; cache < paths.size(); ++cache) {
    if (files[cache]) written[cache].written = files[cache]->finish(false, &written[cache].error);
  }
  return written;
}

void KTSProductIndexCacheWrite::finish() {
  if (!writing_.valid()) return;
  std::vector<Written> written = writing_.get();
  for (std::size_t cache = 0; cache < catalogs_.size(); ++cache) {
    KTSCatalog& catalog = *catalogs_[cache];
    if (written[cache].written) {
      if (KTSPassRecord* record = catalog.context_.record()) {
        record->recordFile(catalog.productsCachePath_, inputs_[cache]);
      }
      continue;
    }
    if (!written[cache].error.empty()) {
      catalog.log_.debug("CTLG: product index cache save failed! {}", written[cache].error);
    }
    if (KTSUtilities::fileExistsAtPath(catalog.productsCachePath_)) {
      KTSUtilities::removePath(catalog.productsCachePath_);
    }
  }
}

}  // namespace ondrel
