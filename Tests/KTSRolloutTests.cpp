// A product's way through the rings: each ring at its delay after the enable, held where it has
// reached, advanced, rolled back to one ring and opened to all, as the clock moves; the record of
// who did what; and a record that is not one.
#include "KTSRollout.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using namespace std::chrono_literals;

class KTSRolloutTest : public test::OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    std::string why;
    for (auto [name, delay] : {std::pair{"pilot", 0h}, {"early", 48h}, {"broad", 120h}}) {
      ASSERT_TRUE(
          rings_.set({name, {}, std::chrono::seconds(delay).count(), 0}, std::nullopt, &why))
          << why;
    }
  }

  // The rings productId reaches at when, as "pilot,early".
  std::string reached(const KTSRollout& rollout, const std::string& productId, Date when) {
    std::string names;
    for (std::size_t ring = 0; ring < rings_.rings().size(); ++ring) {
      if (!rollout.reaches(productId, ring, rings_, when)) continue;
      names += (names.empty() ? "" : ",") + rings_.rings()[ring].name;
    }
    return names;
  }

  KTSRings rings_;
};

TEST_F(KTSRolloutTest, EachRingOpensAtItsDelayUnlessTheAdministratorSaysOtherwise) {
  const std::string path = KTSRollout::defaultPath(context().layout());
  const Date enabled = clock_->now();
  KTSRollout rollout(path);
  rollout.productEnabled("VT-1", enabled);
  rollout.productEnabled("VT-1", enabled + 1h);  // enabled again: the first time stands
  EXPECT_EQ(reached(rollout, "VT-1", enabled), "pilot");
  EXPECT_EQ(reached(rollout, "VT-1", enabled + 48h), "pilot,early");
  EXPECT_EQ(reached(rollout, "VT-1", enabled + 120h), "pilot,early,broad");
  EXPECT_EQ(rollout.nextOpening(rings_, enabled + 1h), enabled + 48h);
  EXPECT_EQ(rollout.nextOpeningOf("VT-1", rings_, enabled + 1h)->ring, 1u);
  EXPECT_EQ(reached(rollout, "VT-2", enabled), "pilot,early,broad") << "no schedule: open to all";

  std::string why;
  ASSERT_TRUE(
      rollout.apply("VT-1", KTSRollout::Action::Hold, "", rings_, enabled + 24h, "ana", &why));
  EXPECT_EQ(reached(rollout, "VT-1", enabled + 200h), "pilot") << "held where it had reached";
  EXPECT_FALSE(rollout.nextOpening(rings_, enabled + 24h));
  ASSERT_TRUE(
      rollout.apply("VT-1", KTSRollout::Action::Resume, "", rings_, enabled + 72h, "ana", &why));
  EXPECT_EQ(reached(rollout, "VT-1", enabled + 72h), "pilot,early") << "what came due opens";
  ASSERT_TRUE(
      rollout.apply("VT-1", KTSRollout::Action::Advance, "", rings_, enabled + 72h, "bo", &why));
  EXPECT_EQ(reached(rollout, "VT-1", enabled + 72h), "pilot,early,broad") << "the next ring now";
  ASSERT_TRUE(rollout.apply("VT-1", KTSRollout::Action::RollBack, "pilot", rings_, enabled + 73h,
                            "bo", &why));
  EXPECT_EQ(reached(rollout, "VT-1", enabled + 500h), "pilot");
  ASSERT_TRUE(
      rollout.apply("VT-1", KTSRollout::Action::OpenToAll, "", rings_, enabled + 74h, "cy", &why));
  EXPECT_EQ(reached(rollout, "VT-1", enabled + 74h), "pilot,early,broad");

  EXPECT_FALSE(
      rollout.apply("VT-1", KTSRollout::Action::RollBack, "nowhere", rings_, enabled, "cy", &why));
  EXPECT_NE(why.find("no ring nowhere"), std::string::npos) << why;
  EXPECT_FALSE(rollout.apply("VT-2", KTSRollout::Action::Hold, "", rings_, enabled, "cy", &why));
  EXPECT_FALSE(
      rollout.apply("VT-1", KTSRollout::Action::Hold, "", KTSRings(), enabled, "cy", &why));

  // Who did what, kept with the schedules; a disabled product leaves the rollout.
  ASSERT_TRUE(rollout.save());
  KTSRollout read(path);
  ASSERT_EQ(read.events().size(), 5u);
  EXPECT_EQ(read.events()[2].action, "advance to broad");
  EXPECT_EQ(read.events()[2].requester, "bo");
  EXPECT_EQ(reached(read, "VT-1", enabled), "pilot,early,broad");
  read.follow({}, {}, {}, enabled + 500h);
  EXPECT_EQ(read.scheduleOf("VT-1"), nullptr);
}

TEST_F(KTSRolloutTest, ARecordThatIsNotOneIsLeftOut) {
  const std::string path = KTSRollout::defaultPath(context().layout());
  writeFile(path,
            "<plist><dict><key>schedules</key><dict>"
            "<key>../../etc</key><dict><key>enabled</key><date>2026-01-01T00:00:00Z</date></dict>"
            "<key>VT-3</key><dict><key>enabled</key><string>soon</string></dict>"
            "<key>VT-4</key><dict><key>enabled</key><date>2026-01-01T00:00:00Z</date>"
            "<key>advancedTo</key><integer>99999</integer>"
            "<key>rolledBackTo</key><string>../x</string></dict>"
            "</dict><key>events</key><array><string>x</string></array></dict></plist>");
  KTSRollout read(path);
  EXPECT_EQ(read.scheduleOf("../../etc"), nullptr);
  EXPECT_EQ(read.scheduleOf("VT-3"), nullptr);
  ASSERT_NE(read.scheduleOf("VT-4"), nullptr);
  EXPECT_FALSE(read.scheduleOf("VT-4")->advancedTo);
  EXPECT_FALSE(read.scheduleOf("VT-4")->rolledBackTo);
  EXPECT_TRUE(read.events().empty());
  writeFile(path, std::string(100, '\0'));
  EXPECT_EQ(KTSRollout(path).scheduleOf("VT-4"), nullptr);
}

}  // namespace
}  // namespace ondrel
