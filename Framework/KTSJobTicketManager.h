// KTSJobTicketManager is the set of open job tickets in the pending-jobs folder, with the
// operations to add, find and delete them. The daemon and the administration side each keep one;
// they meet only in the folder, so call refresh to see what the other process wrote. Each refresh
// deletes every folder entry that is not a live ticket. One thread uses an instance.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "KTSJobTicket.h"
#include "KTSLogger.h"

namespace ondrel {

class KTSPreferences;

class KTSJobTicketManager {
 public:
  // The tickets of the preferences' status folder; reads nothing until refresh.
  explicit KTSJobTicketManager(const KTSPreferences& preferences);

  void refresh();
  // The first open ticket of that type for that product, or none.
  std::shared_ptr<KTSJobTicket> findTicketOfTypeForProduct(std::int64_t jobType,
                                                           const std::string& productId) const;
  bool hasTicketOfTypeForProduct(std::int64_t jobType, const std::string& productId) const;
  // Adds and saves a ticket unless one of the same type is open for the product.
  void addTicketOfTypeForProduct(std::int64_t jobType, const std::string& productId);
  void deleteTicketOfTypeForProduct(std::int64_t jobType, const std::string& productId);
  // Deletes the files of the tickets read by the last refresh or added since.
  void deleteAllTickets();

  const std::string& jobsPath() const { return jobsPath_; }
  void setJobsPath(std::string path) { jobsPath_ = std::move(path); }
  // The open tickets, in the order they were read or added.
  std::vector<std::shared_ptr<KTSJobTicket>> openJobs() const;
  const std::shared_ptr<KTSPreferences>& prefs() const { return prefs_; }
  void setPrefs(std::shared_ptr<KTSPreferences> prefs) { prefs_ = std::move(prefs); }

 private:
  using TicketKey = std::pair<std::int64_t, std::string>;
  bool isWriteInProgress(const std::string& fileName, const std::string& fullPath) const;
  void remember(std::shared_ptr<KTSJobTicket> ticket);

  std::string jobsPath_;
  // The open tickets by arrival, and their arrival numbers by type and product, so that finding,
  // adding and deleting one costs a lookup, not a scan of them all.
  std::map<std::uint64_t, std::shared_ptr<KTSJobTicket>> openJobs_;
  std::map<TicketKey, std::set<std::uint64_t>> arrivalsByKey_;
  std::uint64_t nextArrival_ = 0;
  std::shared_ptr<KTSPreferences> prefs_;
  LogHandle log_;
};

}  // namespace ondrel
