// KTSServedCatalogs writes what clients are served of each catalog: the catalog with the products
// it serves (enabled, in a served state, every file in place at the size it names), every URL
// pointing at this server, and the catalog's compressed forms. With rings defined (KTSRings),
// each ring gets a copy of each client catalog ("content/catalogs/rings/<ring>/<name>") naming
// only the products the rollout (KTSRollout) has opened to that ring by now, and the catalog at
// its usual place names only what is open to every ring; without rings there is no ring folder
// and no rollout record, and nothing else changes. A catalog the last full pass wrote just as
// this one would stays untouched, so what clients cached of it stays valid. Used by KTSSyncPass
// at the end of a pass (and before files a catalog names change), from one thread; while it
// writes the next catalog, a second thread of its own compresses the last one (and does nothing
// else: what it found is logged from the caller's thread), ended before write returns.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "KTSLogger.h"
#include "KTSRings.h"
#include "KTSRollout.h"
#include "Plist.h"

namespace ondrel {

class KTSCatalog;
class KTSPassContext;
class KTSProduct;
class KTSProductTable;
class KTSPassRecord;

class KTSServedCatalogs {
 public:
  // Whether a write starts the schedules of products served for the first time (the end of a
  // pass) or only withdraws (before files the catalogs name change).
  enum class Rollout { Follow, Keep };

  // Reads the rings from the context's preferences; the table says which files are in place.
  KTSServedCatalogs(KTSPassContext& context, KTSProductTable& table);

  // Rollout actions the administration side posted (KTSRequestManager), carried out by the
  // next write that follows the rollout.
  void takeRolloutRequests(std::vector<Plist> requests) { requests_ = std::move(requests); }
  // Writes every catalog's served forms; a catalog that could not be written is named in
  // failures.
  void write(const std::vector<std::shared_ptr<KTSCatalog>>& catalogs, Rollout rollout,
             std::vector<std::string>& failures);
  // When a ring next opens to a product, as of the last write: the served catalogs are due to be
  // written again then.
  std::optional<Date> nextRingOpening() const;
  // The same from the files a pass left: the preferences' rings and the rollout record.
  static std::optional<Date> nextRingOpening(KTSPassContext& context);

 private:
  using Serving = std::vector<KTSProduct*>;
  Serving servedProducts(const KTSCatalog& catalog);
  void followRollout(const std::vector<std::shared_ptr<KTSCatalog>>& catalogs,
                     const std::vector<Serving>& serving);
  void applyRolloutRequests();
  // The products of serving that the clients of ring see (every ring's for none).
  Serving seenBy(const Serving& serving, std::optional<std::size_t> ring) const;
  bool writeCatalog(const KTSCatalog& catalog, const Serving& serving, const std::string& path);
  // What making one catalog's compressed forms found, for the caller's thread to tell.
  struct Compressed {
    std::string path;
    bool made = false;
    bool written = false;
    std::string error;
  };
  static std::vector<Compressed> compressCatalog(const std::string& path);
  void reportCompressed(const std::vector<Compressed>& forms);
  static std::string inputsOf(const Serving& serving, KTSPassRecord& record);
  // The products the catalogs at their usual place name now, before this pass writes them.
  std::set<std::string> servedBefore() const;
  // Removes the ring folders of rings no longer defined (all of them without rings).
  void removeOldRingFolders() const;

  KTSPassContext& context_;
  KTSProductTable& table_;
  LogHandle log_;
  KTSRings rings_;
  std::optional<KTSRollout> rollout_;
  std::vector<Plist> requests_;
  // Read when the rings were just defined: what clients had then stays theirs.
  std::set<std::string> servedBefore_;
  Date now_;
};

}  // namespace ondrel
