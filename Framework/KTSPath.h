// KTSPath maps one update file between its three places: its URL on the upstream (parent)
// server, its local file under the document root, and the URL under which this server serves
// it (the child server URL). Derived forms are computed from the server's layout when asked.
// A value type; one thread uses a value.
#pragma once

#include <optional>
#include <string>

#include "KTSServerLayout.h"
#include "Url.h"

namespace ondrel {

class KTSPath {
 public:
  // A null parent URL when the text does not parse.
  static KTSPath pathWithString(const std::string& text) { return KTSPath(Url::parse(text)); }
  static KTSPath pathWithURL(const std::optional<Url>& url) { return KTSPath(url); }
  // The parent URL "http://<parentHost>/<rest>" for a file below the document root's html
  // folder; a null parent URL for any other path.
  static KTSPath pathWithLocalFilePathParentHost(const std::string& localPath,
                                                 const std::string& parentHost,
                                                 const KTSServerLayout& layout);
  explicit KTSPath(std::optional<Url> parentServerURL)
      : parentServerURL_(std::move(parentServerURL)) {}

  // The local file: the document root's html folder joined with the parent URL's path.
  // None for a null parent URL.
  std::optional<std::string> asLocalPath(const KTSServerLayout& layout) const;
  // "http://<host name>:<port><path>" of this server. None for a null parent URL.
  std::optional<std::string> asChildServerURL(const KTSServerLayout& layout) const;

  const std::optional<Url>& parentServerURL() const { return parentServerURL_; }
  void setParentServerURL(std::optional<Url> url) { parentServerURL_ = std::move(url); }

 private:
  std::optional<Url> parentServerURL_;
};

}  // namespace ondrel
