// ondrelctl verify on a mirror filled by a real pass: digests taken as the files arrived, and
// what rot, truncation, deletion or a link in a file's place look like to a quick and a full
// check.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <regex>

#include "Administration.h"
#include "ApacheServer.h"
#include "KTSFileDigests.h"
#include "KTSPassHistory.h"
#include "KTSPreferences.h"
#include "KTSScrub.h"
#include "KTSServerLayout.h"
#include "OndrelTest.h"
#include "PassLock.h"
#include "ProgramRunner.h"
#include "SampleTree.h"
#include "Sha256.h"
#include "UpstreamServer.h"

namespace ondrel {
namespace {

test::ProgramResult ctl(const std::vector<std::string>& arguments) {
  return test::runProgram(ONDREL_CTL, arguments);
}

// A count of the summary verify --json prints; -1 when it has none.
std::int64_t count(const test::ProgramResult& result, const std::string& key) {
  std::smatch found;
  if (!std::regex_search(result.output, found, std::regex("\"" + key + "\": (\\d+)"))) return -1;
  return std::stoll(found[1]);
}

// The summary's counts, as "checked/good/firstDigests/missing/changed".
std::string counts(const test::ProgramResult& result) {
  return fmt::format("{}/{}/{}/{}/{}", count(result, "checked"), count(result, "good"),
                     count(result, "firstDigests"), count(result, "missing"),
                     count(result, "changed"));
}

// Rewrites one byte of the file in place, keeping its size and modification time.
void flipByteKeepingTime(const std::string& path) {
  struct stat before {};
  ASSERT_EQ(::stat(path.c_str(), &before), 0);
  std::string bytes = test::OndrelTest::readFile(path);
  bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 0x20);
  test::OndrelTest::writeFile(path, bytes);
  struct timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

class VerifyTest : public test::OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    int upstreamPort = test::freeLoopbackPort();
    upstream_ = root_ + "/upstream";
    sample::TreeOptions tree;
    tree.outputFolder = upstream_;
    tree.baseURL = fmt::format("http://127.0.0.1:{}", upstreamPort);
    tree.products = 8;
    sample::generateTree(tree);
    sample::serveTree(upstream_, "127.0.0.1", upstreamPort);
    KTSPreferences& preferences = context().preferences();
    preferences.setValue("metaIndexURL", tree.baseURL + "/content/meta/config.plist");
    for (const char* key : {"autoMirror", "autoEnable", "PurgeUnused"}) {
      preferences.setValue(key, Plist::boolean(true));
    }
    // The daemon's scrub stays out of the way of what a test does by hand.
    preferences.setValue("scrubMaxDuration", Plist::integer(0));
    ASSERT_TRUE(preferences.commitChangesUpdatingHostConfig(false));
    test::ProgramResult pass = test::runProgram(ONDREL_SYNCD, {"--once"});
    ASSERT_EQ(pass.exitStatus, 0) << pass.output;
  }

  void TearDown() override {
    sample::stopServingTree(upstream_);
    OndrelTest::TearDown();
  }

  // The kept packages, in path order, as the digest record names them.
  std::vector<std::string> packages() {
    std::vector<std::string> found;
    for (const auto& item :
         std::filesystem::recursive_directory_iterator(context().layout().downloadsFolder())) {
      if (item.path().extension() == ".pkg") found.push_back(item.path().string());
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  std::string upstream_;
};

TEST_F(VerifyTest, EveryFileArrivesWithItsDigestAndEveryDamageIsFound) {
  test::ProgramResult first = ctl({"verify", "--json"});
  ASSERT_EQ(first.exitStatus, 0) << first.output;
  std::int64_t files = count(first, "checked");
  ASSERT_GT(files, 8);
  EXPECT_EQ(counts(first), fmt::format("{}/{}/0/0/0", files, files)) << "taken on arrival";
  // The digest recorded is the upstream file's own, not merely a stable one.
  std::vector<std::string> kept = packages();
  ASSERT_GE(kept.size(), 4u);
  const std::string html = context().layout().htmlFolder();
  KTSFileDigests recorded(
      KTSFileDigests::storePathForDocumentRoot(context().layout().documentRoot()));
  ASSERT_NE(recorded.recordOf(kept[0]), nullptr);
  EXPECT_EQ(recorded.recordOf(kept[0])->sha256.hex(),
            Sha256::ofFile(upstream_ + kept[0].substr(html.size()), nullptr));

  // Rot keeps size and time: only reading finds it. Truncation padded back to the size, a
  // deleted file and a link in a file's place are seen at once.
  flipByteKeepingTime(kept[0]);
  std::string padded = readFile(kept[1]);
  writeFile(kept[1],
            padded.substr(0, padded.size() / 2) + std::string(padded.size() / 2 + 1, '\0'));
  std::filesystem::remove(kept[2]);
  std::filesystem::remove(kept[3]);
  std::filesystem::create_symlink("/etc/passwd", kept[3]);
  test::ProgramResult quick = ctl({"verify", "--quick", "--json"});
  EXPECT_EQ(quick.exitStatus, 3) << quick.output;
  EXPECT_EQ(counts(quick), fmt::format("{}/{}/0/1/2", files, files - 3)) << quick.output;
  test::ProgramResult full = ctl({"verify"});
  EXPECT_EQ(full.exitStatus, 3) << full.output;
  for (const auto& [path, reason] :
       std::vector<std::pair<std::string, std::string>>{{kept[0], "changed  "},
                                                        {kept[1], "changed  "},
                                                        {kept[2], "missing  "},
                                                        {kept[3], "changed  "}}) {
    EXPECT_NE(full.output.find(reason), std::string::npos) << full.output;
    EXPECT_NE(full.output.find(path.substr(html.size() + 1)), std::string::npos) << full.output;
  }
  EXPECT_NE(full.output.find("(its bytes are not those recorded)"), std::string::npos);
  EXPECT_NE(full.output.find("(not a regular file)"), std::string::npos);
  EXPECT_NE(full.output.find(fmt::format("Checked {} files", files)), std::string::npos);
  EXPECT_NE(full.output.find("1 missing, 3 changed."), std::string::npos) << full.output;
  EXPECT_EQ(Sha256::ofFile("/etc/passwd", nullptr).has_value(), true) << "never followed";
}

TEST_F(VerifyTest, FilesKeptFromBeforeGetTheirDigestOnceAndAPassHoldsThemAway) {
  const std::string store =
      KTSFileDigests::storePathForDocumentRoot(context().layout().documentRoot());
  std::filesystem::remove(store);
  test::ProgramResult quick = ctl({"verify", "--quick", "--json"});
  EXPECT_EQ(quick.exitStatus, 0);
  EXPECT_EQ(count(quick, "checked"), 0) << "a quick check looks only at what is recorded";
  test::ProgramResult first = ctl({"verify", "--json"});
  EXPECT_EQ(first.exitStatus, 0) << first.output;
  std::int64_t files = count(first, "checked");
  ASSERT_GT(files, 8);
  EXPECT_EQ(counts(first), fmt::format("{}/{}/{}/0/0", files, files, files));
  EXPECT_EQ(counts(ctl({"verify", "--json"})), fmt::format("{}/{}/0/0/0", files, files));

  // One product's files only; a bad duration is refused before anything is read.
  std::vector<std::string> kept = packages();
  std::string productId = std::filesystem::path(kept[0]).parent_path().filename();
  test::ProgramResult one = ctl({"verify", "--json", productId});
  EXPECT_EQ(one.exitStatus, 0) << one.output;
  EXPECT_LT(count(one, "checked"), files);
  EXPECT_GT(count(one, "checked"), 0);
  EXPECT_EQ(ctl({"verify", "--max-duration", "soon"}).exitStatus, 2);

  // A pass and a verification never run at once: each waits for the other, or says so.
  auto held = std::make_unique<programs::PassLock>(context().layout().filesLockPath());
  ASSERT_TRUE(held->held());
  test::ProgramResult busy = ctl({"verify"});
  EXPECT_EQ(busy.exitStatus, 75);
  EXPECT_NE(busy.output.find("holds the kept files"), std::string::npos) << busy.output;
  test::BackgroundProgram pass(ONDREL_SYNCD, {"--once"});
  EXPECT_EQ(pass.wait(std::chrono::seconds(2)).exitStatus, -1) << "waits for the files";
  held.reset();
  EXPECT_EQ(pass.wait(std::chrono::seconds(60)).exitStatus, 0);
}

TEST_F(VerifyTest, ARepairFetchesWhatItCanAndNeverServesWhatItCannot) {
  const std::string served = context().layout().catalogsFolderPath(
      "index-10.12-10.11-10.10-10.9-dogwood-cedar-birch-alder.merged-1.ktcatalog");
  auto productOf = [](const std::string& path) {
    return std::filesystem::path(path).parent_path().filename().string();
  };
  // Packages of three products the newest catalog serves.
  std::vector<std::string> chosen;
  for (const std::string& package : packages()) {
    bool listed =
        readFile(served).find("<key>" + productOf(package) + "</key>") != std::string::npos;
    bool another = std::none_of(chosen.begin(), chosen.end(), [&](const std::string& other) {
      return productOf(other) == productOf(package);
    });
    if (listed && another) chosen.push_back(package);
    if (chosen.size() == 3) break;
  }
  ASSERT_EQ(chosen.size(), 3u);
  const std::string html = context().layout().htmlFolder();
  auto upstreamCopy = [&](const std::string& path) { return upstream_ + path.substr(html.size()); };
  // Both rot; the upstream has lost the second, which therefore cannot be fetched again.
  flipByteKeepingTime(chosen[0]);
  flipByteKeepingTime(chosen[1]);
  std::filesystem::remove(upstreamCopy(chosen[1]));
  // The third product's folder is a link to one elsewhere holding a damaged copy: it is read
  // through the link, but nothing there is ever deleted or written.
  const std::string folder = std::filesystem::path(chosen[2]).parent_path();
  const std::string elsewhere = root_ + "/elsewhere";
  std::filesystem::copy(folder, elsewhere);
  const std::string outside =
      elsewhere + "/" + std::filesystem::path(chosen[2]).filename().string();
  flipByteKeepingTime(outside);
  std::filesystem::remove_all(folder);
  std::filesystem::create_directory_symlink(elsewhere, folder);

  test::BackgroundProgram daemon(ONDREL_SYNCD, {"--interval", "86400"});
  test::ProgramResult repaired = ctl({"verify", "--repair"});
  EXPECT_EQ(repaired.exitStatus, 3) << repaired.output;
  EXPECT_NE(repaired.output.find("Repaired 1 of 3 files."), std::string::npos) << repaired.output;
  for (int unrepairable : {1, 2}) {
    EXPECT_NE(repaired.output.find("Could not repair " + productOf(chosen[unrepairable])),
              std::string::npos)
        << repaired.output;
  }
  EXPECT_TRUE(std::filesystem::exists(outside)) << "nothing deleted through a link";
  EXPECT_EQ(Sha256::ofFile(chosen[0], nullptr), Sha256::ofFile(upstreamCopy(chosen[0]), nullptr));
  EXPECT_FALSE(std::filesystem::exists(chosen[1])) << "a damaged file is never left served";
  std::string catalog = readFile(served);
  EXPECT_NE(catalog.find("<key>" + productOf(chosen[0]) + "</key>"), std::string::npos);
  EXPECT_EQ(catalog.find("<key>" + productOf(chosen[1]) + "</key>"), std::string::npos)
      << "withdrawn until its files are back";
  EXPECT_EQ(ctl({"verify", "--quick", productOf(chosen[0])}).exitStatus, 0);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.wait(std::chrono::seconds(30)).exitStatus, 0);
}

TEST_F(VerifyTest, TheScrubGoesOnWhereItStoppedAndNothingFoundDamagedStaysServed) {
  const KTSServerLayout& layout = context().layout();
  const std::string record = KTSScrub::defaultPath(layout);
  const KTSScrub::Pace pace{3600, 1};
  std::vector<std::string> kept = packages();
  // A slice cut short after three files, then another from the record, which finds the rot.
  {
    KTSScrub scrub(record);
    int allowed = 3;
    EXPECT_EQ(
        scrub.run(context(), pace, std::chrono::seconds(60), [&] { return allowed-- > 0; }, {}),
        0u);
    EXPECT_EQ(scrub.cycle().files, 3u);
    EXPECT_FALSE(scrub.cycle().ended);
  }
  flipByteKeepingTime(kept.back());
  KTSScrub resumed(record);
  EXPECT_EQ(resumed.run(context(), pace, std::chrono::seconds(60), [] { return true; }, {}), 1u);
  ASSERT_TRUE(resumed.cycle().ended);
  EXPECT_EQ(resumed.cycle().files, resumed.cycle().totalFiles) << "every file once";
  EXPECT_FALSE(std::filesystem::exists(kept.back())) << "taken out at once";
  EXPECT_FALSE(resumed.due(clock_->now() + std::chrono::hours(23), pace));
  EXPECT_TRUE(resumed.due(clock_->now() + std::chrono::hours(25), pace)) << "the next cycle";

  // Unhealthy, and counted, until a pass has put a good file in its place.
  KTSPassHistory history(KTSPassHistory::defaultPath(layout));
  Plist health = programs::healthDocument(history, layout, clock_->now());
  EXPECT_FALSE(health["healthy"].boolValue());
  EXPECT_EQ(health["damagedFiles"].integerValue(), 1);
  EXPECT_NE(resumed.prometheusText().find("ondrel_verify_damaged_files 1\n"), std::string::npos);
  ASSERT_EQ(test::runProgram(ONDREL_SYNCD, {"--once"}).exitStatus, 0);
  EXPECT_TRUE(programs::healthDocument(history, layout, clock_->now())["healthy"].boolValue());

  // The daemon does the same on its own between passes: it finds the rot, takes the file out
  // and runs a pass that fetches it again.
  const std::string html = layout.htmlFolder();
  const std::optional<std::string> good = Sha256::ofFile(kept.front(), nullptr);
  flipByteKeepingTime(kept.front());
  std::filesystem::remove(record);
  context().preferences().setValue("scrubMaxDuration", Plist::integer(3600));
  ASSERT_TRUE(context().preferences().commitChanges());
  test::BackgroundProgram daemon(ONDREL_SYNCD, {"--interval", "86400"});
  for (int tenth = 0; tenth < 300; ++tenth) {
    if (KTSPassHistory(KTSPassHistory::defaultPath(layout)).passes() == 3) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.wait(std::chrono::seconds(30)).exitStatus, 0);
  EXPECT_EQ(Sha256::ofFile(kept.front(), nullptr), good);
  KTSScrub afterDaemon(record);
  EXPECT_EQ(afterDaemon.totals().damaged, 1u);
  EXPECT_TRUE(afterDaemon.standingDamage().empty());

  // A hostile record is no record: nothing read from it is deleted, and a new cycle begins.
  writeFile(record, "<plist><dict><key>damage</key><array><dict><key>path</key><string>" + kept[1] +
                        "</string></dict></array><key>day</key><integer>7");
  KTSScrub hostile(record);
  EXPECT_FALSE(hostile.cycle().started);
  EXPECT_TRUE(hostile.standingDamage().empty());
  EXPECT_TRUE(std::filesystem::exists(kept[1]));
}

}  // namespace
}  // namespace ondrel
