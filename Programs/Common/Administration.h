// What the administration side knows about the server and asks of it, through the files the
// daemon shares: the status summary, the products as the working set records them, the plan of
// the next pass and the Prometheus text of all of it; and the product changes and sync requests
// it posts to the daemon, each read and written through the caller's context. ondrelctl prints and
// posts through it, the administration page serves and posts through it and the daemon writes the
// metrics file from it, so that all of them say and do the same. One thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "KTSMirrorSpace.h"
#include "KTSPassProgress.h"
#include "Plist.h"

namespace ondrel {
class KTSPassContext;
class KTSPassHistory;
}  // namespace ondrel

namespace ondrel::programs {

struct ServerSummary {
  std::int64_t syncState = 0;
  std::optional<Date> startTime;
  std::optional<Date> lastRunTime;
  bool updateError = false;
  std::optional<std::string> errorNote;
  std::string mode;
  // The one setting ("KEY VALUE") that keeps a server that mirrors or enables on its own from
  // the AUTOMATIC mode; empty otherwise.
  std::string automaticNeeds;
  std::map<std::string, std::uint64_t> byMirrorState;
  std::map<std::string, std::uint64_t> byCompositeState;
  std::uint64_t products = 0;
  std::uint64_t enabled = 0;
  std::uint64_t bytesMirrored = 0;
  // What the products still to be mirrored lacked when the last pass ended.
  std::uint64_t bytesToMirror = 0;
  // The products served before their files are here, as the last pass found them (the bytes
  // their files take, those of them here), and the files fetched on demand in all.
  struct OnDemand {
    std::uint64_t products = 0;
    std::uint64_t bytes = 0;
    std::uint64_t bytesHere = 0;
    std::uint64_t fetchedFiles = 0;
    std::uint64_t fetchedBytes = 0;
    // From the web server's access log: how many times one of their files went to a client
    // (each client counted once per file), and to how many clients.
    std::uint64_t servedFiles = 0;
    std::uint64_t servedClients = 0;
  } onDemand;
  std::size_t pendingRequests = 0;
  std::size_t pendingTickets = 0;
  // The ondrd_syncd that holds the pass lock (the service, or a pass run by hand); none when no
  // ondrd_syncd runs, so that nothing posted is carried out until one does.
  std::optional<int> daemonPid;
  // What the pass under way has done; none when no pass is under way.
  std::optional<KTSPassProgress::State> progress;
  KTSMirrorSpace volume;
};

ServerSummary summarizeServer(KTSPassContext& context);
// The summary as `ondrelctl status --json` prints it.
Plist summaryAsPlist(const ServerSummary& summary);
// "syncing", "done" or "never run".
std::string syncStateName(std::int64_t state);
// The Prometheus text of the summary, of the passes' history, of the scrub's checks and of the
// clients' catalog requests on the newest day of the web server's access log.
std::string prometheusText(const ServerSummary& summary, const KTSPassHistory& history,
                           const KTSServerLayout& layout);
// The health document at now ("/health" answers it): the passes' part (KTSPassHistory) with the
// files the scrub found damaged that are still in place ("damagedFiles"); the server is healthy
// when its passes are and there are none.
Plist healthDocument(const KTSPassHistory& history, const KTSServerLayout& layout, Date now);
// The web server's access log, where the clients' catalog requests are counted.
std::string accessLogPath(const KTSServerLayout& layout);

struct ProductFilter {
  std::string state;  // a mirror or catalog state, any case; empty for all
  bool enabledOnly = false;
  std::string catalog;  // a catalog's file name without extension; empty for all
  std::string search;   // found in id, family, version or title, any case
};

// The working set's records of the products the filter lets through, in id order.
Plist listProducts(KTSPassContext& context, const ProductFilter& filter);
// The English title of a working-set record, else any title it has.
std::string productTitle(const Plist& record);
// The product's working-set record with "catalogs" (the names of the catalogs that list it) and
// "files" (each with its "path" under the document root, "size" and whether it is "present");
// null when the working set has no such product.
Plist productDetail(KTSPassContext& context, const std::string& productId);
// What the next pass downloads: "products" (ProductID, files, bytes), "files", "bytes",
// "freeBytes", "reserveBytes", "reservePercent" and whether it "fits"; what the products fetched on
// demand could take besides, were every file asked for ("possibleBytes"), is not counted in it.
Plist nextPassPlan(KTSPassContext& context);

// The product changes an administrator can post: "mirror", "enable", "disable", "remove".
bool isProductAction(const std::string& action);
// Posts the action for the products to the daemon: one change request and a job ticket per
// product, and a line of the audit log naming who asked (requester: "alice (page)", "root").
// A mirror may name how the files are to come (policy: "immediate", "on-demand", "background";
// empty leaves each product's as it is). Nothing is posted, and error says why, when the action
// or the policy is unknown, an id is not a product id or not in the working set, or the spool
// refuses the request.
bool postProductChanges(KTSPassContext& context, const std::string& action,
                        const std::vector<std::string>& productIds, const std::string& requester,
                        std::string* error, const std::string& policy = "");
// Asks the daemon for a pass now, in the audit log too; false with the reason when the spool
// refuses the request.
bool postSyncRequest(KTSPassContext& context, const std::string& requester, std::string* error);
// Posts a rollout action on a product (KTSRollout::actionNamed; ring for advance and rollback,
// or "") for the daemon's next pass, in the audit log too; false with the reason when it is not
// one, cannot apply to the rollout as it stands, or the spool refuses it.
bool postRolloutAction(KTSPassContext& context, const std::string& productId,
                       const std::string& action, const std::string& ring,
                       const std::string& requester, std::string* error);
// Appends a line to the audit log: when, who, what, and the products it concerns.
void recordInAuditLog(const KTSServerLayout& layout, const std::string& requester,
                      const std::string& action, const std::vector<std::string>& productIds);
// Sets the setting called key from text, with the checks and messages of ondrelctl config set
// (one definition of each setting in KTSSettings), commits the preferences and records who did it
// in the audit log; false with the reason ("KEY takes ...; nothing was changed") otherwise. The
// web server's configuration is rewritten by the commit, not reloaded.
bool changeSetting(KTSPassContext& context, const std::string& key, const std::string& text,
                   const std::string& requester, std::string* error);
// Every settable setting with its value: "key", "value" (absent when unset) and whether it
// "shapesWebServer".
Plist settingsWithValues(KTSPassContext& context);

// The newest entries of the audit log, newest first, at most limit: each "time", "requester",
// "action" and "products" (an array). The log is read as untrusted; a line that is not one of
// its entries is left out.
Plist auditEntries(const KTSServerLayout& layout, std::size_t limit);
// The user ondrelctl acts for: its real user's name, and under sudo the user who ran sudo.
std::string invokingUser();

// Text from outside as a message may show it: in quotes, control characters escaped, at most
// 64 characters of it.
std::string quotedForMessage(const std::string& text);

// Bytes in the units a person reads (1000-based, one decimal).
std::string humanBytes(std::uint64_t bytes);

}  // namespace ondrel::programs
