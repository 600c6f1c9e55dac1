#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "KTSCatalogSets.h"
#include "KTSMetaIndex.h"
#include "KTSPreferences.h"
#include "KTSUtilities.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;

class KTSPreferencesTest : public OndrelTest {
 protected:
  std::string configPath() const { return path("/Library/Server/Ondrel/Config/ondrd.plist"); }
  Plist fileContents() const { return KTSUtilities::readPropertyListAtPath(configPath()); }
  void writeConfiguration(const Plist& dictionary) {
    std::filesystem::create_directories(path("/Library/Server/Ondrel/Config"));
    ASSERT_TRUE(dictionary.writeXmlFile(configPath(), nullptr));
  }
  static Plist catalogsOf(const std::string& version) {
    return Plist::stringArray(*KTSCatalogSets::defaultCatalogsForVersion(version));
  }
  static uid_t ownerOf(const std::string& file) {
    struct stat status {};
    ::stat(file.c_str(), &status);
    return status.st_uid;
  }
  static uid_t serviceUid() { return getpwnam("_ondrel")->pw_uid; }

  std::vector<std::string> invalidFileWarnings() const {
    return {"ondrd_test[WRN]: Unable to load preferences file " + configPath(),
            "ondrd_test[WRN]: Removing " + configPath() + " may correct this problem.",
            "ondrd_test[WRN]: File permissions repair or restore from backup may be required if "
            "problem persists."};
  }
};

// Through the shared instance, which lives as long as the process: made anew under this test's
// root.
TEST_F(KTSPreferencesTest, FirstStartBuildsTheServiceTreeAndRestoresDefaults) {
  KTSPreferences::resetDefaultPreferences();
  auto preferences = KTSPreferences::defaultPreferences();
  for (const char* folder : {"Config", "Data", "Cache", "Status"}) {
    std::string full = path("/Library/Server/Ondrel/") + folder;
    EXPECT_TRUE(KTSUtilities::directoryExistsAtPath(full)) << folder;
    EXPECT_EQ(ownerOf(full), serviceUid()) << folder;
  }
  EXPECT_EQ(ownerOf(configPath()), serviceUid());
  EXPECT_EQ(logLines(), std::vector<std::string>{
                            "ondrd_test[NOT]: Restoring missing ondrd.plist from defaults."});
  EXPECT_EQ(preferences->portToUse(), Plist::integer(8088));
  EXPECT_EQ(preferences->otherCatalogs(), catalogsOf("10.12"));
  EXPECT_EQ(preferences->updatesDocRoot(), path("/Library/Server/Ondrel/Data/"));
  EXPECT_EQ(preferences->updatesHtmlPath(), path("/Library/Server/Ondrel/Data/html"));
  EXPECT_EQ(preferences->updatesOtherCatalogsPath(),
            path("/Library/Server/Ondrel/Data/html/content/catalogs/others"));
  EXPECT_EQ(preferences->updatesDownloadsPath(),
            path("/Library/Server/Ondrel/Data/html/content/downloads"));
  EXPECT_FALSE(KTSUtilities::directoryExistsAtPath(preferences->updatesHtmlPath()))
      << "derived paths create nothing";
  char host[256] = {};
  gethostname(host, 255);
  EXPECT_EQ(preferences->hostName(), host);
  // A public name serves only when a URL can carry it.
  for (const std::string& name : {std::string("mirror.example.org"), std::string("10.1.2.3"),
                                  std::string("[::1]"), std::string(63, 'a') + ".b"}) {
    preferences->setValue("publicHostName", name);
    EXPECT_EQ(preferences->hostName(), name);
  }
  for (const std::string& name :
       {std::string(100000, 'a'), std::string(64, 'a') + ".b", std::string("a b"),
        std::string("-a.b"), std::string("a..b"), std::string("::1"), std::string("a/b"),
        std::string("x:80"), std::string(127, 'a') + "." + std::string(127, 'a')}) {
    preferences->setValue("publicHostName", name);
    EXPECT_EQ(preferences->hostName(), host) << name.substr(0, 80);
  }
  preferences->setValue("publicHostName", Plist());
  EXPECT_EQ(KTSPreferences::defaultPreferencesWithPath(path("/elsewhere.plist")), preferences);
}

TEST_F(KTSPreferencesTest, WithoutAServerTreeTheReplacementIsLoaded) {
  std::filesystem::remove_all(path("/Library/Server"));
  KTSPreferences preferences;
  EXPECT_EQ(preferences.prefs()["InvalidPreferenceFile"].stringValue(),
            "Possible file corruption. Remove this file to use defaults or restore from backup.");
  std::vector<std::string> expected = {
      fmt::format("ondrd_test[ERR]: Error creating directory: {}, {} does not exist",
                  path("/Library/Server/Ondrel/Config"), path("/Library/Server"))};
  std::vector<std::string> warnings = invalidFileWarnings();
  expected.insert(expected.end(), warnings.begin(), warnings.end());
  EXPECT_EQ(logLines(), expected);
  EXPECT_FALSE(std::filesystem::exists(path("/Library/Server")));
}

TEST_F(KTSPreferencesTest, UnusableFilesGiveTheReplacementNeverACrash) {
  const std::vector<std::string> unusable = {
      "",
      "<?xml version=\"1.0\"?><plist><dict><key>portToUse</key><integer>80",
      "\x00\x01\x02\xff garbage",
      "bplist00\x01\x02",
      "<plist><array><string>not a dictionary</string></array></plist>",
      "<plist><string>portToUse</string></plist>",
  };
  for (const std::string& contents : unusable) {
    writeFile(configPath(), contents);
    clearLog();
    KTSPreferences preferences;
    EXPECT_TRUE(preferences.prefs().contains("InvalidPreferenceFile")) << contents;
    EXPECT_EQ(preferences.prefs().size(), 1u);
    EXPECT_EQ(logLines(), invalidFileWarnings()) << contents;
  }
  std::filesystem::remove(configPath());
  std::filesystem::create_directories(configPath());
  KTSPreferences onFolder;
  EXPECT_TRUE(onFolder.prefs().contains("InvalidPreferenceFile"));
}

TEST_F(KTSPreferencesTest, GettersWriteBackOnlyTheirDocumentedDefaults) {
  writeConfiguration(Plist::dictionary());
  KTSPreferences preferences;
  EXPECT_EQ(preferences.portToUse().stringValue(), "portToUse");
  EXPECT_FALSE(preferences.purgeUnused());
  EXPECT_FALSE(preferences.autoMirror());
  EXPECT_EQ(preferences.maxBandwidth(), Plist::integer(0));
  EXPECT_EQ(preferences.syncBandwidth(), Plist::integer(0));
  EXPECT_EQ(preferences.metaIndexURL()->text(),
            "http://catalog.vantor.example/content/meta/mirror-config-1.plist");
  EXPECT_EQ(preferences.volumeReserve(), Plist::integer(5));
  EXPECT_TRUE(preferences.otherCatalogs().isNull());
  ASSERT_TRUE(preferences.commitChangesUpdatingHostConfig(false));

  Plist written = fileContents();
  for (const char* key : {"portToUse", "PurgeUnused", "autoMirror", "valueBandwidth",
                          "syncBandwidth", "metaIndexURL"}) {
    EXPECT_TRUE(written.contains(key)) << key;
  }
  for (const char* key : {"volumeReserve", "otherCatalogs"}) {
    EXPECT_FALSE(written.contains(key)) << key;
  }
  EXPECT_FALSE(std::filesystem::exists(path("/Library/Server/Ondrel/Config/ondrd.conf")))
      << "a commit without the web server update leaves its configuration alone";
}

TEST_F(KTSPreferencesTest, LimitBandwidthIsValidatedAndANullSettingTakesItsDefault) {
  Plist stored = Plist::dictionary();
  stored.set("limitBandwidth", "YES");
  stored.set("valueBandwidth", Plist::integer(512));
  writeConfiguration(stored);
  setUserDefaults(true);
  KTSPreferences preferences;
  EXPECT_FALSE(preferences.limitBandwidth()) << "a string is not a valid switch";
  EXPECT_EQ(preferences.prefs()["limitBandwidth"], Plist::boolean(false));
  preferences.setValue("limitBandwidth", Plist::boolean(true));
  EXPECT_TRUE(preferences.limitBandwidth());

  // A setting set to nothing takes its default again.
  preferences.setValue("valueBandwidth", Plist());
  preferences.setValue("updatesDocRoot", Plist());
  EXPECT_EQ(preferences.maxBandwidth(), Plist::integer(0));
  EXPECT_EQ(preferences.updatesDocRoot(), path("/Library/Server/Ondrel/Data/"));

  preferences.setValue("portToUse", "8089");
  preferences.setValue("otherCatalogs", Plist::array());
  preferences.refresh();
  EXPECT_EQ(preferences.maxBandwidth(), Plist::integer(512)) << "refresh drops uncommitted changes";
  EXPECT_TRUE(preferences.otherCatalogs().isNull());
}

TEST_F(KTSPreferencesTest, AutomaticPresetsStopAtTheFirstDecidingSetting) {
  writeConfiguration(Plist::dictionary());
  KTSPreferences preferences;
  EXPECT_FALSE(preferences.automaticPresetsEnabled());
  EXPECT_TRUE(preferences.prefs().contains("autoMirror"));
  EXPECT_FALSE(preferences.prefs().contains("autoEnable")) << "never asked";
  preferences.setValue("autoMirror", Plist::boolean(true));
  preferences.setValue("autoEnable", Plist::boolean(true));
  preferences.setValue("PurgeUnused", Plist::boolean(true));
  EXPECT_TRUE(preferences.automaticPresetsEnabled());
  preferences.setValue("autoMirrorOnlyNew", Plist::boolean(true));
  EXPECT_FALSE(preferences.automaticPresetsEnabled());
}

TEST_F(KTSPreferencesTest, WorkingPathsFollowANonDefaultConfiguration) {
  KTSPreferences standard;
  EXPECT_EQ(standard.statusWorkingPathForPath("/any/where/status.plist"),
            "/any/where/status.plist");

  std::filesystem::create_directories(path("/alt/Ondrel/Config"));
  KTSPreferences other(path("/alt/Ondrel/Config/ondrd.plist"));
  EXPECT_TRUE(logged("ondrd_test[NOT]: Restoring missing ondrd.plist from defaults."));
  EXPECT_EQ(other.statusWorkingPathForPath("/Library/Server/Ondrel/Status/status.plist"),
            path("/alt/Ondrel/Status/status.plist"));
  EXPECT_EQ(other.cacheWorkingPathForPath("/x/a.plist"), path("/alt/Ondrel/Cache/a.plist"));
  EXPECT_TRUE(KTSUtilities::directoryExistsAtPath(path("/alt/Ondrel/Status")));
}

TEST_F(KTSPreferencesTest, OldCatalogListsAreUpgradedOnceFromEveryPreviousVersion) {
  const Plist current = catalogsOf("10.12");
  for (const std::string& version : KTSCatalogSets::previousCatalogVersions()) {
    Plist stored = Plist::dictionary();
    stored.set("portToUse", Plist::integer(8088));
    stored.set("otherCatalogs", catalogsOf(version));
    writeConfiguration(stored);
    clearLog();

    KTSPreferences preferences;
    Plist expected = KTSArrays::arrayByAddingMissingObjectsFromArray(catalogsOf(version), current);
    EXPECT_EQ(preferences.otherCatalogs(), expected) << version;
    EXPECT_EQ(fileContents()["otherCatalogs"], expected) << "committed: " << version;
    EXPECT_TRUE(logged(fmt::format(
        "ondrd_test[INF]: ...upgrading supported catalogs for 10.12 (was {})", version)));
    EXPECT_EQ(preferences.otherCatalogs()[0], catalogsOf(version)[0]) << "old entries stay first";

    clearLog();
    preferences.refresh();
    KTSPreferences again;
    EXPECT_EQ(again.otherCatalogs(), expected);
    for (const std::string& line : logLines()) {
      EXPECT_EQ(line.find("upgrading"), std::string::npos) << "nothing left to do: " << line;
    }
  }
}

TEST_F(KTSPreferencesTest, CustomCatalogListsKeepTheirOrder) {
  Plist stored = Plist::dictionary();
  Plist custom = Plist::stringArray(
      {"my-own.ktcatalog", "index-alder-birch.merged-1.ktcatalog", "my-own.ktcatalog"});
  stored.set("otherCatalogs", custom);
  writeConfiguration(stored);
  KTSPreferences preferences;
  EXPECT_TRUE(logged("ondrd_test[INF]: ...upgrading custom preferences for 10.12 catalog set"));
  Plist upgraded = preferences.otherCatalogs();
  ASSERT_EQ(upgraded.size(), 3u + 6u);
  EXPECT_EQ(upgraded[0].stringValue(), "my-own.ktcatalog");
  EXPECT_EQ(upgraded[1].stringValue(), "index-alder-birch.merged-1.ktcatalog");
  EXPECT_EQ(upgraded[2].stringValue(), "my-own.ktcatalog") << "the user's own entries are kept";
  EXPECT_EQ(upgraded[3], catalogsOf("10.12")[0]);
  EXPECT_TRUE(KTSArrays::containsAllObjects(upgraded, catalogsOf("10.12")));
  EXPECT_TRUE(std::filesystem::exists(path("/Library/Server/Ondrel/Config/ondrd.conf")))
      << "the upgrade commit rewrites the web server configuration too";
}

TEST_F(KTSPreferencesTest, InvalidAndEmptyDictionariesAreNotUpgraded) {
  writeConfiguration(Plist::dictionary());
  KTSPreferences preferences;
  EXPECT_FALSE(preferences.upgradeOtherCatalogsForPreferences(Plist()));
  EXPECT_TRUE(logged(
      "ondrd_test[WRN]: Unknown service preferences, skipping catalog configuration update."));
  clearLog();
  EXPECT_FALSE(preferences.upgradeOtherCatalogsForPreferences(Plist::dictionary()));
  EXPECT_TRUE(entries_.empty()) << "an absent list has nothing to upgrade and says nothing";
}

TEST_F(KTSPreferencesTest, ArrayHelpers) {
  Plist abc = Plist::stringArray({"a", "b", "c"});
  EXPECT_FALSE(KTSArrays::containsAllObjects(Plist::stringArray({"a"}), abc));
  EXPECT_FALSE(KTSArrays::containsAllObjects(Plist(), Plist::stringArray({"a"})));
  EXPECT_FALSE(KTSArrays::containsSameObjects(abc, Plist::stringArray({"c", "b"})));
  EXPECT_FALSE(KTSArrays::containsSameObjects(Plist::stringArray({"a", "a", "b"}), abc));
  EXPECT_EQ(KTSArrays::arrayByAddingMissingObjectsFromArray(
                Plist::stringArray({"b"}), Plist::stringArray({"a", "b", "a", "c"})),
            Plist::stringArray({"b", "a", "c"}));
}

TEST_F(KTSPreferencesTest, AFailedCommitKeepsTheSettingsInMemory) {
  auto preferences = context().sharedPreferences();
  preferences->setValue("portToUse", Plist::integer(9000));
  std::filesystem::remove_all(path("/Library/Server/Ondrel/Config"));
  EXPECT_FALSE(preferences->commitChangesUpdatingHostConfig(false));
  EXPECT_EQ(preferences->portToUse(), Plist::integer(9000));
}

}  // namespace
}  // namespace ondrel
