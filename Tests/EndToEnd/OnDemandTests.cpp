// Products served before their files are here, through the real Apache and the fetch-on-miss
// CGI: a pass fetches no product file; clients asking at once share one upstream request and all
// receive the upstream's bytes, one of them giving up stops nobody; a fetch that fails (an error
// status, a connection cut mid-stream, too many bytes, bytes whose digest is not the one a parent
// mirror published) cuts its clients short, places nothing and
// is answered 502/503 with Retry-After until that has passed, then tried again; files no served
// product names are never fetched.
#include <sys/stat.h>

#include <filesystem>
#include <future>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "ApacheServer.h"
#include "KTSServerLayout.h"
#include "LoopbackServer.h"
#include "OndrelTest.h"
#include "ProgramRunner.h"
#include "SampleTree.h"
#include "Sha256.h"

namespace ondrel {
namespace {

using test::ProgramResult;

// The vendor, served in process so that a test can make one file fail, break off or trickle,
// and count the requests for each path.
class ControllableUpstream {
 public:
  enum class Mode { Normal, Error, CutHalfway, TooLong, Trickle };

  explicit ControllableUpstream(std::string folder) : folder_(std::move(folder)) {
    server_.routes().Get(R"(/content/.*)",
                         [this](const httplib::Request& request, httplib::Response& response) {
                           serve(request.path, response);
                         });
    // A parent mirror's digest manifests, when the test publishes one.
    server_.routes().Get(R"(/digests/(.*))",
                         [this](const httplib::Request& request, httplib::Response& response) {
                           std::lock_guard lock(mutex_);
                           auto manifest = manifests_.find(request.matches[1]);
                           if (manifest == manifests_.end()) {
                             response.status = 404;
                           } else {
                             response.set_content(manifest->second, "text/plain");
                           }
                         });
  }
  // Publishes, as a parent would, that the file at urlPath of productId has this SHA-256.
  void publishDigest(const std::string& productId, const std::string& urlPath,
                     const std::string& sha256) {
    std::lock_guard lock(mutex_);
    manifests_[productId] =
        fmt::format("ondrel-digests 1\n{}\t{}\t{}\n", sha256,
                    test::OndrelTest::readFile(folder_ + urlPath).size(), urlPath.substr(1));
  }
  bool start() { return server_.start(); }
  std::string url(const std::string& path) const { return server_.url(path); }
  void setMode(const std::string& path, Mode mode) {
    std::lock_guard lock(mutex_);
    modes_[path] = mode;
  }
  int requestsFor(const std::string& path) {
    std::lock_guard lock(mutex_);
    return requests_[path];
  }
  int productFileRequests() {
    std::lock_guard lock(mutex_);
    int count = 0;
    for (const auto& [path, number] : requests_) {
      if (path.starts_with("/content/downloads/") && path.ends_with(".pkg")) count += number;
    }
    return count;
  }

 private:
  void serve(const std::string& path, httplib::Response& response) {
    Mode mode = Mode::Normal;
    {
      std::lock_guard lock(mutex_);
      ++requests_[path];
      if (modes_.count(path) != 0) mode = modes_[path];
    }
    auto body = std::make_shared<std::string>(test::OndrelTest::readFile(folder_ + path));
    if (mode == Mode::Error) {
      response.status = 500;
      return;
    }
    if (mode == Mode::TooLong) body->append(1000, 'x');
    std::size_t stop = mode == Mode::CutHalfway ? body->size() / 2 : body->size();
    bool trickle = mode == Mode::Trickle;
    response.set_content_provider(
        body->size(), "application/octet-stream",
        [body, stop, trickle](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
          if (offset >= stop) return false;
          std::size_t piece = std::min({length, stop - offset, std::size_t{64 * 1024}});
          if (trickle) std::this_thread::sleep_for(std::chrono::milliseconds(100));
          return sink.write(body->data() + offset, piece);
        });
  }

  std::string folder_;
  test::LoopbackServer server_;
  std::mutex mutex_;
  std::map<std::string, Mode> modes_;
  std::map<std::string, int> requests_;
  std::map<std::string, std::string> manifests_;
};

class OnDemandTest : public test::OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    Clock::install(nullptr);
    upstream_ = std::make_unique<ControllableUpstream>(root_ + "/upstream");
    ASSERT_TRUE(upstream_->start());
    sample::generateTree({.outputFolder = root_ + "/upstream",
                          .baseURL = upstream_->url(""),
                          .products = 12,
                          .packageSize = 1 << 20});
    port_ = test::freeLoopbackPort();
    for (const std::vector<std::string>& setting :
         {std::vector<std::string>{"metaIndexURL", upstream_->url("/content/meta/config.plist")},
          {"publicHostName", "127.0.0.1"},
          {"portToUse", std::to_string(port_)},
          {"autoMirror", "true"},
          {"autoEnable", "true"},
          {"autoMirrorPolicy", "on-demand"},
          {"onDemandRetryAfter", "2"},
          {"scrubMaxDuration", "0"}}) {
      ProgramResult set = ctl({"config", "set", setting[0], setting[1]});
      ASSERT_EQ(set.exitStatus, 0) << set.output;
    }
    ProgramResult started = ctl({"web", "start"});
    ASSERT_EQ(started.exitStatus, 0) << started.output;
    ProgramResult pass = test::runProgram(ONDREL_SYNCD, {"--once"});
    ASSERT_EQ(pass.exitStatus, 0) << pass.output;
    ASSERT_EQ(upstream_->productFileRequests(), 0) << "a pass fetched files of on-demand products";
    // The largest package the served products name.
    std::istringstream index(readFile(context().layout().documentRoot() + "/.ondemand/index"));
    std::int64_t largest = 0;
    for (std::string line; std::getline(index, line);) {
      std::istringstream fields(line);
      std::string urlPath;
      std::string sizeText;
      std::string url;
      std::string productId;
      if (!std::getline(fields, urlPath, '\t') || !std::getline(fields, sizeText, '\t') ||
          !std::getline(fields, url, '\t') || !std::getline(fields, productId)) {
        continue;
      }
      if (urlPath.ends_with(".dist")) distribution_ = urlPath;
      std::int64_t size = std::atoll(sizeText.c_str());
      if (urlPath.ends_with(".pkg") && size > largest) {
        package_ = urlPath;
        packageProduct_ = productId;
        largest = size;
      }
    }
    ASSERT_FALSE(package_.empty() || distribution_.empty()) << "the index names no package";
  }
  void TearDown() override {
    ctl({"web", "stop"});
    upstream_.reset();
    OndrelTest::TearDown();
  }

  static ProgramResult ctl(const std::vector<std::string>& arguments) {
    return test::runProgram(ONDREL_CTL, arguments);
  }

  struct Answer {
    int curlExit = 0;
    int status = 0;
    std::string headers;
    std::string body;
  };
  Answer get(const std::string& urlPath, const std::vector<std::string>& options = {}) const {
    static std::atomic<int> next{0};
    std::string name = fmt::format("{}/answer-{}", root_, next++);
    std::vector<std::string> arguments = {"-s", "--path-as-is", "-D", name + ".headers",
                                          "-o", name,           "-w", "%{http_code}"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.push_back(fmt::format("http://127.0.0.1:{}{}", port_, urlPath));
    ProgramResult curl = test::runProgram("/usr/bin/curl", arguments);
    Answer answer{curl.exitStatus, std::atoi(curl.output.c_str()), "", ""};
    if (std::filesystem::exists(name + ".headers")) answer.headers = readFile(name + ".headers");
    if (std::filesystem::exists(name)) answer.body = readFile(name);
    return answer;
  }
  std::string upstreamBytes(const std::string& urlPath) const {
    return readFile(root_ + "/upstream" + urlPath);
  }
  bool placed(const std::string& urlPath) {
    return std::filesystem::exists(context().layout().htmlFolder() + urlPath);
  }

  std::unique_ptr<ControllableUpstream> upstream_;
  int port_ = 0;
  std::string package_;
  std::string packageProduct_;
  std::string distribution_;  // a file whose catalog names no size
};

TEST_F(OnDemandTest, ClientsAskingAtOnceShareOneFetchAndReceiveTheUpstreamBytes) {
  upstream_->setMode(package_, ControllableUpstream::Mode::Trickle);
  std::vector<std::future<Answer>> clients;
  for (int client = 0; client < 8; ++client) {
    // Some clients speak HTTP/2, which the web server offers.
    std::vector<std::string> options;
    if (client % 2 == 0) options.push_back("--http2-prior-knowledge");
    clients.push_back(
        std::async(std::launch::async, [this, options] { return get(package_, options); }));
  }
  // One client gives up half a second in; the fetch and the others go on.
  Answer impatient = get(package_, {"--max-time", "0.5"});
  EXPECT_NE(impatient.curlExit, 0);
  const std::string expected = upstreamBytes(package_);
  for (std::size_t client = 0; client < clients.size(); ++client) {
    Answer answer = clients[client].get();
    EXPECT_EQ(answer.status, 200) << answer.headers;
    if (client % 2 == 0) {
      EXPECT_TRUE(answer.headers.starts_with("HTTP/2 ")) << answer.headers;
    }
    EXPECT_TRUE(answer.body == expected) << "received " << answer.body.size() << " bytes";
  }
  EXPECT_EQ(upstream_->requestsFor(package_), 1);
  EXPECT_TRUE(placed(package_));
  Answer distribution = get(distribution_);
  EXPECT_EQ(distribution.status, 200);
  EXPECT_TRUE(distribution.body == upstreamBytes(distribution_));
  // In place, the file is Apache's: ranges and all; the upstream is not asked again.
  Answer range = get(package_, {"-r", "10-19"});
  EXPECT_EQ(range.status, 206);
  EXPECT_EQ(range.body, expected.substr(10, 10));
  EXPECT_EQ(upstream_->requestsFor(package_), 1);
  // The next pass records the digest of what arrived (a quick verify finds it), and still
  // fetches no file itself.
  ProgramResult pass = test::runProgram(ONDREL_SYNCD, {"--once"});
  ASSERT_EQ(pass.exitStatus, 0) << pass.output;
  ProgramResult verify = ctl({"verify", "--quick", "--json"});
  EXPECT_EQ(verify.exitStatus, 0) << verify.output;
  EXPECT_EQ(upstream_->productFileRequests(), 1);
  EXPECT_EQ(upstream_->requestsFor(distribution_), 1);
}

TEST_F(OnDemandTest, AFailedFetchCutsItsClientsPlacesNothingAndIsTriedAgainLater) {
  const std::string expected = upstreamBytes(package_);
  Sha256 digest;
  digest.add(expected);
  const std::string sha256 = digest.hexDigest();
  // Normal: the bytes are right, but not those the upstream (as a parent) published.
  for (auto mode : {ControllableUpstream::Mode::CutHalfway, ControllableUpstream::Mode::TooLong,
                    ControllableUpstream::Mode::Error, ControllableUpstream::Mode::Normal}) {
    SCOPED_TRACE(static_cast<int>(mode));
    upstream_->setMode(package_, mode);
    if (mode == ControllableUpstream::Mode::Normal) {
      upstream_->publishDigest(packageProduct_, package_, std::string(64, '0'));
    }
    int before = upstream_->requestsFor(package_);
    Answer failed = get(package_);
    // Never a whole-looking file: either a status that says so, or a response cut short.
    EXPECT_TRUE(failed.status >= 500 || failed.curlExit != 0)
        << failed.headers << failed.body.size() << " bytes, curl " << failed.curlExit;
    EXPECT_NE(failed.body, expected);
    EXPECT_FALSE(placed(package_));
    // Until Retry-After has passed, clients are told to come back, and the upstream is spared.
    Answer next = get(package_);
    EXPECT_TRUE(next.status == 502 || next.status == 503) << next.status;
    EXPECT_NE(next.headers.find("Retry-After: "), std::string::npos) << next.headers;
    EXPECT_EQ(upstream_->requestsFor(package_), before + 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  }
  upstream_->publishDigest(packageProduct_, package_, sha256);
  Answer retried = get(package_);
  EXPECT_EQ(retried.status, 200);
  EXPECT_TRUE(retried.body == expected);
  EXPECT_TRUE(placed(package_));
}

TEST_F(OnDemandTest, OnlyFilesThatServedProductsNameAreFetched) {
  std::string folder = package_.substr(0, package_.rfind('/'));
  for (const std::string& urlPath :
       {folder + "/not-named.pkg", folder + "/../../../../Status/ondrd.log",
        std::string("/content/downloads/%2e%2e/%2e%2e/etc/passwd")}) {
    Answer answer = get(urlPath);
    EXPECT_TRUE(answer.status == 404 || answer.status == 400 || answer.status == 403)
        << urlPath << ": " << answer.status;
  }
  EXPECT_EQ(upstream_->productFileRequests(), 0);
  // A HEAD fetches nothing, and other methods are refused.
  EXPECT_EQ(get(package_, {"-I"}).status, 200);
  EXPECT_EQ(get(package_, {"-X", "DELETE"}).status, 405);
  EXPECT_EQ(upstream_->productFileRequests(), 0);
}

}  // namespace
}  // namespace ondrel
