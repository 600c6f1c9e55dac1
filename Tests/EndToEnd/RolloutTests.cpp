// A staged rollout through the real Apache and the catalog CGI: clients on different loopback
// addresses (IPv4 and IPv6) sent to their ring's catalog, a forged forwarded-for header ignored
// unless a trusted proxy sent it, conditional requests per ring, the administrator's advance,
// the service opening a ring when its time comes,
// and the rings removed again.
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "ApacheServer.h"
#include "KTCatalogKeys.h"
#include "OndrelTest.h"
#include "ProgramRunner.h"
#include "SampleVendor.h"

namespace ondrel {
namespace {

using test::ProgramResult;

const std::string kTaltos16 = "Vantor-Update/1.0 Taltos/16.0.0";

class RolloutTest : public test::OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    Clock::install(nullptr);
    vendor_ = std::make_unique<test::SampleVendor>(root_ + "/upstream");
    vendor_->publishEpoch(0);
    port_ = test::freeLoopbackPort();
    for (const std::vector<std::string>& setting :
         {std::vector<std::string>{"metaIndexURL", vendor_->metaIndexURL()},
          {"publicHostName", "127.0.0.1"},
          {"portToUse", std::to_string(port_)},
          {"autoMirror", "true"},
          {"autoEnable", "true"},
          {"PurgeUnused", "true"},
          {"scrubMaxDuration", "0"}}) {
      ProgramResult set = ctl({"config", "set", setting[0], setting[1]});
      ASSERT_EQ(set.exitStatus, 0) << set.output;
    }
    ProgramResult started = ctl({"web", "start"});
    ASSERT_EQ(started.exitStatus, 0) << started.output;
  }
  void TearDown() override {
    ctl({"web", "stop"});
    vendor_.reset();
    OndrelTest::TearDown();
  }

  static ProgramResult ctl(const std::vector<std::string>& arguments) {
    return test::runProgram(ONDREL_CTL, arguments);
  }
  static void pass() {
    ProgramResult result = test::runProgram(ONDREL_SYNCD, {"--once"});
    ASSERT_EQ(result.exitStatus, 0) << result.output;
  }

  struct Fetched {
    std::string url;  // where the redirects ended
    int status = 0;
    std::string etag;
    std::set<std::string> products;
  };
  // A client's catalog request from the local address from, as curl follows it.
  Fetched fetch(const std::string& from, const std::vector<std::string>& headers = {},
                const std::string& target = "/index.ktcatalog") const {
    std::string host = from.find(':') != std::string::npos ? "[::1]" : "127.0.0.1";
    std::vector<std::string> arguments = {"-s",
                                          "-g",
                                          "-L",
                                          "--interface",
                                          from,
                                          "-A",
                                          kTaltos16,
                                          "-D",
                                          root_ + "/headers",
                                          "-o",
                                          root_ + "/body",
                                          "-w",
                                          "%{http_code} %{url_effective}",
                                          fmt::format("http://{}:{}{}", host, port_, target)};
    for (const std::string& header : headers) {
      arguments.insert(arguments.begin(), {"-H", header});
    }
    ProgramResult curl = test::runProgram("/usr/bin/curl", arguments);
    Fetched fetched;
    std::istringstream written(curl.output);
    written >> fetched.status >> fetched.url;
    std::smatch tag;
    std::string headerText = readFile(root_ + "/headers");
    if (std::regex_search(headerText, tag,
                          std::regex("ETag: (?:W/)?(\"[^\"]+\")", std::regex::icase))) {
      fetched.etag = tag[1];
    }
    if (fetched.status == 200) {
      std::optional<Plist> catalog = Plist::fromBytes(readFile(root_ + "/body"), nullptr);
      for (const auto& [productId, entry] :
           catalog.value_or(Plist())[KTCatalogProductsDictKey].items()) {
        fetched.products.insert(productId.text());
      }
    }
    return fetched;
  }

  std::unique_ptr<test::SampleVendor> vendor_;
  int port_ = 0;
};

TEST_F(RolloutTest, ClientsAreSentToTheCatalogOfTheirRing) {
  pass();
  const std::set<std::string> before = fetch("127.0.0.3").products;
  ASSERT_FALSE(before.empty());
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"rings", "set", "pilot", "--blocks", "127.0.0.2,::1"},
        {"rings", "set", "broad", "--delay", "15s", "--share", "100"},
        {"rings", "trust", "127.0.0.4"}}) {
    ProgramResult done = ctl(command);
    ASSERT_EQ(done.exitStatus, 0) << done.output;
  }
  EXPECT_EQ(ctl({"rings", "which", "127.0.0.2"}).output, "pilot\n");
  EXPECT_EQ(ctl({"rings", "which", "127.0.0.4", "--forwarded-for", "::1"}).output, "pilot\n");
  EXPECT_EQ(ctl({"rings", "which", "127.0.0.3", "--forwarded-for", "127.0.0.2"}).output, "broad\n");
  EXPECT_NE(ctl({"rings", "set", "Bad!"}).exitStatus, 0);

  // The vendor's next day: its new products reach the pilot ring at once, the broad one later.
  vendor_->publishEpoch(1);
  pass();
  Fetched pilot = fetch("127.0.0.2");
  Fetched broad = fetch("127.0.0.3");
  EXPECT_EQ(pilot.status, 200);
  EXPECT_NE(pilot.url.find("/content/catalogs/rings/pilot/"), std::string::npos) << pilot.url;
  EXPECT_NE(broad.url.find("/content/catalogs/rings/broad/"), std::string::npos) << broad.url;
  std::vector<std::string> fresh;
  std::set_difference(pilot.products.begin(), pilot.products.end(), broad.products.begin(),
                      broad.products.end(), std::back_inserter(fresh));
  ASSERT_FALSE(fresh.empty()) << "the new products are in the pilot ring only";
  EXPECT_EQ(fetch("::1").products, pilot.products);
  Fetched direct = fetch("127.0.0.2", {}, "/content/catalogs/others/" + test::kNewestCatalog);
  EXPECT_EQ(direct.products, pilot.products)
      << "the usual place sends a client (or a child mirror) to its ring too: " << direct.url;
  EXPECT_EQ(fetch("127.0.0.3", {"X-Forwarded-For: 127.0.0.2"}).products, broad.products)
      << "a forged header from a client counts for nothing";
  EXPECT_EQ(fetch("127.0.0.4", {"X-Forwarded-For: 127.0.0.2"}).products, pilot.products)
      << "the trusted proxy's does";
  EXPECT_EQ(fetch("127.0.0.2", {"If-None-Match: " + pilot.etag}).status, 304);
  EXPECT_EQ(fetch("127.0.0.3", {"If-None-Match: " + pilot.etag}).status, 200)
      << "each ring's catalog has its own tag";
  // A pilot client installs a new product: the status counts it in its ring.
  std::string package =
      vendor_->products()[fresh[0]][KTCatalogProductPackagesKey][0]["URL"].stringValue();
  package = fmt::format("http://127.0.0.1:{}{}", port_, package.substr(package.find("/content/")));
  ASSERT_EQ(test::runProgram("/usr/bin/curl",
                             {"-sf", "--interface", "127.0.0.2", "-o", root_ + "/package", package})
                .exitStatus,
            0);
  ProgramResult status = ctl({"rings", "status"});
  EXPECT_TRUE(std::regex_search(
      status.output,
      std::regex(fresh[0] + " +reached pilot +next broad at 20.*; clients pilot 1, broad 0")))
      << status.output;

  ProgramResult refused = ctl({"rings", "rollback", fresh[0], "nowhere"});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_NE(refused.output.find("there is no ring nowhere; nothing was posted"), std::string::npos)
      << refused.output;
  ProgramResult advanced = ctl({"rings", "advance", fresh[0]});
  ASSERT_EQ(advanced.exitStatus, 0) << advanced.output;
  pass();
  EXPECT_TRUE(fetch("127.0.0.3").products.contains(fresh[0])) << "advanced to the broad ring";
  EXPECT_NE(ctl({"rings", "status"}).output.find("advance to broad"), std::string::npos);

  // The service writes the rings' catalogs again when the broad ring's time comes, unasked.
  ASSERT_GE(fresh.size(), 2u);
  {
    test::BackgroundProgram service(ONDREL_SYNCD, {"--interval", "86400"});
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!fetch("127.0.0.3").products.contains(fresh.back()) &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    EXPECT_TRUE(fetch("127.0.0.3").products.contains(fresh.back())) << "the broad ring opened";
  }

  for (const char* ring : {"pilot", "broad"}) {
    ProgramResult removed = ctl({"rings", "remove", ring});
    ASSERT_EQ(removed.exitStatus, 0) << removed.output;
  }
  pass();
  Fetched plain = fetch("127.0.0.3");
  EXPECT_EQ(plain.products, pilot.products) << "without rings every client sees everything";
  EXPECT_EQ(plain.url.find("/rings/"), std::string::npos) << plain.url;
  EXPECT_FALSE(
      std::filesystem::exists(path("/Library/Server/Ondrel/Data/html/content/catalogs/rings")));
}

}  // namespace
}  // namespace ondrel
