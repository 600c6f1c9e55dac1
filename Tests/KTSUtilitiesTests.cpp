#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <filesystem>

#include "DateFormats.h"
#include "KTSUtilities.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;

class KTSUtilitiesTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    setUserDefaults(true);
  }

  static uid_t serviceUid() { return getpwnam("_ondrel")->pw_uid; }
  static gid_t serviceGid() { return getgrnam("_ondrel")->gr_gid; }
  static struct stat statOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status;
  }
};

TEST_F(KTSUtilitiesTest, CreateDirectoryRefusesAMissingServerRoot) {
  std::filesystem::remove_all(path("/Library/Server"));
  EXPECT_FALSE(KTSUtilities::createDirectoryAtPath(path("/Library/Server/Ondrel/Data")));
  EXPECT_TRUE(logged(fmt::format("ondrd_test[ERR]: Error creating directory: {}, {} does not exist",
                                 path("/Library/Server/Ondrel/Data"), path("/Library/Server"))));
  EXPECT_FALSE(std::filesystem::exists(path("/Library/Server")));

  // Elsewhere the whole chain is made, every new folder owned by the service account.
  ASSERT_TRUE(KTSUtilities::createDirectoryAtPath(path("/a/b/c")));
  for (const char* folder : {"/a", "/a/b", "/a/b/c"}) {
    EXPECT_EQ(statOf(path(folder)).st_uid, serviceUid()) << folder;
    EXPECT_EQ(statOf(path(folder)).st_gid, serviceGid()) << folder;
  }
  EXPECT_TRUE(KTSUtilities::createDirectoryAtPath(path("/a/b/c"))) << "existing folder is fine";

  writeFile(path("/plain"), "x");
  EXPECT_FALSE(KTSUtilities::createDirectoryAtPath(path("/plain/sub")));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: UTIL: *** directory create failed! reason: Not a directory"));
}

TEST_F(KTSUtilitiesTest, ExistenceAndSizeTests) {
  writeFile(path("/f.pkg"), "12345");
  EXPECT_TRUE(KTSUtilities::fileExistsAtPath(path("/./f.pkg")));
  EXPECT_TRUE(KTSUtilities::fileExistsAtPathWithSize(path("/f.pkg"), std::nullopt));
  EXPECT_TRUE(KTSUtilities::fileExistsAtPathWithSize(path("/f.pkg"), 5));
  EXPECT_FALSE(KTSUtilities::fileExistsAtPathWithSize(path("/f.pkg"), 6));
  EXPECT_FALSE(KTSUtilities::fileExistsAtPathWithSize(path("/missing"), 5));
  EXPECT_EQ(KTSUtilities::fileSizeAtPath(path("/f.pkg")), 5);
  EXPECT_FALSE(KTSUtilities::fileSizeAtPath(path("/missing")));
  EXPECT_FALSE(KTSUtilities::directoryExistsAtPath(path("/f.pkg")));

  // A run of lookups that share open folders answers each path as a lookup of its own does: a
  // link exists (with its own size) when its target does, and a path that leaves its folder is
  // looked up where it leads.
  writeFile(path("/d/g.pkg"), "1234567");
  std::filesystem::create_symlink("g.pkg", path("/d/link"));
  std::filesystem::create_symlink("nowhere", path("/d/dangling"));
  KTSUtilities::ItemSizes sizes;
  for (const char* item : {"/d/g.pkg", "/d/link", "/d/dangling", "/d/missing", "/d/../f.pkg",
                           "/f.pkg", "/d/g.pkg", "/nofolder/x", "/d/link", "/f.pkg/x"}) {
    EXPECT_EQ(sizes.sizeOfExistingItemAtPath(path(item)),
              KTSUtilities::sizeOfExistingItemAtPath(path(item)))
        << item;
  }
  EXPECT_EQ(sizes.sizeOfExistingItemAtPath(path("/d/g.pkg")), 7);
  EXPECT_FALSE(sizes.sizeOfExistingItemAtPath(path("/d/dangling")));
}

TEST_F(KTSUtilitiesTest, MoveCopyAndRemoveRefuseToClobber) {
  writeFile(path("/src/tree/file"), "data");
  writeFile(path("/taken"), "old");
  EXPECT_FALSE(KTSUtilities::moveItemAtPathToPath(path("/src"), path("/taken")));
  EXPECT_TRUE(logged("ondrd_test[DBG]: UTIL: *** move item failed! reason: File exists"));
  EXPECT_FALSE(KTSUtilities::copyItemAtPathToPath(path("/src"), path("/taken")));
  EXPECT_EQ(readFile(path("/taken")), "old");

  ASSERT_TRUE(KTSUtilities::copyItemAtPathToPath(path("/src"), path("/copy")));
  EXPECT_EQ(readFile(path("/copy/tree/file")), "data");
  ASSERT_TRUE(KTSUtilities::moveItemAtPathToPath(path("/copy"), path("/moved")));
  EXPECT_FALSE(std::filesystem::exists(path("/copy")));

  EXPECT_TRUE(KTSUtilities::removePath(path("/moved")));
  EXPECT_FALSE(KTSUtilities::removePath(path("/moved")));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: UTIL: *** remove item failed! reason: No such file or directory"));

  EXPECT_TRUE(KTSUtilities::removeRecursivelyAtPath(path("/src")));
  EXPECT_FALSE(std::filesystem::exists(path("/src")));
  EXPECT_FALSE(KTSUtilities::removeRecursivelyAtPath(path("/src")));
  EXPECT_TRUE(logged("ondrd_test[DBG]: UTIL: *** remove directory tree (deep) failed!"));
}

TEST_F(KTSUtilitiesTest, OwnershipAndPermissions) {
  writeFile(path("/tree/a/b"), "x");
  EXPECT_TRUE(KTSUtilities::setDefaultFileOwnerRecursivelyAtPath(path("/tree")));
  EXPECT_EQ(statOf(path("/tree/a/b")).st_uid, serviceUid());
  EXPECT_FALSE(KTSUtilities::setDefaultFileOwnerRecursivelyAtPath(path("/none")));
  EXPECT_TRUE(logged("ondrd_test[DBG]: UTIL: *** set file owner (deep) failed!"));

  writeFile(path("/single"), "x");
  EXPECT_TRUE(KTSUtilities::setDefaultFileOwnerAtPath(path("/single")));
  EXPECT_EQ(statOf(path("/single")).st_gid, serviceGid());
  EXPECT_FALSE(KTSUtilities::setDefaultFileOwnerAtPath(path("/none")));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: UTIL: warning - unable to set file owner. reason: No such file or "
             "directory"));

  EXPECT_TRUE(KTSUtilities::setFilePermissionsAtPath(0640, path("/single")));
  EXPECT_EQ(statOf(path("/single")).st_mode & 0777, 0640u);
}

TEST_F(KTSUtilitiesTest, PropertyListReadsReportWhyTheyFail) {
  EXPECT_TRUE(KTSUtilities::readPropertyListAtPath(path("/missing.plist")).isNull());
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: UTIL: read property list data read failed! reason: No such file or "
             "directory"));
  writeFile(path("/bad.plist"), "<plist><dict><key>a</key>");
  EXPECT_TRUE(KTSUtilities::readPropertyListAtPath(path("/bad.plist")).isNull());
  EXPECT_EQ(logLines().back().rfind(
                "ondrd_test[DBG]: UTIL: read property list data conversion failed! reason: ", 0),
            0u);
  std::filesystem::create_directories(path("/folder.plist"));
  EXPECT_TRUE(KTSUtilities::readPropertyListAtPath(path("/folder.plist")).isNull());

  writeFile(path("/string.plist"), "<plist><string>just text</string></plist>");
  EXPECT_EQ(KTSUtilities::readPropertyListAtPath(path("/string.plist")).stringValue(), "just text");
}

TEST_F(KTSUtilitiesTest, WritesCheckKindAndReportFailures) {
  Plist dictionary = Plist::dictionary();
  dictionary.set("k", "v");
  EXPECT_TRUE(KTSUtilities::writeDictionaryToPath(dictionary, path("/d.plist")));
  EXPECT_EQ(KTSUtilities::readPropertyListAtPath(path("/d.plist")), dictionary);
  EXPECT_FALSE(KTSUtilities::writeDictionaryToPath(Plist::array(), path("/d.plist")));
  EXPECT_TRUE(logged(
      fmt::format("ondrd_test[DBG]: UTIL: dictionary write failed! Path = {}", path("/d.plist"))));
  EXPECT_EQ(KTSUtilities::readPropertyListAtPath(path("/d.plist")), dictionary);

  EXPECT_TRUE(KTSUtilities::writeArrayToPath(Plist::stringArray({"a"}), path("/a.plist")));
  EXPECT_FALSE(KTSUtilities::writeArrayToPath(Plist::stringArray({"a"}), path("/no/a.plist")));
  EXPECT_TRUE(logged("ondrd_test[DBG]: UTIL: array write failed!"));

  EXPECT_FALSE(KTSUtilities::writePropertyListToPath(Plist("x"), path("/no/x.plist")));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: UTIL: write property list data write failed! reason: No such file "
             "or directory"));
  EXPECT_FALSE(KTSUtilities::writePropertyListToPath(Plist(), path("/x.plist")));

  EXPECT_TRUE(KTSUtilities::writeStringToPath("hello\n", path("/s.txt")));
  EXPECT_EQ(readFile(path("/s.txt")), "hello\n");
  EXPECT_FALSE(KTSUtilities::writeStringToPath("x", path("/no/s.txt")));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: UTIL: write string failed! reason: No such file or directory"));
}

TEST_F(KTSUtilitiesTest, ValidDateForEveryKindOfValue) {
  Date moment = *parseRfc3339Date("2016-09-20T17:00:00Z");
  EXPECT_EQ(KTSUtilities::validDateForValue(Plist::date(moment)), moment);
  EXPECT_TRUE(entries_.empty()) << "a date needs no substitute";

  EXPECT_EQ(KTSUtilities::validDateForValue("2016-09-20T17:00:00Z"), moment);
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: Created substitute NSDate from source RFC 3339 date format "
             "\"2016-09-20T17:00:00Z\""));
  EXPECT_EQ(KTSUtilities::validDateForValue("2016-09-20 17:00:00 +0000"), moment);
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: Created substitute NSDate from source archive date format "
             "\"2016-09-20 17:00:00 +0000\""));

  EXPECT_FALSE(KTSUtilities::validDateForValue("2016-09-20T17:00:00+02:00"));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: Unable to create NSDate - unrecognized source date format "
             "\"2016-09-20T17:00:00+02:00\""));
  EXPECT_FALSE(KTSUtilities::validDateForValue(Plist::integer(1474390800)));
  EXPECT_TRUE(logged(
      "ondrd_test[DBG]: Unable to create NSDate - unrecognized source date format \"1474390800\""));
  EXPECT_FALSE(KTSUtilities::validDateForValue(Plist()));
  EXPECT_TRUE(logged(
      "ondrd_test[DBG]: Unable to create NSDate - unrecognized source date format \"(null)\""));
  EXPECT_FALSE(KTSUtilities::validDateForValue(Plist::dictionary()));
  EXPECT_FALSE(KTSUtilities::dateWithRFC3339DateTimeString(std::nullopt));
  EXPECT_FALSE(KTSUtilities::dateWithRFC3339DateTimeString(""));

  // The stamp is always "now", whatever date is passed.
  ::setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(KTSUtilities::internationalDateTimeStringWithDate(moment),
            formatDescriptionDate(clock_->now()));
  clock_->advance(std::chrono::hours(1));
  EXPECT_EQ(KTSUtilities::internationalDateTimeStringWithDate(moment),
            formatDescriptionDate(clock_->now()));
  ::unsetenv("TZ");
  tzset();
}

TEST_F(KTSUtilitiesTest, MountedVolumes) {
  EXPECT_TRUE(KTSUtilities::getMountedVolumeInfoForPath("/Network/Servers/x").isNull());
  EXPECT_TRUE(KTSUtilities::getMountedVolumeInfoForPath("/Volumes/NoSuchDisk/x").isNull());
  Plist startup = KTSUtilities::getMountedVolumeInfoForPath(root_);
  ASSERT_TRUE(startup.isDictionary());
  EXPECT_TRUE(startup["path"].isString());
  EXPECT_GT(startup["totalSpace"].integerValue(), 0);
  EXPECT_TRUE(KTSUtilities::isMountedVolumeAtPath(root_));
  // Other tests write to the same volume meanwhile, so the two readings may differ a little.
  EXPECT_NEAR(static_cast<double>(KTSUtilities::getFreeSpaceForVolumeAtPath(root_).value_or(0)),
              static_cast<double>(startup["freeSpace"].integerValue()), 1 << 30);

  EXPECT_TRUE(KTSUtilities::getMountedVolumeListForFormat("no-such-format").isNull());
  Plist all = KTSUtilities::getMountedVolumeListForFormat(std::nullopt);
  ASSERT_TRUE(all.isArray());
  for (const Plist& volume : all.elements()) {
    EXPECT_NE(volume["format"].stringValue(), "proc") << "pseudo file systems are hidden";
  }
  Plist sameFormat = KTSUtilities::getMountedVolumeListForFormat(all[0]["format"].stringValue());
  ASSERT_TRUE(sameFormat.isArray());
  for (const Plist& volume : sameFormat.elements()) {
    EXPECT_EQ(volume["format"], all[0]["format"]);
  }
}

}  // namespace
}  // namespace ondrel
