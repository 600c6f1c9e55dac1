// Measures the property-list codec on a catalog-sized document.
//   plist_bench generate FILE   writes a catalog of 10,000 products (about 24 MB of XML)
//   plist_bench measure FILE    reads it, writes it back, and checks that a copy changed in one
//                               product shares every other product with the original
// Peak memory is reported by the process (maximum resident set size).
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <random>

#include "KTCatalogKeys.h"
#include "Plist.h"

using namespace ondrel;

namespace {

const std::vector<std::string> kLanguages = {"English", "French", "German", "Japanese", "Spanish",
                                             "Italian", "Dutch",  "ko",     "zh_CN",    "zh_TW",
                                             "da",      "fi",     "no",     "pl",       "pt",
                                             "pt_PT",   "ru",     "sv",     "ar",       "cs"};

Plist generateCatalog() {
  std::mt19937 random(1);
  auto between = [&random](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(random);
  };
  Plist products = Plist::dictionary();
  Date posted = std::chrono::sys_days(std::chrono::year(2016) / 9 / 20) + std::chrono::hours(17);
  for (int i = 0; i < 10000; ++i) {
    std::string id = fmt::format("041-{:05}", i);
    std::string base = fmt::format(
        "https://download.vantor.example/content/downloads/{:02}/{:02}/{}", i % 100, i / 100, id);
    Plist packages = Plist::array();
    for (int j = 0, count = between(1, 5); j < count; ++j) {
      Plist package = Plist::dictionary();
      package.set(KTCatalogPackageURLStringKey,
                  fmt::format("{}/{}/Package{}.pkg", base, std::string(40, 'x'), j));
      package.set(KTCatalogPackageSizeKey, Plist::integer(between(1000, 1000000000)));
      if (between(0, 9) < 7) {
        package.set(KTCatalogPackageMetadataURLStringKey, fmt::format("{}/Package{}.pkm", base, j));
      }
      packages.append(std::move(package));
    }
    Plist distributions = Plist::dictionary();
    for (int j = 0, count = between(1, 20); j < count; ++j) {
      const std::string& language = kLanguages[static_cast<std::size_t>(between(0, 19))];
      distributions.set(language, fmt::format("{}/{}.dist", base, language));
    }
    Plist product = Plist::dictionary();
    product.set(KTCatalogProductPackagesKey, std::move(packages));
    product.set(KTCatalogProductDistributionsDictKey, std::move(distributions));
    product.set(KTCatalogProductPostDateKey, Plist::date(posted + std::chrono::hours(i)));
    product.set("ServerMetadataURL", fmt::format("{}/{}.smd", base, id));
    products.set(id, std::move(product));
  }
  Plist catalog = Plist::dictionary();
  catalog.set("CatalogVersion", Plist::integer(2));
  catalog.set(KTCatalogIndexDateKey, Plist::date(posted));
  catalog.set(KTCatalogProductsDictKey, std::move(products));
  return catalog;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

int measure(const std::string& path) {
  auto start = std::chrono::steady_clock::now();
  std::string error;
  std::optional<Plist> catalog = Plist::readFile(path, &error);
  if (!catalog) {
    std::fprintf(stderr, "read failed: %s\n", error.c_str());
    return 1;
  }
  double readSeconds = secondsSince(start);
  start = std::chrono::steady_clock::now();
  if (!catalog->writeXmlFile(path + ".out", &error)) {
    std::fprintf(stderr, "write failed: %s\n", error.c_str());
    return 1;
  }
  double writeSeconds = secondsSince(start);

  // A mutable copy with one product changed: every other product must still be shared.
  Plist copy = *catalog;
  const std::string changedId = "041-00042";
  copy.mutableValue(KTCatalogProductsDictKey).mutableValue(changedId).set("State", "changed");
  std::size_t shared = 0, total = 0;
  for (const auto& [id, product] : copy[KTCatalogProductsDictKey].items()) {
    ++total;
    if (product.sharesStorageWith((*catalog)[KTCatalogProductsDictKey][id])) ++shared;
  }
  bool originalUntouched = !(*catalog)[KTCatalogProductsDictKey][changedId].contains("State");

  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("read %.3f s, write %.3f s, read+write %.3f s\n", readSeconds, writeSeconds,
              readSeconds + writeSeconds);
  std::printf("peak resident memory %.1f MB\n", static_cast<double>(usage.ru_maxrss) / 1024.0);
  std::printf("copy changed in one product: %zu of %zu products shared, original %s\n", shared,
              total, originalUntouched ? "untouched" : "CHANGED");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: plist_bench generate|measure FILE\n");
    return 2;
  }
  std::string mode = argv[1];
  if (mode == "generate") {
    std::string error;
    if (!generateCatalog().writeXmlFile(argv[2], &error)) {
      std::fprintf(stderr, "write failed: %s\n", error.c_str());
      return 1;
    }
    return 0;
  }
  return mode == "measure" ? measure(argv[2]) : 2;
}
