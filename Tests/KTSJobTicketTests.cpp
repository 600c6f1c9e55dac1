#include <pwd.h>
#include <sys/stat.h>

#include <filesystem>

#include "KTSJobTicket.h"
#include "KTSJobTicketManager.h"
#include "KTSPreferences.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;

class KTSJobTicketTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    renewContext();
    setUserDefaults(true);
  }
  void TearDown() override {
    renewContext();
    OndrelTest::TearDown();
  }

  std::string pending() const { return path("/Library/Server/Ondrel/Status/.pending"); }

  void writeTicket(const std::string& name, const std::string& productId, const Plist& type,
                   const std::string& recordedPath, Date expiry) {
    Plist ticket = Plist::dictionary();
    ticket.set("productId", productId);
    ticket.set("ticketType", type);
    ticket.set("ticketPath", recordedPath);
    ticket.set("expireTime", Plist::date(expiry));
    std::filesystem::create_directories(pending());
    ASSERT_TRUE(ticket.writeXmlFile(pending() + "/" + name, nullptr));
  }

  std::vector<std::string> folderEntries() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(pending())) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  Date later() const { return clock_->now() + std::chrono::hours(1); }
};

TEST_F(KTSJobTicketTest, SavedTicketsExpireTwoHoursAfterTheFirstSave) {
  std::filesystem::create_directories(pending());
  auto ticket = KTSJobTicket::ticketWithProductIdJobTypeInDirectory(
      "041-1234", KTSJobTicket::Enable, pending());
  EXPECT_EQ(ticket->path(), pending() + "/.ticket_enable_041-1234");
  EXPECT_EQ(ticket->typeDescription(), "enable");
  ASSERT_TRUE(ticket->saveAsDictionary());
  const Date firstExpiry = clock_->now() + std::chrono::hours(2);
  EXPECT_EQ(ticket->expireTime(), firstExpiry);
  struct stat status {};
  ASSERT_EQ(::stat(ticket->path()->c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, getpwnam("_ondrel")->pw_uid);

  clock_->advance(std::chrono::minutes(30));
  ASSERT_TRUE(ticket->saveAsDictionary());
  auto reread = KTSJobTicket::ticketWithDictionaryAtPath(*ticket->path());
  EXPECT_EQ(reread->expireTime(), firstExpiry) << "saving again does not extend the ticket";
  EXPECT_EQ(reread->productId(), "041-1234");
  EXPECT_EQ(reread->jobType(), KTSJobTicket::Enable);

  clock_->advance(std::chrono::minutes(90));
  EXPECT_EQ(KTSJobTicket::ticketWithDictionaryAtPath(*ticket->path())->jobType(),
            KTSJobTicket::Undefined)
      << "a ticket whose expiry is now is void";

  auto invalid = KTSJobTicket::ticketWithProductIdJobTypeInDirectory("x", 4, pending());
  EXPECT_EQ(invalid->path(), pending() + "/.ticket_undefined_x");
  EXPECT_EQ(invalid->typeDescription(), "-UNKNOWN-");
  EXPECT_FALSE(invalid->saveAsDictionary());
  EXPECT_FALSE(KTSJobTicket(std::nullopt, 0, pending()).isValid());
  EXPECT_FALSE(KTSJobTicket("x", 0, std::nullopt).path());
  EXPECT_TRUE(KTSJobTicket(std::nullopt, 0, std::nullopt).removeDictionary());
}

TEST_F(KTSJobTicketTest, RefreshKeepsLiveTicketsAndDeletesEverythingElse) {
  writeTicket(".ticket_mirror_A", "A", Plist::integer(1), pending() + "/.ticket_mirror_A", later());
  writeTicket(".ticket_remove_B", "B", Plist::integer(7), pending() + "/.ticket_remove_B", later());
  writeTicket(".ticket_enable_old", "old", Plist::integer(1), "x", clock_->now());
  writeTicket(".ticket_undefined_C", "C", Plist::integer(0), "x", later());
  writeTicket(".ticket_disable_S", "S", Plist("2"), "x", later());
  Plist noPath = Plist::dictionary();
  noPath.set("productId", "D");
  noPath.set("ticketType", Plist::integer(0));
  noPath.set("expireTime", Plist::date(later()));
  ASSERT_TRUE(noPath.writeXmlFile(pending() + "/.ticket_mirror_D", nullptr));
  writeFile(pending() + "/.ticket_mirror_E", "truncated <plist><dict><key>productId");
  writeFile(pending() + "/.ticket_enable_F", "<plist><array/></plist>");
  writeFile(pending() + "/stray.txt", "x");
  std::filesystem::create_directories(pending() + "/.ticket_mirror_dir/inner");

  KTSJobTicketManager manager(context().preferences());
  EXPECT_EQ(manager.jobsPath(), pending());
  manager.refresh();
  ASSERT_EQ(manager.openJobs().size(), 2u);
  auto mirrored = manager.findTicketOfTypeForProduct(KTSJobTicket::Enable, "A");
  ASSERT_TRUE(mirrored) << "the type comes from the file, not its name";
  EXPECT_FALSE(manager.hasTicketOfTypeForProduct(KTSJobTicket::Mirror, "A"));
  auto unknown = manager.findTicketOfTypeForProduct(7, "B");
  ASSERT_TRUE(unknown);
  EXPECT_EQ(unknown->typeDescription(), "-UNKNOWN-");
  EXPECT_EQ(folderEntries(), (std::vector<std::string>{".ticket_mirror_A", ".ticket_remove_B"}));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: JTKT: warning - unrecognized ticket type: "
             ".ticket_undefined_C (ignored)."));
  EXPECT_TRUE(logged("ondrd_test[DBG]: JTKT: *** cannot read ticket: .ticket_mirror_E"));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: JTKT: warning - discarding file: stray.txt "
             "(invalid/expired ticket)"));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: JTKT: warning - discarding file: .ticket_enable_old "
             "(invalid/expired ticket)"));
}

TEST_F(KTSJobTicketTest, AddFindAndDeleteTickets) {
  auto manager = (&context().tickets());
  manager->refresh();
  EXPECT_TRUE(manager->openJobs().empty());
  EXPECT_FALSE(std::filesystem::exists(pending())) << "refresh creates nothing";

  manager->addTicketOfTypeForProduct(KTSJobTicket::Enable, "P1");
  manager->addTicketOfTypeForProduct(KTSJobTicket::Enable, "P1");
  manager->addTicketOfTypeForProduct(KTSJobTicket::Disable, "P1");
  manager->addTicketOfTypeForProduct(9, "P2");
  EXPECT_EQ(folderEntries(), (std::vector<std::string>{".ticket_disable_P1", ".ticket_enable_P1"}));
  EXPECT_EQ(manager->openJobs().size(), 2u);
  std::vector<std::string> lines = logLines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "ondrd_test[DBG]: JTKT: warning: redundant request ignored; ticket "
                       "(\"enable\") exists for product: P1"),
            1);
  EXPECT_TRUE(logged("ondrd_test[DBG]: JTKT: adding new ticket (\"disable\") for product: P1"));

  // A copy of a ticket file deletes the file its recorded path names.
  std::filesystem::copy_file(pending() + "/.ticket_enable_P1", pending() + "/.ticket_enable_Px");
  KTSJobTicketManager other(context().preferences());
  other.refresh();
  ASSERT_EQ(other.openJobs().size(), 3u);
  other.deleteTicketOfTypeForProduct(KTSJobTicket::Enable, "P1");
  EXPECT_FALSE(std::filesystem::exists(pending() + "/.ticket_enable_P1"));
  EXPECT_TRUE(std::filesystem::exists(pending() + "/.ticket_enable_Px"));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: JTKT: removing pending ticket (\"enable\") for product: P1"));
  EXPECT_EQ(other.openJobs().size(), 2u);
  other.deleteTicketOfTypeForProduct(KTSJobTicket::Remove, "P1");
  EXPECT_EQ(other.openJobs().size(), 2u);

  writeFile(pending() + "/.ticket_mirror_late", "written after the refresh");
  other.deleteAllTickets();
  EXPECT_TRUE(other.openJobs().empty());
  EXPECT_TRUE(logged("ondrd_test[DBG]: JTKT: removing all pending job tickets (total 2)"));
  EXPECT_TRUE(logged("ondrd_test[DBG]: JTKT: removing pending ticket for \"disable P1\""));
  EXPECT_EQ(folderEntries(), (std::vector<std::string>{".ticket_enable_Px", ".ticket_mirror_late"}))
      << "the copy's recorded path was already gone; unread files are untouched";
}

TEST_F(KTSJobTicketTest, PlantedTicketsCannotReachOutsideTheirFolder) {
  const std::string outside = path("/outside.txt");
  writeFile(outside, "precious");
  writeTicket(".ticket_mirror_A", "A", Plist::integer(0), outside, later());
  writeTicket(".ticket_enable_B", "B", Plist::integer(1), pending() + "/../../../../outside.txt",
              later());
  writeTicket(".ticket_remove_C", "../C", Plist::integer(3), pending() + "/.ticket_remove_C",
              later());
  KTSJobTicketManager manager(context().preferences());
  manager.refresh();
  EXPECT_TRUE(manager.openJobs().empty());
  manager.addTicketOfTypeForProduct(KTSJobTicket::Mirror, "../../escaped");
  EXPECT_TRUE(
      logged("ondrd_test[ERR]: Refusing a job ticket for an invalid product id: "
             "\"../../escaped\""));
  manager.deleteAllTickets();
  EXPECT_EQ(readFile(outside), "precious");
  EXPECT_FALSE(std::filesystem::exists(path("/Library/Server/Ondrel/escaped")));
  EXPECT_FALSE(std::filesystem::exists(path("/Library/Server/Ondrel/Status/escaped")));
}

TEST_F(KTSJobTicketTest, AnotherProcessWriteInProgressIsLeftAlone) {
  std::filesystem::create_directories(pending());
  const std::string inProgress = pending() + "/.ondrel-write-.ticket_enable_Q.a1b2c3";
  writeFile(inProgress, "<plist><di");
  KTSJobTicketManager manager(context().preferences());
  manager.refresh();
  EXPECT_TRUE(std::filesystem::exists(inProgress));
  // One left behind by a crash long ago is cleaned like any stray entry.
  clock_->advance(std::chrono::hours(1));
  manager.refresh();
  EXPECT_FALSE(std::filesystem::exists(inProgress));
}

TEST_F(KTSJobTicketTest, PendingFolderFollowsANonDefaultConfiguration) {
  std::filesystem::create_directories(path("/alt/Ondrel/Config"));
  KTSPassContext alternative(
      KTSPreferences::preferencesWithPath(path("/alt/Ondrel/Config/ondrd.plist")));
  KTSJobTicketManager manager(alternative.preferences());
  EXPECT_EQ(manager.jobsPath(), path("/alt/Ondrel/Status/.pending"));
  EXPECT_FALSE(manager.prefs());
}

}  // namespace
}  // namespace ondrel
