#include <filesystem>

#include "KTSPassProgress.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;

class KTSPassProgressTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    file_ = path("/.pass_progress");
  }
  std::string file_;
};

// What the daemon publishes is what the administration side reads: the step, the counts, the
// speed and the time left, written at each step and at most once a second in between.
TEST_F(KTSPassProgressTest, ThePublishedProgressIsReadBackWithSpeedAndTimeLeft) {
  KTSPassProgress progress(file_);
  progress.passStarted();
  progress.catalogStarted(2, 8, "index.ktcatalog");
  std::optional<KTSPassProgress::State> loading = KTSPassProgress::read(file_);
  ASSERT_TRUE(loading);
  EXPECT_EQ(loading->summary(clock_->now()), "catalogs: 1 of 8 (index.ktcatalog)");

  progress.mirroringStarted(4, 40000000);
  progress.productMirrored(5000000);
  EXPECT_EQ(KTSPassProgress::read(file_)->bytesDone, 0u) << "not again within the second";
  clock_->advance(std::chrono::seconds(10));
  progress.productMirrored(5000000);
  std::optional<KTSPassProgress::State> mirroring = KTSPassProgress::read(file_);
  ASSERT_TRUE(mirroring);
  EXPECT_EQ(mirroring->productsDone, 2u);
  EXPECT_EQ(mirroring->summary(clock_->now()),
            "mirroring: 2 of 4 products, 10.0 MB of 40.0 MB, 1.0 MB/s, 30 s left");
  Plist shown = mirroring->asPlist(clock_->now());
  EXPECT_EQ(shown["secondsLeft"].integerValue(), 30);
  EXPECT_EQ(shown["catalogsDone"].integerValue(), 8);

  progress.passEnded();
  EXPECT_FALSE(std::filesystem::exists(file_));
  EXPECT_FALSE(KTSPassProgress::read(file_));
}

TEST_F(KTSPassProgressTest, AHostileFileIsNoProgressOrHarmless) {
  for (const std::string& hostile :
       {std::string("not a plist"), std::string("<plist><array/></plist>"),
        std::string("<plist><dict><key>step</key><string>x</string>"
                    "</dict></plist>")}) {
    writeFile(file_, hostile);
    EXPECT_FALSE(KTSPassProgress::read(file_)) << hostile;
  }
  Plist odd = Plist::dictionary();
  odd.set("started", Plist::date(clock_->now()));
  odd.set("mirroringStarted", Plist::date(clock_->now() + std::chrono::hours(1)));
  odd.set("step", "mirroring");
  odd.set("bytesDone", Plist::integer(-5));
  odd.set("bytes", Plist::integer(-7));
  odd.set("productsDone", "many");
  ASSERT_TRUE(odd.writeXmlFile(file_, nullptr));
  std::optional<KTSPassProgress::State> read = KTSPassProgress::read(file_);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->bytesDone, 0u);
  EXPECT_EQ(read->summary(clock_->now()), "mirroring: 0 of 0 products, 0.0 MB of 0.0 MB");
}

}  // namespace
}  // namespace ondrel
