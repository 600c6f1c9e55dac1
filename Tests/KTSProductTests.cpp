// Product construction, server metadata, the generator and the archive form, against a loopback
// upstream.
#include <chrono>
#include <filesystem>
#include <thread>

#include "KTCatalogKeys.h"
#include "KTProductForKTS.h"
#include "KTSFetchScheduler.h"
#include "KTSMetadataGenerator.h"
#include "KTSPassMemo.h"
#include "KTSProduct.h"
#include "KTSProductChange.h"
#include "KTSProductTable.h"
#include "KTSServerMetadata.h"
#include "UpstreamFiles.h"

namespace ondrel {
namespace {

using test::PackageFiles;

Plist metadata(const std::string& title, const std::string& version) {
  Plist english = Plist::dictionary();
  english.set("title", title);
  english.set("description", Plist::data({'H', 'i', 0xC3, 0xA9}));
  Plist french = Plist::dictionary();
  french.set("title", "Mise a jour");
  french.set("description", "a string, not data");
  Plist german = Plist::dictionary();
  german.set("description", Plist::data({0xFF, 0xFE}));
  Plist localization = Plist::dictionary();
  localization.set("English", english);
  localization.set("French", french);
  localization.set("German", german);
  Plist smd = Plist::dictionary();
  smd.set("CFBundleShortVersionString", version);
  smd.set("IFPkgFlagInstalledSize", Plist::integer(4096));
  smd.set("IFPkgFlagRestartAction", "RequireRestart");
  smd.set("localization", localization);
  Plist platforms = Plist::dictionary();
  platforms.set("client", Plist::stringArray({"intel"}));
  smd.set("platforms", platforms);
  return smd;
}

class KTSProductTest : public test::UpstreamProductTest {
 protected:
  // A product with two distributions and two packages, one with a metadata URL.
  Plist fullEntry() {
    upstream_.put("/d/P1/English.dist", test::distributionDocument("Vantor OS Update", "10.6.8",
                                                                   "RequireRestart", "<p>Hi</p>"));
    upstream_.put(
        "/d/P1/French.dist",
        test::distributionDocument("Mise a jour", "10.6.8", "RequireRestart", "<p>Salut</p>"));
    return upstream_.entry({{"English", "/d/P1/English.dist"}, {"French", "/d/P1/French.dist"}},
                           {{"/d/P1/a.pkg", 100, "/d/P1/a.pkm"}, {"/d/P1/b.pkg", 250, ""}});
  }
};

TEST_F(KTSProductTest, ActiveProductDownloadsItsMetadataAndKeepsThePreviousCopy) {
  Plist entry = fullEntry();
  entry.set(KTCatalogProductPostDateKey, Plist::integer(12));
  upstream_.put("/d/P1/P1.smd", metadata("Vantor OS Update", "10.6.8").toXml());
  auto smdUrl = Url::parse(upstream_.url("/d/P1/P1.smd"));
  auto first = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "P1", entry, smdUrl, context().services());
  EXPECT_EQ(first->initStatus(), 1);
  EXPECT_EQ(first->version(), "10.6.8");
  EXPECT_EQ(first->productFamily(), "Vantor OS Update (10.6)");
  EXPECT_EQ(first->restartAction(), "RequireRestart");
  EXPECT_EQ(first->installedSize().integerValue(), 4096);
  EXPECT_EQ(first->bundleNames().size(), 2u);
  EXPECT_EQ(first->descriptions().size(), 1u) << "strings and invalid UTF-8 are left out";
  EXPECT_EQ(first->descriptions()["English"].stringValue(), "Hi\xC3\xA9");
  EXPECT_EQ(first->postDate(), clock_->now()) << "a number is no posting date";
  EXPECT_TRUE(
      logged("ondrd_test[WRN]: *** Product ID: \"P1\" posted date value is not a valid "
             "date format. (value = \"12\")"));
  EXPECT_TRUE(logged("ondrd_test[INF]: *** Product ID: \"P1\" will assume posting date of 'now'."));
  EXPECT_TRUE(logged("ondrd_test[DBG]: PROD: disambiguated family \"Vantor OS Update (10.6)\""));

  // Distributions first, then each package's metadata file before the package itself.
  const Plist& files = first->mirrorFiles();
  ASSERT_EQ(files.size(), 5u);
  EXPECT_EQ(files[2][KTSProduct::kFileLocalPathKey].stringValue(), local("/d/P1/a.pkm"));
  EXPECT_FALSE(files[2].contains(KTSProduct::kFileSizeKey));
  EXPECT_EQ(files[3][KTSProduct::kFileSizeKey].integerValue(), 100);
  EXPECT_FALSE(files[0].contains(KTSProduct::kFileReplaceKey));
  EXPECT_EQ(first->state().progress().totalDownloadSize.integerValue(), 350);

  upstream_.put("/d/P1/P1.smd", metadata("Vantor OS Update", "10.6.9").toXml());
  auto second = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "P1", entry, smdUrl, context().services());
  EXPECT_EQ(second->version(), "10.6.9");
  EXPECT_EQ(
      (*Plist::readFile(local("/d/P1/P1.smd.previous"), nullptr))["CFBundleShortVersionString"]
          .stringValue(),
      "10.6.8");
  EXPECT_FALSE(std::filesystem::exists(local("/d/P1/P1.smd.downloading")));
  EXPECT_EQ(second->smdPath()->parentServerURL(), smdUrl);
}

TEST_F(KTSProductTest, MetadataThatCannotBeDownloadedIsReplacedAfterThreeAttempts) {
  upstream_.putStatus("/d/P1/P1.smd", 500);
  auto product = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "P1", fullEntry(), Url::parse(upstream_.url("/d/P1/P1.smd")), context().services());
  EXPECT_EQ(product->initStatus(), 1);
  EXPECT_EQ(clock_->sleeps(), (std::vector<double>{3.0, 3.0}));
  for (int remaining : {2, 1, 0}) {
    EXPECT_TRUE(logged(
        fmt::format("ondrd_test[DBG]: PROD: P1: SMD download attempts remaining {}.", remaining)));
  }
  EXPECT_TRUE(logged("ondrd_test[DBG]: PROD: P1: generated incomplete SMD data"));
  EXPECT_EQ(product->bundleNames()["English"].stringValue(), "_productId Update");
  EXPECT_FALSE(std::filesystem::exists(local("/d/P1/P1.smd"))) << "not written for active ones";

  // "localizations" repairs a missing "localization"; the repair is not written back.
  Plist misspelt = metadata("Vantor Tool", "2.0");
  misspelt.set("localizations", misspelt["localization"]);
  misspelt.remove("localization");
  misspelt.remove("platforms");
  upstream_.put("/d/P1/P1.smd", misspelt.toXml());
  product = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "P1", fullEntry(), Url::parse(upstream_.url("/d/P1/P1.smd")), context().services());
  EXPECT_EQ(product->productFamily(), "Vantor Tool");
  EXPECT_TRUE(logged("ondrd_test[DBG]: PROD: P1: repaired incomplete SMD data"));
  EXPECT_FALSE(Plist::readFile(local("/d/P1/P1.smd"), nullptr)->contains("platforms"));
}

TEST_F(KTSProductTest, OnePassFetchesEachMetadataFileOnceAndSharesEqualFileLists) {
  upstream_.put("/d/P1/P1.smd", metadata("Vantor OS Update", "10.6.8").toXml());
  upstream_.putStatus("/d/P2/P2.smd", 500);
  auto smdUrl = Url::parse(upstream_.url("/d/P1/P1.smd"));
  auto missingUrl = Url::parse(upstream_.url("/d/P2/P2.smd"));
  auto make = [&](const std::optional<Url>& url) {
    return KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
        "P1", fullEntry(), url, context().services());
  };
  std::shared_ptr<KTSProduct> outside = make(smdUrl);
  int requests = upstream_.requestCount();
  std::string smdFile = local("/d/P1/P1.smd");
  std::optional<std::uint64_t> unchangedFile = fileIdentity(smdFile);
  Plist entries = Plist::dictionary();
  KTSFetchScheduler scheduler(4, nullptr);
  {
    KTSPassMemo pass;
    auto sharing = context().lend(pass);
    // The catalog's prefetch takes the fetch; a deprecated product's metadata is never fetched,
    // and a prefetch that failed leaves the product its own attempts.
    upstream_.put("/d/P3/P3.smd", metadata("Old", "1.0").toXml());
    for (const auto& [productId, metadataUrl] :
         {std::pair{"P1", smdUrl},
          {"P2", missingUrl},
          {"P3", Url::parse(upstream_.url("/d/P3/P3.smd"))}}) {
      Plist entry = fullEntry();
      entry.set("ServerMetadataURL", metadataUrl->text());
      if (productId == std::string("P3")) entry.set("CompositeProductState", Plist::integer(3));
      entries.set(productId, entry);
    }
    KTSServerMetadata::prefetchServerMetadataForEntries(entries, context().layout(), pass,
                                                        scheduler);
    EXPECT_EQ(upstream_.requestCount(), requests + 2);
    // Fetched unchanged, the file stays in place and is its own previous version.
    EXPECT_EQ(fileIdentity(smdFile), unchangedFile);
    EXPECT_EQ(fileIdentity(smdFile + ".previous"), unchangedFile);
    auto first = make(smdUrl);
    auto second = make(smdUrl);
    EXPECT_EQ(upstream_.requestCount(), requests + 2);
    EXPECT_EQ(first->version(), "10.6.8");
    EXPECT_EQ(second->version(), "10.6.8");
    EXPECT_EQ(second->smdPath()->parentServerURL(), smdUrl);
    EXPECT_TRUE(second->mirrorFiles().sharesStorageWith(first->mirrorFiles()));
    EXPECT_FALSE(first->mirrorFiles().sharesStorageWith(outside->mirrorFiles()));

    // A fetch that failed is given up once for the whole pass, not once per catalog.
    make(missingUrl);
    make(missingUrl);
    EXPECT_EQ(clock_->sleeps().size(), 2u);
    EXPECT_EQ(upstream_.requestCount(), requests + 5);
  }
  upstream_.put("/d/P1/P1.smd", metadata("Vantor OS Update", "10.6.9").toXml());
  {
    KTSPassMemo pass;
    auto sharing = context().lend(pass);
    KTSServerMetadata::prefetchServerMetadataForEntries(entries, context().layout(), pass,
                                                        scheduler);
    EXPECT_EQ(make(smdUrl)->version(), "10.6.9") << "the next pass fetches anew";
  }
  EXPECT_EQ((*Plist::readFile(smdFile + ".previous", nullptr))["CFBundleShortVersionString"]
                .stringValue(),
            "10.6.8");
  EXPECT_FALSE(std::filesystem::exists(smdFile + ".downloading.downloading"));
}

TEST_F(KTSProductTest, AFileReadAheadIsHandedOverOnlyAsItStillIs) {
  std::string path = local("/catalogs/next.composite");
  writeFile(path, metadata("Read ahead", "1.0").toXml());
  auto versionTaken = [](KTSPassMemo& pass, const std::string& from) {
    return pass.takeReadAhead(from)["CFBundleShortVersionString"].stringValue();
  };
  KTSPassMemo pass;
  pass.readWhenMetadataFetched(path);
  EXPECT_EQ(versionTaken(pass, path), "") << "nothing is read before the metadata is fetched";
  pass.serverMetadataFetched();
  EXPECT_EQ(versionTaken(pass, local("/catalogs/other.composite")), "");
  EXPECT_EQ(versionTaken(pass, path), "1.0");
  EXPECT_EQ(versionTaken(pass, path), "") << "handed over once";

  // Written again after it was read ahead (the read is long done after a moment), it is read anew.
  pass.readWhenMetadataFetched(path);
  pass.serverMetadataFetched();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  writeFile(path, metadata("Read ahead", "1.0.1").toXml());
  EXPECT_EQ(versionTaken(pass, path), "");
  // Only the last file named is read, and a missing one gives nothing.
  pass.readWhenMetadataFetched(path);
  pass.readWhenMetadataFetched(local("/catalogs/missing.composite"));
  pass.serverMetadataFetched();
  EXPECT_EQ(versionTaken(pass, path), "");
  EXPECT_EQ(versionTaken(pass, local("/catalogs/missing.composite")), "");
}

TEST_F(KTSProductTest, WithoutAMetadataUrlASubstituteIsGeneratedFromTheDistribution) {
  auto product = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "P1", fullEntry(), std::nullopt, context().services());
  EXPECT_EQ(product->initStatus(), 1);
  std::optional<Plist> written = Plist::readFile(local("/d/P1/P1.smd"), nullptr);
  ASSERT_TRUE(written);
  EXPECT_EQ((*written)["IFPkgFlagInstalledSize"].integerValue(), 350);
  EXPECT_EQ((*written)["IFPkgFlagRestartAction"].stringValue(), "RequireRestart");
  EXPECT_EQ((*written)["localization"]["French"], (*written)["localization"]["English"]);
  EXPECT_EQ((*written)["localization"]["English"]["title"].stringValue(), "Vantor OS Update");
  EXPECT_EQ(product->smdPath()->parentServerURL()->text(),
            fmt::format("http://127.0.0.1/d/P1/P1.smd"));
  EXPECT_EQ(product->version(), "10.6.8");

  // A missing distribution makes the generator refuse with -2, and the product unusable.
  Plist orphan = upstream_.entry({{"English", "/d/P2/English.dist"}}, {{"/d/P2/x.pkg", 1, ""}});
  auto refused = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "P2", orphan, {}, context().services());
  EXPECT_EQ(refused->initStatus(), -1);
  EXPECT_FALSE(refused->smdPath());
  // Any other failure (here status 500) is -1 and leaves the product usable.
  upstream_.putStatus("/d/P2/English.dist", 500);
  auto other = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "P2", orphan, {}, context().services());
  EXPECT_EQ(other->initStatus(), 1);

  auto hostile = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "../P3", fullEntry(), std::nullopt, context().services());
  EXPECT_EQ(hostile->initStatus(), 0);
  EXPECT_TRUE(logged("ondrd_test[ERR]: Refusing product with an invalid product id: \"../P3\""));
}

TEST_F(KTSProductTest, LegacyProductsReadWhatIsOnDiskAndNeverDownload) {
  Plist entry = fullEntry();
  entry.set("CompositeProductState", "ORPHANED");
  entry.set("CompositeProductState", Plist::integer(4));
  auto smdUrl = Url::parse(upstream_.url("/d/P1/mapped.smd"));
  upstream_.put("/d/P1/mapped.smd", metadata("never fetched", "1").toXml());

  auto bare = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "P1", entry, smdUrl, context().services());
  std::optional<Plist> minimal = Plist::readFile(local("/d/P1/P1.smd"), nullptr);
  ASSERT_TRUE(minimal) << "the minimal dictionary is written for a legacy product";
  EXPECT_EQ(bare->bundleNames()["English"].stringValue(), "_productId Update");
  EXPECT_EQ(bare->smdPath()->parentServerURL()->text(), "http://cdn.vantor.example/d/P1/P1.smd");

  Plist generic = metadata("Vantor OS Update", "10.4.11");
  ASSERT_TRUE(generic.writeXmlFile(local("/d/P1/P1.smd"), nullptr));
  auto fromGeneric = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "P1", entry, smdUrl, context().services());
  EXPECT_EQ(fromGeneric->productFamily(), "Vantor OS Update");

  generic.set("CFBundleShortVersionString", "10");
  ASSERT_TRUE(generic.writeXmlFile(local("/d/P1/mapped.smd"), nullptr));
  auto fromMapped = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "P1", entry, smdUrl, context().services());
  EXPECT_EQ(fromMapped->productFamily(), "Vantor OS Update") << "one version part: unchanged";
  EXPECT_EQ(fromMapped->smdPath()->parentServerURL(), smdUrl);

  Plist otherLanguages = metadata("x", "10.7");
  otherLanguages.mutableValue("localization").remove("English");
  ASSERT_TRUE(otherLanguages.writeXmlFile(local("/d/P1/mapped.smd"), nullptr));
  EXPECT_FALSE(KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
                   "P1", entry, smdUrl, context().services())
                   ->productFamily());
  EXPECT_EQ(upstream_.requestCount(), 0);
}

TEST_F(KTSProductTest, ArchiveRoundTripsAndRestoreToleratesMissingKeys) {
  upstream_.put("/d/P1/P1.smd", metadata("Vantor OS Update", "10.7.2").toXml());
  auto product = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "P1", fullEntry(), Url::parse(upstream_.url("/d/P1/P1.smd")), context().services());
  product->state().restore(KTSProductState::Mirrored, false);
  product->state().enableOnceMirrored();
  Plist archive = product->archiveRepresentation();
  ASSERT_TRUE(archive.isDictionary());
  EXPECT_EQ(archive["mirror"].stringValue(), "Mirrored");
  EXPECT_EQ(archive["mirrorFiles"].size(), 5u);
  auto restored = KTSProduct::productWithArchiveRepresentation(archive, context().layout());
  EXPECT_EQ(restored->archiveRepresentation(), archive);
  EXPECT_EQ(restored->initStatus(), 0);
  EXPECT_TRUE(restored->state().isEqual(product->state()));
  EXPECT_TRUE(restored->state().applyPendingEnable());

  Plist withoutFiles = archive;
  withoutFiles.remove("mirrorFiles");
  withoutFiles.remove("smdPath");
  Plist bare = KTSProduct::productWithArchiveRepresentation(withoutFiles, context().layout())
                   ->archiveRepresentation();
  EXPECT_FALSE(bare.contains("mirrorFiles"));
  EXPECT_FALSE(bare.contains("smdPath"));
  EXPECT_EQ(KTSProduct::productWithArchiveRepresentation(bare, context().layout())
                ->archiveRepresentation(),
            bare);

  Plist broken = archive;
  broken.mutableValue("mirrorFiles").mutableElements()[1].remove(KTSProduct::kFileURLKey);
  EXPECT_TRUE(KTSProduct::productWithArchiveRepresentation(broken, context().layout())
                  ->archiveRepresentation()
                  .isNull());
  EXPECT_TRUE(logged("ondrd_test[ERR]: *** Internal error creating cache data for product P1."));

  clearLog();
  Plist partial = Plist::dictionary();
  partial.set("productId", "P9");
  partial.set("mirror", "mirrored");
  auto sparse = KTSProduct::productWithArchiveRepresentation(partial, context().layout());
  EXPECT_EQ(logLines(),
            (std::vector<std::string>{
                "ondrd_test[DBG]: PROD: P9: * * * WARNING! Missing archive value: enabled.",
                "ondrd_test[DBG]: PROD: P9: * * * WARNING! Missing archive value: smdPath."}));
  EXPECT_EQ(sparse->state().mirror(), KTSProductState::DoNotMirror);
  EXPECT_FALSE(sparse->mirrorFiles().isArray());
}

TEST_F(KTSProductTest, StatesAndTheirNames) {
  for (const char* name : {"mirrored", ""})
    EXPECT_EQ(KTSProductState::mirrorStateForString(name), 0);
  EXPECT_EQ(KTSProductState::mirrorStateForString(std::nullopt), 0);
  EXPECT_EQ(KTSProductState::mirrorStateForString("LocalOrphaned"), 6);
  for (int state : {0, 8, -1})
    EXPECT_EQ(KTSProductState::mirrorStringForState(state), "DoNotMirror");
  KTSProduct product{Plist::dictionary(), context().layout()};
  product.state().enableOnceMirrored();
  product.state().restore(KTSProductState::Downloading, false);
  EXPECT_FALSE(product.state().applyPendingEnable());
  EXPECT_EQ(product.getEffectiveRestartAction(), "IncompleteDownload");
  product.state().markOrphaned();
  EXPECT_TRUE(product.state().applyPendingEnable());
  EXPECT_EQ(product.getEffectiveRestartAction(), "NoRestart");
  KTSProduct other{Plist::dictionary(), context().layout()};
  std::string changed;
  EXPECT_FALSE(other.state().isEqual(product.state(), &changed));
  EXPECT_EQ(changed, "mirror");
  other.state() = product.state();
  EXPECT_TRUE(other.state().isEqual(product.state(), &changed));
  EXPECT_EQ(changed, "");
  other.state().disable();
  EXPECT_TRUE(product.state().enabled()) << "a copied state is the copy's own";
}

// Three catalogs list one product; the third names its package at another size.
TEST_F(KTSProductTest, TheTableJoinsCopiesThatNameTheSameFilesAndKeepsEachCatalogsStanding) {
  Plist archive = Plist::dictionary();
  archive.set("productId", "P1");
  archive.set("mirror", "LocalDeprecated");
  Plist record = Plist::dictionary();
  record.set(KTSProduct::kFileURLKey, "http://127.0.0.1/d/P1/a.pkg");
  record.set(KTSProduct::kFileLocalPathKey, "/srv/html/d/P1/a.pkg");
  record.set(KTSProduct::kFileSizeKey, Plist::integer(100));
  Plist files = Plist::array();
  files.append(record);
  archive.set("mirrorFiles", files);
  auto replaced = KTSProduct::productWithArchiveRepresentation(archive, context().layout());
  archive.set("mirror", "PleaseMirror");
  auto current = KTSProduct::productWithArchiveRepresentation(archive, context().layout());
  record.set(KTSProduct::kFileSizeKey, Plist::integer(200));
  files = Plist::array();
  files.append(record);
  archive.set("mirrorFiles", files);
  auto resized = KTSProduct::productWithArchiveRepresentation(archive, context().layout());
  KTSProductTable table(context().layout());
  for (const auto& copy : {replaced, current, resized}) table.join(copy);
  EXPECT_EQ(table.copiesOf("P1").size(), 3u);
  EXPECT_TRUE(table.copiesOf("P2").empty());

  // The first copy knew only its standing: the files' state comes from the second.
  EXPECT_EQ(replaced->state().mirror(), KTSProductState::LocalDeprecated);
  EXPECT_EQ(current->state().mirror(), KTSProductState::PleaseMirror);
  current->state().enableOnceMirrored();
  current->state().beginFetching();
  current->state().finishFetching(true);
  EXPECT_EQ(current->state().mirror(), KTSProductState::Mirrored);
  EXPECT_TRUE(current->state().enabled()) << "the waiting enable is carried out";
  EXPECT_EQ(replaced->state().mirror(), KTSProductState::LocalDeprecated)
      << "mirroring in one catalog does not undo another's standing";
  EXPECT_TRUE(replaced->state().enabled());
  EXPECT_EQ(resized->state().mirror(), KTSProductState::PleaseMirror)
      << "files of another size are not in place";
  EXPECT_FALSE(resized->state().enabled());

  // A change reaches every copy once; removing ends every standing.
  KTSProductChange disable;
  disable.enable = false;
  EXPECT_EQ(table.applyChange("P1", disable).size(), 3u);
  EXPECT_FALSE(current->state().enabled());
  EXPECT_EQ(replaced->state().mirror(), KTSProductState::LocalDeprecated);
  KTSProductChange remove;
  remove.remove = true;
  table.applyChange("P1", remove);
  for (const auto& copy : {replaced, current, resized}) {
    EXPECT_EQ(copy->state().mirror(), KTSProductState::DoNotMirror);
  }
  replaced.reset();
  EXPECT_EQ(table.copiesOf("P1").size(), 2u) << "a copy no catalog holds leaves the table";
}

// A file is known once, from what the catalogs found, from what the pass did, or from the disk;
// each catalog's copy is in place only at the size the file has.
TEST_F(KTSProductTest, TheTableKnowsEachFileOnceAndRecordsMatchItsSize) {
  auto copy = [this](const std::string& path, std::optional<std::int64_t> size) {
    Plist record = Plist::dictionary();
    record.set(KTSProduct::kFileURLKey, "http://127.0.0.1/d/P1/a.pkg");
    record.set(KTSProduct::kFileLocalPathKey, path);
    if (size) record.set(KTSProduct::kFileSizeKey, Plist::integer(*size));
    Plist files = Plist::array();
    files.append(record);
    Plist archive = Plist::dictionary();
    archive.set("productId", "P1");
    archive.set("mirrorFiles", files);
    return KTSProduct::productWithArchiveRepresentation(archive, context().layout());
  };
  const std::string package = local("/d/P1/a.pkg");
  std::filesystem::create_directories(local("/d/P1"));
  writeFile(package, std::string(100, 'a'));
  KTSProductTable table(context().layout());
  EXPECT_TRUE(table.filesInPlace(*copy(package, 100)));
  EXPECT_FALSE(table.filesInPlace(*copy(package, 200))) << "another catalog's size";
  EXPECT_TRUE(table.filesInPlace(*copy(package, std::nullopt)));
  writeFile(package, std::string(200, 'b'));
  EXPECT_TRUE(table.filesInPlace(*copy(package, 100))) << "known, not looked at again";
  table.fileFetching(local("/d/P1/../P1/a.pkg"));
  EXPECT_FALSE(table.filesInPlace(*copy(package, 100))) << "one file, however spelt";
  table.filePlaced(package, 200);
  EXPECT_TRUE(table.filesInPlace(*copy(package, 200)));
  EXPECT_FALSE(table.filesInPlace(*copy(package, 100)));
  std::filesystem::remove(package);
  table.fileChanged(package);
  EXPECT_EQ(table.fileState(package).presence, KTSProductTable::FileState::Absent);
  // What the catalogs found stands until the pass changes the file.
  auto found = copy(local("/d/P1/b.pkg"), 5);
  table.listsFoundAtLoad({{"P1", {found->mirrorFiles(), true}}});
  EXPECT_TRUE(table.filesInPlace(*found)) << "as found, not looked at";
  table.fileChanged(local("/d/P1/b.pkg"));
  EXPECT_FALSE(table.filesInPlace(*found));
  writeFile(path("/outside.pkg"), "x");
  EXPECT_FALSE(table.filesInPlace(*copy(path("/outside.pkg"), std::nullopt)))
      << "outside the html folder nothing is in place";
}

TEST_F(KTSProductTest, DistributionFilesAreReadStrictly) {
  auto read = [this](const std::string& path, KTProductForKTS::Error* error) {
    Plist entry = upstream_.entry({{"French", "/d/fr.dist"}, {"en", path}}, {});
    return KTProductForKTS::initWithProductKeyCatalogProductDictionaryLocalization(
        "P1", entry, std::nullopt, [this](const Url& url) { return local(url.path()); }, error);
  };
  KTProductForKTS::Error error;
  upstream_.put("/d/good.dist", test::distributionDocument("Tool", "2.1", "RequireLogout", "<b>"));
  auto good = read("/d/good.dist", &error);
  ASSERT_TRUE(good) << error.description;
  EXPECT_EQ(good->displayName(), "Tool");
  EXPECT_EQ(good->restartAction(), 2);
  std::string mimeType;
  EXPECT_EQ(good->descriptionDataReturningMIMEType(&mimeType), (Plist::Bytes{'<', 'b', '>'}));
  EXPECT_EQ(mimeType, "text/html");

  // A mirrored copy is read instead of the upstream file.
  std::filesystem::create_directories(local("/d"));
  writeFile(local("/d/local.dist"),
            "<vantor-distribution><title>Local</title>"
            "<restart action=\"Sometimes\"/></vantor-distribution>");
  auto mirrored = read("/d/local.dist", &error);
  ASSERT_TRUE(mirrored);
  EXPECT_EQ(mirrored->displayName(), "Local");
  EXPECT_EQ(mirrored->restartAction(), 0);
  EXPECT_FALSE(mirrored->displayVersion());

  upstream_.put("/d/broken.dist", "<vantor-distribution><title>");
  upstream_.put("/d/other.dist", "<other/>");
  upstream_.put("/d/huge.dist",
                "<vantor-distribution>" + std::string(2 << 20, ' ') + "</vantor-distribution>");
  upstream_.putStatus("/d/gone.dist", 410);
  upstream_.putStatus("/d/failing.dist", 500);
  for (auto [path, code] :
       std::vector<std::pair<std::string, std::int64_t>>{{"/d/broken.dist", -1101},
                                                         {"/d/other.dist", -1101},
                                                         {"/d/huge.dist", -1101},
                                                         {"/d/missing.dist", -1100},
                                                         {"/d/gone.dist", -1100},
                                                         {"/d/failing.dist", -1102}}) {
    error = {};
    EXPECT_FALSE(read(path, &error)) << path;
    EXPECT_EQ(error.code, code) << path << ": " << error.description;
    EXPECT_FALSE(error.description.empty());
  }
  error = {};
  EXPECT_FALSE(KTProductForKTS::initWithProductKeyCatalogProductDictionaryLocalization(
      "P1", Plist::dictionary(), std::nullopt, nullptr, &error));
  EXPECT_EQ(error.code, -1100);
}

}  // namespace
}  // namespace ondrel
