#include <unistd.h>

#include <filesystem>

#include "KTSCatalogSets.h"
#include "KTSMetaIndex.h"
#include "KTSPreferences.h"
#include "OndrelTest.h"
#include "PathString.h"

namespace ondrel {
namespace {

using test::OndrelTest;

class KTSMetaIndexTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    setUserDefaults(true);
    preferences_ = context().sharedPreferences();
    preferences_->setValue("metaIndexURL", "http://127.0.0.1:8181/content/meta/config.plist");
    preferences_->setValue("otherCatalogs", Plist::array());
    html_ = preferences_->updatesHtmlPath();
  }

  std::string vendor(const std::string& name) const {
    return "http://127.0.0.1:8181/content/catalogs/others/" + name;
  }

  Plist file(const std::string& name) const {
    return Plist::readFile(html_ + "/" + name, nullptr).value_or(Plist());
  }

  std::shared_ptr<KTSPreferences> preferences_;
  std::string html_;
};

TEST_F(KTSMetaIndexTest, CatalogVersionTables) {
  const auto& supported = KTSCatalogSets::supportedCatalogNames();
  ASSERT_EQ(supported.size(), 8u);
  EXPECT_EQ(supported.front(), "index-alder.merged-1.ktcatalog");
  for (std::size_t i = 0; i < supported.size(); ++i) {
    EXPECT_EQ(KTSCatalogSets::taltosNameForCatalogName(supported[i]), std::to_string(9 + i));
  }
  EXPECT_FALSE(KTSCatalogSets::taltosNameForCatalogName("index.ktcatalog"));
  EXPECT_FALSE(KTSCatalogSets::taltosNameForCatalogName(""));

  EXPECT_EQ(KTSCatalogSets::currentCatalogVersion(), "10.12");
  EXPECT_EQ(KTSCatalogSets::previousCatalogVersions().front(), "10.11");
  auto current = KTSCatalogSets::defaultCatalogsForVersion("10.12");
  ASSERT_TRUE(current);
  EXPECT_EQ(current->front(), supported.back()) << "newest first";
  EXPECT_EQ(current->back(), "index-alder-birch.merged-1.ktcatalog");
  EXPECT_EQ(current->size(), 7u);
  EXPECT_FALSE(KTSCatalogSets::defaultCatalogsForVersion("10.5"));
  EXPECT_FALSE(KTSCatalogSets::defaultCatalogsForVersion("10.12.1"));

  EXPECT_EQ(*KTSCatalogSets::defaultCatalogsForVersion("10.6"),
            (std::vector<std::string>{supported[1], supported[0], "index.ktcatalog"}));
}

TEST_F(KTSMetaIndexTest, DefaultListIsSavedExportedAndLinked) {
  preferences_->setValue("publicHostName", "mirror.example");
  preferences_->setValue("portToUse", Plist::integer(8088));
  auto metaIndex = (&context().metaIndex());
  ASSERT_TRUE(metaIndex->downloadForcingUpdate(false));
  EXPECT_TRUE(
      logged("ondrd_test[ERR]: Catalog meta-index load failed!  Unable to initialize list "
             "of catalogs."));
  const std::string newest = KTSCatalogSets::supportedCatalogNames().back();
  EXPECT_EQ(file("catalogs.ktcatalog.alternate")["CatalogsList"],
            Plist::stringArray({vendor(newest)}));
  EXPECT_EQ(file("catalogs.ktcatalog.alternate")["PrimaryCatalog"].stringValue(), vendor(newest));
  EXPECT_EQ(file("catalogs.ktcatalog")["PrimaryCatalog"].stringValue(),
            "http://mirror.example:8088/content/catalogs/others/" + newest);
  EXPECT_EQ(std::filesystem::read_symlink(html_ + "/" + newest),
            html_ + "/content/catalogs/others/" + newest);
  EXPECT_EQ(*metaIndex->deprecationsLocalPath(), html_ + "/content/catalogs/Deprecations.plist");
  EXPECT_EQ(metaIndex->deprecationsURL()->text(),
            "http://127.0.0.1:8181/content/catalogs/Deprecations.plist");

  // Other catalogs: one already listed adds nothing; a retired one is added, then removed.
  preferences_->setValue(
      "otherCatalogs",
      Plist::stringArray({newest, "index-10.9-dogwood-cedar-birch-alder.merged-1.ktcatalog",
                          "index.ktcatalog", "../../escape"}));
  clearLog();
  auto forced = std::make_shared<KTSMetaIndex>(context().sharedPreferences());
  ASSERT_TRUE(forced->downloadForcingUpdate(true));
  EXPECT_EQ(forced->catalogs().size(), 2u);
  EXPECT_TRUE(
      logged("ondrd_test[NOT]: Support for 10.4 updates is no longer available in this "
             "version of ondrd_syncd."));
  Plist exported = file("catalogs.ktcatalog")["CatalogsList"];
  Plist alternate = file("catalogs.ktcatalog.alternate")["CatalogsList"];
  ASSERT_EQ(exported.size(), 2u);
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(lastPathComponent(exported[i].stringValue()),
              lastPathComponent(alternate[i].stringValue()));
    EXPECT_EQ(exported[i].stringValue().rfind("http://mirror.example:8088/", 0), 0u);
  }
  EXPECT_FALSE(std::filesystem::exists(html_ + "/escape"));

  // A reload republishes without rebuilding; the links are replaced, never missing.
  auto reloaded = std::make_shared<KTSMetaIndex>(context().sharedPreferences());
  ASSERT_TRUE(reloaded->downloadForcingUpdate(false));
  EXPECT_TRUE(logged("ondrd_test[DBG]: METX: initialized from existing local file"));
  EXPECT_EQ(reloaded->catalogs().size(), 2u);
}

TEST_F(KTSMetaIndexTest, BadAlternateFilesFallBackToTheDefaults) {
  auto metaIndex = std::make_shared<KTSMetaIndex>(context().sharedPreferences());
  metaIndex->updateLocalPaths();
  const std::string alternate = *metaIndex->localPathAlternate();
  const std::string newest = KTSCatalogSets::supportedCatalogNames().back();
  for (const std::string& bad :
       {std::string("not a plist"),
        std::string("<plist><dict><key>CatalogsList</key><string>x</string></dict></plist>"),
        std::string("<plist><dict><key>CatalogsList</key><array><integer>1</integer></array>"
                    "</dict></plist>"),
        std::string("<plist><dict><key>CatalogsList</key><array><string>::</string></array>"
                    "</dict></plist>"),
        std::string("<plist><dict><key>CatalogsList</key><array><string>http://h/a/..</string>"
                    "</array></dict></plist>")}) {
    writeFile(alternate, bad);
    auto loaded = std::make_shared<KTSMetaIndex>(context().sharedPreferences());
    ASSERT_TRUE(loaded->downloadForcingUpdate(false)) << bad;
    ASSERT_EQ(loaded->catalogs().size(), 1u) << bad;
    EXPECT_EQ(loaded->primaryCatalog()->description(), vendor(newest)) << bad;
  }
  Plist list = Plist::dictionary();
  list.set("CatalogsList", Plist::stringArray({vendor("a.ktcatalog"), vendor("b.ktcatalog")}));
  list.set("PrimaryCatalog", vendor("c.ktcatalog"));
  ASSERT_TRUE(list.writeXmlFile(alternate, nullptr));
  ASSERT_TRUE(metaIndex->refresh());
  EXPECT_EQ(metaIndex->primaryCatalog()->description(), vendor("a.ktcatalog"));
  EXPECT_TRUE(
      logged("ondrd_test[WRN]: Metaindex PrimaryCatalog is not a member of CatalogsList.  "
             "PrimaryCatalog has been assigned from the first item from that list."));

  // A retired primary gives way to the first remaining catalog.
  metaIndex->setCatalogs({KTSURL::URLWithString(vendor("index-alder.merged-1.ktcatalog")),
                          KTSURL::URLWithString(vendor("b.ktcatalog"))});
  metaIndex->setPrimaryCatalog(metaIndex->catalogs().front());
  preferences_->setValue("otherCatalogs", Plist::stringArray({"b.ktcatalog"}));
  EXPECT_TRUE(metaIndex->mergeOtherCatalogsSetting());
  EXPECT_EQ(metaIndex->primaryCatalog()->description(), vendor("b.ktcatalog"));
}

}  // namespace
}  // namespace ondrel
