// KTSProductTable is a pass's one place for the state of each product. Every catalog lists its
// own copy of a product (with the catalog's own entry and standing); the table makes the copies
// that name the same files share one product part of their state (KTSProductState), so what
// happens to the product's files or its enable through one copy is what every catalog sees, and
// nothing is carried from one catalog's copy to another's. Copies that name other files (the
// catalogs disagree on a file's size) get a part of their own: whether files are in place depends
// on the sizes named. A change the administration side asked for is applied here, once per
// product. The sync pass keeps one for the pass and joins every catalog's products once the
// catalogs are loaded (each catalog's sync works out its states on its own copies). It holds the
// copies weakly: a product a catalog drops leaves it. One thread.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "Plist.h"

namespace ondrel {

class KTSProduct;
struct KTSProductChange;

class KTSProductTable {
 public:
  // Whether two copies' file records name the same files at the same sizes (copies made from
  // alike entries share their records).
  static bool namesSameFiles(const Plist& some, const Plist& others);

  // Requires: product has a product id. Makes its state share the product part of the first
  // copy joined before that names the same files; the product keeps its standing. The first copy
  // joined keeps its own part.
  void join(const std::shared_ptr<KTSProduct>& product);
  // The copies joined for productId that a catalog still holds, in the order they joined.
  std::vector<std::shared_ptr<KTSProduct>> copiesOf(const std::string& productId) const;
  // The copy whose state stands for the product where one record is kept for it (the working
  // set): the first a catalog lists as current, else the first; null when none is held.
  std::shared_ptr<KTSProduct> representativeOf(const std::string& productId) const;
  // Applies change to the product whatever copies the catalogs hold of it; returns those copies
  // (none when no catalog lists the product).
  std::vector<std::shared_ptr<KTSProduct>> applyChange(const std::string& productId,
                                                       const KTSProductChange& change) const;

 private:
  std::unordered_map<std::string, std::vector<std::weak_ptr<KTSProduct>>> copies_;
};

}  // namespace ondrel
