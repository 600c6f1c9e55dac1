// Becoming the service account: how a program started as root gives up root before it touches
// the service root, whose files the account (and so the daemon, its hooks and the web server's
// CGIs) can write. Used by ondrelctl, ondrd_syncd and the web server's start. Call before any
// thread is started: the change applies to the calling thread's process.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace ondrel {

struct AccountIds {
  uid_t uid = 0;
  gid_t gid = 0;
};

// The service account's user and group ids; none when the account is missing.
std::optional<AccountIds> serviceAccountIds();

// Whether the real or the effective user is root (a program run from a script that switched only
// its effective user still has root's powers within reach).
bool isRoot();

// Drops every privilege for good: the supplementary groups become the account's own (as for a
// login of it, so that an administrator can add it to ssl-cert), then group and user ids (real,
// effective, saved) become the account's. With keepLowPorts the process
// keeps the one capability of binding ports below 1024, inherited across exec as an ambient
// capability (what a web server needs, and nothing else). False with the reason when the account
// is missing or the kernel refuses; the process is then unchanged or must not go on.
bool becomeServiceAccount(std::string* error, bool keepLowPorts = false);

}  // namespace ondrel
