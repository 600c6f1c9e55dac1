#include "Url.h"

#include <arpa/inet.h>
#include <curl/curl.h>

#include <memory>
#include <string_view>

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

bool isLowerAlnum(char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); }

// A host name libcurl gives back as it was written: lowercase labels of letters, digits and
// hyphens with at least one character no number can hold (libcurl rewrites hosts that read as
// IPv4 numbers in any base: "127.1", "0x7f.0.0.1"), or an IPv4 address in its canonical form.
bool isPlainHost(std::string_view host) {
  if (host.empty() || host.size() > 253 || host.front() == '.' || host.back() == '.' ||
      host.find("..") != std::string_view::npos) {
    return false;
  }
  bool numeric = true;
  for (char c : host) {
    if (!isLowerAlnum(c) && c != '.' && c != '-') return false;
    numeric = numeric && ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || c == 'x' || c == '.');
  }
  if (!numeric) return true;
  in_addr address{};
  char canonical[INET_ADDRSTRLEN];
  std::string whole(host);
  return ::inet_pton(AF_INET, whole.c_str(), &address) == 1 &&
         ::inet_ntop(AF_INET, &address, canonical, sizeof canonical) != nullptr &&
         whole == canonical;
}

// The number of a port as libcurl keeps it: decimal without leading zeros, 1 to 65535, and not
// the scheme's default (which libcurl may leave out); none otherwise.
std::optional<int> plainPort(std::string_view port, std::string_view scheme) {
  if (port.empty() || port.size() > 5 || port.front() == '0') return std::nullopt;
  int value = 0;
  for (char c : port) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  if (value > 65535 || value == (scheme == "http" ? 80 : 443)) return std::nullopt;
  return value;
}

// A path of unreserved characters and single slashes, without "." or ".." segments: nothing
// in it for libcurl to decode or normalise.
bool isPlainPath(std::string_view path) {
  if (path.empty() || path.front() != '/') return false;
  std::size_t segmentStart = 1;
  for (std::size_t i = 1; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/') {
      std::string_view segment = path.substr(segmentStart, i - segmentStart);
      if ((segment.empty() && i < path.size()) || segment == "." || segment == "..") return false;
      segmentStart = i + 1;
      continue;
    }
    char c = path[i];
    if (!isLowerAlnum(c) && !(c >= 'A' && c <= 'Z') && c != '-' && c != '.' && c != '_' &&
        c != '~') {
      return false;
    }
  }
  return true;
}

struct PlainParts {
  std::string_view scheme, host;
  std::optional<int> port;
  std::string_view path;
};

// The parts of text when it is in the plain form most catalog URLs have ("http" or "https",
// "://", a plain host, a plain port, a plain path, no query or fragment), read without libcurl
// and exactly as libcurl reads them; none for any other text.
std::optional<PlainParts> plainParts(const std::string& text) {
  constexpr std::size_t kLongestPlainUrl = 8192;
  std::string_view rest(text);
  std::size_t schemeEnd = rest.find("://");
  std::string_view scheme = rest.substr(0, schemeEnd);
  if (text.size() > kLongestPlainUrl || schemeEnd == std::string_view::npos ||
      (scheme != "http" && scheme != "https")) {
    return {};
  }
  rest.remove_prefix(schemeEnd + 3);
  std::size_t slash = rest.find('/');
  if (slash == std::string_view::npos) return {};
  std::string_view authority = rest.substr(0, slash);
  std::string_view path = rest.substr(slash);
  std::size_t colon = authority.find(':');
  std::string_view host = authority.substr(0, colon);
  std::optional<int> port;
  if (colon != std::string_view::npos) {
    port = plainPort(authority.substr(colon + 1), scheme);
    if (!port) return {};
  }
  if (!isPlainHost(host) || !isPlainPath(path)) return {};
  return PlainParts{scheme, host, port, path};
}

}  // namespace

std::optional<Url> Url::parse(const std::string& text) {
  if (std::optional<PlainParts> plain = plainParts(text)) {
    Url url;
    url.text_ = text;
    url.scheme_ = plain->scheme;
    url.host_ = plain->host;
    url.port_ = plain->port;
    url.path_ = plain->path;
    url.encodedPath_ = plain->path;
    return url;
  }
  return parseWithLibcurl(text);
}

std::optional<Url> Url::parseWithLibcurl(const std::string& text) {
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
