// KTSProductChange is what the administration side asked of one product, gathered from the
// request spool and the job tickets: mirror it, enable or disable it, remove its files. It is
// carried out in two places, by the same rules side by side here: in the working set's settings
// first (so the products the pass makes take them, and a failed pass keeps them), then once in
// the pass's product table, which every catalog's copy of the product sees. Used by KTSSyncPass
// and KTSProductTable; one thread.
#pragma once

#include <optional>
#include <string>

namespace ondrel {

class KTSProductState;
class KTSWorkingSet;

struct KTSProductChange {
  std::optional<bool> mirror;
  std::optional<bool> enable;
  bool remove = false;

  // Mirroring, or enabling (which needs the files), asks for the files.
  bool wantsFiles() const { return mirror.value_or(false) || enable.value_or(false); }
  // The working set records settings: no longer mirrored is DoNotMirror whatever the state.
  void applyToSettings(KTSWorkingSet& workingSet, const std::string& productId) const;
  // A product kept although withdrawn upstream stays kept when its mirroring is dropped; an
  // enable waits for the files.
  void applyToState(KTSProductState& state) const;
};

}  // namespace ondrel
