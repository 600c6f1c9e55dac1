#include "KTSJobTicketManager.h"

#include <algorithm>
#include <filesystem>

#include "Clock.h"
#include "FileIO.h"
#include "HostPaths.h"
#include "KTSPreferences.h"
#include "KTSUtilities.h"
#include "ProductId.h"

namespace ondrel {

namespace {

// A temporary file of another process's atomic write younger than this is a write in progress;
// an older one was left by a crash and is cleaned like any other stray entry.
constexpr std::chrono::minutes kWriteInProgressAge(10);

}  // namespace

KTSJobTicketManager::KTSJobTicketManager(const KTSPreferences& preferences)
    : jobsPath_(preferences.statusWorkingPathForPath(
          fixedPath("/Library/Server/Ondrel/Status/.pending"))),
      log_(LogHandle::shared()) {}

bool KTSJobTicketManager::isWriteInProgress(const std::string& fileName,
                                            const std::string& fullPath) const {
  if (!isAtomicWriteTemporary(fileName)) return false;
  std::optional<Date> modified = modificationDate(fullPath, nullptr);
  return modified && Clock::now() - *modified < kWriteInProgressAge;
}

std::vector<std::shared_ptr<KTSJobTicket>> KTSJobTicketManager::openJobs() const {
  std::vector<std::shared_ptr<KTSJobTicket>> tickets;
  tickets.reserve(openJobs_.size());
  for (const auto& [arrival, ticket] : openJobs_) tickets.push_back(ticket);
  return tickets;
}

void KTSJobTicketManager::remember(std::shared_ptr<KTSJobTicket> ticket) {
  std::uint64_t arrival = nextArrival_++;
  arrivalsByKey_[{ticket->jobType(), ticket->productId().value_or("")}].insert(arrival);
  openJobs_.emplace(arrival, std::move(ticket));
}

void KTSJobTicketManager::refresh() {
  openJobs_.clear();
  arrivalsByKey_.clear();
  if (!KTSUtilities::directoryExistsAtPath(jobsPath_)) return;
  std::error_code error;
  std::filesystem::directory_iterator entries(jobsPath_, error);
  if (error) {
    log_.debug("JTKT: *** failed reading pending jobs directory. reason: {}", error.message());
    return;
  }
  // Each discarded entry is deleted only if it is still the very file that was judged: another
  // process may have replaced it with a live ticket in the meantime.
  std::vector<std::pair<std::string, std::uint64_t>> discarded;
  for (; entries != std::filesystem::directory_iterator(); entries.increment(error)) {
    std::string name = entries->path().filename().string();
    std::string fullPath = jobsPath_ + "/" + name;
    if (isWriteInProgress(name, fullPath)) continue;
    std::optional<std::uint64_t> judged = fileIdentity(fullPath);
    auto ticket = KTSJobTicket::ticketWithDictionaryAtPath(fullPath);
    if (ticket->jobType() == KTSJobTicket::Undefined) {
      log_.debug("JTKT: warning - discarding file: {} (invalid/expired ticket)", name);
      if (judged) discarded.emplace_back(fullPath, *judged);
    } else {
      remember(ticket);
    }
  }
  for (const auto& [fullPath, identity] : discarded) {
    if (fileIdentity(fullPath) == identity) std::filesystem::remove_all(fullPath, error);
  }
}

std::shared_ptr<KTSJobTicket> KTSJobTicketManager::findTicketOfTypeForProduct(
    std::int64_t jobType, const std::string& productId) const {
  auto arrivals = arrivalsByKey_.find({jobType, productId});
  if (arrivals == arrivalsByKey_.end() || arrivals->second.empty()) return nullptr;
  return openJobs_.at(*arrivals->second.begin());
}

bool KTSJobTicketManager::hasTicketOfTypeForProduct(std::int64_t jobType,
                                                    const std::string& productId) const {
  return findTicketOfTypeForProduct(jobType, productId) != nullptr;
}

void KTSJobTicketManager::addTicketOfTypeForProduct(std::int64_t jobType,
                                                    const std::string& productId) {
  if (!isValidProductId(productId)) {
    log_.error("Refusing a job ticket for an invalid product id: \"{}\"", productId);
    return;
  }
  if (auto existing = findTicketOfTypeForProduct(jobType, productId)) {
    log_.debug("JTKT: warning: redundant request ignored; ticket (\"{}\") exists for product: {}",
               existing->typeDescription(), productId);
    return;
  }
  if (!KTSUtilities::createDirectoryAtPath(jobsPath_)) return;
  auto ticket = KTSJobTicket::ticketWithProductIdJobTypeInDirectory(productId, jobType, jobsPath_);
  log_.debug("JTKT: adding new ticket (\"{}\") for product: {}", ticket->typeDescription(),
             productId);
  if (ticket->saveAsDictionary()) remember(ticket);
}

void KTSJobTicketManager::deleteTicketOfTypeForProduct(std::int64_t jobType,
                                                       const std::string& productId) {
  auto ticket = findTicketOfTypeForProduct(jobType, productId);
  if (!ticket) return;
  log_.debug("JTKT: removing pending ticket (\"{}\") for product: {}", ticket->typeDescription(),
             productId);
  ticket->removeDictionary();
  auto arrivals = arrivalsByKey_.find({jobType, productId});
  openJobs_.erase(*arrivals->second.begin());
  arrivals->second.erase(arrivals->second.begin());
  if (arrivals->second.empty()) arrivalsByKey_.erase(arrivals);
}

void KTSJobTicketManager::deleteAllTickets() {
  log_.debug("JTKT: removing all pending job tickets (total {})", openJobs_.size());
  for (const auto& [arrival, ticket] : openJobs_) {
    log_.debug("JTKT: removing pending ticket for \"{} {}\"", ticket->typeDescription(),
               ticket->productId().value_or(""));
    ticket->removeDictionary();
  }
  openJobs_.clear();
  arrivalsByKey_.clear();
}

}  // namespace ondrel
