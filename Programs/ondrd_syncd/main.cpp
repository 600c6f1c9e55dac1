// ondrd_syncd: the Ondrel Server sync daemon.
//   ondrd_syncd --once              one pass, then exit
//   ondrd_syncd [--interval SECS]   the service: a pass when one is due (the interval after the
//                                   last run), at once when a sync is requested, and product
//                                   changes as soon as they are posted, the served catalogs
//                                   again when a ring opens to a product being rolled out;
//                                   between passes, the scrub of the kept files
// Exit status: 0 a clean pass (or a clean stop of the service), 1 the pass failed or was
// interrupted, 2 bad usage, 75 another ondrd_syncd holds the pass lock.
#include <signal.h>
#include <systemd/sd-daemon.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include "AfterPass.h"
#include "CgiPrograms.h"
#include "Clock.h"
#include "KTSFetchScheduler.h"
#include "KTSJobTicketManager.h"
#include "KTSLogger.h"
#include "KTSPassContext.h"
#include "KTSPassHistory.h"
#include "KTSPreferences.h"
#include "KTSRequestManager.h"
#include "KTSScrub.h"
#include "KTSServedCatalogs.h"
#include "KTSServerLayout.h"
#include "KTSSyncPass.h"
#include "KTSSyncStatus.h"
#include "PassLock.h"
#include "Progress.h"
#include "ServiceRoot.h"
#include "Transfer.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitBusy = 75;

std::atomic<bool> stopRequested{false};

void onStopSignal(int) {
  stopRequested.store(true);
  ondrel::Transfer::cancelAll();
}

void installSignalHandlers() {
  struct sigaction action {};
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
}

ondrel::KTSSyncPass* passLeftToProcessExit = nullptr;
ondrel::KTSPassContext* contextOfProcess = nullptr;

// Runs one pass (a full one, or only the product changes) and what follows every pass: its
// record in the history, the metrics file and the administrator's hooks.
// interval: the time to the next full pass, when the daemon runs them on its own.
ondrel::KTSPassOutcome runPass(
    ondrel::KTSPassContext& context, bool fullSync, ondrel::syncd::Progress& progress,
    std::optional<std::chrono::seconds> interval,
    ondrel::KTSPassRecord::Reuse reuse = ondrel::KTSPassRecord::Reuse::Allowed) {
  using namespace ondrel;
  KTSPassHistory::Pass pass;
  pass.started = Clock::now();
  auto syncPass = std::make_unique<KTSSyncPass>(context, progress);
  KTSPassOutcome outcome = fullSync ? syncPass->runFullPass(reuse) : syncPass->runProductChanges();
  // The pass of a one-shot run (no interval) is left to the end of the process, which takes its
  // memory back at once: freed object by object, the hundred megabytes of a pass at 10,000
  // products cost some three per cent of one in which nothing changed. Held here, it is no leak.
  if (!interval) passLeftToProcessExit = syncPass.release();
  pass.ended = Clock::now();
  pass.fullSync = fullSync;
  pass.outcome = outcome.interrupted         ? KTSPassHistory::Outcome::Interrupted
                 : !outcome.failures.empty() ? KTSPassHistory::Outcome::Failed
                                             : KTSPassHistory::Outcome::Succeeded;
  if (outcome.failed()) pass.note = outcome.note();
  pass.catalogs = outcome.catalogs;
  pass.productsNew = outcome.productsNew;
  pass.productsRemoved = outcome.productsRemoved;
  pass.bytesFetched = outcome.bytesFetched;
  pass.filesStillToFetch = outcome.filesStillToFetch;
  pass.bytesStillToFetch = outcome.bytesStillToFetch;
  pass.onDemandProducts = outcome.onDemand.products;
  pass.onDemandBytes = outcome.onDemand.bytes;
  pass.onDemandBytesHere = outcome.onDemand.bytesHere;
  pass.onDemandFetchedFiles = outcome.onDemand.fetchedFiles;
  pass.onDemandFetchedBytes = outcome.onDemand.fetchedBytes;
  if (interval) {
    std::optional<Date> lastRun = context.status().getLastRunTime();
    pass.nextPassDue = lastRun.value_or(pass.started) + *interval;
  }
  programs::afterPass(context, pass, &syncd::Progress::heartbeat);
  return outcome;
}

int report(const ondrel::KTSPassOutcome& outcome, ondrel::syncd::Progress& progress) {
  if (!outcome.failed()) {
    progress.note("Pass complete.");
    return 0;
  }
  std::fprintf(stderr, "ondrd_syncd: pass %s%s\n",
               outcome.interrupted ? "" : "failed: ", outcome.note().c_str());
  return kExitFailed;
}

bool productChangesPending(ondrel::KTSPassContext& context) {
  if (context.requests().hasPendingRequests()) return true;
  context.tickets().refresh();
  return !context.tickets().openJobs().empty();
}

// Between passes the scrub checks kept files in slices this long, giving up the files lock after
// each so that ondrelctl verify, polling for it, can take it.
constexpr std::chrono::seconds kScrubSlice(3);

// Runs a slice of the scrub when one is due and nobody holds the kept files; whether it found
// damage, which a full pass then fetches again.
bool runScrubSlice(ondrel::KTSPassContext& context, ondrel::KTSScrub& scrub, bool* ran) {
  using namespace ondrel;
  KTSScrub::Pace pace = KTSScrub::Pace::of(context.preferences().prefs());
  *ran = false;
  if (!scrub.due(Clock::now(), pace)) return false;
  programs::PassLock files(context.layout().filesLockPath());
  if (!files.held()) return false;
  *ran = true;
  sd_notify(0, "STATUS=checking the kept files");
  std::optional<Date> endedBefore = scrub.cycle().ended;
  std::size_t damaged = scrub.run(
      context, pace, kScrubSlice, [] { return !stopRequested.load(); },
      &syncd::Progress::heartbeat);
  if (damaged > 0 || scrub.cycle().ended != endedBefore) programs::writeMetricsFile(context);
  sd_notify(0, "STATUS=waiting for the next pass");
  return damaged > 0;
}

// When a ring next opens to a product, as the last pass left the rollout.
std::optional<ondrel::Date> ringOpeningFromFiles() {
  ondrel::KTSPassContext context;
  return ondrel::KTSServedCatalogs::nextRingOpening(context);
}

int runService(std::chrono::seconds interval, ondrel::syncd::Progress& progress) {
  using namespace ondrel;
  sd_notify(0, "READY=1\nSTATUS=waiting for the next pass");
  progress.note(fmt::format("ondrd_syncd running; a pass every {} s.", interval.count()));
  std::optional<KTSScrub> scrub;
  bool repairDue = false;
  std::optional<Date> ringOpening = ringOpeningFromFiles();
  while (!stopRequested.load()) {
    // Every pass starts from the files as they are now: the administration side may have
    // changed the preferences, the working set or the requests since the last one.
    KTSPassContext context;
    if (!scrub) scrub.emplace(KTSScrub::defaultPath(context.layout()));
    std::optional<Date> lastRun = context.status().getLastRunTime();
    bool due = !lastRun || Clock::now() - *lastRun >= interval || repairDue;
    bool ringOpens = ringOpening && Clock::now() >= *ringOpening;
    bool scrubbed = false;
    // While ondrelctl verify holds the kept files, what is due or asked for waits (requests
    // stay in the spool until a pass takes them).
    if (due || ringOpens || productChangesPending(context)) {
      programs::PassLock files(context.layout().filesLockPath());
      if (files.held()) {
        bool requested = context.requests().getPendingSyncRequestsDeletingSource(true);
        ringOpening = runPass(context, due || requested, progress, interval).nextRingOpening;
        scrub->forgetKeptFiles();
        repairDue = false;
        sd_notify(0, "STATUS=waiting for the next pass");
      }
    } else {
      repairDue = runScrubSlice(context, *scrub, &scrubbed);
    }
    auto pause = scrubbed ? std::chrono::milliseconds(300) : std::chrono::milliseconds(1000);
    for (auto slept = std::chrono::milliseconds(0); slept < pause && !stopRequested.load();
         slept += std::chrono::milliseconds(100)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    syncd::Progress::heartbeat();
  }
  sd_notify(0, "STOPPING=1");
  progress.note("ondrd_syncd stopped.");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Ondrel Server sync daemon: mirrors the upstream catalogs and products."};
  bool once = false;
  bool full = false;
  long intervalSeconds = 24 * 3600;
  CLI::Option* onceFlag = app.add_flag("--once", once, "Run one pass and exit");
  app.add_flag("--full", full,
               "Make and write every file anew, reusing nothing from the last pass (a repair)")
      ->needs(onceFlag);
  app.add_option("--interval", intervalSeconds, "Seconds from one pass to the next (service)")
      ->check(CLI::Range(1L, 365L * 24 * 3600));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kExitUsage;
  }

  std::optional<std::string> problem = ondrel::programs::leaveRoot();
  if (!problem) problem = ondrel::programs::administratorProblem();
  if (problem) {
    std::fprintf(stderr, "ondrd_syncd: %s\n", problem->c_str());
    return 1;
  }
  ondrel::programs::adoptServiceGroupPermissions();
  if ((problem = ondrel::programs::serviceRootProblem())) {
    std::fprintf(stderr, "ondrd_syncd: %s\n", problem->c_str());
    return 1;
  }
  ondrel::KTSLogger::defaultLoggerForSourceLogType("ondrd_syncd", 1);
  installSignalHandlers();
  // The process's context lives as long as the process: a one-shot run's holds the working set
  // its pass loaded (tens of megabytes of records at 10,000 products), which the end of the
  // process takes back at once, as it does the pass's.
  contextOfProcess = new ondrel::KTSPassContext;
  ondrel::KTSPassContext& context = *contextOfProcess;
  ondrel::programs::PassLock lock(context.layout().passLockPath());
  if (!lock.held()) {
    std::fprintf(stderr, "ondrd_syncd: another ondrd_syncd is running (PID %d); try again later\n",
                 static_cast<int>(lock.holder().value_or(0)));
    return kExitBusy;
  }
  ondrel::programs::installCgiPrograms();
  ondrel::syncd::Progress progress(ondrel::KTSPassProgress::defaultPath(context.layout()));
  ondrel::KTSFetchScheduler::setHeartbeat(&ondrel::syncd::Progress::heartbeat);
  if (once) {
    auto reuse =
        full ? ondrel::KTSPassRecord::Reuse::Nothing : ondrel::KTSPassRecord::Reuse::Allowed;
    ondrel::programs::PassLock files(context.layout().filesLockPath());
    if (!files.held()) {
      progress.note(fmt::format("Waiting for the verification of the kept files (PID {}) to end.",
                                files.holder().value_or(0)));
      bool taken = files.waitUntilHeld([] {
        ondrel::syncd::Progress::heartbeat();
        return !stopRequested.load();
      });
      if (!taken) return kExitBusy;
    }
    return report(runPass(context, true, progress, std::nullopt, reuse), progress);
  }
  return runService(std::chrono::seconds(intervalSeconds), progress);
}
