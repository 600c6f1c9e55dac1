#include <brotli/decode.h>
#include <sys/stat.h>
#include <zlib.h>

#include <filesystem>

#include "CompressedForms.h"
#include "DateFormats.h"
#include "FileIO.h"
#include "HttpConditions.h"
#include "OndrelTest.h"
#include "PathString.h"
#include "ProductId.h"
#include "Sha256Pipeline.h"
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
  EXPECT_EQ(standardizingPath("/"), "/");
  EXPECT_EQ(standardizingPath("/a/.b/..c"), "/a/.b/..c");
  EXPECT_EQ(standardizingPath("a/b/"), "a/b");
  EXPECT_EQ(standardizingPath("/a/b/."), "/a/b");
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
  // Side files of a name too long for a suffix get a short hidden name, one per name.
  const std::string longest(243, 'n');
  EXPECT_EQ(sideFilePath("/x/" + longest, "downloading"), "/x/" + longest + ".downloading");
  std::string side = sideFilePath("/x/" + longest + "a", "downloading");
  EXPECT_EQ(side.rfind("/x/.ondrel-", 0), 0u) << side;
  EXPECT_EQ(side.size(), std::string("/x/.ondrel-0123456789abcdef.downloading").size());
  EXPECT_NE(side, sideFilePath("/x/" + longest + "b", "downloading"));
  EXPECT_EQ(side, sideFilePath("/x/" + longest + "a", "downloading"));
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
  for (const char* bad : {"", "no scheme here", "http://", "http://host:99999/", "http"}) {
    EXPECT_FALSE(Url::parse(bad)) << bad;
  }
  // Plain URLs are read without libcurl, the others through it: either way as libcurl reads them.
  for (const char* text :
       {"http://127.0.0.1:18492/content/downloads/ab/VT-1/VT-1.pkg", "https://a-b.example/x.smd",
        "http://h.example:80/x", "https://h.example:443/x", "http://h.example:080/x",
        "http://127.1/x", "http://0x7f.0.0.1/x", "http://cafe.de/x", "http://010.0.0.1/x",
        "http://Upper.example/x", "http://h.example/a/./b", "http://h.example/a/../b",
        "http://h.example//b", "http://h.example/b/..", "http://h.example./x"}) {
    std::optional<Url> parsed = Url::parse(text);
    std::optional<Url> reference = Url::parseWithLibcurl(text);
    ASSERT_TRUE(parsed && reference) << text;
    EXPECT_EQ(parsed->host(), reference->host()) << text;
    EXPECT_EQ(parsed->port(), reference->port()) << text;
    EXPECT_EQ(parsed->encodedPath(), reference->encodedPath()) << text;
    EXPECT_EQ(parsed->path(), reference->path()) << text;
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
                          "2016-09-20T24:00:00Z", " 2016-09-20T17:00:00Z", "",
                          "9999-12-31T23:59:59Z", "1677-01-01T00:00:00Z", "0000-01-01T00:00:00Z"}) {
    EXPECT_FALSE(parseRfc3339Date(bad)) << bad;
  }
  for (const char* bad :
       {"2016-09-20 17:00:00", "2016-09-20 17:00:00 GMT", "2016-09-20 17:00:00 +00:00",
        "2016-09-20T17:00:00 +0000", "9999-12-31 23:59:59 +0000", "2262-04-12 00:00:00 +0000"}) {
    EXPECT_FALSE(parseArchiveDate(bad)) << bad;
  }
  EXPECT_TRUE(parseRfc3339Date("2261-12-31T23:59:59Z"));
  EXPECT_FALSE(Plist::fromBytes("<plist><date>9999-12-31T23:59:59Z</date></plist>", nullptr));

  // HTTP dates: the three forms HTTP allows, each in full, and nothing else.
  for (const char* same : {"Sun, 06 Nov 1994 08:49:37 GMT", "Sunday, 06-Nov-94 08:49:37 GMT",
                           "Sun Nov  6 08:49:37 1994"}) {
    EXPECT_EQ(parseHttpDate(same), 784111777) << same;
  }
  for (const char* bad : {"Sun, 06 Nov 1994 08:49:37 GMT garbage", "Sun, 06 Nov 1994 08:49:37 GMT ",
                          "Sun, 06 Nov 1994 08:49:37", "Sun, 31 Feb 1994 08:49:37 GMT",
                          "Sun, 6 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 25:49:37 GMT",
                          "Sun Nov 6 08:49:37 1994", "", "0"}) {
    EXPECT_FALSE(parseHttpDate(bad)) << bad;
  }
  // If-None-Match compares weakly, in lists, and a broken field names nothing.
  for (const char* names : {"\"x\"", "W/\"x\"", "*", "\"a\", \"x\"", " \"a\" ,,W/\"x\" "}) {
    EXPECT_TRUE(ifNoneMatchNames(names, "\"x\"")) << names;
  }
  for (const char* other :
       {"\"y\"", "x", "\"x", "\"x\" garbage", "\"a\" \"x\"", "", "w/\"x\"", "\"x\"\x01"}) {
    EXPECT_FALSE(ifNoneMatchNames(other, "\"x\"")) << other;
  }
  ::setenv("TZ", "America/New_York", 1);
  tzset();
  EXPECT_EQ(formatArchiveDate(*utc), "2016-09-20 13:00:00 -0400");
  ::unsetenv("TZ");
  tzset();
}

TEST_F(PlatformTest, OnlyRegularFilesWithinTheLimitAreRead) {
  const std::string fifo = path("/request.fifo");
  const std::string zero = path("/zero.plist");
  const std::string large = path("/large.plist");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(::symlink("/dev/zero", zero.c_str()), 0);
  writeFile(large, std::string(kSmallFileReadLimit + 1, ' '));
  std::string contents;
  std::string error;
  for (const std::string& unreadable : {fifo, zero, path("/")}) {
    EXPECT_FALSE(readWholeFile(unreadable, &contents, &error)) << unreadable;
    EXPECT_FALSE(Plist::readFile(unreadable, nullptr)) << unreadable;
  }
  EXPECT_FALSE(readWholeFile(large, &contents, &error, kSmallFileReadLimit));
  EXPECT_EQ(error, fmt::format("file larger than {} bytes", kSmallFileReadLimit));
  EXPECT_TRUE(readWholeFile(large, &contents, &error));
}

TEST_F(PlatformTest, PathsResolveAsRealpathResolvesThem) {
  writeFile(path("/real/sub/file"), "x");
  std::filesystem::create_directory_symlink(path("/real"), path("/link"));
  std::filesystem::create_directory_symlink("../real", path("/real/up"));
  std::filesystem::create_symlink("nowhere", path("/dangling"));
  for (const char* item : {"/real/sub", "/link/sub", "/link/sub/file", "/real/up/up/sub/../sub",
                           "/link/./sub/", "/dangling", "/missing/x", "/real/sub/file/x"}) {
    char* expected = ::realpath(path(item).c_str(), nullptr);
    std::optional<std::string> resolved = resolvedPath(path(item));
    EXPECT_EQ(resolved, expected ? std::optional<std::string>(expected) : std::nullopt) << item;
    std::free(expected);
  }
}

// Decodes a whole gzip or brotli stream; a marker when it is not one.
std::string decoded(const std::string& bytes, Encoding encoding) {
  std::string out(std::size_t{1} << 20, '\0');
  std::size_t size = out.size();
  bool whole = false;
  if (encoding == Encoding::Brotli) {
    whole = BrotliDecoderDecompress(
                bytes.size(), reinterpret_cast<const std::uint8_t*>(bytes.data()), &size,
                reinterpret_cast<std::uint8_t*>(out.data())) == BROTLI_DECODER_RESULT_SUCCESS;
  } else {
    z_stream stream{};
    inflateInit2(&stream, 15 + 16);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    whole = inflate(&stream, Z_FINISH) == Z_STREAM_END;
    size = stream.total_out;
    inflateEnd(&stream);
  }
  out.resize(size);
  return whole ? out : "(not a whole stream)";
}

TEST_F(PlatformTest, CompressedFormsFollowTheirFileAndOnlyTheirFile) {
  const std::string file = path("/catalog.ktcatalog");
  std::string text;
  for (int i = 0; i < 20000; ++i) text += "<key>VT-" + std::to_string(i) + "</key>\n";
  for (Encoding encoding : kCompressedEncodings) {
    const std::string form = compressedFormPath(file, encoding);
    writeFile(file, text);
    bool written = false;
    std::string error;
    ASSERT_TRUE(keepCompressedForm(file, encoding, &written, &error)) << error;
    EXPECT_TRUE(written);
    EXPECT_EQ(decoded(readFile(form), encoding), text);
    EXPECT_LT(readFile(form).size() * 5, text.size());
    auto made = fileIdentity(form);
    ASSERT_TRUE(keepCompressedForm(file, encoding, &written, &error));
    EXPECT_FALSE(written) << "made from these very bytes: left as it is";
    EXPECT_EQ(fileIdentity(form), made);

    writeFile(file, "changed");
    ASSERT_TRUE(keepCompressedForm(file, encoding, &written, &error));
    EXPECT_TRUE(written);
    EXPECT_EQ(decoded(readFile(form), encoding), "changed");
    // A link (or nothing) at the file's place: no compressed form at all, not a stale one.
    std::filesystem::remove(file);
    std::filesystem::create_symlink("/etc/passwd", file);
    EXPECT_FALSE(keepCompressedForm(file, encoding, &written, &error));
    EXPECT_FALSE(std::filesystem::exists(form));
    std::filesystem::remove(file);
  }
}

TEST_F(PlatformTest, ProductIdsThatCouldNameAnotherFolderAreRefused) {
  for (const char* good : {"041-1234", "zzzz041-1234", "VT.Update_10.12-6", "a"}) {
    EXPECT_TRUE(isValidProductId(good)) << good;
  }
  for (const std::string& bad :
       {std::string(""), std::string("../x"), std::string("a/b"), std::string(".hidden"),
        std::string("-x"), std::string("a b"), std::string("a\nb"), std::string(129, 'a')}) {
    EXPECT_FALSE(isValidProductId(bad)) << bad;
  }
  EXPECT_TRUE(isValidProductId(std::string(128, 'a')));
}

TEST_F(PlatformTest, TaskRunnerReportsExitStatusAndFindsMovedCommands) {
  EXPECT_EQ(TaskRunner::run("/bin/sh", {"-c", "exit 3"}), 3);
  EXPECT_EQ(TaskRunner::run("/no/such/folder/true", {}), 0) << "falls back to PATH";
  EXPECT_EQ(TaskRunner::run("/no/such/command-ondrel", {}), -1);
  writeFile(path("/marker"), "x");
  EXPECT_EQ(TaskRunner::run("/usr/sbin/chown", {"-R", "_ondrel:_ondrel", path("/marker")}), 0);
}

TEST_F(PlatformTest, APipelinedDigestIsTheDigestOfEveryByteInOrder) {
  // Pieces of every size around the blocks handed to the hashing thread, past the part hashed
  // here, and a body that continues a part hashed before.
  std::string body;
  for (std::size_t i = 0; body.size() < (3u << 20) + 5; ++i)
    body += static_cast<char>(i * 7919 >> 3);
  Sha256 whole;
  whole.add(body);
  std::string expected = whole.hexDigest();
  auto addInPieces = [&body](Sha256Pipeline& pipeline, std::size_t from) {
    const std::size_t pieces[] = {1, 16384, 131071, 131072, 300001};
    for (std::size_t i = 0; from < body.size(); ++i) {
      std::string_view piece = std::string_view(body).substr(from, pieces[i % std::size(pieces)]);
      pipeline.add(piece);
      from += piece.size();
    }
  };
  Sha256Pipeline pipeline;
  addInPieces(pipeline, 0);
  EXPECT_EQ(pipeline.hexDigest(), expected);
  Sha256 firstPart;
  firstPart.add(std::string_view(body).substr(0, 1000));
  Sha256Pipeline continued(std::move(firstPart));
  addInPieces(continued, 1000);
  EXPECT_EQ(continued.hexDigest(), expected);
  // It starts afresh, and one dropped while the thread hashes ends at once.
  pipeline.add("abc");
  EXPECT_EQ(pipeline.hexDigest(),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  Sha256Pipeline dropped;
  dropped.add(body);
  dropped.add(body);
}

}  // namespace
}  // namespace ondrel
