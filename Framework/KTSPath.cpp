#include "KTSPath.h"

#include <fmt/format.h>

#include "KTSPreferences.h"
#include "PathString.h"

namespace ondrel {

KTSPath KTSPath::pathWithLocalFilePathParentHost(const std::string& localPath,
                                                 const std::string& parentHost) {
  std::string htmlRoot =
      appendingPathComponent(KTSPreferences::defaultPreferences()->updatesDocRoot(), "html/");
  std::size_t found = localPath.find(htmlRoot);
  if (found == std::string::npos) return KTSPath(std::nullopt);
  std::string rest = localPath.substr(found + htmlRoot.size());
  return KTSPath(Url::parse(fmt::format("http://{}/{}", parentHost, rest)));
}

bool KTSPath::isInsideHtmlFolder(const std::string& path) {
  std::string html =
      standardizingPath(KTSPreferences::defaultPreferences()->updatesHtmlPath()) + "/";
  return standardizingPath(path).compare(0, html.size(), html) == 0;
}

std::optional<std::string> KTSPath::asLocalPath() const {
  if (!parentServerURL_) return std::nullopt;
  return appendingPathComponent(KTSPreferences::defaultPreferences()->updatesHtmlPath(),
                                parentServerURL_->path());
}

std::optional<std::string> KTSPath::asChildServerURL() const {
  if (!parentServerURL_) return std::nullopt;
  auto preferences = KTSPreferences::defaultPreferences();
  return fmt::format("http://{}:{}{}", preferences->hostName(), preferences->portToUse(),
                     parentServerURL_->encodedPath());
}

}  // namespace ondrel
