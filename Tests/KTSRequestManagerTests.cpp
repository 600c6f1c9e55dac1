#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "KTSJobTicketManager.h"
#include "KTSRequestManager.h"
#include "KTSUtilities.h"
#include "OndrelTest.h"
#include "PathString.h"

namespace ondrel {
namespace {

using test::ManualClock;
using test::OndrelTest;

class KTSRequestManagerTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    renewContext();
    setArchiving(false);
  }
  void TearDown() override {
    renewContext();
    OndrelTest::TearDown();
  }

  void setArchiving(bool on) {
    Plist defaults = Plist::dictionary();
    defaults.set("enableDebugLogging", Plist::boolean(true));
    defaults.set("archiveRequests", Plist::boolean(on));
    ASSERT_TRUE(
        defaults.writeXmlFile(path("/Library/Preferences/com.vantor.KTServer.plist"), nullptr));
  }

  std::string spool() const { return path("/var/spool/ondrd"); }
  std::string archive() const { return path("/Library/Server/Ondrel/Cache/requests-archived"); }

  static Plist change(const std::string& productId, std::initializer_list<const char*> keys) {
    Plist item = Plist::dictionary();
    item.set("ProductID", productId);
    for (const char* key : keys) item.set(key, Plist::boolean(std::string(key) != "enable"));
    return item;
  }

  std::vector<std::string> spoolEntries() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(spool())) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  // Moves the manual clock to the next whole second, so the next post gets a new file name.
  void nextSecond() { clock_->advance(std::chrono::seconds(1)); }
};

TEST_F(KTSRequestManagerTest, PostedRequestsAreWholeOwnedFilesNamedBySecond) {
  auto manager = (&context().requests());
  ASSERT_TRUE(manager->postSyncRequest());
  auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(clock_->now().time_since_epoch()).count();
  const std::string file = fmt::format("{}/ondr_req.{}", spool(), seconds);
  Plist written = KTSUtilities::readPropertyListAtPath(file);
  EXPECT_EQ(written["requestType"].stringValue(), "startSync");
  EXPECT_EQ(written["requestItem"], Plist::dictionary());
  EXPECT_EQ(written["postDate"].dateValue(), clock_->now());
  struct stat status {};
  ::stat(file.c_str(), &status);
  EXPECT_EQ(status.st_uid, getpwnam("_ondrel")->pw_uid);
  ::stat(spool().c_str(), &status);
  EXPECT_EQ(status.st_uid, getpwnam("_ondrel")->pw_uid);
  EXPECT_TRUE(logged("ondrd_test[DBG]: REQM: writing: " + file + " (type = startSync)"));
  EXPECT_TRUE(logged("ondrd_test[DBG]: REQM: setting request file ownership: " + file));

  // A second post in the same second replaces the first.
  ASSERT_TRUE(
      manager->postChangeRequestForProductItems(Plist(Plist::Array{change("P", {"mirror"})})));
  EXPECT_EQ(spoolEntries(), std::vector<std::string>{lastPathComponent(file)});
  EXPECT_EQ(KTSUtilities::readPropertyListAtPath(file)["requestType"].stringValue(),
            "productChanges");

  EXPECT_FALSE(manager->postChangeRequestForProductItems(Plist::array()));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: REQM: WARNING: change request contains no product items (ignored)"));
  EXPECT_FALSE(manager->postRequestOfType(Plist(), "startSync"));
  EXPECT_TRUE(logged("ondrd_test[DBG]: REQM: WARNING: NULL request item (ignored)"));
  EXPECT_EQ(spoolEntries().size(), 1u);
}

TEST_F(KTSRequestManagerTest, EachTypeIsCollectedOnlyByItsOwnCollector) {
  KTSRequestManager manager(context().preferences());
  EXPECT_FALSE(manager.hasPendingRequests());
  manager.postSyncRequest();
  nextSecond();
  manager.postChangeRequestForProductItems(Plist(Plist::Array{change("P1", {"mirror"})}));
  writeFile(spool() + "/notes.txt", "not a request");
  EXPECT_TRUE(manager.hasPendingRequests());
  EXPECT_TRUE(logged("ondrd_test[DBG]: REQM: requests pending: 2"));
  EXPECT_TRUE(logged("ondrd_test[DBG]: REQM: ignored non-request file: notes.txt"));

  EXPECT_TRUE(manager.getPendingSyncRequestsDeletingSource(false));
  EXPECT_EQ(spoolEntries().size(), 3u) << "collecting without deleting leaves the files";
  EXPECT_TRUE(manager.getPendingSyncRequestsDeletingSource(true));
  EXPECT_FALSE(manager.getPendingSyncRequestsDeletingSource(true));
  EXPECT_TRUE(logged("ondrd_test[DBG]: REQM: no valid requests found for type: startSync"));

  Plist changes = manager.getPendingChangeRequestsDeletingSource(true);
  ASSERT_TRUE(changes.isDictionary());
  EXPECT_EQ(changes["P1"]["mirror"], Plist::boolean(true));
  EXPECT_TRUE(manager.getPendingChangeRequestsDeletingSource(true).isNull());
  EXPECT_EQ(spoolEntries(), std::vector<std::string>{"notes.txt"});
  EXPECT_FALSE(manager.hasPendingRequests());
  EXPECT_TRUE(logged("ondrd_test[DBG]: REQM: no requests found"));
}

TEST_F(KTSRequestManagerTest, NewerItemsReplaceOlderOnesWhole) {
  KTSRequestManager manager(context().preferences());
  manager.postChangeRequestForProductItems(Plist(Plist::Array{
      change("P1", {"mirror", "enable"}), change("P2", {"mirror"}), change("P3", {"remove"})}));
  nextSecond();
  usleep(20000);  // distinct creation dates
  Plist noSetting = Plist::dictionary();
  noSetting.set("ProductID", "P2");
  noSetting.set("comment", "nothing to do");
  manager.postChangeRequestForProductItems(
      Plist(Plist::Array{change("P1", {"enable"}), noSetting}));

  Plist merged = manager.getPendingChangeRequestsDeletingSource(true);
  Plist expectedP1 = Plist::dictionary();
  expectedP1.set("ProductID", "P1");
  expectedP1.set("enable", Plist::boolean(false));
  EXPECT_EQ(merged["P1"], expectedP1) << "the older mirror setting is dropped";
  EXPECT_EQ(merged["P2"]["mirror"], Plist::boolean(true)) << "the invalid newer item is ignored";
  EXPECT_TRUE(merged["P3"]["remove"].boolValue());
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: REQM: WARNING: invalid change request for product: P2 "
             "(ignored)"));
}

TEST_F(KTSRequestManagerTest, ArchivingFollowsTheUserDefaultAtEachCollection) {
  KTSRequestManager manager(context().preferences());
  setArchiving(true);
  manager.postSyncRequest();
  std::string name = spoolEntries().front();
  EXPECT_TRUE(manager.getPendingSyncRequestsDeletingSource(true));
  EXPECT_TRUE(std::filesystem::exists(archive() + "/" + name));
  EXPECT_TRUE(logged("ondrd_test[DBG]: REQM: request archiving is ON."));
  EXPECT_TRUE(logged("ondrd_test[DBG]: REQM: ARCHIVING request file: " + name));

  // The same name again cannot be archived twice: that request stays in the spool.
  manager.postSyncRequest();
  EXPECT_TRUE(manager.getPendingSyncRequestsDeletingSource(true));
  EXPECT_EQ(spoolEntries(), std::vector<std::string>{name});

  setArchiving(false);
  EXPECT_TRUE(manager.getPendingSyncRequestsDeletingSource(true));
  EXPECT_FALSE(std::filesystem::exists(archive())) << "the archive goes when archiving is off";
  EXPECT_TRUE(logged("ondrd_test[DBG]: Removing " + archive()));
  EXPECT_TRUE(spoolEntries().empty());
}

TEST_F(KTSRequestManagerTest, HostileIdsAndALinkedArchiveAreRefused) {
  const std::string elsewhere = path("/elsewhere");
  std::filesystem::create_directories(elsewhere);
  std::filesystem::create_directories(deletingLastPathComponent(archive()));
  std::filesystem::create_directory_symlink(elsewhere, archive());
  setArchiving(true);
  KTSRequestManager manager(context().preferences());
  Plist items = Plist::array();
  items.append(change("../../x", {"mirror"}));
  items.append(change("P1", {"mirror"}));
  ASSERT_TRUE(manager.postChangeRequestForProductItems(items));
  EXPECT_TRUE(
      logged("ondrd_test[WRN]: Ignoring a change request for an invalid product id: "
             "\"../../x\""));
  // A request planted by hand carries the hostile id up to the merge, which drops it too.
  Plist planted = Plist::dictionary();
  planted.set("requestType", "productChanges");
  planted.set("requestItem", Plist::dictionary());
  planted.mutableValue("requestItem").set("a/../../b", change("a/../../b", {"enable"}));
  nextSecond();
  ASSERT_TRUE(planted.writeXmlFile(spool() + "/ondr_req.planted", nullptr));

  Plist merged = manager.getPendingChangeRequestsDeletingSource(true);
  EXPECT_EQ(merged.size(), 1u);
  EXPECT_TRUE(merged.contains("P1"));
  EXPECT_TRUE(std::filesystem::is_empty(elsewhere)) << "nothing is moved through the link";
  EXPECT_TRUE(logged(fmt::format(
      "ondrd_test[ERR]: Refusing to archive requests into {}: it is a symbolic link", archive())));
}

TEST_F(KTSRequestManagerTest, BadRequestFilesAreSkippedAndLeftInPlace) {
  KTSRequestManager manager(context().preferences());
  manager.postChangeRequestForProductItems(Plist(Plist::Array{change("GOOD", {"mirror"})}));
  writeFile(spool() + "/ondr_req.1", "<plist><dict><key>requestType</key>");
  writeFile(spool() + "/ondr_req.2", "<plist><array/></plist>");
  writeFile(spool() + "/ondr_req.3", "<plist><string>productChanges</string></plist>");
  writeFile(spool() + "/ondr_req.4", "<plist><dict><key>requestItem</key><dict/></dict></plist>");
  writeFile(spool() + "/ondr_req.5",
            "<plist><dict><key>requestType</key><integer>1</integer></dict></plist>");
  std::filesystem::create_directories(spool() + "/ondr_req.6");

  Plist merged = manager.getPendingChangeRequestsDeletingSource(true);
  EXPECT_EQ(merged.size(), 1u);
  EXPECT_TRUE(merged.contains("GOOD"));
  std::vector<std::string> left = spoolEntries();
  EXPECT_EQ(left.size(), 6u) << "only the good request was taken";
}

// Two real processes share the spool and the ticket folder: one posts requests and adds tickets
// as fast as it can while the other collects, deletes and refreshes.
TEST_F(KTSRequestManagerTest, TwoProcessesShareTheFoldersSafely) {
  std::filesystem::create_directories(path("/Library/Server/Ondrel/Status/.pending"));
  int pipeEnds[2];
  ASSERT_EQ(pipe(pipeEnds), 0);
  pid_t poster = fork();
  ASSERT_GE(poster, 0);
  if (poster == 0) {
    // Each post gets its own second, so every request is a distinct file.
    auto clock = std::make_shared<ManualClock>(clock_->now());
    Clock::install(clock);
    KTSRequestManager requests(context().preferences());
    KTSJobTicketManager tickets(context().preferences());
    auto stop = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    int posted = 0;
    for (; std::chrono::steady_clock::now() < stop; ++posted) {
      clock->advance(std::chrono::seconds(1));
      std::string id = fmt::format("P{}", posted);
      requests.postChangeRequestForProductItems(Plist(Plist::Array{change(id, {"mirror"})}));
      tickets.addTicketOfTypeForProduct(KTSJobTicket::Enable, id);
    }
    (void)!write(pipeEnds[1], &posted, sizeof posted);
    _exit(0);
  }
  close(pipeEnds[1]);

  KTSRequestManager requests(context().preferences());
  KTSJobTicketManager tickets(context().preferences());
  std::multiset<std::string> collected;
  auto collect = [&] {
    Plist merged = requests.getPendingChangeRequestsDeletingSource(true);
    for (const auto& [id, item] : merged.items()) collected.insert(id);
  };
  int status = 0;
  int strays = 0;
  while (waitpid(poster, &status, WNOHANG) == 0) {
    collect();
    writeFile(path(fmt::format("/Library/Server/Ondrel/Status/.pending/stray{}", strays++)), "x");
    tickets.refresh();
  }
  int posted = 0;
  ASSERT_EQ(read(pipeEnds[0], &posted, sizeof posted), static_cast<ssize_t>(sizeof posted));
  close(pipeEnds[0]);
  collect();
  tickets.refresh();

  ASSERT_GT(posted, 50) << "the poster should have managed many posts in three seconds";
  for (int i = 0; i < posted; ++i) {
    std::string id = fmt::format("P{}", i);
    EXPECT_EQ(collected.count(id), 1u) << id << " collected exactly once";
    EXPECT_TRUE(tickets.hasTicketOfTypeForProduct(KTSJobTicket::Enable, id))
        << id << " ticket kept";
  }
  EXPECT_EQ(collected.size(), static_cast<std::size_t>(posted));
  EXPECT_EQ(tickets.openJobs().size(), static_cast<std::size_t>(posted));
  for (const std::string& line : logLines()) {
    EXPECT_EQ(line.find("conversion failed"), std::string::npos)
        << "a partial file was read: " << line;
    EXPECT_EQ(line.find("cannot read ticket"), std::string::npos) << line;
  }
}

}  // namespace
}  // namespace ondrel
