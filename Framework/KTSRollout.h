// KTSRollout is where each product stands in a staged rollout over the rings (KTSRings): when it
// became enabled, and what the administrator did to its schedule since — held it where it had
// reached, advanced it to a ring ahead of time, opened it to all, or rolled it back to one ring.
// A product reaches ring n at its enable time plus ring n's delay, unless held (then only the
// rings it had reached when held) or rolled back (then only the ring named). A product enabled
// before rings were defined, or enabled while there were none, is open to all: defining rings
// never takes a product away from clients that had it.
//
// The record is the status folder's ".rollout": the schedules, and the administrator's actions,
// each kept with who asked and when. It is read as untrusted: an entry that is not one is left
// out. One thread uses an instance.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "KTSRings.h"
#include "KTSServerLayout.h"
#include "Plist.h"

namespace ondrel {

class KTSRollout {
 public:
  enum class Action { Hold, Advance, OpenToAll, RollBack, Resume };
  struct Schedule {
    Date enabled;
    std::optional<Date> heldAt;             // held: it stays where it had reached then
    std::optional<std::size_t> advancedTo;  // rings up to this one are open whatever their time
    bool openToAll = false;
    std::optional<std::string> rolledBackTo;  // only this ring keeps it
  };
  struct Event {
    Date when;
    std::string productId;
    std::string action;  // "hold", "advance to early", "open to all", "roll back to pilot", ...
    std::string requester;
  };

  static constexpr std::size_t kMostEvents = 500;

  // "hold", "resume", "advance", "open" (to all) and "rollback", as ondrelctl and the
  // administration page name the actions; none for another word.
  static std::optional<Action> actionNamed(std::string_view name);

  // The status folder's ".rollout".
  static std::string defaultPath(const KTSServerLayout& layout);
  // Reads the record at path; a missing, damaged or hostile one is an empty record.
  explicit KTSRollout(std::string path);
  // Removes the record at path: without rings there is no rollout, and rings defined later
  // start from what is served then.
  static void discard(const std::string& path);

  // Follows what a pass serves: a product served for the first time starts its schedule at
  // now, and one no catalog enables any more leaves the rollout. The first time a record is
  // followed (the rings were just defined), the products clients had before (servedBefore) are
  // open to all.
  void follow(const std::set<std::string>& served, const std::set<std::string>& enabled,
              const std::set<std::string>& servedBefore, Date now);
  // Whether a pass has followed the record since the rings were defined.
  bool followed() const { return since_.has_value(); }

  // Starts productId's schedule at enabled, when it has none.
  void productEnabled(const std::string& productId, Date enabled);
  // Applies the administrator's action to productId's schedule at now (ring names the ring of
  // Advance and RollBack). False, with why, when it cannot apply: no schedule, no such ring.
  bool apply(const std::string& productId, Action action, const std::string& ring,
             const KTSRings& rings, Date now, const std::string& requester, std::string* why);

  // Applies an action posted by the administration side: a dictionary with "ProductID",
  // "action", "ring" and "requester", read as untrusted. False, with why, when it is not one or
  // cannot apply.
  bool applyRequest(const Plist& request, const KTSRings& rings, Date now, std::string* why);

  const Schedule* scheduleOf(const std::string& productId) const;
  const std::map<std::string, Schedule>& schedules() const { return schedules_; }
  // Whether clients of ring index see productId at now: always when the product has no schedule.
  bool reaches(const std::string& productId, std::size_t ring, const KTSRings& rings,
               Date now) const;
  // The ring (its index) that opens next to productId after now, and when; none when none will
  // by the schedule (held, rolled back, open to all, every ring reached, no schedule).
  struct Opening {
    std::size_t ring;
    Date when;
  };
  std::optional<Opening> nextOpeningOf(const std::string& productId, const KTSRings& rings,
                                       Date now) const;
  // When the next ring opens for any product; none when no opening is pending.
  std::optional<Date> nextOpening(const KTSRings& rings, Date now) const;
  const std::vector<Event>& events() const { return events_; }

  // Whether the record changed since it was read or saved.
  bool changed() const { return changed_; }
  // Writes the record; false when it could not be written.
  bool save();

 private:
  std::optional<std::size_t> ringIndex(const KTSRings& rings, const std::string& name) const;

  std::string path_;
  std::map<std::string, Schedule> schedules_;
  std::vector<Event> events_;
  // When rings first served a pass with this record; none for a record not followed yet.
  std::optional<Date> since_;
  bool changed_ = false;
};

}  // namespace ondrel
