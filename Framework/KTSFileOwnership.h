// KTSFileOwnership knows, during a pass, which product each mirrored file belongs to, so that one
// product's file never lands on another's and a product deletes only the files it owns. A path
// belongs to the first product that claims it: products that clients are being served claim
// first, then the others in the order given. The order is fixed when it is made; the claims are
// made at the first question, which a pass that removes and places no file never asks. Used by
// the sync pass and KTSProduct. One thread.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "KTSPathKeys.h"
#include "Plist.h"

namespace ondrel {

class KTSProduct;

class KTSFileOwnership {
 public:
  // Every mirror file of the products is to be claimed (each product once, whatever the
  // catalogs), in the order their states give now.
  explicit KTSFileOwnership(const std::vector<std::shared_ptr<KTSProduct>>& products);

  // The id of the product other than productId that owns path; none when the path is free or
  // productId's own.
  const std::string* otherOwnerOfPath(const std::string& path, const std::string& productId) const;

 private:
  void claimFiles() const;

  // Each product's id and file list, in the order they claim their files, until they did.
  mutable std::vector<std::pair<std::string, Plist>> claimOrder_;
  mutable KTSPathKeys::Map<std::string> owners_;
  mutable bool claimed_ = false;
};

}  // namespace ondrel
