// Checks, before a program loads the preferences, that the service root can hold them: the
// folder it lives in exists (made when missing) and, on a root without preferences yet, the
// shipped defaults can be found. Without this check the library would load (and a command save)
// its "InvalidPreferenceFile" stand-in. Used by ondrelctl and ondrd_syncd at start. One thread.
#pragma once

#include <optional>
#include <string>

namespace ondrel::programs {

// Makes a process started as root the service account for good, before it touches the service
// root: everything there is the account's to write, so root must not read or run any of it.
// None when this process is not root or has become the account; otherwise the reason.
std::optional<std::string> leaveRoot();

// None when this user may administer the server: root, or a user who may write the service
// folder (a member of group _ondrel on an installed server, the owner of a root of their own).
// Otherwise one line that says who may, and how to become one of them.
std::optional<std::string> administratorProblem();

// On a server laid out for the service group (its folder belongs to the group and passes it on
// to what is made inside), makes what this process creates the group's too, and nobody else's:
// an administrator's files and folders must stay writable by the daemon.
void adoptServiceGroupPermissions();

// None when the preferences can be loaded; otherwise one line saying what is wrong and what to
// do about it. Creates the service root's parent folder when it is missing.
std::optional<std::string> serviceRootProblem();

}  // namespace ondrel::programs
