#include "Url.h"

#include <arpa/inet.h>
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

bool isValidHostName(std::string_view text) {
  constexpr std::size_t kLongestName = 253;
  constexpr std::size_t kLongestLabel = 63;
  if (text.empty() || text.size() > kLongestName + 2) return false;
  unsigned char address[sizeof(struct in6_addr)];
  if (text.front() == '[' && text.back() == ']') {
    std::string inside(text.substr(1, text.size() - 2));
    return ::inet_pton(AF_INET6, inside.c_str(), address) == 1;
  }
  if (text.size() > kLongestName) return false;
  std::string whole(text);
  if (::inet_pton(AF_INET, whole.c_str(), address) == 1) return true;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t dot = text.find('.', start);
    std::string_view label = text.substr(start, dot == std::string_view::npos ? dot : dot - start);
    bool fits = !label.empty() && label.size() <= kLongestLabel && label.front() != '-' &&
                label.back() != '-';
    for (char c : label) {
      fits = fits && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '-');
    }
    if (!fits) return false;
    if (dot == std::string_view::npos) break;
    start = dot + 1;
  }
  return true;
}

}  // namespace ondrel
