#include "KTSRequestManager.h"

#include <algorithm>
#include <filesystem>
#include <map>

#include "Clock.h"
#include "FileIO.h"
#include "HostPaths.h"
#include "KTSPreferences.h"
#include "KTSServerLayout.h"
#include "KTSUtilities.h"
#include "PathString.h"
#include "ProductId.h"

namespace ondrel {

namespace {

constexpr const char* kSyncRequestType = "startSync";
constexpr const char* kChangeRequestType = "productChanges";
constexpr const char* kRolloutRequestType = "rollout";

}  // namespace

KTSRequestManager::KTSRequestManager(const KTSPreferences& preferences)
    : requestDirPath_(fixedPath("/var/spool/ondrd")),
      archiveDirPath_(preferences.cacheWorkingPathForPath(
          fixedPath("/Library/Server/Ondrel/Cache/requests-archived"))),
      log_(LogHandle::shared()) {}

bool KTSRequestManager::postSyncRequest() {
  log_.debug("REQM: posting sync request");
  return postRequestOfType(Plist::dictionary(), kSyncRequestType);
}

bool KTSRequestManager::postChangeRequestForProductItems(const Plist& items) {
  log_.debug("REQM: posting product change request");
  if (items.size() == 0 || !items.isArray()) {
    log_.debug("REQM: WARNING: change request contains no product items (ignored)");
    return false;
  }
  std::vector<Plist::Dictionary::Entry> byProduct;
  for (const Plist& item : items.elements()) {
    const Plist& productId = item["ProductID"];
    log_.debug("REQM: creating change request for product: {}", productId);
    if (!productId.isString()) continue;
    if (!isValidProductId(productId.stringValue())) {
      log_.warning("Ignoring a change request for an invalid product id: \"{}\"", productId);
      continue;
    }
    byProduct.emplace_back(productId.stringValue(), item);
  }
  return postRequestOfType(Plist(Plist::Dictionary::fromEntries(std::move(byProduct))),
                           kChangeRequestType);
}

bool KTSRequestManager::postRolloutRequest(const std::string& productId, const std::string& action,
                                           const std::string& ring, const std::string& requester) {
  Plist item = Plist::dictionary();
  item.set("ProductID", productId);
  item.set("action", action);
  item.set("ring", ring);
  item.set("requester", requester);
  return postRequestOfType(item, kRolloutRequestType);
}

std::vector<Plist> KTSRequestManager::takeRolloutRequests() {
  std::vector<Plist> taken;
  std::optional<RequestsByDate> requests =
      getPendingRequestsForTypeDeletingSource(kRolloutRequestType, true);
  if (!requests) return taken;
  for (auto& [postDate, item] : *requests) taken.push_back(std::move(item));
  return taken;
}

bool KTSRequestManager::getPendingSyncRequestsDeletingSource(bool deleteSource) {
  log_.debug("REQM: checking for sync requests");
  return getPendingRequestsForTypeDeletingSource(kSyncRequestType, deleteSource).has_value();
}

Plist KTSRequestManager::getPendingChangeRequestsDeletingSource(bool deleteSource) {
  log_.debug("REQM: checking for product change requests");
  std::optional<RequestsByDate> requests =
      getPendingRequestsForTypeDeletingSource(kChangeRequestType, deleteSource);
  if (!requests) return Plist();
  return mergeChangeRequests(*requests);
}

Plist KTSRequestManager::mergeChangeRequests(const RequestsByDate& requests) {
  // The later of two requests for one product wins; the policy an earlier mirror named stays
  // unless the later one names another.
  std::map<std::string, Plist> merged;
  for (const auto& [postDate, requestItem] : requests) {
    for (const auto& [productId, item] : requestItem.items()) {
      if (!isValidProductId(productId)) {
        log_.warning("Ignoring a change request for an invalid product id: \"{}\"", productId);
        continue;
      }
      Plist instruction = Plist::dictionary();
      for (const char* key : {"mirror", "enable", "remove", "fetchPolicy"}) {
        if (item.contains(key)) instruction.set(key, item[key]);
      }
      if (instruction.size() == 0) {
        log_.debug("REQM: WARNING: invalid change request for product: {} (ignored)", productId);
        continue;
      }
      instruction.set("ProductID", productId.text());
      Plist& product = merged[std::string(productId.text())];
      if (!instruction.contains("fetchPolicy") && product.contains("fetchPolicy")) {
        instruction.set("fetchPolicy", product["fetchPolicy"]);
      }
      product = std::move(instruction);
    }
  }
  std::vector<Plist::Dictionary::Entry> entries;
  for (auto& [productId, instruction] : merged)
    entries.emplace_back(productId, std::move(instruction));
  return Plist(Plist::Dictionary::fromEntries(std::move(entries)));
}

bool KTSRequestManager::hasPendingRequests() {
  std::optional<std::vector<std::string>> paths = getPendingRequestPaths();
  std::size_t count = paths ? paths->size() : 0;
  log_.debug("REQM: requests pending: {}", count);
  return count > 0;
}

std::optional<KTSRequestManager::RequestsByDate>
KTSRequestManager::getPendingRequestsForTypeDeletingSource(const std::string& type,
                                                           bool deleteSource) {
  refreshUserDefaults();
  log_.debug("REQM: scanning for request type: {}", type);
  RequestsByDate found;
  for (const std::string& path : getPendingRequestPaths().value_or(std::vector<std::string>{})) {
    Plist request = readRequestAtPath(path);
    if (!request.isDictionary()) continue;
    std::string name = lastPathComponent(path);
    log_.debug("REQM: extracting request for processing: {}", name);
    const Plist& requestType = request["requestType"];
    if (!requestType.isString() || requestType.stringValue() != type) continue;
    log_.debug("REQM: found matching request of type: {}", type);
    if (deleteSource) retireRequestFile(path);
    found[*request["postDate"].dateValue()] = request["requestItem"];
  }
  if (found.empty()) {
    log_.debug("REQM: no valid requests found for type: {}", type);
    return std::nullopt;
  }
  return found;
}

void KTSRequestManager::retireRequestFile(const std::string& path) {
  std::string name = lastPathComponent(path);
  if (archiveDeletedRequests_ && createArchiveDir()) {
    log_.debug("REQM: ARCHIVING request file: {}", name);
    KTSUtilities::moveItemAtPathToPath(path, appendingPathComponent(archiveDirPath_, name));
    return;
  }
  removeArchiveDir();
  log_.debug("REQM: deleting request file: {}", name);
  KTSUtilities::removePath(path);
}

bool KTSRequestManager::postRequestOfType(const Plist& item, const std::string& type) {
  if (item.isNull()) {
    log_.debug("REQM: WARNING: NULL request item (ignored)");
    return false;
  }
  createRequestDir();
  log_.debug("REQM: creating request for type: {}", type);
  Plist request = Plist::dictionary();
  request.set("requestItem", item);
  request.set("requestType", type);
  request.set("postDate", Plist::date(Clock::now()));
  writeRequest(request);
  return true;
}

Plist KTSRequestManager::readRequestAtPath(const std::string& path) {
  std::optional<Date> created = creationDate(path, nullptr);
  log_.debug("REQM: reading data for pending request: {}", lastPathComponent(path));
  Plist request = KTSUtilities::readPropertyListAtPath(path);
  if (!request.isDictionary() || !created) return Plist();
  request.set("postDate", Plist::date(*created));
  return request;
}

void KTSRequestManager::writeRequest(const Plist& request) {
  updateRequestDirPath();
  std::int64_t seconds = Clock::secondsNow();
  std::string path = requestDirPath_ + "/" + KTSServerLayout::requestFileName(seconds);
  log_.debug("REQM: writing: {} (type = {})", path, request["requestType"]);
  KTSUtilities::writeDictionaryToPath(request, path);
  if (KTSUtilities::fileExistsAtPath(path)) {
    log_.debug("REQM: setting request file ownership: {}", path);
    KTSUtilities::setDefaultFileOwnerAtPath(path);
  }
}

std::optional<std::vector<std::string>> KTSRequestManager::getPendingRequestPaths() {
  updateRequestDirPath();
  log_.debug("REQM: getting pending request file names");
  std::vector<std::string> paths;
  std::error_code error;
  std::filesystem::directory_iterator entries(requestDirPath_, error);
  for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
    std::string name = entries->path().filename().string();
    if (KTSServerLayout::isRequestFileName(name)) {
      paths.push_back(fmt::format("{}/{}", requestDirPath_, name));
      log_.debug("REQM: found pending request: {}", name);
    } else {
      log_.debug("REQM: ignored non-request file: {}", name);
    }
  }
  if (paths.empty()) {
    log_.debug("REQM: no requests found");
    return std::nullopt;
  }
  return paths;
}

void KTSRequestManager::createRequestDir() {
  updateRequestDirPath();
  if (!KTSUtilities::directoryExistsAtPath(requestDirPath_)) {
    log_.debug("REQM: creating ondrd request spool folder");
    KTSUtilities::createDirectoryAtPath(requestDirPath_);
  }
  if (KTSUtilities::directoryExistsAtPath(requestDirPath_)) {
    log_.debug("REQM: setting ondrd request spool folder ownership");
    KTSUtilities::setDefaultFileOwnerAtPath(requestDirPath_);
  }
}

bool KTSRequestManager::createArchiveDir() {
  // Requests are moved into this folder, so it must be the folder itself, never a link to one.
  if (isSymbolicLink(archiveDirPath_)) {
    log_.error("Refusing to archive requests into {}: it is a symbolic link", archiveDirPath_);
    return false;
  }
  if (KTSUtilities::directoryExistsAtPath(archiveDirPath_)) return true;
  log_.debug("Creating {}", archiveDirPath_);
  return KTSUtilities::createDirectoryAtPath(archiveDirPath_);
}

bool KTSRequestManager::removeArchiveDir() {
  if (!KTSUtilities::directoryExistsAtPath(archiveDirPath_)) return true;
  log_.debug("Removing {}", archiveDirPath_);
  return KTSUtilities::removePath(archiveDirPath_);
}

// The spool folder is fixed; this stays the one place where it could be recomputed.
void KTSRequestManager::updateRequestDirPath() {}

void KTSRequestManager::refreshUserDefaults() {
  // Read quietly, as the logger reads the same file: a missing file simply means "off".
  std::optional<Plist> defaults =
      Plist::readFile(KTSLogger::userDefaultsPath(), nullptr, kSmallFileReadLimit);
  archiveDeletedRequests_ = defaults && (*defaults)["archiveRequests"].boolValue();
  log_.debug("REQM: request archiving is {}.", archiveDeletedRequests_ ? "ON" : "OFF");
}

}  // namespace ondrel
