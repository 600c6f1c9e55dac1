// The room a pass may fill: what is free beside the reserve, once what is promised to products
// still being fetched is taken. The sizes come from upstream catalogs, so sums near the end of
// the type are part of the test.
#include <cstdint>
#include <filesystem>

#include "KTSMirrorSpace.h"
#include "KTSPreferences.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;

TEST(KTSMirrorSpaceTest, NeedsFitBesideTheReserveAndWhatIsPromised) {
  KTSMirrorSpace space{1000, 300, 100, 10, true};
  EXPECT_TRUE(space.fits(200));
  EXPECT_FALSE(space.fits(201));
  EXPECT_TRUE(space.fits(150, 50));
  EXPECT_FALSE(space.fits(151, 50));
  EXPECT_FALSE(space.fits(0, 250)) << "the reserve no longer fits";
  EXPECT_EQ(space.freeAfter(UINT64_MAX), 0u);
  EXPECT_FALSE(space.fits(UINT64_MAX - 50)) << "a sum that would wrap around";
  EXPECT_FALSE(space.fits(UINT64_MAX, UINT64_MAX));
  KTSMirrorSpace unknown;
  EXPECT_TRUE(unknown.fits(UINT64_MAX)) << "a volume that cannot be read is not in the way";
}

class KTSMirrorSpaceVolumeTest : public OndrelTest {};

TEST_F(KTSMirrorSpaceVolumeTest, TheDocumentRootsVolumeWithTheReserveWithinItsLimits) {
  auto preferences = context().sharedPreferences();
  std::filesystem::create_directories(preferences->updatesDocRoot());
  preferences->setValue("volumeReserve", Plist::integer(150));
  KTSMirrorSpace space = KTSMirrorSpace::now(context().preferences());
  ASSERT_TRUE(space.known);
  EXPECT_EQ(space.reservePercent, 100);
  EXPECT_GE(space.reserve + space.total / 100, space.total) << "all of it";
  EXPECT_LE(space.free, space.total);
  EXPECT_FALSE(space.fits(1));
}

}  // namespace
}  // namespace ondrel
