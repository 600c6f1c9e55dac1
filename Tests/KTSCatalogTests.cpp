// Catalog syncs against a loopback upstream: the composite merge, the product index, the
// policies, the deprecation chains, the cache and the served entries.
#include <filesystem>
#include <functional>

#include "KTCatalogKeys.h"
#include "KTSCatalog.h"
#include "KTSError.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSProductDownload.h"
#include "KTSWorkingSet.h"
#include "OndrelTest.h"
#include "UpstreamFiles.h"

namespace ondrel {
namespace {

using test::OndrelTest;
using test::UpstreamFiles;

constexpr const char* kCatalogPath = "/content/catalogs/others/index-16.ktcatalog";

class KTSCatalogTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    setUserDefaults(true);
    ASSERT_TRUE(upstream_.start());
    preferences_ = context().sharedPreferences();
    setMode(false);
    html_ = preferences_->updatesHtmlPath();
  }

  void setMode(bool automatic, bool onlyNew = false) {
    preferences_->setValue("autoMirror", Plist::boolean(automatic));
    preferences_->setValue("autoEnable", Plist::boolean(automatic));
    preferences_->setValue("PurgeUnused", Plist::boolean(automatic));
    preferences_->setValue("autoMirrorOnlyNew", Plist::boolean(onlyNew));
  }

  // A product whose files and metadata the upstream serves.
  Plist entry(const std::string& id, const std::string& packageName = "") {
    std::string folder = "/content/downloads/" + id;
    std::string package = folder + "/" + (packageName.empty() ? id + ".pkg" : packageName);
    upstream_.put(folder + "/English.dist",
                  test::distributionDocument(id + " Update", "1.0", "NoRestart", "d"));
    upstream_.put(package, std::string(10, 'p'));
    Plist smd = Plist::dictionary();
    for (const char* key : {"IFPkgFlagInstalledSize", "IFPkgFlagRestartAction"}) smd.set(key, "0");
    Plist english = Plist::dictionary();
    english.set("title", id + " Update");
    smd.set("localization", Plist::dictionary());
    smd.mutableValue("localization").set("English", english);
    smd.set("platforms", Plist::dictionary());
    smd.set("CFBundleShortVersionString", "1.0");
    upstream_.put(folder + "/" + id + ".smd", smd.toXml());
    Plist product = upstream_.entry({{"English", folder + "/English.dist"}}, {{package, 10, ""}});
    product.set("ServerMetadataURL", upstream_.url(folder + "/" + id + ".smd"));
    return product;
  }

  void publish(const std::vector<std::string>& ids, const Plist& indexDate = Plist()) {
    Plist products = Plist::dictionary();
    for (const std::string& id : ids) products.set(id, entry(id));
    publishProducts(products, indexDate);
  }

  void publishProducts(const Plist& products, const Plist& indexDate = Plist()) {
    Plist catalog = Plist::dictionary();
    catalog.set(KTCatalogVantorPostURLKey, "http://post.vantor.example/");
    catalog.set(KTCatalogIndexDateKey,
                indexDate.isNull() ? Plist("2016-09-20T17:00:00Z") : indexDate);
    catalog.set(KTCatalogProductsDictKey, products);
    upstream_.put(kCatalogPath, catalog.toXml());
  }

  std::shared_ptr<KTSCatalog> sync(const Plist& deprecations = Plist()) {
    auto catalog = KTSCatalog::catalogWithUrl(*Url::parse(upstream_.url(kCatalogPath)), context());
    catalog->syncCatalogWithDeprecationsForcingUpdate(deprecations, true);
    return catalog;
  }

  // The merge alone, as a sync runs it, without the steps after it.
  std::shared_ptr<KTSCatalog> merge(const Plist& deprecations = Plist()) {
    auto catalog = KTSCatalog::catalogWithUrl(*Url::parse(upstream_.url(kCatalogPath)), context());
    catalog->setDeprecatedProducts(deprecations);
    catalog->loadCompositeCatalog();
    catalog->updateCompositeCatalogWithCatalog(
        catalog->downloadCatalogToPathForcingUpdate(catalog->vantorCatalogPath(), true));
    return catalog;
  }

  static std::int64_t stateOf(const KTSCatalog& catalog, const std::string& id) {
    return catalog.compositeCatalog()[KTCatalogProductsDictKey][id]["CompositeProductState"]
        .integerValue();
  }

  static Plist deprecating(const std::string& deprecator, std::vector<std::string> deprecated) {
    Plist deprecations = Plist::dictionary();
    deprecations.set("DeprecatedProducts", Plist::dictionary());
    deprecations.mutableValue("DeprecatedProducts").set(deprecator, Plist::stringArray(deprecated));
    return deprecations;
  }

  UpstreamFiles upstream_;
  std::shared_ptr<KTSPreferences> preferences_;
  std::string html_;
};

TEST_F(KTSCatalogTest, PathsFollowTheirFormats) {
  KTSCatalog catalog(
      *Url::parse("http://127.0.0.1:8181/content/catalogs/others/index-16.ktcatalog"), context());
  const std::string prefix = preferences_->updatesDocRoot() + "html/content/catalogs/others/";
  EXPECT_EQ(catalog.vantorCatalogPath(), prefix + "index-16.ktcatalog.vantor");
  EXPECT_EQ(catalog.compositeCatalogPath(), prefix + "index-16.ktcatalog.composite");
  EXPECT_EQ(catalog.productsCachePath(), prefix + "index-16.productscache");
  EXPECT_EQ(catalog.catalogPrimePath(),
            fmt::format("http://{}:8088/content/catalogs/others/index-16.ktcatalog",
                        preferences_->hostName()));
  EXPECT_EQ(KTSCatalog::compositeProductStateForString("new"), 0);
  EXPECT_EQ(KTSCatalog::compositeProductStateForString("ORPHANED"), 4);
  EXPECT_EQ(KTSCatalog::compositeProductStringForStateValue(9), "UNKNOWN");
}

TEST_F(KTSCatalogTest, TheMergeRemembersEveryProductItHasSeen) {
  // A first run seeds the composite from the archived upstream copy: states UNKNOWN.
  auto seeded = KTSCatalog::catalogWithUrl(*Url::parse(upstream_.url(kCatalogPath)), context());
  Plist previous = Plist::dictionary();
  previous.set(KTCatalogProductsDictKey, Plist::dictionary());
  previous.mutableValue(KTCatalogProductsDictKey).set("A", entry("A"));
  std::filesystem::create_directories(html_ + "/content/catalogs/others");
  ASSERT_TRUE(previous.writeXmlFile(seeded->vantorCatalogPath() + ".previous", nullptr));
  seeded->loadCompositeCatalog();
  EXPECT_EQ(stateOf(*seeded, "A"), 0);

  Plist products = Plist::dictionary();
  for (const char* id : {"A", "B", "C", "D"}) products.set(id, entry(id));
  products.set("T", entry("T", "TestUpdate-T.pkg"));
  products.set("../evil", entry("E"));
  products.set("X", "not a dictionary");
  publishProducts(products, Plist::integer(12));
  auto first = sync();
  EXPECT_EQ(stateOf(*first, "A"), KTSCatalog::Recurring);
  EXPECT_EQ(stateOf(*first, "B"), KTSCatalog::New);
  for (const char* absent : {"T", "../evil", "X"}) {
    EXPECT_FALSE(first->compositeCatalog()[KTCatalogProductsDictKey].contains(absent)) << absent;
  }
  EXPECT_TRUE(
      logged("ondrd_test[WRN]: *** Ignoring catalog product with an invalid product id: "
             "\"../evil\""));
  EXPECT_EQ(first->compositeCatalog()[KTCatalogIndexDateKey].dateValue(), clock_->now());
  EXPECT_EQ(first->products()->size(), 4u);

  // C is dropped with a deprecation record, D without; B stays.
  // C is dropped with a deprecation record, D without; B stays. (A whole sync would then drop
  // both from the index and the composite, as neither has files on disk.)
  products.remove("C");
  products.remove("D");
  publishProducts(products);
  clearLog();
  auto second = merge(deprecating("B", {"C"}));
  EXPECT_EQ(stateOf(*second, "B"), KTSCatalog::Recurring);
  EXPECT_EQ(stateOf(*second, "C"), KTSCatalog::Deprecated);
  EXPECT_EQ(stateOf(*second, "D"), KTSCatalog::Orphaned);
  EXPECT_EQ(second->compositeCatalog()[KTCatalogProductsDictKey]["B"]["DeprecatedProducts"],
            Plist::stringArray({"C"}));
  EXPECT_TRUE(logged("ondrd_test[DBG]: CTLG: [INFO] adding DEPRECATED composite product entry: C"));
  clearLog();
  merge(deprecating("B", {"C"}));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: CTLG: [NOTICE] processing catalog with unchanged index date"));

  // A test package appearing on a known product leaves its old entry as it was.
  products.set("A", entry("A", "TestUpdate-A.pkg"));
  publishProducts(products);
  auto third = merge();
  EXPECT_EQ(third->compositeCatalog()[KTCatalogProductsDictKey]["A"][KTCatalogProductPackagesKey],
            second->compositeCatalog()[KTCatalogProductsDictKey]["A"][KTCatalogProductPackagesKey]);

  // With "autoMirrorOnlyNew" as well, "PurgeUnused" purges nothing; in AUTOMATIC mode it does.
  publish({"A"});
  setMode(true, true);
  EXPECT_TRUE(merge()->compositeCatalog()[KTCatalogProductsDictKey].contains("B"));
  setMode(true);
  clearLog();
  auto purged = merge(deprecating("A", {"C"}));
  EXPECT_EQ(purged->compositeCatalog()[KTCatalogProductsDictKey].size(), 1u);
  EXPECT_TRUE(logged("ondrd_test[DBG]: CTLG: [INFO] adding ORPHAN composite product entry: D"));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: CTLG: [INFO] auto-purging DEPRECATED composite product entry: C"));
}

TEST_F(KTSCatalogTest, AFailedMergeChangesNothingAndReachesTheCaller) {
  upstream_.putStatus(kCatalogPath, 404);
  auto catalog = KTSCatalog::catalogWithUrl(*Url::parse(upstream_.url(kCatalogPath)), context());
  try {
    catalog->syncCatalogWithDeprecationsForcingUpdate(Plist(), true);
    ADD_FAILURE() << "the failed merge must reach the caller";
  } catch (const KTSError& error) {
    EXPECT_EQ(error.domain(), "com.vantor.KTServer");
  }
  EXPECT_FALSE(std::filesystem::exists(catalog->compositeCatalogPath()));
  EXPECT_FALSE(catalog->products());

  publish({"A"});
  sync();
  const std::string composite = readFile(catalog->compositeCatalogPath());
  for (const std::string& garbage :
       {std::string("garbage"),
        std::string("<plist><dict><key>VantorPostURL</key><string>x</string><key>Products</key>"
                    "<array/></dict></plist>")}) {
    upstream_.put(kCatalogPath, garbage);
    EXPECT_THROW(sync(), KTSError);
    EXPECT_EQ(readFile(catalog->compositeCatalogPath()), composite);
  }
}

TEST_F(KTSCatalogTest, ProductsThatCannotBeMadeLeaveTheIndexButNotTheMemory) {
  Plist products = Plist::dictionary();
  products.set("A", entry("A"));
  Plist dead = entry("Z");
  dead.remove("ServerMetadataURL");
  dead.set(KTCatalogProductDistributionsDictKey, Plist::dictionary());
  dead.mutableValue(KTCatalogProductDistributionsDictKey)
      .set("English", upstream_.url("/content/downloads/Z/missing.dist"));
  products.set("Z", dead);
  publishProducts(products);
  auto catalog = sync();
  EXPECT_FALSE(catalog->productForProductId("Z"));
  EXPECT_TRUE(catalog->compositeCatalog()[KTCatalogProductsDictKey].contains("Z"));
  EXPECT_TRUE(logged("ondrd_test[DBG]: CTLG: detected dead product Z"));
  catalog->commitCatalogProductRemovals();
  EXPECT_FALSE(KTSCatalog(catalog->catalogURL(), context()).compositeCatalog().isDictionary());
  auto reloaded = KTSCatalog::catalogWithUrl(catalog->catalogURL(), context());
  reloaded->loadCompositeCatalog();
  EXPECT_FALSE(reloaded->compositeCatalog()[KTCatalogProductsDictKey].contains("Z"));
}

TEST_F(KTSCatalogTest, AnUnreadablePostingDateReadsAsWhenTheProductWasFirstSeen) {
  Plist products = Plist::dictionary();
  products.set("A", entry("A"));
  products.mutableValue("A").set(KTCatalogProductPostDateKey, "yesterday");
  publishProducts(products);
  Date firstSeen = *sync()->productForProductId("A")->postDate();
  EXPECT_EQ(firstSeen, clock_->now());

  // The pass keeps the product's record; later passes read the date from it, not the clock.
  KTSWorkingSet& workingSet = context().workingSet();
  workingSet.setProductDictForID(
      workingSet.representationForProduct(sync()->productForProductId("A").get()), "A");
  clock_->advance(std::chrono::hours(30));
  EXPECT_EQ(sync()->productForProductId("A")->postDate(), firstSeen);
}

TEST_F(KTSCatalogTest, PoliciesFollowTheModeAndTheWorkingSet) {
  publish({"A", "B", "M"});
  setMode(true);
  auto automatic = sync();
  EXPECT_TRUE(logged("ondrd_test[DBG]: CTLG: Mode is AUTOMATIC."));
  EXPECT_EQ(automatic->productForProductId("A")->state().mirror(), KTSProductState::PleaseMirror);
  EXPECT_TRUE(automatic->productForProductId("A")->state().enableWhenMirrored());

  // Manual, auto-download on: scheduled products lose their automatic enable.
  preferences_->setValue("autoEnable", Plist::boolean(false));
  preferences_->setValue("PurgeUnused", Plist::boolean(false));
  clearLog();
  auto manual = sync();
  EXPECT_TRUE(
      logged("ondrd_test[INF]: * Manual mode - auto-download is ON, auto-enable option is "
             "OFF. Canceling pending enable requests only."));
  EXPECT_TRUE(logged("ondrd_test[DBG]: CTLG: auto-copy - product \"A\" scheduled."));
  EXPECT_FALSE(manual->productForProductId("A")->state().enableWhenMirrored());

  // The working set's settings win; a Mirrored product whose files are gone is re-queued.
  auto workingSet = (&context().workingSet());
  workingSet->setProductDictForID(Plist::dictionary(), "M");
  workingSet->setMirrorSettingForProductID(KTSProductState::Mirrored, "M");
  workingSet->setMirrorSettingForProductID(KTSProductState::PleaseMirror, "B");
  setMode(false);
  clearLog();
  auto off = sync();
  EXPECT_TRUE(logged("ondrd_test[INF]: * Auto-copy options are OFF. No products were changed."));
  EXPECT_EQ(off->productForProductId("B")->state().mirror(), KTSProductState::DoNotMirror);
  EXPECT_EQ(off->productForProductId("M")->state().mirror(), KTSProductState::PleaseMirror);
  EXPECT_TRUE(
      logged("ondrd_test[INF]: Previously copied product M missing from local storage. "
             "This product will be re-download."));

  // "Only new": known products are skipped, named by their composite state.
  preferences_->setValue("autoMirrorOnlyNew", Plist::boolean(true));
  clearLog();
  sync();
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: CTLG: auto-copy - product \"A\" SKIPPED (state: RECURRING)."));
}

TEST_F(KTSCatalogTest, DeprecationChainsWithdrawAndGiveBack) {
  publish({"X", "Y", "Z", "C1", "C2"});
  Plist deprecations = deprecating("Z", {"Y"});
  deprecations.mutableValue("DeprecatedProducts").set("Y", Plist::stringArray({"X"}));
  deprecations.mutableValue("DeprecatedProducts").set("C1", Plist::stringArray({"C2"}));
  deprecations.mutableValue("DeprecatedProducts").set("C2", Plist::stringArray({"C1"}));
  auto workingSet = (&context().workingSet());
  auto first = sync();
  for (const char* id : {"X", "Y", "Z"}) {
    ASSERT_TRUE(KTSProductDownload::downloadMirroredFiles(*first->productForProductId(id), 4));
    workingSet->setProductDictForID(Plist::dictionary(), id);
    workingSet->setMirrorSettingForProductID(KTSProductState::Mirrored, id);
  }
  workingSet->setEnableSettingForProductID(true, "Z");
  auto enabled = sync(deprecations);
  EXPECT_EQ(enabled->productForProductId("Y")->state().mirror(), KTSProductState::LocalDeprecated);
  EXPECT_EQ(enabled->productForProductId("X")->state().mirror(), KTSProductState::LocalDeprecated);
  EXPECT_TRUE(
      logged("ondrd_test[INF]: Product X is disabled because replacement product Y was enabled."));

  // Disabling Z gives Y and X back. A cycle has no root, and a walk into one ends.
  workingSet->setEnableSettingForProductID(false, "Z");
  for (const char* id : {"X", "Y"}) {
    workingSet->setMirrorSettingForProductID(KTSProductState::LocalDeprecated, id);
  }
  clearLog();
  auto disabled = sync(deprecations);
  EXPECT_EQ(disabled->productForProductId("Y")->state().mirror(), KTSProductState::LocalOnly);
  EXPECT_EQ(disabled->productForProductId("X")->state().mirror(), KTSProductState::LocalOnly);
  EXPECT_TRUE(
      logged("ondrd_test[INF]: Product X may be re-enabled; replacement product Y was disabled."));
  auto c1 = disabled->productForProductId("C1");
  disabled->updateDeprecatedProductsStatesWithDeprecatorSuperiorEnabled(*c1, nullptr, true);
}

TEST_F(KTSCatalogTest, CacheVerificationAndServedEntries) {
  publish({"A", "B", "L"});
  auto workingSet = (&context().workingSet());
  workingSet->setProductDictForID(Plist::dictionary(), "L");
  workingSet->setMirrorSettingForProductID(KTSProductState::LocalDeprecated, "L");
  auto catalog = sync();
  EXPECT_FALSE(catalog->productForProductId("L")) << "local-only without files leaves at once";
  EXPECT_FALSE(catalog->compositeCatalog()[KTCatalogProductsDictKey].contains("L"));

  // A cache with an element that does not restore gives an index of the others.
  Plist cache = *Plist::readFile(catalog->productsCachePath(), nullptr);
  ASSERT_EQ(cache.size(), 2u);
  cache.append(Plist("not an archive"));
  ASSERT_TRUE(cache.writeXmlFile(catalog->productsCachePath(), nullptr));
  auto loaded = KTSCatalog::catalogWithUrl(catalog->catalogURL(), context());
  loaded->loadCatalog();
  EXPECT_EQ(loaded->products()->size(), 2u);
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: CTLG: *** product init from cache item failed! ID = (null)"));
  writeFile(catalog->productsCachePath(), "corrupt");
  auto rebuilt = KTSCatalog::catalogWithUrl(catalog->catalogURL(), context());
  rebuilt->loadCatalog();
  EXPECT_EQ(rebuilt->products()->size(), 2u);

  // Caches written side by side are each the bytes writing it alone gives, whether the catalogs
  // share a product or each holds its own under the same identifier.
  std::vector<std::shared_ptr<KTSCatalog>> others;
  for (const char* name : {"index-17", "index-18"}) {
    others.push_back(KTSCatalog::catalogWithUrl(
        *Url::parse(upstream_.url(std::string("/content/catalogs/others/") + name + ".ktcatalog")),
        context()));
  }
  std::shared_ptr<KTSProduct> ownB = loaded->productForProductId("B");
  ownB->state().enableOnceMirrored();
  others[0]->setProducts(KTSCatalog::ProductIndex{{"B", ownB}});
  others[1]->setProducts(catalog->products());
  KTSCatalog::saveProductIndexCaches({catalog.get(), others[0].get(), others[1].get()});
  for (const auto& each : {catalog, others[0], others[1]}) {
    std::string together = readFile(each->productsCachePath());
    each->saveProductIndexCache();
    EXPECT_EQ(together, readFile(each->productsCachePath())) << each->productsCachePath();
  }
  EXPECT_EQ(Plist::readFile(others[0]->productsCachePath(), nullptr)->size(), 1u);

  // The served entry names this server only, by the name its context's layout gives.
  preferences_->setHostName("mirror.example");
  KTSPassContext renamed(preferences_);
  auto serving = KTSCatalog::catalogWithUrl(catalog->catalogURL(), renamed);
  serving->loadCatalog();
  auto product = serving->productForProductId("A");
  Plist served = serving->mirrorRepresentationForProduct(*product);
  std::function<void(const Plist&)> walk = [&](const Plist& value) {
    if (value.isString()) {
      EXPECT_EQ(value.stringValue().find("127.0.0.1"), std::string::npos) << value.stringValue();
    }
    for (const auto& [key, item] : value.items()) walk(item);
    for (const Plist& item : value.elements()) walk(item);
  };
  walk(served);
  EXPECT_EQ(served["ServerMetadataURL"].stringValue(),
            "http://mirror.example:8088/content/downloads/A/A.smd");
  EXPECT_EQ(served[KTCatalogProductPackagesKey][0][KTCatalogPackageURLStringKey].stringValue(),
            "http://mirror.example:8088/content/downloads/A/A.pkg");
  // Metadata that is not on this server is not named, neither here nor upstream.
  std::filesystem::remove(*product->smdPath()->asLocalPath(renamed.layout()));
  EXPECT_FALSE(serving->mirrorRepresentationForProduct(*product).contains("ServerMetadataURL"));

  loaded->setProducts(KTSCatalog::ProductIndex{});
  loaded->saveProductIndexCache();
  EXPECT_FALSE(std::filesystem::exists(catalog->productsCachePath()));
}

}  // namespace
}  // namespace ondrel
