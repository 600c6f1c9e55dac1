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
  EXPECT_EQ(KTSMetaIndex::previousCatalogVersions().front(), "10.11");
  auto current = KTSMetaIndex::defaultCatalogsForVersion("10.12");
  ASSERT_TRUE(current);
  EXPECT_EQ(current->front(), supported.back()) << "newest first";
  EXPECT_EQ(current->back(), "index-alder-birch.merged-1.ktcatalog");
  EXPECT_EQ(current->size(), 7u);
  EXPECT_FALSE(KTSMetaIndex::defaultCatalogsForVersion("10.5"));
  EXPECT_FALSE(KTSMetaIndex::defaultCatalogsForVersion("10.12.1"));

  EXPECT_EQ(*KTSMetaIndex::defaultCatalogsForVersion("10.6"),
            (std::vector<std::string>{supported[1], supported[0], "index.ktcatalog"}));
}

}  // namespace
}  // namespace ondrel
