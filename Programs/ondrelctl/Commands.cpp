// What ondrelctl changes: product changes and sync requests posted to the daemon, settings
// through the preferences, and the web server.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <thread>

#include "AdminSite.h"
#include "CgiPrograms.h"
#include "Clock.h"
#include "Ctl.h"
#include "DateFormats.h"
#include "HostPaths.h"
#include "Json.h"
#include "KTSJobTicket.h"
#include "KTSJobTicketManager.h"
#include "KTSMetaIndex.h"
#include "KTSPassContext.h"
#include "KTSPreferences.h"
#include "KTSRequestManager.h"
#include "KTSServerLayout.h"
#include "KTSSettings.h"
#include "KTSSyncStatus.h"
#include "KTSWorkingSet.h"
#include "PathString.h"
#include "ProductId.h"
#include "RootHelper.h"

namespace ondrel::ctl {

namespace {

std::string serviceRoot() { return KTSServerLayout::serviceFolder(); }
std::string configPath() { return KTSPassContext().layout().webConfigurationPath(); }
std::string pidPath() { return KTSServerLayout::webServerPidPath(); }

// The web server runs as the service account: a member of its group may not signal it, but
// sees that the process named in the PID file lives and is Apache.
pid_t webServerPid() {
  pid_t pid = 0;
  std::ifstream(pidPath()) >> pid;
  if (pid <= 0 || (::kill(pid, 0) != 0 && errno != EPERM)) return 0;
  std::string name;
  std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), name);
  return name.rfind("apache2", 0) == 0 || name.rfind("httpd", 0) == 0 ? pid : 0;
}

// Runs a command; its output is kept and shown only as the reason of a failure, so a successful
// check prints nothing of its own.
int runQuietly(std::vector<std::string> all, std::string* output = nullptr) {
  // Output goes to a file, not a pipe: a starting Apache keeps it open after the command ends.
  char outputPath[] = "/tmp/ondrelctl-apache-XXXXXX";
  int outputFile = ::mkstemp(outputPath);
  if (outputFile < 0) return -1;
  pid_t child = ::fork();
  if (child == 0) {
    ::dup2(outputFile, STDOUT_FILENO);
    ::dup2(outputFile, STDERR_FILENO);
    std::vector<char*> argv;
    for (std::string& argument : all) argv.push_back(argument.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(outputFile);
  int status = -1;
  bool ran = child > 0 && ::waitpid(child, &status, 0) == child;
  std::string text;
  std::getline(std::ifstream(outputPath), text);
  ::unlink(outputPath);
  if (output) *output = text;
  return ran && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs apache2 on the service's configuration.
int apache(const std::vector<std::string>& arguments, std::string* output = nullptr) {
  std::vector<std::string> all = {"/usr/sbin/apache2", "-d", serviceRoot(), "-f", configPath()};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return runQuietly(std::move(all), output);
}

// Whether the clients' web server runs under its systemd unit: when systemd runs this machine,
// the unit is installed, and this is the server the unit serves (not a root of ONDREL_ROOT's).
// Otherwise it is driven directly with apache2 (tests, containers, roots of one's own).
bool drivenBySystemd() {
  const char* root = std::getenv("ONDREL_ROOT");
  if ((root != nullptr && *root != '\0') || ::access("/run/systemd/system", F_OK) != 0) {
    return false;
  }
  for (const char* folder :
       {"/etc/systemd/system", "/lib/systemd/system", "/usr/lib/systemd/system"}) {
    if (::access((std::string(folder) + "/" + kWebUnit).c_str(), F_OK) == 0) return true;
  }
  return false;
}

// What Apache needs before it starts: ondrd.conf and the document root it names (a commit of
// the preferences writes both) and the CGIs; then Apache's own check of the configuration.
int prepareWebServer() {
  KTSPassContext context;
  context.preferences().commitChanges();
  programs::installCgiPrograms();
  std::string reason;
  if (!programs::writeAdminSite(context, &reason)) return fail(reason);
  if (apache({"-t"}, &reason) != 0) return fail("Apache refuses ondrd.conf (" + reason + ")");
  return 0;
}

// Without systemd the web server is signalled directly, which only root and its own account may:
// a member of the service group is told so.
bool maySignalWebServer() {
  pid_t pid = webServerPid();
  return drivenBySystemd() || pid == 0 || ::kill(pid, 0) == 0;
}

std::string notSignallable(const std::string& action) {
  return fmt::format("the web server runs as {0}; only root and {0} may {1} it", kServiceAccount,
                     action);
}

// Checks the configuration first: a running server is never reloaded into one Apache refuses.
int reloadWebServer(const std::string& what, const std::string& otherwise) {
  if (!maySignalWebServer()) return fail(notSignallable("reload") + "; " + otherwise);
  std::string reason;
  if (apache({"-t"}, &reason) != 0) {
    return fail("Apache refuses " + what + " (" + reason + "); " + otherwise);
  }
  int status = drivenBySystemd() ? runWebAction(WebAction::UnitReload) : apache({"-k", "graceful"});
  return status == 0 ? 0 : fail("Apache could not be reloaded");
}

}  // namespace

int postChanges(const std::string& action, const std::vector<std::string>& productIds,
                const std::string& requester, const std::string& policy) {
  std::string error;
  KTSPassContext context;
  if (!programs::postProductChanges(context, action, productIds, requester, &error, policy)) {
    return fail(error);
  }
  std::printf("Posted: %s %zu product%s.\n", action.c_str(), productIds.size(),
              productIds.size() == 1 ? "" : "s");
  return 0;
}

std::optional<std::string> waitForPassAfter(KTSSyncStatus& status, std::optional<Date> before,
                                            const std::function<void(const std::string&)>& tell) {
  bool started = false;
  for (int seconds = 0;; ++seconds) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::optional<Date> lastRun = status.getLastRunTime();
    started = started || (lastRun && lastRun != before);
    if (started && status.getSyncStatus() == KTSSyncStatus::Done) break;
    if (!started && seconds == 120) {
      return "no pass started within two minutes; is ondrd_syncd running?";
    }
    tell(fmt::format("  {} ({} s)", started ? "syncing" : "waiting for ondrd_syncd", seconds + 1));
  }
  if (status.getUpdateError()) return "the pass failed: " + status.getErrorNote().value_or("");
  return std::nullopt;
}

int sync(bool wait, const std::string& requester) {
  KTSPassContext context;
  KTSSyncStatus& status = context.status();
  std::optional<Date> before = status.getLastRunTime();
  std::string error;
  if (!programs::postSyncRequest(context, requester, &error)) return fail(error);
  std::printf("Sync requested.\n");
  if (!wait) return 0;
  std::optional<std::string> problem =
      waitForPassAfter(status, before, [](const std::string& line) {
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
      });
  if (problem) return fail(*problem);
  std::printf("The pass is done.\n");
  return 0;
}

int configShow(bool json) {
  Plist settings = KTSPassContext().preferences().prefs();
  if (json) {
    printJson(settings);
    return 0;
  }
  for (const auto& [key, value] : settings.items()) {
    std::printf("%-22s %s\n", key.text().c_str(), toJson(value).c_str());
  }
  return 0;
}

int configGet(const std::string& key, bool json) {
  Plist settings = KTSPassContext().preferences().prefs();
  if (!settings.contains(key)) return fail("no setting " + key);
  if (json) {
    printJson(settings[key]);
  } else {
    std::printf("%s\n", settings[key].isString() ? settings[key].stringValue().c_str()
                                                 : toJson(settings[key]).c_str());
  }
  return 0;
}

int configSet(const std::string& key, const std::string& text, const std::string& requester) {
  KTSPassContext context;
  std::string why;
  if (!programs::changeSetting(context, key, text, requester, &why)) return fail(why);
  std::printf("%s set.\n", key.c_str());
  KTSPreferences* preferences = &context.preferences();
  for (const auto& [named, other] : {std::pair{"adminCertificate", "adminCertificateKey"},
                                     std::pair{"adminCertificateKey", "adminCertificate"}}) {
    if (key == named && preferences->prefs()[other].stringValue().empty()) {
      std::printf("The page uses it once %s is set too.\n", other);
    }
  }
  if (!programs::writeAdminSite(context, &why)) return fail(why);
  if (webServerPid() == 0) return 0;
  if (int status = reloadWebServer("the new ondrd.conf", "the running server keeps the old one")) {
    return status;
  }
  std::printf("Web server reloaded.\n");
  return 0;
}

int webPasswordDelete(const std::string& user) {
  KTSPassContext context;
  std::string error;
  if (!programs::deleteAdminUser(context.layout(), user, &error)) {
    return fail(error + "; nothing was changed");
  }
  if (!programs::writeAdminSite(context, &error)) return fail(error);
  std::printf("%s may no longer log in to the administration page.\n", user.c_str());
  if (webServerPid() == 0) return 0;
  return reloadWebServer("ondrd.conf", "the change comes with the next start of the web server");
}

int webPassword(const std::string& user) {
  std::string password;
  if (::isatty(STDIN_FILENO)) {
    const char* first = ::getpass(("New password for " + user + ": ").c_str());
    password = first != nullptr ? first : "";
    const char* again = ::getpass("The same again: ");
    if (again == nullptr || password != again)
      return fail("the passwords differ; nothing was changed");
  } else {
    std::getline(std::cin, password);
  }
  KTSPassContext context;
  std::string error;
  if (!programs::setAdminPassword(context.layout(), user, password, &error)) {
    return fail(error + "; nothing was changed");
  }
  if (!programs::writeAdminSite(context, &error)) return fail(error);
  std::string ignored;
  std::printf("Password of %s set; the page is at %s://%s:%d/\n", user.c_str(),
              programs::adminTls(context, &ignored) ? "https" : "http",
              programs::adminAddress(context).c_str(), programs::adminPort(context));
  if (webServerPid() == 0) return 0;
  return reloadWebServer("ondrd.conf", "the page comes with the next start of the web server");
}

// The page posts changes into the spool: one the service account cannot write (made by root,
// say) refuses every change, so web start says so at once. Commands run as the service account.
void warnAboutUnwritableSpool() {
  const std::string spool = KTSServerLayout::spoolFolder();
  if (::access(spool.c_str(), F_OK) != 0 || ::access(spool.c_str(), W_OK | X_OK) == 0) return;
  std::fprintf(stderr,
               "ondrelctl: warning: the spool %s is not writable by the service account, so the "
               "page cannot post changes; make it the account's (chown -R _ondrel:_ondrel %s, "
               "chmod 0770 %s)\n",
               spool.c_str(), spool.c_str(), spool.c_str());
}

int web(const std::string& action) {
  pid_t running = webServerPid();
  if (action == "status") {
    if (running) {
      std::printf("running (PID %d)\n", static_cast<int>(running));
    } else {
      std::printf("stopped\n");
    }
    return 0;
  }
  if (action == "prepare") return prepareWebServer();
  if (action == "start") {
    if (running) return std::printf("already running (PID %d)\n", static_cast<int>(running)), 0;
    if (int status = prepareWebServer()) return status;
    WebAction start = drivenBySystemd() ? WebAction::UnitStart : WebAction::ApacheStart;
    if (runWebAction(start) != 0) {
      return fail("Apache did not start; see " + serviceRoot() + "/Status/httpd_error.log");
    }
    for (int attempt = 0; attempt < 100 && webServerPid() == 0; ++attempt) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    std::printf("started (PID %d)\n", static_cast<int>(webServerPid()));
    warnAboutUnwritableSpool();
    return webServerPid() ? 0 : kExitFailed;
  }
  if (!running) return fail("the web server is not running");
  if (action == "reload") return reloadWebServer("ondrd.conf", "nothing was reloaded");
  if (!maySignalWebServer()) return fail(notSignallable("stop"));
  if (drivenBySystemd()) {
    if (runWebAction(WebAction::UnitStop) != 0) {
      return fail("the web server's unit could not be stopped");
    }
  } else {
    ::kill(running, SIGTERM);
  }
  for (int attempt = 0; attempt < 200 && ::kill(running, 0) == 0; ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::printf("stopped\n");
  return 0;
}

}  // namespace ondrel::ctl
