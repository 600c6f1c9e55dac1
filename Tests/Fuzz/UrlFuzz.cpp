// libFuzzer target: Url::parse reads any text as libcurl's URL parser reads it, field by field,
// including the plain URLs it reads without libcurl.
#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Url.h"

namespace {

std::string part(CURLU* handle, CURLUPart which, unsigned flags = 0) {
  char* value = nullptr;
  if (curl_url_get(handle, which, &value, flags) != CURLUE_OK || value == nullptr) return {};
  std::string text(value);
  curl_free(value);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  if (text.find('\0') != std::string::npos) return 0;
  std::optional<ondrel::Url> url = ondrel::Url::parse(text);
  CURLU* handle = curl_url();
  bool read = !text.empty() && curl_url_set(handle, CURLUPART_URL, text.c_str(),
                                            CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
  if (read != url.has_value()) std::abort();
  if (read) {
    std::string port = part(handle, CURLUPART_PORT);
    if (url->scheme() != part(handle, CURLUPART_SCHEME) ||
        url->host() != part(handle, CURLUPART_HOST) ||
        url->port() != (port.empty() ? std::nullopt : std::optional(std::stoi(port))) ||
        url->path() != part(handle, CURLUPART_PATH, CURLU_URLDECODE) ||
        url->encodedPath() != part(handle, CURLUPART_PATH) ||
        url->query() != part(handle, CURLUPART_QUERY) ||
        url->fragment() != part(handle, CURLUPART_FRAGMENT)) {
      std::abort();
    }
  }
  curl_url_cleanup(handle);
  return 0;
}
