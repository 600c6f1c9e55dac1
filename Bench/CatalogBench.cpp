// Measures the catalog spine on a sample upstream: product construction, archive and restore,
// catalog syncs and loads with the cache, served entries, the working set, and mirroring.
// Each phase runs in its own process (see catalog_bench.sh) so its peak memory is its own.
// Usage: catalog_bench PHASE CATALOG_URL [COUNT] [URL_LIST_OUT]
//   construct  build COUNT products from the catalog, then archive and restore them
//   sync       first sync, steady-state sync, load from cache, cache save and load, served entries
//   workingset merge the synced products into a working set, cold load, COUNT status updates
//   mirror     sync in manual mode and mirror the first COUNT products; lists the URLs fetched
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

#include "Clock.h"
#include "KTCatalogKeys.h"
#include "KTSCatalog.h"
#include "KTSFetchScheduler.h"
#include "KTSLogger.h"
#include "KTSPassContext.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSProductDownload.h"
#include "KTSUtilities.h"
#include "KTSWorkingSet.h"

using namespace ondrel;

namespace {

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

template <typename Work>
double timed(Work work) {
  auto start = std::chrono::steady_clock::now();
  work();
  return secondsSince(start);
}

void row(const char* figure, double value, const char* unit) {
  std::printf("%-44s %12.3f %s\n", figure, value, unit);
}

int construct(KTSPassContext& context, const Url& catalogURL, std::size_t count) {
  std::string local = context.preferences().updatesDocRoot() + "bench.ktcatalog";
  KTSFetchScheduler::downloadFileWithURLToPathReplaceExistingArchivePrevious(catalogURL, local,
                                                                             true, false);
  Plist catalog = KTSUtilities::readPropertyListAtPath(local);
  std::vector<std::shared_ptr<KTSProduct>> products;
  double built = timed([&] {
    for (const auto& [productId, entry] : catalog[KTCatalogProductsDictKey].items()) {
      if (products.size() == count) break;
      std::optional<Url> metadata = Url::parse(entry["ServerMetadataURL"].stringValue());
      products.push_back(KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
          productId, entry, metadata, context.services()));
    }
  });
  row("construct products", built, "s");
  row("construct products per second", static_cast<double>(products.size()) / built, "/s");
  std::vector<Plist> archives;
  row("archive all", timed([&] {
        for (const auto& product : products) archives.push_back(product->archiveRepresentation());
      }),
      "s");
  std::size_t restored = 0;
  row("restore all", timed([&] {
        for (const Plist& archive : archives) {
          restored +=
              KTSProduct::productWithArchiveRepresentation(archive, context.layout())->productId()
                  ? 1
                  : 0;
        }
      }),
      "s");
  return restored == products.size() ? 0 : 1;
}

int sync(KTSPassContext& context, const Url& catalogURL) {
  auto first = KTSCatalog::catalogWithUrl(catalogURL, context);
  row("first sync", timed([&] { first->syncCatalogWithDeprecationsForcingUpdate(Plist(), true); }),
      "s");
  auto second = KTSCatalog::catalogWithUrl(catalogURL, context);
  row("steady-state sync",
      timed([&] { second->syncCatalogWithDeprecationsForcingUpdate(Plist(), true); }), "s");
  auto loaded = KTSCatalog::catalogWithUrl(catalogURL, context);
  row("loadCatalog from the cache", timed([&] { loaded->loadCatalog(); }), "s");
  row("saveProductIndexCache", timed([&] { loaded->saveProductIndexCache(); }), "s");
  row("loadProductIndexCache", timed([&] { loaded->loadProductIndexCache(); }), "s");
  std::size_t served = 0;
  row("mirrorRepresentationForProduct, every product", timed([&] {
        for (const auto& [productId, product] : *loaded->products()) {
          served += loaded->mirrorRepresentationForProduct(*product).size() > 0 ? 1 : 0;
        }
      }),
      "s");
  row("products in the index", static_cast<double>(loaded->products()->size()), "");
  return served == loaded->products()->size() ? 0 : 1;
}

int workingSet(KTSPassContext& context, const Url& catalogURL, std::size_t count) {
  auto catalog = KTSCatalog::catalogWithUrl(catalogURL, context);
  catalog->loadCatalog();
  KTSWorkingSet::ProductsById products(catalog->products()->begin(), catalog->products()->end());
  KTSWorkingSet& workingSet = context.workingSet();
  row("updateWithProducts (merge and save)", timed([&] {
        workingSet.updateWithProductsAndRevocationsArchivingPrevious(products, Plist(), true);
      }),
      "s");
  auto cold = std::make_unique<KTSWorkingSet>(context.preferences(), workingSet.currentPath());
  row("cold loadProducts", timed([&] { cold->loadProducts(); }), "s");
  std::size_t updates = 0;
  double updating = timed([&] {
    for (const auto& [productId, product] : products) {
      if (updates++ == count) break;
      product->state().progress().downloadedSize =
          Plist::integer(static_cast<std::int64_t>(updates));
      cold->updateProductStatus(*product);
    }
  });
  row("updateProductStatus calls", updating, "s");
  return 0;
}

int mirror(KTSPassContext& context, const Url& catalogURL, std::size_t count,
           const std::string& urlList) {
  KTSPreferences& preferences = context.preferences();
  preferences.setValue("autoMirror", Plist::boolean(false));
  preferences.setValue("autoEnable", Plist::boolean(false));
  auto catalog = KTSCatalog::catalogWithUrl(catalogURL, context);
  catalog->syncCatalogWithDeprecationsForcingUpdate(Plist(), true);
  std::ofstream list(urlList);
  std::vector<std::shared_ptr<KTSProduct>> chosen;
  std::uint64_t bytes = 0;
  std::size_t files = 0;
  for (const auto& [productId, product] : *catalog->products()) {
    if (chosen.size() == count) break;
    chosen.push_back(product);
    for (const Plist& record : product->mirrorFiles().elements()) {
      list << record[KTSProduct::kFileURLKey].stringValue() << "\n";
      ++files;
    }
  }
  list.close();
  double seconds = timed([&] {
    for (const auto& product : chosen)
      KTSProductDownload::downloadMirroredFiles(
          *product, KTSFetchScheduler::preferredConcurrency(context.preferences()));
  });
  for (const auto& product : chosen) {
    for (const Plist& record : product->mirrorFiles().elements()) {
      bytes += static_cast<std::uint64_t>(
          KTSUtilities::fileSizeAtPath(record[KTSProduct::kFileLocalPathKey].stringValue())
              .value_or(0));
    }
  }
  row("mirror: seconds", seconds, "s");
  row("mirror: files", static_cast<double>(files), "");
  row("mirror: files per second", static_cast<double>(files) / seconds, "/s");
  row("mirror: MiB per second", static_cast<double>(bytes) / 1048576.0 / seconds, "MiB/s");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: catalog_bench PHASE CATALOG_URL [COUNT] [URL_LIST_OUT]\n");
    return 2;
  }
  std::string phase = argv[1];
  std::optional<Url> catalogURL = Url::parse(argv[2]);
  std::size_t count = argc > 3 ? std::stoul(argv[3]) : 10000;
  if (!catalogURL) return 2;
  // Logging as the daemon logs: syslog lines, debug lines off.
  KTSLogger::defaultLoggerForSourceLogType("catalog_bench", 0);
  KTSPassContext context;
  context.preferences().setValue("publicHostName", "127.0.0.1");
  if (phase == "construct") return construct(context, *catalogURL, count);
  if (phase == "sync") return sync(context, *catalogURL);
  if (phase == "workingset") return workingSet(context, *catalogURL, count);
  if (phase == "mirror" && argc > 4) return mirror(context, *catalogURL, count, argv[4]);
  return 2;
}
