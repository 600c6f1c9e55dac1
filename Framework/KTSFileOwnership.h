// KTSFileOwnership knows, during a pass, which product each mirrored file belongs to, so that one
// product's file never lands on another's and a product deletes only the files it owns. A path
// belongs to the first product that claims it: products that clients are being served claim
// first, then the others in the order given. Used by the sync pass and KTSProduct. One thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "KTSPathKeys.h"

namespace ondrel {

class KTSProduct;

class KTSFileOwnership {
 public:
  // Claims every mirror file of the products (each product once, whatever the catalogs).
  explicit KTSFileOwnership(const std::vector<std::shared_ptr<KTSProduct>>& products);

  // The id of the product other than productId that owns path; none when the path is free or
  // productId's own.
  const std::string* otherOwnerOfPath(const std::string& path, const std::string& productId) const;

 private:
  void claimFilesOfProduct(const KTSProduct& product);

  KTSPathKeys::Map<std::string> owners_;
};

}  // namespace ondrel
