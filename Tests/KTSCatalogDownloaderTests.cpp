#include "KTSCatalogDownloader.h"
#include "KTSSyncStatus.h"
#include "KTSUtilities.h"
#include "LoopbackServer.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::LoopbackServer;
using test::OndrelTest;

// Each test has a loopback address of its own, so that URLs without a port (80 and 443) can be
// served while other tests run beside it.
class KTSCatalogDownloaderTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    renewContext();
    setUserDefaults(true);
    certificate_ = test::makeThrowAwayCertificate(root_);
    ASSERT_FALSE(certificate_.certificatePath.empty());
    ::setenv("ONDREL_CA_BUNDLE", certificate_.certificatePath.c_str(), 1);
  }
  void TearDown() override {
    ::unsetenv("ONDREL_CA_BUNDLE");
    renewContext();
    OndrelTest::TearDown();
  }

  static void serveCatalog(LoopbackServer& server, const std::string& text) {
    server.routes().Get("/cat.ktcatalog", [text](const httplib::Request&, httplib::Response& r) {
      r.set_content(text, "text/xml");
    });
  }

  std::shared_ptr<KTSCatalogDownloader> downloadFrom(const std::string& url) {
    auto downloader = KTSCatalogDownloader::downloaderWithURLLocalPathArchivePrevious(
        *Url::parse(url), path("/catalogs/cat.ktcatalog"), true, context().status());
    downloader->downloadSynchronously();
    return downloader;
  }

  test::Certificate certificate_;
};

TEST_F(KTSCatalogDownloaderTest, WithoutARecordOrPortHttpsComesFirst) {
  LoopbackServer secure(&certificate_);
  LoopbackServer plain;
  serveCatalog(secure, "secure catalog");
  serveCatalog(plain, "plain catalog");
  ASSERT_TRUE(secure.start("127.0.0.11", 443));
  ASSERT_TRUE(plain.start("127.0.0.11", 80));

  auto downloader = downloadFrom("http://127.0.0.11/cat.ktcatalog");
  EXPECT_EQ(downloader->downloadStatus(), 1);
  EXPECT_EQ(readFile(path("/catalogs/cat.ktcatalog")), "secure catalog");
  EXPECT_EQ(plain.requestCount(), 0);
  EXPECT_EQ((&context().status())->getAccessForHostName("127.0.0.11"), "https");
  EXPECT_TRUE(logged("ondrd_test[INF]: Retrieving remote catalog (SECURE): cat.ktcatalog"));
}

TEST_F(KTSCatalogDownloaderTest, AnExplicitPortMeansHttpFirst) {
  LoopbackServer plain;
  serveCatalog(plain, "plain catalog");
  ASSERT_TRUE(plain.start("127.0.0.12"));
  auto downloader = downloadFrom(plain.url("/cat.ktcatalog"));
  EXPECT_EQ(downloader->downloadStatus(), 1);
  EXPECT_EQ(plain.requestCount(), 1);
  EXPECT_EQ((&context().status())->getAccessForHostName("127.0.0.12"), "http");
  EXPECT_TRUE(logged("ondrd_test[INF]: Retrieving remote catalog (STANDARD): cat.ktcatalog"));
  EXPECT_EQ(downloader->getSchemeOrder()[0], "http");
}

TEST_F(KTSCatalogDownloaderTest, AnHttpRecordGoesFirstAndAFallbackIsRecorded) {
  auto status = (&context().status());
  status->setAccessForHostName(std::string("http"), "127.0.0.13");
  LoopbackServer secure(&certificate_);
  LoopbackServer plain;
  serveCatalog(secure, "secure catalog");
  ASSERT_TRUE(secure.start("127.0.0.13", 443));
  ASSERT_TRUE(plain.start("127.0.0.13", 80));

  writeFile(path("/catalogs/cat.ktcatalog"), "previous catalog");
  auto downloader = downloadFrom("https://127.0.0.13/cat.ktcatalog");
  EXPECT_EQ(downloader->downloadStatus(), 1);
  EXPECT_EQ(plain.requestCount(), 1) << "http was tried first and got a 404";
  EXPECT_TRUE(
      logged("ondrd_test[WRN]: Download for \"cat.ktcatalog\" failed (reason: HTTP status 404)"));
  EXPECT_TRUE(logged("ondrd_test[DBG]: CDNL: catalog download for scheme \"http\" failed"));
  EXPECT_EQ(readFile(path("/catalogs/cat.ktcatalog")), "secure catalog");
  EXPECT_EQ(readFile(path("/catalogs/cat.ktcatalog.previous")), "previous catalog");
  Plist record = KTSUtilities::readPropertyListAtPath(status->hostAccessPath());
  EXPECT_EQ(record["https_127.0.0.13"].dateValue(), clock_->now() + std::chrono::hours(48));
}

TEST_F(KTSCatalogDownloaderTest, WhenBothSchemesFailTheRecordIsCleared) {
  auto status = (&context().status());
  status->setAccessForHostName(std::string("https"), "127.0.0.14");
  writeFile(path("/catalogs/cat.ktcatalog"), "previous catalog");
  auto downloader = downloadFrom("http://127.0.0.14/cat.ktcatalog");
  EXPECT_EQ(downloader->downloadStatus(), -1);
  EXPECT_EQ(downloader->sourceUrl().text(), "http://127.0.0.14/cat.ktcatalog")
      << "the URL keeps the last scheme tried";
  EXPECT_TRUE(logged("ondrd_test[ERR]: All download attempts failed for catalog cat.ktcatalog"));
  int warnings = 0;
  for (const std::string& line : logLines()) {
    if (line.rfind("ondrd_test[WRN]: Download for \"cat.ktcatalog\" failed", 0) == 0) ++warnings;
  }
  EXPECT_EQ(warnings, 2);
  EXPECT_FALSE(status->getAccessForHostName("127.0.0.14"));
  EXPECT_EQ(KTSUtilities::readPropertyListAtPath(status->hostAccessPath()), Plist::dictionary());
  EXPECT_EQ(readFile(path("/catalogs/cat.ktcatalog")), "previous catalog");
}

}  // namespace
}  // namespace ondrel
