#include "KTSRollout.h"

#include <fmt/format.h>

#include <algorithm>

#include "KTSUtilities.h"
#include "ProductId.h"

namespace ondrel {

namespace {

// A schedule for every product and the last events: a few megabytes at most.
constexpr std::size_t kRecordReadLimit = std::size_t{16} << 20;
constexpr std::size_t kRequesterLimit = 64;

std::optional<KTSRollout::Schedule> scheduleFromPlist(const Plist& entry) {
  std::optional<Date> enabled = entry["enabled"].dateValue();
  if (!enabled) return std::nullopt;
  KTSRollout::Schedule schedule;
  schedule.enabled = *enabled;
  schedule.heldAt = entry["heldAt"].dateValue();
  const Plist& advanced = entry["advancedTo"];
  if (advanced.isNumber() && advanced.integerValue() >= 0 &&
      advanced.integerValue() < static_cast<std::int64_t>(KTSRings::kMostRings)) {
    schedule.advancedTo = static_cast<std::size_t>(advanced.integerValue());
  }
  schedule.openToAll = entry["openToAll"].boolValue();
  std::string rolledBack = entry["rolledBackTo"].stringValue();
  if (KTSRings::isRingName(rolledBack)) schedule.rolledBackTo = rolledBack;
  return schedule;
}

Plist scheduleAsPlist(const KTSRollout::Schedule& schedule) {
  Plist entry = Plist::dictionary();
  entry.set("enabled", Plist::date(schedule.enabled));
  if (schedule.heldAt) entry.set("heldAt", Plist::date(*schedule.heldAt));
  if (schedule.advancedTo) {
    entry.set("advancedTo", Plist::integer(static_cast<std::int64_t>(*schedule.advancedTo)));
  }
  if (schedule.openToAll) entry.set("openToAll", Plist::boolean(true));
  if (schedule.rolledBackTo) entry.set("rolledBackTo", *schedule.rolledBackTo);
  return entry;
}

// The record keeps dates to the second: a schedule read back opens when the one written did.
Date toTheSecond(Date date) { return std::chrono::floor<std::chrono::seconds>(date); }

// When ring index opens for a product on this schedule.
Date openingOf(const KTSRollout::Schedule& schedule, const KTSRings& rings, std::size_t index) {
  return schedule.enabled + std::chrono::seconds(rings.rings()[index].delaySeconds);
}

}  // namespace

std::string KTSRollout::defaultPath(const KTSServerLayout& layout) {
  return layout.statusPath(".rollout");
}

KTSRollout::KTSRollout(std::string path) : path_(std::move(path)) {
  std::string error;
  std::optional<Plist> record = Plist::readFile(path_, &error, kRecordReadLimit);
  if (!record || !record->isDictionary()) return;
  since_ = (*record)["since"].dateValue();
  for (const auto& [productId, entry] : (*record)["schedules"].items()) {
    if (!isValidProductId(productId)) continue;
    if (std::optional<Schedule> schedule = scheduleFromPlist(entry)) {
      schedules_.emplace(productId, std::move(*schedule));
    }
  }
  for (const Plist& entry : (*record)["events"].elements()) {
    std::optional<Date> when = entry["when"].dateValue();
    std::string productId = entry["productId"].stringValue();
    if (!when || !isValidProductId(productId) || events_.size() == kMostEvents) continue;
    events_.push_back({*when, productId, entry["action"].stringValue().substr(0, 80),
                       entry["requester"].stringValue().substr(0, kRequesterLimit)});
  }
}

void KTSRollout::discard(const std::string& path) {
  if (KTSUtilities::fileExistsAtPath(path)) KTSUtilities::removePath(path);
}

void KTSRollout::follow(const std::set<std::string>& served, const std::set<std::string>& enabled,
                        const std::set<std::string>& servedBefore, Date now) {
  bool first = !since_;
  if (first) {
    since_ = toTheSecond(now);
    changed_ = true;
  }
  for (auto schedule = schedules_.begin(); schedule != schedules_.end();) {
    if (enabled.count(schedule->first) != 0) {
      ++schedule;
      continue;
    }
    schedule = schedules_.erase(schedule);
    changed_ = true;
  }
  for (const std::string& productId : served) {
    if (schedules_.count(productId) != 0) continue;
    productEnabled(productId, now);
    if (first && servedBefore.count(productId) != 0) schedules_[productId].openToAll = true;
  }
}

void KTSRollout::productEnabled(const std::string& productId, Date enabled) {
  Schedule schedule;
  schedule.enabled = toTheSecond(enabled);
  changed_ = schedules_.try_emplace(productId, std::move(schedule)).second || changed_;
}

const KTSRollout::Schedule* KTSRollout::scheduleOf(const std::string& productId) const {
  auto found = schedules_.find(productId);
  return found != schedules_.end() ? &found->second : nullptr;
}

std::optional<std::size_t> KTSRollout::ringIndex(const KTSRings& rings,
                                                 const std::string& name) const {
  for (std::size_t index = 0; index < rings.rings().size(); ++index) {
    if (rings.rings()[index].name == name) return index;
  }
  return std::nullopt;
}

bool KTSRollout::apply(const std::string& productId, Action action, const std::string& ring,
                       const KTSRings& rings, Date now, const std::string& requester,
                       std::string* why) {
  if (rings.empty()) {
    *why = "no rings are defined: every enabled product is open to all";
    return false;
  }
  auto found = schedules_.find(productId);
  if (found == schedules_.end()) {
    *why = productId +
           " is not being rolled out (it is not enabled, or was enabled before the "
           "rings were defined)";
    return false;
  }
  Schedule& schedule = found->second;
  std::optional<std::size_t> named = ringIndex(rings, ring);
  std::string done;
  switch (action) {
    case Action::Hold:
      if (!schedule.heldAt) schedule.heldAt = toTheSecond(now);
      done = "hold";
      break;
    case Action::Resume:
      schedule.heldAt.reset();
      schedule.rolledBackTo.reset();
      done = "resume";
      break;
    case Action::OpenToAll:
      schedule.openToAll = true;
      schedule.rolledBackTo.reset();
      done = "open to all";
      break;
    case Action::Advance: {
      if (!ring.empty() && !named) {
        *why = "there is no ring " + ring;
        return false;
      }
      std::size_t next = 0;
      while (next + 1 < rings.rings().size() && reaches(productId, next, rings, now)) ++next;
      std::size_t target = named.value_or(next);
      schedule.advancedTo = std::max(schedule.advancedTo.value_or(0), target);
      done = "advance to " + rings.rings()[target].name;
      break;
    }
    case Action::RollBack:
      if (!named) {
        *why = ring.empty()
                   ? "roll back names the ring that keeps the product"
                   : "roll back names the ring that keeps the product; there is no ring " + ring;
        return false;
      }
      schedule.rolledBackTo = ring;
      schedule.openToAll = false;
      schedule.advancedTo.reset();
      done = "roll back to " + ring;
      break;
  }
  events_.push_back({now, productId, done, requester.substr(0, kRequesterLimit)});
  if (events_.size() > kMostEvents) events_.erase(events_.begin());
  changed_ = true;
  return true;
}

std::optional<KTSRollout::Action> KTSRollout::actionNamed(std::string_view name) {
  static constexpr std::pair<std::string_view, Action> kNames[] = {{"hold", Action::Hold},
                                                                   {"resume", Action::Resume},
                                                                   {"advance", Action::Advance},
                                                                   {"open", Action::OpenToAll},
                                                                   {"rollback", Action::RollBack}};
  for (const auto& [text, action] : kNames) {
    if (text == name) return action;
  }
  return std::nullopt;
}

bool KTSRollout::applyRequest(const Plist& request, const KTSRings& rings, Date now,
                              std::string* why) {
  std::string productId = request["ProductID"].stringValue();
  std::optional<Action> action = actionNamed(request["action"].stringValue());
  std::string ring = request["ring"].stringValue();
  if (!isValidProductId(productId) || !action || (!ring.empty() && !KTSRings::isRingName(ring))) {
    *why = "the request is not a rollout action";
    return false;
  }
  return apply(productId, *action, ring, rings, now, request["requester"].stringValue(), why);
}

bool KTSRollout::reaches(const std::string& productId, std::size_t ring, const KTSRings& rings,
                         Date now) const {
  const Schedule* schedule = scheduleOf(productId);
  if (schedule == nullptr || ring >= rings.rings().size()) return true;
  if (schedule->rolledBackTo) return rings.rings()[ring].name == *schedule->rolledBackTo;
  if (schedule->openToAll || (schedule->advancedTo && ring <= *schedule->advancedTo)) return true;
  Date until = schedule->heldAt ? std::min(now, *schedule->heldAt) : now;
  return openingOf(*schedule, rings, ring) <= until;
}

std::optional<KTSRollout::Opening> KTSRollout::nextOpeningOf(const std::string& productId,
                                                             const KTSRings& rings,
                                                             Date now) const {
  const Schedule* schedule = scheduleOf(productId);
  if (schedule == nullptr || schedule->heldAt || schedule->rolledBackTo || schedule->openToAll) {
    return std::nullopt;
  }
  std::optional<Opening> next;
  for (std::size_t index = 0; index < rings.rings().size(); ++index) {
    Date opening = openingOf(*schedule, rings, index);
    if (opening > now && !(schedule->advancedTo && index <= *schedule->advancedTo) &&
        (!next || opening < next->when)) {
      next = Opening{index, opening};
    }
  }
  return next;
}

std::optional<Date> KTSRollout::nextOpening(const KTSRings& rings, Date now) const {
  std::optional<Date> next;
  for (const auto& [productId, schedule] : schedules_) {
    std::optional<Opening> opening = nextOpeningOf(productId, rings, now);
    if (opening && (!next || opening->when < *next)) next = opening->when;
  }
  return next;
}

bool KTSRollout::save() {
  Plist schedules = Plist::dictionary();
  for (const auto& [productId, schedule] : schedules_) {
    schedules.set(productId, scheduleAsPlist(schedule));
  }
  Plist events = Plist::array();
  for (const Event& event : events_) {
    Plist entry = Plist::dictionary();
    entry.set("when", Plist::date(event.when));
    entry.set("productId", event.productId);
    entry.set("action", event.action);
    entry.set("requester", event.requester);
    events.append(entry);
  }
  Plist record = Plist::dictionary();
  record.set("schedules", schedules);
  record.set("events", events);
  if (since_) record.set("since", Plist::date(*since_));
  std::string error;
  if (!record.writeXmlFile(path_, &error)) return false;
  changed_ = false;
  return true;
}

}  // namespace ondrel
