// ondrelctl started as root gives up root before it reads or writes anything of the service root:
// the command runs in a child process that has become the service account, and the parent, still
// root, does only the few things the child cannot do itself: drive the web server's systemd unit,
// or start Apache (as the service account, allowed to bind a port below 1024). The parent reads
// one byte per request from the child and nothing from the service root; what it runs takes no
// argument from the child. One thread in each process.
#pragma once

#include <functional>

namespace ondrel::ctl {

// The clients' web server's systemd unit.
inline constexpr const char* kWebUnit = "ondrel-web.service";

enum class WebAction : char {
  UnitStart = 's',
  UnitStop = 't',
  UnitReload = 'r',
  ApacheStart = 'a',
};

// Runs command and returns its exit status. As root: in a child that is the service account,
// with this process serving its web actions (an ondrelctl line on standard error and status 1
// when the account cannot be taken). Otherwise: in this process.
int runAsServiceAccount(const std::function<int()>& command);

// Carries out action, through the root parent when there is one: its exit status, or -1 when it
// could not be run.
int runWebAction(WebAction action);

}  // namespace ondrel::ctl
