#include "KTSProductTable.h"

#include <algorithm>
#include <filesystem>

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

void KTSProductTable::listsFoundAtLoad(const KTSPassMemo::FilesVerified& found) {
  for (const auto& [productId, list] : found) {
    listsChecked_[productId].push_back(
        {list.first, filesGeneration_ + 1, list.second, list.second});
  }
}

void KTSProductTable::fileFetching(const Plist& path) {
  ++filesGeneration_;
  files_[KTSPathKeys::standardKey(path)] = {{FileState::Fetching, std::nullopt}, true};
}

void KTSProductTable::filePlaced(const Plist& path, std::optional<std::int64_t> size,
                                 const std::optional<std::string>& sha256,
                                 const std::string& productId) {
  Plist standard = KTSPathKeys::standardKey(path);
  if (digests_ != nullptr && sha256) digests_->recordFile(standard, *sha256, productId);
  if (!size) return fileChanged(standard);
  ++filesGeneration_;
  files_[standard] = {{FileState::InPlace, size}, true};
}

void KTSProductTable::fileRemoved(const Plist& path) {
  fileChanged(path);
  std::error_code error;
  if (digests_ != nullptr &&
      !std::filesystem::exists(std::filesystem::symlink_status(path.stringValue(), error))) {
    digests_->forgetFile(standardizingPath(path.stringValue()));
  }
}

void KTSProductTable::fileChanged(const Plist& path) {
  ++filesGeneration_;
  files_[KTSPathKeys::standardKey(path)].current = false;
}

const KTSProductTable::FileState& KTSProductTable::knownFile(const Plist& path, bool sizeWanted) {
  KnownFile& known = files_[KTSPathKeys::standardKey(path)];
  FileState& file = known.state;
  // Found in place for a record without a size, its size is looked at once a record names one.
  if (!known.current || (sizeWanted && file.presence == FileState::InPlace && !file.size)) {
    const std::string& text = path.stringValue();
    std::optional<std::int64_t> size;
    if (layout_.isInsideHtmlFolder(text)) size = KTSUtilities::sizeOfExistingItemAtPath(text);
    known = {{size ? FileState::InPlace : FileState::Absent, size}, true};
  }
  return file;
}

KTSProductTable::FileState KTSProductTable::fileState(const Plist& path) {
  return knownFile(path, true);
}

bool KTSProductTable::recordsInPlace(const Plist& mirrorFiles, bool foundAtLoad) {
  for (const Plist& record : mirrorFiles.elements()) {
    const Plist& path = record[KTSProduct::kFileLocalPathKey];
    const Plist& size = record[KTSProduct::kFileSizeKey];
    // A file the pass has not touched since is as the catalogs found it.
    if (foundAtLoad && files_.count(std::string_view(standardizingPath(path.stringValue()))) == 0) {
      continue;
    }
    const FileState& file = knownFile(path, size.isNumber());
    if (file.presence != FileState::InPlace ||
        (size.isNumber() && file.size != size.integerValue())) {
      return false;
    }
  }
  return true;
}

bool KTSProductTable::filesInPlace(const KTSProduct& product) {
  const Plist& files = product.mirrorFiles();
  if (files.size() == 0) return true;
  std::vector<ListChecked>& checked = listsChecked_[*product.productId()];
  auto known = std::find_if(checked.begin(), checked.end(), [&files](const ListChecked& list) {
    return list.mirrorFiles.sharesStorageWith(files);
  });
  if (known == checked.end()) known = checked.insert(checked.end(), {files, 0, false, false});
  // Generations count from 1 here, so that a list just added is checked.
  if (known->generation != filesGeneration_ + 1) {
    known->inPlace = recordsInPlace(files, known->foundAtLoad);
    known->generation = filesGeneration_ + 1;
  }
  return known->inPlace;
}

}  // namespace ondrel
