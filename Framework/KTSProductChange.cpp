#include "KTSProductChange.h"

#include "KTSProductState.h"
#include "KTSWorkingSet.h"

namespace ondrel {

void KTSProductChange::applyToSettings(KTSWorkingSet& workingSet,
                                       const std::string& productId) const {
  if (remove) {
    workingSet.setMirrorSettingForProductID(KTSProductState::DoNotMirror, productId);
    workingSet.setEnableSettingForProductID(false, productId);
    return;
  }
  if (policy) workingSet.setFetchPolicyForProductID(*policy, productId);
  std::int32_t mirrorSetting = workingSet.mirrorSettingForProductID(productId);
  if (wantsFiles() && mirrorSetting == KTSProductState::DoNotMirror) {
    workingSet.setMirrorSettingForProductID(KTSProductState::PleaseMirror, productId);
  } else if (mirror == false) {
    workingSet.setMirrorSettingForProductID(KTSProductState::DoNotMirror, productId);
  }
  if (enable) workingSet.setEnableSettingForProductID(*enable, productId);
}

void KTSProductChange::applyToState(KTSProductState& state) const {
  if (remove) return state.retire();
  if (policy) state.setFetchPolicy(*policy);
  if (wantsFiles() && state.mirror() == KTSProductState::DoNotMirror) {
    state.scheduleMirroring();
  } else if (mirror == false && state.mirror() <= KTSProductState::Mirrored) {
    state.stopMirroring();
  }
  if (enable == true) {
    if (state.mayServeNow()) {
      state.enable();
    } else {
      state.enableOnceMirrored();
    }
  } else if (enable == false) {
    state.disable();
  }
}

}  // namespace ondrel
