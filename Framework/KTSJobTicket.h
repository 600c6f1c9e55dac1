// KTSJobTicket is one pending job on one product (mirror, enable, disable, remove), kept as a
// small property-list file in the pending-jobs folder until it is done or expires two hours after
// it was first saved. Made by KTSJobTicketManager for both the daemon and the administration side.
// One thread uses an instance.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "KTSLogger.h"
#include "Plist.h"

namespace ondrel {

class KTSJobTicket {
 public:
  enum JobType : std::int64_t { Undefined = -1, Mirror = 0, Enable = 1, Disable = 2, Remove = 3 };

  static std::shared_ptr<KTSJobTicket> ticketWithProductIdJobTypeInDirectory(
      const std::optional<std::string>& productId, std::int64_t jobType,
      const std::optional<std::string>& directory);
  static std::shared_ptr<KTSJobTicket> ticketWithDictionaryAtPath(const std::string& path);

  // Writes nothing. The path is set when both the product and the folder are given.
  KTSJobTicket(const std::optional<std::string>& productId, std::int64_t jobType,
               const std::optional<std::string>& directory);
  // Reads a ticket file. A file that is not a live ticket gives a ticket of type -1.
  explicit KTSJobTicket(const std::string& dictionaryPath);

  // The file-name prefix of a job type (".ticket_undefined_" outside 0 to 3).
  static std::string fileNamePrefixForJobType(std::int64_t jobType);

  std::string typeDescription() const;
  // A known type, a product and a path; expiry is not considered.
  bool isValid() const;
  // Writes the ticket atomically, owned by the service account; the first save sets the expiry.
  bool saveAsDictionary();
  // Deletes the ticket's file if present; always true (problems are logged).
  bool removeDictionary();

  const std::optional<std::string>& productId() const { return productId_; }
  void setProductId(std::optional<std::string> productId) { productId_ = std::move(productId); }
  std::int64_t jobType() const { return jobType_; }
  void setJobType(std::int64_t jobType) { jobType_ = jobType; }
  const std::optional<std::string>& path() const { return path_; }
  void setPath(std::optional<std::string> path) { path_ = std::move(path); }
  const std::optional<Date>& expireTime() const { return expireTime_; }
  void setExpireTime(std::optional<Date> expireTime) { expireTime_ = expireTime; }

 private:
  std::optional<std::string> productId_;
  std::int64_t jobType_ = Undefined;
  std::optional<std::string> path_;
  std::optional<Date> expireTime_;
  LogHandle log_;
};

}  // namespace ondrel
