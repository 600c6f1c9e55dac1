#include "KTSProductTable.h"

#include "KTSPath.h"
#include "KTSProduct.h"
#include "KTSProductChange.h"
#include "KTSUtilities.h"
#include "PathString.h"

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

void KTSProductTable::filesFoundInPlace(const Plist& mirrorFiles) {
  for (const Plist& record : mirrorFiles.elements()) {
    const Plist& size = record[KTSProduct::kFileSizeKey];
    FileState& file =
        files_[standardizingPath(record[KTSProduct::kFileLocalPathKey].stringValue())];
    file.presence = FileState::InPlace;
    if (size.isNumber()) file.size = size.integerValue();
  }
}

void KTSProductTable::fileFetching(const std::string& path) {
  files_[standardizingPath(path)] = {FileState::Fetching, std::nullopt};
}

void KTSProductTable::filePlaced(const std::string& path, std::optional<std::int64_t> size) {
  if (!size) return fileChanged(path);
  files_[standardizingPath(path)] = {FileState::InPlace, size};
}

void KTSProductTable::fileChanged(const std::string& path) {
  files_.erase(standardizingPath(path));
}

KTSProductTable::FileState& KTSProductTable::knownFile(const std::string& path, bool sizeWanted) {
  auto [known, added] = files_.try_emplace(standardizingPath(path));
  FileState& file = known->second;
  // Found in place for a record without a size, its size is looked at once a record names one.
  if (added || (sizeWanted && file.presence == FileState::InPlace && !file.size)) {
    std::optional<std::int64_t> size;
    if (KTSPath::isInsideHtmlFolder(path)) size = KTSUtilities::sizeOfExistingItemAtPath(path);
    file = {size ? FileState::InPlace : FileState::Absent, size};
  }
  return file;
}

KTSProductTable::FileState KTSProductTable::fileState(const std::string& path) {
  return knownFile(path, true);
}

bool KTSProductTable::filesInPlace(const Plist& mirrorFiles) {
  for (const Plist& record : mirrorFiles.elements()) {
    const Plist& size = record[KTSProduct::kFileSizeKey];
    const FileState& file =
        knownFile(record[KTSProduct::kFileLocalPathKey].stringValue(), size.isNumber());
    if (file.presence != FileState::InPlace ||
        (size.isNumber() && file.size != size.integerValue())) {
      return false;
    }
  }
  return true;
}

}  // namespace ondrel
