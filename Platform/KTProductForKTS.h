// KTProductForKTS interprets a catalog entry the way an update client does: it reads the product's
// distribution file (our "vantor-distribution" XML format) for the display name, display version,
// description and restart action. The metadata generator uses it to write substitute server
// metadata. One thread uses an instance.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Plist.h"
#include "Url.h"

namespace ondrel {

class KTProductForKTS {
 public:
  // Error codes: the entry has no distribution file (none listed, HTTP 404 or 410, no such local
  // file); the document is unusable (not well-formed, another root, over 1 MiB); any other
  // transfer failure (refused connection, status 500, time-out).
  static constexpr std::int64_t kErrorNoDistribution = -1100;
  static constexpr std::int64_t kErrorBadDistribution = -1101;
  static constexpr std::int64_t kErrorTransferFailed = -1102;
  static constexpr std::size_t kMaximumDocumentSize = std::size_t{1} << 20;

  struct Error {
    std::int64_t code = 0;
    std::string description;
  };

  // Where a mirrored copy of an upstream file would be on this server, or none.
  using LocalPathForURL = std::function<std::optional<std::string>(const Url&)>;

  // Reads the distribution for localization (none: "English", else "en", else the first
  // language): the mirrored copy when localPathForURL names an existing file, else a fetch into
  // a temporary file that is removed afterwards. None, with error filled, on failure.
  static std::unique_ptr<KTProductForKTS> initWithProductKeyCatalogProductDictionaryLocalization(
      const std::string& productKey, const Plist& catalogProductDictionary,
      const std::optional<std::string>& localization, const LocalPathForURL& localPathForURL,
      Error* error);

  const std::string& productKey() const { return productKey_; }
  const std::optional<std::string>& displayVersion() const { return displayVersion_; }
  const std::optional<std::string>& displayName() const { return displayName_; }
  // The description bytes (UTF-8 text) and their MIME type, or none.
  std::optional<Plist::Bytes> descriptionDataReturningMIMEType(std::string* mimeType) const;
  // 0 NoRestart, 1 RecommendRestart, 2 RequireLogout, 3 RequireRestart, 4 RequireShutdown.
  std::int64_t restartAction() const { return restartAction_; }

 private:
  KTProductForKTS() = default;
  bool parseDistribution(const std::string& document, Error* error);

  std::string productKey_;
  std::optional<std::string> displayVersion_;
  std::optional<std::string> displayName_;
  std::optional<std::string> description_;
  std::string descriptionMimeType_ = "text/plain";
  std::int64_t restartAction_ = 0;
};

}  // namespace ondrel
