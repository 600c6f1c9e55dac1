// The settings table: text an administrator types is taken only when it fits the setting, and a
// preferences file edited by hand (or by whoever can act as the service account) never puts a
// value outside a setting's limits into effect.
#include "KTSSettings.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;

TEST(KTSSettingsTest, TextIsTakenOnlyWhenItFitsTheSetting) {
  auto value = [](const std::string& key, const std::string& text) {
    std::string why;
    Plist parsed = KTSSettings::valueFromText(*KTSSettings::find(key), text, &why);
    EXPECT_EQ(parsed.isNull(), !why.empty()) << key << " " << text;
    return parsed;
  };
  EXPECT_EQ(value("portToUse", "65535").integerValue(), 65535);
  for (const char* refused : {"0", "65536", "-1", "8080x", "", "99999999999999999999"}) {
    EXPECT_TRUE(value("portToUse", refused).isNull()) << refused;
  }
  EXPECT_TRUE(value("maxConcurrentDownloads", "65").isNull());
  EXPECT_EQ(value("scrubMaxDuration", "30m").integerValue(), 1800) << "a duration in seconds";
  EXPECT_EQ(value("scrubMaxDuration", "0").integerValue(), 0) << "off";
  for (const char* refused : {"2d", "30x", "-1m", "m"}) {
    EXPECT_TRUE(value("scrubMaxDuration", refused).isNull()) << refused;
  }
  EXPECT_TRUE(value("autoMirror", "yes").boolValue());
  EXPECT_TRUE(value("autoMirror", "YES").isNull()) << "only the four words";
  EXPECT_EQ(value("updatesDocRoot", "/srv/mirror").stringValue(), "/srv/mirror/");
  EXPECT_TRUE(value("updatesDocRoot", "/srv/\"mirror").isNull()) << "a quote ends up in ondrd.conf";
  EXPECT_TRUE(value("metricsFile", "/var/lib/x/\nInclude /etc").isNull());
  EXPECT_TRUE(value("adminAddress", "127.0.0.1:80").isNull());
  EXPECT_EQ(value("adminAddress", "[::1]").stringValue(), "[::1]");
  EXPECT_TRUE(value("adminCertificate", "/no/such/certificate.pem").isNull());
  EXPECT_TRUE(value("otherCatalogs", "index-made-up.ktcatalog").isNull());
  EXPECT_EQ(KTSSettings::find("noSuchKey"), nullptr);
  EXPECT_TRUE(KTSSettings::isLoopbackAddress("127.3.2.1"));
  EXPECT_FALSE(KTSSettings::isLoopbackAddress("128.0.0.1"));
  EXPECT_FALSE(KTSSettings::isLoopbackAddress("[::2]"));
}

class KTSSettingsDefaultsTest : public OndrelTest {};

TEST_F(KTSSettingsDefaultsTest, ValuesOutsideTheirLimitsGiveWayToTheDefaults) {
  Plist preferences = Plist::dictionary();
  EXPECT_EQ(KTSSettings::maxConcurrentDownloads(preferences), 16);
  EXPECT_EQ(KTSSettings::metricsFile(preferences, context().layout()),
            path("/Library/Server/Ondrel/Status/ondrel.prom"));
  preferences.set("maxConcurrentDownloads", Plist::integer(1000));
  preferences.set("hookTimeout", Plist::integer(0));
  preferences.set("adminPort", "8089; Listen 80");
  preferences.set("adminAddress", "0.0.0.0\nInclude /etc/passwd");
  preferences.set("metricsFile", "relative/ondrel.prom");
  EXPECT_EQ(KTSSettings::maxConcurrentDownloads(preferences), 16);
  EXPECT_EQ(KTSSettings::hookTimeoutSeconds(preferences), 60);
  EXPECT_EQ(KTSSettings::adminPort(preferences), 8089);
  EXPECT_EQ(KTSSettings::adminAddress(preferences), "127.0.0.1");
  EXPECT_EQ(KTSSettings::metricsFile(preferences, context().layout()),
            path("/Library/Server/Ondrel/Status/ondrel.prom"));
  preferences.set("maxConcurrentDownloads", Plist::integer(64));
  EXPECT_EQ(KTSSettings::maxConcurrentDownloads(preferences), 64);
}

}  // namespace
}  // namespace ondrel
