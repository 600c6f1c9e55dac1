// KTSProductChange is what the administration side asked of one product, gathered from the
// request spool and the job tickets: mirror it (by a policy), enable or disable it, remove its
// files. It is carried out in two places, by the same rules side by side here: in the working set's
// settings first (so the products the pass makes take them, and a failed pass keeps them), then
// once in the pass's product table, which every catalog's copy of the product sees. Used by
// KTSSyncPass and KTSProductTable; one thread.
#pragma once

#include <optional>
#include <string>

#include "KTSProductState.h"

namespace ondrel {

class KTSWorkingSet;

struct KTSProductChange {
  std::optional<bool> mirror;
  std::optional<bool> enable;
  // How the files are to come, when the change says (it comes with a mirror).
  std::optional<KTSProductState::FetchPolicy> policy;
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
