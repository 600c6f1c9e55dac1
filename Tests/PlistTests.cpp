#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <map>
#include <random>
#include <thread>

#include "DateFormats.h"
#include "OndrelTest.h"
#include "Plist.h"
#include "PlistXmlArrayFile.h"

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

  // An array written from the texts of its elements, one by one, is the very document of the
  // whole array; nothing is in place until it is finished.
  Plist array = Plist::array();
  for (int i = 0; i < 3; ++i) array.append(i == 1 ? Plist::array() : document);
  const std::string file = path("/streamed.plist");
  {
    PlistXmlArrayFile fromTexts(file);
    std::string text;
    for (const Plist& element : array.elements()) {
      PlistXmlArrayFile::elementText(element, &text);
      fromTexts.appendText(text);
    }
    EXPECT_FALSE(std::filesystem::exists(file));
    ASSERT_TRUE(fromTexts.finish(true, nullptr));
  }
  EXPECT_EQ(readFile(file), array.toXml());
  ASSERT_TRUE(PlistXmlArrayFile(file).finish(false, nullptr));
  EXPECT_EQ(readFile(file), Plist::array().toXml());
  // One whose folder is gone fails with the reason and leaves nothing behind.
  error.clear();
  EXPECT_FALSE(PlistXmlArrayFile(path("/gone/streamed.plist")).finish(false, &error));
  EXPECT_FALSE(error.empty());

  // So is a dictionary with one member's entries written one by one, wherever its key falls
  // and whether or not the dictionary held it; keys that do not ascend fail the write.
  std::vector<std::pair<PlistKey, Plist>> entries = {{"one", document}, {"two", array}};
  for (std::size_t given : {std::size_t{0}, entries.size()}) {
    for (const char* key : {"a", "list", "m", "zz"}) {
      std::size_t at = 0;
      auto nextEntry = [&]() -> std::optional<std::pair<PlistKey, Plist>> {
        if (at == given) return std::nullopt;
        return entries[at++];
      };
      Plist whole = document;
      whole.set(key,
                Plist(Plist::Dictionary::fromEntries({entries.begin(), entries.begin() + given})));
      bool replaced = false;
      ASSERT_TRUE(document.writeXmlFileStreamingMemberUnlessUnchanged(file, key, nextEntry,
                                                                      &replaced, nullptr));
      EXPECT_EQ(readFile(file), whole.toXml()) << key;
    }
  }
  std::vector<std::string> keys = {"b", "a"};
  auto descending = [&]() -> std::optional<std::pair<PlistKey, Plist>> {
    if (keys.empty()) return std::nullopt;
    std::pair<PlistKey, Plist> entry(keys.front(), document);
    keys.erase(keys.begin());
    return entry;
  };
  bool replaced = false;
  std::string before = readFile(file);
  EXPECT_FALSE(document.writeXmlFileStreamingMemberUnlessUnchanged(file, "list", descending,
                                                                   &replaced, nullptr));
  EXPECT_EQ(readFile(file), before);
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

// Runs python3 with script and the given file; the script's output when it exits 0.
std::optional<std::string> runPython(const std::string& script, const std::string& file) {
  std::string command = "python3 -c '" + script + "' '" + file + "' 2>&1";
  std::FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return std::nullopt;
  std::string output;
  char buffer[4096];
  while (std::size_t count = std::fread(buffer, 1, sizeof buffer, pipe))
    output.append(buffer, count);
  int status = ::pclose(pipe);
  if (status != 0) ADD_FAILURE() << output;
  return status == 0 ? std::optional(output) : std::nullopt;
}

TEST_F(PlistTest, RoundTripsHoldAgainstAnIndependentReader) {
  Plist document = Plist::dictionary();
  document.set("unsigned", Plist::unsignedInteger(18446744073709551615ull));
  document.set("nan", Plist::real(std::nan("")));
  document.set("infinity", Plist::real(-INFINITY));
  document.set("cr\r", "a\r\nb\tc");
  document.set("invalid", "x\xFFy\xC3");
  document.set("unwritable", std::string("\x01\x1F\xEF\xBF\xBE\xEF\xBF\xBF") + '\0');
  document.set("kept", "\xEF\xBF\xBD\xF0\x9F\x98\x80");
  // Markup, tab, line feed and UTF-8 within eight-byte words of plain text.
  document.set("long", std::string(100003, 'x') +
                           "<yyyyyyyyyyy&yyyyyyyyyyy>yyyyyyyyyy\tyyyyyy\nyyyyy\xC3\xA9" +
                           std::string(100000, 'y'));
  const std::string file = path("/round.plist");
  ASSERT_TRUE(document.writeXmlFile(file, nullptr));

  std::optional<Plist> ours = Plist::readFile(file, nullptr);
  ASSERT_TRUE(ours);
  EXPECT_EQ((*ours)["unsigned"], document["unsigned"]);
  EXPECT_EQ((*ours)["unsigned"].integerText(), "18446744073709551615");
  EXPECT_EQ((*ours)["nan"], document["nan"]);
  EXPECT_EQ((*ours)["cr\r"], document["cr\r"]);
  EXPECT_EQ((*ours)["long"], document["long"]);

  // What XML cannot carry comes back as U+FFFD, one per character or stray byte.
  const std::string check =
      "import plistlib, sys, math\n"
      "d = plistlib.load(open(sys.argv[1], \"rb\"))\n"
      "assert d[\"unsigned\"] == 18446744073709551615, d\n"
      "assert math.isnan(d[\"nan\"]) and d[\"infinity\"] == -math.inf, d\n"
      "assert d[\"cr\\r\"] == \"a\\r\\nb\\tc\", d\n"
      "assert d[\"invalid\"] == \"x\\ufffdy\\ufffd\", d\n"
      "assert d[\"unwritable\"] == \"\\ufffd\" * 5, d\n"
      "assert d[\"kept\"] == \"\\ufffd\\U0001F600\", d\n"
      "d[\"when\"] = __import__(\"datetime\").datetime(2016, 9, 20, 17, 0, 0)\n"
      "d[\"nested\"] = [{\"k\": b\"\\x00\\xff\", \"n\": -7, \"f\": 0.5, \"t\": True}] * 3\n"
      "del d[\"nan\"]\n"
      "plistlib.dump(d, open(sys.argv[1] + \".bin\", \"wb\"), fmt=plistlib.FMT_BINARY)\n";
  ASSERT_TRUE(runPython(check, file));

  // The same values, written by that other writer as a binary property list, read back.
  std::optional<Plist> binary = Plist::readFile(file + ".bin", nullptr);
  ASSERT_TRUE(binary);
  EXPECT_EQ((*binary)["unsigned"].integerText(), "18446744073709551615");
  EXPECT_EQ((*binary)["cr\r"], document["cr\r"]);
  EXPECT_EQ((*binary)["kept"], document["kept"]);
  EXPECT_EQ((*binary)["infinity"].realValue(), -INFINITY);
  EXPECT_EQ((*binary)["when"].dateValue(), parseRfc3339Date("2016-09-20T17:00:00Z"));
  const Plist& nested = (*binary)["nested"];
  ASSERT_EQ(nested.size(), 3u);
  EXPECT_EQ(nested[2]["k"].dataValue(), (Plist::Bytes{0, 255}));
  EXPECT_EQ(nested[2]["n"].integerValue(), -7);
  EXPECT_EQ(nested[2]["f"].realValue(), 0.5);
  EXPECT_TRUE(nested[2]["t"].boolValue());
}

// A binary property list of the given objects (marker and payload bytes each), with references
// and offsets of four bytes; object 0 is the top.
std::string binaryPlist(const std::vector<std::string>& objects) {
  std::string body = "bplist00";
  std::string table;
  for (const std::string& object : objects) {
    for (int shift = 24; shift >= 0; shift -= 8) table += static_cast<char>(body.size() >> shift);
    body += object;
  }
  std::size_t tableOffset = body.size();
  body += table;
  std::string trailer(32, '\0');
  trailer[6] = 4;
  trailer[7] = 4;
  for (int i = 0; i < 8; ++i) {
    trailer[8 + i] = static_cast<char>(static_cast<std::uint64_t>(objects.size()) >> (56 - 8 * i));
    trailer[24 + i] = static_cast<char>(static_cast<std::uint64_t>(tableOffset) >> (56 - 8 * i));
  }
  return body + trailer;
}

// An object of a binary list: its marker byte followed by four-byte references.
std::string object(char marker, std::initializer_list<std::uint32_t> references) {
  std::string bytes(1, marker);
  for (std::uint32_t index : references) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<char>(index >> shift));
  }
  return bytes;
}

TEST_F(PlistTest, HostileBinaryListsAreRefusedOrReadInLinearTime) {
  std::string error;
  // A dictionary whose only key is a UTF-16 string holding U+0000.
  std::string nulKey =
      binaryPlist({object('\xD1', {1, 2}), std::string("\x61\x00\x00", 3), "\x09"});
  EXPECT_FALSE(Plist::fromBytes(nulKey, &error));

  // 100,000 nested arrays (about 900 KB), and an array that holds itself.
  std::vector<std::string> nested;
  for (std::uint32_t i = 0; i < 100000; ++i) nested.push_back(object('\xA1', {i + 1}));
  nested.push_back("\x09");
  error.clear();
  EXPECT_FALSE(Plist::fromBytes(binaryPlist(nested), &error));
  EXPECT_NE(error.find("nested too deeply"), std::string::npos) << error;
  EXPECT_FALSE(Plist::fromBytes(binaryPlist({object('\xA1', {0})}), &error));

  // 60 levels of arrays that each hold the next one twice: 2^60 elements if expanded.
  std::vector<std::string> doubling;
  for (std::uint32_t i = 0; i < 60; ++i) {
    doubling.push_back(object('\xA2', {i + 1, i + 1}));
  }
  doubling.push_back("\x08");
  std::optional<Plist> shared = Plist::fromBytes(binaryPlist(doubling), &error);
  ASSERT_TRUE(shared) << error;
  EXPECT_TRUE((*shared)[0].sharesStorageWith((*shared)[1]));

  // Counts larger than the file, references and offsets out of range, dates past the Date range.
  for (const std::string& bad :
       {binaryPlist({"\xAF\x13\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF"}),
        binaryPlist({"\x5F\x13\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF"}),
        binaryPlist({object('\xA1', {9})}),
        binaryPlist({std::string("\x33\x7F\xEF\xFF\xFF\xFF\xFF\xFF\xFF", 9)}),
        binaryPlist({std::string("\x33\x42\x00\x00\x00\x00\x00\x00\x00", 9)}),
        std::string("bplist00") + std::string(32, '\xFF')}) {
    EXPECT_FALSE(Plist::fromBytes(bad, &error));
  }
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
  // What XML refuses, the reader refuses, naming the line: the writer would otherwise put
  // U+FFFD in its place and a round trip would change the data.
  for (const std::string& notXml :
       {std::string("<plist>\n<string>a\0b</string></plist>", 29),
        std::string("<plist>\n<string>\ta\x1F"
                    "b</string></plist>"),
        std::string("<plist>\n<string>a\xC3\x28"
                    "b</string></plist>"),
        std::string("<plist>\n<string>a\xEF\xBF\xBE"
                    "b</string></plist>"),
        std::string("<plist>\n<string>a&#1;b</string></plist>"),
        std::string("<plist>\n<string>a&#xFFFE;b</string></plist>"),
        std::string("<plist>\n<string>a&#x110000;b</string></plist>")}) {
    std::string error;
    EXPECT_FALSE(Plist::fromBytes(notXml, &error)) << notXml;
    EXPECT_NE(error.find("at line 2"), std::string::npos) << error;
  }
  std::optional<Plist> allowed =
      Plist::fromBytes("<plist><string>&#9;&#xD;&#x10FFFF;\xEF\xBF\xBD</string></plist>", nullptr);
  ASSERT_TRUE(allowed);
  EXPECT_EQ(Plist::fromBytes(allowed->toXml(), nullptr), allowed) << "comes back exactly";

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

  // Keys alike share one text, whether read from two documents or set by code; keys made,
  // copied and dropped on several threads at once keep their texts (the sanitizer build
  // watches the counting).
  std::optional<Plist> first = Plist::fromBytes(catalog.toXml(), nullptr);
  std::optional<Plist> second = Plist::fromBytes(catalog.toXml(), nullptr);
  ASSERT_TRUE(first && second);
  Plist made = Plist::dictionary();
  made.set("URL", "");
  const PlistKey& key = (*first)["Products"]["p7"].items().find("URL")->first;
  EXPECT_TRUE(key.sharesTextWith((*second)["Products"]["p3"].items().find("URL")->first));
  EXPECT_TRUE(key.sharesTextWith(made.items().begin()->first));
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&wrong] {
      for (int i = 0; i < 20000; ++i) {
        std::string text = fmt::format("shared key {}", i % 5);
        PlistKey own(text);
        PlistKey copy = own;
        if (copy.text() != text) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

// Every way of changing a dictionary, one key at a time and in bulk, against a sorted map.
TEST_F(PlistTest, DictionariesStaySortedAndUniqueHoweverTheyChange) {
  std::map<std::string, std::int64_t> model;
  Plist dictionary = Plist::dictionary();
  std::mt19937 random(7);
  auto key = [&] { return fmt::format("k{}", random() % 300); };
  for (int round = 0; round < 40; ++round) {
    std::vector<Plist::Dictionary::Entry> entries;
    std::vector<std::string> doomed;
    for (int i = 0; i < 25; ++i) {
      std::string name = key();
      std::int64_t value = round * 100 + i;
      switch (random() % 4) {
        case 0:
          dictionary.set(name, Plist::integer(value));
          model[name] = value;
          break;
        case 1:
          EXPECT_EQ(dictionary.remove(name), model.erase(name) == 1);
          break;
        case 2:
          entries.emplace_back(name, Plist::integer(value));
          break;
        default:
          doomed.push_back(name);
      }
    }
    Plist shared = dictionary;
    dictionary.setEntries(entries);
    for (const auto& [name, value] : entries) model[name] = value.integerValue();
    dictionary.removeKeys(doomed);
    for (const std::string& name : doomed) model.erase(name);
    ASSERT_EQ(dictionary.size(), model.size()) << "round " << round;
    auto expected = model.begin();
    for (const auto& [name, value] : dictionary.items()) {
      EXPECT_EQ(name, expected->first);
      EXPECT_EQ(value.integerValue(), expected->second);
      EXPECT_TRUE(dictionary.contains(name));
      ++expected;
    }
    if (!entries.empty() || !doomed.empty()) {
      EXPECT_FALSE(shared.sharesStorageWith(dictionary));
    }
  }
  // A document that names a key twice keeps the last value, as the bulk setter does.
  std::optional<Plist> read = Plist::fromBytes(
      "<plist><dict><key>b</key><integer>1</integer><key>a</key><integer>2</integer>"
      "<key>b</key><integer>3</integer></dict></plist>",
      nullptr);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->size(), 2u);
  EXPECT_EQ(read->items().begin()->first, "a");
  EXPECT_EQ((*read)["b"].integerValue(), 3);
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
  // Identical means written alike: what decides whether a file needs writing again.
  Plist nested = Plist::dictionary();
  nested.mutableValue("sizes").append(Plist::integer(2));
  Plist other = Plist::dictionary();
  other.mutableValue("sizes").append(Plist::real(2.0));
  EXPECT_EQ(nested, other);
  EXPECT_FALSE(nested.isIdenticalTo(other));
  EXPECT_TRUE(nested.isIdenticalTo(Plist::fromBytes(nested.toXml(), nullptr).value_or(Plist())));
  EXPECT_FALSE(Plist::real(0.0).isIdenticalTo(Plist::real(-0.0)));
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
    for (int i = 0; i < 400000; ++i) huge.set(fmt::format("{:06}", i), std::string(200, 'x'));
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
