// Mirroring a product's files from a loopback upstream: retries, suspect files, the check that
// keeps every file inside the document root, a killed download, and removal.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <thread>

#include "KTCatalogKeys.h"
#include "KTSFetchScheduler.h"
#include "KTSFileOwnership.h"
#include "KTSPassMemo.h"
#include "KTSProduct.h"
#include "KTSProductDownload.h"
#include "UpstreamFiles.h"

namespace ondrel {
namespace {

std::uintmax_t sizeOf(const std::string& path) {
  std::error_code error;
  std::uintmax_t size = std::filesystem::file_size(path, error);
  return error ? 0 : size;
}

class KTSProductMirrorTest : public test::UpstreamProductTest {
 protected:
  void SetUp() override {
    UpstreamProductTest::SetUp();
    upstream_.put("/content/downloads/d/P1/English.dist",
                  test::distributionDocument("Tool", "1", "NoRestart", "x"));
    upstream_.put("/content/downloads/d/P1/French.dist",
                  test::distributionDocument("Outil", "1", "NoRestart", "x"));
    upstream_.put("/content/downloads/d/P1/a.pkm", "package metadata");
    upstream_.put("/content/downloads/d/P1/a.pkg", std::string(3000, 'a'));
    upstream_.put("/content/downloads/d/P1/b.pkg", std::string(5000, 'b'));
  }

  // Two distributions and two packages, the first with a metadata URL.
  std::shared_ptr<KTSProduct> product() {
    Plist entry =
        upstream_.entry({{"English", "/content/downloads/d/P1/English.dist"},
                         {"French", "/content/downloads/d/P1/French.dist"}},
                        {{"/content/downloads/d/P1/a.pkg", 3000, "/content/downloads/d/P1/a.pkm"},
                         {"/content/downloads/d/P1/b.pkg", 5000, ""}});
    return productFor(entry);
  }

  std::shared_ptr<KTSProduct> productFor(const Plist& entry) {
    auto made = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
        "P1", entry, {}, context().services());
    made->state().scheduleMirroring();
    return made;
  }

  // Every file and folder below root_ that lies outside the html folder, other than the ones
  // the service makes itself.
  std::vector<std::string> entriesOutsideHtml() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
      std::string name = entry.path().string();
      if (name.rfind(html_, 0) != 0 && name.rfind(root_ + "/Library", 0) != 0) {
        found.push_back(name);
      }
    }
    return found;
  }
};

TEST_F(KTSProductMirrorTest, MirrorsEveryFileOnceAndReplacesASuspectOne) {
  auto first = product();
  first->state().enableOnceMirrored();
  EXPECT_TRUE(KTSProductDownload::downloadMirroredFiles(*first, 4));
  EXPECT_EQ(first->state().mirror(), KTSProductState::Mirrored);
  EXPECT_TRUE(first->state().enabled());
  EXPECT_EQ(first->state().progress().totalDownloadCount, 5);
  EXPECT_EQ(first->state().progress().downloadedSize.integerValue(), 8000);
  EXPECT_EQ(readFile(local("/content/downloads/d/P1/b.pkg")), std::string(5000, 'b'));
  EXPECT_TRUE(first->verifyMirroredFiles());
  EXPECT_TRUE(logged("ondrd_test[DBG]: PROD: P1: (Tool 1) verified - all files downloaded"));

  int requests = upstream_.requestCount();
  auto second = product();
  EXPECT_TRUE(KTSProductDownload::downloadMirroredFiles(*second, 4));
  EXPECT_EQ(upstream_.requestCount(), requests) << "files already present are not fetched again";

  // A file of the wrong size is kept by the fetch, found suspect, deleted and fetched again.
  writeFile(local("/content/downloads/d/P1/a.pkg"), "short");
  clearLog();
  auto third = product();
  EXPECT_TRUE(KTSProductDownload::downloadMirroredFiles(*third, 4));
  EXPECT_EQ(readFile(local("/content/downloads/d/P1/a.pkg")), std::string(3000, 'a'));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: PROD: P1: verification failed; incorrect size: a.pkg "
             "(expected=3000, actual=5)"));
  EXPECT_TRUE(logged("ondrd_test[DBG]: PROD: P1 (a.pkg) removing suspect file."));

  // Any valid name can be mirrored, though a suffix would make its side file's name too long.
  const std::string longName = "/content/downloads/d/P1/" + std::string(250, 'n') + ".pkg";
  upstream_.put(longName, std::string(700, 'n'));
  auto longer = productFor(upstream_.entry({}, {{longName, 700, ""}}));
  EXPECT_TRUE(KTSProductDownload::downloadMirroredFiles(*longer, 4));
  EXPECT_EQ(sizeOf(local(longName)), 700u);
}

// Files looked at ahead on another thread answer the pass's check only while they still hold:
// never after a file changed, and never for a list with a file amiss, whose check the pass makes
// itself so as to tell what is amiss.
TEST_F(KTSProductMirrorTest, FilesCheckedAheadAnswerOnlyWhileTheyHold) {
  auto mirrored = product();
  ASSERT_TRUE(KTSProductDownload::downloadMirroredFiles(*mirrored, 4));
  const std::string lookedAt = "ondrd_test[DBG]: PROD: P1: verifying: b.pkg; size: 5000";
  {
    KTSPassMemo memo;
    mirrored->checkMirroredFilesAhead(memo);
    clearLog();
    EXPECT_TRUE(mirrored->verifyMirroredFiles(&memo));
    EXPECT_FALSE(logged(lookedAt)) << "answered by the check ahead";
  }
  {
    KTSPassMemo memo;
    mirrored->checkMirroredFilesAhead(memo);
    memo.fileWillChange();
    clearLog();
    EXPECT_TRUE(mirrored->verifyMirroredFiles(&memo));
    EXPECT_TRUE(logged(lookedAt)) << "a file changed since: looked at again";
  }
  writeFile(local("/content/downloads/d/P1/b.pkg"), "short");
  KTSPassMemo memo;
  mirrored->checkMirroredFilesAhead(memo);
  clearLog();
  EXPECT_FALSE(mirrored->verifyMirroredFiles(&memo));
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: PROD: P1: verification failed; incorrect size: b.pkg "
             "(expected=5000, actual=5)"));
}

TEST_F(KTSProductMirrorTest, BrokenUpstreamsNeverLeaveAProductMirrored) {
  upstream_.put("/content/downloads/d/P1/b.pkg",
                std::string(6000, 'b'));  // longer than the catalog says
  auto longer = product();
  EXPECT_FALSE(KTSProductDownload::downloadMirroredFiles(*longer, 4));
  EXPECT_EQ(longer->state().mirror(), KTSProductState::Downloading);
  EXPECT_EQ(longer->state().progress().downloadStatus, KTSProductState::FileAbsent);
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: PROD: P1 (b.pkg) download retries exhausted, skipping file."));

  for (int status : {404, 500}) {
    upstream_.putStatus("/content/downloads/d/P1/b.pkg", status);
    for (const char* name : {"/content/downloads/d/P1/a.pkg", "/content/downloads/d/P1/b.pkg"})
      std::filesystem::remove(local(name));
    auto failing = product();
    int requests = upstream_.requestCount();
    clearLog();
    EXPECT_FALSE(KTSProductDownload::downloadMirroredFiles(*failing, 4)) << status;
    // a.pkg once, b.pkg three times, and each attempt reports its failure.
    EXPECT_EQ(upstream_.requestCount(), requests + 4) << status;
    std::vector<std::string> lines = logLines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         fmt::format("ondrd_test[ERR]: Download for \"b.pkg\" failed (reason: "
                                     "HTTP status {})",
                                     status)),
              3);
    EXPECT_EQ(readFile(local("/content/downloads/d/P1/a.pkg")), std::string(3000, 'a'));
    EXPECT_EQ(failing->state().mirror(), KTSProductState::Downloading);
    EXPECT_FALSE(std::filesystem::exists(local("/content/downloads/d/P1/b.pkg")));
  }

  // Three attempts at a URL of another scheme, each refused, then the file is given up.
  Plist entry = upstream_.entry({}, {{"/content/downloads/d/P1/a.pkg", 3000, ""}});
  entry.mutableValue(KTCatalogProductPackagesKey)
      .mutableElements()[0]
      .set(KTCatalogPackageURLStringKey, "ftp://127.0.0.1/d/P9/a.pkg");
  clearLog();
  auto ftp = productFor(entry);
  EXPECT_FALSE(KTSProductDownload::downloadMirroredFiles(*ftp, 4));
  EXPECT_EQ(ftp->state().mirror(), KTSProductState::Downloading);
  std::vector<std::string> lines = logLines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "ondrd_test[ERR]: *** Reason: file URL contains invalid scheme (should be "
                       "\"http\")"),
            3);
}

// Products share the scheduler: their files are in flight together (the upstream answers with
// the right bytes only while four requests are in at once), and one that fails stops no other.
TEST_F(KTSProductMirrorTest, ProductsMirrorSideBySideAndOneFailureStopsNoOther) {
  constexpr int kTogether = 4;
  std::mutex mutex;
  std::condition_variable arrived;
  int visitors = 0;
  httplib::Server gate;
  gate.Get(R"(/content/downloads/gate/(\w+)\.pkg)", [&](const httplib::Request&,
                                                        httplib::Response& response) {
    std::unique_lock lock(mutex);
    ++visitors;
    arrived.notify_all();
    bool together =
        arrived.wait_for(lock, std::chrono::seconds(10), [&] { return visitors >= kTogether; });
    response.set_content(std::string(together ? 3000 : 1, 'g'), "application/octet-stream");
  });
  gate.set_keep_alive_max_count(1);
  int port = gate.bind_to_any_port("127.0.0.1");
  std::thread serving([&gate] { gate.listen_after_bind(); });
  upstream_.putStatus("/content/downloads/d/P9/gone.pkg", 404);

  std::vector<std::shared_ptr<KTSProduct>> products;
  for (int i = 0; i <= kTogether; ++i) {
    std::string productId = fmt::format("P{}", i);
    Plist entry = upstream_.entry(
        {}, {{i == 0 ? "/content/downloads/d/P9/gone.pkg" : "/content/downloads/d/P1/a.pkg", 3000,
              ""}});
    entry.mutableValue(KTCatalogProductPackagesKey)
        .mutableElements()[0]
        .set(KTCatalogPackageURLStringKey,
             i == 0 ? upstream_.url("/content/downloads/d/P9/gone.pkg")
                    : fmt::format("http://127.0.0.1:{}/content/downloads/gate/{}.pkg", port,
                                  productId));
    products.push_back(KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
        productId, entry, {}, context().services()));
    products.back()->state().scheduleMirroring();
  }
  KTSFetchScheduler scheduler(16, nullptr);
  std::map<std::string, bool> finished;
  for (const auto& product : products) {
    KTSProductDownload::start(
        *product, scheduler, [&finished, id = *product->productId()](bool complete) {
          EXPECT_TRUE(finished.emplace(id, complete).second) << id << " told twice";
        });
  }
  scheduler.run();
  gate.stop();
  serving.join();

  ASSERT_EQ(finished.size(), products.size());
  EXPECT_FALSE(finished["P0"]);
  EXPECT_EQ(products[0]->state().mirror(), KTSProductState::Downloading);
  for (int i = 1; i <= kTogether; ++i) {
    EXPECT_TRUE(finished[fmt::format("P{}", i)]) << i;
    EXPECT_EQ(products[i]->state().mirror(), KTSProductState::Mirrored) << i;
    EXPECT_EQ(sizeOf(local(fmt::format("/content/downloads/gate/P{}.pkg", i))), 3000u) << i;
  }
}

TEST_F(KTSProductMirrorTest, HostileUrlsCannotWriteOutsideTheDocumentRoot) {
  std::filesystem::create_directories(local("/content/downloads/d/linked"));
  std::filesystem::create_directories(root_ + "/outside");
  std::filesystem::create_directory_symlink(root_ + "/outside",
                                            local("/content/downloads/d/linked/out"));
  for (const std::string& hostile :
       {upstream_.url("/content/downloads/d/%2e%2e/%2E%2e/%2e%2e/%2e%2e/%2e%2e/%2e%2e/escaped.pkg"),
        upstream_.url("/content/downloads/d/..%2f..%2f..%2fescaped.pkg"),
        upstream_.url("/content/downloads/d/%2e%2e/inside.pkg"),
        upstream_.url("/content/downloads/d/linked/out/escaped.pkg"),
        upstream_.url("/content/downloads/d/linked/out/deeper/escaped.pkg"),
        std::string("file:///etc/passwd"), std::string("gopher://127.0.0.1/escaped.pkg")}) {
    Plist entry = upstream_.entry({}, {{"/content/downloads/d/P1/a.pkg", 3000, ""}});
    entry.mutableValue(KTCatalogProductPackagesKey)
        .mutableElements()[0]
        .set(KTCatalogPackageURLStringKey, hostile);
    auto product = productFor(entry);
    EXPECT_FALSE(KTSProductDownload::downloadMirroredFiles(*product, 4)) << hostile;
    EXPECT_NE(product->state().mirror(), KTSProductState::Mirrored);
  }
  EXPECT_TRUE(std::filesystem::is_empty(root_ + "/outside"));
  EXPECT_EQ(entriesOutsideHtml(), (std::vector<std::string>{root_ + "/outside"}));
  EXPECT_FALSE(std::filesystem::exists(local("/content/downloads/d/inside.pkg")));
  EXPECT_TRUE(logged(fmt::format(
      "ondrd_test[ERR]: *** Reason: file download path is not part of updates folder (should be "
      "\"{}\")",
      context().layout().documentRoot())));

  // Product files belong under the downloads folder: never on a served catalog, a published
  // name or one of the server's own files.
  writeFile(local("/content/catalogs/others/index-alder-birch.merged-1.ktcatalog"), "served");
  writeFile(local("/index.ktcatalog"), "published");
  for (const std::string& target :
       {std::string("/content/catalogs/others/index-alder-birch.merged-1.ktcatalog"),
        std::string("/index.ktcatalog"), std::string("/content/downloads/d/P1/a.pkg.previous"),
        std::string("/content/downloads/d/P1/.hidden")}) {
    upstream_.put(target, std::string(3000, 'x'));
    auto misplaced = productFor(upstream_.entry({}, {{target, 3000, ""}}));
    EXPECT_FALSE(KTSProductDownload::downloadMirroredFiles(*misplaced, 4)) << target;
  }
  EXPECT_EQ(readFile(local("/content/catalogs/others/index-alder-birch.merged-1.ktcatalog")),
            "served");
  EXPECT_EQ(readFile(local("/index.ktcatalog")), "published");
  EXPECT_FALSE(std::filesystem::exists(local("/content/downloads/d/P1/a.pkg.previous")));

  // A file belongs to one product: another that names it is refused, even with a size that
  // would make the owner's file look suspect, and removing that other product leaves it.
  auto made = [&](const std::string& productId, const std::vector<test::PackageFiles>& files) {
    auto product = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
        productId, upstream_.entry({}, files), {}, context().services());
    product->state().scheduleMirroring();
    return product;
  };
  const std::string shared = "/content/downloads/d/shared.pkg";
  upstream_.put(shared, std::string(3000, 's'));
  auto owner = made("OWNER", {{shared, 3000, ""}});
  ASSERT_TRUE(KTSProductDownload::downloadMirroredFiles(*owner, 4));
  auto intruder = made("AAA", {{shared, 10, ""}});
  KTSFileOwnership ownership({intruder, owner});
  KTSFetchScheduler scheduler(4, nullptr);
  bool intruderDone = true;
  KTSProductDownload::start(
      *intruder, scheduler, [&](bool complete) { intruderDone = complete; }, &ownership);
  scheduler.run();
  EXPECT_FALSE(intruderDone);
  EXPECT_TRUE(logged(fmt::format(
      "ondrd_test[ERR]: *** File {} of product AAA belongs to product OWNER; it is neither "
      "fetched nor touched.",
      local(shared))));
  intruder->removeAllMirroredFiles([&ownership](const std::string& path) {
    return ownership.otherOwnerOfPath(path, "AAA") != nullptr;
  });
  EXPECT_EQ(sizeOf(local(shared)), 3000u);
  // Two URLs of one product that name one file with different sizes: the first one wins.
  upstream_.put("/content/downloads/d/variant.pkg", std::string(3000, 'v'));
  auto variants = made("VARIANTS", {{"/content/downloads/d/variant.pkg?v=1", 3000, ""},
                                    {"/content/downloads/d/variant.pkg?v=2", 10, ""}});
  EXPECT_FALSE(KTSProductDownload::downloadMirroredFiles(*variants, 4));
  EXPECT_EQ(sizeOf(local("/content/downloads/d/variant.pkg")), 3000u);

  // A product restored from a planted cache names files outside; nothing there is touched.
  writeFile(root_ + "/outside/keep.pkg", "precious");
  Plist archive = product()->archiveRepresentation();
  archive.mutableValue("mirrorFiles")
      .mutableElements()[3]
      .set(KTSProduct::kFileLocalPathKey, root_ + "/outside/keep.pkg");
  auto restored = KTSProduct::productWithArchiveRepresentation(archive, context().layout());
  restored->removeAllMirroredFiles();
  EXPECT_FALSE(restored->verifyMirroredFiles());
  EXPECT_EQ(readFile(root_ + "/outside/keep.pkg"), "precious");
}

TEST_F(KTSProductMirrorTest, AKilledDownloadIsCompletedByTheNextRun) {
  // A large body that arrives slowly, so the child is killed in the middle of it.
  upstream_.put("/content/downloads/d/P1/b.pkg", std::string(5000, 'b'));
  httplib::Server slow;
  slow.Get("/content/downloads/d/P1/big.pkg", [](const httplib::Request&,
                                                 httplib::Response& response) {
    response.set_content_provider(8 << 20, "application/octet-stream",
                                  [](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                                    std::string chunk(64 << 10, 'z');
                                    if (offset > (1 << 20))
                                      std::this_thread::sleep_for(std::chrono::milliseconds(20));
                                    return sink.write(chunk.data(), chunk.size());
                                  });
  });
  int port = slow.bind_to_any_port("127.0.0.1");
  std::thread serving([&slow] { slow.listen_after_bind(); });
  Plist entry = upstream_.entry({}, {{"/content/downloads/d/P1/b.pkg", 5000, ""}});
  Plist big = Plist::dictionary();
  big.set(KTCatalogPackageURLStringKey,
          fmt::format("http://127.0.0.1:{}/content/downloads/d/P1/big.pkg", port));
  big.set(KTCatalogPackageSizeKey, Plist::integer(8 << 20));
  entry.mutableValue(KTCatalogProductPackagesKey).append(big);

  // The child is forked while servers' threads run: only once they all wait idle, so that none
  // holds an allocator lock the child would then wait for forever.
  while (!slow.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    KTSProductDownload::downloadMirroredFiles(*productFor(entry), 4);
    _exit(0);
  }
  const std::string partial = local("/content/downloads/d/P1/big.pkg.downloading");
  // Generous: under the sanitizers on a busy machine the child may start slowly.
  for (int i = 0; i < 1200 && sizeOf(partial) < (2 << 20); ++i) usleep(50000);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_GE(sizeOf(partial), 2 << 20) << "killed in the middle of the file";
  EXPECT_FALSE(std::filesystem::exists(local("/content/downloads/d/P1/big.pkg")));

  auto again = productFor(entry);
  EXPECT_TRUE(KTSProductDownload::downloadMirroredFiles(*again, 4));
  EXPECT_EQ(std::filesystem::file_size(local("/content/downloads/d/P1/big.pkg")), 8u << 20);
  EXPECT_FALSE(std::filesystem::exists(partial));
  slow.stop();
  serving.join();
}

TEST_F(KTSProductMirrorTest, RemovalKeepsDescriptionsOrTakesTheWholeFolder) {
  upstream_.put("/content/downloads/d/P1/P1.smd", "<plist><dict/></plist>");
  Plist entry =
      upstream_.entry({{"English", "/content/downloads/d/P1/English.dist"}},
                      {{"/content/downloads/d/P1/a.pkg", 3000, "/content/downloads/d/P1/a.pkm"}});
  auto mirrored = KTSProduct::productWithProductIdDictionaryRepresentationServerMetadataURL(
      "P1", entry, Url::parse(upstream_.url("/content/downloads/d/P1/P1.smd")),
      context().services());
  ASSERT_TRUE(KTSProductDownload::downloadMirroredFiles(*mirrored, 4));
  mirrored->state().enable();
  // A part kept from a download cut short goes with the product, file or not.
  std::filesystem::remove(local("/content/downloads/d/P1/a.pkm"));
  writeFile(local("/content/downloads/d/P1/a.pkm.downloading"), "part");
  mirrored->removeAllMirroredFiles();
  EXPECT_FALSE(std::filesystem::exists(local("/content/downloads/d/P1/a.pkm.downloading")));
  EXPECT_FALSE(std::filesystem::exists(local("/content/downloads/d/P1/a.pkg")));
  EXPECT_FALSE(std::filesystem::exists(local("/content/downloads/d/P1/a.pkm")));
  EXPECT_TRUE(std::filesystem::exists(local("/content/downloads/d/P1/English.dist")));
  EXPECT_TRUE(std::filesystem::exists(local("/content/downloads/d/P1/P1.smd")));
  EXPECT_EQ(mirrored->state().mirror(), KTSProductState::DoNotMirror);
  EXPECT_FALSE(mirrored->state().enabled());

  writeFile(local("/other/file"), "neighbour");
  mirrored->removeAllFiles();
  EXPECT_FALSE(std::filesystem::exists(local("/d")));
  EXPECT_TRUE(std::filesystem::exists(local("/other/file")));
}

}  // namespace
}  // namespace ondrel
