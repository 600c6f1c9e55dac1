#include "KTSProductTable.h"

#include "KTSProduct.h"
#include "KTSProductChange.h"

namespace ondrel {

bool KTSProductTable::namesSameFiles(const Plist& some, const Plist& others) {
  return some.sharesStorageWith(others) || some == others;
}

void KTSProductTable::join(const std::shared_ptr<KTSProduct>& product) {
  std::vector<std::weak_ptr<KTSProduct>>& copies = copies_[*product->productId()];
  for (const auto& joined : copies) {
    std::shared_ptr<KTSProduct> copy = joined.lock();
    if (copy && copy != product && namesSameFiles(copy->mirrorFiles(), product->mirrorFiles())) {
      product->state().shareProductPartOf(copy->state());
      break;
    }
  }
  copies.push_back(product);
}

std::vector<std::shared_ptr<KTSProduct>> KTSProductTable::copiesOf(
    const std::string& productId) const {
  std::vector<std::shared_ptr<KTSProduct>> held;
  auto found = copies_.find(productId);
  if (found == copies_.end()) return held;
  for (const auto& joined : found->second) {
    if (std::shared_ptr<KTSProduct> copy = joined.lock()) held.push_back(std::move(copy));
  }
  return held;
}

std::shared_ptr<KTSProduct> KTSProductTable::representativeOf(const std::string& productId) const {
  std::vector<std::shared_ptr<KTSProduct>> copies = copiesOf(productId);
  for (const auto& copy : copies) {
    if (!copy->state().hasStanding()) return copy;
  }
  return copies.empty() ? nullptr : copies.front();
}

// Each copy's standing is its catalog's, so the change is carried out through every copy; the
// part they share takes it once, and the rules make a second application change nothing.
std::vector<std::shared_ptr<KTSProduct>> KTSProductTable::applyChange(
    const std::string& productId, const KTSProductChange& change) const {
  std::vector<std::shared_ptr<KTSProduct>> copies = copiesOf(productId);
  for (const auto& copy : copies) change.applyToState(copy->state());
  return copies;
}

}  // namespace ondrel
