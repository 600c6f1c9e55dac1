// Url is a parsed, absolute URL: scheme, host, optional port, decoded path, query and fragment,
// plus the text it was made from. Equality is by text. Parsing uses libcurl's URL parser, but
// for the plain URLs catalogs are made of, which it reads alike on its own, faster.
// A value type; thread-safe to read.
#pragma once

#include <fmt/format.h>

#include <optional>
#include <string>
#include <string_view>

namespace ondrel {

class Url {
 public:
  // None when the text is not an absolute URL.
  static std::optional<Url> parse(const std::string& text);
  // The same, read by libcurl even when the text is a plain URL (parse reads those itself):
  // what parse must agree with.
  static std::optional<Url> parseWithLibcurl(const std::string& text);

  const std::string& text() const { return text_; }
  const std::string& scheme() const { return scheme_; }
  const std::string& host() const { return host_; }
  std::optional<int> port() const { return port_; }
  // Percent-decoded; "/" when the URL has no path.
  const std::string& path() const { return path_; }
  // The path as it stands in the URL, percent-encoded.
  const std::string& encodedPath() const { return encodedPath_; }
  const std::string& query() const { return query_; }
  const std::string& fragment() const { return fragment_; }

  bool operator==(const Url& other) const { return text_ == other.text_; }
  bool operator!=(const Url& other) const { return text_ != other.text_; }

 private:
  std::string text_;
  std::string scheme_;
  std::string host_;
  std::optional<int> port_;
  std::string path_;
  std::string encodedPath_;
  std::string query_;
  std::string fragment_;
};

// Whether text can stand as the host of a URL this server writes: a DNS name (labels of 1 to 63
// letters, digits and hyphens, not beginning or ending with a hyphen, 253 characters in all), an
// IPv4 address, or an IPv6 address in brackets.
bool isValidHostName(std::string_view text);

}  // namespace ondrel

template <>
struct fmt::formatter<ondrel::Url> : fmt::formatter<std::string_view> {
  template <typename FormatContext>
  auto format(const ondrel::Url& url, FormatContext& context) const {
    return fmt::formatter<std::string_view>::format(url.text(), context);
  }
};
