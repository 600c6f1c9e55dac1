#include <sys/stat.h>

#include "DateFormats.h"
#include "OndrelTest.h"
#include "PathString.h"
#include "TaskRunner.h"
#include "Url.h"

namespace ondrel {
namespace {

using test::OndrelTest;

class PlatformTest : public OndrelTest {};

TEST_F(PlatformTest, PathTextOperations) {
  EXPECT_EQ(appendingPathComponent("/Library/Server/Ondrel/Data/", "html"),
            "/Library/Server/Ondrel/Data/html");
  EXPECT_EQ(appendingPathComponent("/a", "/b/c"), "/a/b/c");
  EXPECT_EQ(appendingPathComponent("", "b"), "b");
  EXPECT_EQ(appendingPathComponent("/", "b"), "/b");
  EXPECT_EQ(standardizingPath("a/./b.pkg"), "a/b.pkg");
  EXPECT_EQ(standardizingPath("/a//b/../c/"), "/a/c");
  EXPECT_EQ(standardizingPath("/../x"), "/x");
  EXPECT_EQ(standardizingPath("../x/.."), "..");
  EXPECT_EQ(lastPathComponent("/a/b/"), "b");
  EXPECT_EQ(lastPathComponent("/"), "/");
  EXPECT_EQ(deletingLastPathComponent("/a/b"), "/a");
  EXPECT_EQ(deletingLastPathComponent("/a"), "/");
  EXPECT_EQ(deletingLastPathComponent("a"), "");
  EXPECT_EQ(pathExtension("/x/file.tar.gz"), "gz");
  EXPECT_EQ(pathExtension("/x/.hidden"), "");
  EXPECT_EQ(appendingPathExtension("/x/ondrd.conf", "previous"), "/x/ondrd.conf.previous");
  EXPECT_EQ(deletingPathExtension("/x/a.b/c.pkg"), "/x/a.b/c");
  EXPECT_EQ(deletingPathExtension("/x/a.b/c"), "/x/a.b/c");
}

TEST_F(PlatformTest, UrlsParseIntoTheirParts) {
  std::optional<Url> url = Url::parse("https://host.example:8443/a%20b/c.pkg?q=1#top");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->scheme(), "https");
  EXPECT_EQ(url->host(), "host.example");
  EXPECT_EQ(url->port(), 8443);
  EXPECT_EQ(url->path(), "/a b/c.pkg");
  EXPECT_EQ(url->query(), "q=1");
  EXPECT_EQ(url->fragment(), "top");
  EXPECT_FALSE(Url::parse("http://host/x")->port());
  EXPECT_NE(*Url::parse("http://host/x"), *Url::parse("http://HOST/x"));
  for (const char* bad : {"", "no scheme here", "http://", "http://host:99999/"}) {
    EXPECT_FALSE(Url::parse(bad)) << bad;
  }
}

TEST_F(PlatformTest, DatePatternsAreStrict) {
  std::optional<Date> utc = parseRfc3339Date("2016-09-20T17:00:00Z");
  ASSERT_TRUE(utc);
  EXPECT_EQ(formatRfc3339Date(*utc), "2016-09-20T17:00:00Z");
  EXPECT_EQ(parseArchiveDate("2016-09-20 19:00:00 +0200"), utc);
  EXPECT_EQ(parseArchiveDate("2016-09-20 09:00:00 -0800"), utc);
  EXPECT_EQ(formatDescriptionDate(*utc), "2016-09-20 17:00:00 +0000");
  for (const char* bad : {"2016-09-20T17:00:00+02:00", "2016-09-20T17:00:00.5Z",
                          "2016-09-20T17:00:00z", "2016-9-20T17:00:00Z", "2016-02-30T00:00:00Z",
                          "2016-09-20T24:00:00Z", " 2016-09-20T17:00:00Z", ""}) {
    EXPECT_FALSE(parseRfc3339Date(bad)) << bad;
  }
  for (const char* bad : {"2016-09-20 17:00:00", "2016-09-20 17:00:00 GMT",
                          "2016-09-20 17:00:00 +00:00", "2016-09-20T17:00:00 +0000"}) {
    EXPECT_FALSE(parseArchiveDate(bad)) << bad;
  }
  ::setenv("TZ", "America/New_York", 1);
  tzset();
  EXPECT_EQ(formatArchiveDate(*utc), "2016-09-20 13:00:00 -0400");
  ::unsetenv("TZ");
  tzset();
}

TEST_F(PlatformTest, TaskRunnerReportsExitStatusAndFindsMovedCommands) {
  EXPECT_EQ(TaskRunner::run("/bin/sh", {"-c", "exit 3"}), 3);
  EXPECT_EQ(TaskRunner::run("/no/such/folder/true", {}), 0) << "falls back to PATH";
  EXPECT_EQ(TaskRunner::run("/no/such/command-ondrel", {}), -1);
  writeFile(path("/marker"), "x");
  EXPECT_EQ(TaskRunner::run("/usr/sbin/chown", {"-R", "_ondrel:_ondrel", path("/marker")}), 0);
}

}  // namespace
}  // namespace ondrel
