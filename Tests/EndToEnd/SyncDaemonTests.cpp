// ondrd_syncd as a program, against a sample upstream served by a real Apache on loopback.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <thread>

#include "ApacheServer.h"
#include "KTCatalogKeys.h"
#include "KTSPreferences.h"
#include "KTSRequestManager.h"
#include "KTSSyncStatus.h"
#include "OndrelTest.h"
#include "ProgramRunner.h"
#include "SampleTree.h"
#include "UpstreamServer.h"

namespace ondrel {
namespace {

using test::BackgroundProgram;
using test::OndrelTest;
using test::runProgram;

const std::string kNewest =
    "index-10.12-10.11-10.10-10.9-dogwood-cedar-birch-alder.merged-1.ktcatalog";
constexpr int kServedPort = 8383;

class SyncDaemonTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    port_ = test::freeLoopbackPort();
    upstream_ = root_ + "/upstream";
  }
  void TearDown() override {
    sample::stopServingTree(upstream_);
    OndrelTest::TearDown();
  }

  void serveUpstream(std::uint64_t products, std::uint64_t packageSize = 2048) {
    sample::TreeOptions tree;
    tree.outputFolder = upstream_;
    tree.baseURL = fmt::format("http://127.0.0.1:{}", port_);
    tree.products = products;
    tree.packageSize = packageSize;
    sample::generateTree(tree);
    sample::serveTree(upstream_, "127.0.0.1", port_);
  }

  void configure(bool automatic) {
    auto preferences = KTSPreferences::defaultPreferences();
    preferences->setMetaIndexURL(
        Url::parse(fmt::format("http://127.0.0.1:{}/content/meta/config.plist", port_)));
    preferences->setPublicHostName("127.0.0.1");
    preferences->setPortToUse(Plist::integer(kServedPort));
    preferences->setAutoMirror(automatic);
    preferences->setAutoEnable(automatic);
    preferences->setPurgeUnused(automatic);
    preferences->setAutoMirrorOnlyNew(false);
    ASSERT_TRUE(preferences->commitChanges());
  }

  std::string html() const { return path("/Library/Server/Ondrel/Data/html"); }
  Plist served(const std::string& name) const {
    return Plist::readFile(html() + "/content/catalogs/others/" + name, nullptr).value_or(Plist());
  }

  static test::ProgramResult syncOnce() { return runProgram(ONDREL_SYNCD, {"--once"}); }

  // Polls until condition holds or the deadline passes.
  static bool eventually(const std::function<bool()>& condition,
                         std::chrono::seconds deadline = std::chrono::seconds(60)) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (std::chrono::steady_clock::now() < end) {
      if (condition()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return condition();
  }

  int port_ = 0;
  std::string upstream_;
};

TEST_F(SyncDaemonTest, APassMirrorsAndServesOnlyCompleteEnabledProducts) {
  serveUpstream(60);
  configure(true);
  test::ProgramResult first = syncOnce();
  ASSERT_EQ(first.exitStatus, 0) << first.output;
  auto status = KTSSyncStatus::syncStatus();
  EXPECT_EQ(status->getSyncStatus(), KTSSyncStatus::Done);
  EXPECT_FALSE(status->getUpdateError());

  Plist newest = served(kNewest);
  // Every product but the test package and the one whose distribution file is missing.
  EXPECT_EQ(newest[KTCatalogProductsDictKey].size(), 58u);
  EXPECT_TRUE(newest.contains(KTCatalogIndexDateKey));
  const std::string prefix = fmt::format("http://127.0.0.1:{}/", kServedPort);
  std::function<void(const Plist&)> walk = [&](const Plist& value) {
    if (value.isString() && value.stringValue().rfind("http", 0) == 0) {
      EXPECT_EQ(value.stringValue().rfind(prefix, 0), 0u) << value.stringValue();
      std::string local = html() + value.stringValue().substr(prefix.size() - 1);
      EXPECT_TRUE(std::filesystem::exists(local)) << local;
    }
    for (const auto& [key, item] : value.items()) walk(item);
    for (const Plist& item : value.elements()) walk(item);
  };
  walk(newest[KTCatalogProductsDictKey]);
  EXPECT_TRUE(std::filesystem::is_symlink(html() + "/" + kNewest));

  // A second pass finds nothing new; a pass while another holds the lock is refused.
  test::ProgramResult second = syncOnce();
  EXPECT_EQ(second.exitStatus, 0) << second.output;
  int fd = ::open(path("/Library/Server/Ondrel/Status/ondrd_syncd.lock").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::flock(fd, LOCK_EX), 0);
  ASSERT_EQ(::pwrite(fd, "4242\n", 5, 0), 5);
  test::ProgramResult busy = syncOnce();
  EXPECT_EQ(busy.exitStatus, 75);
  EXPECT_NE(busy.output.find("another ondrd_syncd is running (PID 4242)"), std::string::npos)
      << busy.output;
  ::close(fd);
}

TEST_F(SyncDaemonTest, AFailingCatalogFailsThePassButNotTheOthers) {
  serveUpstream(40);
  configure(true);
  const std::string broken = "index-dogwood-cedar-birch-alder.merged-1.ktcatalog";
  std::filesystem::remove(upstream_ + "/content/catalogs/others/" + broken);
  test::ProgramResult pass = syncOnce();
  EXPECT_EQ(pass.exitStatus, 1) << pass.output;
  auto status = KTSSyncStatus::syncStatus();
  EXPECT_TRUE(status->getUpdateError());
  EXPECT_NE(status->getErrorNote().value_or("").find(broken), std::string::npos);
  EXPECT_EQ(served(kNewest)[KTCatalogProductsDictKey].size(), 38u);
  EXPECT_TRUE(served(broken).isDictionary()) << "written, serving nothing";
  EXPECT_EQ(served(broken)[KTCatalogProductsDictKey].size(), 0u);
}

TEST_F(SyncDaemonTest, TheServiceCarriesOutRequestsWithoutAFullPass) {
  serveUpstream(30);
  configure(false);
  BackgroundProgram service(ONDREL_SYNCD, {"--interval", "3600"});
  auto status = KTSSyncStatus::syncStatus();
  ASSERT_TRUE(eventually([&] { return status->getSyncStatus() == KTSSyncStatus::Done; }));
  EXPECT_EQ(served(kNewest)[KTCatalogProductsDictKey].size(), 0u) << "manual mode serves nothing";
  std::optional<Date> lastRun = status->getLastRunTime();

  Plist items = Plist::array();
  Plist change = Plist::dictionary();
  change.set("ProductID", "VT-000003");
  change.set("mirror", Plist::boolean(true));
  change.set("enable", Plist::boolean(true));
  items.append(change);
  ASSERT_TRUE(KTSRequestManager::requestManager()->postChangeRequestForProductItems(items));
  ASSERT_TRUE(
      eventually([&] { return served(kNewest)[KTCatalogProductsDictKey].contains("VT-000003"); }));
  EXPECT_EQ(status->getLastRunTime(), lastRun) << "no full pass was run";

  service.signal(SIGTERM);
  test::ProgramResult stopped = service.wait(std::chrono::seconds(15));
  EXPECT_EQ(stopped.exitStatus, 0) << stopped.output;
}

TEST_F(SyncDaemonTest, AnInterruptedPassIsCompletedByTheNext) {
  serveUpstream(3, 24 << 20);
  configure(true);
  auto preferences = KTSPreferences::defaultPreferences();
  preferences->setSyncBandwidth(Plist::integer(4096));
  ASSERT_TRUE(preferences->commitChanges());
  BackgroundProgram pass(ONDREL_SYNCD, {"--once"});
  // Files come and go while the pass runs, so every look tolerates a vanished one.
  auto downloading = [&] {
    std::error_code error;
    for (std::filesystem::recursive_directory_iterator entry(html(), error), end;
         !error && entry != end; entry.increment(error)) {
      std::error_code sizeError;
      if (entry->path().extension() == ".downloading" && entry->file_size(sizeError) > (1 << 20) &&
          !sizeError) {
        return true;
      }
    }
    return false;
  };
  ASSERT_TRUE(eventually(downloading));
  auto signalled = std::chrono::steady_clock::now();
  pass.signal(SIGTERM);
  test::ProgramResult interrupted = pass.wait(std::chrono::seconds(20));
  EXPECT_EQ(interrupted.exitStatus, 1) << interrupted.output;
  EXPECT_LT(std::chrono::steady_clock::now() - signalled, std::chrono::seconds(10));
  EXPECT_EQ(KTSSyncStatus::syncStatus()->getErrorNote(), "interrupted");

  preferences->setSyncBandwidth(Plist::integer(0));
  ASSERT_TRUE(preferences->commitChanges());
  test::ProgramResult next = syncOnce();
  EXPECT_EQ(next.exitStatus, 0) << next.output;
  EXPECT_EQ(served(kNewest)[KTCatalogProductsDictKey].size(), 3u);
  EXPECT_FALSE(KTSSyncStatus::syncStatus()->getUpdateError());
}

}  // namespace
}  // namespace ondrel
