#include "KTSMirrorSpace.h"

#include <sys/statvfs.h>

#include <algorithm>

#include "KTSPreferences.h"

namespace ondrel {

KTSMirrorSpace KTSMirrorSpace::now(KTSPreferences& preferences) {
  KTSMirrorSpace space;
  space.reservePercent =
      std::clamp<std::int64_t>(preferences.volumeReserve().integerValue(), 0, 100);
  struct statvfs volume {};
  if (::statvfs(preferences.updatesDocRoot().c_str(), &volume) != 0) return space;
  space.known = true;
  space.total = static_cast<std::uint64_t>(volume.f_blocks) * volume.f_frsize;
  space.free = static_cast<std::uint64_t>(volume.f_bavail) * volume.f_frsize;
  space.reserve = space.total / 100 * static_cast<std::uint64_t>(space.reservePercent);
  return space;
}

bool KTSMirrorSpace::fits(std::uint64_t needed, std::uint64_t promised) const {
  // Sizes come from upstream catalogs: a sum near the type's end must not wrap around.
  std::uint64_t room = freeAfter(promised);
  return !known || (reserve <= room && needed <= room - reserve);
}

}  // namespace ondrel
