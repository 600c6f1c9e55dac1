#include "KTSFileOwnership.h"

#include "KTSProduct.h"
#include "PathString.h"

namespace ondrel {

KTSFileOwnership::KTSFileOwnership(const std::vector<std::shared_ptr<KTSProduct>>& products) {
  claimOrder_.reserve(products.size());
  for (bool served : {true, false}) {
    for (const auto& product : products) {
      if (product->productId() && product->state().isInServedState() == served) {
        claimOrder_.push_back({*product->productId(), product->mirrorFiles()});
      }
    }
  }
}

void KTSFileOwnership::claimFiles() const {
  for (const auto& [productId, mirrorFiles] : claimOrder_) {
    for (const Plist& record : mirrorFiles.elements()) {
      owners_.try_emplace(KTSPathKeys::standardKey(record[KTSProduct::kFileLocalPathKey]),
                          productId);
    }
  }
  claimOrder_.clear();
  claimOrder_.shrink_to_fit();
  claimed_ = true;
}

const std::string* KTSFileOwnership::otherOwnerOfPath(const std::string& path,
                                                      const std::string& productId) const {
  if (!claimed_) claimFiles();
  auto found = owners_.find(std::string_view(standardizingPath(path)));
  if (found == owners_.end() || found->second == productId) return nullptr;
  return &found->second;
}

}  // namespace ondrel
