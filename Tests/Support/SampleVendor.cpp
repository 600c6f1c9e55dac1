#include "SampleVendor.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "ApacheServer.h"
#include "KTCatalogKeys.h"
#include "SampleTree.h"
#include "UpstreamServer.h"

namespace ondrel::test {

const std::string kNewestCatalog =
    "index-10.12-10.11-10.10-10.9-dogwood-cedar-birch-alder.merged-1.ktcatalog";

SampleVendor::SampleVendor(std::string folder, std::optional<sample::TlsSetting> tls)
    : folder_(std::move(folder)), port_(freeLoopbackPort()), tls_(std::move(tls)) {}

SampleVendor::~SampleVendor() { stop(); }

void SampleVendor::publishEpoch(int epoch, std::uint64_t packageSize) {
  sample::TreeOptions tree;
  tree.outputFolder = folder_;
  tree.baseURL = base();
  tree.products = 40;
  tree.epoch = epoch;
  tree.packageSize = packageSize;
  sample::generateTree(tree);
  if (!std::filesystem::exists(folder_ + "/.sample-upstream/httpd.pid")) serve();
}

void SampleVendor::serve() { sample::serveTree(folder_, "127.0.0.1", port_, tls_); }

void SampleVendor::stop() { sample::stopServingTree(folder_); }

std::string SampleVendor::base() const {
  return fmt::format("{}://127.0.0.1:{}", tls_ ? "https" : "http", port_);
}

std::string SampleVendor::metaIndexURL() const { return base() + "/content/meta/config.plist"; }

std::string SampleVendor::localPath(const std::string& url) const {
  return folder_ + url.substr(url.find("/content/"));
}

void SampleVendor::replacePackage(const std::string& productId, const std::string& bytes) {
  for (const auto& file :
       std::filesystem::directory_iterator(folder_ + "/content/catalogs/others")) {
    Plist catalog = Plist::readFile(file.path(), nullptr).value_or(Plist());
    if (!catalog[KTCatalogProductsDictKey].contains(productId)) continue;
    Plist& package = catalog.mutableValue(KTCatalogProductsDictKey)
                         .mutableValue(productId)
                         .mutableValue(KTCatalogProductPackagesKey)
                         .mutableElements()[0];
    package.set(KTCatalogPackageSizeKey, Plist::integer(static_cast<std::int64_t>(bytes.size())));
    std::ofstream(localPath(package["URL"].stringValue()), std::ios::binary) << bytes;
    if (!catalog.writeXmlFile(file.path(), nullptr)) {
      throw std::runtime_error("cannot rewrite " + file.path().string());
    }
  }
}

Plist SampleVendor::manifest() const {
  return Plist::readFile(folder_ + "/manifest.plist", nullptr).value_or(Plist());
}

Plist SampleVendor::products(const std::string& catalog) const {
  return Plist::readFile(folder_ + "/content/catalogs/others/" + catalog, nullptr)
      .value_or(Plist())[KTCatalogProductsDictKey];
}

std::size_t SampleVendor::servableCount() const {
  const Plist cases = manifest()["cases"];
  std::size_t count = 0;
  for (const auto& [productId, entry] : products().items()) {
    Plist id(productId.text());
    if (!cases["testUpdate"].containsElement(id) &&
        !cases["missingDistribution"].containsElement(id)) {
      ++count;
    }
  }
  return count;
}

}  // namespace ondrel::test
