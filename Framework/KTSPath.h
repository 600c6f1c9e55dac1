// KTSPath maps one update file between its three places: its URL on the upstream (parent)
// server, its local file under the document root, and the URL under which this server serves
// it (the child server URL). Derived forms are computed from the shared preferences when asked.
// A value type; one thread uses a value.
#pragma once

#include <optional>
#include <string>

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
                                                 const std::string& parentHost);
  explicit KTSPath(std::optional<Url> parentServerURL)
      : parentServerURL_(std::move(parentServerURL)) {}

  // True when path, standardised as text, names something below the document root's html
  // folder. Every file the server writes, reads or removes for a URL from outside passes this.
  static bool isInsideHtmlFolder(const std::string& path);

  // The local file: the document root's html folder joined with the parent URL's path.
  // None for a null parent URL.
  std::optional<std::string> asLocalPath() const;
  // "http://<host name>:<port><path>" of this server. None for a null parent URL.
  std::optional<std::string> asChildServerURL() const;

  const std::optional<Url>& parentServerURL() const { return parentServerURL_; }
  void setParentServerURL(std::optional<Url> url) { parentServerURL_ = std::move(url); }

 private:
  std::optional<Url> parentServerURL_;
};

}  // namespace ondrel
