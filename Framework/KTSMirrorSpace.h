// KTSMirrorSpace is the room the document root's volume has for mirroring: its size, what is
// free, and what "volumeReserve" keeps free. The sync pass asks it before it fetches a product;
// ondrelctl's plan and status and the administration page ask it the same way, so that they
// never disagree about whether the next pass fits. A value read afresh by now(); one thread.
#pragma once

#include <cstdint>

namespace ondrel {

class KTSPreferences;

struct KTSMirrorSpace {
  std::uint64_t total = 0;
  std::uint64_t free = 0;
  std::uint64_t reserve = 0;
  std::int64_t reservePercent = 0;  // "volumeReserve", within 0 to 100
  bool known = false;               // false when the volume could not be read

  // The room as it is now on the volume of the preferences' document root.
  static KTSMirrorSpace now(KTSPreferences& preferences);
  // Whether needed bytes fit beside the reserve once the promised bytes (products still being
  // fetched) are taken. A volume that could not be read is not in the way.
  bool fits(std::uint64_t needed, std::uint64_t promised = 0) const;
  // What is free once the promised bytes are taken.
  std::uint64_t freeAfter(std::uint64_t promised) const {
    return free - (promised < free ? promised : free);
  }
};

}  // namespace ondrel
