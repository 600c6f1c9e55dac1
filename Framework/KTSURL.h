// KTSURL is a URL value whose scheme, host, port and path can each be replaced. The meta-index
// points catalog URLs at this server with it, and the catalog downloader switches a URL between
// "https" and "http". Every setter rebuilds the URL from scheme, host field and path, so user,
// password, query and fragment are dropped. A value type; one thread uses a value.
#pragma once

#include <optional>
#include <string>

#include "Url.h"

namespace ondrel {

class KTSURL {
 public:
  static KTSURL URLWithURL(const std::optional<Url>& url) { return KTSURL(url); }
  // A null URL when the text does not parse.
  static KTSURL URLWithString(const std::string& text) { return KTSURL(Url::parse(text)); }
  static KTSURL URLWithKTSURL(const KTSURL& other) { return KTSURL(other.url_); }
  explicit KTSURL(std::optional<Url> url) : url_(std::move(url)) {}

  const std::optional<Url>& url() const { return url_; }
  void setUrl(std::optional<Url> url) { url_ = std::move(url); }
  // The URL's text; "(null)" for a null URL.
  std::string description() const { return url_ ? url_->text() : "(null)"; }

  std::string scheme() const { return url_ ? url_->scheme() : std::string(); }
  std::string host() const { return url_ ? url_->host() : std::string(); }
  std::optional<int> port() const { return url_ ? url_->port() : std::nullopt; }
  std::string path() const { return url_ ? url_->path() : std::string(); }

  // Each setter leaves a null URL null.
  void setScheme(const std::string& scheme);
  void setHost(const std::string& host);
  void setPort(std::optional<int> port);
  void setHostAndPort(const std::string& host, std::optional<int> port);
  void setPath(const std::string& path);

  bool isEqual(const KTSURL& other) const { return description() == other.description(); }

 private:
  void rebuild(const std::string& scheme, const std::string& host, std::optional<int> port,
               const std::string& encodedPath);

  std::optional<Url> url_;
};

}  // namespace ondrel
