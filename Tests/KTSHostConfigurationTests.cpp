#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>

#include "KTSCatalogSets.h"
#include "KTSHostConfiguration.h"
#include "KTSMetaIndex.h"
#include "KTSPreferences.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;
namespace lines = KTSConfigLines;

class KTSHostConfigurationTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    setUserDefaults(true);
    std::filesystem::create_directories(folder());
  }

  std::string folder() const { return path("/Library/Server/Ondrel/Config"); }
  std::string confPath() const { return folder() + "/ondrd.conf"; }

  // A configuration loaded from text, with preferences whose catalogs are given.
  std::shared_ptr<KTSHostConfiguration> loaded(const std::string& text,
                                               const Plist* preferences = nullptr) {
    writeFile(confPath(), text);
    auto config = KTSHostConfiguration::configurationWithPath(confPath());
    EXPECT_TRUE(config->loadWithPreferences(preferences));
    return config;
  }

  void setModificationTime(const std::string& file, Date when) {
    auto sinceEpoch = when.time_since_epoch();
    timespec times[2];
    times[0].tv_sec = times[1].tv_sec =
        std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count();
    times[0].tv_nsec = times[1].tv_nsec = 0;
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  }
};

TEST_F(KTSHostConfigurationTest, LineOperations) {
  EXPECT_TRUE(lines::isCommentLine("   # note"));
  EXPECT_FALSE(lines::isCommentLine("\t# tab is not a blank"));
  EXPECT_FALSE(lines::isCommentLine("    "));

  ConfigLines config = {"<Directory \"/a\">",
                        "  x",
                        "  # </Directory> in a comment",
                        "  y",
                        "  </Directory>",
                        "<IfModule mod_rewrite.c>",
                        "</IfModule>",
                        "<Directory \"/b\">",
                        "  z"};
  EXPECT_TRUE(lines::containsSectionTypeWithIdentifier(config, "<Directory", "/b"));
  EXPECT_FALSE(lines::containsSectionTypeWithIdentifier(config, "<Directory", "/c"));
  lines::Range range =
      lines::rangeOfContentForSectionTypeWithIdentifier(config, "<Directory", "/a");
  EXPECT_EQ(range.location, 1u);
  EXPECT_EQ(range.length, 3u) << "a commented closing line does not end the section";
  EXPECT_EQ(lines::contentForSectionTypeWithIdentifier(config, "<Directory", "/b"),
            ConfigLines{"  z"})
      << "without a closing line the content runs to the end";
  EXPECT_EQ(lines::rangeOfContentForSectionTypeWithIdentifier(config, "<Directory", "/c").location,
            lines::kNotFound);

  ConfigLines replaced = config;
  lines::replaceContentForSectionTypeWithIdentifier(replaced, {"new"}, "<IfModule",
                                                    "mod_rewrite.c");
  EXPECT_EQ(replaced, config) << "an empty section is never filled";
  lines::replaceContentForSectionTypeWithIdentifier(replaced, {"n1", "n2"}, "<Directory", "/a");
  EXPECT_EQ(replaced[1], "n1");
  EXPECT_EQ(replaced[3], "  </Directory>");

  ConfigLines entries = {"RATE_LIMIT before SetOutputFilter", "#SetOutputFilter RATE_LIMIT"};
  EXPECT_EQ(lines::indexOfEntryNamedWithIdentifier(entries, "SetOutputFilter", "RATE_LIMIT"), 1u);
  EXPECT_EQ(lines::indexOfEntryNamedWithIdentifier(entries, "SetEnv", "rate-limit"),
            lines::kNotFound);

  ConfigLines trailing = {"a", "", "  ", "b", " ", ""};
  lines::removeTrailingBlankLines(trailing);
  EXPECT_EQ(trailing, (ConfigLines{"a", "", "  ", "b"}));
  ConfigLines blank = {"", " "};
  lines::removeTrailingBlankLines(blank);
  EXPECT_EQ(blank.size(), 2u) << "a list of only blank lines is left as it is";
}

TEST_F(KTSHostConfigurationTest, DirectivesAreSetOnlyWhereTheyBeginALine) {
  auto config = loaded(
      "#Listen 80\n  Listen 81\nListen 80\nDocumentRoot \"/old\"\n<Directory \"/old\">\n"
      "</Directory>\n<Directory \"/other\">\n</Directory>\n<Directory /unquoted>\n</Directory>\n");
  config->setListenPort(Plist::integer(8088));
  config->setDocumentRoot(path("/docs"));
  const ConfigLines& result = *config->configLines();
  EXPECT_EQ(result[0], "#Listen 80");
  EXPECT_EQ(result[1], "  Listen 81");
  EXPECT_EQ(result[2], "Listen *:8088");
  EXPECT_EQ(result[3], "DocumentRoot \"" + path("/docs/html") + "\"");
  EXPECT_EQ(result[4], "<Directory \"" + path("/docs/html") + "\">");
  EXPECT_EQ(result[6], "<Directory \"" + path("/docs/html") + "\">") << "every quoted section";
  EXPECT_EQ(result[8], "<Directory /unquoted>");
  EXPECT_TRUE(std::filesystem::is_directory(path("/docs/html")));
  EXPECT_TRUE(logged("ondrd_test[DBG]: CONF: SET: Listen *:8088"));
  EXPECT_EQ(config->valueForPrefix("DocumentRoot"), " \"" + path("/docs/html") + "\"");
  EXPECT_FALSE(config->valueForPrefix("ServerName"));

  auto noListen = loaded("ServerName x\n");
  noListen->setListenPort(Plist::integer(8088));
  EXPECT_FALSE(noListen->configHasChanged());
  EXPECT_EQ(*noListen->configLines(), (ConfigLines{"ServerName x", ""}));

  auto same = loaded("Listen *:8088\n");
  same->setListenPort(Plist::integer(8088));
  EXPECT_TRUE(same->configHasChanged()) << "setting an unchanged value still counts";

  std::filesystem::remove_all(path("/Library/Server"));
  auto unloaded = KTSHostConfiguration::configurationWithPath(path("/none/ondrd.conf"));
  unloaded->setValueForPrefix("x", "Listen");
  EXPECT_FALSE(unloaded->configLines());
  clearLog();
  writeFile(path("/elsewhere/ondrd.conf"), "DocumentRoot \"/x\"\n");
  auto guarded = KTSHostConfiguration::configurationWithPath(path("/elsewhere/ondrd.conf"));
  ASSERT_TRUE(guarded->loadWithPreferences(nullptr));
  guarded->setDocumentRoot(path("/Library/Server/Ondrel/Data"));
  EXPECT_TRUE(
      logged(fmt::format("ondrd_test[WRN]: Unable to create configured document root folder \"{}\"",
                         path("/Library/Server/Ondrel/Data/html"))));
  EXPECT_TRUE(logged("ondrd_test[WRN]: Ondrel Server may fail to start."));
}

TEST_F(KTSHostConfigurationTest, RateLimitLinesFollowTheInsertionRule) {
  const std::string root = path("/data");
  auto section = [&](const std::string& body) {
    return "<Directory \"" + root + "/html\">\n" + body + "</Directory>\n";
  };
  auto contentAfter = [&](const std::string& body, bool enable, int limit) {
    auto config = loaded(section(body));
    config->setEnableBandwidthLimitForDocumentRoot(enable, Plist::integer(limit), root);
    return lines::contentForSectionTypeWithIdentifier(*config->configLines(), "<Directory",
                                                      root + "/html");
  };
  EXPECT_EQ(contentAfter("    Options None\n#    SetOutputFilter RATE_LIMIT\n"
                         "#    SetEnv rate-limit 0\n    Require all granted\n",
                         true, 64),
            (ConfigLines{"    Options None", "    SetOutputFilter RATE_LIMIT",
                         "    SetEnv rate-limit 64", "    Require all granted"}));
  EXPECT_EQ(contentAfter("    SetOutputFilter RATE_LIMIT\n    SetEnv rate-limit 64\n", false, 0),
            (ConfigLines{"#    SetOutputFilter RATE_LIMIT", "#    SetEnv rate-limit 0"}));
  EXPECT_EQ(contentAfter("    Options None\n", true, 10),
            (ConfigLines{"    SetOutputFilter RATE_LIMIT", "    SetEnv rate-limit 10",
                         "    Options None"}));
  // Only SetEnv present: the insertion at the top shifts it, so the line above it is replaced.
  EXPECT_EQ(contentAfter("    Options None\n    SetEnv rate-limit 5\n", true, 10),
            (ConfigLines{"    SetOutputFilter RATE_LIMIT", "    SetEnv rate-limit 10",
                         "    SetEnv rate-limit 5"}));

  auto empty = loaded(section(""));
  empty->setEnableBandwidthLimitForDocumentRoot(true, Plist::integer(10), root);
  EXPECT_FALSE(empty->configHasChanged()) << "an empty section is left alone";
}

TEST_F(KTSHostConfigurationTest, RewriteBlockFollowsTheConfiguredCatalogs) {
  KTSPreferences preferences;
  const auto& supported = KTSCatalogSets::supportedCatalogNames();
  preferences.setValue("otherCatalogs",
                       Plist::stringArray({supported[7], "unknown.ktcatalog", supported[1]}));
  auto config = loaded(
      "Listen 1\n<IfModule mod_rewrite.c>\n    RewriteEngine Off\n"
      "    old rule\n</IfModule>\n\n\n",
      &preferences.prefs());
  EXPECT_EQ(*config->configLines(),
            (ConfigLines{"Listen 1", "<IfModule mod_rewrite.c>", "    RewriteEngine On",
                         "    RewriteCond %{HTTP_USER_AGENT} Taltos/10",
                         "    RewriteRule ^/index\\.ktcatalog$ "
                         "http://%{HTTP_HOST}/cgi-bin/OndrelServerGetCatalog?/" +
                             supported[1],
                         "    RewriteCond %{HTTP_USER_AGENT} Taltos/16",
                         "    RewriteRule ^/index\\.ktcatalog$ "
                         "http://%{HTTP_HOST}/cgi-bin/OndrelServerGetCatalog?/" +
                             supported[7],
                         "</IfModule>"}));
  EXPECT_FALSE(config->configHasChanged()) << "upgrade edits wait for another change to be saved";
  EXPECT_TRUE(logged("ondrd_test[INF]: Updated mod_rewrite for configured catalogs."));

  preferences.setValue("otherCatalogs", Plist::array());
  writeFile(confPath(), "<IfModule mod_rewrite.c>\n    RewriteEngine On\n    x\n</IfModule>\n");
  config = KTSHostConfiguration::configurationWithPath(confPath());
  ASSERT_TRUE(config->loadWithPreferences(&preferences.prefs()));
  EXPECT_EQ(lines::contentForSectionTypeWithIdentifier(*config->configLines(), "<IfModule",
                                                       "mod_rewrite.c"),
            ConfigLines{"    RewriteEngine On"});

  clearLog();
  auto added = loaded("Listen 1\n", &preferences.prefs());
  EXPECT_EQ(*added->configLines(),
            (ConfigLines{"Listen 1", "", "### mod_rewrite section auto-generated",
                         "<IfModule mod_rewrite.c>", "</IfModule>"}))
      << "a new section stays empty";
  EXPECT_TRUE(logged("ondrd_test[INF]: Configuration feature added: mod_rewrite."));
}

TEST_F(KTSHostConfigurationTest, MissingAndObsoleteFilesAreReplacedByTheDefault) {
  const std::string shipped = readFile(resources_ + "/ondrd.conf");
  auto config = KTSHostConfiguration::configurationWithPath(confPath());
  ASSERT_TRUE(config->loadWithPreferences(nullptr));
  EXPECT_EQ(readFile(confPath()), shipped);
  EXPECT_TRUE(
      logged("ondrd_test[WRN]: Restoring missing " + confPath() + " from default configuration."));

  for (const std::string& obsolete :
       {std::string("Listen 80\n# LoadModule bw_module mod_bw.so\n"),
        std::string(
            "# An earlier version's\nLoadModule mpm_prefork_module mod_mpm_prefork.so\n")}) {
    writeFile(confPath(), obsolete);
    clearLog();
    ASSERT_TRUE(config->loadWithPreferences(nullptr));
    EXPECT_EQ(readFile(confPath() + ".obsolete"), obsolete);
    EXPECT_EQ(readFile(confPath()), shipped);
    EXPECT_EQ(logLines()[0], "ondrd_test[WRN]: Removing obsolete ondrd.conf configuration.");
  }

  std::filesystem::remove(confPath());
  ::setenv("ONDREL_RESOURCES", path("/no-resources").c_str(), 1);
  clearLog();
  EXPECT_FALSE(config->loadWithPreferences(nullptr));
  EXPECT_FALSE(config->configLines());
  EXPECT_TRUE(logged("ondrd_test[ERR]: Error restoring default configuration " + confPath() +
                     " (err=\"No such file or directory\")"));
}

TEST_F(KTSHostConfigurationTest, UnreadableFilesLeaveItUnloaded) {
  writeFile(confPath(), "Listen 80\nServerName caf\xE9\n");
  auto config = KTSHostConfiguration::configurationWithPath(confPath());
  EXPECT_FALSE(config->loadWithPreferences(nullptr));
  EXPECT_FALSE(config->configLines());
  EXPECT_TRUE(logged("ondrd_test[ERR]: Read failed for host configuration " + confPath() +
                     " (reason: The file is not valid UTF-8 text.)"));

  std::filesystem::remove(confPath());
  std::filesystem::create_directories(confPath());
  EXPECT_FALSE(config->loadWithPreferences(nullptr));
  EXPECT_TRUE(logged("ondrd_test[ERR]: Read failed for host configuration " + confPath() +
                     " (reason: Is a directory)"));
  EXPECT_FALSE(config->logLoadErrorWithReason(std::nullopt));
  EXPECT_TRUE(logged("ondrd_test[ERR]: Read failed for host configuration " + confPath() +
                     " (reason: unknown)"));

  std::filesystem::remove(confPath());
  auto empty = loaded("");
  empty->setListenPort(Plist::integer(1));
  EXPECT_FALSE(empty->save()) << "an empty file has nothing to change";
}

TEST_F(KTSHostConfigurationTest, SaveKeepsOnePreviousGenerationAndNeverAHole) {
  auto config = loaded("Listen 80\nServerName x\n");
  EXPECT_FALSE(config->save()) << "nothing changed";
  EXPECT_FALSE(std::filesystem::exists(confPath() + ".previous"));

  config->setListenPort(Plist::integer(8088));
  clock_->advance(std::chrono::seconds(5));
  ASSERT_TRUE(config->save());
  EXPECT_EQ(readFile(confPath()), "Listen *:8088\nServerName x\n\n");
  EXPECT_EQ(readFile(confPath() + ".previous"), "Listen 80\nServerName x\n");
  EXPECT_EQ(config->loadDate(), clock_->now());
  EXPECT_FALSE(config->configHasChanged());
  EXPECT_TRUE(logged("ondrd_test[DBG]: CONF: saving " + confPath()));
  EXPECT_TRUE(logged("ondrd_test[INF]: Host configuration updated."));

  config->setListenPort(Plist::integer(9000));
  ASSERT_TRUE(config->save());
  EXPECT_EQ(readFile(confPath() + ".previous"), "Listen *:8088\nServerName x\n\n");

  std::filesystem::remove_all(folder());
  config->setListenPort(Plist::integer(9001));
  EXPECT_FALSE(config->save()) << "a folder that is gone cannot be written";
  EXPECT_TRUE(config->configHasChanged());
}

TEST_F(KTSHostConfigurationTest, ReloadFollowsTheModificationDateRule) {
  auto config = loaded("Listen 80\n");
  // Another process rewrites the file after our load: the lines held are kept.
  writeFile(confPath(), "Listen 81\n");
  setModificationTime(confPath(), clock_->now() + std::chrono::seconds(10));
  clearLog();
  ASSERT_TRUE(config->loadWithPreferences(nullptr));
  EXPECT_EQ(*config->configLines(), (ConfigLines{"Listen 80", ""}));
  EXPECT_EQ(logLines(),
            std::vector<std::string>{"ondrd_test[DBG]: CONF: config data current, load skipped"});

  // A file no newer than the last load is read again.
  setModificationTime(confPath(), clock_->now() - std::chrono::seconds(10));
  ASSERT_TRUE(config->loadWithPreferences(nullptr));
  EXPECT_EQ(config->configLines()->front(), "Listen 81");
  EXPECT_TRUE(logged("ondrd_test[DBG]: CONF: config loaded from disk"));
}

}  // namespace
}  // namespace ondrel
