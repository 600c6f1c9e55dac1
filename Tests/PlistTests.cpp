#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "DateFormats.h"
#include "OndrelTest.h"
#include "Plist.h"

namespace ondrel {
namespace {

using test::OndrelTest;

class PlistTest : public OndrelTest {};

Plist sampleDocument() {
  Plist document = Plist::dictionary();
  document.set("text", "a < b & c > d \"quoted\" 'single' \xC3\xA9t\xC3\xA9");
  document.set("empty", "");
  document.set("integer", Plist::integer(-42));
  document.set("large", Plist::integer(9007199254740993));
  document.set("real", Plist::real(0.1));
  document.set("yes", Plist::boolean(true));
  document.set("no", Plist::boolean(false));
  document.set("when", Plist::date(*parseRfc3339Date("2016-09-20T17:00:00Z")));
  document.set("bytes", Plist::data({0, 1, 2, 253, 254, 255, 10}));
  document.set("list", Plist::stringArray({"x", "y"}));
  document.set("nothing", Plist::array());
  document.set("nested", Plist::dictionary());
  return document;
}

TEST_F(PlistTest, XmlRoundTripKeepsEveryKindOfValue) {
  Plist document = sampleDocument();
  std::string error;
  std::optional<Plist> read = Plist::fromBytes(document.toXml(), &error);
  ASSERT_TRUE(read) << error;
  EXPECT_EQ(*read, document);
  EXPECT_EQ((*read)["text"].stringValue(), document["text"].stringValue());
  EXPECT_EQ((*read)["bytes"].dataValue(), document["bytes"].dataValue());
  EXPECT_EQ((*read)["large"].integerValue(), 9007199254740993);
  EXPECT_DOUBLE_EQ((*read)["real"].realValue(), 0.1);
  EXPECT_EQ((*read)["when"].dateValue(), document["when"].dateValue());
}

TEST_F(PlistTest, ReadsDocumentsWrittenByOtherTools) {
  const std::string xml =
      "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//X//DTD PLIST 1.0//EN\" \"http://example.invalid/x.dtd\">\n"
      "<!-- written by hand -->\n<plist version=\"1.0\"><dict>\n"
      "  <key>b</key><string><![CDATA[<raw> & text]]></string>\n"
      "  <key>a</key><integer> 0x1F </integer>\n"
      "  <key>c</key><string>&#233;&#x263A;&lt;&amp;</string>\n"
      "  <key>d</key><array><true/><false></false><string/><real>-1.5e3</real></array>\n"
      "  <key>e</key><data>AAEC\n  /f7/</data>\n"
      "  <key>a</key><integer>7</integer>\n"
      "</dict></plist>";
  std::string error;
  std::optional<Plist> read = Plist::fromBytes(xml, &error);
  ASSERT_TRUE(read) << error;
  EXPECT_EQ((*read)["b"].stringValue(), "<raw> & text");
  EXPECT_EQ((*read)["a"].integerValue(), 7) << "a repeated key keeps its last value";
  EXPECT_EQ((*read)["c"].stringValue(), "\xC3\xA9\xE2\x98\xBA<&");
  EXPECT_EQ((*read)["d"].size(), 4u);
  EXPECT_TRUE((*read)["d"][0].boolValue());
  EXPECT_FALSE((*read)["d"][1].boolValue());
  EXPECT_DOUBLE_EQ((*read)["d"][3].realValue(), -1500);
  EXPECT_EQ((*read)["e"].dataValue(), (Plist::Bytes{0, 1, 2, 253, 254, 255}));
}

TEST_F(PlistTest, BinaryPropertyListsAreRead) {
  // A binary property list for {"name": "ondrel", "count": 3, "flag": true}, made by a
  // conventional writer.
  const unsigned char binary[] = {
      0x62, 0x70, 0x6c, 0x69, 0x73, 0x74, 0x30, 0x30, 0xd3, 0x01, 0x02, 0x03, 0x04, 0x05,
      0x06, 0x55, 0x63, 0x6f, 0x75, 0x6e, 0x74, 0x54, 0x66, 0x6c, 0x61, 0x67, 0x54, 0x6e,
      0x61, 0x6d, 0x65, 0x10, 0x03, 0x09, 0x56, 0x6f, 0x6e, 0x64, 0x72, 0x65, 0x6c, 0x08,
      0x0f, 0x15, 0x1a, 0x1f, 0x21, 0x22, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x01,
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x29};
  std::string error;
  std::optional<Plist> read = Plist::fromBytes(
      std::string_view(reinterpret_cast<const char*>(binary), sizeof binary), &error);
  ASSERT_TRUE(read) << error;
  EXPECT_EQ((*read)["name"].stringValue(), "ondrel");
  EXPECT_EQ((*read)["count"].integerValue(), 3);
  EXPECT_TRUE((*read)["flag"].boolValue());
}

TEST_F(PlistTest, MalformedDocumentsAreRejectedWithAReason) {
  const std::vector<std::string> broken = {
      "",
      "not xml at all",
      "<plist><dict><key>a</key></dict></plist>",
      "<plist><dict><string>no key</string></dict></plist>",
      "<plist><dict><key>a</key><string>unterminated</dict></plist>",
      "<plist><integer>12x</integer></plist>",
      "<plist><integer></integer></plist>",
      "<plist><real>1.5.5</real></plist>",
      "<plist><date>2016-09-20 17:00:00</date></plist>",
      "<plist><data>!!</data></plist>",
      "<plist><string>&bogus;</string></plist>",
      "<plist><string>&#xD800;</string></plist>",
      "<plist><blob/></plist>",
      "<plist/>",
      "<plist><string>a</string><string>b</string></plist>",
      "<plist><string>a</string></plist>trailing",
      "bplist00garbage",
      std::string(2000, '<'),
  };
  for (const std::string& text : broken) {
    std::string error;
    EXPECT_FALSE(Plist::fromBytes(text, &error)) << text;
    EXPECT_FALSE(error.empty()) << text;
  }
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<array>";
  std::string error;
  EXPECT_FALSE(Plist::fromBytes("<plist>" + deep, &error));
  EXPECT_NE(error.find("nested too deeply"), std::string::npos);
}

TEST_F(PlistTest, CopiesShareStorageUntilOneIsChanged) {
  Plist catalog = Plist::dictionary();
  Plist products = Plist::dictionary();
  for (int i = 0; i < 100; ++i) {
    Plist product = Plist::dictionary();
    product.set("URL", fmt::format("http://host/{}", i));
    products.set(fmt::format("p{}", i), product);
  }
  catalog.set("Products", products);

  Plist copy = catalog;
  EXPECT_TRUE(copy.sharesStorageWith(catalog));
  copy.mutableValue("Products").mutableValue("p7").set("URL", "changed");

  EXPECT_FALSE(copy.sharesStorageWith(catalog));
  EXPECT_EQ(catalog["Products"]["p7"]["URL"].stringValue(), "http://host/7");
  EXPECT_EQ(copy["Products"]["p7"]["URL"].stringValue(), "changed");
  int shared = 0;
  for (const auto& [id, product] : copy["Products"].items()) {
    if (product.sharesStorageWith(catalog["Products"][id])) ++shared;
  }
  EXPECT_EQ(shared, 99);
}

TEST_F(PlistTest, CoercionsFollowTheConventionalRules) {
  EXPECT_TRUE(Plist("YES").boolValue());
  EXPECT_TRUE(Plist("  +007").boolValue());
  EXPECT_FALSE(Plist("NO").boolValue());
  EXPECT_FALSE(Plist("Mirrored").boolValue());
  EXPECT_FALSE(Plist("000").boolValue());
  EXPECT_TRUE(Plist::integer(-1).boolValue());

  EXPECT_EQ(Plist(" -12abc").integerValue(), -12);
  EXPECT_EQ(Plist::real(3.9).integerValue(), 3);
  EXPECT_EQ(Plist("99999999999999999999").integerValue(), INT64_MAX);

  EXPECT_EQ(Plist::integer(1), Plist::boolean(true)) << "numbers compare by value";
  EXPECT_EQ(Plist::integer(2), Plist::real(2.0));
  EXPECT_NE(Plist("1"), Plist::integer(1));
  EXPECT_TRUE(Plist()["missing"].isNull());
}

TEST_F(PlistTest, DescriptionIsTheMessageForm) {
  EXPECT_EQ(Plist("plain text").description(), "plain text");
  EXPECT_EQ(Plist::integer(8088).description(), "8088");
  EXPECT_EQ(Plist::boolean(true).description(), "1");
  EXPECT_EQ(Plist().description(), "(null)");
  EXPECT_EQ(Plist::date(*parseRfc3339Date("2016-09-20T17:00:00Z")).description(),
            "2016-09-20 17:00:00 +0000");
  Plist dictionary = Plist::dictionary();
  dictionary.set("key", "two words");
  dictionary.set("list", Plist::stringArray({"a"}));
  EXPECT_EQ(dictionary.description(),
            "{\n    key = \"two words\";\n    list = (\n        a\n    );\n}");
}

TEST_F(PlistTest, AtomicWritesAreNeverSeenHalfDone) {
  const std::string file = path("/doc.plist");
  auto documentOfSize = [](int count) {
    Plist document = Plist::dictionary();
    for (int i = 0; i < count; ++i) document.set(fmt::format("key{:05}", i), std::string(64, 'v'));
    return document;
  };
  const Plist small = documentOfSize(10);
  const Plist large = documentOfSize(5000);
  ASSERT_TRUE(small.writeXmlFile(file, nullptr));

  std::atomic<bool> done{false};
  std::atomic<int> reads{0};
  std::atomic<int> torn{0};
  std::thread reader([&] {
    while (!done) {
      std::optional<Plist> read = Plist::readFile(file, nullptr);
      if (!read || (read->size() != 10 && read->size() != 5000)) ++torn;
      ++reads;
    }
  });
  for (int i = 0; i < 40; ++i) ASSERT_TRUE((i % 2 ? small : large).writeXmlFile(file, nullptr));
  done = true;
  reader.join();
  EXPECT_GT(reads.load(), 0);
  EXPECT_EQ(torn.load(), 0);
}

TEST_F(PlistTest, AWriterKilledMidwayLeavesTheOldFile) {
  const std::string file = path("/doc.plist");
  Plist original = Plist::dictionary();
  original.set("generation", "old");
  ASSERT_TRUE(original.writeXmlFile(file, nullptr));

  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Plist huge = Plist::dictionary();
    for (int i = 0; i < 400000; ++i) huge.set(std::to_string(i), std::string(200, 'x'));
    for (;;) huge.writeXmlFile(file, nullptr);
  }
  // Kill it while a temporary file shows that a write is under way.
  bool writing = false;
  for (int i = 0; i < 2000 && !writing; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(root_)) {
      if (entry.path().filename().string().rfind(".ondrel-write-doc.plist.", 0) == 0)
        writing = true;
    }
    if (!writing) usleep(5000);
  }
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);

  ASSERT_TRUE(writing) << "the writer never started";
  std::optional<Plist> read = Plist::readFile(file, nullptr);
  ASSERT_TRUE(read) << "the file must hold one whole document";
  EXPECT_TRUE((*read)["generation"].stringValue() == "old" || read->size() == 400000);
}

}  // namespace
}  // namespace ondrel
