#include "KTSMetaIndex.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;

class KTSMetaIndexTest : public OndrelTest {};

TEST_F(KTSMetaIndexTest, CatalogVersionTables) {
  const auto& supported = KTSMetaIndex::supportedCatalogNames();
  ASSERT_EQ(supported.size(), 8u);
  EXPECT_EQ(supported.front(), "index-alder.merged-1.ktcatalog");
  for (std::size_t i = 0; i < supported.size(); ++i) {
    EXPECT_EQ(KTSMetaIndex::taltosNameForCatalogName(supported[i]), std::to_string(9 + i));
  }
  EXPECT_FALSE(KTSMetaIndex::taltosNameForCatalogName("index.ktcatalog"));
  EXPECT_FALSE(KTSMetaIndex::taltosNameForCatalogName(""));

  EXPECT_EQ(KTSMetaIndex::currentCatalogVersion(), "10.12");
  EXPECT_EQ(KTSMetaIndex::previousCatalogVersions(),
            (std::vector<std::string>{"10.11", "10.10", "10.9", "10.8", "10.7", "10.6"}));
  auto current = KTSMetaIndex::defaultCatalogsForVersion("10.12");
  ASSERT_TRUE(current);
  EXPECT_EQ(current->front(), supported.back()) << "newest first";
  EXPECT_EQ(current->back(), "index-alder-birch.merged-1.ktcatalog");
  EXPECT_EQ(current->size(), 7u);
  EXPECT_FALSE(KTSMetaIndex::defaultCatalogsForVersion("10.5"));
  EXPECT_FALSE(KTSMetaIndex::defaultCatalogsForVersion("10.12.1"));

  // Each older version lists one catalog fewer, its newest catalog first.
  for (std::size_t i = 0; i < 4; ++i) {
    const std::string& version = KTSMetaIndex::previousCatalogVersions()[i];
    auto list = KTSMetaIndex::defaultCatalogsForVersion(version);
    ASSERT_TRUE(list) << version;
    EXPECT_EQ(list->size(), 6u - i) << version;
    EXPECT_EQ(list->front(), supported[6 - i]) << version;
  }
  EXPECT_EQ(*KTSMetaIndex::defaultCatalogsForVersion("10.7"),
            (std::vector<std::string>{supported[2], supported[1], supported[0]}));
  EXPECT_EQ(*KTSMetaIndex::defaultCatalogsForVersion("10.6"),
            (std::vector<std::string>{supported[1], supported[0], "index.ktcatalog"}));
}

}  // namespace
}  // namespace ondrel
