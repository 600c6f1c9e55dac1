// libFuzzer target: Url::parse reads any text as libcurl's URL parser reads it, field by field,
// including the plain URLs it reads without libcurl.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Url.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  if (text.find('\0') != std::string::npos) return 0;
  std::optional<ondrel::Url> url = ondrel::Url::parse(text);
  std::optional<ondrel::Url> reference = ondrel::Url::parseWithLibcurl(text);
  if (url.has_value() != reference.has_value()) std::abort();
  if (url && (url->text() != reference->text() || url->scheme() != reference->scheme() ||
              url->host() != reference->host() || url->port() != reference->port() ||
              url->path() != reference->path() || url->encodedPath() != reference->encodedPath() ||
              url->query() != reference->query() || url->fragment() != reference->fragment())) {
    std::abort();
  }
  return 0;
}
