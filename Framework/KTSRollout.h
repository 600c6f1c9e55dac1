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
// TODO(#43): the pass records the enable times and serves each ring its catalogs from this.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
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

  // The status folder's ".rollout".
  static std::string defaultPath(const KTSServerLayout& layout);
  // Reads the record at path; a missing, damaged or hostile one is an empty record.
  explicit KTSRollout(std::string path);

  // Starts productId's schedule at enabled, when it has none.
  void productEnabled(const std::string& productId, Date enabled);
  // Forgets productId's schedule: it is no longer enabled.
  void productDisabled(const std::string& productId);
  // Applies the administrator's action to productId's schedule at now (ring names the ring of
  // Advance and RollBack). False, with why, when it cannot apply: no schedule, no such ring.
  bool apply(const std::string& productId, Action action, const std::string& ring,
             const KTSRings& rings, Date now, const std::string& requester, std::string* why);

  const Schedule* scheduleOf(const std::string& productId) const;
  // Whether clients of ring index see productId at now: always when the product has no schedule.
  bool reaches(const std::string& productId, std::size_t ring, const KTSRings& rings,
               Date now) const;
  // When the next ring opens for any product; none when no opening is pending.
  std::optional<Date> nextOpening(const KTSRings& rings, Date now) const;
  const std::vector<Event>& events() const { return events_; }

  // Writes the record; false when it could not be written.
  bool save() const;

 private:
  std::optional<std::size_t> ringIndex(const KTSRings& rings, const std::string& name) const;

  std::string path_;
  std::map<std::string, Schedule> schedules_;
  std::vector<Event> events_;
};

}  // namespace ondrel
