// The working set file shared by the daemon and the administration side.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "DateFormats.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSWorkingSet.h"
#include "OndrelTest.h"
#include "ProductArchives.h"

namespace ondrel {
namespace {

using test::OndrelTest;

class KTSWorkingSetTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    setUserDefaults(true);
  }
  std::string file() const {
    return path("/Library/Server/Ondrel/Status/com.vantor.server.ondrel.plist");
  }
  Plist onDisk() const { return (*Plist::readFile(file(), nullptr))["workingSetProducts"]; }
  std::shared_ptr<KTSProduct> product(const std::string& id, const char* mirror = "DoNotMirror",
                                      bool enabled = false) {
    return KTSProduct::productWithArchiveRepresentation(test::productArchive(id, mirror, enabled),
                                                        context().layout());
  }
};

TEST_F(KTSWorkingSetTest, LoadingCreatesReportsCorruptionAndKeepsMemory) {
  auto workingSet = (&context().workingSet());
  EXPECT_EQ(workingSet->currentPath(), file());
  EXPECT_TRUE(logged("ondrd_test[DBG]: WSET: ==== creating new working set ==== "));
  EXPECT_EQ(readFile(file()).find("<key>workingSetProducts</key>") != std::string::npos, true);
  EXPECT_FALSE(workingSet->loadProducts()) << "a successful load answers false";

  workingSet->setEnableSettingForProductID(true, "unknown");
  EXPECT_TRUE(workingSet->containsProductID("unknown"));
  EXPECT_EQ(workingSet->productDictForID("unknown"), Plist::dictionary());
  workingSet->setMirrorSettingForProductID(3, std::nullopt);
  Plist records = workingSet->products();
  for (const std::string& corrupt :
       {std::string("<plist><array/></plist>"), std::string("not a plist"),
        std::string(
            "<plist><dict><key>workingSetProducts</key><string>x</string></dict></plist>")}) {
    writeFile(file(), corrupt);
    EXPECT_TRUE(workingSet->loadProducts()) << corrupt;
    EXPECT_EQ(workingSet->products(), records) << "records in memory stay";
  }
  EXPECT_TRUE(logged(
      "ondrd_test[ERR]: Error: The working set file is inaccessible or corrupt (1): " + file()));
  writeFile(file(), "<plist><dict><key>other</key><true/></dict></plist>");
  EXPECT_FALSE(workingSet->loadProducts());
  EXPECT_EQ(workingSet->products(), records);

  // Malformed records answer the getters' defaults.
  writeFile(file(),
            "<plist><dict><key>workingSetProducts</key><dict><key>A</key><string>x</string>"
            "<key>B</key><dict><key>mirror</key><integer>3</integer><key>enable</key>"
            "<string>YES</string></dict></dict></dict></plist>");
  EXPECT_FALSE(workingSet->loadProducts());
  EXPECT_EQ(workingSet->mirrorSettingForProductID("A"), 0);
  EXPECT_FALSE(workingSet->enableSettingForProductID("A"));
  EXPECT_EQ(workingSet->mirrorSettingForProductID("B"), 0);
  EXPECT_TRUE(workingSet->enableSettingForProductID("B"));
}

TEST_F(KTSWorkingSetTest, MergingACatalogKeepsTheAdministratorsSettings) {
  auto workingSet = (&context().workingSet());
  workingSet->setMirrorSettingForProductID(3, "P1");
  Plist settings = Plist::dictionary();
  settings.set("mirror", "Mirrored");
  workingSet->setProductDictForID(settings, "P1");
  workingSet->setProductDictForID(settings, "Gone");
  ASSERT_TRUE(workingSet->saveProductsArchivingPrevious(false));

  auto noDate = product("P3");
  noDate->setPostDate(std::nullopt);
  KTSWorkingSet::ProductsById catalog{{"P1", product("P1", "PleaseMirror", true)},
                                      {"P2", product("P2", "Downloading")},
                                      {"P3", noDate}};
  ASSERT_TRUE(
      workingSet->updateWithProductsAndRevocationsArchivingPrevious(catalog, Plist(), true));
  Plist records = onDisk();
  EXPECT_EQ(records.size(), 3u);
  EXPECT_EQ(records["P1"]["mirror"].stringValue(), "Mirrored");
  EXPECT_FALSE(records["P1"].contains("enable")) << "missing from the old record: removed";
  EXPECT_TRUE(records.contains("Gone"));
  EXPECT_EQ(records["P2"]["IFPkgFlagRestartAction"].stringValue(), "IncompleteDownload");
  EXPECT_EQ(records["P2"]["CompositeProductState"].stringValue(), "RECURRING");
  EXPECT_EQ(records["P2"]["Internal-BuildVersion"].stringValue(), "16A1");
  EXPECT_EQ(records["P2"]["PostDate"].stringValue(), "2016-09-20 17:00:00 +0000");
  EXPECT_TRUE(
      logged("ondrd_test[WRN]: Cannot process catalog item for product P3 due to "
             "missing/malformed data."));
  EXPECT_TRUE(std::filesystem::exists(file() + ".previous"));
  EXPECT_FALSE(
      Plist::readFile(file() + ".previous", nullptr).value()["workingSetProducts"].contains("P2"));
}

TEST_F(KTSWorkingSetTest, StatusUpdatesAreThrottledToOneWriteASecond) {
  auto workingSet = (&context().workingSet());
  auto p1 = product("P1");
  ASSERT_TRUE(
      workingSet->updateWithProductsAndRevocationsArchivingPrevious({{"P1", p1}}, Plist(), false));
  clock_->advance(std::chrono::seconds(2));
  p1->state().restore(KTSProductState::Downloading, false);
  p1->state().progress().downloadedSize = Plist::integer(100);
  workingSet->updateProductStatus(*p1);
  EXPECT_EQ(onDisk()["P1"]["mirror"].stringValue(), "Downloading");
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: WSET: Updated product P1; mirror=Downloading, "
             "d.l.size=100, eanbled=NO."));
  p1->state().progress().downloadedSize = Plist::integer(200);
  workingSet->updateProductStatus(*p1);
  EXPECT_EQ(onDisk()["P1"]["DownloadedSize"].integerValue(), 100) << "second write held back";
  EXPECT_TRUE(workingSet->cacheDirty());
  clock_->advance(std::chrono::milliseconds(1100));
  p1->state().restore(KTSProductState::Mirrored, true);
  workingSet->updateProductStatus(*p1);
  EXPECT_EQ(onDisk()["P1"]["DownloadedSize"].integerValue(), 200);
  EXPECT_TRUE(onDisk()["P1"]["enable"].boolValue());
  // "mirror" read as the old enabled value: an enabled product always counts as changed.
  clearLog();
  clock_->advance(std::chrono::seconds(2));
  workingSet->updateProductStatus(*p1);
  EXPECT_TRUE(logged("ondrd_test[DBG]: WSET: P1 enabled state changed: old=NO, new=YES."));
}

TEST_F(KTSWorkingSetTest, RefreshSeesTheOtherProcessesWritesOnly) {
  auto daemon = std::make_shared<KTSWorkingSet>(context().preferences(), file());
  daemon->setEnableSettingForProductID(true, "P1");
  ASSERT_TRUE(daemon->saveProductsArchivingPrevious(false));
  clearLog();
  daemon->refreshProducts();
  EXPECT_FALSE(logged("ondrd_test[DBG]: WSET: loading com.vantor.server.ondrel.plist"));

  // Another writer within the same second: seen through the file's identity and full-resolution
  // time; our unsaved change is given up in favour of the file.
  auto admin = std::make_shared<KTSWorkingSet>(context().preferences(), file());
  admin->setMirrorSettingForProductID(KTSProductState::PleaseMirror, "P1");
  ASSERT_TRUE(admin->saveProductsArchivingPrevious(false));
  daemon->setProductDictForID(Plist::dictionary(), "Unsaved");
  daemon->refreshProducts();
  EXPECT_EQ(daemon->mirrorSettingForProductID("P1"), KTSProductState::PleaseMirror);
  EXPECT_FALSE(daemon->containsProductID("Unsaved"));

  // A file that cannot be used keeps the unsaved changes, merged over the records in memory.
  daemon->setProductDictForID(Plist::dictionary(), "Unsaved");
  writeFile(file(), "garbage");
  daemon->refreshProducts();
  EXPECT_TRUE(logged("ondrd_test[DBG]: WSET: merging unsaved changes into loaded cache"));
  EXPECT_TRUE(daemon->containsProductID("Unsaved"));
  EXPECT_TRUE(daemon->containsProductID("P1"));

  std::filesystem::remove(file());
  daemon->refreshProducts();
  EXPECT_EQ(daemon->products(), Plist::dictionary());
  EXPECT_EQ(onDisk(), Plist::dictionary());
}

TEST_F(KTSWorkingSetTest, TwoProcessesShareTheFileWithoutLosingSettings) {
  auto seed = std::make_shared<KTSWorkingSet>(context().preferences(), file());
  KTSWorkingSet::ProductsById catalog;
  for (int i = 0; i < 50; ++i) catalog[fmt::format("P{}", i)] = product(fmt::format("P{}", i));
  ASSERT_TRUE(seed->updateWithProductsAndRevocationsArchivingPrevious(catalog, Plist(), false));
  Clock::install(nullptr);  // both processes on real time, as in production

  pid_t admin = fork();
  ASSERT_GE(admin, 0);
  if (admin == 0) {
    auto workingSet = std::make_shared<KTSWorkingSet>(context().preferences(), file());
    for (int round = 0; round < 200; ++round) {
      workingSet->refreshProducts();
      std::string id = fmt::format("P{}", round % 50);
      workingSet->setEnableSettingForProductID(round >= 150, id);
      workingSet->setMirrorSettingForProductID(
          round >= 150 ? KTSProductState::PleaseMirror : KTSProductState::DoNotMirror, id);
      if (!workingSet->saveProductsArchivingPrevious(false)) _exit(1);
      usleep(2000);
    }
    _exit(0);
  }
  // The daemon records per-product progress, taking each product's settings from the working
  // set as the catalog does, while the administration side saves its settings.
  auto daemon = std::make_shared<KTSWorkingSet>(context().preferences(), file());
  int torn = 0;
  int status = 0;
  for (int round = 0, adminDone = 0; adminDone < 2; ++round) {
    daemon->refreshProducts();
    auto& current = catalog[fmt::format("P{}", round % 50)];
    current->state().restore(daemon->mirrorSettingForProductID(*current->productId()),
                             daemon->enableSettingForProductID(*current->productId()));
    current->state().progress().downloadedSize = Plist::integer(round);
    daemon->updateProductStatus(*current);
    if (!Plist::readFile(file(), nullptr)) ++torn;
    if (adminDone > 0 || waitpid(admin, &status, WNOHANG) == admin) ++adminDone;
  }
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(torn, 0);
  daemon->refreshProducts();
  for (int i = 0; i < 50; ++i) {
    std::string id = fmt::format("P{}", i);
    EXPECT_TRUE(daemon->enableSettingForProductID(id)) << id;
    EXPECT_EQ(daemon->mirrorSettingForProductID(id), KTSProductState::PleaseMirror) << id;
  }
  if (!daemon->cacheDirty()) {
    EXPECT_EQ(onDisk(), daemon->products());
  }
}

}  // namespace
}  // namespace ondrel
