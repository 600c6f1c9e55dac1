#include "KTSJobTicket.h"

#include <filesystem>

#include "Clock.h"
#include "KTSUtilities.h"
#include "PathString.h"
#include "ProductId.h"

namespace ondrel {

namespace {

constexpr std::chrono::seconds kTicketLifetime(7200);

struct JobTypeNames {
  const char* description;
  const char* prefix;
};

constexpr JobTypeNames kJobTypeNames[] = {{"mirror", ".ticket_mirror_"},
                                          {"enable", ".ticket_enable_"},
                                          {"disable", ".ticket_disable_"},
                                          {"remove", ".ticket_remove_"}};
constexpr JobTypeNames kUndefinedNames = {"-UNKNOWN-", ".ticket_undefined_"};

const JobTypeNames& namesFor(std::int64_t jobType) {
  if (jobType < 0 || jobType > 3) return kUndefinedNames;
  return kJobTypeNames[jobType];
}

bool hasKnownPrefix(const std::string& fileName) {
  for (const JobTypeNames& names : kJobTypeNames) {
    if (fileName.rfind(names.prefix, 0) == 0) return true;
  }
  return false;
}

}  // namespace

std::shared_ptr<KTSJobTicket> KTSJobTicket::ticketWithProductIdJobTypeInDirectory(
    const std::optional<std::string>& productId, std::int64_t jobType,
    const std::optional<std::string>& directory) {
  return std::make_shared<KTSJobTicket>(productId, jobType, directory);
}

std::shared_ptr<KTSJobTicket> KTSJobTicket::ticketWithDictionaryAtPath(const std::string& path) {
  return std::make_shared<KTSJobTicket>(path);
}

std::string KTSJobTicket::fileNamePrefixForJobType(std::int64_t jobType) {
  return namesFor(jobType).prefix;
}

KTSJobTicket::KTSJobTicket(const std::optional<std::string>& productId, std::int64_t jobType,
                           const std::optional<std::string>& directory)
    : productId_(productId), jobType_(jobType), log_(LogHandle::shared()) {
  if (productId && directory) {
    path_ = *directory + "/" + fileNamePrefixForJobType(jobType) + *productId;
  }
}

KTSJobTicket::KTSJobTicket(const std::string& dictionaryPath) : log_(LogHandle::shared()) {
  std::string fileName = lastPathComponent(dictionaryPath);
  if (!hasKnownPrefix(fileName)) {
    log_.debug("JTKT: warning - unrecognized ticket type: {} (ignored).", fileName);
    return;
  }
  Plist ticket = KTSUtilities::readPropertyListAtPath(dictionaryPath, kSmallFileReadLimit);
  if (ticket.isNull()) {
    log_.debug("JTKT: *** cannot read ticket: {}", fileName);
    return;
  }
  const Plist& productId = ticket["productId"];
  const Plist& ticketType = ticket["ticketType"];
  const Plist& ticketPath = ticket["ticketPath"];
  std::optional<Date> expireTime = ticket["expireTime"].dateValue();
  // A ticket of the wrong shape is as void as an incomplete one.
  if (!productId.isString() || !ticketType.isNumber() || !ticketPath.isString() || !expireTime) {
    return;
  }
  if (*expireTime <= Clock::now()) return;
  // A ticket names its own file, which may be a copy's original, but only in the folder it was
  // found in: anything else would let a planted ticket delete files elsewhere.
  std::string recordedPath = standardizingPath(ticketPath.stringValue());
  if (!isValidProductId(productId.stringValue()) ||
      deletingLastPathComponent(recordedPath) !=
          deletingLastPathComponent(standardizingPath(dictionaryPath)) ||
      !hasKnownPrefix(lastPathComponent(recordedPath))) {
    log_.debug("JTKT: warning - ticket names another folder or an invalid product: {}", fileName);
    return;
  }
  productId_ = productId.stringValue();
  jobType_ = ticketType.integerValue();
  path_ = recordedPath;
  expireTime_ = expireTime;
}

std::string KTSJobTicket::typeDescription() const { return namesFor(jobType_).description; }

bool KTSJobTicket::isValid() const {
  return jobType_ >= Mirror && jobType_ <= Remove && productId_ && path_;
}

bool KTSJobTicket::saveAsDictionary() {
  if (!isValid()) return false;
  if (!expireTime_) expireTime_ = Clock::now() + kTicketLifetime;
  Plist ticket = Plist::dictionary();
  ticket.set("productId", *productId_);
  ticket.set("ticketType", Plist::integer(jobType_));
  ticket.set("ticketPath", *path_);
  ticket.set("expireTime", Plist::date(*expireTime_));
  if (!KTSUtilities::writePropertyListToPath(ticket, *path_)) return false;
  KTSUtilities::setDefaultFileOwnerAtPath(*path_);
  return true;
}

bool KTSJobTicket::removeDictionary() {
  if (!path_) return true;
  if (KTSUtilities::fileExistsAtPath(*path_)) {
    std::error_code error;
    std::filesystem::remove(*path_, error);
    if (error) {
      log_.debug("Error removing ticket for path = \"{}\" (reason: {})", *path_, error.message());
    }
  }
  if (KTSUtilities::fileExistsAtPath(*path_)) {
    log_.debug("Error ticket file not removed! path = \"{}\"", *path_);
  }
  return true;
}

}  // namespace ondrel
