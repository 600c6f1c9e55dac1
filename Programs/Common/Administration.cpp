#include "Administration.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>

#include "AdminSite.h"
#include "ClientStatistics.h"
#include "Clock.h"
#include "DateFormats.h"
#include "FileIO.h"
#include "KTCatalogKeys.h"
#include "KTSCatalog.h"
#include "KTSJobTicket.h"
#include "KTSJobTicketManager.h"
#include "KTSMetaIndex.h"
#include "KTSMirrorSpace.h"
#include "KTSOnDemandFiles.h"
#include "KTSPassContext.h"
#include "KTSPassHistory.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSRequestManager.h"
#include "KTSRings.h"
#include "KTSRollout.h"
#include "KTSScrub.h"
#include "KTSServerLayout.h"
#include "KTSSettings.h"
#include "KTSStatusValues.h"
#include "KTSSyncStatus.h"
#include "KTSUtilities.h"
#include "KTSWorkingSet.h"
#include "PathString.h"
#include "ProductId.h"
#include "Utf8.h"

namespace ondrel::programs {

namespace {

std::string lowercased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::size_t pendingRequestCount() {
  std::size_t count = 0;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(KTSServerLayout::spoolFolder(), error), end;
       !error && entry != end; entry.increment(error)) {
    if (KTSServerLayout::isRequestFileName(entry->path().filename().string())) ++count;
  }
  return count;
}

// The PID the pass lock names, when that process is an ondrd_syncd: the lock's holder writes it
// there, and a holder that died leaves it behind.
std::optional<int> runningDaemon(const KTSServerLayout& layout) {
  std::string text;
  if (!readWholeFile(layout.passLockPath(), &text, nullptr, 64)) {
    return std::nullopt;
  }
  int pid = 0;
  if (std::sscanf(text.c_str(), "%9d", &pid) != 1 || pid <= 1) return std::nullopt;
  std::string name;
  readWholeFile("/proc/" + std::to_string(pid) + "/comm", &name, nullptr, 64);
  if (name.rfind("ondrd_syncd", 0) != 0) return std::nullopt;
  return pid;
}

std::string auditLogPath(const KTSServerLayout& layout) { return layout.statusPath("audit.log"); }
// A line of the log is at most this long (a change of many products names the first few).
constexpr std::size_t kMostAuditLine = 2048;
// How much of the log's end is read to show its newest entries.
constexpr std::size_t kAuditTail = std::size_t{256} << 10;

// Text of the log's fields: no tab or line break from outside ends a field or a line.
std::string auditField(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c == '\t' || c == '\n' || c == '\r'; }, ' ');
  return text.substr(0, 128);
}

std::uint64_t nonNegative(const Plist& value) {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(0, value.integerValue()));
}

Plist counts(const std::map<std::string, std::uint64_t>& byName) {
  Plist dictionary = Plist::dictionary();
  for (const auto& [name, count] : byName) {
    dictionary.set(name, Plist::integer(static_cast<std::int64_t>(count)));
  }
  return dictionary;
}

Plist optionalDate(const std::optional<Date>& date) {
  return date ? Plist(formatRfc3339Date(*date)) : Plist();
}

std::set<std::string> productsOfCatalog(const KTSServerLayout& layout, const std::string& name) {
  std::set<std::string> ids;
  std::string composite = layout.catalogsFolderPath(name + ".composite");
  for (const auto& [productId, entry] :
       KTSUtilities::readPropertyListAtPath(composite)[KTCatalogProductsDictKey].items()) {
    ids.insert(productId);
  }
  return ids;
}

// A request file is named by the second it was posted in; a second post in the same second
// would replace the first, so it waits for the next second. Gives the second it is in.
std::int64_t waitForAFreshSecond() {
  for (;;) {
    std::int64_t second = Clock::secondsNow();
    if (!std::filesystem::exists(KTSServerLayout::requestPath(second))) return second;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

// Whether a request file named by a second from since on is in the spool: the request manager
// does not say when it could not write one.
bool requestWrittenSince(std::int64_t since) {
  for (std::int64_t second = since; second <= Clock::secondsNow(); ++second) {
    if (std::filesystem::exists(KTSServerLayout::requestPath(second))) return true;
  }
  return false;
}

// How often the files of the products on demand went to clients, from the access log.
void countServedOnDemand(const KTSServerLayout& layout, ServerSummary::OnDemand& onDemand) {
  std::set<std::string> paths;
  for (const KTSOnDemandFiles::Entry& entry : KTSOnDemandFiles(layout).readIndex()) {
    paths.insert(entry.urlPath.substr(1));
  }
  std::set<std::string> clients;
  for (const auto& [path, addresses] : fileClients(accessLogPath(layout), paths)) {
    onDemand.servedFiles += addresses.size();
    clients.insert(addresses.begin(), addresses.end());
  }
  onDemand.servedClients = clients.size();
}

}  // namespace

std::string syncStateName(std::int64_t state) {
  return state == KTSSyncStatus::InProgress ? "syncing"
         : state == KTSSyncStatus::Done     ? "done"
                                            : "never run";
}

std::string humanBytes(std::uint64_t bytes) {
  const char* units[] = {"B", "KB", "MB", "GB", "TB"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1000 && unit < 4) value /= 1000, ++unit;
  if (unit == 0) return fmt::format("{:.0f} {}", value, units[unit]);
  return fmt::format("{:.1f} {}", value, units[unit]);
}

ServerSummary summarizeServer(KTSPassContext& context) {
  ServerSummary summary;
  KTSSyncStatus& status = context.status();
  summary.syncState = status.getSyncStatus();
  summary.startTime = status.getStartTime();
  summary.lastRunTime = status.getLastRunTime();
  summary.updateError = status.getUpdateError();
  summary.errorNote = status.getErrorNote();
  KTSPreferences& preferences = context.preferences();
  summary.mode = preferences.modeName();
  std::vector<const char*> missing;
  if (!preferences.autoMirror()) missing.push_back("autoMirror true");
  if (!preferences.autoEnable()) missing.push_back("autoEnable true");
  if (!preferences.purgeUnused()) missing.push_back("PurgeUnused true");
  if (preferences.autoMirrorOnlyNew()) missing.push_back("autoMirrorOnlyNew false");
  if (missing.size() == 1 && (preferences.autoMirror() || preferences.autoEnable())) {
    summary.automaticNeeds = missing.front();
  }
  for (const auto& [productId, record] : context.workingSet().products().items()) {
    ++summary.products;
    std::int32_t mirror = KTSProductState::mirrorStateForString(record["mirror"].stringValue());
    ++summary.byMirrorState[KTSProductState::mirrorStringForState(mirror)];
    ++summary.byCompositeState[KTSCatalog::compositeProductStringForStateValue(
        KTSCatalog::compositeProductStateForString(record["CompositeProductState"].stringValue()))];
    if (record["enable"].boolValue()) ++summary.enabled;
    // Of a product fetched as clients ask, what is here.
    if (record.contains("fetchPolicy") && mirror >= KTSProductState::Mirrored) {
      summary.bytesMirrored += nonNegative(record["DownloadedSize"]);
    } else if (mirror >= KTSProductState::Mirrored) {
      summary.bytesMirrored += nonNegative(record["TotalDownloadSize"]);
    }
  }
  // Counted by the pass from the files on disk, as the plan counts them.
  KTSPassHistory history(KTSPassHistory::defaultPath(context.layout()));
  if (const std::optional<KTSPassHistory::Pass>& last = history.lastPass()) {
    summary.bytesToMirror = last->bytesStillToFetch;
    summary.onDemand = {last->onDemandProducts, last->onDemandBytes, last->onDemandBytesHere,
                        history.onDemandFetchedFiles(), history.onDemandFetchedBytes()};
    if (last->onDemandProducts > 0) countServedOnDemand(context.layout(), summary.onDemand);
  }
  summary.pendingRequests = pendingRequestCount();
  KTSJobTicketManager& tickets = context.tickets();
  tickets.refresh();
  summary.pendingTickets = tickets.openJobs().size();
  summary.daemonPid = runningDaemon(context.layout());
  if (summary.daemonPid) {
    summary.progress = KTSPassProgress::read(KTSPassProgress::defaultPath(context.layout()));
  }
  summary.volume = KTSMirrorSpace::now(context.preferences());
  return summary;
}

Plist summaryAsPlist(const ServerSummary& summary) {
  auto integer = [](std::uint64_t value) {
    return Plist::integer(static_cast<std::int64_t>(value));
  };
  Plist out = Plist::dictionary();
  out.set("syncState", syncStateName(summary.syncState));
  out.set("startTime", optionalDate(summary.startTime));
  out.set("lastRunTime", optionalDate(summary.lastRunTime));
  out.set("updateError", Plist::boolean(summary.updateError));
  out.set("errorNote", summary.errorNote ? Plist(*summary.errorNote) : Plist());
  out.set("mode", summary.mode);
  if (!summary.automaticNeeds.empty()) out.set("automaticNeeds", summary.automaticNeeds);
  out.set("products", integer(summary.products));
  out.set("productsByMirrorState", counts(summary.byMirrorState));
  out.set("productsByCompositeState", counts(summary.byCompositeState));
  out.set("enabled", integer(summary.enabled));
  out.set("bytesMirrored", integer(summary.bytesMirrored));
  out.set("bytesToMirror", integer(summary.bytesToMirror));
  Plist onDemand = Plist::dictionary();
  onDemand.set("products", integer(summary.onDemand.products));
  onDemand.set("bytes", integer(summary.onDemand.bytes));
  onDemand.set("bytesHere", integer(summary.onDemand.bytesHere));
  onDemand.set("fetchedFiles", integer(summary.onDemand.fetchedFiles));
  onDemand.set("fetchedBytes", integer(summary.onDemand.fetchedBytes));
  onDemand.set("servedFiles", integer(summary.onDemand.servedFiles));
  onDemand.set("servedClients", integer(summary.onDemand.servedClients));
  out.set("onDemand", std::move(onDemand));
  out.set("pendingRequests", integer(summary.pendingRequests));
  out.set("pendingTickets", integer(summary.pendingTickets));
  out.set("daemonRunning", Plist::boolean(summary.daemonPid.has_value()));
  if (summary.progress) out.set("progress", summary.progress->asPlist(Clock::now()));
  out.set("volumeBytes", integer(summary.volume.total));
  out.set("volumeFreeBytes", integer(summary.volume.free));
  out.set("reserveBytes", integer(summary.volume.reserve));
  out.set("reservePercent", Plist::integer(summary.volume.reservePercent));
  return out;
}

std::string prometheusText(const ServerSummary& summary, const KTSPassHistory& history,
                           const KTSServerLayout& layout) {
  std::string text;
  auto gauge = [&text](const char* name, const char* help, double value) {
    text += KTSStatusValues::metric(name, "gauge", help, value);
  };
  gauge("ondrel_sync_state", "0 never run, 1 syncing, 2 done",
        static_cast<double>(summary.syncState));
  gauge("ondrel_last_run_timestamp_seconds", "Start of the last pass, in seconds since the epoch",
        summary.lastRunTime
            ? std::chrono::duration<double>(summary.lastRunTime->time_since_epoch()).count()
            : 0);
  gauge("ondrel_update_error", "1 when the last pass failed", summary.updateError ? 1 : 0);
  text += "# HELP ondrel_products Products by mirror state\n# TYPE ondrel_products gauge\n";
  for (const auto& [name, count] : summary.byMirrorState) {
    text += fmt::format("ondrel_products{{mirror_state=\"{}\"}} {}\n", name, count);
  }
  text +=
      "# HELP ondrel_catalog_products Products by catalog state\n"
      "# TYPE ondrel_catalog_products gauge\n";
  for (const auto& [name, count] : summary.byCompositeState) {
    text += fmt::format("ondrel_catalog_products{{state=\"{}\"}} {}\n", name, count);
  }
  gauge("ondrel_products_enabled", "Products offered to clients",
        static_cast<double>(summary.enabled));
  gauge("ondrel_mirrored_bytes", "Bytes of mirrored products",
        static_cast<double>(summary.bytesMirrored));
  gauge("ondrel_to_mirror_bytes", "Bytes still to mirror",
        static_cast<double>(summary.bytesToMirror));
  gauge("ondrel_pending_requests", "Requests waiting for the daemon",
        static_cast<double>(summary.pendingRequests));
  gauge("ondrel_pending_tickets", "Job tickets waiting for the daemon",
        static_cast<double>(summary.pendingTickets));
  gauge("ondrel_volume_free_bytes", "Free bytes on the document root's volume",
        static_cast<double>(summary.volume.free));
  gauge("ondrel_volume_size_bytes", "Size of the document root's volume",
        static_cast<double>(summary.volume.total));
  return text + history.prometheusText() +
         KTSScrub(KTSScrub::defaultPath(layout)).prometheusText() +
         catalogClientsPrometheus(catalogClients(accessLogPath(layout), 1));
}

Plist healthDocument(const KTSPassHistory& history, const KTSServerLayout& layout, Date now) {
  Plist health = history.healthDocument(now);
  std::size_t damaged = KTSScrub(KTSScrub::defaultPath(layout)).standingDamage().size();
  health.set("damagedFiles", Plist::integer(static_cast<std::int64_t>(damaged)));
  health.set("healthy", Plist::boolean(health["healthy"].boolValue() && damaged == 0));
  return health;
}

std::string accessLogPath(const KTSServerLayout& layout) {
  return layout.statusPath("httpd_access.log");
}

std::string productTitle(const Plist& record) {
  for (const char* language : {"English", "en"}) {
    const Plist& title = record["localization"][language]["title"];
    if (title.isString()) return title.stringValue();
  }
  for (const auto& [language, strings] : record["localization"].items()) {
    if (strings["title"].isString()) return strings["title"].stringValue();
  }
  return "";
}

Plist listProducts(KTSPassContext& context, const ProductFilter& filter) {
  std::optional<std::set<std::string>> inCatalog;
  if (!filter.catalog.empty()) inCatalog = productsOfCatalog(context.layout(), filter.catalog);
  std::string wantedState = lowercased(filter.state);
  std::string wantedText = lowercased(filter.search);
  Plist listed = Plist::array();
  for (const auto& [productId, record] : context.workingSet().products().items()) {
    if (!record.isDictionary()) continue;
    if (!wantedState.empty() && lowercased(record["mirror"].stringValue()) != wantedState &&
        lowercased(record["CompositeProductState"].stringValue()) != wantedState) {
      continue;
    }
    if (filter.enabledOnly && !record["enable"].boolValue()) continue;
    if (inCatalog && inCatalog->count(productId) == 0) continue;
    if (!wantedText.empty()) {
      std::string haystack = lowercased(
          productId.text() + " " + record["IFPkgFlagProductFamily"].stringValue() + " " +
          record["CFBundleShortVersionString"].stringValue() + " " + productTitle(record));
      if (haystack.find(wantedText) == std::string::npos) continue;
    }
    listed.append(record);
  }
  return listed;
}

Plist productDetail(KTSPassContext& context, const std::string& productId) {
  Plist record = context.workingSet().productDictForID(productId);
  if (!record.isDictionary()) return Plist();
  const std::string html = context.preferences().updatesHtmlPath();
  Plist catalogs = Plist::array();
  Plist files = Plist::array();
  KTSCatalog::forEachCachedCatalog(context, [&](const KTSCatalog& catalog) {
    auto found = catalog.products()->find(productId);
    if (found == catalog.products()->end()) return;
    catalogs.append(lastPathComponent(catalog.catalogURL().path()));
    if (files.size() > 0) return;
    for (const Plist& file : found->second->mirrorFiles().elements()) {
      const std::string& local = file[KTSProduct::kFileLocalPathKey].stringValue();
      const Plist& size = file[KTSProduct::kFileSizeKey];
      Plist item = Plist::dictionary();
      item.set("path", local.rfind(html, 0) == 0 ? local.substr(html.size()) : local);
      item.set("size", size.isNumber() ? Plist::integer(size.integerValue()) : Plist());
      item.set("present",
               Plist::boolean(KTSUtilities::fileExistsAtPathWithSize(
                   local, size.isNumber() ? std::optional(size.integerValue()) : std::nullopt)));
      files.append(item);
    }
  });
  record.set("catalogs", catalogs);
  record.set("files", files);
  return record;
}

Plist nextPassPlan(KTSPassContext& context) {
  KTSWorkingSet& workingSet = context.workingSet();
  std::set<std::string> seen;
  Plist planned = Plist::array();
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  // What the files of products fetched on demand could still take, were every one asked for.
  std::uint64_t possibleBytes = 0;
  KTSCatalog::forEachCachedCatalog(context, [&](const KTSCatalog& catalog) {
    for (const auto& [productId, product] : *catalog.products()) {
      std::int32_t mirror = workingSet.containsProductID(productId)
                                ? workingSet.mirrorSettingForProductID(productId)
                                : product->state().mirror();
      bool onDemand = workingSet.productDictForID(productId)["fetchPolicy"].stringValue() ==
                      KTSProductState::fetchPolicyName(KTSProductState::FetchPolicy::OnDemand);
      if (onDemand && mirror == KTSProductState::Mirrored && seen.insert(productId).second) {
        possibleBytes += product->stillToFetch().bytes;
        continue;
      }
      if ((mirror != KTSProductState::PleaseMirror && mirror != KTSProductState::Downloading) ||
          !seen.insert(productId).second) {
        continue;
      }
      KTSProduct::StillToFetch still = product->stillToFetch();
      Plist item = Plist::dictionary();
      item.set("ProductID", productId);
      item.set("files", Plist::integer(static_cast<std::int64_t>(still.files)));
      item.set("bytes", Plist::integer(static_cast<std::int64_t>(still.bytes)));
      planned.append(item);
      files += still.files;
      bytes += still.bytes;
    }
  });
  KTSMirrorSpace space = KTSMirrorSpace::now(context.preferences());
  Plist out = Plist::dictionary();
  out.set("products", planned);
  out.set("files", Plist::integer(static_cast<std::int64_t>(files)));
  out.set("bytes", Plist::integer(static_cast<std::int64_t>(bytes)));
  out.set("possibleBytes", Plist::integer(static_cast<std::int64_t>(possibleBytes)));
  out.set("freeBytes", Plist::integer(static_cast<std::int64_t>(space.free)));
  out.set("reserveBytes", Plist::integer(static_cast<std::int64_t>(space.reserve)));
  out.set("reservePercent", Plist::integer(space.reservePercent));
  out.set("fits", Plist::boolean(space.fits(bytes)));
  return out;
}

bool isProductAction(const std::string& action) {
  return action == "mirror" || action == "enable" || action == "disable" || action == "remove";
}

bool postProductChanges(KTSPassContext& context, const std::string& action,
                        const std::vector<std::string>& productIds, const std::string& requester,
                        std::string* error, const std::string& policy) {
  if (!isProductAction(action)) {
    *error = quotedForMessage(action) + " is not a product change; nothing was posted";
    return false;
  }
  if (!policy.empty() && (action != "mirror" || !KTSProductState::fetchPolicyForName(policy))) {
    *error = action != "mirror" ? "only a mirror takes a policy; nothing was posted"
                                : quotedForMessage(policy) +
                                      " is not a policy (immediate, on-demand or background); "
                                      "nothing was posted";
    return false;
  }
  if (productIds.empty()) {
    *error = "no product was named; nothing was posted";
    return false;
  }
  KTSWorkingSet& workingSet = context.workingSet();
  for (const std::string& productId : productIds) {
    if (!isValidProductId(productId)) {
      *error = quotedForMessage(productId) + " is not a product id; nothing was posted";
      return false;
    }
    if (!workingSet.containsProductID(productId)) {
      *error = "no product " + productId + " in the working set; nothing was posted";
      return false;
    }
  }
  static const std::map<std::string, std::pair<const char*, std::int64_t>> kChanges = {
      {"mirror", {"mirror", KTSJobTicket::Mirror}},
      {"enable", {"enable", KTSJobTicket::Enable}},
      {"disable", {"enable", KTSJobTicket::Disable}},
      {"remove", {"remove", KTSJobTicket::Remove}}};
  const auto& [key, ticketType] = kChanges.at(action);
  Plist items = Plist::array();
  for (const std::string& productId : productIds) {
    Plist item = Plist::dictionary();
    item.set("ProductID", productId);
    item.set(key, Plist::boolean(action != "disable"));
    if (!policy.empty()) item.set("fetchPolicy", policy);
    items.append(item);
  }
  std::int64_t posted = waitForAFreshSecond();
  if (!context.requests().postChangeRequestForProductItems(items) || !requestWrittenSince(posted)) {
    *error = "the request could not be written to the spool " + KTSServerLayout::spoolFolder();
    return false;
  }
  KTSJobTicketManager& tickets = context.tickets();
  tickets.refresh();
  for (const std::string& productId : productIds) {
    tickets.addTicketOfTypeForProduct(ticketType, productId);
  }
  recordInAuditLog(context.layout(), requester,
                   policy.empty() ? action : action + " (" + policy + ")", productIds);
  return true;
}

// Appends one line ("time, requester, action, products" separated by tabs) in one write, which
// the kernel keeps whole beside other writers' lines.
void recordInAuditLog(const KTSServerLayout& layout, const std::string& requester,
                      const std::string& action, const std::vector<std::string>& productIds) {
  std::string line = formatRfc3339Date(Clock::now()) + "\t" + auditField(requester) + "\t" +
                     auditField(action) + "\t";
  for (std::size_t i = 0; i < productIds.size(); ++i) {
    std::string next = auditField(productIds[i]);
    if (i > 0) next.insert(next.begin(), ' ');
    if (line.size() + next.size() > kMostAuditLine - 32) {
      line += fmt::format(" and {} more", productIds.size() - i);
      break;
    }
    line += next;
  }
  line += "\n";
  int fd = ::open(auditLogPath(layout).c_str(),
                  O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0640);
  if (fd < 0) return;
  if (::write(fd, line.data(), line.size()) < 0) {
    LogHandle::shared().warning("The audit log could not be written: {}", std::strerror(errno));
  }
  ::close(fd);
}

bool postRolloutAction(KTSPassContext& context, const std::string& productId,
                       const std::string& action, const std::string& ring,
                       const std::string& requester, std::string* error) {
  if (!KTSRollout::actionNamed(action) || !isValidProductId(productId) ||
      (!ring.empty() && !KTSRings::isRingName(ring))) {
    *error = quotedForMessage(action + " " + productId + " " + ring) + " is not a rollout action";
    return false;
  }
  // Tried first on the record as it stands, so that what cannot apply (no rings, no such ring,
  // a product not on its way) is told at once; the daemon tries it again when it carries it out.
  KTSRings rings = KTSRings::fromPreferences(context.preferences().prefs());
  KTSRollout trial(KTSRollout::defaultPath(context.layout()));
  std::string why;
  if (!trial.apply(productId, *KTSRollout::actionNamed(action), ring, rings, Clock::now(),
                   requester, &why)) {
    *error = why + "; nothing was posted";
    return false;
  }
  std::int64_t posted = waitForAFreshSecond();
  if (!context.requests().postRolloutRequest(productId, action, ring, requester) ||
      !requestWrittenSince(posted)) {
    *error = "the request could not be written to the spool " + KTSServerLayout::spoolFolder();
    return false;
  }
  recordInAuditLog(context.layout(), requester, ring.empty() ? action : action + " " + ring,
                   {productId});
  return true;
}

bool postSyncRequest(KTSPassContext& context, const std::string& requester, std::string* error) {
  std::int64_t posted = waitForAFreshSecond();
  if (context.requests().postSyncRequest() && requestWrittenSince(posted)) {
    recordInAuditLog(context.layout(), requester, "sync", {});
    return true;
  }
  *error = "the sync request could not be written to the spool " + KTSServerLayout::spoolFolder();
  return false;
}

bool changeSetting(KTSPassContext& context, const std::string& key, const std::string& text,
                   const std::string& requester, std::string* error) {
  const KTSSettings::Setting* setting = KTSSettings::find(key);
  if (setting == nullptr) {
    std::string keys;
    for (const KTSSettings::Setting& each : KTSSettings::settable()) {
      keys += (keys.empty() ? "" : ", ") + std::string(each.key);
    }
    *error = quotedForMessage(key) + " cannot be set here; settable: " + keys;
    return false;
  }
  std::string why;
  Plist value = KTSSettings::valueFromText(*setting, text, &why);
  if (value.isNull()) {
    *error = key + " " + why + "; nothing was changed";
    return false;
  }
  KTSPreferences& preferences = context.preferences();
  if ((key == "adminPort" && value.integerValue() == preferences.portToUse().integerValue()) ||
      (key == "portToUse" && value.integerValue() == adminPort(context))) {
    *error = "the clients and the administration page cannot share port " + text +
             "; nothing was changed";
    return false;
  }
  Plist before = preferences.prefs();
  preferences.setValue(key, value);
  std::string tlsProblem;
  if (key == "adminAddress" && (adminTls(context, &tlsProblem), !tlsProblem.empty())) {
    preferences.setPrefs(before);
    *error = tlsProblem + "; nothing was changed";
    return false;
  }
  if (!preferences.commitChanges()) {
    *error = "the preferences could not be saved";
    return false;
  }
  recordInAuditLog(context.layout(), requester, "set", {key + "=" + text});
  return true;
}

Plist settingsWithValues(KTSPassContext& context) {
  const Plist& settings = context.preferences().prefs();
  Plist out = Plist::array();
  for (const KTSSettings::Setting& setting : KTSSettings::settable()) {
    Plist item = Plist::dictionary();
    item.set("key", std::string(setting.key));
    if (settings.contains(std::string(setting.key))) {
      item.set("value", settings[std::string(setting.key)]);
    }
    item.set("shapesWebServer", Plist::boolean(setting.shapesWebServer));
    out.append(item);
  }
  return out;
}

Plist auditEntries(const KTSServerLayout& layout, std::size_t limit) {
  Plist entries = Plist::array();
  std::string tail = readFileTail(auditLogPath(layout), kAuditTail);
  std::vector<std::string> lines;
  for (std::size_t at = 0, end; at < tail.size(); at = end + 1) {
    end = tail.find('\n', at);
    lines.push_back(tail.substr(at, end - at));
  }
  for (auto line = lines.rbegin(); line != lines.rend() && entries.size() < limit; ++line) {
    std::vector<std::string> fields;
    for (std::size_t at = 0;;) {
      std::size_t tab = line->find('\t', at);
      fields.push_back(line->substr(at, tab - at));
      if (tab == std::string::npos) break;
      at = tab + 1;
    }
    if (fields.size() != 4 || !parseRfc3339Date(fields[0]) || !isValidUtf8(*line)) continue;
    Plist entry = Plist::dictionary();
    entry.set("time", fields[0]);
    entry.set("requester", fields[1]);
    entry.set("action", fields[2]);
    Plist products = Plist::array();
    for (std::size_t at = 0; at < fields[3].size();) {
      std::size_t space = fields[3].find(' ', at);
      if (space == std::string::npos) space = fields[3].size();
      if (space > at) products.append(fields[3].substr(at, space - at));
      at = space + 1;
    }
    entry.set("products", products);
    entries.append(entry);
  }
  return entries;
}

std::string invokingUser() {
  auto nameOf = [](uid_t uid) -> std::string {
    struct passwd* account = ::getpwuid(uid);
    return account != nullptr ? account->pw_name : std::to_string(uid);
  };
  std::string user = nameOf(::getuid());
  const char* sudoUser = std::getenv("SUDO_USER");
  if (::getuid() == 0 && sudoUser != nullptr && *sudoUser != '\0') {
    user += fmt::format(" (sudo by {})", auditField(sudoUser));
  }
  return user;
}

std::string quotedForMessage(const std::string& text) {
  constexpr std::size_t kShown = 64;
  std::string quoted = "\"";
  for (std::size_t i = 0; i < text.size() && i < kShown; ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == 0x7f) {
      quoted += fmt::format("\\x{:02x}", c);
    } else {
      quoted += text[i];
    }
  }
  return quoted + (text.size() > kShown ? "...\"" : "\"");
}

}  // namespace ondrel::programs
