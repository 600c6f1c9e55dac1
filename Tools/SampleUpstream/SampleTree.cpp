#include "SampleTree.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <set>
#include <stdexcept>

#include "BinaryPlistWriter.h"
#include "DateFormats.h"
#include "KTCatalogKeys.h"
#include "KTSCatalogSets.h"
#include "Plist.h"

namespace ondrel::sample {

namespace {

constexpr double kWithdrawnShare = 0.03;
constexpr double kAddedShare = 0.05;
constexpr double kMetadataChangeShare = 0.02;
// Every this many products, one product shows each odd case (product 1 shows the first case,
// product 2 the second, and so on), so a small tree has each case at least once.
constexpr std::uint64_t kOddCaseSpacing = 200;
constexpr const char* kLanguages[] = {"English", "French", "German", "Japanese", "Spanish"};
constexpr const char* kRestartActions[] = {"NoRestart", "RecommendRestart", "RequireLogout",
                                           "RequireRestart", "RequireShutdown"};
// Made-up product names: the sample's titles name nobody's real product.
constexpr const char* kWords[] = {"Quendel", "Zarrow",   "Plimsett", "Trevanne",
                                  "Ossilk",  "Brambril", "Koventa",  "Melquist",
                                  "Dravel",  "Sunnock",  "Halvery",  "Florrin"};

enum OddCase {
  kNone = 0,
  kNoServerMetadataURL,
  kLocalizationsKey,
  kNoPlatforms,
  kNoRestartAction,
  kPackageWithoutMetadataURL,
  kPackageWithoutSize,
  kTestUpdate,
  kMissingDistribution,
  kBadPostDate,
  kOsUpdate104,
  kOsUpdate107,
  kOddCaseCount
};

const std::vector<std::string> kOddCaseNames = {"none",
                                                "noServerMetadataURL",
                                                "localizationsKey",
                                                "noPlatforms",
                                                "noRestartAction",
                                                "packageWithoutMetadataURL",
                                                "packageWithoutSize",
                                                "testUpdate",
                                                "missingDistribution",
                                                "badPostDate",
                                                "osUpdate10.4",
                                                "osUpdate10.7"};

std::uint64_t mix(std::uint64_t value) {
  value += 0x9E3779B97F4A7C15ull;
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ull;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EBull;
  return value ^ (value >> 31);
}

// A deterministic number for (seed, product, purpose).
std::uint64_t hashOf(std::uint64_t seed, std::uint64_t product, std::uint64_t purpose) {
  return mix(mix(mix(seed) ^ product) ^ purpose);
}

double unitOf(std::uint64_t seed, std::uint64_t product, std::uint64_t purpose) {
  return static_cast<double>(hashOf(seed, product, purpose) >> 11) / 9007199254740992.0;
}

// The products of one epoch: which are listed, which were withdrawn on the way, and what
// replaced what.
struct Universe {
  std::vector<std::uint64_t> listed;
  std::map<std::uint64_t, std::vector<std::uint64_t>> replacements;  // new -> old
  std::map<std::uint64_t, int> metadataRevision;
  std::vector<std::uint64_t> addedThisEpoch;
  std::vector<std::uint64_t> withdrawnThisEpoch;
};

Universe simulate(const TreeOptions& options) {
  Universe universe;
  for (std::uint64_t i = 0; i < options.products; ++i) universe.listed.push_back(i);
  std::uint64_t next = options.products;
  for (int epoch = 1; epoch <= options.epoch; ++epoch) {
    std::vector<std::uint64_t> kept;
    std::vector<std::uint64_t> withdrawn;
    for (std::uint64_t product : universe.listed) {
      (unitOf(options.seed, product, 1000 + epoch) < kWithdrawnShare ? withdrawn : kept)
          .push_back(product);
      if (unitOf(options.seed, product, 2000 + epoch) < kMetadataChangeShare) {
        ++universe.metadataRevision[product];
      }
    }
    auto added =
        static_cast<std::uint64_t>(static_cast<double>(universe.listed.size()) * kAddedShare + 0.5);
    std::vector<std::uint64_t> fresh;
    for (std::uint64_t k = 0; k < std::max<std::uint64_t>(added, 1); ++k) fresh.push_back(next++);
    // Every other withdrawn product is replaced by one of the day's new products.
    for (std::size_t j = 0; j < withdrawn.size(); j += 2) {
      if (j / 2 < fresh.size()) universe.replacements[fresh[j / 2]].push_back(withdrawn[j]);
    }
    kept.insert(kept.end(), fresh.begin(), fresh.end());
    universe.listed = std::move(kept);
    universe.addedThisEpoch = std::move(fresh);
    universe.withdrawnThisEpoch = std::move(withdrawn);
  }
  return universe;
}

class TreeWriter {
 public:
  explicit TreeWriter(const TreeOptions& options) : options_(options) {}

  TreeSummary write() {
    Universe universe = simulate(options_);
    std::vector<std::string> catalogNames = *KTSCatalogSets::defaultCatalogsForVersion("10.12");
    std::vector<Plist> catalogProducts(catalogNames.size(), Plist::dictionary());
    Plist cases = Plist::dictionary();
    for (std::uint64_t product : universe.listed) {
      Plist entry = writeProduct(product, universe);
      OddCase odd = oddCaseOf(product);
      if (odd != kNone) cases.mutableValue(kOddCaseNames[odd]).append(Plist(productId(product)));
      // The newest catalog lists every product; older ones the products that apply to them.
      std::uint64_t oldest = hashOf(options_.seed, product, 7) % catalogNames.size();
      for (std::size_t k = 0; k <= oldest; ++k) {
        catalogProducts[k].set(productId(product), entry);
      }
    }
    for (std::size_t k = 0; k < catalogNames.size(); ++k) {
      writeCatalog(catalogNames[k], catalogProducts[k]);
    }
    writeDeprecations(universe);
    writeManifest(universe, cases);
    summary_.products = universe.listed.size();
    return summary_;
  }

 private:
  static std::string productId(std::uint64_t product) { return fmt::format("VT-{:06}", product); }

  OddCase oddCaseOf(std::uint64_t product) const {
    std::uint64_t slot = product % kOddCaseSpacing;
    return slot < kOddCaseCount ? static_cast<OddCase>(slot) : kNone;
  }

  std::string folderOf(std::uint64_t product) const {
    return fmt::format("content/downloads/{:02x}/{}", hashOf(options_.seed, product, 3) & 0xFF,
                       productId(product));
  }

  std::string url(const std::string& relative) const {
    std::string base = options_.baseURL;
    while (!base.empty() && base.back() == '/') base.pop_back();
    return base + "/" + relative;
  }

  // Writes through a temporary name in the same folder and renames into place.
  template <typename Fill>
  void writeFile(const std::string& relative, Fill fill) {
    std::filesystem::path target = std::filesystem::path(options_.outputFolder) / relative;
    std::filesystem::create_directories(target.parent_path());
    std::string temporary = target.string() + ".sample-writing";
    std::FILE* file = std::fopen(temporary.c_str(), "wb");
    if (file == nullptr) throw std::runtime_error("cannot write " + target.string());
    std::uint64_t bytes = fill(file);
    bool ok = std::ferror(file) == 0;
    ok = std::fclose(file) == 0 && ok;
    if (!ok || std::rename(temporary.c_str(), target.c_str()) != 0) {
      std::remove(temporary.c_str());
      throw std::runtime_error("cannot write " + target.string());
    }
    ++summary_.files;
    summary_.bytes += bytes;
  }

  void writeText(const std::string& relative, const std::string& text) {
    writeFile(relative, [&text](std::FILE* file) {
      std::fwrite(text.data(), 1, text.size(), file);
      return static_cast<std::uint64_t>(text.size());
    });
  }

  void writePackage(const std::string& relative, std::uint64_t size, const std::string& seedText) {
    writeFile(relative, [&](std::FILE* file) {
      std::string chunk;
      while (chunk.size() < std::min<std::uint64_t>(size, 65536)) chunk += seedText + ';';
      for (std::uint64_t written = 0; written < size;) {
        std::size_t count =
            static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), size - written));
        std::fwrite(chunk.data(), 1, count, file);
        written += count;
      }
      return size;
    });
  }

  Plist writeProduct(std::uint64_t product, const Universe& universe) {
    const std::string id = productId(product);
    const std::string folder = folderOf(product);
    OddCase odd = oddCaseOf(product);
    int revision = 0;
    if (auto found = universe.metadataRevision.find(product);
        found != universe.metadataRevision.end()) {
      revision = found->second;
    }
    std::string title;
    std::string version;
    if (odd == kOsUpdate104 || odd == kOsUpdate107) {
      title = "Vantor OS Update";
      version = fmt::format("{}.{}", odd == kOsUpdate104 ? "10.4" : "10.7", 1 + product % 11);
    } else {
      title = fmt::format("Vantor {} Update", kWords[hashOf(options_.seed, product, 4) % 12]);
      version = fmt::format("{}.{}.{}", 1 + product % 9, revision, product % 7);
    }
    const char* restart = kRestartActions[hashOf(options_.seed, product, 5) % 5];
    std::size_t languages = 1 + hashOf(options_.seed, product, 6) % 5;

    Plist entry = Plist::dictionary();
    Plist distributions = Plist::dictionary();
    for (std::size_t k = 0; k < languages; ++k) {
      std::string relative = fmt::format("{}/{}.dist", folder, kLanguages[k]);
      distributions.set(kLanguages[k], url(relative));
      if (odd == kMissingDistribution && k == 0) continue;
      writeText(relative, fmt::format("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                      "<vantor-distribution format-version=\"1\" product=\"{}\">\n"
                                      "  <title>{}</title>\n  <version>{}</version>\n"
                                      "  <restart action=\"{}\"/>\n"
                                      "  <description mime-type=\"text/html\"><![CDATA[<p>{} {} "
                                      "({})</p>]]></description>\n</vantor-distribution>\n",
                                      id, title, version, restart, title, version, kLanguages[k]));
    }
    entry.set(KTCatalogProductDistributionsDictKey, distributions);

    Plist packages = Plist::array();
    std::size_t packageCount = 1 + hashOf(options_.seed, product, 8) % 2;
    for (std::size_t k = 0; k < packageCount; ++k) {
      std::string name = odd == kTestUpdate ? fmt::format("TestUpdate-{}-{}.pkg", id, k)
                                            : fmt::format("{}-{}.pkg", id, k);
      std::string relative = folder + "/" + name;
      writePackage(relative, options_.packageSize, fmt::format("{}:{}", id, k));
      Plist package = Plist::dictionary();
      package.set(KTCatalogPackageURLStringKey, url(relative));
      if (odd != kPackageWithoutSize || k > 0) {
        package.set(KTCatalogPackageSizeKey,
                    Plist::integer(static_cast<std::int64_t>(options_.packageSize)));
      }
      if (odd != kPackageWithoutMetadataURL) {
        std::string metadata = fmt::format("{}/{}-{}.pkm", folder, id, k);
        writeText(metadata, fmt::format("<pkg-info identifier=\"com.vantor.pkg.{}.{}\" "
                                        "version=\"{}\"/>\n",
                                        id, k, version));
        package.set(KTCatalogPackageMetadataURLStringKey, url(metadata));
      }
      packages.append(package);
    }
    entry.set(KTCatalogProductPackagesKey, packages);

    if (odd == kBadPostDate) {
      entry.set(KTCatalogProductPostDateKey, "the day after tomorrow");
    } else {
      entry.set(KTCatalogProductPostDateKey,
                Plist::date(*parseRfc3339Date("2016-09-20T17:00:00Z") +
                            std::chrono::hours(24) * static_cast<int>(product % 400)));
    }
    if (odd != kNoServerMetadataURL) {
      std::string relative = fmt::format("{}/{}.smd", folder, id);
      writeText(relative, serverMetadata(product, title, version, restart, languages).toXml());
      entry.set("ServerMetadataURL", url(relative));
    }
    return entry;
  }

  Plist serverMetadata(std::uint64_t product, const std::string& title, const std::string& version,
                       const char* restart, std::size_t languages) const {
    OddCase odd = oddCaseOf(product);
    Plist metadata = Plist::dictionary();
    metadata.set("CFBundleShortVersionString", version);
    metadata.set("IFPkgFlagInstalledSize",
                 Plist::integer(static_cast<std::int64_t>(options_.packageSize * 3)));
    if (odd != kNoRestartAction) metadata.set("IFPkgFlagRestartAction", restart);
    if (product % 2 == 0 && odd != kOsUpdate104 && odd != kOsUpdate107) {
      metadata.set("IFPkgFlagProductFamily", title);
    }
    Plist localization = Plist::dictionary();
    for (std::size_t k = 0; k < languages; ++k) {
      std::string description =
          fmt::format("<p>{} {} improves {}.</p>", title, version, kWords[(product + k) % 12]);
      Plist strings = Plist::dictionary();
      strings.set("title", title);
      strings.set("description", Plist::data(Plist::Bytes(description.begin(), description.end())));
      strings.set("serverComment", fmt::format("{} {}", id(product), version));
      localization.set(kLanguages[k], strings);
    }
    metadata.set(odd == kLocalizationsKey ? "localizations" : "localization", localization);
    if (odd != kNoPlatforms) {
      Plist platforms = Plist::dictionary();
      platforms.set("client", Plist::stringArray({"intel"}));
      metadata.set("platforms", platforms);
    }
    return metadata;
  }

  static std::string id(std::uint64_t product) { return productId(product); }

  void writeCatalog(const std::string& name, const Plist& products) {
    Plist catalog = Plist::dictionary();
    catalog.set(KTCatalogVantorPostURLKey, url("content/post/" + name));
    catalog.set(KTCatalogIndexDateKey, Plist::date(*parseRfc3339Date("2016-09-20T17:00:00Z") +
                                                   std::chrono::hours(24) * options_.epoch));
    catalog.set(KTCatalogProductsDictKey, products);
    std::string relative = "content/catalogs/others/" + name;
    if (options_.binaryCatalogs) {
      writeText(relative, binaryPlist(catalog));
      return;
    }
    writeFile(relative, [&catalog](std::FILE* file) {
      std::string xml = catalog.toXml();
      std::fwrite(xml.data(), 1, xml.size(), file);
      return static_cast<std::uint64_t>(xml.size());
    });
  }

  void writeDeprecations(const Universe& universe) {
    Plist deprecated = Plist::dictionary();
    for (const auto& [replacement, replaced] : universe.replacements) {
      std::vector<std::string> ids;
      for (std::uint64_t product : replaced) ids.push_back(productId(product));
      deprecated.set(productId(replacement), Plist::stringArray(ids));
    }
    Plist deprecations = Plist::dictionary();
    deprecations.set("DeprecatedProducts", deprecated);
    writeText("content/catalogs/Deprecations.plist", deprecations.toXml());
  }

  void writeManifest(const Universe& universe, const Plist& cases) {
    auto ids = [](const std::vector<std::uint64_t>& products) {
      std::vector<std::string> texts;
      for (std::uint64_t product : products) texts.push_back(productId(product));
      return Plist::stringArray(texts);
    };
    Plist manifest = Plist::dictionary();
    manifest.set("epoch", Plist::integer(options_.epoch));
    manifest.set("listed", Plist::integer(static_cast<std::int64_t>(universe.listed.size())));
    manifest.set("cases", cases);
    manifest.set("addedThisEpoch", ids(universe.addedThisEpoch));
    manifest.set("withdrawnThisEpoch", ids(universe.withdrawnThisEpoch));
    writeText("manifest.plist", manifest.toXml());
  }

  const TreeOptions& options_;
  TreeSummary summary_;
};

}  // namespace

const std::vector<std::string>& oddCaseNames() { return kOddCaseNames; }

TreeSummary generateTree(const TreeOptions& options) { return TreeWriter(options).write(); }

}  // namespace ondrel::sample
