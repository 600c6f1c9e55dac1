// KTSSyncPass is one pass of the sync daemon, in the order the server needs it: it applies the
// administration side's requests and tickets, builds and publishes the meta-index, syncs every
// catalog, mirrors and removes products, saves the working set and the caches, writes the
// catalogs served to clients and records the outcome in the status files. A full pass keeps a
// KTSPassRecord, so that a file the last pass wrote just as this one would stays as it is. A
// changes-only pass does the same from the catalogs' caches, without the network. What it does as
// it goes is told to a KTSPassObserver. Used by ondrd_syncd; one thread, one pass at a time (the
// mirrored files, the settled server metadata files and the digest manifests are looked at, the
// next catalog's composite catalog read, and the product index caches and the served catalogs'
// compressed forms written, on threads of their own, which the pass waits for before it ends).
#pragma once

#include <chrono>
#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "KTSCatalog.h"
#include "KTSDigestManifests.h"
#include "KTSFetchScheduler.h"
#include "KTSFileDigests.h"
#include "KTSLogger.h"
#include "KTSPassContext.h"
#include "KTSPassRecord.h"
#include "KTSProductChange.h"
#include "KTSProductIndexCacheWrite.h"
#include "KTSProductTable.h"
#include "KTSServedCatalogs.h"
#include "Plist.h"

namespace ondrel {

class KTSFileOwnership;
class KTSOnDemandFiles;
class KTSProduct;

// What a pass tells whoever watches it (the daemon's progress display), on the pass's thread.
class KTSPassObserver {
 public:
  virtual ~KTSPassObserver() = default;
  // A pass begins (a full one, or one that carries out product changes).
  virtual void passStarted() = 0;
  // The pass starts to sync (or load) the number-th of count catalogs.
  virtual void catalogStarted(std::size_t number, std::size_t count, const std::string& name) = 0;
  // The products whose files are to be fetched, and the bytes their catalogs give for them.
  virtual void mirroringStarted(std::size_t products, std::uint64_t bytes) = 0;
  // A product's files are all in place.
  virtual void productMirrored(const std::string& productId, std::size_t files, std::uint64_t bytes,
                               std::chrono::duration<double> took) = 0;
  // The pass's work is done; only its outcome is still to be recorded.
  virtual void passWorkEnded() = 0;
};

struct KTSPassOutcome {
  bool interrupted = false;
  std::vector<std::string> failures;  // one short line per failed step
  std::size_t catalogs = 0;           // catalogs that serve this pass
  std::size_t productsNew = 0;        // products first seen in this pass
  std::size_t productsRemoved = 0;    // products whose files the administrator removed
  std::uint64_t bytesFetched = 0;
  // What the products still to be mirrored lack once the pass is done: files not in place with
  // their catalog size, and the bytes the catalogs give for them.
  std::uint64_t filesStillToFetch = 0;
  std::uint64_t bytesStillToFetch = 0;
  // Products served before their files are here: how many, their bytes and the bytes of them
  // here, and the files the fetch-on-miss CGI placed since the last pass.
  struct OnDemandFigures {
    std::uint64_t products = 0;
    std::uint64_t bytes = 0;
    std::uint64_t bytesHere = 0;
    std::uint64_t fetchedFiles = 0;
    std::uint64_t fetchedBytes = 0;
  } onDemand;
  // When a ring next opens to a product being rolled out: the served catalogs change then.
  std::optional<Date> nextRingOpening;
  bool failed() const { return interrupted || !failures.empty(); }
  // The error note recorded in the status files: "interrupted", or the failed steps' lines.
  std::string note() const;
};

class KTSSyncPass {
 public:
  // The pass works in context (its preferences, the files it reads and writes), which must
  // outlive it; what it does as it goes is told to observer.
  KTSSyncPass(KTSPassContext& context, KTSPassObserver& observer);

  // A whole pass: the catalogs are downloaded and merged. With Reuse::Nothing every file is
  // fetched whole (no validators are sent) and made and written anew (ondrd_syncd --full);
  // otherwise a file the last pass left exactly as this one would write it stays as it is.
  KTSPassOutcome runFullPass(KTSPassRecord::Reuse reuse = KTSPassRecord::Reuse::Allowed);
  // Only the pending product changes: the catalogs are loaded from their caches.
  KTSPassOutcome runProductChanges();

 private:
  KTSPassOutcome run(bool fullSync, KTSPassRecord::Reuse reuse);
  // The steps of a pass, in the order run takes them.
  void markPassStarted(bool fullSync);
  // Builds the meta-index; on a full pass also whether the upstream answers (false, told in the
  // outcome, when it does not).
  void loadMetaIndex(bool fullSync, KTSPassOutcome& outcome);
  // Whether the catalogs were synced with the upstream.
  bool fetchAndLoadCatalogs(KTSFetchScheduler& scheduler, bool fullSync, KTSPassOutcome& outcome);
  void countProducts(const std::vector<std::shared_ptr<KTSProduct>>& products, bool syncing,
                     KTSPassOutcome& outcome);
  void removeAndMirrorProducts(const std::vector<std::shared_ptr<KTSProduct>>& products,
                               KTSFetchScheduler& scheduler, KTSPassOutcome& outcome);
  void applyPendingEnables();
  // The products served before their files are here: the index of their files, what was
  // fetched on demand since the last pass, and the files kept of them.
  class OfferedFiles;
  void offerFilesOnDemand(KTSPassOutcome& outcome);
  void recordFetchedOnDemand(const KTSOnDemandFiles& onDemand, const OfferedFiles& offered,
                             KTSPassOutcome& outcome);
  void keepFilesOnDemand(const OfferedFiles& offered, KTSPassOutcome& outcome);
  void countStillToFetch(const std::vector<std::shared_ptr<KTSProduct>>& products,
                         KTSPassOutcome& outcome) const;
  void logRequests(const KTSFetchScheduler::Counters& fetched, KTSPassOutcome& outcome);
  void markPassEnded(bool fullSync, const KTSPassOutcome& outcome);
  void collectChanges();
  void recordChangesInWorkingSet();
  bool catalogSettingsChanged() const;
  void rememberCatalogSettings() const;
  Plist fetchDeprecations();
  // Syncs (or only loads) the catalogs in turn; those it reached serve this pass.
  void loadCatalogs(const std::vector<std::shared_ptr<KTSCatalog>>& catalogs, bool fullSync,
                    const Plist& deprecations, KTSPassOutcome& outcome);
  void applyChangesToProducts();
  // Every product of the pass once, in the order of the catalogs.
  std::vector<std::shared_ptr<KTSProduct>> productsOfPass() const;
  void withdrawFilesAboutToChange(const std::vector<std::shared_ptr<KTSProduct>>& products,
                                  KTSPassOutcome& outcome);
  std::vector<std::vector<std::shared_ptr<KTSProduct>>> productsToMirror();
  void mirrorProducts(KTSFetchScheduler& scheduler, const KTSFileOwnership& ownership,
                      KTSPassOutcome& outcome);
  // Whether needed bytes fit beside the reserve once what is promised to products still being
  // fetched is taken; logs why not.
  bool fitsOnVolume(const KTSProduct& product, std::uint64_t needed, std::uint64_t promised);
  void productMirrored(const KTSProduct& product, bool complete, bool stateChanged,
                       std::chrono::duration<double> took);
  bool upstreamStillAnswers(KTSPassOutcome& outcome);
  // Saves the working set and starts writing the product index caches, which the pass finishes
  // once the served catalogs are written.
  void saveState();
  void finishProductIndexCaches();
  void saveDigests();
  bool listsChangedProduct(const KTSCatalog& catalog) const;
  void finishTickets();
  bool interrupted() const;

  KTSPassContext& context_;
  KTSPassObserver& observer_;
  LogHandle log_;
  std::map<std::string, KTSProductChange> changes_;
  std::vector<std::pair<std::int64_t, std::string>> ticketsDone_;
  std::vector<std::shared_ptr<KTSCatalog>> catalogs_;
  // The digests of the files the server keeps, recorded as the pass places them.
  KTSFileDigests digests_;
  // The products whose digests are published, found once the working set is saved.
  std::future<KTSDigestManifests::KeptProducts> keptProducts_;
  // What the upstreams published about the files the pass fetches (a parent mirror's digests).
  KTSUpstreamDigests upstreamDigests_;
  // Every catalog's copy of every product once the catalogs are loaded, and the files they name.
  KTSProductTable productTable_;
  KTSServedCatalogs servedCatalogs_;
  // Catalogs synced in this pass; their product index caches are saved at its end.
  std::set<const KTSCatalog*> synced_;
  // Products whose state this pass changed after the catalogs were synced or loaded.
  std::set<std::string> changedProducts_;
  // Products whose files the administrator asked to remove in this pass.
  std::vector<std::shared_ptr<KTSProduct>> removed_;
  // The product index caches being written beside the pass's last steps.
  std::optional<KTSProductIndexCacheWrite> productIndexCaches_;
};

}  // namespace ondrel
