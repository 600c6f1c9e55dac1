#include "KTSFileOwnership.h"

#include "KTSProduct.h"
#include "PathString.h"

namespace ondrel {

KTSFileOwnership::KTSFileOwnership(const std::vector<std::shared_ptr<KTSProduct>>& products) {
  for (const auto& product : products) {
    if (product->state().isInServedState()) claimFilesOfProduct(*product);
  }
  for (const auto& product : products) {
    if (!product->state().isInServedState()) claimFilesOfProduct(*product);
  }
}

void KTSFileOwnership::claimFilesOfProduct(const KTSProduct& product) {
  if (!product.productId()) return;
  for (const Plist& record : product.mirrorFiles().elements()) {
    owners_.try_emplace(KTSPathKeys::standardKey(record[KTSProduct::kFileLocalPathKey]),
                        *product.productId());
  }
}

const std::string* KTSFileOwnership::otherOwnerOfPath(const std::string& path,
                                                      const std::string& productId) const {
  auto found = owners_.find(std::string_view(standardizingPath(path)));
  if (found == owners_.end() || found->second == productId) return nullptr;
  return &found->second;
}

}  // namespace ondrel
