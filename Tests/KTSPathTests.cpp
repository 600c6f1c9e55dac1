#include "KTSPath.h"
#include "KTSPreferences.h"
#include "KTSURL.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;

class KTSPathTest : public OndrelTest {};

TEST_F(KTSPathTest, OneFileInItsThreePlaces) {
  KTSPreferences& preferences = context().preferences();
  preferences.setHostName("mirror");
  preferences.setValue("portToUse", Plist::integer(8088));
  KTSPath file = KTSPath::pathWithString(
      "https://download.vantor.example/content/downloads/a/b%20c.pkg?token=1");
  EXPECT_EQ(file.asChildServerURL(context().layout()),
            "http://mirror:8088/content/downloads/a/b%20c.pkg");
  EXPECT_EQ(file.asLocalPath(context().layout()),
            path("/Library/Server/Ondrel/Data/html/content/downloads/a/b c.pkg"));

  KTSPath back = KTSPath::pathWithLocalFilePathParentHost(
      path("/Library/Server/Ondrel/Data/html/content/downloads/x.pkg"), "upstream:8080",
      context().layout());
  ASSERT_TRUE(back.parentServerURL());
  EXPECT_EQ(back.parentServerURL()->text(), "http://upstream:8080/content/downloads/x.pkg");
  EXPECT_FALSE(KTSPath::pathWithLocalFilePathParentHost("/elsewhere/x.pkg", "h", context().layout())
                   .parentServerURL());

  KTSPath nothing = KTSPath::pathWithString("not a url");
  EXPECT_FALSE(nothing.parentServerURL());
  EXPECT_FALSE(nothing.asLocalPath(context().layout()));
  EXPECT_FALSE(nothing.asChildServerURL(context().layout()));
}

TEST_F(KTSPathTest, UrlSettersRebuildFromSchemeHostAndPath) {
  KTSURL url = KTSURL::URLWithString("http://user:pw@host:8088/x/y.ktcatalog?q=1#f");
  url.setScheme("https");
  EXPECT_EQ(url.description(), "https://host:8088/x/y.ktcatalog");
  url.setPort(std::nullopt);
  EXPECT_EQ(url.description(), "https://host/x/y.ktcatalog");
  url.setHostAndPort("mirror.local", 8443);
  EXPECT_EQ(url.description(), "https://mirror.local:8443/x/y.ktcatalog");
  url.setHost("other");
  EXPECT_EQ(url.port(), 8443);
  url.setPath("/catalogs/a%20b.ktcatalog");
  EXPECT_EQ(url.path(), "/catalogs/a b.ktcatalog");
  EXPECT_FALSE(
      KTSURL::URLWithString("http://host/x").isEqual(KTSURL::URLWithString("http://HOST/x")));
  EXPECT_TRUE(KTSURL::URLWithKTSURL(url).isEqual(url));

  KTSURL empty = KTSURL::URLWithString("");
  empty.setScheme("https");
  EXPECT_EQ(empty.description(), "(null)");
}

}  // namespace
}  // namespace ondrel
