// The pieces of ondrelctl, the administration command: each command reads the files the sync
// daemon shares (working set, status files, caches, preferences) or posts requests to it, and
// prints text, or JSON with --json. A command returns the process's exit status: 0 done,
// 1 the job failed (after one line on standard error), 2 bad usage; verify adds its own. One
// thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Administration.h"
#include "KTSSyncStatus.h"
#include "Plist.h"

namespace ondrel::ctl {

inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;
// verify: a file is missing or not what was recorded; the time limit ended it before every file
// was checked (and what was checked is good); a pass holds the files.
inline constexpr int kExitFilesDiffer = 3;
inline constexpr int kExitNotAllChecked = 4;
inline constexpr int kExitBusy = 75;

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
// policy: how a mirror's files are to come; empty for as they are.
int postChanges(const std::string& action, const std::vector<std::string>& productIds,
                const std::string& requester, const std::string& policy);
int sync(bool wait, const std::string& requester);
// Waits until a pass that started after before (the last run time then) has ended, telling every
// second how it goes; none, or why there is no good outcome: no pass started within two minutes,
// or the pass failed.
std::optional<std::string> waitForPassAfter(KTSSyncStatus& status, std::optional<Date> before,
                                            const std::function<void(const std::string&)>& tell);
// The newest entries of the audit log: who posted which change, when.
int auditLog(std::size_t limit, bool json);
int configShow(bool json);
int configGet(const std::string& key, bool json);
int configSet(const std::string& key, const std::string& value, const std::string& requester);
int web(const std::string& action);
// What verify is asked to do: a quick check (size and time) or a full one (every byte), of the
// given products' files or of all kept files, for at most maxSeconds.
// With repair, the files found missing or changed are removed (so that no damaged file is ever
// served), a pass is asked for to fetch them again, and once it ended they are checked again.
struct VerifyRequest {
  bool quick = false;
  bool json = false;
  bool repair = false;
  std::string requester;
  std::optional<std::int64_t> maxSeconds;
  std::vector<std::string> productIds;
};
int verify(const VerifyRequest& request);
// What ondrelctl rings is asked: command is "list", "set", "remove", "trust", "which",
// "status", or a rollout action (KTSRollout::actionNamed).
struct RingsRequest {
  std::string command = "list";
  bool json = false;
  std::string requester;
  std::string name;  // set, remove
  std::optional<std::vector<std::string>> blocks;
  std::optional<std::string> delay;
  std::optional<int> share;
  std::optional<std::size_t> position;
  std::string address;  // which
  std::string forwardedFor;
  std::string productId;  // the actions
  std::string ring;
};
int rings(const RingsRequest& request);
int webPassword(const std::string& user);
int webPasswordDelete(const std::string& user);

}  // namespace ondrel::ctl
