// SyncPass is one run of the sync daemon: it applies the administration side's requests and
// tickets, builds and publishes the meta-index, syncs every catalog, mirrors and removes
// products, saves the working set and the caches, writes the catalogs served to clients and
// records the outcome in the status files. A changes-only run does the same from the catalogs'
// caches, without the network. Used by ondrd_syncd's main; one thread, one pass at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "KTSCatalog.h"
#include "KTSLogger.h"
#include "Plist.h"
#include "Progress.h"

namespace ondrel {
class KTSFetchScheduler;
class KTSFileOwnership;
class KTSProduct;
}  // namespace ondrel

namespace ondrel::syncd {

struct PassOutcome {
  bool interrupted = false;
  std::vector<std::string> failures;  // one short line per failed step
  std::size_t catalogs = 0;           // catalogs that serve this pass
  std::size_t productsNew = 0;        // products first seen in this pass
  std::size_t productsRemoved = 0;    // products whose files the administrator removed
  std::uint64_t bytesFetched = 0;
  bool failed() const { return interrupted || !failures.empty(); }
  // The error note recorded in the status files.
  std::string note() const;
};

class SyncPass {
 public:
  explicit SyncPass(Progress& progress);

  // A whole pass: the catalogs are downloaded and merged.
  PassOutcome runFullPass();
  // Only the pending product changes: the catalogs are loaded from their caches.
  PassOutcome runProductChanges();

  // Path of the served catalog of an upstream catalog URL, under the document root.
  static std::string servedCatalogPath(const Url& catalogURL);

 private:
  struct ProductChange {
    std::optional<bool> mirror;
    std::optional<bool> enable;
    bool remove = false;
  };

  PassOutcome run(bool fullSync);
  void collectChanges();
  void recordChangesInWorkingSet();
  bool catalogSettingsChanged() const;
  void rememberCatalogSettings() const;
  Plist fetchDeprecations();
  // Syncs (or only loads) the catalogs in turn; those it reached serve this pass.
  void loadCatalogs(const std::vector<std::shared_ptr<KTSCatalog>>& catalogs, bool fullSync,
                    const Plist& deprecations, PassOutcome& outcome);
  void applyChangesToProducts();
  // Every product of the pass once, in the order of the catalogs.
  std::vector<std::shared_ptr<KTSProduct>> productsOfPass() const;
  void withdrawFilesAboutToChange(const std::vector<std::shared_ptr<KTSProduct>>& products,
                                  PassOutcome& outcome);
  void mirrorProducts(KTSFetchScheduler& scheduler, const KTSFileOwnership& ownership,
                      PassOutcome& outcome);
  static std::uint64_t bytesStillToFetch(const KTSProduct& product);
  // Whether needed bytes fit beside the reserve once what is promised to products still being
  // fetched is taken; logs why not.
  bool fitsOnVolume(const KTSProduct& product, std::uint64_t needed, std::uint64_t promised);
  void productMirrored(const KTSProduct& product, bool complete, bool stateChanged,
                       std::chrono::duration<double> took);
  bool upstreamStillAnswers(PassOutcome& outcome);
  void carryStateToOtherInstances(const KTSProduct& mirrored);
  void saveState();
  bool cacheIsCurrent(const KTSCatalog& catalog) const;
  void writeServedCatalogs(PassOutcome& outcome);
  void finishTickets();
  bool interrupted() const;

  Progress& progress_;
  LogHandle log_;
  std::map<std::string, ProductChange> changes_;
  std::vector<std::pair<std::int64_t, std::string>> ticketsDone_;
  std::vector<std::shared_ptr<KTSCatalog>> catalogs_;
  // Catalogs whose sync in this pass saved their product index cache.
  std::set<const KTSCatalog*> cacheSaved_;
  // Products whose state this pass changed after the catalogs were synced or loaded.
  std::set<std::string> changedProducts_;
  std::map<std::string, bool> verified_;
  // Products whose files the administrator asked to remove in this pass.
  std::vector<std::shared_ptr<KTSProduct>> removed_;
};

}  // namespace ondrel::syncd
