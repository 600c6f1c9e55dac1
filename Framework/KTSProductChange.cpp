#include "KTSProductChange.h"

#include "KTSProduct.h"
#include "KTSWorkingSet.h"

namespace ondrel {

void KTSProductChange::applyToSettings(KTSWorkingSet& workingSet,
                                       const std::string& productId) const {
  if (remove) {
    workingSet.setMirrorSettingForProductID(KTSProduct::DoNotMirror, productId);
    workingSet.setEnableSettingForProductID(false, productId);
    return;
  }
  std::int32_t mirrorSetting = workingSet.mirrorSettingForProductID(productId);
  if (wantsFiles() && mirrorSetting == KTSProduct::DoNotMirror) {
    workingSet.setMirrorSettingForProductID(KTSProduct::PleaseMirror, productId);
  } else if (mirror == false) {
    workingSet.setMirrorSettingForProductID(KTSProduct::DoNotMirror, productId);
  }
  if (enable) workingSet.setEnableSettingForProductID(*enable, productId);
}

void KTSProductChange::applyToProduct(KTSProduct& product) const {
  if (remove) return product.retire();
  if (wantsFiles() && product.mirror() == KTSProduct::DoNotMirror) {
    product.scheduleMirroring();
  } else if (mirror == false && product.mirror() <= KTSProduct::Mirrored) {
    product.stopMirroring();
  }
  if (enable == true) {
    if (product.mirror() >= KTSProduct::Mirrored) {
      product.enable();
    } else {
      product.enableOnceMirrored();
    }
  } else if (enable == false) {
    product.disable();
  }
}

}  // namespace ondrel
