#include "KTSPath.h"

#include <fmt/format.h>

#include "PathString.h"

namespace ondrel {

KTSPath KTSPath::pathWithLocalFilePathParentHost(const std::string& localPath,
                                                 const std::string& parentHost,
                                                 const KTSServerLayout& layout) {
  std::string htmlRoot = appendingPathComponent(layout.documentRoot(), "html/");
  std::size_t found = localPath.find(htmlRoot);
  if (found == std::string::npos) return KTSPath(std::nullopt);
  std::string rest = localPath.substr(found + htmlRoot.size());
  return KTSPath(Url::parse(fmt::format("http://{}/{}", parentHost, rest)));
}

std::optional<std::string> KTSPath::asLocalPath(const KTSServerLayout& layout) const {
  if (!parentServerURL_) return std::nullopt;
  return layout.localPathForURLPath(parentServerURL_->path());
}

std::optional<std::string> KTSPath::asChildServerURL(const KTSServerLayout& layout) const {
  if (!parentServerURL_) return std::nullopt;
  return layout.publicOrigin() + parentServerURL_->encodedPath();
}

}  // namespace ondrel
