// The sample upstream: a deterministic tree whose every URL resolves, epochs that add, withdraw
// and replace products, a real Apache serving it, and the product classes reading it.
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "ApacheServer.h"
#include "KTCatalogKeys.h"
#include "KTSFetchScheduler.h"
#include "KTSProduct.h"
#include "KTSProductDownload.h"
#include "KTSUtilities.h"
#include "OndrelTest.h"
#include "SampleTree.h"
#include "UpstreamServer.h"

namespace ondrel {
namespace {

using test::OndrelTest;

const std::string kNewest =
    "index-10.12-10.11-10.10-10.9-dogwood-cedar-birch-alder.merged-1.ktcatalog";

class SampleUpstreamTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    port_ = test::freeLoopbackPort();
    base_ = fmt::format("http://127.0.0.1:{}", port_);
  }

  sample::TreeOptions options(const std::string& folder, int epoch = 0) const {
    sample::TreeOptions tree;
    tree.outputFolder = root_ + "/" + folder;
    tree.baseURL = base_;
    tree.products = 120;
    tree.seed = 7;
    tree.epoch = epoch;
    tree.packageSize = 1000;
    return tree;
  }

  Plist read(const std::string& folder, const std::string& relative) const {
    return Plist::readFile(root_ + "/" + folder + "/" + relative, nullptr).value_or(Plist());
  }

  // Every string in value that starts with the base URL, as a path below the tree.
  std::vector<std::string> urlPaths(const Plist& value) const {
    std::vector<std::string> paths;
    std::function<void(const Plist&)> walk = [&](const Plist& item) {
      if (item.isString() && item.stringValue().rfind(base_, 0) == 0) {
        paths.push_back(item.stringValue().substr(base_.size()));
      }
      for (const auto& [key, child] : item.items()) walk(child);
      for (const Plist& child : item.elements()) walk(child);
    };
    walk(value);
    return paths;
  }

  int port_ = 0;
  std::string base_;
};

std::string contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

TEST_F(SampleUpstreamTest, TreesAreDeterministicAndEveryUrlResolves) {
  sample::generateTree(options("a"));
  sample::generateTree(options("b"));
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root_ + "/a")) {
    if (!entry.is_regular_file()) continue;
    std::string relative = std::filesystem::relative(entry.path(), root_ + "/a").string();
    ASSERT_EQ(contents(entry.path()), contents(root_ + "/b/" + relative)) << relative;
    ++files;
  }
  EXPECT_GT(files, 500u);

  Plist manifest = read("a", "manifest.plist");
  Plist missing = manifest["cases"]["missingDistribution"];
  ASSERT_GE(missing.size(), 1u);
  for (const std::string& name : sample::oddCaseNames()) {
    if (name != "none") {
      EXPECT_GE(manifest["cases"][name].size(), 1u) << name;
    }
  }
  Plist catalog = read("a", "content/catalogs/others/" + kNewest);
  EXPECT_EQ(catalog[KTCatalogProductsDictKey].size(), 120u);
  std::size_t unresolved = 0;
  for (const std::string& path : urlPaths(catalog)) {
    if (path.rfind("/content/post/", 0) == 0) continue;
    if (!std::filesystem::exists(root_ + "/a" + path)) ++unresolved;
  }
  EXPECT_EQ(unresolved, missing.size()) << "only the deliberately missing distributions";
  const std::string oldest = "index-alder-birch.merged-1.ktcatalog";
  EXPECT_LT(read("a", "content/catalogs/others/" + oldest)[KTCatalogProductsDictKey].size(), 120u);

  // Binary catalogs hold the same values.
  sample::TreeOptions binary = options("c");
  binary.binaryCatalogs = true;
  sample::generateTree(binary);
  EXPECT_EQ(contents(root_ + "/c/content/catalogs/others/" + kNewest).substr(0, 8), "bplist00");
  EXPECT_EQ(read("c", "content/catalogs/others/" + kNewest), catalog);
}

TEST_F(SampleUpstreamTest, EpochsAddWithdrawAndReplaceProducts) {
  sample::generateTree(options("day0"));
  sample::generateTree(options("day2", 2));
  Plist before = read("day0", "content/catalogs/others/" + kNewest);
  Plist after = read("day2", "content/catalogs/others/" + kNewest);
  Plist manifest = read("day2", "manifest.plist");
  for (const Plist& added : manifest["addedThisEpoch"].elements()) {
    EXPECT_TRUE(after[KTCatalogProductsDictKey].contains(added.stringValue()));
    EXPECT_FALSE(before[KTCatalogProductsDictKey].contains(added.stringValue()));
  }
  for (const Plist& withdrawn : manifest["withdrawnThisEpoch"].elements()) {
    EXPECT_FALSE(after[KTCatalogProductsDictKey].contains(withdrawn.stringValue()));
  }
  EXPECT_GT(manifest["addedThisEpoch"].size(), 0u);
  EXPECT_EQ(*after[KTCatalogIndexDateKey].dateValue() - *before[KTCatalogIndexDateKey].dateValue(),
            std::chrono::hours(48));
  Plist deprecations = read("day2", "content/catalogs/Deprecations.plist")["DeprecatedProducts"];
  ASSERT_GT(deprecations.size(), 0u);
  for (const auto& [replacement, replaced] : deprecations.items()) {
    EXPECT_TRUE(after[KTCatalogProductsDictKey].contains(replacement));
    for (const Plist& old : replaced.elements()) {
      EXPECT_FALSE(after[KTCatalogProductsDictKey].contains(old.stringValue()));
      EXPECT_TRUE(before[KTCatalogProductsDictKey].contains(old.stringValue()));
    }
  }
}

TEST_F(SampleUpstreamTest, ServedTreesReadByTheProductClasses) {
  sample::generateTree(options("served"));
  const std::string folder = root_ + "/served";
  pid_t pid = sample::serveTree(folder, "127.0.0.1", port_);
  EXPECT_GT(pid, 0);
  EXPECT_THROW(sample::serveTree(folder, "127.0.0.1", port_), std::runtime_error);
  EXPECT_THROW(sample::serveTree(folder, "10.1.2.3", port_ + 1), std::runtime_error);

  const std::string catalogPath = "/content/catalogs/others/" + kNewest;
  const std::string fetched = root_ + "/fetched.ktcatalog";
  EXPECT_TRUE(KTSFetchScheduler::downloadFileWithURLToPathReplaceExistingArchivePrevious(
      *Url::parse(base_ + catalogPath), fetched, true, false));
  EXPECT_EQ(contents(fetched), contents(folder + catalogPath));

  // Every product builds, odd cases included; the metadata generator reads the served
  // distribution files where a product names no metadata.
  Plist catalog = read("served", "content/catalogs/others/" + kNewest);
  Plist manifest = read("served", "manifest.plist");
  std::size_t built = 0;
  for (const auto& [productId, entry] : catalog[KTCatalogProductsDictKey].items()) {
    std::optional<Url> metadata;
    if (entry["ServerMetadataURL"].isString()) {
      metadata = Url::parse(entry["ServerMetadataURL"].stringValue());
    }
    auto product = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
        productId, entry, metadata, context().services());
    if (product->initStatus() == 1) ++built;
  }
  EXPECT_EQ(built, 120u);
  const std::string withoutMetadata = manifest["cases"]["noServerMetadataURL"][0].stringValue();
  auto generated = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      withoutMetadata, catalog[KTCatalogProductsDictKey][withoutMetadata], std::nullopt,
      context().services());
  EXPECT_NE(generated->bundleNames()["English"].stringValue().find("Vantor"), std::string::npos);

  auto package = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "VT-000020", catalog[KTCatalogProductsDictKey]["VT-000020"], std::nullopt,
      context().services());
  EXPECT_TRUE(KTSProductDownload::downloadMirroredFiles(*package, 4));
  EXPECT_TRUE(sample::stopServingTree(folder));
  EXPECT_FALSE(sample::stopServingTree(folder));
}

}  // namespace
}  // namespace ondrel
