// The pieces of ondrelctl, the administration command: each command reads the files the sync
// daemon shares (working set, status files, caches, preferences) or posts requests to it, and
// prints text, or JSON with --json. A command returns the process's exit status: 0 done,
// 1 the job failed (after one line on standard error), 2 bad usage. One thread.
#pragma once

#include <string>
#include <vector>

#include "Administration.h"
#include "Plist.h"

namespace ondrel::ctl {

inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

// Prints "ondrelctl: <message>" on standard error and gives kExitFailed.
int fail(const std::string& message);
using programs::quotedForMessage;
// Prints the value as JSON (see Json.h) on standard output.
void printJson(const Plist& value);

int status(bool json);
// The pass under way, again every two seconds until no pass is under way.
int watchStatus();
int products(const programs::ProductFilter& filter, bool json);
int product(const std::string& productId, bool json);
int metrics();
int plan(bool json);
// requester: who asked, for the audit log.
int postChanges(const std::string& action, const std::vector<std::string>& productIds,
                const std::string& requester);
int sync(bool wait, const std::string& requester);
// The newest entries of the audit log: who posted which change, when.
int auditLog(std::size_t limit, bool json);
int configShow(bool json);
int configGet(const std::string& key, bool json);
int configSet(const std::string& key, const std::string& value, const std::string& requester);
int web(const std::string& action);
int webPassword(const std::string& user);
int webPasswordDelete(const std::string& user);

}  // namespace ondrel::ctl
