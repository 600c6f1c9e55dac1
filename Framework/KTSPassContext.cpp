#include "KTSPassContext.h"

#include "KTSJobTicketManager.h"
#include "KTSMetaIndex.h"
#include "KTSPreferences.h"
#include "KTSRequestManager.h"
#include "KTSServerLayout.h"
#include "KTSSyncStatus.h"
#include "KTSWorkingSet.h"

namespace ondrel {

KTSPassContext::KTSPassContext(std::shared_ptr<KTSPreferences> preferences)
    : preferences_(std::move(preferences)), log_(LogHandle::shared()) {}

KTSPassContext::KTSPassContext()
    : KTSPassContext(KTSPreferences::preferencesWithPath(std::nullopt)) {}

KTSPassContext::~KTSPassContext() = default;

const KTSServerLayout& KTSPassContext::layout() {
  if (!layout_) layout_ = std::make_unique<KTSServerLayout>(*preferences_);
  return *layout_;
}

KTSWorkingSet& KTSPassContext::workingSet() {
  if (!workingSet_) {
    workingSet_ = std::make_unique<KTSWorkingSet>(*preferences_, KTSWorkingSet::defaultPath());
  }
  return *workingSet_;
}

KTSSyncStatus& KTSPassContext::status() {
  if (!status_) status_ = std::make_unique<KTSSyncStatus>(preferences_);
  return *status_;
}

KTSMetaIndex& KTSPassContext::metaIndex() {
  if (!metaIndex_) metaIndex_ = std::make_unique<KTSMetaIndex>(preferences_);
  return *metaIndex_;
}

KTSRequestManager& KTSPassContext::requests() {
  if (!requests_) requests_ = std::make_unique<KTSRequestManager>(*preferences_);
  return *requests_;
}

KTSJobTicketManager& KTSPassContext::tickets() {
  if (!tickets_) tickets_ = std::make_unique<KTSJobTicketManager>(*preferences_);
  return *tickets_;
}

}  // namespace ondrel
