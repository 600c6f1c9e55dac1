#include "RolloutReport.h"

#include <map>
#include <set>

#include "Administration.h"
#include "ClientStatistics.h"
#include "Clock.h"
#include "DateFormats.h"
#include "FileIO.h"
#include "KTSDigestManifests.h"
#include "KTSPassContext.h"
#include "KTSPreferences.h"
#include "KTSRings.h"
#include "KTSRollout.h"

namespace ondrel::programs {

namespace {

// Manifests are small; this is far more than one holds.
constexpr std::size_t kManifestReadLimit = std::size_t{16} << 20;

Plist scheduleReport(const std::string& productId, const KTSRollout::Schedule& schedule,
                     const KTSRollout& rollout, const KTSRings& rings, Date now) {
  Plist entry = Plist::dictionary();
  entry.set("productId", productId);
  entry.set("enabled", formatRfc3339Date(schedule.enabled));
  Plist reached = Plist::array();
  for (std::size_t index = 0; index < rings.rings().size(); ++index) {
    if (rollout.reaches(productId, index, rings, now)) reached.append(rings.rings()[index].name);
  }
  entry.set("reached", reached);
  if (schedule.heldAt) entry.set("heldAt", formatRfc3339Date(*schedule.heldAt));
  if (schedule.rolledBackTo) entry.set("rolledBackTo", *schedule.rolledBackTo);
  if (std::optional<KTSRollout::Opening> next = rollout.nextOpeningOf(productId, rings, now)) {
    entry.set("nextRing", rings.rings()[next->ring].name);
    entry.set("nextOpening", formatRfc3339Date(next->when));
  }
  return entry;
}

// Per product, the distinct clients of each ring that fetched one of its files: the product's
// files are those its digest manifest names.
void addClientCounts(KTSPassContext& context, const KTSRings& rings, Plist& products) {
  std::map<std::string, std::string> productOfPath;
  for (const Plist& entry : products.elements()) {
    const std::string& productId = entry["productId"].stringValue();
    std::string text;
    std::string ignored;
    if (!readWholeFile(KTSDigestManifests::manifestPath(context.layout(), productId), &text,
                       &ignored, kManifestReadLimit)) {
      continue;
    }
    for (const auto& [path, digest] :
         KTSDigestManifests::parse(text).value_or(KTSDigestManifests::Manifest())) {
      productOfPath.emplace(path, productId);
    }
  }
  std::set<std::string> paths;
  for (const auto& [path, productId] : productOfPath) paths.insert(path);
  std::map<std::string, std::set<std::string>> clientsOf;
  for (const auto& [path, clients] : fileClients(accessLogPath(context.layout()), paths)) {
    clientsOf[productOfPath[path]].insert(clients.begin(), clients.end());
  }
  for (Plist& entry : products.mutableElements()) {
    std::vector<std::int64_t> counts(rings.rings().size(), 0);
    for (const std::string& client : clientsOf[entry["productId"].stringValue()]) {
      if (std::optional<KTSRings::Address> address = KTSRings::parseAddress(client)) {
        ++counts[*rings.ringOf(*address)];
      }
    }
    Plist byRing = Plist::dictionary();
    for (std::size_t ring = 0; ring < counts.size(); ++ring) {
      byRing.set(rings.rings()[ring].name, Plist::integer(counts[ring]));
    }
    entry.set("clients", byRing);
  }
}

}  // namespace

Plist rolloutReport(KTSPassContext& context) {
  KTSRings rings = KTSRings::fromPreferences(context.preferences().prefs());
  KTSRollout rollout(KTSRollout::defaultPath(context.layout()));
  Date now = Clock::now();
  Plist products = Plist::array();
  for (const auto& [productId, schedule] : rollout.schedules()) {
    bool everywhere = true;
    for (std::size_t index = 0; index < rings.rings().size(); ++index) {
      everywhere = everywhere && rollout.reaches(productId, index, rings, now);
    }
    if (!everywhere) products.append(scheduleReport(productId, schedule, rollout, rings, now));
  }
  if (!rings.empty()) addClientCounts(context, rings, products);
  Plist events = Plist::array();
  for (const KTSRollout::Event& event : rollout.events()) {
    Plist entry = Plist::dictionary();
    entry.set("when", formatRfc3339Date(event.when));
    entry.set("productId", event.productId);
    entry.set("action", event.action);
    entry.set("requester", event.requester);
    events.append(entry);
  }
  Plist report = Plist::dictionary();
  report.set("rings", rings.asPlist());
  report.set("trustedProxies", rings.trustedProxiesAsPlist());
  report.set("products", products);
  report.set("events", events);
  return report;
}

}  // namespace ondrel::programs
