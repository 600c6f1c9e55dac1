#include "AfterPass.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string_view>
#include <thread>

#include "Administration.h"
#include "Clock.h"
#include "DateFormats.h"
#include "FileIO.h"
#include "KTSPreferences.h"
#include "KTSServerLayout.h"
#include "KTSSettings.h"

extern char** environ;

namespace ondrel::programs {

namespace {

constexpr auto kKillGrace = std::chrono::seconds(2);
constexpr auto kWaitStep = std::chrono::milliseconds(20);

// Names an administrator does not mean to run: hidden files, editor backups, and the copies a
// package manager leaves beside a changed file.
bool isLeftoverName(const std::string& name) {
  return name.empty() || name.front() == '.' || name.back() == '~' ||
         name.find(".dpkg-") != std::string::npos || name.find(".ucf-") != std::string::npos;
}

// Why a file of the hooks folder is not run, or empty when it is a hook.
std::string refusalOf(const std::filesystem::path& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return "not a regular file";
  if ((status.st_mode & S_IWOTH) != 0) return "writable by anyone";
  if (::access(path.c_str(), X_OK) != 0) return "not executable";
  return "";
}

// Waits for the child until the deadline; true when it ended, with its status.
bool waitUntil(pid_t child, std::chrono::steady_clock::time_point deadline, int* status,
               const Heartbeat& heartbeat) {
  for (;;) {
    if (heartbeat) heartbeat();
    pid_t ended = ::waitpid(child, status, WNOHANG);
    if (ended == child) return true;
    if (ended < 0 && errno != EINTR) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kWaitStep);
  }
}

HookRun runHook(const std::filesystem::path& path, const std::vector<std::string>& environment,
                std::chrono::milliseconds timeout, const Heartbeat& heartbeat) {
  HookRun run;
  run.name = path.filename().string();
  // The daemon's environment, less what systemd gave the daemon alone to talk to it.
  std::vector<std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string_view variable(*entry);
    if (variable.rfind("NOTIFY_SOCKET=", 0) == 0 || variable.rfind("WATCHDOG_", 0) == 0) continue;
    variables.emplace_back(variable);
  }
  variables.insert(variables.end(), environment.begin(), environment.end());
  std::vector<char*> envp;
  for (std::string& variable : variables) envp.push_back(variable.data());
  envp.push_back(nullptr);
  std::string program = path.string();
  char* argv[] = {program.data(), nullptr};
  pid_t child = ::fork();
  if (child < 0) return run;
  if (child == 0) {
    // A group of its own, so that what the hook starts ends with it at the time limit.
    ::setpgid(0, 0);
    int devNull = ::open("/dev/null", O_RDONLY);
    if (devNull >= 0) ::dup2(devNull, STDIN_FILENO);
    ::execve(argv[0], argv, envp.data());
    ::_exit(127);
  }
  ::setpgid(child, child);
  int status = 0;
  auto deadline = std::chrono::steady_clock::now() + timeout;
  if (!waitUntil(child, deadline, &status, heartbeat)) {
    run.timedOut = true;
    ::kill(-child, SIGTERM);
    if (!waitUntil(child, std::chrono::steady_clock::now() + kKillGrace, &status, heartbeat)) {
      ::kill(-child, SIGKILL);
      while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
      }
    }
  }
  ::kill(-child, SIGKILL);
  if (!run.timedOut && WIFEXITED(status)) run.exitStatus = WEXITSTATUS(status);
  return run;
}

}  // namespace

void writeMetricsFile(KTSPassContext& context) {
  const KTSServerLayout& layout = context.layout();
  KTSPassHistory history(KTSPassHistory::defaultPath(layout));
  std::string text = prometheusText(summarizeServer(context), history, layout);
  std::string path = KTSSettings::metricsFile(context.preferences().prefs(), layout);
  std::string error;
  if (!writeStringAtomically(path, text, &error)) {
    context.log().warning("The metrics file {} could not be written: {}", path, error);
    return;
  }
  // A node exporter reads it as a user of its own; it holds counts, nothing private.
  ::chmod(path.c_str(), 0644);
}

std::vector<std::string> hookEnvironment(const KTSPassHistory::Pass& pass,
                                         const KTSServerLayout& layout) {
  // The note is one line, as a hook would pass it on to a chat or a mail subject.
  std::string note = pass.note;
  std::replace_if(
      note.begin(), note.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  return {
      "ONDREL_PASS_OUTCOME=" + KTSPassHistory::outcomeName(pass.outcome),
      std::string("ONDREL_PASS_KIND=") + (pass.fullSync ? "full" : "changes"),
      "ONDREL_PASS_ERROR=" + note,
      "ONDREL_PASS_STARTED=" + formatRfc3339Date(pass.started),
      "ONDREL_PASS_ENDED=" + formatRfc3339Date(pass.ended),
      fmt::format("ONDREL_PASS_DURATION_SECONDS={:.1f}", pass.seconds()),
      fmt::format("ONDREL_PASS_CATALOGS={}", pass.catalogs),
      fmt::format("ONDREL_PASS_PRODUCTS_NEW={}", pass.productsNew),
      fmt::format("ONDREL_PASS_PRODUCTS_REMOVED={}", pass.productsRemoved),
      fmt::format("ONDREL_PASS_BYTES_FETCHED={}", pass.bytesFetched),
      "ONDREL_HTML_FOLDER=" + layout.htmlFolder(),
      "ONDREL_STATUS_FOLDER=" + layout.statusFolder(),
  };
}

std::vector<HookRun> runHooks(const std::string& folder,
                              const std::vector<std::string>& environment,
                              std::chrono::milliseconds timeout, const LogHandle& log,
                              const Heartbeat& heartbeat) {
  namespace fs = std::filesystem;
  std::vector<fs::path> hooks;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    if (!isLeftoverName(entry->path().filename().string())) hooks.push_back(entry->path());
  }
  std::sort(hooks.begin(), hooks.end());
  std::vector<HookRun> runs;
  for (const fs::path& hook : hooks) {
    if (std::string refusal = refusalOf(hook); !refusal.empty()) {
      log.warning("The hook {} is not run: {}.", hook.string(), refusal);
      continue;
    }
    runs.push_back(runHook(hook, environment, timeout, heartbeat));
    const HookRun& run = runs.back();
    if (run.timedOut) {
      log.warning("The hook {} was stopped after {} s.", hook.string(),
                  std::chrono::duration_cast<std::chrono::seconds>(timeout).count());
    } else if (run.exitStatus != 0) {
      log.warning("The hook {} failed (exit status {}).", hook.string(), run.exitStatus);
    }
  }
  return runs;
}

void afterPass(KTSPassContext& context, const KTSPassHistory::Pass& pass,
               const Heartbeat& heartbeat) {
  const LogHandle& log = context.log();
  const KTSServerLayout& layout = context.layout();
  KTSPassHistory history(KTSPassHistory::defaultPath(layout));
  if (!history.record(pass)) log.warning("The pass could not be recorded in the pass history.");
  writeMetricsFile(context);
  std::chrono::seconds timeout(KTSSettings::hookTimeoutSeconds(context.preferences().prefs()));
  runHooks(KTSServerLayout::hooksFolder(), hookEnvironment(pass, layout), timeout, log, heartbeat);
}

}  // namespace ondrel::programs
