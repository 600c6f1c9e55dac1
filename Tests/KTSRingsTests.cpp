// Rings by client address: blocks as administrators write them, the first ring whose block holds
// a client, a stable and even spread of the others over the shares, and preferences that are not
// rings left out.
#include "Json.h"
#include "KTSRings.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

KTSRings::Address address(const std::string& text) {
  std::optional<KTSRings::Address> parsed = KTSRings::parseAddress(text);
  EXPECT_TRUE(parsed) << text;
  return parsed.value_or(KTSRings::Address{});
}

KTSRings::Ring ring(const std::string& name, const std::vector<std::string>& blocks, int share) {
  KTSRings::Ring made{name, {}, 3600, share};
  for (const std::string& block : blocks) made.blocks.push_back(*KTSRings::parseBlock(block));
  return made;
}

TEST(KTSRingsTest, BlocksAreTakenAsWrittenAndHoldOnlyTheirAddresses) {
  for (const char* text : {"10.0.0.0/8", "127.0.0.2/32", "2001:db8::/32", "::1/128", "0.0.0.0/0"}) {
    std::optional<KTSRings::Block> block = KTSRings::parseBlock(text);
    ASSERT_TRUE(block) << text;
    EXPECT_EQ(KTSRings::blockText(*block), text);
  }
  EXPECT_EQ(KTSRings::blockText(*KTSRings::parseBlock("[fd00::7]")), "fd00::7/128");
  for (const char* refused : {"10.0.0.1/8", "10.0.0.0/33", "::/129", "10.0.0.0/", "10.0.0.0/-1",
                              "10.0.0/8", "fd00::/8x", "example.org/24", "", "/8", "1.2.3.4 /32"}) {
    EXPECT_FALSE(KTSRings::parseBlock(refused)) << refused;
  }
  KTSRings::Block lab = *KTSRings::parseBlock("192.168.4.0/22");
  EXPECT_TRUE(KTSRings::contains(lab, address("192.168.7.255")));
  EXPECT_FALSE(KTSRings::contains(lab, address("192.168.8.0")));
  EXPECT_FALSE(KTSRings::contains(lab, address("::c0a8:401"))) << "an IPv6 address is not IPv4";
  EXPECT_TRUE(KTSRings::contains(*KTSRings::parseBlock("0.0.0.0/0"), address("8.8.8.8")));
  EXPECT_FALSE(KTSRings::contains(*KTSRings::parseBlock("0.0.0.0/0"), address("::1")));
  EXPECT_TRUE(
      KTSRings::contains(*KTSRings::parseBlock("2001:db8::/33"), address("2001:db8:7fff::1")));
  EXPECT_FALSE(
      KTSRings::contains(*KTSRings::parseBlock("2001:db8::/33"), address("2001:db8:8000::")));
}

TEST(KTSRingsTest, AClientIsInTheFirstRingThatNamesItElseWhereItsAddressHashes) {
  KTSRings rings;
  EXPECT_FALSE(rings.ringOf(address("127.0.0.2"))) << "no rings, no rollout";
  std::string why;
  ASSERT_TRUE(rings.set(ring("pilot", {"127.0.0.2/32", "::1"}, 10), std::nullopt, &why)) << why;
  ASSERT_TRUE(rings.set(ring("early", {"127.0.0.0/24"}, 30), std::nullopt, &why)) << why;
  ASSERT_TRUE(rings.set(ring("broad", {}, 0), std::nullopt, &why)) << why;
  EXPECT_EQ(rings.ringOf(address("127.0.0.2")), 0u) << "the first ring that names it";
  EXPECT_EQ(rings.ringOf(address("[::1]")), 0u);
  EXPECT_EQ(rings.ringOf(address("127.0.0.3")), 1u);

  // 10,000 other clients: 10 % and 30 % of them by their hash, the rest in the last ring, each
  // count within 5 % of its share; the same client always in the same ring.
  std::vector<int> counts(3);
  for (int i = 0; i < 10'000; ++i) {
    KTSRings::Address client =
        address(fmt::format("10.{}.{}.{}", i / 65536, i / 256 % 256, i % 256));
    std::optional<std::size_t> placed = rings.ringOf(client);
    ASSERT_TRUE(placed);
    ASSERT_EQ(rings.ringOf(client), placed);
    ++counts[*placed];
  }
  EXPECT_NEAR(counts[0], 1'000, 50) << counts[0];
  EXPECT_NEAR(counts[1], 3'000, 150) << counts[1];
  EXPECT_NEAR(counts[2], 6'000, 300) << counts[2];
}

TEST(KTSRingsTest, OnlyRingsAreKeptAndTheyReadBackAsWritten) {
  KTSRings rings;
  std::string why;
  ASSERT_TRUE(rings.set(ring("pilot", {"10.1.0.0/16"}, 60), std::nullopt, &why));
  EXPECT_FALSE(rings.set(ring("broad", {}, 41), std::nullopt, &why)) << "shares past 100 %";
  EXPECT_NE(why.find("60 % are taken"), std::string::npos) << why;
  for (const std::string& name :
       std::vector<std::string>{"Pilot", "1st", "", "a b", std::string(33, 'a')}) {
    EXPECT_FALSE(rings.set(ring(name, {}, 0), std::nullopt, &why)) << name;
  }
  ASSERT_TRUE(rings.set(ring("early", {}, 40), 0, &why)) << why;
  ASSERT_TRUE(rings.set(ring("pilot", {"10.2.0.0/16"}, 10), std::nullopt, &why)) << "replaced";
  ASSERT_EQ(rings.rings().size(), 2u);
  EXPECT_EQ(rings.rings()[0].name, "early");
  EXPECT_EQ(KTSRings::blockText(rings.find("pilot")->blocks[0]), "10.2.0.0/16");

  Plist preferences = Plist::dictionary();
  Plist stored = rings.asPlist();
  stored.append(Plist("not a ring"));
  Plist hostile = Plist::dictionary();
  hostile.set("name", "greedy");
  hostile.set("share", Plist::integer(1'000'000'000'000));
  stored.append(hostile);
  preferences.set("rings", stored);
  KTSRings read = KTSRings::fromPreferences(preferences);
  EXPECT_EQ(toJson(read.asPlist()), toJson(rings.asPlist()));
  EXPECT_TRUE(read.remove("pilot"));
  EXPECT_FALSE(read.remove("pilot"));
  EXPECT_TRUE(KTSRings::fromPreferences(Plist::dictionary()).empty());
}

}  // namespace
}  // namespace ondrel
