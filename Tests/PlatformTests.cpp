#include <sys/stat.h>

#include "DateFormats.h"
#include "HostPaths.h"
#include "OndrelTest.h"
#include "PathString.h"
#include "TaskRunner.h"
#include "Url.h"
#include "Utf8.h"
#include "Volumes.h"

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

TEST_F(PlatformTest, FixedPathsAndResourcesFollowTheEnvironment) {
  EXPECT_EQ(fixedPath("/var/spool/ondrd"), root_ + "/var/spool/ondrd");
  EXPECT_EQ(resourcePath("ondrd", "plist"), resources_ + "/ondrd.plist");
  ::unsetenv("ONDREL_ROOT");
  EXPECT_EQ(fixedPath("/var/spool/ondrd"), "/var/spool/ondrd");
}

TEST_F(PlatformTest, TaskRunnerReportsExitStatusAndFindsMovedCommands) {
  EXPECT_EQ(TaskRunner::run("/bin/sh", {"-c", "exit 3"}), 3);
  EXPECT_EQ(TaskRunner::run("/no/such/folder/true", {}), 0) << "falls back to PATH";
  EXPECT_EQ(TaskRunner::run("/no/such/command-ondrel", {}), -1);
  writeFile(path("/marker"), "x");
  EXPECT_EQ(TaskRunner::run("/usr/sbin/chown", {"-R", "_ondrel:_ondrel", path("/marker")}), 0);
}

TEST_F(PlatformTest, VolumesListTheRootFileSystemWithCapacity) {
  std::vector<MountedVolume> volumes = Volumes::mounted();
  auto root = std::find_if(volumes.begin(), volumes.end(),
                           [](const MountedVolume& v) { return v.mountPoint == "/"; });
  ASSERT_NE(root, volumes.end());
  EXPECT_FALSE(root->hidden);
  EXPECT_FALSE(root->format.empty());
  std::uint64_t total = 0, available = 0;
  EXPECT_TRUE(Volumes::capacity("/", &total, &available, nullptr));
  EXPECT_GT(total, 0u);
  EXPECT_LE(available, total);
  EXPECT_TRUE(std::any_of(volumes.begin(), volumes.end(), [](const MountedVolume& v) {
    return v.mountPoint == "/proc" && v.hidden;
  }));
  std::string error;
  EXPECT_FALSE(Volumes::capacity(path("/missing"), &total, &available, &error));
  EXPECT_FALSE(error.empty());
}

TEST_F(PlatformTest, Utf8Validation) {
  EXPECT_TRUE(isValidUtf8("plain \xC3\xA9 \xE2\x98\xBA \xF0\x9F\x98\x80"));
  EXPECT_FALSE(isValidUtf8("\xC0\xAF"));           // overlong
  EXPECT_FALSE(isValidUtf8("\xED\xA0\x80"));       // surrogate
  EXPECT_FALSE(isValidUtf8("\xE2\x98"));           // truncated
  EXPECT_FALSE(isValidUtf8("latin-1 caf\xE9 x"));  // not UTF-8
}

}  // namespace
}  // namespace ondrel
