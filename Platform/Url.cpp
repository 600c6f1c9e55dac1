#include "Url.h"

#include <curl/curl.h>

#include <memory>

namespace ondrel {

namespace {

struct UrlHandleDeleter {
  void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};

std::string part(CURLU* handle, CURLUPart which, unsigned flags = 0) {
  char* value = nullptr;
  if (curl_url_get(handle, which, &value, flags) != CURLUE_OK || value == nullptr) return {};
  std::string text(value);
  curl_free(value);
  return text;
}

}  // namespace

std::optional<Url> Url::parse(const std::string& text) {
  std::unique_ptr<CURLU, UrlHandleDeleter> handle(curl_url());
  if (!handle || text.empty()) return std::nullopt;
  if (curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
      CURLUE_OK) {
    return std::nullopt;
  }
  Url url;
  url.text_ = text;
  url.scheme_ = part(handle.get(), CURLUPART_SCHEME);
  url.host_ = part(handle.get(), CURLUPART_HOST);
  std::string port = part(handle.get(), CURLUPART_PORT);
  if (!port.empty()) url.port_ = std::stoi(port);
  url.path_ = part(handle.get(), CURLUPART_PATH, CURLU_URLDECODE);
  url.encodedPath_ = part(handle.get(), CURLUPART_PATH);
  url.query_ = part(handle.get(), CURLUPART_QUERY);
  url.fragment_ = part(handle.get(), CURLUPART_FRAGMENT);
  return url;
}

}  // namespace ondrel
