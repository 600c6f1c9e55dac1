#include "KTSSyncPass.h"

#include <unistd.h>

#include <algorithm>
#include <tuple>

#include "FileIO.h"
#include "HostPaths.h"
#include "KTCatalogKeys.h"
#include "KTSError.h"
#include "KTSFetchScheduler.h"
#include "KTSFileDownloader.h"
#include "KTSFileOwnership.h"
#include "KTSFileValidators.h"
#include "KTSJobTicket.h"
#include "KTSJobTicketManager.h"
#include "KTSMetaIndex.h"
#include "KTSMirrorSpace.h"
#include "KTSPassMemo.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSProductChange.h"
#include "KTSProductDownload.h"
#include "KTSProductTable.h"
#include "KTSRequestManager.h"
#include "KTSServerLayout.h"
#include "KTSSyncStatus.h"
#include "KTSUtilities.h"
#include "KTSWorkingSet.h"
#include "PathString.h"
#include "Transfer.h"

namespace ondrel {

namespace {

std::string catalogName(const Url& url) { return lastPathComponent(url.path()); }

// Asks whether the upstream's web server answers at all (any HTTP status counts), so that a pass
// against an upstream that is down fails at once instead of retrying every product. It asks with
// HEAD: a probe fetches no catalog, which the pass fetches once, on its own. The request goes out
// when the probe is made, and any transfer's event loop on the thread carries it on.
class UpstreamProbe : public TransferReceiver {
 public:
  explicit UpstreamProbe(const Url& url) {
    char path[] = "/tmp/ondrd-probe-XXXXXX";
    int fd = ::mkstemp(path);
    if (fd < 0) return;
    ::close(fd);
    path_ = path;
    transfer_ = Transfer::create(url, std::chrono::seconds(30), this);
    if (!transfer_) return;
    transfer_->setDestination(path_);
    transfer_->setHeadOnly();
    transfer_->start();
  }
  ~UpstreamProbe() override {
    transfer_.reset();
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  UpstreamProbe(const UpstreamProbe&) = delete;
  UpstreamProbe& operator=(const UpstreamProbe&) = delete;

  // Waits for the answer unless it came already; a probe that could not be sent says yes.
  bool answers() {
    if (path_.empty()) return true;
    while (transfer_ && !done_ && !answered_) {
      transfer_->runEventLoopFor(std::chrono::milliseconds(100));
    }
    return answered_;
  }

 private:
  void transferDidReceiveResponse(const TransferResponse&) override { answered_ = true; }
  void transferDidReceiveDataOfLength(std::uint64_t) override {}
  void transferDidFinish() override { done_ = true; }
  void transferDidFailWithError(const TransferError& error) override {
    answered_ = answered_ || error.httpStatus != 0;
    done_ = true;
  }
  void transferWillRedirect(const std::string&) override {}

  std::string path_;
  std::unique_ptr<Transfer> transfer_;
  bool done_ = false;
  bool answered_ = false;
};

// What the product index cache and the working set keep of a product's mirroring.
auto recordedState(const KTSProduct& product) {
  const KTSProductState& state = product.state();
  return std::make_tuple(state.mirror(), state.enabled(), state.enableWhenMirrored(),
                         state.progress().downloadStatus, state.progress().downloadedSize,
                         state.progress().totalDownloadSize);
}

// A deprecations list is a dictionary of product ids; this is far more than any holds.
constexpr std::size_t kDeprecationsReadLimit = std::size_t{64} << 20;

std::string megabytes(std::uint64_t bytes) {
  return fmt::format("{:.1f} MB", static_cast<double>(bytes) / 1e6);
}

}  // namespace

std::string KTSPassOutcome::note() const {
  if (interrupted) return "interrupted";
  std::string text;
  for (std::size_t i = 0; i < failures.size(); ++i) {
    text += (i > 0 ? "; " : "") + failures[i];
  }
  return text;
}

KTSSyncPass::KTSSyncPass(KTSPassContext& context, KTSPassObserver& observer)
    : context_(context),
      observer_(observer),
      log_(context.log()),
      digests_(KTSFileDigests::storePathForDocumentRoot(context.layout().documentRoot())),
      upstreamDigests_(context.layout(), context.log()),
      productTable_(context.layout(), &digests_, &upstreamDigests_),
      servedCatalogs_(context, productTable_) {}

bool KTSSyncPass::interrupted() const { return Transfer::isCancelled(); }

KTSPassOutcome KTSSyncPass::runFullPass(KTSPassRecord::Reuse reuse) {
  // What the last full pass left that this one would write alike stays as it is.
  KTSPassRecord record(reuse, context_.layout());
  auto recording = context_.lend(record);
  KTSPassOutcome outcome = run(true, reuse);
  if (!outcome.interrupted && !record.save()) {
    log_.warning("The record of this pass could not be kept; the next pass writes every file.");
  }
  return outcome;
}

KTSPassOutcome KTSSyncPass::runProductChanges() {
  return run(false, KTSPassRecord::Reuse::Allowed);
}

KTSPassOutcome KTSSyncPass::run(bool fullSync, KTSPassRecord::Reuse reuse) {
  KTSPassOutcome outcome;
  observer_.passStarted();
  markPassStarted(fullSync);
  collectChanges();
  recordChangesInWorkingSet();
  // Every file of the pass is fetched through this scheduler, with the validators of what the
  // server keeps, so that a file unchanged upstream costs a 304; a rebuild fetches every file
  // whole, whatever was kept.
  auto validators = std::make_shared<KTSFileValidators>(
      KTSFileValidators::storePathForDocumentRoot(context_.layout().documentRoot()));
  if (reuse == KTSPassRecord::Reuse::Nothing) validators->forgetAll();
  KTSFetchScheduler scheduler(context_.preferences(), validators);
  scheduler.sizeConnectionPool();
  auto fetching = context_.lend(scheduler);
  loadMetaIndex(fullSync, outcome);
  bool syncing = fetchAndLoadCatalogs(scheduler, fullSync, outcome);
  applyChangesToProducts();
  std::vector<std::shared_ptr<KTSProduct>> listed = productsOfPass();
  countProducts(listed, syncing, outcome);
  withdrawFilesAboutToChange(listed, outcome);
  removeAndMirrorProducts(listed, scheduler, outcome);
  applyPendingEnables();
  countStillToFetch(listed, outcome);
  offerFilesOnDemand(outcome);
  saveState();
  validators->save();
  saveDigests();
  logRequests(scheduler.counters(), outcome);
  servedCatalogs_.write(catalogs_, KTSServedCatalogs::Rollout::Follow, outcome.failures);
  finishProductIndexCaches();
  outcome.nextRingOpening = servedCatalogs_.nextRingOpening();
  outcome.interrupted = interrupted();
  if (!outcome.interrupted) finishTickets();
  observer_.passWorkEnded();
  markPassEnded(fullSync, outcome);
  return outcome;
}

void KTSSyncPass::markPassStarted(bool fullSync) {
  if (!fullSync) return;
  KTSSyncStatus& status = context_.status();
  status.setSyncStatus(KTSSyncStatus::InProgress);
  status.setStartTime();
}

void KTSSyncPass::markPassEnded(bool fullSync, const KTSPassOutcome& outcome) {
  KTSSyncStatus& status = context_.status();
  if (fullSync) {
    status.setUpdateErrorWithNote(outcome.failed(),
                                  outcome.failed() ? std::optional(outcome.note()) : std::nullopt);
    status.setSyncStatus(KTSSyncStatus::Done);
  } else if (outcome.failed()) {
    status.setUpdateErrorWithNote(true, outcome.note());
  }
}

void KTSSyncPass::loadMetaIndex(bool fullSync, KTSPassOutcome& outcome) {
  KTSMetaIndex& metaIndex = context_.metaIndex();
  if (!metaIndex.downloadForcingUpdate(fullSync && catalogSettingsChanged())) {
    outcome.failures.push_back("the meta-index names no catalog");
  } else if (fullSync) {
    rememberCatalogSettings();
  }
}

// The catalogs, the deprecations list and the probe of the upstream go out side by side; then
// each catalog is merged, or only loaded from its cache when the pass does not sync or the
// upstream does not answer. Whether the upstream answers costs a round trip of its own only
// when nothing else was answered.
bool KTSSyncPass::fetchAndLoadCatalogs(KTSFetchScheduler& scheduler, bool fullSync,
                                       KTSPassOutcome& outcome) {
  const std::vector<KTSURL>& urls = context_.metaIndex().catalogs();
  std::optional<UpstreamProbe> probe;
  if (fullSync && !urls.empty()) probe.emplace(*urls.front().url());
  std::vector<std::shared_ptr<KTSCatalog>> catalogs;
  for (const KTSURL& url : urls) {
    catalogs.push_back(KTSCatalog::catalogWithUrl(*url.url(), context_));
    if (fullSync) catalogs.back()->fetchCatalogAheadWithScheduler(scheduler);
  }
  Plist deprecations = fullSync ? fetchDeprecations() : Plist();
  scheduler.run();
  bool syncing = fullSync && (!probe || scheduler.counters().answered > 0 || probe->answers());
  if (fullSync && !syncing) {
    const std::string& host = urls.front().url()->host();
    outcome.failures.push_back(
        fmt::format("the upstream {} does not answer; catalogs served as they were", host));
    log_.error("The upstream {} does not answer; the catalogs are served as they were.", host);
  }
  probe.reset();
  loadCatalogs(catalogs, syncing, syncing ? deprecations : Plist(), outcome);
  return syncing;
}

void KTSSyncPass::countProducts(const std::vector<std::shared_ptr<KTSProduct>>& products,
                                bool syncing, KTSPassOutcome& outcome) {
  outcome.catalogs = catalogs_.size();
  if (syncing) {
    outcome.productsNew = static_cast<std::size_t>(
        std::count_if(products.begin(), products.end(), [](const auto& product) {
          return product->getCompositeProductState() == KTSCatalog::New;
        }));
  }
  outcome.productsRemoved = removed_.size();
}

void KTSSyncPass::removeAndMirrorProducts(const std::vector<std::shared_ptr<KTSProduct>>& products,
                                          KTSFetchScheduler& scheduler, KTSPassOutcome& outcome) {
  // Who owns each file matters only while files are removed and placed.
  KTSFileOwnership ownership(products);
  for (const auto& product : removed_) {
    const std::string& productId = *product->productId();
    product->removeAllMirroredFiles([&ownership, &productId](const std::string& path) {
      return ownership.otherOwnerOfPath(path, productId) != nullptr;
    });
    for (const Plist& record : product->mirrorFiles().elements()) {
      productTable_.fileRemoved(record[KTSProduct::kFileLocalPathKey]);
    }
  }
  mirrorProducts(scheduler, ownership, outcome);
}

void KTSSyncPass::applyPendingEnables() {
  for (const auto& catalog : catalogs_) {
    if (!catalog->products()) continue;
    for (const auto& [productId, product] : *catalog->products()) {
      if (product->state().applyPendingEnable()) changedProducts_.insert(productId);
    }
  }
}

void KTSSyncPass::countStillToFetch(const std::vector<std::shared_ptr<KTSProduct>>& products,
                                    KTSPassOutcome& outcome) const {
  for (const auto& product : products) {
    std::shared_ptr<KTSProduct> recorded = productTable_.representativeOf(*product->productId());
    if (!recorded || !recorded->state().isDownloading()) continue;
    KTSProduct::StillToFetch still = recorded->stillToFetch();
    outcome.filesStillToFetch += still.files;
    outcome.bytesStillToFetch += std::min(still.bytes, UINT64_MAX - outcome.bytesStillToFetch);
  }
}

void KTSSyncPass::logRequests(const KTSFetchScheduler::Counters& fetched, KTSPassOutcome& outcome) {
  outcome.bytesFetched = fetched.bytesReceived;
  log_.info("This pass made {} requests: {} answered unchanged, {} failed.", fetched.requests,
            fetched.notModified, fetched.failed);
}

void KTSSyncPass::collectChanges() {
  Plist requested = context_.requests().getPendingChangeRequestsDeletingSource(true);
  servedCatalogs_.takeRolloutRequests(context_.requests().takeRolloutRequests());
  for (const auto& [productId, item] : requested.items()) {
    KTSProductChange& change = changes_[productId];
    if (item.contains("mirror")) change.mirror = item["mirror"].boolValue();
    if (item.contains("enable")) change.enable = item["enable"].boolValue();
    if (item["remove"].boolValue()) change.remove = true;
    if (item["fetchPolicy"].isString()) {
      change.policy = KTSProductState::fetchPolicyForName(item["fetchPolicy"].stringValue());
    }
  }
  KTSJobTicketManager& tickets = context_.tickets();
  tickets.refresh();
  for (const auto& ticket : tickets.openJobs()) {
    const std::string productId = ticket->productId().value_or("");
    KTSProductChange& change = changes_[productId];
    switch (ticket->jobType()) {
      case KTSJobTicket::Mirror:
        change.mirror = true;
        break;
      case KTSJobTicket::Enable:
        change.enable = true;
        break;
      case KTSJobTicket::Disable:
        change.enable = false;
        break;
      case KTSJobTicket::Remove:
        change.remove = true;
        break;
      default:
        continue;
    }
    ticketsDone_.emplace_back(ticket->jobType(), productId);
  }
  for (const auto& [productId, change] : changes_) {
    log_.info("Carrying out the requested change of product {}", productId);
  }
}

// The settings go into the working set first, so that products built from the catalogs in this
// pass take them, and so that they survive a pass that fails.
void KTSSyncPass::recordChangesInWorkingSet() {
  if (changes_.empty()) return;
  KTSWorkingSet& workingSet = context_.workingSet();
  workingSet.refreshProducts();
  for (const auto& [productId, change] : changes_) {
    if (workingSet.containsProductID(productId)) change.applyToSettings(workingSet, productId);
  }
  workingSet.saveProductsArchivingPrevious(false);
}

void KTSSyncPass::applyChangesToProducts() {
  for (const auto& [productId, change] : changes_) {
    std::vector<std::shared_ptr<KTSProduct>> copies = productTable_.applyChange(productId, change);
    if (copies.empty()) continue;
    changedProducts_.insert(productId);
    // The files are shared by every catalog that lists the product: removed once, after the
    // served catalogs stop naming them.
    if (change.remove) {
      log_.info("Removing the files of product {}", productId);
      removed_.push_back(copies.front());
    }
  }
}

namespace {

// What the meta-index is built from, and where the last pass that built it recorded it.
std::string catalogSettings(KTSPreferences& preferences) {
  std::optional<Url> metaIndexURL = preferences.metaIndexURL();
  return fmt::format("{}\n{}", metaIndexURL ? metaIndexURL->text() : "",
                     preferences.otherCatalogs());
}

}  // namespace

bool KTSSyncPass::catalogSettingsChanged() const {
  std::string recorded;
  return !readWholeFile(context_.layout().statusPath(".catalog_settings"), &recorded, nullptr,
                        kSmallFileReadLimit) ||
         recorded != catalogSettings(context_.preferences());
}

void KTSSyncPass::rememberCatalogSettings() const {
  KTSUtilities::writeStringToPath(catalogSettings(context_.preferences()),
                                  context_.layout().statusPath(".catalog_settings"));
}

// The list is checked before it takes the served place: a page that is no property list (an
// error page, say) never replaces the last good list.
Plist KTSSyncPass::fetchDeprecations() {
  KTSMetaIndex& metaIndex = context_.metaIndex();
  std::optional<Url> url = metaIndex.deprecationsURL();
  std::optional<std::string> path = metaIndex.deprecationsLocalPath();
  if (!url || !path || !context_.layout().isInsideHtmlFolder(*path)) return Plist();
  auto download = KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(*url, *path, true);
  download->receiveIntoMemory(kDeprecationsReadLimit);
  std::string bytes;
  if (KTSUtilities::createDirectoryAtPath(deletingLastPathComponent(*path))) {
    KTSFetchScheduler::fetchToEnd(*download, context_.scheduler());
  } else {
    download->setDownloadErrorWithReason(-1, "Enclosing directory creation failed.");
  }
  if (const std::optional<KTSError>& error = download->downloadError()) {
    KTSFetchScheduler::logFailedDownload(*path, error->description());
    log_.warning("The deprecations list could not be fetched; this pass goes on without it.");
    return Plist::dictionary();
  }
  if (download->wasNotModified()) {
    readWholeFile(*path, &bytes, nullptr, kDeprecationsReadLimit);
    std::string previous = sideFilePath(*path, "previous");
    if (fileIdentity(previous) != fileIdentity(*path)) keepPreviousVersion(*path, previous);
  } else {
    bytes = download->takeReceivedBody();
  }
  Plist deprecations = KTSUtilities::propertyListWithData(bytes);
  if (!deprecations.isDictionary()) {
    log_.warning("The deprecations list is not a property list; this pass goes on without it.");
    return Plist::dictionary();
  }
  if (!download->wasNotModified()) {
    std::string error;
    std::string previous = sideFilePath(*path, "previous");
    bool replaced = false;
    bool placed = writeFileAtomicallyUnlessUnchanged(
        *path,
        [&bytes](std::FILE* file) {
          return std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
        },
        &replaced, &error, [&] { keepPreviousVersion(*path, previous); });
    if (placed) {
      if (replaced) KTSUtilities::setDefaultFileOwnerAtPath(*path);
      if (!replaced && fileIdentity(previous) != fileIdentity(*path)) {
        keepPreviousVersion(*path, previous);
      }
      download->recordValidatorsOfPlacedFile();
    } else {
      log_.warning("The deprecations list could not be placed: {}", error);
    }
  }
  return deprecations;
}

void KTSSyncPass::loadCatalogs(const std::vector<std::shared_ptr<KTSCatalog>>& catalogs,
                               bool fullSync, const Plist& deprecations, KTSPassOutcome& outcome) {
  // Every product of the pass is made here; what they share is let go of before mirroring.
  KTSPassMemo productPass;
  auto sharing = context_.lend(productPass);
  for (std::size_t i = 0; i < catalogs.size() && !interrupted(); ++i) {
    const std::shared_ptr<KTSCatalog>& catalog = catalogs[i];
    const Url& url = catalog->catalogURL();
    observer_.catalogStarted(i + 1, catalogs.size(), catalogName(url));
    // The next catalog's composite catalog is read while this one makes its products.
    productPass.readWhenMetadataFetched(
        i + 1 < catalogs.size() ? catalogs[i + 1]->compositeCatalogPath() : std::string());
    if (fullSync) {
      try {
        catalog->syncCatalogLeavingCache(deprecations, true);
        synced_.insert(catalog.get());
        if (!catalog->lastDownloadSucceeded() && !interrupted()) {
          outcome.failures.push_back(
              fmt::format("{} (download failed; the last copy was used)", catalogName(url)));
        }
      } catch (const KTSError& failure) {
        if (!interrupted()) {
          outcome.failures.push_back(fmt::format("{} ({})", catalogName(url), failure.what()));
          log_.error("Catalog {} could not be synced: {}", catalogName(url), failure.what());
        }
        // What was known before still serves clients.
        catalog->loadCatalog();
      }
    } else {
      catalog->loadCatalog();
    }
    catalogs_.push_back(catalog);
  }
  // Each catalog worked out its products' states on its own copies; from here on the copies of
  // a product share what is the product's, as the first catalog that lists it left it. What the
  // catalogs found of the files is what the table knows of them.
  for (const auto& catalog : catalogs_) {
    if (!catalog->products()) continue;
    for (const auto& [productId, product] : *catalog->products()) productTable_.join(product);
  }
  productTable_.listsFoundAtLoad(productPass.filesVerified());
}

bool KTSSyncPass::fitsOnVolume(const KTSProduct& product, std::uint64_t needed,
                               std::uint64_t promised) {
  KTSMirrorSpace space = KTSMirrorSpace::now(context_.preferences());
  if (space.fits(needed, promised)) return true;
  log_.warning(
      "Skipping product {}: it needs {} and {} are free, of which {} are kept in reserve "
      "(volumeReserve {}%).",
      product.productId().value_or(""), megabytes(needed), megabytes(space.freeAfter(promised)),
      megabytes(space.reserve), space.reservePercent);
  return false;
}

std::vector<std::shared_ptr<KTSProduct>> KTSSyncPass::productsOfPass() const {
  std::vector<std::shared_ptr<KTSProduct>> products;
  std::set<std::string> seen;
  for (const auto& catalog : catalogs_) {
    if (!catalog->products()) continue;
    for (const auto& [productId, product] : *catalog->products()) {
      if (seen.insert(productId).second) products.push_back(product);
    }
  }
  return products;
}

// The served catalogs on disk still name what the last pass served. Before a file they may name
// is deleted (a removed product's) or replaced (a product whose files changed upstream), they are
// written anew from this pass's states, which serve neither.
void KTSSyncPass::withdrawFilesAboutToChange(
    const std::vector<std::shared_ptr<KTSProduct>>& products, KTSPassOutcome& outcome) {
  bool changing = !removed_.empty();
  for (const auto& product : products) {
    if (changing) break;
    if (!product->state().isDownloading()) continue;
    for (const Plist& record : product->mirrorFiles().elements()) {
      const Plist& size = record[KTSProduct::kFileSizeKey];
      std::optional<std::int64_t> found = KTSUtilities::sizeOfExistingItemAtPath(
          record[KTSProduct::kFileLocalPathKey].stringValue());
      if (found && size.isNumber() && *found != size.integerValue()) changing = true;
    }
  }
  if (!changing) return;
  log_.info("Serving the catalogs without the products whose files change in this pass.");
  servedCatalogs_.write(catalogs_, KTSServedCatalogs::Rollout::Keep, outcome.failures);
}

// The copies of each product to mirror, by product id: one for each set of files the catalogs
// name for it (catalogs that disagree on a file's size name different sets), in the catalogs'
// order. What a catalog synced in this pass names wins over what one that failed to sync named
// before. A product whose files are in place as one catalog names them is left as it is: a
// catalog that names other files does not serve it, and the file the others serve stays.
std::vector<std::vector<std::shared_ptr<KTSProduct>>> KTSSyncPass::productsToMirror() {
  struct Variant {
    std::shared_ptr<KTSProduct> product;
    bool current;
  };
  std::map<std::string, std::vector<Variant>> variants;
  std::vector<std::string> order;
  for (const auto& catalog : catalogs_) {
    if (!catalog->products()) continue;
    bool current = synced_.empty() || synced_.count(catalog.get()) != 0;
    for (const auto& [productId, product] : *catalog->products()) {
      auto& known = variants[productId];
      if (known.empty()) order.push_back(productId);
      const Plist& files = product->mirrorFiles();
      auto same = std::find_if(known.begin(), known.end(), [&files](const Variant& variant) {
        return KTSProductTable::namesSameFiles(variant.product->mirrorFiles(), files);
      });
      if (same == known.end()) {
        known.push_back({product, current});
      } else {
        same->current = same->current || current;
      }
    }
  }
  std::vector<std::vector<std::shared_ptr<KTSProduct>>> toMirror;
  for (const std::string& productId : order) {
    std::vector<Variant>& known = variants[productId];
    if (std::any_of(known.begin(), known.end(), [](const Variant& v) { return v.current; })) {
      std::erase_if(known, [](const Variant& v) { return !v.current; });
    }
    if (known.size() > 1 && std::any_of(known.begin(), known.end(), [](const Variant& v) {
          return !v.product->state().isDownloading() && v.product->verifyMirroredFiles();
        })) {
      log_.warning(
          "The catalogs list product {} with different files; it is served only from those that "
          "name the files in place.",
          productId);
      continue;
    }
    std::vector<std::shared_ptr<KTSProduct>> downloading;
    for (const Variant& variant : known) {
      if (variant.product->state().isDownloading()) downloading.push_back(variant.product);
    }
    if (!downloading.empty()) toMirror.push_back(std::move(downloading));
  }
  return toMirror;
}

// Products are handed to the scheduler as it has room, so a pass holds the transfers of a few
// products at a time, whatever their number, and every transfer slot stays busy. When the files
// one catalog names cannot be mirrored, those another names for the product are tried next.
void KTSSyncPass::mirrorProducts(KTSFetchScheduler& scheduler, const KTSFileOwnership& ownership,
                                 KTSPassOutcome& outcome) {
  std::vector<std::vector<std::shared_ptr<KTSProduct>>> waiting = productsToMirror();
  std::uint64_t declared = 0;
  for (const auto& variants : waiting) {
    declared += static_cast<std::uint64_t>(
        std::max<std::int64_t>(0, variants.front()->getTotalMirrorSize().integerValue()));
  }
  observer_.mirroringStarted(waiting.size(), declared);
  std::size_t next = 0;
  std::uint64_t promised = 0;
  bool upstreamStopped = false;
  auto startNextProduct = [&]() -> bool {
    while (next < waiting.size() && !upstreamStopped && !interrupted()) {
      std::vector<std::shared_ptr<KTSProduct>>& variants = waiting[next++];
      std::shared_ptr<KTSProduct> product = variants.front();
      std::uint64_t needed = product->stillToFetch().bytes;
      if (!fitsOnVolume(*product, needed, promised)) continue;
      promised += needed;
      auto stateBefore = recordedState(*product);
      auto start = std::chrono::steady_clock::now();
      // waiting holds the product until the scheduler is done.
      KTSProduct* mirrored = product.get();
      KTSProductDownload::start(
          *product, scheduler,
          [&, mirrored, needed, stateBefore, start,
           others = std::vector(variants.begin() + 1, variants.end())](bool complete) {
            promised -= needed;
            productMirrored(*mirrored, complete, stateBefore != recordedState(*mirrored),
                            std::chrono::steady_clock::now() - start);
            if (!complete && !others.empty() && !interrupted()) waiting.push_back(others);
            // A failure the upstream answered (a 404, say) is the product's own; one it did
            // not answer may mean that the upstream is gone.
            if (!complete && !interrupted() && !upstreamStopped &&
                scheduler.counters().unansweredInARow > 0) {
              upstreamStopped = !upstreamStillAnswers(outcome);
            }
          },
          &ownership, &productTable_);
      return true;
    }
    return false;
  };
  scheduler.run(startNextProduct);
}

void KTSSyncPass::productMirrored(const KTSProduct& product, bool complete, bool stateChanged,
                                  std::chrono::duration<double> took) {
  const std::string& productId = *product.productId();
  if (stateChanged) changedProducts_.insert(productId);
  if (complete) {
    const KTSProductState& state = product.state();
    observer_.productMirrored(
        productId, static_cast<std::size_t>(state.progress().totalDownloadCount),
        static_cast<std::uint64_t>(state.progress().downloadedSize.integerValue()), took);
  } else if (!interrupted()) {
    // One product's failure never fails the pass: it is told and tried again next time.
    log_.warning("Product {} could not be mirrored completely; the next pass tries again.",
                 productId);
  }
  context_.workingSet().updateProductStatus(product, context_.record());
}

// An upstream that stopped answering fails the pass, and the products not yet started wait for
// the next one.
bool KTSSyncPass::upstreamStillAnswers(KTSPassOutcome& outcome) {
  const Url& upstream = *context_.metaIndex().catalogs().front().url();
  if (UpstreamProbe(upstream).answers()) return true;
  outcome.failures.push_back(fmt::format(
      "the upstream {} stopped answering while products were mirrored", upstream.host()));
  log_.error("The upstream {} stopped answering; mirroring waits for the next pass.",
             upstream.host());
  return false;
}

// Before the served catalogs: a product a child finds served has its digests published. The
// record then leaves memory (it is read again if anything asks): writing the served catalogs is
// the peak of a pass.
void KTSSyncPass::saveDigests() {
  digests_.save();
  // Found when the state was saved.
  KTSDigestManifests::publish(context_.layout(), digests_, keptProducts_.get(), log_);
  digests_ = KTSFileDigests(digests_.storePath());
}

void KTSSyncPass::saveState() {
  KTSWorkingSet::ProductsById all;
  for (const auto& catalog : catalogs_) {
    if (!catalog->products()) continue;
    for (const auto& [productId, product] : *catalog->products()) {
      if (all.count(productId) != 0) continue;
      std::shared_ptr<KTSProduct> representative = productTable_.representativeOf(productId);
      all.emplace(productId, representative ? representative : product);
    }
  }
  if (KTSPassRecord* record = context_.record()) {
    // Every product is made and mirrored: its server metadata file stays as it is from here on.
    std::vector<std::string> metadataFiles;
    metadataFiles.reserve(all.size());
    for (const auto& [productId, product] : all) {
      if (const auto& path = product->serverMetadataLocalPath()) metadataFiles.push_back(*path);
    }
    record->stampSettledFilesAhead(std::move(metadataFiles));
  }
  KTSWorkingSet& workingSet = context_.workingSet();
  workingSet.refreshProducts();
  workingSet.mergeProducts(all);
  // The merge keeps the settings already recorded; the states after this pass replace them.
  for (const auto& [productId, product] : all) workingSet.applyProductStatus(*product);
  workingSet.saveProductsUnlessCurrent(true, context_.record());
  // The products whose digests are published are known now; their manifests are looked at
  // while the caches are checked.
  keptProducts_ = KTSDigestManifests::findKeptProducts(context_.layout(), workingSet);
  std::vector<KTSCatalog*> stale;
  for (const auto& catalog : catalogs_) {
    if (!catalog->products()) continue;
    bool due = synced_.count(catalog.get()) != 0 ? !catalog->productIndexCacheIsCurrent()
                                                 : listsChangedProduct(*catalog);
    if (due) stale.push_back(catalog.get());
  }
  if (!stale.empty()) productIndexCaches_.emplace(stale);
}

void KTSSyncPass::finishProductIndexCaches() {
  if (productIndexCaches_) productIndexCaches_->finish();
  productIndexCaches_.reset();
}

// A cache loaded in this pass is current unless a product it lists changed since; writing it
// again would cost the whole file (tens of megabytes for a large catalog).
bool KTSSyncPass::listsChangedProduct(const KTSCatalog& catalog) const {
  for (const std::string& productId : changedProducts_) {
    if (catalog.productForProductId(productId)) return true;
  }
  return false;
}

void KTSSyncPass::finishTickets() {
  KTSJobTicketManager& tickets = context_.tickets();
  for (const auto& [jobType, productId] : ticketsDone_) {
    tickets.deleteTicketOfTypeForProduct(jobType, productId);
  }
}

}  // namespace ondrel
