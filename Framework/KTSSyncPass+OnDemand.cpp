// What a pass does for the products served before their files are here: it writes the index the
// fetch-on-miss CGI answers from, records the digests of the files the CGI placed since the last
// pass, and removes files of on-demand products that are stale (another size than the catalog
// names) or that no client asked for in a while; those products stay served, and a client that
// asks again has the file fetched again.
#include <sys/stat.h>

#include <map>
#include <set>

#include "Clock.h"
#include "KTSOnDemandFiles.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSProductFileRules.h"
#include "KTSSettings.h"
#include "KTSSyncPass.h"
#include "KTSUtilities.h"

namespace ondrel {

namespace {

// A file's last read, to the day at least (the kernel updates it at most daily by default); a
// volume mounted without access times gives the time it was placed.
std::optional<std::int64_t> lastReadSecond(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return std::max<std::int64_t>(status.st_atim.tv_sec, status.st_mtim.tv_sec);
}

}  // namespace

// The files of the products served before their files are here, as the pass's catalogs name
// them: the index's entries, and by local path each file's size (-1: its catalog names none),
// product and whether a pass may drop it (no pass fills its product in). Files a product keeps
// whole (immediate, or filled in by the passes) are never dropped.
class KTSSyncPass::OfferedFiles {
 public:
  struct File {
    const Plist* localPath;
    std::int64_t size;
    bool mayDrop;
    std::string productId;
  };

  OfferedFiles(const KTSServerLayout& layout,
               const std::vector<std::shared_ptr<KTSCatalog>>& catalogs)
      : layout_(layout) {
    for (const auto& catalog : catalogs) {
      if (!catalog->products()) continue;
      for (const auto& [productId, product] : *catalog->products()) add(productId, *product);
    }
    if (byLocalPath.empty()) return;
    for (const auto& catalog : catalogs) {
      if (!catalog->products()) continue;
      for (const auto& entry : *catalog->products()) markKeptWhole(*entry.second);
    }
  }

  std::vector<KTSOnDemandFiles::Entry> entries;
  std::map<std::string, File> byLocalPath;
  std::map<std::string, const File*> byUrlPath;
  std::set<std::string> keptWhole;
  std::set<std::string> products;

 private:
  static bool offeredBeforeFilesArrive(const KTSProductState& state) {
    return state.enabled() && state.servedBeforeFilesArrive();
  }

  void add(const std::string& productId, const KTSProduct& product) {
    const KTSProductState& state = product.state();
    if (!offeredBeforeFilesArrive(state)) return;
    bool onDemandOnly = state.fetchPolicy() == KTSProductState::FetchPolicy::OnDemand;
    products.insert(productId);
    for (const Plist& record : product.mirrorFiles().elements()) {
      const Plist& localPath = record[KTSProduct::kFileLocalPathKey];
      if (!localPath.isString()) continue;
      const std::string& path = localPath.stringValue();
      const Plist& size = record[KTSProduct::kFileSizeKey];
      const Plist& url = record[KTSProduct::kFileURLKey];
      if (!url.isString() || !layout_.isInsideHtmlFolder(path) ||
          KTSProductFileRules::refusalOutsideDownloads(layout_, path)) {
        continue;
      }
      std::string urlPath = path.substr(layout_.htmlFolder().size());
      if (!urlPath.starts_with("/")) urlPath.insert(urlPath.begin(), '/');
      // A file whose catalog names no size (a distribution) is taken at the size it arrives.
      std::int64_t bytes = size.isNumber() ? std::max<std::int64_t>(size.integerValue(), 0) : -1;
      auto [file, added] =
          byLocalPath.try_emplace(path, File{&localPath, bytes, onDemandOnly, productId});
      if (!added) continue;
      entries.push_back({urlPath, bytes, url.stringValue(), productId});
      byUrlPath.emplace(urlPath, &file->second);
    }
  }

  // Only the offered files matter: a pass looks up the files of every product it keeps whole,
  // and remembers none of the others.
  void markKeptWhole(const KTSProduct& product) {
    const KTSProductState& state = product.state();
    if (offeredBeforeFilesArrive(state) || !(state.keepsFiles() || state.isDownloading())) return;
    for (const Plist& record : product.mirrorFiles().elements()) {
      const Plist& localPath = record[KTSProduct::kFileLocalPathKey];
      if (localPath.isString() && byLocalPath.count(localPath.stringValue()) != 0) {
        keptWhole.insert(localPath.stringValue());
      }
    }
  }

  const KTSServerLayout& layout_;
};

// The index names every file before any is removed, so that a client asking for one removed
// here finds it.
void KTSSyncPass::offerFilesOnDemand(KTSPassOutcome& outcome) {
  OfferedFiles offered(context_.layout(), catalogs_);
  outcome.onDemand.products = offered.products.size();
  KTSOnDemandFiles onDemand(context_.layout());
  recordFetchedOnDemand(onDemand, offered, outcome);
  std::string error;
  if (!onDemand.writeIndex(std::move(offered.entries), &error)) {
    outcome.failures.push_back("the index of files fetched on demand not written: " + error);
    return;
  }
  keepFilesOnDemand(offered, outcome);
}

// The files the CGI placed since the last pass: counted, and their digests recorded while the
// file is still the size it arrived at.
void KTSSyncPass::recordFetchedOnDemand(const KTSOnDemandFiles& onDemand,
                                        const OfferedFiles& offered, KTSPassOutcome& outcome) {
  for (const KTSOnDemandFiles::Fetched& fetched : onDemand.takeJournal()) {
    auto found = offered.byUrlPath.find(fetched.urlPath);
    if (found == offered.byUrlPath.end()) continue;
    ++outcome.onDemand.fetchedFiles;
    outcome.onDemand.fetchedBytes += static_cast<std::uint64_t>(fetched.size);
    const OfferedFiles::File& file = *found->second;
    if (KTSUtilities::fileSizeAtPath(file.localPath->stringValue()) == fetched.size) {
      digests_.recordFile(*file.localPath, fetched.sha256, file.productId);
    }
  }
}

// Removes the files of on-demand products that are stale (another size than the catalog names)
// or that no client read in onDemandKeepDays, and counts what is here; a product's downloaded
// size is what of it is here.
void KTSSyncPass::keepFilesOnDemand(const OfferedFiles& offered, KTSPassOutcome& outcome) {
  const KTSServerLayout& layout = context_.layout();
  std::int64_t keepDays = KTSSettings::onDemandKeepDays(context_.preferences().prefs());
  std::int64_t unusedSince = Clock::secondsNow() - keepDays * 86400;
  std::map<std::string, std::int64_t> bytesHere;
  for (const auto& [path, file] : offered.byLocalPath) {
    outcome.onDemand.bytes += static_cast<std::uint64_t>(std::max<std::int64_t>(file.size, 0));
    std::int64_t& productHere = bytesHere[file.productId];
    std::optional<std::int64_t> here = KTSUtilities::fileSizeAtPath(path);
    if (!here) continue;
    bool stale = file.size >= 0 && *here != file.size;
    bool unused = keepDays > 0 && lastReadSecond(path).value_or(unusedSince) < unusedSince;
    if (file.mayDrop && (stale || unused) && offered.keptWhole.count(path) == 0 &&
        KTSProductFileRules::mayDelete(layout, path) && KTSUtilities::removePath(path)) {
      log_.info("Removed {} ({}); it is fetched again when a client asks for it.", path,
                stale ? "not the size its catalog names" : "not asked for recently");
      productTable_.fileRemoved(*file.localPath);
      continue;
    }
    outcome.onDemand.bytesHere += static_cast<std::uint64_t>(*here);
    productHere += *here;
  }
  for (const auto& [productId, bytes] : bytesHere) {
    for (const auto& copy : productTable_.copiesOf(productId)) {
      copy->state().progress().downloadedSize = Plist::integer(bytes);
    }
  }
}

}  // namespace ondrel
