// Whole passes in this process against the sample vendor on a real Apache: what a pass tells its
// observer and its caller, the administrator's changes carried out by a pass of changes only,
// and faults at pass level (a missing or damaged catalog, the vendor gone before or during a
// pass, files changed upstream or lost here) told and then mended by the next pass.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <sstream>
#include <thread>

#include "Administration.h"
#include "Clock.h"
#include "CompressedForms.h"
#include "FileIO.h"
#include "KTCatalogKeys.h"
#include "KTSFileDigests.h"
#include "KTSJobTicketManager.h"
#include "KTSOnDemandFiles.h"
#include "KTSPreferences.h"
#include "KTSRequestManager.h"
#include "KTSRings.h"
#include "KTSSyncPass.h"
#include "KTSSyncStatus.h"
#include "KTSWorkingSet.h"
#include "LoopbackServer.h"
#include "OndrelTest.h"
#include "SampleVendor.h"

namespace ondrel {
namespace {

using test::kNewestCatalog;
using test::OndrelTest;

class RecordingObserver : public KTSPassObserver {
 public:
  void passStarted() override { ++passes; }
  void mirroringStarted(std::size_t products, std::uint64_t bytes) override {
    EXPECT_EQ(passes, 1);
    announced = {products, bytes};
  }
  void catalogStarted(std::size_t number, std::size_t count, const std::string& name) override {
    EXPECT_EQ(number, started.size() + 1) << name;
    catalogCount = count;
    started.push_back(name);
  }
  void productMirrored(const std::string& productId, std::size_t files, std::uint64_t,
                       std::chrono::duration<double>) override {
    EXPECT_GT(files, 0u) << productId;
    mirrored.push_back(productId);
  }
  void passWorkEnded() override { ++workEnded; }

  std::vector<std::string> started;
  std::size_t catalogCount = 0;
  std::vector<std::string> mirrored;
  int workEnded = 0;
  int passes = 0;
  std::pair<std::size_t, std::uint64_t> announced;
};

class KTSSyncPassTest : public OndrelTest {
 protected:
  // Whole passes run on the system clock: the bandwidth limit really paces a download, and a
  // request is named by the second it is posted in.
  void SetUp() override {
    OndrelTest::SetUp();
    Clock::install(nullptr);
    vendor_ = std::make_unique<test::SampleVendor>(root_ + "/upstream");
    vendor_->publishEpoch(0);
  }
  void TearDown() override {
    vendor_.reset();
    OndrelTest::TearDown();
  }

  void configure(bool automatic, std::int64_t syncBandwidth = 0) {
    auto preferences = context().sharedPreferences();
    preferences->setValue("metaIndexURL", vendor_->metaIndexURL());
    preferences->setValue("publicHostName", "127.0.0.1");
    preferences->setValue("portToUse", Plist::integer(18080));
    preferences->setValue("autoMirror", Plist::boolean(automatic));
    preferences->setValue("autoEnable", Plist::boolean(automatic));
    preferences->setValue("PurgeUnused", Plist::boolean(automatic));
    preferences->setValue("syncBandwidth", Plist::integer(syncBandwidth));
    ASSERT_TRUE(preferences->commitChanges());
  }

  // A pass as the daemon runs it, from the files as they are now, watched by a fresh observer.
  KTSPassOutcome fullPass() {
    return run([](KTSSyncPass& pass) { return pass.runFullPass(); });
  }
  KTSPassOutcome changesPass() {
    return run([](KTSSyncPass& pass) { return pass.runProductChanges(); });
  }
  KTSPassOutcome run(const std::function<KTSPassOutcome(KTSSyncPass&)>& pass) {
    renewContext();
    observer_ = RecordingObserver();
    KTSSyncPass syncPass(context(), observer_);
    KTSPassOutcome outcome = pass(syncPass);
    EXPECT_EQ(observer_.workEnded, 1);
    return outcome;
  }
  void post(const std::string& action, const std::string& productId,
            const std::string& policy = "") {
    renewContext();
    std::string error;
    ASSERT_TRUE(
        programs::postProductChanges(context(), action, {productId}, "test", &error, policy))
        << error;
  }
  // Whether nothing the administrator posted is still waiting.
  bool nothingPending() {
    renewContext();
    auto tickets = (&context().tickets());
    tickets->refresh();
    return !(&context().requests())->hasPendingRequests() && tickets->openJobs().empty();
  }

  std::string html() const { return path("/Library/Server/Ondrel/Data/html"); }
  Plist served(const std::string& name = kNewestCatalog) const {
    return Plist::readFile(html() + "/content/catalogs/others/" + name, nullptr)
        .value_or(Plist())[KTCatalogProductsDictKey];
  }
  Plist composite() const {
    return Plist::readFile(html() + "/content/catalogs/others/" + kNewestCatalog + ".composite",
                           nullptr)
        .value_or(Plist())[KTCatalogProductsDictKey];
  }
  // Path under the document root of the product's first package.
  std::string packagePath(const std::string& productId) const {
    std::string url =
        vendor_->products()[productId][KTCatalogProductPackagesKey][0]["URL"].stringValue();
    return url.substr(url.find("/content/"));
  }
  // Every package a served catalog names is in place at the size that catalog gives it.
  void expectServedSizesMatchFiles() const {
    for (const auto& file :
         std::filesystem::directory_iterator(html() + "/content/catalogs/others")) {
      if (file.path().extension() != ".ktcatalog") continue;
      for (const auto& [productId, entry] : served(file.path().filename()).items()) {
        for (const Plist& package : entry[KTCatalogProductPackagesKey].elements()) {
          if (!package[KTCatalogPackageSizeKey].isNumber()) continue;
          std::string url = package["URL"].stringValue();
          std::error_code missing;
          EXPECT_EQ(std::filesystem::file_size(html() + url.substr(url.find("/content/")), missing),
                    static_cast<std::uintmax_t>(package[KTCatalogPackageSizeKey].integerValue()))
              << file.path().filename().string() << " serves " << productId.text();
        }
      }
    }
  }
  std::optional<std::string> errorNote() {
    renewContext();
    return (&context().status())->getErrorNote();
  }

  std::unique_ptr<test::SampleVendor> vendor_;
  RecordingObserver observer_;
};

TEST_F(KTSSyncPassTest, AnAdministratorsChangesAreCarriedOutByPassesOfChangesOnly) {
  configure(false);
  KTSPassOutcome first = fullPass();
  EXPECT_FALSE(first.failed()) << first.note();
  EXPECT_EQ(first.catalogs, observer_.catalogCount);
  EXPECT_EQ(observer_.started.size(), observer_.catalogCount);
  EXPECT_NE(std::find(observer_.started.begin(), observer_.started.end(), kNewestCatalog),
            observer_.started.end());
  EXPECT_EQ(first.productsNew, composite().size()) << "the newest catalog lists every product";
  EXPECT_TRUE(observer_.mirrored.empty());
  EXPECT_EQ(served().size(), 0u) << "manual mode serves nothing";

  // Mirroring needs the vendor; the changes after it do not.
  const std::string chosen = "VT-000020";
  post("mirror", chosen);
  post("enable", chosen);
  KTSPassOutcome mirrored = changesPass();
  EXPECT_FALSE(mirrored.failed()) << mirrored.note();
  EXPECT_EQ(observer_.mirrored, std::vector<std::string>{chosen});
  EXPECT_EQ(observer_.announced.first, 1u);
  EXPECT_GE(observer_.announced.second, std::filesystem::file_size(html() + packagePath(chosen)));
  EXPECT_EQ(mirrored.productsNew, 0u) << "a pass of changes only meets no new product";
  EXPECT_GE(mirrored.bytesFetched, std::filesystem::file_size(html() + packagePath(chosen)));
  EXPECT_EQ(served().size(), 1u);
  EXPECT_EQ(readFile(html() + packagePath(chosen)),
            readFile(vendor_->folder() + packagePath(chosen)));
  EXPECT_TRUE(nothingPending()) << "each change is carried out once";

  vendor_->stop();
  post("disable", chosen);
  EXPECT_FALSE(changesPass().failed());
  EXPECT_EQ(served().size(), 0u) << "withdrawn";
  EXPECT_TRUE(std::filesystem::exists(html() + packagePath(chosen))) << "files kept";
  post("enable", chosen);
  EXPECT_FALSE(changesPass().failed());
  EXPECT_TRUE(served().contains(chosen)) << "served again from the files in place";
  EXPECT_TRUE(observer_.mirrored.empty());
  // A manifest lost, or left empty, is published again by the next pass.
  const std::string manifest = html() + "/digests/" + chosen;
  std::string published = readFile(manifest);
  ASSERT_NE(published.find(packagePath(chosen).substr(1)), std::string::npos) << published;
  std::filesystem::remove(manifest);
  EXPECT_FALSE(changesPass().failed());
  EXPECT_EQ(readFile(manifest), published) << "lost";
  writeFile(manifest, "");
  EXPECT_FALSE(changesPass().failed());
  EXPECT_EQ(readFile(manifest), published) << "empty";
  post("remove", chosen);
  KTSPassOutcome removed = changesPass();
  EXPECT_FALSE(removed.failed()) << removed.note();
  EXPECT_EQ(removed.productsRemoved, 1u);
  EXPECT_FALSE(std::filesystem::exists(html() + packagePath(chosen))) << "packages removed";
  EXPECT_FALSE(std::filesystem::exists(html() + "/digests/" + chosen)) << "and their digests";
  KTSFileDigests digests(
      KTSFileDigests::storePathForDocumentRoot(context().layout().documentRoot()));
  EXPECT_EQ(digests.recordOf(html() + packagePath(chosen)), nullptr);
  EXPECT_EQ(served().size(), 0u);
  EXPECT_TRUE(nothingPending());

  // The vendor's next day: withdrawn products that were never mirrored leave the memory; new
  // ones arrive as NEW and wait for the administrator.
  vendor_->publishEpoch(1);
  KTSPassOutcome nextDay = fullPass();
  EXPECT_FALSE(nextDay.failed()) << nextDay.note();
  Plist added = vendor_->manifest()["addedThisEpoch"];
  EXPECT_EQ(nextDay.productsNew, added.size());
  for (const Plist& product : added.elements()) {
    EXPECT_EQ(composite()[product.stringValue()]["CompositeProductState"].integerValue(),
              KTSCatalog::New);
  }
  for (const Plist& withdrawn : vendor_->manifest()["withdrawnThisEpoch"].elements()) {
    EXPECT_FALSE(composite().contains(withdrawn.stringValue())) << withdrawn.stringValue();
  }
  EXPECT_EQ(served().size(), 0u);
}

TEST_F(KTSSyncPassTest, PassLevelFaultsAreToldAndMendedByTheNextPass) {
  configure(true);
  // One catalog missing upstream fails the pass; the others are synced and served, and the
  // missing one is served empty rather than not at all.
  const std::string broken = "index-dogwood-cedar-birch-alder.merged-1.ktcatalog";
  std::filesystem::remove(vendor_->folder() + "/content/catalogs/others/" + broken);
  KTSPassOutcome missing = fullPass();
  EXPECT_TRUE(missing.failed());
  EXPECT_NE(missing.note().find(broken), std::string::npos) << missing.note();
  EXPECT_EQ(errorNote(), missing.note());
  EXPECT_EQ(served().size(), vendor_->servableCount());
  EXPECT_TRUE(served(broken).isDictionary()) << "written, serving nothing";
  EXPECT_EQ(served(broken).size(), 0u);
  vendor_->publishEpoch(0);
  KTSPassOutcome whole = fullPass();
  EXPECT_FALSE(whole.failed()) << whole.note();
  EXPECT_EQ(errorNote(), std::nullopt);
  Plist before = served();

  // A compressed form that cannot be written is told (the other is made), and is made by the
  // first pass that can.
  const std::string catalogFile = html() + "/content/catalogs/others/" + kNewestCatalog;
  const std::string gzip = compressedFormPath(catalogFile, Encoding::Gzip);
  const std::string brotli = compressedFormPath(catalogFile, Encoding::Brotli);
  std::filesystem::remove(gzip);
  std::filesystem::create_directory(gzip);
  std::filesystem::remove(brotli);
  clearLog();
  EXPECT_FALSE(fullPass().failed());
  EXPECT_TRUE(logged(std::string("ondrd_test[WRN]: The compressed form ") + kNewestCatalog +
                     ".gz could not be written (Is a directory); clients get it plain."));
  EXPECT_TRUE(std::filesystem::is_regular_file(brotli));
  std::filesystem::remove(gzip);
  fullPass();
  EXPECT_TRUE(std::filesystem::is_regular_file(gzip));

  // The vendor goes away: the pass fails and says so, and clients keep the catalogs they had.
  vendor_->stop();
  KTSPassOutcome offline = fullPass();
  EXPECT_TRUE(offline.failed());
  EXPECT_NE(offline.note().find("does not answer"), std::string::npos) << offline.note();
  EXPECT_EQ(served(), before);

  // Back again, then gone in the middle of a pass that mirrors a large new package.
  vendor_->serve();
  const std::string bigPath = packagePath("VT-000021");
  vendor_->replacePackage("VT-000021", std::string(24 << 20, 'b'));
  configure(true, 4096);
  std::thread cutter([&] {
    std::error_code error;
    for (int wait = 0; wait < 600; ++wait) {
      std::uintmax_t size = std::filesystem::file_size(html() + bigPath + ".downloading", error);
      if (!error && size >= (1 << 20)) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    vendor_->stop();
  });
  KTSPassOutcome cut = fullPass();
  cutter.join();
  EXPECT_TRUE(cut.failed());
  EXPECT_NE(cut.note().find("stopped answering"), std::string::npos) << cut.note();
  EXPECT_FALSE(std::filesystem::exists(html() + bigPath)) << "no partial file in place";
  // The product whose new package is incomplete is not served; the others are as they were.
  EXPECT_FALSE(served().contains("VT-000021"));
  EXPECT_EQ(served().size(), before.size() - 1);
  // What is still to fetch is counted one way: the pass's figure is the plan's.
  renewContext();
  Plist plan = programs::nextPassPlan(context());
  EXPECT_GE(cut.bytesStillToFetch, 24u << 20);
  EXPECT_EQ(cut.bytesStillToFetch, static_cast<std::uint64_t>(plan["bytes"].integerValue()));
  EXPECT_EQ(cut.filesStillToFetch, static_cast<std::uint64_t>(plan["files"].integerValue()));
  configure(true);

  // Back again, with one package changed to another size, and a mirrored file deleted behind
  // the server's back: both are fetched anew and served again in that pass.
  vendor_->serve();
  const std::string changedPath = packagePath("VT-000020");
  vendor_->replacePackage("VT-000020", std::string(5000, 'n'));
  const std::string lostPath = packagePath("VT-000022");
  ASSERT_TRUE(served().contains("VT-000022"));
  std::filesystem::remove(html() + lostPath);
  clearLog();
  KTSPassOutcome mended = fullPass();
  EXPECT_FALSE(mended.failed()) << mended.note();
  EXPECT_TRUE(
      logged("ondrd_test[INF]: Serving the catalogs without the products whose files change in "
             "this pass."))
      << "the old file is withdrawn from the served catalogs before it is replaced";
  std::sort(observer_.mirrored.begin(), observer_.mirrored.end());
  EXPECT_EQ(observer_.mirrored, (std::vector<std::string>{"VT-000020", "VT-000021", "VT-000022"}));
  EXPECT_EQ(readFile(html() + changedPath), std::string(5000, 'n'));
  EXPECT_EQ(std::filesystem::file_size(html() + bigPath), 24u << 20) << "completed";
  EXPECT_TRUE(std::filesystem::exists(html() + lostPath)) << "fetched again";
  EXPECT_EQ(served().size(), before.size());

  // A catalog replaced by garbage: the memory of it stays, the error is told. An error page
  // where the deprecations list should be never takes the served list's place.
  const std::string compositeFile =
      html() + "/content/catalogs/others/" + kNewestCatalog + ".composite";
  const std::string compositeBytes = readFile(compositeFile);
  writeFile(vendor_->folder() + "/content/catalogs/others/" + kNewestCatalog,
            "garbage, not a catalog");
  const std::string deprecations = "/content/catalogs/Deprecations.plist";
  const std::string goodList = readFile(html() + deprecations);
  ASSERT_TRUE(Plist::fromBytes(goodList, nullptr));
  writeFile(vendor_->folder() + deprecations, "<html><body>Service unavailable</body></html>");
  KTSPassOutcome garbage = fullPass();
  EXPECT_TRUE(garbage.failed());
  EXPECT_NE(garbage.note().find(kNewestCatalog), std::string::npos) << garbage.note();
  EXPECT_EQ(readFile(html() + deprecations), goodList);
  EXPECT_EQ(readFile(compositeFile), compositeBytes);
  EXPECT_EQ(served().size(), before.size()) << "still served";
}

TEST_F(KTSSyncPassTest, NoServedCatalogNamesAPackageAtASizeItsFileDoesNotHave) {
  configure(true);
  ASSERT_FALSE(fullPass().failed());
  const std::string other = "index-dogwood-cedar-birch-alder.merged-1.ktcatalog";
  std::string chosen;
  for (const auto& [productId, entry] : served(other).items()) {
    if (served().contains(productId)) chosen = productId.text();
  }
  ASSERT_FALSE(chosen.empty()) << "a product served from both catalogs";
  // One catalog fails upstream while the package gets new bytes and a new size in the others:
  // the copy served from the failed one must not name the old size.
  const std::string otherFile = vendor_->folder() + "/content/catalogs/others/" + other;
  const std::string oldCatalog = readFile(otherFile);
  vendor_->replacePackage(chosen, std::string(3000, 'r'));
  writeFile(otherFile, "<html><body>Service unavailable</body></html>");
  EXPECT_TRUE(fullPass().failed());
  EXPECT_EQ(readFile(html() + packagePath(chosen)), std::string(3000, 'r'));
  EXPECT_TRUE(served().contains(chosen));
  expectServedSizesMatchFiles();
  // The upstream's catalogs disagree on the size: no served catalog names the one the file does
  // not have.
  writeFile(otherFile, oldCatalog);
  clearLog();
  fullPass();
  EXPECT_EQ(readFile(html() + packagePath(chosen)), std::string(3000, 'r')) << "kept";
  EXPECT_TRUE(served().contains(chosen));
  EXPECT_FALSE(served(other).contains(chosen));
  EXPECT_TRUE(logged("ondrd_test[WRN]: The catalogs list product " + chosen +
                     " with different files; it is served only from those that name the files "
                     "in place."));
  expectServedSizesMatchFiles();
}

// One catalog's replacement of a product is that catalog's: another that lists the product as
// current keeps serving it, and each catalog's record says what it decided.
TEST_F(KTSSyncPassTest, AProductReplacedInOneCatalogStaysCurrentInAnother) {
  configure(true);
  ASSERT_FALSE(fullPass().failed());
  const std::string other = "index-dogwood-cedar-birch-alder.merged-1.ktcatalog";
  std::string kept;
  std::string replacement;
  for (const auto& [productId, entry] : served().items()) {
    (served(other).contains(productId) ? kept : replacement) = productId.text();
  }
  ASSERT_FALSE(kept.empty() || replacement.empty());
  Plist deprecations = Plist::dictionary();
  deprecations.set("DeprecatedProducts", Plist::dictionary());
  deprecations.mutableValue("DeprecatedProducts").set(replacement, Plist::stringArray({kept}));
  writeFile(vendor_->folder() + "/content/catalogs/Deprecations.plist", deprecations.toXml());
  auto recorded = [this](const std::string& catalog, const std::string& productId) {
    std::string cache = catalog.substr(0, catalog.rfind('.')) + ".productscache";
    Plist products =
        Plist::readFile(html() + "/content/catalogs/others/" + cache, nullptr).value_or(Plist());
    for (const Plist& product : products.elements()) {
      if (product["productId"].stringValue() == productId) return product["mirror"].stringValue();
    }
    return std::string("none");
  };
  for (const char* pass : {"full", "full again", "changes only"}) {
    KTSPassOutcome outcome = pass[0] == 'c' ? changesPass() : fullPass();
    EXPECT_FALSE(outcome.failed()) << pass << ": " << outcome.note();
    EXPECT_TRUE(served(other).contains(kept)) << pass;
    EXPECT_FALSE(served().contains(kept)) << pass;
    EXPECT_EQ(recorded(other, kept), "Mirrored") << pass;
    EXPECT_EQ(recorded(kNewestCatalog, kept), "LocalDeprecated") << pass;
    renewContext();
    EXPECT_EQ(context().workingSet().productDictForID(kept)["mirror"].stringValue(), "Mirrored")
        << pass;
    post("enable", kept);
  }
}

TEST_F(KTSSyncPassTest, ARebuildTrustsNothingKept) {
  configure(true);
  ASSERT_FALSE(fullPass().failed());
  // The second pass finds every product recurring; the one after it, nothing new.
  ASSERT_FALSE(fullPass().failed());
  // A pass asks for each catalog once, and writes again no file whose bytes stay the same (nor
  // a product index cache made from the same products).
  const std::string requests = vendor_->folder() + "/.sample-upstream/access.log";
  writeFile(requests, "");
  const std::string metaIndex = html() + "/catalogs.ktcatalog";
  const std::string deprecations = html() + "/content/catalogs/Deprecations.plist";
  const std::string cache = html() + "/content/catalogs/others/" +
                            kNewestCatalog.substr(0, kNewestCatalog.rfind('.')) + ".productscache";
  auto metaIndexFile = fileIdentity(metaIndex);
  auto deprecationsFile = fileIdentity(deprecations);
  auto cacheFile = fileIdentity(cache);
  ASSERT_FALSE(fullPass().failed());
  EXPECT_EQ(fileIdentity(metaIndex), metaIndexFile);
  EXPECT_EQ(fileIdentity(cache), cacheFile);
  std::istringstream log(readFile(requests));
  int asked = 0;
  for (std::string line; std::getline(log, line);) {
    asked += line.rfind("GET /content/catalogs/others/" + kNewestCatalog + " ", 0) == 0;
  }
  EXPECT_EQ(asked, 1);
  // The local copy of a catalog damaged on disk, its size and time kept: to a conditional request
  // it looks current, and only the rebuild, which sends no validators, fetches it again.
  const std::string copy = html() + "/content/catalogs/others/" + kNewestCatalog + ".vantor";
  const std::string good = readFile(copy);
  struct stat before {};
  ASSERT_EQ(::stat(copy.c_str(), &before), 0);
  std::string damaged = good;
  damaged.replace(damaged.size() / 2, 8, "XXXXXXXX");
  writeFile(copy, damaged);
  const struct timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, copy.c_str(), times, 0), 0);
  fullPass();
  EXPECT_EQ(readFile(copy), damaged);
  run([](KTSSyncPass& pass) { return pass.runFullPass(KTSPassRecord::Reuse::Nothing); });
  EXPECT_EQ(readFile(copy), good);
  EXPECT_EQ(fileIdentity(deprecations), deprecationsFile) << "fetched whole, the same bytes";
}

// An upstream that offers HTTP/2 but lets a connection carry 8 streams, against a pass that runs
// far more transfers at once: every transfer still goes over HTTP/2, and none fails for it.
// A staged rollout on the test clock: what was served before rings existed stays open to all, a
// product first served later reaches each ring at its delay, and removing the rings leaves no
// trace of them.
TEST_F(KTSSyncPassTest, EachRingIsServedWhatItsScheduleHasOpenedToIt) {
  using namespace std::chrono_literals;
  configure(true);
  ASSERT_FALSE(fullPass().failed());
  const std::string others = html() + "/content/catalogs/others/" + kNewestCatalog;
  const std::string before = readFile(others);
  auto ringServed = [this](const std::string& ring) {
    return Plist::readFile(html() + "/content/catalogs/rings/" + ring + "/" + kNewestCatalog,
                           nullptr)
        .value_or(Plist())[KTCatalogProductsDictKey];
  };
  auto clock = std::make_shared<test::ManualClock>(Clock::now());
  Clock::install(clock);
  KTSRings rings;
  std::string why;
  ASSERT_TRUE(rings.set({"pilot", {*KTSRings::parseBlock("127.0.0.2")}, 0, 0}, {}, &why));
  ASSERT_TRUE(rings.set({"early", {}, std::chrono::seconds(48h).count(), 50}, {}, &why));
  ASSERT_TRUE(rings.set({"broad", {}, std::chrono::seconds(120h).count(), 50}, {}, &why));
  context().preferences().setValue("rings", rings.asPlist());
  ASSERT_TRUE(context().preferences().commitChanges());
  ASSERT_FALSE(changesPass().failed());
  EXPECT_EQ(readFile(others), before) << "defining rings takes nothing from anyone";
  for (const char* ring : {"pilot", "early", "broad"}) {
    EXPECT_EQ(readFile(html() + "/content/catalogs/rings/" + ring + "/" + kNewestCatalog), before);
  }

  vendor_->publishEpoch(1);
  KTSPassOutcome day = fullPass();
  ASSERT_FALSE(day.failed()) << day.note();
  const std::size_t all = ringServed("pilot").size();
  const std::size_t old = ringServed("early").size();
  ASSERT_GT(all, old) << "the vendor's new products reach the first ring at once";
  EXPECT_EQ(ringServed("broad").size(), old);
  EXPECT_EQ(served().size(), old) << "the usual catalog names what is open to all";
  ASSERT_TRUE(day.nextRingOpening);
  EXPECT_LE(*day.nextRingOpening - clock->now(), 48h);
  EXPECT_GT(*day.nextRingOpening - clock->now(), 48h - 2s) << "the next ring 48 h after the first";
  clock->advance(48h);
  EXPECT_EQ(changesPass().nextRingOpening, *day.nextRingOpening + 72h);
  EXPECT_EQ(ringServed("early").size(), all);
  EXPECT_EQ(ringServed("broad").size(), old);
  clock->advance(72h);
  EXPECT_FALSE(changesPass().nextRingOpening) << "nothing left to open";
  EXPECT_EQ(ringServed("broad").size(), all);
  EXPECT_EQ(served().size(), all);

  context().preferences().setValue("rings", Plist::array());
  ASSERT_TRUE(context().preferences().commitChanges());
  ASSERT_FALSE(changesPass().failed());
  EXPECT_FALSE(std::filesystem::exists(html() + "/content/catalogs/rings"));
  EXPECT_FALSE(std::filesystem::exists(path("/Library/Server/Ondrel/Status/.rollout")));
  EXPECT_EQ(served().size(), all);
}

TEST_F(KTSSyncPassTest, AnHttp2UpstreamThatAllowsFewStreamsServesAWholePass) {
  test::Certificate certificate = test::makeThrowAwayCertificate(root_);
  vendor_ = std::make_unique<test::SampleVendor>(
      root_ + "/upstream-h2",
      sample::TlsSetting{certificate.certificatePath, certificate.keyPath, true, 8});
  vendor_->publishEpoch(0);
  ::setenv("ONDREL_CA_BUNDLE", certificate.certificatePath.c_str(), 1);
  configure(true);
  KTSPassOutcome outcome = fullPass();
  ::unsetenv("ONDREL_CA_BUNDLE");
  EXPECT_FALSE(outcome.failed()) << outcome.note();
  EXPECT_EQ(served().size(), vendor_->servableCount());
  std::istringstream log(readFile(vendor_->folder() + "/.sample-upstream/access.log"));
  int requests = 0;
  for (std::string line; std::getline(log, line);) {
    // The readiness checks of the vendor's start are not the pass's.
    if (line.find(" /content/") == std::string::npos) continue;
    EXPECT_TRUE(line.ends_with(" HTTP/2.0")) << line;
    ++requests;
  }
  EXPECT_GT(requests, 100);
}

TEST_F(KTSSyncPassTest, ProductsOnDemandAreServedAtOnceAndKeepOnlyWhatClientsRead) {
  configure(false);
  ASSERT_FALSE(fullPass().failed());
  const std::string onDemand = "VT-000020";
  const std::string background = "VT-000021";
  post("mirror", onDemand, "on-demand");
  post("enable", onDemand);
  post("mirror", background, "background");
  post("enable", background);
  KTSPassOutcome offered = changesPass();
  EXPECT_FALSE(offered.failed()) << offered.note();
  EXPECT_TRUE(served().contains(onDemand) && served().contains(background));
  EXPECT_EQ(observer_.mirrored, std::vector<std::string>{background}) << "only one is filled in";
  EXPECT_FALSE(std::filesystem::exists(html() + packagePath(onDemand)));
  renewContext();
  EXPECT_EQ(context().workingSet().productDictForID(onDemand)["fetchPolicy"].stringValue(),
            "on-demand");
  EXPECT_FALSE(context().workingSet().productDictForID(background).contains("fetchPolicy"))
      << "once filled in, a product is immediate";
  std::string index = readFile(KTSOnDemandFiles(context().layout()).indexPath());
  std::optional<KTSOnDemandFiles::Entry> entry =
      KTSOnDemandFiles::lookUp(index, packagePath(onDemand));
  ASSERT_TRUE(entry.has_value()) << index;
  EXPECT_EQ(entry->size, static_cast<std::int64_t>(std::filesystem::file_size(
                             vendor_->folder() + packagePath(onDemand))));
  EXPECT_FALSE(KTSOnDemandFiles::lookUp(index, packagePath(background)));
  EXPECT_FALSE(KTSOnDemandFiles::lookUp(index, packagePath(onDemand) + "x"));

  // What the CGI may leave: the package at a size its catalog does not name (an older version),
  // never served; then the package, fetched three days ago, its digest in the journal, and
  // kept for as many days as it may go unread.
  std::string package = html() + packagePath(onDemand);
  std::filesystem::create_directories(std::filesystem::path(package).parent_path());
  writeFile(package, "an older version");
  changesPass();
  EXPECT_FALSE(std::filesystem::exists(package)) << "a stale file is never served";
  std::filesystem::copy_file(vendor_->folder() + packagePath(onDemand), package);
  // (Each pass renews the context, and with it the layout the files' place comes from.)
  ASSERT_TRUE(KTSOnDemandFiles(context().layout())
                  .recordFetched({Clock::secondsNow(), packagePath(onDemand), entry->size,
                                  std::string(64, 'a')}));
  struct timespec threeDaysAgo[2] = {{Clock::secondsNow() - 3 * 86400, 0},
                                     {Clock::secondsNow() - 3 * 86400, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, package.c_str(), threeDaysAgo, 0), 0);
  context().sharedPreferences()->setValue("onDemandKeepDays", Plist::integer(4));
  ASSERT_TRUE(context().sharedPreferences()->commitChanges());
  KTSPassOutcome kept = changesPass();
  EXPECT_EQ(kept.onDemand.fetchedFiles, 1u);
  EXPECT_TRUE(std::filesystem::exists(package)) << "read within the days it is kept";
  EXPECT_EQ(kept.onDemand.bytesHere, static_cast<std::uint64_t>(entry->size));
  KTSFileDigests digests(
      KTSFileDigests::storePathForDocumentRoot(context().layout().documentRoot()));
  EXPECT_NE(digests.recordOf(package), nullptr) << "the fetch's digest is recorded";

  context().sharedPreferences()->setValue("onDemandKeepDays", Plist::integer(2));
  ASSERT_TRUE(context().sharedPreferences()->commitChanges());
  KTSPassOutcome dropped = changesPass();
  EXPECT_FALSE(std::filesystem::exists(package)) << "not read for longer than it is kept";
  EXPECT_EQ(dropped.onDemand.bytesHere, 0u);
  EXPECT_TRUE(served().contains(onDemand)) << "and still served, to be fetched again";
  EXPECT_TRUE(observer_.mirrored.empty());
}

}  // namespace
}  // namespace ondrel
