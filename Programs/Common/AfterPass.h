// What the sync daemon does once a pass has ended, whatever its outcome: it records the pass in
// the history, writes the metrics file (the Prometheus text of `ondrelctl metrics`, replaced
// atomically, for a node exporter's textfile collector) and runs the administrator's hooks.
// Hooks are the executable files of the hooks folder, run one after the other in name order,
// each with the pass's figures in its environment and a time limit; a hook that fails, hangs or
// cannot be started is logged and never fails the pass. Used by ondrd_syncd; one thread.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "KTSLogger.h"
#include "KTSPassContext.h"
#include "KTSPassHistory.h"

namespace ondrel::programs {

struct HookRun {
  std::string name;
  int exitStatus = -1;  // -1 when it did not exit by itself
  bool timedOut = false;
};

// The environment a hook gets beside the daemon's own: ONDREL_PASS_OUTCOME, ONDREL_PASS_KIND,
// ONDREL_PASS_ERROR, ONDREL_PASS_STARTED, ONDREL_PASS_ENDED, ONDREL_PASS_DURATION_SECONDS,
// ONDREL_PASS_CATALOGS, ONDREL_PASS_PRODUCTS_NEW, ONDREL_PASS_PRODUCTS_REMOVED,
// ONDREL_PASS_BYTES_FETCHED, ONDREL_HTML_FOLDER (the served tree) and ONDREL_STATUS_FOLDER (where
// the daemon keeps its state, writable by hooks), as NAME=value.
std::vector<std::string> hookEnvironment(const KTSPassHistory::Pass& pass,
                                         const KTSServerLayout& layout);

// Called again and again while a hook runs, so that a service manager's watchdog hears from the
// daemon however long the hooks take.
using Heartbeat = std::function<void()>;

// Runs the hooks of folder with the pass's environment (hookEnvironment) beside the daemon's. A
// hook gets SIGTERM at its time limit, and SIGKILL with all it started two seconds later. Hidden
// files, editor and package-manager leftovers, files that are not executable and files others
// may write are passed over.
std::vector<HookRun> runHooks(const std::string& folder,
                              const std::vector<std::string>& environment,
                              std::chrono::milliseconds timeout, const LogHandle& log,
                              const Heartbeat& heartbeat = {});

// Writes the metrics file from the server's state, the passes' history and the scrub's record.
void writeMetricsFile(KTSPassContext& context);

// Records the pass, writes the metrics file and runs the hooks, in the pass's context.
void afterPass(KTSPassContext& context, const KTSPassHistory::Pass& pass,
               const Heartbeat& heartbeat = {});

}  // namespace ondrel::programs
