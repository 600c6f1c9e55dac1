// The whole system through its programs: a sample upstream and mirrors on real Apache servers,
// across the vendor's days, with the service, signals, crashes, a child server, and incremental
// passes held against full rebuilds.
#include <fcntl.h>
#include <httplib.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "ApacheServer.h"
#include "Clock.h"
#include "FileIO.h"
#include "KTCatalogKeys.h"
#include "OndrelTest.h"
#include "ProgramRunner.h"
#include "SampleVendor.h"

namespace ondrel {
namespace {

using test::kNewestCatalog;
using test::OndrelTest;
using test::ProgramResult;
using test::runProgram;

// One Ondrel Server with a service root of its own, driven only through its programs.
class Mirror {
 public:
  Mirror(std::string root, int port) : root_(std::move(root)), port_(port) {
    std::filesystem::create_directories(root_ + "/Library/Server");
    std::filesystem::create_directories(root_ + "/Library/Preferences");
  }
  ~Mirror() { ctl({"web", "stop"}); }

  ProgramResult run(const char* program, const std::vector<std::string>& arguments) const {
    std::string saved = std::getenv("ONDREL_ROOT");
    ::setenv("ONDREL_ROOT", root_.c_str(), 1);
    ProgramResult result = runProgram(program, arguments);
    ::setenv("ONDREL_ROOT", saved.c_str(), 1);
    return result;
  }
  ProgramResult ctl(const std::vector<std::string>& arguments) const {
    return run(ONDREL_CTL, arguments);
  }
  ProgramResult pass() const { return run(ONDREL_SYNCD, {"--once"}); }
  std::unique_ptr<test::BackgroundProgram> start(const std::vector<std::string>& arguments) const {
    std::string saved = std::getenv("ONDREL_ROOT");
    ::setenv("ONDREL_ROOT", root_.c_str(), 1);
    auto program = std::make_unique<test::BackgroundProgram>(ONDREL_SYNCD, arguments);
    ::setenv("ONDREL_ROOT", saved.c_str(), 1);
    return program;
  }
  // The line of "ondrelctl status --json" that holds key, or "" when there is none.
  std::string status(const std::string& key) const {
    std::string json = ctl({"status", "--json"}).output;
    std::size_t at = json.find("\"" + key + "\": ");
    return at == std::string::npos ? "" : json.substr(at, json.find('\n', at) - at);
  }

  // Points the mirror at an upstream (the vendor or a parent mirror) and sets its mode.
  void configure(int upstreamPort, bool automatic) const {
    for (const std::vector<std::string>& setting :
         {std::vector<std::string>{
              "metaIndexURL",
              fmt::format("http://127.0.0.1:{}/content/meta/config.plist", upstreamPort)},
          {"publicHostName", "127.0.0.1"},
          {"portToUse", std::to_string(port_)},
          {"autoMirror", automatic ? "true" : "false"},
          {"autoEnable", automatic ? "true" : "false"},
          {"PurgeUnused", automatic ? "true" : "false"}}) {
      ProgramResult set = ctl({"config", "set", setting[0], setting[1]});
      ASSERT_EQ(set.exitStatus, 0) << set.output;
    }
  }

  std::string html() const { return root_ + "/Library/Server/Ondrel/Data/html"; }
  Plist served(const std::string& name = kNewestCatalog) const {
    return Plist::readFile(html() + "/content/catalogs/others/" + name, nullptr).value_or(Plist());
  }
  Plist composite(const std::string& name = kNewestCatalog) const {
    return Plist::readFile(html() + "/content/catalogs/others/" + name + ".composite", nullptr)
        .value_or(Plist())[KTCatalogProductsDictKey];
  }
  int port() const { return port_; }
  const std::string& root() const { return root_; }

 private:
  std::string root_;
  int port_;
};

class WholeSystemTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    vendor_ = std::make_unique<test::SampleVendor>(root_ + "/upstream");
  }
  void TearDown() override {
    vendor_.reset();
    OndrelTest::TearDown();
  }

  void publishEpoch(int epoch, std::uint64_t packageSize = 2048) {
    vendor_->publishEpoch(epoch, packageSize);
  }

  // Polls until condition holds or the deadline passes.
  static bool eventually(const std::function<bool()>& condition,
                         std::chrono::seconds deadline = std::chrono::seconds(60)) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (std::chrono::steady_clock::now() < end) {
      if (condition()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return condition();
  }

  std::unique_ptr<test::SampleVendor> vendor_;
};

TEST_F(WholeSystemTest, AutomaticModeFollowsTheVendorDayByDay) {
  Mirror mirror(root_ + "/mirror", test::freeLoopbackPort());
  publishEpoch(0);
  mirror.configure(vendor_->port(), true);
  for (int epoch = 0; epoch <= 2; ++epoch) {
    if (epoch > 0) publishEpoch(epoch);
    ProgramResult pass = mirror.pass();
    ASSERT_EQ(pass.exitStatus, 0) << "epoch " << epoch << ": " << pass.output;
    Plist served = mirror.served()[KTCatalogProductsDictKey];
    EXPECT_EQ(served.size(), vendor_->servableCount()) << epoch;
    for (const Plist& withdrawn : vendor_->manifest()["withdrawnThisEpoch"].elements()) {
      EXPECT_FALSE(served.contains(withdrawn.stringValue())) << withdrawn.stringValue();
      EXPECT_FALSE(mirror.composite().contains(withdrawn.stringValue())) << "purged";
    }
    for (const Plist& added : vendor_->manifest()["addedThisEpoch"].elements()) {
      EXPECT_EQ(mirror.composite()[added.stringValue()]["CompositeProductState"].integerValue(), 1)
          << added.stringValue();
    }
  }
  // Every URL served names this server and a file that is there.
  const std::string prefix = fmt::format("http://127.0.0.1:{}/", mirror.port());
  std::function<void(const Plist&)> walk = [&](const Plist& value) {
    if (value.isString() && value.stringValue().rfind("http", 0) == 0) {
      EXPECT_EQ(value.stringValue().rfind(prefix, 0), 0u) << value.stringValue();
      std::string local = mirror.html() + value.stringValue().substr(prefix.size() - 1);
      EXPECT_TRUE(std::filesystem::exists(local)) << local;
    }
    for (const auto& [key, item] : value.items()) walk(item);
    for (const Plist& item : value.elements()) walk(item);
  };
  walk(mirror.served()[KTCatalogProductsDictKey]);
  EXPECT_TRUE(mirror.served().contains(KTCatalogIndexDateKey));
  EXPECT_FALSE(
      std::filesystem::exists(mirror.root() + "/Library/Server/Ondrel/Status/.pass_progress"))
      << "no progress is left once the pass is over";
  EXPECT_TRUE(std::filesystem::is_symlink(mirror.html() + "/" + kNewestCatalog));

  // A second pass finds nothing new; a pass while another holds the lock is refused.
  EXPECT_EQ(mirror.pass().exitStatus, 0);
  int fd =
      ::open((mirror.root() + "/Library/Server/Ondrel/Status/ondrd_syncd.lock").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::flock(fd, LOCK_EX), 0);
  ASSERT_EQ(::pwrite(fd, "4242\n", 5, 0), 5);
  ProgramResult busy = mirror.pass();
  EXPECT_EQ(busy.exitStatus, 75);
  EXPECT_NE(busy.output.find("another ondrd_syncd is running (PID 4242)"), std::string::npos)
      << busy.output;
  ::close(fd);
}

TEST_F(WholeSystemTest, TheServiceCarriesOutRequestsWithoutAFullPass) {
  Mirror mirror(root_ + "/mirror", test::freeLoopbackPort());
  publishEpoch(0);
  mirror.configure(vendor_->port(), false);
  auto service = mirror.start({"--interval", "3600"});
  ASSERT_TRUE(eventually([&] { return mirror.status("syncState") == "\"syncState\": \"done\","; }));
  EXPECT_EQ(mirror.served()[KTCatalogProductsDictKey].size(), 0u) << "manual mode serves nothing";
  std::string lastRun = mirror.status("lastRunTime");

  ASSERT_EQ(mirror.ctl({"mirror", "VT-000003"}).exitStatus, 0);
  ASSERT_EQ(mirror.ctl({"enable", "VT-000003"}).exitStatus, 0);
  ASSERT_TRUE(
      eventually([&] { return mirror.served()[KTCatalogProductsDictKey].contains("VT-000003"); }));
  EXPECT_EQ(mirror.status("lastRunTime"), lastRun) << "no full pass was run";

  service->signal(SIGTERM);
  ProgramResult stopped = service->wait(std::chrono::seconds(15));
  EXPECT_EQ(stopped.exitStatus, 0) << stopped.output;
}

TEST_F(WholeSystemTest, AnInterruptedPassIsCompletedByTheNext) {
  Mirror mirror(root_ + "/mirror", test::freeLoopbackPort());
  publishEpoch(0, 24 << 20);
  mirror.configure(vendor_->port(), true);
  ASSERT_EQ(mirror.ctl({"config", "set", "syncBandwidth", "4096"}).exitStatus, 0);
  auto pass = mirror.start({"--once"});
  // Files come and go while the pass runs, so every look tolerates a vanished one.
  auto downloading = [&] {
    std::error_code error;
    for (std::filesystem::recursive_directory_iterator entry(mirror.html(), error), end;
         !error && entry != end; entry.increment(error)) {
      std::error_code sizeError;
      if (entry->path().extension() == ".downloading" && entry->file_size(sizeError) > (1 << 20) &&
          !sizeError) {
        return true;
      }
    }
    return false;
  };
  ASSERT_TRUE(eventually(downloading));
  auto signalled = std::chrono::steady_clock::now();
  pass->signal(SIGTERM);
  ProgramResult interrupted = pass->wait(std::chrono::seconds(20));
  EXPECT_EQ(interrupted.exitStatus, 1) << interrupted.output;
  EXPECT_LT(std::chrono::steady_clock::now() - signalled, std::chrono::seconds(10));
  EXPECT_EQ(mirror.status("errorNote"), "\"errorNote\": \"interrupted\",");

  ASSERT_EQ(mirror.ctl({"config", "set", "syncBandwidth", "0"}).exitStatus, 0);
  ProgramResult next = mirror.pass();
  EXPECT_EQ(next.exitStatus, 0) << next.output;
  EXPECT_EQ(mirror.served()[KTCatalogProductsDictKey].size(), vendor_->servableCount());
  EXPECT_EQ(mirror.status("updateError"), "\"updateError\": false,");
}

// SIGKILL at five moments spread over passes (the vendor moving on before some of them), each
// followed by a clean pass: whatever the moment, the mirror's records parse and every package a
// served catalog names comes whole through its Apache.
TEST_F(WholeSystemTest, PassesKilledAtAnyMomentLeaveWholeFilesServed) {
  Mirror mirror(root_ + "/mirror", test::freeLoopbackPort());
  publishEpoch(0);
  mirror.configure(vendor_->port(), true);
  ASSERT_EQ(mirror.ctl({"web", "start"}).exitStatus, 0);
  httplib::Client client("127.0.0.1", mirror.port());
  const std::string prefix = fmt::format("http://127.0.0.1:{}", mirror.port());
  auto expectServedWhole = [&](const std::string& when) {
    EXPECT_TRUE(Plist::readFile(
        mirror.root() + "/Library/Server/Ondrel/Status/com.vantor.server.ondrel.plist", nullptr))
        << when;
    for (const auto& file :
         std::filesystem::directory_iterator(mirror.html() + "/content/catalogs/others")) {
      std::string name = file.path().filename();
      std::optional<Plist> catalog = Plist::readFile(file.path(), nullptr);
      if (file.path().extension() == ".composite") {
        EXPECT_TRUE(catalog) << when << name;
      }
      if (file.path().extension() != ".ktcatalog") continue;
      ASSERT_TRUE(catalog && catalog->isDictionary()) << when << name;
      for (const auto& [productId, entry] : (*catalog)[KTCatalogProductsDictKey].items()) {
        for (const Plist& package : entry[KTCatalogProductPackagesKey].elements()) {
          std::string path = package[KTCatalogPackageURLStringKey].stringValue();
          ASSERT_EQ(path.rfind(prefix, 0), 0u) << when << path;
          path.erase(0, prefix.size());
          auto response = client.Head(path);
          ASSERT_TRUE(response) << when << path;
          EXPECT_EQ(response->status, 200) << when << path;
          if (!package.contains(KTCatalogPackageSizeKey)) continue;
          EXPECT_EQ(response->get_header_value("Content-Length"),
                    std::to_string(package[KTCatalogPackageSizeKey].integerValue()))
              << when << path;
        }
      }
    }
  };
  auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(mirror.pass().exitStatus, 0);
  auto passLength = std::chrono::steady_clock::now() - start;
  for (int kill = 1; kill <= 5; ++kill) {
    if (kill % 2 == 0) publishEpoch(kill / 2);
    auto pass = mirror.start({"--once"});
    std::this_thread::sleep_for(passLength * (2 * kill - 1) / 10);
    pass->signal(SIGKILL);
    pass->wait(std::chrono::seconds(20));
    expectServedWhole(fmt::format("after kill {}: ", kill));
    ProgramResult clean = mirror.pass();
    EXPECT_EQ(clean.exitStatus, 0) << clean.output;
    expectServedWhole(fmt::format("after the clean pass {}: ", kill));
  }
}

// The served path ("content/downloads/...") of the first package of productId as mirror serves it.
std::string packagePath(const Mirror& mirror, const std::string& productId) {
  const Plist& packages =
      mirror.served()[KTCatalogProductsDictKey][productId][KTCatalogProductPackagesKey];
  std::string url = packages.size() > 0 ? packages[0]["URL"].stringValue() : "";
  std::size_t at = url.find("/content/");
  return at == std::string::npos ? "" : url.substr(at + 1);
}

// A parent vouches for its files: a child refuses a file whose bytes are not those the parent
// recorded, and places nothing of it; a manifest that is not one leaves the size as the only check.
void expectChildChecksParentDigests(const Mirror& parent, const Mirror& child) {
  const std::string rotten = packagePath(parent, "VT-000020");
  const std::string garbled = packagePath(parent, "VT-000021");
  ASSERT_FALSE(rotten.empty());
  ASSERT_FALSE(garbled.empty());
  std::string manifest = OndrelTest::readFile(parent.html() + "/digests/VT-000020");
  EXPECT_NE(manifest.find("\t" + rotten + "\n"), std::string::npos) << manifest;

  std::string good = OndrelTest::readFile(parent.html() + "/" + rotten);
  std::string bad = good;
  bad[bad.size() / 2] = static_cast<char>(bad[bad.size() / 2] ^ 1);
  OndrelTest::writeFile(parent.html() + "/" + rotten, bad);
  OndrelTest::writeFile(parent.html() + "/digests/VT-000021",
                        "ondrel-digests 1\n" + std::string(64, 'F') + "\t1\t" + garbled +
                            "\nzz\t-1\t../../../etc/passwd\n\t\t\n" + std::string(70000, 'x'));
  std::filesystem::remove(child.html() + "/" + rotten);
  std::filesystem::remove(child.html() + "/" + garbled);
  child.pass();
  EXPECT_FALSE(std::filesystem::exists(child.html() + "/" + rotten)) << "refused";
  EXPECT_FALSE(std::filesystem::exists(child.html() + "/" + rotten + ".downloading"));
  EXPECT_FALSE(child.served()[KTCatalogProductsDictKey].contains("VT-000020"));
  EXPECT_EQ(OndrelTest::readFile(child.html() + "/" + garbled),
            OndrelTest::readFile(parent.html() + "/" + garbled))
      << "a garbled manifest names no digest; the file is checked by its size";

  OndrelTest::writeFile(parent.html() + "/" + rotten, good);
  ProgramResult mended = child.pass();
  EXPECT_EQ(mended.exitStatus, 0) << mended.output;
  EXPECT_EQ(OndrelTest::readFile(child.html() + "/" + rotten), good);
}

TEST_F(WholeSystemTest, AChildServerMirrorsOnlyWhatItsParentServes) {
  Mirror parent(root_ + "/parent", test::freeLoopbackPort());
  Mirror child(root_ + "/child", test::freeLoopbackPort());
  publishEpoch(0);
  parent.configure(vendor_->port(), true);
  ASSERT_EQ(parent.pass().exitStatus, 0);
  ASSERT_EQ(parent.ctl({"web", "start"}).exitStatus, 0);
  ASSERT_EQ(parent.ctl({"disable", "VT-000030"}).exitStatus, 0);
  ASSERT_EQ(parent.pass().exitStatus, 0);
  Plist parentServed = parent.served()[KTCatalogProductsDictKey];
  ASSERT_FALSE(parentServed.contains("VT-000030"));

  child.configure(parent.port(), true);
  ProgramResult childPass = child.pass();
  ASSERT_EQ(childPass.exitStatus, 0) << childPass.output;
  Plist childServed = child.served()[KTCatalogProductsDictKey];
  EXPECT_EQ(childServed.size(), parentServed.size());
  for (const auto& [productId, entry] : childServed.items()) {
    EXPECT_TRUE(parentServed.contains(productId)) << productId;
  }
  expectChildChecksParentDigests(parent, child);

  // With rings on the parent, the child is a client like any other: a product the parent rolls
  // out reaches the child once the child's ring opens, here a ring of the child's own.
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"rings", "set", "pilot", "--blocks", "127.0.0.2"},
        {"rings", "set", "broad", "--share", "100", "--delay", "30d"},
        {"enable", "VT-000030"}}) {
    ASSERT_EQ(parent.ctl(command).exitStatus, 0) << command[0];
    ASSERT_EQ(parent.pass().exitStatus, 0);
  }
  ASSERT_EQ(child.pass().exitStatus, 0);
  EXPECT_FALSE(child.served()[KTCatalogProductsDictKey].contains("VT-000030"));
  ASSERT_EQ(
      parent.ctl({"rings", "set", "child", "--blocks", "127.0.0.1", "--position", "0"}).exitStatus,
      0);
  ASSERT_EQ(parent.pass().exitStatus, 0);
  ASSERT_EQ(child.pass().exitStatus, 0);
  EXPECT_TRUE(child.served()[KTCatalogProductsDictKey].contains("VT-000030"));
  EXPECT_FALSE(parent.served()[KTCatalogProductsDictKey].contains("VT-000030"))
      << "the others still wait";

  // With the vendor and the parent gone, a client of the child installs from the child alone.
  ASSERT_EQ(parent.ctl({"web", "stop"}).exitStatus, 0);
  vendor_->stop();
  ASSERT_EQ(child.ctl({"web", "start"}).exitStatus, 0);
  httplib::Client client("127.0.0.1", child.port());
  client.set_follow_location(true);
  auto catalog =
      client.Get("/index.ktcatalog", {{"User-Agent", "Vantor-Update/1.0 Taltos/16.0.0"}});
  ASSERT_TRUE(catalog);
  ASSERT_EQ(catalog->status, 200);
  Plist clientView = Plist::fromBytes(catalog->body, nullptr).value_or(Plist());
  const Plist& product = clientView[KTCatalogProductsDictKey]["VT-000020"];
  std::vector<std::string> urls = {product["ServerMetadataURL"].stringValue()};
  for (const auto& [language, url] : product[KTCatalogProductDistributionsDictKey].items()) {
    urls.push_back(url.stringValue());
  }
  for (const Plist& package : product[KTCatalogProductPackagesKey].elements()) {
    urls.push_back(package["URL"].stringValue());
  }
  for (const std::string& url : urls) {
    ASSERT_EQ(url.rfind(fmt::format("http://127.0.0.1:{}/", child.port()), 0), 0u) << url;
    std::string path = url.substr(url.find("/content/"));
    auto file = client.Get(path.c_str());
    ASSERT_TRUE(file) << url;
    EXPECT_EQ(file->status, 200) << url;
    if (path.size() > 4 && path.substr(path.size() - 4) == ".pkg") {
      EXPECT_EQ(file->body, readFile(vendor_->folder() + path));
    }
  }
  child.ctl({"web", "stop"});
}

// Files whose bytes differ between any two trees by nature, each with its reason; everything
// else an incremental pass writes must be what a full rebuild writes.
const std::map<std::string, const char*> kNaturallyDifferent = {
    {"Status/.pass_record", "stamps (inodes, modification times) of the files a pass wrote"},
    {"Status/.pass_history", "the times of the passes"},
    {"Status/ondrel.prom", "the times and durations of the passes"},
    {"Status/.start_time", "the time the last pass started"},
    {"Status/.last_run", "the time the last pass ended"},
    {"Status/ondrd_syncd.lock", "the process id of the last pass"},
    {"Status/audit.log", "the times at which the administrator's changes were posted"},
    {"Data/.validators", "the modification times of the files placed"},
    {"Data/.digests", "the modification times of the files placed"},
    {"Status/com.vantor.server.ondrel.plist.previous",
     "a pass that leaves the working set as it was does not rotate it, so its previous version "
     "stays the last one that differed"},
};

// Whether text at "at" is a date as property lists write it, "yyyy-MM-ddTHH:mm:ssZ" in a date
// and "yyyy-MM-dd HH:mm:ss +0000" in a string; its first 19 characters, with a "T", if so.
std::optional<std::string> writtenDate(const std::string& text, std::size_t at) {
  static const std::string shape = "dddd-dd-dd?dd:dd:dd";
  if (text.size() < at + shape.size()) return std::nullopt;
  std::string date = text.substr(at, shape.size());
  for (std::size_t i = 0; i < shape.size(); ++i) {
    bool digit = std::isdigit(static_cast<unsigned char>(date[i])) != 0;
    if (shape[i] == 'd'   ? !digit
        : shape[i] == '?' ? date[i] != 'T' && date[i] != ' '
                          : date[i] != shape[i]) {
      return std::nullopt;
    }
  }
  date[10] = 'T';
  return date;
}

// The files of a tree (relative path to bytes), with the tree's own location in them replaced
// by "@ROOT@", and dates taken from the clock during the test (a product whose post date is no
// date takes the pass's "now") replaced by "@NOW@".
std::map<std::string, std::string> treeContents(const std::string& root, const std::string& since) {
  std::map<std::string, std::string> contents;
  const std::string base = root + "/Library/Server/Ondrel/";
  for (const auto& item : std::filesystem::recursive_directory_iterator(root)) {
    if (!item.is_regular_file() || item.is_symlink()) continue;
    std::string path = item.path().string();
    std::string relative = path.rfind(base, 0) == 0 ? path.substr(base.size()) : path;
    if (kNaturallyDifferent.count(relative) != 0) continue;
    std::string bytes = test::OndrelTest::readFile(path);
    for (std::size_t at = bytes.find(root); at != std::string::npos; at = bytes.find(root, at)) {
      bytes.replace(at, root.size(), "@ROOT@");
    }
    for (const std::string tag : {"<date>", "<string>"}) {
      for (std::size_t at = bytes.find(tag); at != std::string::npos; at = bytes.find(tag, at)) {
        at += tag.size();
        std::optional<std::string> date = writtenDate(bytes, at);
        if (date && *date >= since) bytes.replace(at, date->size(), "@NOW@");
      }
    }
    contents[path.substr(root.size())] = std::move(bytes);
  }
  return contents;
}

void expectSameTrees(const Mirror& incremental, const Mirror& rebuilt, const std::string& since,
                     const std::string& day) {
  auto mine = treeContents(incremental.root(), since);
  auto theirs = treeContents(rebuilt.root(), since);
  for (const auto& [path, bytes] : theirs) {
    auto found = mine.find(path);
    if (found == mine.end()) {
      ADD_FAILURE() << day << ": only the full rebuild wrote " << path;
    } else if (found->second != bytes) {
      ADD_FAILURE() << day << ": " << path << " differs from the full rebuild's";
    }
  }
  for (const auto& [path, bytes] : mine) {
    if (theirs.count(path) == 0)
      ADD_FAILURE() << day << ": only the incremental pass wrote " << path;
  }
}

TEST_F(WholeSystemTest, IncrementalPassesWriteWhatAFullRebuildWrites) {
  // Two servers side by side on the same upstream; their trees differ only in where they are.
  int port = test::freeLoopbackPort();
  Mirror incremental(root_ + "/incremental", port);
  Mirror rebuilt(root_ + "/rebuilt", port);
  // As the dates are compared: UTC, "yyyy-MM-ddTHH:mm:ss".
  std::string since = Plist::date(Clock::now()).description().substr(0, 19);
  since[10] = 'T';
  publishEpoch(0);
  incremental.configure(vendor_->port(), false);
  rebuilt.configure(vendor_->port(), false);
  auto both = [&](const std::vector<std::string>& arguments) {
    ASSERT_EQ(incremental.ctl(arguments).exitStatus, 0);
    ASSERT_EQ(rebuilt.ctl(arguments).exitStatus, 0);
  };
  auto passes = [&](const std::string& day, int exitStatus = 0) {
    ProgramResult pass = incremental.pass();
    EXPECT_EQ(pass.exitStatus, exitStatus) << day << ": " << pass.output;
    ProgramResult full = rebuilt.run(ONDREL_SYNCD, {"--once", "--full"});
    EXPECT_EQ(full.exitStatus, exitStatus) << day << ": " << full.output;
    expectSameTrees(incremental, rebuilt, since, day);
  };
  passes("day 0");
  passes("day 0 again: every product recurs");
  // Nothing changed: the incremental pass leaves the catalog's files as they are.
  const std::string files = incremental.html() + "/content/catalogs/others/";
  const std::string cache =
      files + kNewestCatalog.substr(0, kNewestCatalog.rfind('.')) + ".productscache";
  std::optional<std::string> cacheStamp = fileStamp(cache);
  std::optional<std::string> compositeStamp = fileStamp(files + kNewestCatalog + ".composite");
  passes("day 0 a third time: nothing changes");
  EXPECT_EQ(fileStamp(cache), cacheStamp);
  EXPECT_EQ(fileStamp(files + kNewestCatalog + ".composite"), compositeStamp);
  both({"mirror", "VT-000020", "VT-000021"});
  both({"enable", "VT-000022"});
  passes("day 0 with products chosen");
  publishEpoch(1);
  passes("day 1: new, withdrawn and deprecated products, changed metadata");
  // A damaged record is no record: the pass still writes what a full rebuild writes.
  writeFile(incremental.root() + "/Library/Server/Ondrel/Status/.pass_record",
            "<plist><dict><key>files</key><array><string>\x01");
  both({"disable", "VT-000022"});
  both({"remove", "VT-000020"});
  both({"enable", "VT-000021"});
  passes("day 1 with products disabled and removed");
  publishEpoch(2, 3000);
  passes("day 2: every package has another size");
  // A package that cannot be fetched fails its product on both servers alike.
  Plist entry = vendor_->products()["VT-000021"];
  std::string url = entry[KTCatalogProductPackagesKey][0]["URL"].stringValue();
  std::string package = vendor_->localPath(url);
  std::filesystem::permissions(package, std::filesystem::perms::none);
  passes("day 2 with a package refused upstream");
  std::filesystem::permissions(package, std::filesystem::perms::owner_read |
                                            std::filesystem::perms::group_read |
                                            std::filesystem::perms::others_read);
  passes("day 2 with the package back");
  EXPECT_EQ(incremental.served()[KTCatalogProductsDictKey].size(), 1u) << "VT-000021 is served";
  // Only one product's server metadata changes upstream; the catalogs stay as they were.
  std::string metadataURL = vendor_->products()["VT-000021"]["ServerMetadataURL"].stringValue();
  std::string metadataPath = vendor_->localPath(metadataURL);
  Plist metadata = Plist::readFile(metadataPath, nullptr).value_or(Plist());
  metadata.set("CFBundleShortVersionString", "9.9.9");
  ASSERT_TRUE(metadata.writeXmlFile(metadataPath, nullptr));
  passes("day 2 with one product's server metadata changed");
}

// Regular files under folder, by their path below it, leaving out the server's own.
std::set<std::string> servedFiles(const std::string& folder) {
  std::set<std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    std::string name = entry.path().filename().string();
    if (!entry.is_regular_file() || name[0] == '.' || name.ends_with(".vantor") ||
        name.ends_with(".composite") || name.ends_with(".productscache") ||
        name.ends_with(".alternate") || name.ends_with(".previous")) {
      continue;
    }
    files.insert(entry.path().string().substr(folder.size()));
  }
  return files;
}

// The shipped publish-rsync hook copies the served tree to a node after every pass, packages
// first and catalogs last: a monitor reading the node every 20 ms while a pass changes the tree
// sees no catalog naming a file the node lacks, and what the mirror dropped leaves the node only
// once the grace period is over.
TEST_F(WholeSystemTest, PublishedNodesNeverNameAMissingFile) {
  Mirror mirror(root_ + "/mirror", test::freeLoopbackPort());
  publishEpoch(0);
  mirror.configure(vendor_->port(), true);
  const std::string config = mirror.root() + "/Library/Server/Ondrel/Config";
  const std::string node = mirror.root() + "/node/html";
  std::filesystem::create_directories(node);
  std::filesystem::create_directories(config + "/hooks.d");
  std::filesystem::copy_file(resources_ + "/hooks/publish-rsync", config + "/hooks.d/50-publish");
  std::filesystem::permissions(config + "/hooks.d/50-publish", std::filesystem::perms(0750));
  writeFile(config + "/publish-rsync.targets", node + "/\ngrace-minutes 60\n");
  ProgramResult first = mirror.pass();
  ASSERT_EQ(first.exitStatus, 0) << first.output;
  std::set<std::string> published = servedFiles(node);
  EXPECT_EQ(published, servedFiles(mirror.html()));

  // The vendor's next day, and a product whose files the administrator removes.
  publishEpoch(1);
  std::string removed = mirror.served()[KTCatalogProductsDictKey].items().begin()->first.text();
  ASSERT_EQ(mirror.ctl({"remove", removed}).exitStatus, 0);
  const std::string monitor = resources_ + "/../Bench/served_monitor.py";
  ProgramResult watched =
      mirror.run("/usr/bin/python3",
                 {monitor, node, std::to_string(mirror.port()), "--", ONDREL_SYNCD, "--once"});
  EXPECT_EQ(watched.exitStatus, 0) << watched.output;
  EXPECT_EQ(readFile(node + "/content/catalogs/others/" + kNewestCatalog),
            readFile(mirror.html() + "/content/catalogs/others/" + kNewestCatalog));
  std::set<std::string> dropped;
  std::set<std::string> now = servedFiles(mirror.html());
  std::set_difference(published.begin(), published.end(), now.begin(), now.end(),
                      std::inserter(dropped, dropped.end()));
  ASSERT_FALSE(dropped.empty()) << removed << "'s files";
  for (const std::string& file : dropped) {
    EXPECT_TRUE(std::filesystem::exists(node + file)) << file << " kept for the grace period";
  }

  writeFile(config + "/publish-rsync.targets", node + "/\ngrace-minutes 0\n");
  ProgramResult third = mirror.pass();
  ASSERT_EQ(third.exitStatus, 0) << third.output;
  EXPECT_EQ(servedFiles(node), servedFiles(mirror.html())) << "the grace period is over";
}

}  // namespace
}  // namespace ondrel
