#include "KTSURL.h"

#include <fmt/format.h>

namespace ondrel {

void KTSURL::rebuild(const std::string& scheme, const std::string& host, std::optional<int> port,
                     const std::string& encodedPath) {
  std::string hostField = port ? fmt::format("{}:{}", host, *port) : host;
  url_ = Url::parse(fmt::format("{}://{}{}", scheme, hostField, encodedPath));
}

void KTSURL::setScheme(const std::string& scheme) {
  if (url_) rebuild(scheme, url_->host(), url_->port(), url_->encodedPath());
}

void KTSURL::setHost(const std::string& host) {
  if (url_) rebuild(url_->scheme(), host, url_->port(), url_->encodedPath());
}

void KTSURL::setPort(std::optional<int> port) {
  if (url_) rebuild(url_->scheme(), url_->host(), port, url_->encodedPath());
}

void KTSURL::setHostAndPort(const std::string& host, std::optional<int> port) {
  if (url_) rebuild(url_->scheme(), host, port, url_->encodedPath());
}

void KTSURL::setPath(const std::string& path) {
  if (url_) rebuild(url_->scheme(), url_->host(), url_->port(), path);
}

}  // namespace ondrel
