#include "KTSServedCatalogs.h"

#include <fmt/format.h>

#include <filesystem>
#include <future>

#include "Clock.h"
#include "CompressedForms.h"
#include "KTCatalogKeys.h"
#include "KTSCatalog.h"
#include "KTSPassContext.h"
#include "KTSPassRecord.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSProductTable.h"
#include "KTSServerLayout.h"
#include "KTSUtilities.h"
#include "PathString.h"
#include "ProductId.h"
#include "SecondThread.h"

namespace ondrel {

KTSServedCatalogs::KTSServedCatalogs(KTSPassContext& context, KTSProductTable& table)
    : context_(context),
      table_(table),
      log_(context.log()),
      rings_(KTSRings::fromPreferences(context.preferences().prefs())) {
  if (rings_.empty()) return;
  rollout_.emplace(KTSRollout::defaultPath(context.layout()));
  if (!rollout_->followed()) servedBefore_ = servedBefore();
}

std::set<std::string> KTSServedCatalogs::servedBefore() const {
  std::set<std::string> served;
  const std::string& folder = context_.layout().catalogsFolder();
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    if (entry->path().extension() != ".ktcatalog" ||
        !std::filesystem::is_regular_file(entry->symlink_status(error))) {
      continue;
    }
    std::string ignored;
    std::optional<Plist> catalog = Plist::readFile(entry->path().string(), &ignored);
    if (!catalog) continue;
    for (const auto& [productId, product] : (*catalog)[KTCatalogProductsDictKey].items()) {
      served.insert(productId.text());
    }
  }
  return served;
}

void KTSServedCatalogs::write(const std::vector<std::shared_ptr<KTSCatalog>>& catalogs,
                              Rollout rollout, std::vector<std::string>& failures) {
  now_ = Clock::now();
  std::vector<Serving> serving;
  for (const auto& catalog : catalogs) serving.push_back(servedProducts(*catalog));
  if (!rollout_) KTSRollout::discard(KTSRollout::defaultPath(context_.layout()));
  if (rollout == Rollout::Follow) {
    if (rollout_) followRollout(catalogs, serving);
    applyRolloutRequests();
  }
  const KTSServerLayout& layout = context_.layout();
  KTSPassRecord* record = context_.record();
  // A catalog's compressed forms take about as long to make as the catalog itself: they are made
  // on a second thread while the next catalog is written.
  std::future<std::vector<Compressed>> compressing;
  auto compressBeside = [&](const std::string& path) {
    if (compressing.valid()) reportCompressed(compressing.get());
    compressing = runOnSecondThread([path] { return compressCatalog(path); });
  };
  for (std::size_t index = 0; index < catalogs.size(); ++index) {
    const KTSCatalog& catalog = *catalogs[index];
    std::string path = layout.servedCatalogPath(catalog.catalogURL());
    if (!layout.isInsideHtmlFolder(path)) continue;
    std::string name = lastPathComponent(path);
    std::vector<std::pair<std::string, Serving>> forms{{path, seenBy(serving[index], {})}};
    // Clients reach a ring's catalog through the catalog CGI, which knows only this folder.
    if (path == standardizingPath(layout.catalogsFolderPath(name))) {
      for (std::size_t ring = 0; ring < rings_.rings().size(); ++ring) {
        forms.emplace_back(layout.ringCatalogPath(rings_.rings()[ring].name, name),
                           seenBy(serving[index], ring));
      }
    }
    for (const auto& [formPath, products] : forms) {
      std::string inputs = record ? inputsOf(products, *record) : "";
      bool current = record && catalog.compositeUnchanged() && record->isCurrent(formPath, inputs);
      if (!current && !writeCatalog(catalog, products, formPath)) {
        failures.push_back(fmt::format("served catalog {} not written",
                                       formPath.substr(layout.htmlFolder().size())));
        continue;
      }
      if (record) record->recordFile(formPath, inputs);
      compressBeside(formPath);
    }
  }
  if (compressing.valid()) reportCompressed(compressing.get());
  removeOldRingFolders();
}

std::optional<Date> KTSServedCatalogs::nextRingOpening() const {
  return rollout_ ? rollout_->nextOpening(rings_, Clock::now()) : std::nullopt;
}

std::optional<Date> KTSServedCatalogs::nextRingOpening(KTSPassContext& context) {
  KTSRings rings = KTSRings::fromPreferences(context.preferences().prefs());
  if (rings.empty()) return std::nullopt;
  return KTSRollout(KTSRollout::defaultPath(context.layout())).nextOpening(rings, Clock::now());
}

// The products clients are served from a catalog: enabled, and in a served state with every file
// in place at the size this catalog names, or fetched as clients ask for them.
KTSServedCatalogs::Serving KTSServedCatalogs::servedProducts(const KTSCatalog& catalog) {
  Serving serving;
  if (!catalog.products()) return serving;
  for (const auto& [productId, product] : *catalog.products()) {
    const KTSProductState& state = product->state();
    if (state.enabled() && (state.servedBeforeFilesArrive() ||
                            (state.isInServedState() && table_.filesInPlace(*product)))) {
      serving.push_back(product.get());
    }
  }
  return serving;
}

// A product's rollout starts when some catalog first serves it (clients could not have it
// before), and ends when no catalog enables it any more.
void KTSServedCatalogs::followRollout(const std::vector<std::shared_ptr<KTSCatalog>>& catalogs,
                                      const std::vector<Serving>& serving) {
  std::set<std::string> served;
  for (const Serving& products : serving) {
    for (KTSProduct* product : products) served.insert(*product->productId());
  }
  std::set<std::string> enabled;
  for (const auto& catalog : catalogs) {
    if (!catalog->products()) continue;
    for (const auto& [productId, product] : *catalog->products()) {
      if (product->state().enabled()) enabled.insert(productId);
    }
  }
  rollout_->follow(served, enabled, servedBefore_, now_);
}

void KTSServedCatalogs::applyRolloutRequests() {
  for (const Plist& request : requests_) {
    std::string why;
    std::string productId = request["ProductID"].stringValue();
    if (!isValidProductId(productId)) productId = "an unknown product";
    if (!rollout_) {
      log_.warning("A rollout action on {} was not carried out: no rings are defined.", productId);
    } else if (rollout_->applyRequest(request, rings_, now_, &why)) {
      log_.info("Rollout of {}: {} (asked by {}).", productId, rollout_->events().back().action,
                rollout_->events().back().requester);
    } else {
      log_.warning("A rollout action on {} was not carried out: {}.", productId, why);
    }
  }
  requests_.clear();
  if (rollout_ && rollout_->changed() && !rollout_->save()) {
    log_.warning("The rollout record {} could not be written; the next pass tries again.",
                 KTSRollout::defaultPath(context_.layout()));
  }
}

KTSServedCatalogs::Serving KTSServedCatalogs::seenBy(const Serving& serving,
                                                     std::optional<std::size_t> ring) const {
  if (!rollout_) return serving;
  Serving seen;
  for (KTSProduct* product : serving) {
    const std::string& productId = *product->productId();
    bool reached = true;
    for (std::size_t index = 0; index < rings_.rings().size() && reached; ++index) {
      if (!ring || *ring == index) reached = rollout_->reaches(productId, index, rings_, now_);
    }
    if (reached) seen.push_back(product);
  }
  return seen;
}

// The composite catalog with the served products' entries, each made as it is written. A catalog
// whose bytes would not change keeps its file.
bool KTSServedCatalogs::writeCatalog(const KTSCatalog& catalog, const Serving& serving,
                                     const std::string& path) {
  auto next = serving.begin();
  auto nextEntry = [&]() -> std::optional<std::pair<PlistKey, Plist>> {
    if (next == serving.end()) return std::nullopt;
    KTSProduct& product = **next++;
    return std::pair(*product.productId(), catalog.mirrorRepresentationForProduct(product));
  };
  bool replaced = false;
  std::string error;
  if (!KTSUtilities::createDirectoryAtPath(deletingLastPathComponent(path)) ||
      !catalog.compositeCatalog().writeXmlFileStreamingMemberUnlessUnchanged(
          path, KTCatalogProductsDictKey, nextEntry, &replaced, &error)) {
    return false;
  }
  if (replaced) KTSUtilities::setDefaultFileOwnerAtPath(path);
  return true;
}

// Clients that accept gzip or brotli are sent the catalog's compressed form: made from the
// catalog as it now is, or none at all.
std::vector<KTSServedCatalogs::Compressed> KTSServedCatalogs::compressCatalog(
    const std::string& path) {
  std::vector<Compressed> forms;
  for (Encoding encoding : kCompressedEncodings) {
    Compressed& form = forms.emplace_back();
    form.path = compressedFormPath(path, encoding);
    form.made = keepCompressedForm(path, encoding, &form.written, &form.error);
  }
  return forms;
}

void KTSServedCatalogs::reportCompressed(const std::vector<Compressed>& forms) {
  for (const Compressed& form : forms) {
    if (!form.made) {
      log_.warning("The compressed form {} could not be written ({}); clients get it plain.",
                   lastPathComponent(form.path), form.error);
    } else if (form.written) {
      KTSUtilities::setDefaultFileOwnerAtPath(form.path);
    }
  }
}

// A served entry is made from the composite entry and names the server metadata file.
std::string KTSServedCatalogs::inputsOf(const Serving& serving, KTSPassRecord& record) {
  KTSPassRecord::Inputs inputs;
  for (KTSProduct* product : serving) {
    const std::optional<std::string>& metadata = product->serverMetadataLocalPath();
    inputs.add(*product->productId()).add(metadata.value_or(""));
    inputs.add(record.stampOfSettledFile(metadata));
  }
  return inputs.text();
}

void KTSServedCatalogs::removeOldRingFolders() const {
  const std::string folder = context_.layout().ringCatalogsFolder();
  std::error_code error;
  if (!std::filesystem::is_directory(std::filesystem::symlink_status(folder, error))) return;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    if (!rings_.find(entry->path().filename().string())) {
      KTSUtilities::removePath(entry->path().string());
    }
  }
  if (rings_.empty()) KTSUtilities::removePath(folder);
}

}  // namespace ondrel
