// KTSRequestManager is the request spool through which the administration side asks the sync
// daemon for work: it posts "startSync" and "productChanges" requests as files, and on the
// daemon's side collects the requests of one type oldest first, deletes or archives their files
// and folds product changes into one instruction per product. One thread uses an instance.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KTSLogger.h"
#include "Plist.h"

namespace ondrel {

class KTSPreferences;

class KTSRequestManager {
 public:
  // Requests of one type keyed by post date (the request file's creation date), oldest first.
  using RequestsByDate = std::map<Date, Plist>;

  // The spool, and the archive of handled requests in the preferences' cache folder.
  explicit KTSRequestManager(const KTSPreferences& preferences);

  bool postSyncRequest();
  // items: change items with "ProductID" and at least one of "mirror", "enable", "remove".
  bool postChangeRequestForProductItems(const Plist& items);
  // A rollout action on a product (see KTSRollout::actionNamed), with the ring it names (none:
  // "") and who asked.
  bool postRolloutRequest(const std::string& productId, const std::string& action,
                          const std::string& ring, const std::string& requester);
  // The rollout actions pending, oldest first, their files deleted.
  std::vector<Plist> takeRolloutRequests();
  // Whether at least one sync request was pending.
  bool getPendingSyncRequestsDeletingSource(bool deleteSource);
  // One item per product, newest request winning whole; null when no request was pending.
  Plist getPendingChangeRequestsDeletingSource(bool deleteSource);
  Plist mergeChangeRequests(const RequestsByDate& requests);
  bool hasPendingRequests();
  std::optional<RequestsByDate> getPendingRequestsForTypeDeletingSource(const std::string& type,
                                                                        bool deleteSource);
  // Writes the request file; false only when no item is given.
  bool postRequestOfType(const Plist& item, const std::string& type);
  // The request with "postDate" set to the file's creation date; null when unreadable.
  Plist readRequestAtPath(const std::string& path);
  void writeRequest(const Plist& request);
  std::optional<std::vector<std::string>> getPendingRequestPaths();
  void createRequestDir();
  bool createArchiveDir();
  bool removeArchiveDir();
  void updateRequestDirPath();
  void refreshUserDefaults();

  const std::string& requestDirPath() const { return requestDirPath_; }
  void setRequestDirPath(std::string path) { requestDirPath_ = std::move(path); }
  bool archiveDeletedRequests() const { return archiveDeletedRequests_; }
  void setArchiveDeletedRequests(bool archive) { archiveDeletedRequests_ = archive; }
  const std::string& archiveDirPath() const { return archiveDirPath_; }
  void setArchiveDirPath(std::string path) { archiveDirPath_ = std::move(path); }

 private:
  void retireRequestFile(const std::string& path);

  std::string requestDirPath_;
  bool archiveDeletedRequests_ = false;
  std::string archiveDirPath_;
  LogHandle log_;
};

}  // namespace ondrel
