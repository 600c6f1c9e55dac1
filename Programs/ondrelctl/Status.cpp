// What ondrelctl reads: the status, the products, one product, metrics and the plan of the next
// pass, as text or JSON, from what Administration gathers; nothing here writes.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include "Clock.h"
#include "Ctl.h"
#include "DateFormats.h"
#include "KTCatalogKeys.h"
#include "KTSPassContext.h"
#include "KTSPassHistory.h"
#include "KTSScrub.h"
#include "KTSWorkingSet.h"
#include "ProductId.h"

namespace ondrel::ctl {

using programs::humanBytes;

namespace {

std::string countsText(const std::map<std::string, std::uint64_t>& byName) {
  std::string text;
  for (const auto& [name, count] : byName) {
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", count, name);
  }
  return text.empty() ? "-" : text;
}

std::string sizeText(const Plist& size) {
  return humanBytes(static_cast<std::uint64_t>(std::max<std::int64_t>(0, size.integerValue())));
}

// How the product's files come: "immediate" unless its record names another policy.
std::string policyText(const Plist& record) {
  return record["fetchPolicy"].isString() ? record["fetchPolicy"].stringValue() : "immediate";
}

// What of the product's files is here: all of a product kept whole, what clients asked for of one
// fetched on demand, nothing of one not mirrored.
std::string hereText(const Plist& record, bool keepsFiles) {
  if (!keepsFiles) return "-";
  return sizeText(record.contains("fetchPolicy") ? record["DownloadedSize"]
                                                 : record["TotalDownloadSize"]);
}

// How far the daemon's background check of the kept files has come, and the damage it found
// that no pass has put right yet.
void printScrub(const KTSScrub& scrub) {
  const KTSScrub::Cycle& cycle = scrub.cycle();
  std::string progress =
      !cycle.started ? "not yet begun"
      : cycle.ended  ? "last cycle ended " + formatDescriptionDate(*cycle.ended)
                     : fmt::format("{} of {} files this cycle", cycle.files, cycle.totalFiles);
  std::printf("Files checked:   %s; %llu found damaged in all\n", progress.c_str(),
              static_cast<unsigned long long>(scrub.totals().damaged));
  for (const KTSScrub::Damage& damage : scrub.standingDamage()) {
    std::printf("  not back yet:  %s %s (%s)\n", damage.productId.c_str(), damage.path.c_str(),
                KTSFileVerifier::findingName(damage.finding));
  }
}

}  // namespace

int status(bool json) {
  KTSPassContext context;
  programs::ServerSummary summary = programs::summarizeServer(context);
  if (json) {
    Plist out = programs::summaryAsPlist(summary);
    out.set("scrub", KTSScrub(KTSScrub::defaultPath(context.layout())).statusPlist());
    printJson(out);
    return 0;
  }
  auto when = [](const std::optional<Date>& date) {
    return date ? formatDescriptionDate(*date) : std::string("never");
  };
  std::printf("Sync:            %s (started %s, last run %s)\n",
              programs::syncStateName(summary.syncState).c_str(), when(summary.startTime).c_str(),
              when(summary.lastRunTime).c_str());
  // The last pass, whatever its kind; a failure stays until a full pass succeeds, even when
  // passes that only carry out product changes succeed meanwhile.
  KTSPassHistory history(KTSPassHistory::defaultPath(context.layout()));
  const std::optional<KTSPassHistory::Pass>& last = history.lastPass();
  std::printf("Last pass:       %s\n",
              last ? fmt::format("{} ({}), {}", KTSPassHistory::outcomeName(last->outcome),
                                 last->fullSync ? "full" : "changes only",
                                 formatDescriptionDate(last->started))
                         .c_str()
                   : "none yet");
  if (summary.updateError) {
    std::printf("Failure:         %s (until a full pass succeeds)\n",
                summary.errorNote.value_or("").c_str());
  }
  std::printf("Daemon:          %s\n",
              summary.daemonPid ? fmt::format("running (PID {})", *summary.daemonPid).c_str()
                                : "not running: nothing posted is carried out until it runs");
  if (summary.progress) {
    std::printf("Pass under way:  %s\n", summary.progress->summary(Clock::now()).c_str());
  }
  std::printf("Mode:            %s\n", summary.mode.c_str());
  if (!summary.automaticNeeds.empty()) {
    std::printf("                 AUTOMATIC also needs %s: ondrelctl config set %s\n",
                summary.automaticNeeds.c_str(), summary.automaticNeeds.c_str());
  }
  std::printf("Products:        %llu, %llu enabled\n",
              static_cast<unsigned long long>(summary.products),
              static_cast<unsigned long long>(summary.enabled));
  std::printf("  mirror states: %s\n", countsText(summary.byMirrorState).c_str());
  std::printf("  catalog:       %s\n", countsText(summary.byCompositeState).c_str());
  std::printf("Mirrored:        %s (%s still to mirror)\n",
              humanBytes(summary.bytesMirrored).c_str(), humanBytes(summary.bytesToMirror).c_str());
  if (summary.onDemand.products > 0 || summary.onDemand.fetchedFiles > 0) {
    std::printf(
        "On demand:       %llu products, %s of %s here; %llu files (%s) fetched on demand\n",
        static_cast<unsigned long long>(summary.onDemand.products),
        humanBytes(summary.onDemand.bytesHere).c_str(), humanBytes(summary.onDemand.bytes).c_str(),
        static_cast<unsigned long long>(summary.onDemand.fetchedFiles),
        humanBytes(summary.onDemand.fetchedBytes).c_str());
    std::printf(
        "                 served to %llu clients (%llu times, a file counted once a client)\n",
        static_cast<unsigned long long>(summary.onDemand.servedClients),
        static_cast<unsigned long long>(summary.onDemand.servedFiles));
  }
  std::printf("Pending:         %zu requests, %zu tickets\n", summary.pendingRequests,
              summary.pendingTickets);
  printScrub(KTSScrub(KTSScrub::defaultPath(context.layout())));
  std::printf("Document root:   %s used, %s free\n",
              humanBytes(summary.volume.total - summary.volume.free).c_str(),
              humanBytes(summary.volume.free).c_str());
  return 0;
}

int watchStatus() {
  bool terminal = ::isatty(STDOUT_FILENO) == 1;
  for (bool shown = false;; shown = true) {
    KTSPassContext context;
    programs::ServerSummary summary = programs::summarizeServer(context);
    if (!summary.progress) {
      std::printf("%sNo pass under way.\n", shown && terminal ? "\n" : "");
      return 0;
    }
    std::printf(terminal ? "\r\033[K%s" : "%s\n", summary.progress->summary(Clock::now()).c_str());
    std::fflush(stdout);
    std::this_thread::sleep_for(std::chrono::seconds(2));
  }
}

int products(const programs::ProductFilter& filter, bool json) {
  KTSPassContext context;
  Plist listed = programs::listProducts(context, filter);
  if (json) {
    printJson(listed);
    return 0;
  }
  std::printf("%-14s %-17s %-10s %-7s %-12s %10s %10s  %s\n", "PRODUCT", "MIRROR", "POLICY",
              "ENABLED", "VERSION", "SIZE", "HERE", "TITLE");
  for (const Plist& record : listed.elements()) {
    bool keeps = KTSProductState::keepsFilesIn(
        KTSProductState::mirrorStateForString(record["mirror"].stringValue()));
    std::printf("%-14s %-17s %-10s %-7s %-12s %10s %10s  %s\n",
                record["ProductID"].stringValue().c_str(), record["mirror"].stringValue().c_str(),
                policyText(record).c_str(), record["enable"].boolValue() ? "yes" : "no",
                record["CFBundleShortVersionString"].stringValue().substr(0, 12).c_str(),
                sizeText(record["TotalDownloadSize"]).c_str(), hereText(record, keeps).c_str(),
                programs::productTitle(record).c_str());
  }
  std::printf("%zu products\n", listed.size());
  return 0;
}

int product(const std::string& productId, bool json) {
  if (!isValidProductId(productId))
    return fail(quotedForMessage(productId) + " is not a product id");
  KTSPassContext context;
  Plist record = context.workingSet().productDictForID(productId);
  if (!record.isDictionary()) return fail("no product " + productId + " in the working set");
  if (json) {
    printJson(record);
    return 0;
  }
  auto line = [](const char* label, const std::string& value) {
    std::printf("%-16s %s\n", label, value.empty() ? "-" : value.c_str());
  };
  auto list = [](const Plist& ids) {
    std::string text;
    for (const Plist& id : ids.elements()) text += (text.empty() ? "" : ", ") + id.stringValue();
    return text;
  };
  line("Product:", productId);
  line("Title:", programs::productTitle(record));
  line("Family:", record["IFPkgFlagProductFamily"].stringValue());
  line("Version:", record["CFBundleShortVersionString"].stringValue());
  line("Mirror state:", record["mirror"].stringValue());
  line("Policy:", policyText(record));
  line("Enabled:", record["enable"].boolValue() ? "yes" : "no");
  line("Catalog state:", record["CompositeProductState"].stringValue());
  line("Posted:", record[KTCatalogProductPostDateKey].stringValue());
  line("Size:", sizeText(record["TotalDownloadSize"]));
  line("Downloaded:", sizeText(record["DownloadedSize"]));
  line("Installed size:", record["IFPkgFlagInstalledSize"].description());
  line("Restart:", record["IFPkgFlagRestartAction"].stringValue());
  line("Replaces:", list(record["DeprecatedProducts"]));
  line("Replaced by:", list(record["Deprecators"]));
  for (const auto& [language, strings] : record["localization"].items()) {
    line(("Title (" + language.text() + "):").c_str(), strings["title"].stringValue());
  }
  return 0;
}

int auditLog(std::size_t limit, bool json) {
  Plist entries = programs::auditEntries(KTSPassContext().layout(), limit);
  if (json) {
    printJson(entries);
    return 0;
  }
  for (const Plist& entry : entries.elements()) {
    std::string products;
    for (const Plist& id : entry["products"].elements()) {
      products += (products.empty() ? "" : " ") + id.stringValue();
    }
    std::printf("%s  %-24s %-8s %s\n", entry["time"].stringValue().c_str(),
                entry["requester"].stringValue().c_str(), entry["action"].stringValue().c_str(),
                products.c_str());
  }
  if (entries.size() == 0) std::printf("Nothing posted yet.\n");
  return 0;
}

int metrics() {
  KTSPassContext context;
  const KTSServerLayout& layout = context.layout();
  std::fputs(programs::prometheusText(programs::summarizeServer(context),
                                      KTSPassHistory(KTSPassHistory::defaultPath(layout)), layout)
                 .c_str(),
             stdout);
  return 0;
}

int plan(bool json) {
  KTSPassContext context;
  Plist plan = programs::nextPassPlan(context);
  if (json) {
    printJson(plan);
    return 0;
  }
  for (const Plist& item : plan["products"].elements()) {
    std::printf("%-14s %4lld files %10s\n", item["ProductID"].stringValue().c_str(),
                static_cast<long long>(item["files"].integerValue()),
                sizeText(item["bytes"]).c_str());
  }
  std::printf("Next pass: %zu products, %lld files, %s; %s free, %s kept in reserve (%lld%%): %s\n",
              plan["products"].size(), static_cast<long long>(plan["files"].integerValue()),
              sizeText(plan["bytes"]).c_str(), sizeText(plan["freeBytes"]).c_str(),
              sizeText(plan["reserveBytes"]).c_str(),
              static_cast<long long>(plan["reservePercent"].integerValue()),
              plan["fits"].boolValue() ? "fits" : "DOES NOT FIT");
  if (plan["possibleBytes"].integerValue() > 0) {
    std::printf("Products on demand may take up to %s more, as clients ask for their files.\n",
                sizeText(plan["possibleBytes"]).c_str());
  }
  return 0;
}

}  // namespace ondrel::ctl
