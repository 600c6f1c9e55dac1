// The record one full pass leaves to the next: a file is reused only as that pass left it, made
// from the same inputs, under the same settings; anything else in the record reuses nothing.
#include <filesystem>

#include "KTSPassRecord.h"
#include "KTSPreferences.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;

class KTSPassRecordTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    file_ = path("/made.plist");
    std::filesystem::create_directories(
        std::filesystem::path(KTSPassRecord::defaultPath(context().layout())).parent_path());
    writeFile(file_, "made once");
    KTSPassRecord record(KTSPassRecord::Reuse::Allowed, context().layout());
    record.recordFile(file_, "inputs");
    record.recordFile(path("/missing"), "inputs");
    ASSERT_TRUE(record.save());
  }
  bool reusable(const std::string& file, const std::string& inputs) {
    return KTSPassRecord(KTSPassRecord::Reuse::Allowed, context().layout()).isCurrent(file, inputs);
  }

  std::string file_;
};

TEST_F(KTSPassRecordTest, AFileIsReusedOnlyAsTheLastPassLeftIt) {
  EXPECT_TRUE(reusable(file_, "inputs"));
  EXPECT_FALSE(reusable(file_, "other inputs"));
  EXPECT_FALSE(reusable(path("/missing"), "inputs")) << "a file that was not there";
  EXPECT_FALSE(
      KTSPassRecord(KTSPassRecord::Reuse::Nothing, context().layout()).isCurrent(file_, "inputs"));
  // A pass that saves its record keeps only what it recorded itself.
  ASSERT_TRUE(KTSPassRecord(KTSPassRecord::Reuse::Allowed, context().layout()).save());
  EXPECT_FALSE(reusable(file_, "inputs"));
}

TEST_F(KTSPassRecordTest, AFileWrittenSinceOrOtherSettingsReuseNothing) {
  writeFile(file_, "made again");
  EXPECT_FALSE(reusable(file_, "inputs"));
  SetUp();
  auto preferences = context().sharedPreferences();
  preferences->setValue("portToUse", Plist::integer(preferences->portToUse().integerValue() + 1));
  ASSERT_TRUE(preferences->commitChanges());
  EXPECT_FALSE(reusable(file_, "inputs")) << "the preferences decide paths and policies";
}

TEST_F(KTSPassRecordTest, ADamagedRecordReusesNothingAndHarmsNothing) {
  for (const std::string& damaged :
       {std::string("not a property list"), std::string("<plist><dict><key>files"),
        std::string("<plist><dict><key>settings</key><integer>1</integer><key>files</key>"
                    "<array/></dict></plist>"),
        std::string(5 << 20, '<')}) {
    writeFile(KTSPassRecord::defaultPath(context().layout()), damaged);
    EXPECT_FALSE(reusable(file_, "inputs")) << damaged.substr(0, 40);
  }
}

// Settled files are looked at once a pass, whether on a second thread ahead or when first asked:
// both give the file's own stamp, and a file that is not there has none.
TEST_F(KTSPassRecordTest, SettledFilesStampedAheadAsWhenAsked) {
  std::string other = path("/other.plist");
  writeFile(other, "other bytes");
  KTSPassRecord asked(KTSPassRecord::Reuse::Allowed, context().layout());
  KTSPassRecord ahead(KTSPassRecord::Reuse::Allowed, context().layout());
  ahead.stampSettledFilesAhead({file_, path("/missing")});
  EXPECT_FALSE(ahead.stampOfSettledFile(file_).empty());
  EXPECT_EQ(ahead.stampOfSettledFile(file_), asked.stampOfSettledFile(file_));
  EXPECT_EQ(ahead.stampOfSettledFile(path("/missing")), "");
  EXPECT_EQ(ahead.stampOfSettledFile(other), asked.stampOfSettledFile(other)) << "not named ahead";
  EXPECT_NE(ahead.stampOfSettledFile(other), ahead.stampOfSettledFile(file_));
  EXPECT_EQ(ahead.stampOfSettledFile(std::nullopt), "");
}

TEST(KTSPassRecordInputsTest, PiecesAreKeptApart) {
  using Inputs = KTSPassRecord::Inputs;
  EXPECT_NE(Inputs().add("ab").add("c").text(), Inputs().add("a").add("bc").text());
  EXPECT_NE(Inputs().addValue(Plist::integer(5)).text(), Inputs().addValue(Plist::real(5)).text());
}

}  // namespace
}  // namespace ondrel
