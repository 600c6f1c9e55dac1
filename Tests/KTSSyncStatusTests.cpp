#include <filesystem>

#include "DateFormats.h"
#include "KTSPreferences.h"
#include "KTSSyncStatus.h"
#include "KTSUtilities.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;

class KTSSyncStatusTest : public OndrelTest {
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
  std::string status(const std::string& name) const {
    return path("/Library/Server/Ondrel/Status/") + name;
  }
  bool exists(const std::string& name) const { return std::filesystem::exists(status(name)); }
};

TEST_F(KTSSyncStatusTest, StateMachineSeenByASecondInstance) {
  auto daemon = (&context().status());
  KTSSyncStatus admin(context().sharedPreferences());
  EXPECT_EQ(admin.getSyncStatus(), 0);
  EXPECT_FALSE(admin.getUpdateError());
  EXPECT_FALSE(admin.getLastRunTime());
  EXPECT_FALSE(admin.getErrorNote());
  EXPECT_FALSE(admin.getModeChanged());

  daemon->setSyncStatus(2);
  EXPECT_EQ(admin.getSyncStatus(), 0) << "nothing to finish";
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: UTIL: *** move item failed! reason: No such file or directory"));

  daemon->setUpdateErrorWithNote(true, std::string("upstream unreachable"));
  daemon->setSyncStatus(1);
  EXPECT_EQ(admin.getSyncStatus(), 1);
  EXPECT_FALSE(admin.getUpdateError()) << "a new run clears the last error";
  EXPECT_FALSE(exists(".update_error_note"));
  EXPECT_EQ(admin.getLastRunTime(), clock_->now());
  EXPECT_EQ(KTSUtilities::readPropertyListAtPath(status(".sync_in_progress")), Plist::dictionary());

  daemon->setSyncStatus(0);
  EXPECT_EQ(admin.getSyncStatus(), 1) << "0 changes nothing";
  daemon->setSyncStatus(2);
  EXPECT_EQ(admin.getSyncStatus(), 2);
  EXPECT_FALSE(exists(".sync_in_progress"));
  daemon->setSyncStatus(1);
  EXPECT_FALSE(exists(".sync_done"));
  writeFile(status(".sync_done"), "");
  EXPECT_EQ(admin.getSyncStatus(), 2) << "done wins over in progress";

  daemon->setUpdateErrorWithNote(true, std::string("disk full \xE2\x80\x94 2 GB short"));
  EXPECT_TRUE(admin.getUpdateError());
  EXPECT_EQ(readFile(status(".update_error_note")), "disk full \xE2\x80\x94 2 GB short");
  daemon->setUpdateErrorWithNote(true, std::nullopt);
  EXPECT_TRUE(admin.getUpdateError());
  EXPECT_FALSE(exists(".update_error_note"));
  daemon->setUpdateErrorWithNote(false, std::string("ignored"));
  EXPECT_FALSE(exists(".update_error"));
  EXPECT_FALSE(exists(".update_error_note"));
}

TEST_F(KTSSyncStatusTest, NotesDatesAndFlagsReadBackStrictly) {
  KTSSyncStatus statusFiles(context().sharedPreferences());
  statusFiles.setStartTime();
  EXPECT_EQ(readFile(status(".start_time")), formatArchiveDate(clock_->now()));
  EXPECT_EQ(statusFiles.getStartTime(), clock_->now());
  writeFile(status(".start_time"), "2016-09-20T17:00:00Z");
  EXPECT_FALSE(statusFiles.getStartTime()) << "another date format reads as no date";

  statusFiles.setModeChanged(true);
  EXPECT_EQ(readFile(status(".mode_changed")), "YES");
  writeFile(status(".mode_changed"), "NO");
  EXPECT_TRUE(statusFiles.getModeChanged()) << "any readable file counts as set";
  writeFile(status(".mode_changed"), "\xFF\xFE");
  EXPECT_FALSE(statusFiles.getModeChanged()) << "undecodable text is no note";
  statusFiles.setModeChanged(false);
  EXPECT_FALSE(exists(".mode_changed"));
}

TEST_F(KTSSyncStatusTest, HostAccessRecordsExpireAndClear) {
  KTSSyncStatus statusFiles(context().sharedPreferences());
  statusFiles.setAccessForHostName(std::nullopt, "upstream");
  EXPECT_FALSE(exists(".host_access")) << "clearing nothing writes nothing";

  statusFiles.setAccessForHostName(std::string("http"), "upstream");
  EXPECT_EQ(statusFiles.getAccessForHostName("upstream"), "http");
  Plist record = KTSUtilities::readPropertyListAtPath(status(".host_access"));
  EXPECT_EQ(record["http_upstream"].dateValue(), clock_->now() + std::chrono::hours(48));

  clock_->advance(std::chrono::hours(1));
  statusFiles.setAccessForHostName(std::string("https"), "upstream");
  clock_->advance(std::chrono::hours(47));
  EXPECT_FALSE(statusFiles.getAccessForHostName("upstream"))
      << "an expired http record ends the lookup, though https is still fresh";
  EXPECT_TRUE(statusFiles.getValueForKeyAtPath("http_upstream", status(".host_access")).isNull());
  EXPECT_EQ(statusFiles.getAccessForHostName("upstream"), "https");

  statusFiles.setAccessForHostName(std::nullopt, "upstream");
  EXPECT_EQ(KTSUtilities::readPropertyListAtPath(status(".host_access")), Plist::dictionary());
  EXPECT_FALSE(statusFiles.getAccessForHostName("upstream"));
}

TEST_F(KTSSyncStatusTest, PathsFollowANonDefaultConfiguration) {
  std::filesystem::create_directories(path("/alt/Ondrel/Config"));
  KTSSyncStatus statusFiles(
      KTSPreferences::preferencesWithPath(path("/alt/Ondrel/Config/ondrd.plist")));
  EXPECT_EQ(statusFiles.hostAccessPath(), path("/alt/Ondrel/Status/.host_access"));
  statusFiles.setSyncStatus(1);
  EXPECT_TRUE(std::filesystem::exists(path("/alt/Ondrel/Status/.sync_in_progress")));
  EXPECT_EQ(statusFiles.getLastRunTime(), clock_->now());
}

}  // namespace
}  // namespace ondrel
