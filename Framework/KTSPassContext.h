// KTSPassContext is what a pass, or one command of the administration side, works in: the
// preferences and the server layout they make, the files both sides share (working set, status,
// request spool, job tickets, meta-index), the logger, and while a pass runs its memo, its record
// and its fetch scheduler. Whoever starts the work makes one and hands it to everything it builds;
// nothing finds these through a shared instance or a "current" pointer. ondrd_syncd makes one per
// pass, so every pass reads the files the administration side wrote as they are then; tests make
// one per test. The shared files are read when first asked for. One thread uses a context.
#pragma once

#include <memory>

#include "KTSLogger.h"
#include "KTSPassServices.h"

namespace ondrel {

class KTSFetchScheduler;
class KTSJobTicketManager;
class KTSMetaIndex;
class KTSPassMemo;
class KTSPassRecord;
class KTSPreferences;
class KTSRequestManager;
class KTSServerLayout;
class KTSSyncStatus;
class KTSWorkingSet;

class KTSPassContext {
 public:
  // Puts one of a pass's helpers in the context for as long as it lives, then restores what was
  // there before.
  template <typename T>
  class Lent {
   public:
    Lent(T*& slot, T* value) : slot_(slot), previous_(slot) { slot_ = value; }
    ~Lent() { slot_ = previous_; }
    Lent(const Lent&) = delete;
    Lent& operator=(const Lent&) = delete;

   private:
    T*& slot_;
    T* previous_;
  };

  // Requires: preferences not null.
  explicit KTSPassContext(std::shared_ptr<KTSPreferences> preferences);
  // With preferences read anew from their default place (following ONDREL_ROOT).
  KTSPassContext();
  ~KTSPassContext();
  KTSPassContext(const KTSPassContext&) = delete;
  KTSPassContext& operator=(const KTSPassContext&) = delete;

  KTSPreferences& preferences() const { return *preferences_; }
  const std::shared_ptr<KTSPreferences>& sharedPreferences() const { return preferences_; }
  // Each is read from its files on first use and kept for the context's life; the layout follows
  // the preferences as they are then.
  const KTSServerLayout& layout();
  KTSWorkingSet& workingSet();
  KTSSyncStatus& status();
  KTSMetaIndex& metaIndex();
  KTSRequestManager& requests();
  KTSJobTicketManager& tickets();
  const LogHandle& log() const { return log_; }

  // The pass's memo, record and scheduler; null outside a pass (and the record outside a full
  // pass). A helper is in the context while what lend returned lives.
  KTSPassMemo* memo() const { return memo_; }
  KTSPassRecord* record() const { return record_; }
  KTSFetchScheduler* scheduler() const { return scheduler_; }
  // The layout, the memo and the scheduler, for making products.
  KTSPassServices services() { return {&layout(), memo_, scheduler_}; }
  [[nodiscard]] Lent<KTSPassMemo> lend(KTSPassMemo& memo) { return {memo_, &memo}; }
  [[nodiscard]] Lent<KTSPassRecord> lend(KTSPassRecord& record) { return {record_, &record}; }
  [[nodiscard]] Lent<KTSFetchScheduler> lend(KTSFetchScheduler& scheduler) {
    return {scheduler_, &scheduler};
  }

 private:
  std::shared_ptr<KTSPreferences> preferences_;
  std::unique_ptr<KTSServerLayout> layout_;
  std::unique_ptr<KTSWorkingSet> workingSet_;
  std::unique_ptr<KTSSyncStatus> status_;
  std::unique_ptr<KTSMetaIndex> metaIndex_;
  std::unique_ptr<KTSRequestManager> requests_;
  std::unique_ptr<KTSJobTicketManager> tickets_;
  LogHandle log_;
  KTSPassMemo* memo_ = nullptr;
  KTSPassRecord* record_ = nullptr;
  KTSFetchScheduler* scheduler_ = nullptr;
};

}  // namespace ondrel
