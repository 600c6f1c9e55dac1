#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <numeric>

#include "ApacheServer.h"
#include "KTSFetchScheduler.h"
#include "KTSFileDownloader.h"
#include "KTSFileValidators.h"
#include "KTSUtilities.h"
#include "LoopbackServer.h"
#include "OndrelTest.h"
#include "Sha256.h"

namespace ondrel {
namespace {

using test::LoopbackServer;
using test::OndrelTest;

class KTSFileDownloaderTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    setUserDefaults(true);
    auto& routes = server_.routes();
    routes.Get("/file", [this](const httplib::Request&, httplib::Response& response) {
      response.set_content(fmt::format("version {}", ++served_), "application/octet-stream");
    });
    routes.Get("/redirect", [](const httplib::Request&, httplib::Response& response) {
      response.set_redirect("/file");
    });
    routes.Get("/missing", [this](const httplib::Request& request, httplib::Response& response) {
      std::lock_guard lock(gateMutex_);
      errorPageClients_.push_back(request.remote_port);
      response.status = 404;
    });
    routes.Get("/broken", [this](const httplib::Request& request, httplib::Response& response) {
      std::lock_guard lock(gateMutex_);
      errorPageClients_.push_back(request.remote_port);
      response.status = 500;
      response.set_content("server trouble", "text/plain");
    });
    // Declares 100,000 bytes, sends 1,000 and drops the connection.
    routes.Get("/truncated", [](const httplib::Request&, httplib::Response& response) {
      response.set_content_provider(100000, "application/octet-stream",
                                    [](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                                      if (offset > 0) return false;
                                      std::string part(1000, 't');
                                      sink.write(part.data(), part.size());
                                      return true;
                                    });
    });
    routes.Get("/unsized", [](const httplib::Request&, httplib::Response& response) {
      response.set_chunked_content_provider("application/octet-stream",
                                            [](std::size_t offset, httplib::DataSink& sink) {
                                              if (offset >= 30000) {
                                                sink.done();
                                                return true;
                                              }
                                              std::string part(10000, 'u');
                                              sink.write(part.data(), part.size());
                                              return true;
                                            });
    });
    // Answers "together" once three requests are in it at the same time, else "alone" after
    // five seconds.
    routes.Get("/gate", [this](const httplib::Request&, httplib::Response& response) {
      std::unique_lock lock(gateMutex_);
      ++gateVisitors_;
      gateVisited_.notify_all();
      bool together = gateVisited_.wait_for(lock, std::chrono::seconds(5),
                                            [this] { return gateVisitors_ >= 3; });
      response.set_content(together ? "together" : "alone", "text/plain");
    });
    // Answers with validators and honours If-None-Match; the body changes with version_.
    routes.Get("/validated", [this](const httplib::Request& request, httplib::Response& response) {
      std::string etag = fmt::format("\"v{}\"", version_.load());
      {
        std::lock_guard lock(gateMutex_);
        conditionsSeen_.push_back(request.get_header_value("If-None-Match"));
      }
      response.set_header("ETag", etag);
      if (request.get_header_value("If-None-Match") == etag) {
        response.status = 304;
        return;
      }
      response.set_header("Last-Modified", "Mon, 23 Nov 2026 08:00:00 GMT");
      response.set_content(fmt::format("body {}", version_.load()), "application/octet-stream");
    });
    // A clock far ahead: its Last-Modified lies in the future, and it answers 304 to any date.
    routes.Get("/future", [this](const httplib::Request& request, httplib::Response& response) {
      {
        std::lock_guard lock(gateMutex_);
        conditionsSeen_.push_back(request.get_header_value("If-Modified-Since"));
      }
      response.set_header("Last-Modified", "Thu, 01 Jan 2099 00:00:00 GMT");
      if (request.has_header("If-Modified-Since")) {
        response.status = 304;
        return;
      }
      response.set_content(fmt::format("body {}", version_.load()), "application/octet-stream");
    });
    // Sends the same bytes whatever the request says of the copy kept.
    routes.Get("/same", [](const httplib::Request&, httplib::Response& response) {
      response.set_header("ETag", "\"same\"");
      response.set_content("the same bytes", "application/octet-stream");
    });
    // A large file in version version_, continued from where a Range asks if If-Range names
    // that version; the connection drops at the offsets of cuts_, one per request. With
    // ignoreRanges_ (or another version named) it sends the whole file, with answer416_ a 416.
    routes.Get("/large", [this](const httplib::Request& request, httplib::Response& response) {
      const std::string etag = fmt::format("\"large-{}\"", version_.load());
      response.set_header("ETag", etag);
      if (answer416_.exchange(false)) {
        response.status = 416;
        return;
      }
      std::uint64_t cut = UINT64_MAX;
      {
        std::lock_guard lock(gateMutex_);
        if (!cuts_.empty()) cut = cuts_.front(), cuts_.erase(cuts_.begin());
      }
      auto send = [this, cut](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
        if (offset >= cut) return false;
        std::size_t count = std::min<std::uint64_t>({length, 1 << 16, cut - offset});
        std::string block = largeBytes(offset, count);
        largeBytesSent_ += count;
        return sink.write(block.data(), block.size());
      };
      bool continues =
          !request.ranges.empty() && !ignoreRanges_ && request.get_header_value("If-Range") == etag;
      if (continues) {
        response.set_content_provider(largeSize_, "application/octet-stream", send);
        return;
      }
      response.set_chunked_content_provider(
          "application/octet-stream", [this, send](std::size_t offset, httplib::DataSink& sink) {
            if (offset < largeSize_) return send(offset, largeSize_ - offset, sink);
            sink.done();
            return true;
          });
    });
    // Busy twice (a 429 that gives seconds, a 503 that gives a date), then answers.
    routes.Get("/busy", [this](const httplib::Request&, httplib::Response& response) {
      int request = ++busyRequests_;
      if (request == 1) {
        response.status = 429;
        response.set_header("Retry-After", "1");
      } else if (request == 2) {
        std::time_t later = std::time(nullptr) + 2;
        char date[64];
        std::strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", std::gmtime(&later));
        response.status = 503;
        response.set_header("Retry-After", date);
      } else {
        response.set_content("done at last", "text/plain");
      }
    });
    // Busy three times without saying for how long (a server's limit of connections), then
    // answers; "/full" is always busy so.
    routes.Get("/crowded", [this](const httplib::Request&, httplib::Response& response) {
      if (++crowdedRequests_ <= 3) {
        response.status = 503;
      } else {
        response.set_content("room at last", "text/plain");
      }
    });
    routes.Get("/full",
               [](const httplib::Request&, httplib::Response& response) { response.status = 503; });
    routes.Get("/closed", [](const httplib::Request&, httplib::Response& response) {
      response.status = 503;
      response.set_header("Retry-After", "100000");
    });
    ASSERT_TRUE(server_.start());
  }

  // The bytes of the large file's version at offset.
  std::string largeBytes(std::uint64_t offset, std::size_t count) const {
    std::string bytes(count, '\0');
    for (std::size_t i = 0; i < count; ++i) {
      bytes[i] = static_cast<char>(((offset + i) * 131 + (offset + i) / 65521 + version_) & 0xff);
    }
    return bytes;
  }
  bool isLargeFile(const std::string& path) const {
    std::ifstream file(path, std::ios::binary);
    std::string block(1 << 20, '\0');
    std::uint64_t offset = 0;
    while (file.read(block.data(), static_cast<std::streamsize>(block.size())) || file.gcount()) {
      std::size_t count = static_cast<std::size_t>(file.gcount());
      if (block.compare(0, count, largeBytes(offset, count)) != 0) return false;
      offset += count;
    }
    return offset == largeSize_;
  }

  std::string lastConditionSeen() {
    std::lock_guard lock(gateMutex_);
    return conditionsSeen_.empty() ? "(no request)" : conditionsSeen_.back();
  }

  std::optional<Url> url(const std::string& path) const { return Url::parse(server_.url(path)); }
  std::string target() const { return path("/downloads/item.pkg"); }

  // Through the test's scheduler, when it set one, as a pass's downloads go.
  std::shared_ptr<KTSFileDownloader> download(const std::string& urlPath, bool archive = true) {
    auto downloader = KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(
        *url(urlPath), target(), archive);
    KTSFetchScheduler::fetchToEnd(*downloader, scheduler_);
    return downloader;
  }

  LoopbackServer server_;
  KTSFetchScheduler* scheduler_ = nullptr;
  std::atomic<int> served_{0};
  std::mutex gateMutex_;
  std::condition_variable gateVisited_;
  int gateVisitors_ = 0;
  std::atomic<int> version_{1};
  std::uint64_t largeSize_ = 1 << 20;
  std::vector<std::uint64_t> cuts_;
  std::atomic<std::uint64_t> largeBytesSent_{0};
  std::atomic<bool> ignoreRanges_{false};
  std::atomic<bool> answer416_{false};
  std::atomic<int> busyRequests_{0};
  std::atomic<int> crowdedRequests_{0};
  std::vector<std::string> conditionsSeen_;
  // The client port of each request for an error page: one port, one connection.
  std::vector<int> errorPageClients_;
};

TEST_F(KTSFileDownloaderTest, SuccessReplacesTheFileAndRotatesThePreviousOne) {
  auto first = download("/file");
  EXPECT_FALSE(first->downloadError());
  EXPECT_EQ(readFile(target()), "version 1");
  EXPECT_FALSE(std::filesystem::exists(target() + ".previous"));
  EXPECT_FLOAT_EQ(first->percentComplete(), 100.0f);
  EXPECT_EQ(first->downloadBytes(), 9u);
  EXPECT_TRUE(
      logged(fmt::format("ondrd_test[DBG]: FILE: item.pkg - created download enclosing "
                         "folder {}",
                         path("/downloads"))));
  EXPECT_TRUE(logged("ondrd_test[DBG]: FILE: item.pkg - download finished (9 bytes)"));

  download("/file");
  download("/file");
  EXPECT_EQ(readFile(target()), "version 3");
  EXPECT_EQ(readFile(target() + ".previous"), "version 2");
  EXPECT_TRUE(logged("ondrd_test[DBG]: FILE: item.pkg - archiving previous version"));

  download("/file", false);
  EXPECT_EQ(readFile(target()), "version 4");
  EXPECT_EQ(readFile(target() + ".previous"), "version 2") << "untouched without archiving";
  EXPECT_TRUE(logged("ondrd_test[DBG]: FILE: item.pkg - removed previous version"));
  EXPECT_FALSE(std::filesystem::exists(target() + ".downloading"));
}

TEST_F(KTSFileDownloaderTest, FailuresLeaveTheFilesExactlyAsTheyWere) {
  writeFile(target(), "old final");
  writeFile(target() + ".previous", "old archive");
  const std::vector<std::pair<std::string, std::string>> failures = {
      {"/missing", "HTTP status 404"},
      {"/broken", "HTTP status 500"},
      {"/truncated", ""},
  };
  for (const auto& [route, reason] : failures) {
    auto downloader = download(route);
    ASSERT_TRUE(downloader->downloadError()) << route;
    if (!reason.empty()) {
      EXPECT_EQ(downloader->downloadError()->description(), reason);
    }
    EXPECT_EQ(readFile(target()), "old final") << route;
    EXPECT_EQ(readFile(target() + ".previous"), "old archive") << route;
    EXPECT_FALSE(std::filesystem::exists(target() + ".downloading")) << route;
  }
  EXPECT_TRUE(
      logged("ondrd_test[DBG]: FILE: item.pkg - ERROR! download failed (reason = HTTP "
             "status 404)"));
  {
    // An error page is read to its end, so the next request takes the same connection.
    std::lock_guard lock(gateMutex_);
    ASSERT_EQ(errorPageClients_.size(), 2u);
    EXPECT_EQ(errorPageClients_[0], errorPageClients_[1]);
  }

  // A body longer than expected is refused as soon as its length or its bytes say so.
  for (const std::string route : {"/truncated", "/unsized"}) {
    auto longer =
        KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(*url(route), target(), true);
    longer->setExpectedSize(10000);
    KTSFetchScheduler::fetchToEnd(*longer, nullptr);
    ASSERT_TRUE(longer->downloadError()) << route;
    EXPECT_EQ(longer->downloadError()->description(), "Response body larger than 10000 bytes");
    EXPECT_LE(longer->downloadBytes(), 10000u) << route;
    EXPECT_EQ(readFile(target()), "old final") << route;
    EXPECT_FALSE(std::filesystem::exists(target() + ".downloading")) << route;
  }

  // Received into memory, a body touches no file, and one over the limit is a failure.
  for (std::size_t limit : {9, 8}) {
    auto inMemory =
        KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(*url("/file"), target(), true);
    inMemory->receiveIntoMemory(limit);
    KTSFetchScheduler::fetchToEnd(*inMemory, nullptr);
    EXPECT_EQ(bool(inMemory->downloadError()), limit < 9) << limit;
    EXPECT_EQ(inMemory->takeReceivedBody(), limit < 9 ? "" : fmt::format("version {}", served_));
    EXPECT_EQ(readFile(target()), "old final");
    EXPECT_EQ(readFile(target() + ".previous"), "old archive");
  }

  server_.stop();
  auto refused = download("/file");
  ASSERT_TRUE(refused->downloadError());
  EXPECT_EQ(readFile(target()), "old final");
}

TEST_F(KTSFileDownloaderTest, ScheduledDownloadsOverlapAndEachEndsOnItsOwn) {
  const std::vector<std::string> routes = {"/gate", "/missing", "/gate",    "/truncated",
                                           "/gate", "/file",    "/redirect"};
  KTSFetchScheduler scheduler(4, nullptr);
  std::vector<std::shared_ptr<KTSFileDownloader>> downloaders;
  std::vector<std::string> ended;
  std::size_t fed = 0;
  // Fed one at a time as the scheduler asks, as a pass feeds it products.
  scheduler.run([&] {
    if (fed == routes.size()) return false;
    downloaders.push_back(KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(
        *url(routes[fed]), path(fmt::format("/downloads/{}.pkg", fed)), false));
    ++fed;
    scheduler.enqueue(downloaders.back(),
                      [&](KTSFileDownloader& done) { ended.push_back(done.downloadName()); });
    return true;
  });
  ASSERT_EQ(ended.size(), routes.size());
  EXPECT_NE(ended.front(), "0.pkg") << "a file that waits holds up none of the others";
  for (std::size_t i = 0; i < routes.size(); ++i) {
    std::string file = path(fmt::format("/downloads/{}.pkg", i));
    bool fails = routes[i] == "/missing" || routes[i] == "/truncated";
    EXPECT_EQ(bool(downloaders[i]->downloadError()), fails) << routes[i];
    EXPECT_EQ(std::filesystem::exists(file), !fails) << routes[i];
    EXPECT_FALSE(std::filesystem::exists(file + ".downloading")) << routes[i];
    if (routes[i] == "/gate") {
      EXPECT_EQ(readFile(file), "together");
    }
  }
  EXPECT_EQ(scheduler.counters().requests, routes.size());
  EXPECT_EQ(scheduler.counters().failed, 2u);
}

// Requests for kept files, mostly answered 304, do not wait for the slots of bodies: under a
// limit of one download, three of them are at the upstream at once.
TEST_F(KTSFileDownloaderTest, ConditionalRequestsRunBesideTheDownloadsOfBodies) {
  auto validators = std::make_shared<KTSFileValidators>(path("/validators"));
  KTSFetchScheduler scheduler(1, validators);
  EXPECT_EQ(scheduler.maxLight(), 4u);
  for (int i = 0; i < 3; ++i) {
    std::string kept = path(fmt::format("/kept/{}", i));
    writeFile(kept, "kept");
    validators->recordValidatorsForFile(kept, {"\"k\"", ""});
    scheduler.enqueue(
        KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(*url("/gate"), kept, false),
        {});
  }
  scheduler.run();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(readFile(path(fmt::format("/kept/{}", i))), "together");
}

// A kept file is asked for with its validators: a 304 keeps it (and makes its previous version
// the same file), a change upstream replaces it, and a file changed on disk or a server that
// sends no validators gets a plain request.
TEST_F(KTSFileDownloaderTest, ConditionalRequestsKeepUnchangedFiles) {
  const std::string store = path("/validators");
  auto validators = std::make_shared<KTSFileValidators>(store);
  KTSFetchScheduler scheduler(4, validators);
  scheduler_ = &scheduler;

  EXPECT_FALSE(download("/validated")->downloadError());
  EXPECT_EQ(lastConditionSeen(), "");
  EXPECT_EQ(readFile(target()), "body 1");
  auto kept = fileIdentity(target());
  auto unchanged = download("/validated");
  EXPECT_EQ(lastConditionSeen(), "\"v1\"");
  EXPECT_TRUE(unchanged->wasNotModified());
  EXPECT_FALSE(unchanged->downloadError());
  EXPECT_EQ(fileIdentity(target()), kept) << "a 304 leaves the file where it is";
  EXPECT_EQ(fileIdentity(target() + ".previous"), kept);
  EXPECT_EQ(scheduler.counters().notModified, 1u);

  // The record outlives the pass, and damage to it costs nothing but a plain request.
  ASSERT_TRUE(validators->save());
  EXPECT_EQ(KTSFileValidators(store).validatorsForFile(target())->etag, "\"v1\"");
  EXPECT_EQ(KTSFileValidators(store).validatorsForFile(target())->lastModified,
            "Mon, 23 Nov 2026 08:00:00 GMT");
  writeFile(path("/damaged"), "ondrel-validators 1\n" + target() + "\t6\tx\t\"v1\"\t\n" + target() +
                                  "\t6\t1\t\"a\rb\"\t\n" + target() +
                                  "\t9999999999999999999\t1\t\"v1\"\t\n" + target());
  EXPECT_FALSE(KTSFileValidators(path("/damaged")).validatorsForFile(target()));

  version_ = 2;
  download("/validated");
  EXPECT_EQ(readFile(target()), "body 2");
  EXPECT_EQ(readFile(target() + ".previous"), "body 1");

  writeFile(target(), "tampered");
  download("/validated");
  EXPECT_EQ(lastConditionSeen(), "") << "the kept file is not the one the validators came with";
  EXPECT_EQ(readFile(target()), "body 2");

  // Without validators from the server, every fetch is a whole one; so too with a Last-Modified
  // in the future, which would never let a change through (nor when kept from before).
  download("/file");
  download("/file");
  EXPECT_EQ(readFile(target()), "version 2");
  EXPECT_FALSE(validators->validatorsForFile(target()));
  download("/future");
  version_ = 3;
  download("/future");
  EXPECT_EQ(lastConditionSeen(), "");
  EXPECT_EQ(readFile(target()), "body 3");
  validators->recordValidatorsForFile(target(), {"", "Thu, 01 Jan 2099 00:00:00 GMT"});
  version_ = 4;
  download("/future");
  EXPECT_EQ(lastConditionSeen(), "");
  EXPECT_EQ(readFile(target()), "body 4");

  // The same bytes sent again in full leave the file in place.
  download("/same");
  auto same = fileIdentity(target());
  EXPECT_FALSE(download("/same")->downloadError());
  EXPECT_EQ(fileIdentity(target()), same);
  EXPECT_EQ(fileIdentity(target() + ".previous"), same);
}

TEST_F(KTSFileDownloaderTest, ADownloadCutShortIsContinuedWhereItBroke) {
  // 200 MiB cut three times: each try asks only for the rest.
  largeSize_ = 200 << 20;
  cuts_ = {50 << 20, 120 << 20, (200 << 20) - 1};
  std::shared_ptr<KTSFileDownloader> last;
  for (int attempt = 0; attempt < 4 && !std::filesystem::exists(target()); ++attempt) {
    last = download("/large");
  }
  EXPECT_TRUE(isLargeFile(target()));
  // The digest taken as the parts arrived is the whole file's.
  EXPECT_EQ(last->receivedDigest(), Sha256::ofFile(target(), nullptr));
  EXPECT_LE(largeBytesSent_.load(), largeSize_ + 3 * (1 << 16));
  EXPECT_FALSE(std::filesystem::exists(target() + ".downloading"));

  // Another version upstream since the cut, an upstream that ignores ranges, and a 416: each
  // time the whole file comes, never a mixture.
  largeSize_ = 1 << 20;
  for (int upset = 0; upset < 3; ++upset) {
    std::filesystem::remove(target());
    cuts_ = {300000};
    EXPECT_TRUE(download("/large")->downloadError());
    ASSERT_TRUE(std::filesystem::exists(target() + ".downloading")) << "kept to be continued";
    if (upset == 0) ++version_;
    ignoreRanges_ = upset == 1;
    answer416_ = upset == 2;
    last = download("/large");
    if (last->downloadError()) last = download("/large");
    EXPECT_TRUE(isLargeFile(target())) << upset;
    EXPECT_EQ(last->receivedDigest(), Sha256::ofFile(target(), nullptr)) << upset;
  }

  // Bytes that are not those a parent's digest names never take the file's place.
  auto doubted =
      KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(*url("/large"), target(), true);
  doubted->setExpectedDigest(std::string(64, '0'));
  std::string before = *Sha256::ofFile(target(), nullptr);
  std::filesystem::remove(target());
  KTSFetchScheduler::fetchToEnd(*doubted, nullptr);
  EXPECT_TRUE(doubted->downloadError());
  EXPECT_FALSE(doubted->receivedDigest());
  EXPECT_FALSE(std::filesystem::exists(target()));
  EXPECT_FALSE(std::filesystem::exists(target() + ".downloading"));
  auto trusted =
      KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(*url("/large"), target(), true);
  trusted->setExpectedDigest(before);
  KTSFetchScheduler::fetchToEnd(*trusted, nullptr);
  EXPECT_FALSE(trusted->downloadError());
}

TEST_F(KTSFileDownloaderTest, ABusyServerIsAskedAgainWhenItSaysAndSlowsThePass) {
  KTSFetchScheduler scheduler(8, nullptr);
  scheduler_ = &scheduler;
  auto busy = download("/busy");
  EXPECT_FALSE(busy->downloadError());
  EXPECT_EQ(readFile(target()), "done at last");
  EXPECT_EQ(busyRequests_.load(), 3);
  EXPECT_EQ(scheduler.counters().deferred, 2u);
  EXPECT_EQ(scheduler.counters().failed, 0u);
  EXPECT_EQ(scheduler.maxConcurrent(), 2u) << "halved each time it was asked to wait";
  EXPECT_TRUE(download("/closed")->downloadError()) << "a wait of over five minutes fails it";

  // No wait given: asked again a second later with half as many at once, down to one of each.
  EXPECT_FALSE(download("/crowded")->downloadError());
  EXPECT_EQ(readFile(target()), "room at last");
  EXPECT_EQ(scheduler.counters().deferred, 5u);
  EXPECT_EQ(scheduler.maxConcurrent(), 1u);
  EXPECT_EQ(scheduler.maxLight(), 1u);
  EXPECT_TRUE(download("/full")->downloadError()) << "one at a time, busy is a failure";
  EXPECT_EQ(scheduler.counters().deferred, 5u);
}

TEST_F(KTSFileDownloaderTest, ProgressAndRedirects) {
  auto unsized = download("/unsized");
  EXPECT_FALSE(unsized->downloadError());
  EXPECT_EQ(std::filesystem::file_size(target()), 30000u);
  EXPECT_FLOAT_EQ(unsized->percentComplete(), 0.0f) << "no length, no progress";

  auto redirected = download("/redirect");
  EXPECT_FALSE(redirected->downloadError());
  EXPECT_EQ(readFile(target()), "version 1");
  EXPECT_EQ(redirected->downloadBytes(), 9u) << "the count restarts with the final response";
}

TEST_F(KTSFileDownloaderTest, PathsAndRequestsThatCannotBeMade) {
  KTSFileDownloader dotted(*url("/file"), path("/a/./b.pkg"), true);
  EXPECT_EQ(dotted.downloadPath(), path("/a/b.pkg"));
  EXPECT_EQ(dotted.downloadingPath(), path("/a/./b.pkg.downloading"));
  EXPECT_EQ(dotted.archivePath(), path("/a/./b.pkg.previous"));
  EXPECT_EQ(dotted.downloadName(), "b.pkg");
  KTSFetchScheduler::fetchToEnd(dotted, nullptr);
  EXPECT_EQ(readFile(path("/a/b.pkg")), "version 1");

  writeFile(path("/plain"), "x");
  KTSFileDownloader blocked(*url("/file"), path("/plain/sub/b.pkg"), false);
  KTSFetchScheduler::fetchToEnd(blocked, nullptr);
  ASSERT_TRUE(blocked.downloadError());
  EXPECT_EQ(blocked.downloadError()->description(), "Enclosing directory creation failed.");
  EXPECT_EQ(blocked.downloadError()->domain(), "com.vantor.KTServer");
  EXPECT_EQ(blocked.downloadError()->code(), -1);

  KTSFileDownloader unsupported(*Url::parse("ftp://127.0.0.1/x.pkg"), target(), false);
  KTSFetchScheduler::fetchToEnd(unsupported, nullptr);
  ASSERT_TRUE(unsupported.downloadError());
  EXPECT_EQ(unsupported.downloadError()->description(),
            "Remote file request could not be created.");
  EXPECT_TRUE(unsupported.isDone());
  EXPECT_EQ(server_.requestCount(), 1);
}

TEST_F(KTSFileDownloaderTest, BandwidthLimitAsksForTheRightPauses) {
  KTSFileDownloader downloader(*url("/file"), target(), false);
  downloader.setMaxSyncBW(100 * 1024);
  auto pace = std::make_shared<KTSSyncPace>();
  pace->start = clock_->now();
  downloader.setPace(pace);
  clock_->advance(std::chrono::milliseconds(500));
  pace->bytes = 204800;
  downloader.enforceSyncBandwidthLimit();
  ASSERT_EQ(clock_->sleeps().size(), 1u);
  EXPECT_NEAR(clock_->sleeps()[0], 1.5, 1e-9);

  // Now 2 s have passed; 1,000 bytes over the allowance need under 0.05 s and are not waited for.
  pace->bytes = 204800 + 1000;
  downloader.enforceSyncBandwidthLimit();
  EXPECT_EQ(clock_->sleeps().size(), 1u);

  // Through a real transfer: 30,000 bytes at 1 KiB/s ask for about 29 s of pauses in all.
  KTSFetchScheduler alone(1, nullptr, {1024, 1024});
  scheduler_ = &alone;
  auto limited = download("/unsized");
  EXPECT_FALSE(limited->downloadError());
  double paused = std::accumulate(clock_->sleeps().begin() + 1, clock_->sleeps().end(), 0.0);
  EXPECT_NEAR(paused, 30000.0 / 1024.0, 0.1);

  // Transfers that run at once share the limit: three of them ask for three times the pauses.
  std::size_t before = clock_->sleeps().size();
  KTSFetchScheduler scheduler(3, nullptr, {1024, 1024});
  for (int i = 0; i < 3; ++i) {
    scheduler.enqueue(KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(
                          *url("/unsized"), path(fmt::format("/limited/{}", i)), false),
                      {});
  }
  scheduler.run();
  EXPECT_EQ(scheduler.counters().failed, 0u);
  paused = std::accumulate(clock_->sleeps().begin() + before, clock_->sleeps().end(), 0.0);
  EXPECT_NEAR(paused, 90000.0 / 1024.0, 0.2);
}

TEST_F(KTSFileDownloaderTest, HttpsNeedsATrustedCertificate) {
  test::Certificate certificate = test::makeThrowAwayCertificate(root_);
  ASSERT_FALSE(certificate.certificatePath.empty());
  LoopbackServer secure(&certificate);
  secure.routes().Get("/secure.pkg", [](const httplib::Request&, httplib::Response& response) {
    response.set_content("secret", "application/octet-stream");
  });
  ASSERT_TRUE(secure.start());
  auto secureUrl = *Url::parse(secure.url("/secure.pkg"));

  KTSFileDownloader untrusted(secureUrl, target(), false);
  KTSFetchScheduler::fetchToEnd(untrusted, nullptr);
  ASSERT_TRUE(untrusted.downloadError());
  EXPECT_FALSE(std::filesystem::exists(target()));

  ::setenv("ONDREL_CA_BUNDLE", certificate.certificatePath.c_str(), 1);
  KTSFileDownloader trusted(secureUrl, target(), false);
  KTSFetchScheduler::fetchToEnd(trusted, nullptr);
  ::unsetenv("ONDREL_CA_BUNDLE");
  EXPECT_FALSE(trusted.downloadError());
  EXPECT_EQ(readFile(target()), "secret");
}

TEST_F(KTSFileDownloaderTest, WrapperSkipsExistingFilesAndReportsFailures) {
  writeFile(target(), "kept");
  EXPECT_TRUE(KTSFetchScheduler::downloadFileWithURLToPathReplaceExistingArchivePrevious(
      *url("/content/x/item.pkg"), target(), false, false));
  EXPECT_EQ(server_.requestCount(), 0);
  EXPECT_TRUE(logged("ondrd_test[INF]: Skipping download; REPLACE = NO, file exists: item.pkg)"));

  EXPECT_FALSE(KTSFetchScheduler::downloadFileWithURLToPathReplaceExistingArchivePrevious(
      *url("/missing"), target(), true, false));
  EXPECT_TRUE(
      logged("ondrd_test[ERR]: Download for \"item.pkg\" failed (reason: HTTP status 404)"));
  EXPECT_TRUE(KTSFetchScheduler::downloadFileWithURLToPathReplaceExistingArchivePrevious(
      *url("/file"), path("/downloads/./item.pkg"), true, true));
  EXPECT_EQ(readFile(target()), "version 1");
  EXPECT_EQ(readFile(target() + ".previous"), "kept");
}

// A downloader killed in the middle of a large transfer leaves the old file or nothing, never a
// part. The server and the downloader run in processes of their own, forked before any thread.
TEST(KTSFileDownloaderCrashTest, KilledMidwayLeavesTheOldFile) {
  char pattern[] = "/tmp/ondrel-crash-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const std::string folder = pattern;
  const std::string finalPath = folder + "/big.pkg";
  OndrelTest::writeFile(finalPath, "old complete file");
  // A port the kernel just handed out, not one derived from the PID, which another test's
  // connection may hold.
  const int port = test::freeLoopbackPort();
  const std::string source = fmt::format("http://127.0.0.1:{}/big", port);

  pid_t server = fork();
  ASSERT_GE(server, 0);
  if (server == 0) {
    httplib::Server slow;
    slow.Get("/big", [](const httplib::Request&, httplib::Response& response) {
      response.set_content_provider(64 << 20, "application/octet-stream",
                                    [](std::size_t, std::size_t, httplib::DataSink& sink) {
                                      std::string chunk(64 << 10, 'p');
                                      std::this_thread::sleep_for(std::chrono::milliseconds(20));
                                      return sink.write(chunk.data(), chunk.size());
                                    });
    });
    slow.Get("/small", [](const httplib::Request&, httplib::Response& response) {
      response.set_content("new complete file", "application/octet-stream");
    });
    slow.listen("127.0.0.1", port);
    _exit(0);
  }
  pid_t downloader = fork();
  ASSERT_GE(downloader, 0);
  if (downloader == 0) {
    ::setenv("ONDREL_ROOT", folder.c_str(), 1);
    for (int attempt = 0; attempt < 100; ++attempt) {
      KTSFileDownloader attempted(*Url::parse(source), finalPath, true);
      KTSFetchScheduler::fetchToEnd(attempted, nullptr);
      usleep(20000);
    }
    _exit(0);
  }
  // Kill the downloader once its side file holds a good part of the body.
  const std::string sideFile = finalPath + ".downloading";
  auto sideFileSize = [&sideFile] {
    std::error_code error;
    auto size = std::filesystem::file_size(sideFile, error);
    return error ? 0 : size;
  };
  for (int i = 0; i < 3000 && sideFileSize() < (1u << 20); ++i) usleep(10000);
  ASSERT_GE(sideFileSize(), 1u << 20) << "the download never started";
  kill(downloader, SIGKILL);
  waitpid(downloader, nullptr, 0);
  EXPECT_EQ(OndrelTest::readFile(finalPath), "old complete file");

  ::setenv("ONDREL_ROOT", folder.c_str(), 1);
  KTSFileDownloader again(*Url::parse(fmt::format("http://127.0.0.1:{}/small", port)), finalPath,
                          true);
  KTSFetchScheduler::fetchToEnd(again, nullptr);
  ::unsetenv("ONDREL_ROOT");
  EXPECT_FALSE(again.downloadError());
  EXPECT_EQ(OndrelTest::readFile(finalPath), "new complete file");
  kill(server, SIGKILL);
  waitpid(server, nullptr, 0);
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
}

}  // namespace
}  // namespace ondrel
