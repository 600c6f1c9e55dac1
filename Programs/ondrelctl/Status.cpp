// What ondrelctl reads: the status, the products, one product, metrics and the plan of the next
// pass, all from the files the daemon shares; nothing here writes.
#include <sys/statvfs.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>

#include "Ctl.h"
#include "DateFormats.h"
#include "HostPaths.h"
#include "KTCatalogKeys.h"
#include "KTSCatalog.h"
#include "KTSJobTicketManager.h"
#include "KTSMetaIndex.h"
#include "KTSPreferences.h"
#include "KTSProduct.h"
#include "KTSSyncStatus.h"
#include "KTSUtilities.h"
#include "KTSWorkingSet.h"
#include "PathString.h"
#include "ProductId.h"

namespace ondrel::ctl {

namespace {

struct Volume {
  std::uint64_t total = 0;
  std::uint64_t free = 0;
};

Volume documentRootVolume() {
  struct statvfs volume {};
  Volume result;
  if (::statvfs(KTSPreferences::defaultPreferences()->updatesDocRoot().c_str(), &volume) == 0) {
    result.total = static_cast<std::uint64_t>(volume.f_blocks) * volume.f_frsize;
    result.free = static_cast<std::uint64_t>(volume.f_bavail) * volume.f_frsize;
  }
  return result;
}

std::string modeText() {
  auto preferences = KTSPreferences::defaultPreferences();
  if (preferences->automaticPresetsEnabled()) return "AUTOMATIC";
  return preferences->autoMirror() ? "MANUAL (auto-download ON)" : "MANUAL (auto-download OFF)";
}

std::string syncStateName(std::int64_t state) {
  return state == KTSSyncStatus::InProgress ? "syncing"
         : state == KTSSyncStatus::Done     ? "done"
                                            : "never run";
}

std::string human(std::uint64_t bytes) {
  const char* units[] = {"B", "KB", "MB", "GB", "TB"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1000 && unit < 4) value /= 1000, ++unit;
  if (unit == 0) return fmt::format("{:.0f} {}", value, units[unit]);
  return fmt::format("{:.1f} {}", value, units[unit]);
}

std::string lowercased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::size_t pendingRequestCount() {
  std::size_t count = 0;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(fixedPath("/var/spool/ondrd"), error), end;
       !error && entry != end; entry.increment(error)) {
    if (entry->path().filename().string().rfind("ondr_req.", 0) == 0) ++count;
  }
  return count;
}

// What the status and the metrics report, gathered once.
struct Summary {
  std::int64_t syncState = 0;
  std::optional<Date> startTime;
  std::optional<Date> lastRunTime;
  bool updateError = false;
  std::optional<std::string> errorNote;
  std::string mode;
  std::map<std::string, std::uint64_t> byMirrorState;
  std::map<std::string, std::uint64_t> byCompositeState;
  std::uint64_t products = 0;
  std::uint64_t enabled = 0;
  std::uint64_t bytesMirrored = 0;
  std::uint64_t bytesToMirror = 0;
  std::size_t pendingRequests = 0;
  std::size_t pendingTickets = 0;
  Volume volume;
};

Summary summarize() {
  Summary summary;
  auto status = KTSSyncStatus::defaultStatus();
  summary.syncState = status->getSyncStatus();
  summary.startTime = status->getStartTime();
  summary.lastRunTime = status->getLastRunTime();
  summary.updateError = status->getUpdateError();
  summary.errorNote = status->getErrorNote();
  summary.mode = modeText();
  for (const auto& [productId, record] : KTSWorkingSet::defaultWorkingSet()->products().items()) {
    ++summary.products;
    std::int32_t mirror = KTSProduct::mirrorStateForString(record["mirror"].stringValue());
    ++summary.byMirrorState[KTSProduct::mirrorStringForState(mirror)];
    ++summary.byCompositeState[KTSCatalog::compositeProductStringForStateValue(
        KTSCatalog::compositeProductStateForString(record["CompositeProductState"].stringValue()))];
    if (record["enable"].boolValue()) ++summary.enabled;
    auto total = static_cast<std::uint64_t>(
        std::max<std::int64_t>(0, record["TotalDownloadSize"].integerValue()));
    auto downloaded = static_cast<std::uint64_t>(
        std::max<std::int64_t>(0, record["DownloadedSize"].integerValue()));
    if (mirror >= KTSProduct::Mirrored) summary.bytesMirrored += total;
    if (mirror == KTSProduct::PleaseMirror || mirror == KTSProduct::Downloading) {
      summary.bytesToMirror += total > downloaded ? total - downloaded : 0;
    }
  }
  summary.pendingRequests = pendingRequestCount();
  auto tickets = KTSJobTicketManager::defaultManager();
  tickets->refresh();
  summary.pendingTickets = tickets->openJobs().size();
  summary.volume = documentRootVolume();
  return summary;
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

std::string titleOf(const Plist& record) {
  for (const char* language : {"English", "en"}) {
    const Plist& title = record["localization"][language]["title"];
    if (title.isString()) return title.stringValue();
  }
  for (const auto& [language, strings] : record["localization"].items()) {
    if (strings["title"].isString()) return strings["title"].stringValue();
  }
  return "";
}

std::set<std::string> productsOfCatalog(const std::string& name) {
  std::set<std::string> ids;
  std::string composite = KTSPreferences::defaultPreferences()->updatesHtmlPath() +
                          "/content/catalogs/others/" + name + ".composite";
  for (const auto& [productId, entry] :
       KTSUtilities::readPropertyListAtPath(composite)[KTCatalogProductsDictKey].items()) {
    ids.insert(productId);
  }
  return ids;
}

}  // namespace

int status(bool json) {
  Summary summary = summarize();
  if (json) {
    Plist out = Plist::dictionary();
    out.set("syncState", syncStateName(summary.syncState));
    out.set("startTime", optionalDate(summary.startTime));
    out.set("lastRunTime", optionalDate(summary.lastRunTime));
    out.set("updateError", Plist::boolean(summary.updateError));
    out.set("errorNote", summary.errorNote ? Plist(*summary.errorNote) : Plist());
    out.set("mode", summary.mode);
    out.set("products", Plist::integer(static_cast<std::int64_t>(summary.products)));
    out.set("productsByMirrorState", counts(summary.byMirrorState));
    out.set("productsByCompositeState", counts(summary.byCompositeState));
    out.set("enabled", Plist::integer(static_cast<std::int64_t>(summary.enabled)));
    out.set("bytesMirrored", Plist::integer(static_cast<std::int64_t>(summary.bytesMirrored)));
    out.set("bytesToMirror", Plist::integer(static_cast<std::int64_t>(summary.bytesToMirror)));
    out.set("pendingRequests", Plist::integer(static_cast<std::int64_t>(summary.pendingRequests)));
    out.set("pendingTickets", Plist::integer(static_cast<std::int64_t>(summary.pendingTickets)));
    out.set("volumeBytes", Plist::integer(static_cast<std::int64_t>(summary.volume.total)));
    out.set("volumeFreeBytes", Plist::integer(static_cast<std::int64_t>(summary.volume.free)));
    printJson(out);
    return 0;
  }
  auto when = [](const std::optional<Date>& date) {
    return date ? formatDescriptionDate(*date) : std::string("never");
  };
  std::printf("Sync:            %s (started %s, last run %s)\n",
              syncStateName(summary.syncState).c_str(), when(summary.startTime).c_str(),
              when(summary.lastRunTime).c_str());
  std::printf("Last pass:       %s\n",
              summary.updateError ? ("failed: " + summary.errorNote.value_or("")).c_str() : "ok");
  std::printf("Mode:            %s\n", summary.mode.c_str());
  std::printf("Products:        %llu, %llu enabled\n",
              static_cast<unsigned long long>(summary.products),
              static_cast<unsigned long long>(summary.enabled));
  std::string states;
  for (const auto& [name, count] : summary.byMirrorState) {
    states += fmt::format("{}{} {}", states.empty() ? "" : ", ", count, name);
  }
  std::printf("  mirror states: %s\n", states.empty() ? "-" : states.c_str());
  states.clear();
  for (const auto& [name, count] : summary.byCompositeState) {
    states += fmt::format("{}{} {}", states.empty() ? "" : ", ", count, name);
  }
  std::printf("  catalog:       %s\n", states.empty() ? "-" : states.c_str());
  std::printf("Mirrored:        %s (%s still to mirror)\n", human(summary.bytesMirrored).c_str(),
              human(summary.bytesToMirror).c_str());
  std::printf("Pending:         %zu requests, %zu tickets\n", summary.pendingRequests,
              summary.pendingTickets);
  std::printf("Document root:   %s used, %s free\n",
              human(summary.volume.total - summary.volume.free).c_str(),
              human(summary.volume.free).c_str());
  return 0;
}

int products(const ProductFilter& filter, bool json) {
  std::optional<std::set<std::string>> inCatalog;
  if (!filter.catalog.empty()) inCatalog = productsOfCatalog(filter.catalog);
  Plist listed = Plist::array();
  for (const auto& [productId, record] : KTSWorkingSet::defaultWorkingSet()->products().items()) {
    if (!record.isDictionary()) continue;
    if (!filter.state.empty()) {
      std::string wanted = lowercased(filter.state);
      if (lowercased(record["mirror"].stringValue()) != wanted &&
          lowercased(record["CompositeProductState"].stringValue()) != wanted) {
        continue;
      }
    }
    if (filter.enabledOnly && !record["enable"].boolValue()) continue;
    if (inCatalog && inCatalog->count(productId) == 0) continue;
    if (!filter.search.empty()) {
      std::string haystack =
          lowercased(productId + " " + record["IFPkgFlagProductFamily"].stringValue() + " " +
                     record["CFBundleShortVersionString"].stringValue() + " " + titleOf(record));
      if (haystack.find(lowercased(filter.search)) == std::string::npos) continue;
    }
    listed.append(record);
  }
  if (json) {
    printJson(listed);
    return 0;
  }
  std::printf("%-14s %-17s %-7s %-12s %10s  %s\n", "PRODUCT", "MIRROR", "ENABLED", "VERSION",
              "SIZE", "TITLE");
  for (const Plist& record : listed.elements()) {
    std::printf("%-14s %-17s %-7s %-12s %10s  %s\n", record["ProductID"].stringValue().c_str(),
                record["mirror"].stringValue().c_str(), record["enable"].boolValue() ? "yes" : "no",
                record["CFBundleShortVersionString"].stringValue().substr(0, 12).c_str(),
                human(static_cast<std::uint64_t>(
                          std::max<std::int64_t>(0, record["TotalDownloadSize"].integerValue())))
                    .c_str(),
                titleOf(record).c_str());
  }
  std::printf("%zu products\n", listed.size());
  return 0;
}

int product(const std::string& productId, bool json) {
  if (!isValidProductId(productId))
    return fail(quotedForMessage(productId) + " is not a product id");
  Plist record = KTSWorkingSet::defaultWorkingSet()->productDictForID(productId);
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
  line("Title:", titleOf(record));
  line("Family:", record["IFPkgFlagProductFamily"].stringValue());
  line("Version:", record["CFBundleShortVersionString"].stringValue());
  line("Mirror state:", record["mirror"].stringValue());
  line("Enabled:", record["enable"].boolValue() ? "yes" : "no");
  line("Catalog state:", record["CompositeProductState"].stringValue());
  line("Posted:", record[KTCatalogProductPostDateKey].stringValue());
  line("Size:", human(static_cast<std::uint64_t>(
                    std::max<std::int64_t>(0, record["TotalDownloadSize"].integerValue()))));
  line("Downloaded:", human(static_cast<std::uint64_t>(
                          std::max<std::int64_t>(0, record["DownloadedSize"].integerValue()))));
  line("Installed size:", record["IFPkgFlagInstalledSize"].description());
  line("Restart:", record["IFPkgFlagRestartAction"].stringValue());
  line("Replaces:", list(record["DeprecatedProducts"]));
  line("Replaced by:", list(record["Deprecators"]));
  for (const auto& [language, strings] : record["localization"].items()) {
    line(("Title (" + language + "):").c_str(), strings["title"].stringValue());
  }
  return 0;
}

int metrics() {
  Summary summary = summarize();
  auto gauge = [](const char* name, const char* help, double value) {
    std::printf("# HELP %s %s\n# TYPE %s gauge\n%s %.17g\n", name, help, name, name, value);
  };
  gauge("ondrel_sync_state", "0 never run, 1 syncing, 2 done",
        static_cast<double>(summary.syncState));
  gauge("ondrel_last_run_timestamp_seconds", "Start of the last pass, in seconds since the epoch",
        summary.lastRunTime
            ? std::chrono::duration<double>(summary.lastRunTime->time_since_epoch()).count()
            : 0);
  gauge("ondrel_update_error", "1 when the last pass failed", summary.updateError ? 1 : 0);
  std::printf("# HELP ondrel_products Products by mirror state\n# TYPE ondrel_products gauge\n");
  for (const auto& [name, count] : summary.byMirrorState) {
    std::printf("ondrel_products{mirror_state=\"%s\"} %llu\n", name.c_str(),
                static_cast<unsigned long long>(count));
  }
  std::printf(
      "# HELP ondrel_catalog_products Products by catalog state\n"
      "# TYPE ondrel_catalog_products gauge\n");
  for (const auto& [name, count] : summary.byCompositeState) {
    std::printf("ondrel_catalog_products{state=\"%s\"} %llu\n", name.c_str(),
                static_cast<unsigned long long>(count));
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
  return 0;
}

int plan(bool json) {
  auto workingSet = KTSWorkingSet::defaultWorkingSet();
  auto metaIndex = KTSMetaIndex::defaultMetaIndex();
  metaIndex->updateLocalPaths();
  metaIndex->refresh();
  std::set<std::string> seen;
  Plist planned = Plist::array();
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  for (const KTSURL& url : metaIndex->catalogs()) {
    KTSCatalog catalog(*url.url());
    catalog.loadCompositeCatalog();
    if (!catalog.loadProductIndexCache()) continue;
    for (const auto& [productId, product] : *catalog.products()) {
      std::int32_t mirror = workingSet->containsProductID(productId)
                                ? workingSet->mirrorSettingForProductID(productId)
                                : product->mirror();
      if ((mirror != KTSProduct::PleaseMirror && mirror != KTSProduct::Downloading) ||
          !seen.insert(productId).second) {
        continue;
      }
      std::uint64_t productFiles = 0;
      std::uint64_t productBytes = 0;
      for (const Plist& record : product->mirrorFiles().elements()) {
        const Plist& size = record[KTSProduct::kFileSizeKey];
        std::optional<std::int64_t> expected;
        if (size.isNumber()) expected = size.integerValue();
        if (KTSUtilities::fileExistsAtPathWithSize(
                record[KTSProduct::kFileLocalPathKey].stringValue(), expected)) {
          continue;
        }
        ++productFiles;
        productBytes += static_cast<std::uint64_t>(std::max<std::int64_t>(0, expected.value_or(0)));
      }
      Plist item = Plist::dictionary();
      item.set("ProductID", productId);
      item.set("files", Plist::integer(static_cast<std::int64_t>(productFiles)));
      item.set("bytes", Plist::integer(static_cast<std::int64_t>(productBytes)));
      planned.append(item);
      files += productFiles;
      bytes += productBytes;
    }
  }
  Volume volume = documentRootVolume();
  std::int64_t reservePercent =
      KTSPreferences::defaultPreferences()->volumeReserve().integerValue();
  std::uint64_t reserve =
      volume.total / 100 *
      static_cast<std::uint64_t>(std::clamp<std::int64_t>(reservePercent, 0, 100));
  bool fits = bytes + reserve <= volume.free;
  if (json) {
    Plist out = Plist::dictionary();
    out.set("products", planned);
    out.set("files", Plist::integer(static_cast<std::int64_t>(files)));
    out.set("bytes", Plist::integer(static_cast<std::int64_t>(bytes)));
    out.set("freeBytes", Plist::integer(static_cast<std::int64_t>(volume.free)));
    out.set("reserveBytes", Plist::integer(static_cast<std::int64_t>(reserve)));
    out.set("fits", Plist::boolean(fits));
    printJson(out);
    return 0;
  }
  for (const Plist& item : planned.elements()) {
    std::printf("%-14s %4lld files %10s\n", item["ProductID"].stringValue().c_str(),
                static_cast<long long>(item["files"].integerValue()),
                human(static_cast<std::uint64_t>(item["bytes"].integerValue())).c_str());
  }
  std::printf("Next pass: %zu products, %llu files, %s; %s free, %s kept in reserve (%lld%%): %s\n",
              planned.size(), static_cast<unsigned long long>(files), human(bytes).c_str(),
              human(volume.free).c_str(), human(reserve).c_str(),
              static_cast<long long>(reservePercent), fits ? "fits" : "DOES NOT FIT");
  return 0;
}

}  // namespace ondrel::ctl
