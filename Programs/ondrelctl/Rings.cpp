// ondrelctl rings: the rings a staged rollout opens products to, the reverse proxies whose
// forwarded-for header is believed, the ring of an address, where each product being rolled out
// stands, and the administrator's actions on a rollout (posted to the daemon, which carries them
// out in its next pass and writes the rings' catalogs anew).
#include <fmt/format.h>

#include <cstdio>

#include "Ctl.h"
#include "KTSPassContext.h"
#include "KTSPreferences.h"
#include "KTSRings.h"
#include "KTSRollout.h"
#include "KTSServerLayout.h"
#include "KTSSettings.h"
#include "RolloutReport.h"

namespace ondrel::ctl {

namespace {

std::string delayText(std::int64_t seconds) {
  if (seconds % 86400 == 0 && seconds > 0) return fmt::format("{}d", seconds / 86400);
  if (seconds % 3600 == 0 && seconds > 0) return fmt::format("{}h", seconds / 3600);
  return fmt::format("{}s", seconds);
}

// Blocks from their text, comma- or space-separated; none (with why) when one is not a block.
std::optional<std::vector<KTSRings::Block>> blocksFromText(const std::vector<std::string>& texts,
                                                           std::string* why) {
  std::vector<KTSRings::Block> blocks;
  for (const std::string& text : texts) {
    std::size_t start = 0;
    while (start <= text.size()) {
      std::size_t end = text.find_first_of(", ", start);
      if (end == std::string::npos) end = text.size();
      std::string item = text.substr(start, end - start);
      start = end + 1;
      if (item.empty()) continue;
      std::optional<KTSRings::Block> block = KTSRings::parseBlock(item);
      if (!block) {
        *why = quotedForMessage(item) +
               " is not an address block (e.g. 10.1.0.0/16, 2001:db8::/48 or one address)";
        return std::nullopt;
      }
      blocks.push_back(*block);
    }
  }
  return blocks;
}

// Saves the rings and trusted proxies in the preferences and asks for a pass, which serves them.
int saveRings(KTSPassContext& context, const KTSRings& rings, const RingsRequest& request,
              const std::string& what) {
  KTSPreferences& preferences = context.preferences();
  preferences.setValue("rings", rings.asPlist());
  preferences.setValue("trustedProxies", rings.trustedProxiesAsPlist());
  if (!preferences.commitChanges()) return fail("the preferences could not be saved");
  programs::recordInAuditLog(context.layout(), request.requester, "rings " + what, {});
  std::string error;
  if (!programs::postSyncRequest(context, request.requester, &error)) return fail(error);
  std::printf("%s; the daemon's next pass serves the rings as they are now.\n", what.c_str());
  return 0;
}

int setRing(const RingsRequest& request) {
  KTSPassContext context;
  KTSRings rings = KTSRings::fromPreferences(context.preferences().prefs());
  KTSRings::Ring ring;
  if (const KTSRings::Ring* known = rings.find(request.name)) ring = *known;
  ring.name = request.name;
  std::string why;
  if (request.blocks) {
    std::optional<std::vector<KTSRings::Block>> blocks = blocksFromText(*request.blocks, &why);
    if (!blocks) return fail(why + "; nothing was changed");
    ring.blocks = std::move(*blocks);
  }
  if (request.delay) {
    std::optional<std::int64_t> seconds = KTSSettings::durationSeconds(*request.delay);
    if (!seconds) return fail("--delay takes a duration such as 0, 12h or 3d; nothing was changed");
    ring.delaySeconds = *seconds;
  }
  if (request.share) ring.sharePercent = *request.share;
  if (!rings.set(std::move(ring), request.position, &why)) {
    return fail(why + "; nothing was changed");
  }
  return saveRings(context, rings, request, "Ring " + request.name + " set");
}

int removeRing(const RingsRequest& request) {
  KTSPassContext context;
  KTSRings rings = KTSRings::fromPreferences(context.preferences().prefs());
  if (!rings.remove(request.name))
    return fail("there is no ring " + quotedForMessage(request.name));
  return saveRings(context, rings, request, "Ring " + request.name + " removed");
}

int trustProxies(const RingsRequest& request) {
  KTSPassContext context;
  KTSRings rings = KTSRings::fromPreferences(context.preferences().prefs());
  std::string why;
  std::optional<std::vector<KTSRings::Block>> blocks =
      blocksFromText(request.blocks.value_or(std::vector<std::string>{}), &why);
  if (!blocks || !rings.setTrustedProxies(std::move(*blocks), &why)) {
    return fail(why + "; nothing was changed");
  }
  return saveRings(context, rings, request,
                   rings.trustedProxies().empty() ? "No proxy is trusted" : "Trusted proxies set");
}

int listRings(bool json) {
  KTSPassContext context;
  KTSRings rings = KTSRings::fromPreferences(context.preferences().prefs());
  if (json) {
    Plist listing = Plist::dictionary();
    listing.set("rings", rings.asPlist());
    listing.set("trustedProxies", rings.trustedProxiesAsPlist());
    printJson(listing);
    return 0;
  }
  if (rings.empty()) std::printf("No rings: every client sees every enabled product.\n");
  for (const KTSRings::Ring& ring : rings.rings()) {
    std::string blocks;
    for (const KTSRings::Block& block : ring.blocks) {
      blocks += (blocks.empty() ? "" : ", ") + KTSRings::blockText(block);
    }
    std::printf("%-12s after %-6s share %3d %%  %s\n", ring.name.c_str(),
                delayText(ring.delaySeconds).c_str(), ring.sharePercent,
                blocks.empty() ? "-" : blocks.c_str());
  }
  for (const KTSRings::Block& block : rings.trustedProxies()) {
    std::printf("trusted proxy %s\n", KTSRings::blockText(block).c_str());
  }
  return 0;
}

int whichRing(const RingsRequest& request) {
  KTSPassContext context;
  KTSRings rings = KTSRings::fromPreferences(context.preferences().prefs());
  std::optional<KTSRings::Address> client =
      rings.clientAddress(request.address, request.forwardedFor);
  if (!client) return fail(quotedForMessage(request.address) + " is not an address");
  if (rings.empty()) return fail("no rings are defined");
  std::printf("%s\n", rings.rings()[*rings.ringOf(*client)].name.c_str());
  return 0;
}

int rolloutStatus(bool json) {
  KTSPassContext context;
  Plist report = programs::rolloutReport(context);
  if (json) {
    printJson(report);
    return 0;
  }
  if (report["rings"].size() == 0) {
    std::printf("No rings: every client sees every enabled product.\n");
  } else if (report["products"].size() == 0) {
    std::printf("No product is being rolled out.\n");
  }
  for (const Plist& entry : report["products"].elements()) {
    std::string reached;
    for (const Plist& ring : entry["reached"].elements()) {
      reached += (reached.empty() ? "" : ",") + ring.stringValue();
    }
    std::string next = entry.contains("heldAt")         ? "held"
                       : entry.contains("rolledBackTo") ? "rolled back"
                       : entry.contains("nextRing")     ? entry["nextRing"].stringValue() + " at " +
                                                          entry["nextOpening"].stringValue()
                                                    : "-";
    std::string clients;
    for (const Plist& ring : report["rings"].elements()) {
      const std::string& name = ring["name"].stringValue();
      clients += fmt::format("{}{} {}", clients.empty() ? "" : ", ", name,
                             entry["clients"][name].integerValue());
    }
    std::printf("%-16s reached %-24s next %s; clients %s\n",
                entry["productId"].stringValue().c_str(),
                reached.empty() ? "none" : reached.c_str(), next.c_str(), clients.c_str());
  }
  for (const Plist& entry : report["events"].elements()) {
    std::printf("%s  %-12s %-24s by %s\n", entry["when"].stringValue().c_str(),
                entry["productId"].stringValue().c_str(), entry["action"].stringValue().c_str(),
                entry["requester"].stringValue().c_str());
  }
  return 0;
}

int postAction(const RingsRequest& request) {
  KTSPassContext context;
  std::string error;
  if (!programs::postRolloutAction(context, request.productId, request.command, request.ring,
                                   request.requester, &error)) {
    return fail(error);
  }
  std::printf("Posted: %s %s%s; the daemon carries it out in its next pass.\n",
              request.command.c_str(), request.productId.c_str(),
              request.ring.empty() ? "" : (" " + request.ring).c_str());
  return 0;
}

}  // namespace

int rings(const RingsRequest& request) {
  if (request.command == "set") return setRing(request);
  if (request.command == "remove") return removeRing(request);
  if (request.command == "trust") return trustProxies(request);
  if (request.command == "which") return whichRing(request);
  if (request.command == "status") return rolloutStatus(request.json);
  if (KTSRollout::actionNamed(request.command)) return postAction(request);
  return listRings(request.json);
}

}  // namespace ondrel::ctl
