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

void KTSSyncPass::offerFilesOnDemand(KTSPassOutcome& outcome) {
  const KTSServerLayout& layout = context_.layout();
  KTSOnDemandFiles onDemand(layout);
  struct Named {
    const Plist* localPath;
    std::string productId;
  };
  std::map<std::string, Named> named;
  std::vector<KTSOnDemandFiles::Entry> entries;
  // The files of those products by local path, with their sizes, and whether they may be dropped
  // (no pass fills their product in).
  struct Offered {
    const Plist* localPath;
    std::int64_t size;
    bool mayDrop;
    std::string productId;
  };
  std::map<std::string, Offered> offeredFiles;
  // Files a product keeps for itself (immediate, or filled in by the passes) are never dropped.
  std::set<std::string> keptWhole;
  std::set<std::string> countedProducts;
  for (const auto& catalog : catalogs_) {
    if (!catalog->products()) continue;
    for (const auto& [productId, product] : *catalog->products()) {
      const KTSProductState& state = product->state();
      bool offered = state.enabled() && state.servedBeforeFilesArrive();
      bool onDemandOnly = offered && state.fetchPolicy() == KTSProductState::FetchPolicy::OnDemand;
      if (offered && countedProducts.insert(productId).second) ++outcome.onDemand.products;
      for (const Plist& record : product->mirrorFiles().elements()) {
        const Plist& localPath = record[KTSProduct::kFileLocalPathKey];
        if (!localPath.isString()) continue;
        if (!offered) {
          if (state.keepsFiles() || state.isDownloading())
            keptWhole.insert(localPath.stringValue());
          continue;
        }
        const std::string& path = localPath.stringValue();
        const Plist& size = record[KTSProduct::kFileSizeKey];
        const Plist& url = record[KTSProduct::kFileURLKey];
        if (!url.isString() || !layout.isInsideHtmlFolder(path) ||
            KTSProductFileRules::refusalOutsideDownloads(layout, path)) {
          continue;
        }
        std::string urlPath = path.substr(layout.htmlFolder().size());
        if (!urlPath.starts_with("/")) urlPath.insert(urlPath.begin(), '/');
        // A file whose catalog names no size (a distribution) is taken at the size it arrives.
        std::int64_t bytes = size.isNumber() ? std::max<std::int64_t>(size.integerValue(), 0) : -1;
        entries.push_back({urlPath, bytes, url.stringValue()});
        named.emplace(urlPath, Named{&localPath, productId});
        offeredFiles.emplace(path, Offered{&localPath, bytes, onDemandOnly, productId});
      }
    }
  }
  for (const KTSOnDemandFiles::Fetched& fetched : onDemand.takeJournal()) {
    auto found = named.find(fetched.urlPath);
    if (found == named.end()) continue;
    ++outcome.onDemand.fetchedFiles;
    outcome.onDemand.fetchedBytes += static_cast<std::uint64_t>(fetched.size);
    if (KTSUtilities::fileSizeAtPath(found->second.localPath->stringValue()) == fetched.size) {
      digests_.recordFile(*found->second.localPath, fetched.sha256, found->second.productId);
    }
  }
  // The index names every file first, so that a client asking for one removed below finds it.
  std::string error;
  if (!onDemand.writeIndex(std::move(entries), &error)) {
    outcome.failures.push_back("the index of files fetched on demand not written: " + error);
    return;
  }
  std::int64_t keepDays = KTSSettings::onDemandKeepDays(context_.preferences().prefs());
  std::int64_t unusedSince = Clock::secondsNow() - keepDays * 86400;
  // A product's downloaded size is what of it is here.
  std::map<std::string, std::int64_t> bytesHere;
  for (const auto& [path, file] : offeredFiles) {
    const auto& [localPath, size, mayDrop, productId] = file;
    std::optional<std::int64_t> here = KTSUtilities::fileSizeAtPath(path);
    outcome.onDemand.bytes += static_cast<std::uint64_t>(std::max<std::int64_t>(size, 0));
    bytesHere.try_emplace(productId, 0);
    if (!here) continue;
    bool stale = size >= 0 && *here != size;
    bool unused = keepDays > 0 && lastReadSecond(path).value_or(unusedSince) < unusedSince;
    if (mayDrop && (stale || unused) && keptWhole.count(path) == 0 &&
        KTSProductFileRules::mayDelete(layout, path) && KTSUtilities::removePath(path)) {
      log_.info("Removed {} ({}); it is fetched again when a client asks for it.", path,
                stale ? "not the size its catalog names" : "not asked for recently");
      productTable_.fileRemoved(*localPath);
      continue;
    }
    outcome.onDemand.bytesHere += static_cast<std::uint64_t>(*here);
    bytesHere[productId] += *here;
  }
  for (const auto& [productId, bytes] : bytesHere) {
    for (const auto& copy : productTable_.copiesOf(productId)) {
      copy->state().progress().downloadedSize = Plist::integer(bytes);
    }
  }
}

}  // namespace ondrel
