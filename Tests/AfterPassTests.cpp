// What follows every pass: the history it is recorded in (and the health and metrics read from
// it), the metrics file, and the administrator's hooks with their environment and time limit.
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "AfterPass.h"
#include "DateFormats.h"
#include "Json.h"
#include "KTSPassHistory.h"
#include "KTSPreferences.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;
using namespace std::chrono_literals;

class AfterPassTest : public OndrelTest {
 protected:
  KTSPassHistory::Pass pass(KTSPassHistory::Outcome outcome, Date started) {
    KTSPassHistory::Pass pass;
    pass.started = started;
    pass.ended = started + 90s;
    pass.outcome = outcome;
    pass.note = outcome == KTSPassHistory::Outcome::Failed ? "failed: upstream\nunreachable" : "";
    pass.catalogs = 7;
    pass.productsNew = 3;
    pass.productsRemoved = 1;
    pass.bytesFetched = 123456789;
    return pass;
  }
  void writeHook(const std::string& name, const std::string& script, int mode = 0755) {
    std::string file = folder_ + "/" + name;
    writeFile(file, "#!/bin/sh\n" + script + "\n");
    ::chmod(file.c_str(), mode);
  }
  void SetUp() override {
    OndrelTest::SetUp();
    folder_ = path("/hooks.d");
  }
  std::string folder_;
};

TEST_F(AfterPassTest, HistoryKeepsTheLastGoodPassAndRefusesDamage) {
  const std::string file = KTSPassHistory::defaultPath(context().layout());
  KTSPassHistory empty(file);
  EXPECT_FALSE(empty.healthy(clock_->now()));
  EXPECT_NE(toJson(empty.healthDocument(clock_->now())).find("\"lastGoodPass\": null"),
            std::string::npos);

  Date first = clock_->now();
  ASSERT_TRUE(KTSPassHistory(file).record(pass(KTSPassHistory::Outcome::Succeeded, first)));
  KTSPassHistory history(file);
  history.record(pass(KTSPassHistory::Outcome::Failed, first + 1h));
  KTSPassHistory reread(file);
  EXPECT_EQ(reread.passes(), 2u);
  EXPECT_EQ(reread.failedPasses(), 1u);
  EXPECT_EQ(reread.bytesFetched(), 2 * 123456789u);
  EXPECT_FALSE(reread.healthy(first + 2h)) << "the last pass failed";
  std::string health = toJson(reread.healthDocument(first + 90s + 2h));
  EXPECT_NE(health.find("\"lastGoodPass\": \"" + formatRfc3339Date(first + 90s) + "\""),
            std::string::npos)
      << health;
  EXPECT_NE(health.find("\"lastGoodPassAgeSeconds\": 7200"), std::string::npos) << health;
  EXPECT_NE(health.find("\"lastPassFailed\": true"), std::string::npos);
  EXPECT_NE(health.find("\"lastPassError\": \"failed: upstream\\nunreachable\""), std::string::npos)
      << health;
  std::string metrics = reread.prometheusText();
  EXPECT_NE(metrics.find("ondrel_pass_failures_total 1\n"), std::string::npos) << metrics;
  EXPECT_NE(metrics.find("ondrel_last_pass_success 0\n"), std::string::npos);
  EXPECT_NE(metrics.find("ondrel_last_pass_duration_seconds 90\n"), std::string::npos);

  KTSPassHistory::Pass interrupted = pass(KTSPassHistory::Outcome::Interrupted, first + 2h);
  interrupted.nextPassDue = first + 26h;
  KTSPassHistory(file).record(interrupted);
  EXPECT_TRUE(KTSPassHistory(file).healthy(first + 3h)) << "an interrupted pass is no failure";
  EXPECT_TRUE(KTSPassHistory(file).healthy(first + 26h + 59min));
  EXPECT_FALSE(KTSPassHistory(file).healthy(first + 27h + 1min)) << "a pass is overdue";
  EXPECT_NE(
      toJson(KTSPassHistory(file).healthDocument(first + 28h)).find("\"nextPassOverdue\": true"),
      std::string::npos);
  // The last passes, oldest first, for the page's chart; only the newest are kept.
  std::vector<KTSPassHistory::Pass> recent = KTSPassHistory(file).recentPasses();
  ASSERT_EQ(recent.size(), 3u);
  EXPECT_EQ(recent[1].outcome, KTSPassHistory::Outcome::Failed);
  EXPECT_EQ(recent[2].started, first + 2h);
  for (int i = 0; i < 70; ++i) {
    KTSPassHistory(file).record(pass(KTSPassHistory::Outcome::Succeeded, first + 3h + i * 1min));
  }
  recent = KTSPassHistory(file).recentPasses();
  ASSERT_EQ(recent.size(), KTSPassHistory::kRecentPasses);
  EXPECT_EQ(recent.back().started, first + 3h + 69min);

  // Damaged and hostile histories count as none: the server is not healthy on their word.
  const std::string hostileEnd = "<date>2001-01-01T00:00:00Z</date>";
  for (const std::string& damaged :
       {std::string("not a property list"), std::string(200 * 1024, ' '),
        "<plist><dict><key>lastPass</key><dict><key>started</key><date>2030-01-01T00:00:00Z"
        "</date><key>ended</key>" +
            hostileEnd +
            "<key>outcome</key><string>succeeded</string></dict><key>passes</key>"
            "<integer>-5</integer></dict></plist>"}) {
    writeFile(file, damaged);
    KTSPassHistory read(file);
    EXPECT_FALSE(read.lastPass().has_value());
    EXPECT_EQ(read.passes(), 0u);
    EXPECT_FALSE(read.healthy(clock_->now()));
  }
}

TEST_F(AfterPassTest, HooksRunInOrderWithThePassAndNeverHoldThePass) {
  std::filesystem::create_directories(folder_);
  const std::string log = path("/hooks.log");
  writeHook("20-second", "echo second >> " + log + "; exit 3");
  writeHook("10-first",
            "echo \"first $ONDREL_PASS_OUTCOME $ONDREL_PASS_KIND $ONDREL_PASS_CATALOGS "
            "$ONDREL_PASS_PRODUCTS_NEW $ONDREL_PASS_PRODUCTS_REMOVED "
            "$ONDREL_PASS_BYTES_FETCHED $ONDREL_PASS_DURATION_SECONDS "
            "[$ONDREL_PASS_ERROR]\" >> " +
                log);
  // Ignores SIGTERM, as does what it starts: both must end by SIGKILL at the limit.
  writeHook("30-hangs", "trap '' TERM; sleep 30 & echo $! > " + path("/child.pid") + "; wait");
  writeHook("40-after", "echo after >> " + log);
  for (const char* leftover : {".hidden", "50-backup~", "60-hook.dpkg-old"}) {
    writeHook(leftover, "echo leftover >> " + log);
  }
  writeHook("70-not-executable", "echo plain >> " + log, 0644);
  writeHook("80-anyone-writes", "echo anyone >> " + log, 0757);

  auto started = std::chrono::steady_clock::now();
  std::vector<programs::HookRun> runs = programs::runHooks(
      folder_,
      programs::hookEnvironment(pass(KTSPassHistory::Outcome::Failed, clock_->now()),
                                context().layout()),
      300ms, LogHandle::shared());
  EXPECT_LT(std::chrono::steady_clock::now() - started, 10s);

  ASSERT_EQ(runs.size(), 4u);
  EXPECT_EQ(runs[0].name, "10-first");
  EXPECT_EQ(runs[1].exitStatus, 3);
  EXPECT_TRUE(runs[2].timedOut);
  EXPECT_EQ(runs[3].exitStatus, 0) << "a hook after a hung one still runs";
  EXPECT_EQ(readFile(log),
            "first failed full 7 3 1 123456789 90.0 [failed: upstream unreachable]\n"
            "second\nafter\n");
  // Gone, or a zombie nobody here reaps: its parent was the hook.
  std::string child = readFile(path("/child.pid"));
  std::string state;
  std::ifstream(std::string("/proc/") + child.substr(0, child.find('\n')) + "/stat") >> state >>
      state >> state;
  EXPECT_TRUE(state.empty() || state == "Z") << "what a stopped hook started ends with it";
  EXPECT_TRUE(
      logged("ondrd_test[WRN]: The hook " + folder_ + "/20-second failed (exit status 3)."));
  EXPECT_TRUE(logged("ondrd_test[WRN]: The hook " + folder_ +
                     "/80-anyone-writes is not run: writable by anyone."));
  EXPECT_TRUE(programs::runHooks(path("/missing"), {}, 1s, LogHandle::shared()).empty());
}

TEST_F(AfterPassTest, MetricsFileIsReplacedWholeAfterEveryPass) {
  const std::string metrics = path("/textfile/ondrel.prom");
  std::filesystem::create_directories(path("/textfile"));
  writeFile(metrics, "old\n");
  std::ifstream reader(metrics);
  auto preferences = context().sharedPreferences();
  Plist settings = preferences->prefs();
  settings.set("metricsFile", metrics);
  preferences->setPrefs(settings);

  programs::afterPass(context(), pass(KTSPassHistory::Outcome::Succeeded, clock_->now()));
  std::string kept;
  std::getline(reader, kept);
  EXPECT_EQ(kept, "old")
      << "a reader of the old file is not cut off: it was replaced, not rewritten";
  std::string text = readFile(metrics);
  EXPECT_NE(text.find("ondrel_passes_total 1\n"), std::string::npos) << text;
  EXPECT_NE(text.find("ondrel_fetched_bytes_total 123456789\n"), std::string::npos);
  EXPECT_NE(text.find("ondrel_sync_state "), std::string::npos);
  std::size_t entries = 0;
  for (const auto& entry : std::filesystem::directory_iterator(path("/textfile"))) {
    (void)entry;
    ++entries;
  }
  EXPECT_EQ(entries, 1u) << "no temporary file is left beside it";
  EXPECT_EQ(std::filesystem::status(metrics).permissions() & std::filesystem::perms::others_read,
            std::filesystem::perms::others_read);

  settings.set("metricsFile", path("/no/such/folder/ondrel.prom"));
  preferences->setPrefs(settings);
  programs::afterPass(context(), pass(KTSPassHistory::Outcome::Succeeded, clock_->now()));
  EXPECT_EQ(KTSPassHistory(KTSPassHistory::defaultPath(context().layout())).passes(), 2u)
      << "a metrics file that cannot be written loses nothing else";
}

}  // namespace
}  // namespace ondrel
