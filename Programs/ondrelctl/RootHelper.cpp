#include "RootHelper.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "Ctl.h"
#include "KTSServerLayout.h"
#include "ServiceAccount.h"

namespace ondrel::ctl {

namespace {

constexpr unsigned char kCouldNotRun = 255;

// The child's end of the channel to its root parent; -1 when this process is not such a child.
int parentChannel = -1;

bool isWebAction(char byte) {
  return byte == static_cast<char>(WebAction::UnitStart) ||
         byte == static_cast<char>(WebAction::UnitStop) ||
         byte == static_cast<char>(WebAction::UnitReload) ||
         byte == static_cast<char>(WebAction::ApacheStart);
}

std::vector<std::string> commandFor(WebAction action) {
  switch (action) {
    case WebAction::UnitStart:
      return {"/usr/bin/systemctl", "start", kWebUnit};
    case WebAction::UnitStop:
      return {"/usr/bin/systemctl", "stop", kWebUnit};
    case WebAction::UnitReload:
      return {"/usr/bin/systemctl", "reload", kWebUnit};
    case WebAction::ApacheStart:
      return {"/usr/sbin/apache2",
              "-d",
              KTSServerLayout::serviceFolder(),
              "-f",
              KTSServerLayout::defaultWebConfigurationPath(),
              "-k",
              "start"};
  }
  return {};
}

// Runs the action's command with nothing open but /dev/null: Apache reports in its error log,
// systemd in the journal. Apache never starts as root: as the service account, keeping only the
// right to bind a low port, and nothing it runs can gain a privilege (no set-user-id program).
int perform(WebAction action) {
  std::vector<std::string> command = commandFor(action);
  pid_t child = ::fork();
  if (child == 0) {
    int null = ::open("/dev/null", O_RDWR);
    for (int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::dup2(null, stream);
    std::string ignored;
    if (action == WebAction::ApacheStart &&
        ((isRoot() && !becomeServiceAccount(&ignored, /*keepLowPorts=*/true)) ||
         ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)) {
      ::_exit(kCouldNotRun);
    }
    std::vector<char*> argv;
    for (std::string& argument : command) argv.push_back(argument.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(kCouldNotRun);
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status) == kCouldNotRun ? -1 : WEXITSTATUS(status);
}

// The parent's side: one request byte in, one status byte out, until the child closes.
int serve(int channel, pid_t child) {
  char request = 0;
  while (::read(channel, &request, 1) == 1) {
    int status = isWebAction(request) ? perform(static_cast<WebAction>(request)) : -1;
    unsigned char reply = status < 0 ? kCouldNotRun : static_cast<unsigned char>(status);
    if (::write(channel, &reply, 1) != 1) break;
  }
  ::close(channel);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : kExitFailed;
}

}  // namespace

int runAsServiceAccount(const std::function<int()>& command) {
  if (!isRoot()) return command();
  int channel[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0) {
    return fail("could not start as the service account");
  }
  std::fflush(nullptr);
  pid_t child = ::fork();
  if (child < 0) return fail("could not start as the service account");
  if (child > 0) {
    ::close(channel[1]);
    return serve(channel[0], child);
  }
  ::close(channel[0]);
  parentChannel = channel[1];
  std::string error;
  if (!becomeServiceAccount(&error)) return fail(error + "; nothing was changed");
  // Ends with its parent (a change of user cleared what was asked before).
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (::getppid() == 1) return kExitFailed;
  int status = command();
  std::fflush(nullptr);
  return status;
}

int runWebAction(WebAction action) {
  if (parentChannel < 0) return perform(action);
  char request = static_cast<char>(action);
  unsigned char reply = kCouldNotRun;
  if (::write(parentChannel, &request, 1) != 1 || ::read(parentChannel, &reply, 1) != 1) return -1;
  return reply == kCouldNotRun ? -1 : reply;
}

}  // namespace ondrel::ctl
