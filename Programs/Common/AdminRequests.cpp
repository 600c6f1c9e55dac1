#include "AdminRequests.h"

#include <openssl/crypto.h>
#include <openssl/hmac.h>
#include <sys/random.h>

#include <array>

namespace ondrel::programs {

namespace {

constexpr std::size_t kSessionHexDigits = 32;
constexpr std::size_t kLeastSecretBytes = 32;

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string hexOf(const unsigned char* bytes, std::size_t count) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

std::string randomHex(std::size_t bytes) {
  std::array<unsigned char, 64> buffer{};
  std::size_t got = 0;
  while (got < bytes) {
    ssize_t count = ::getrandom(buffer.data() + got, bytes - got, 0);
    if (count <= 0) continue;
    got += static_cast<std::size_t>(count);
  }
  return hexOf(buffer.data(), bytes);
}

// Decodes one name or value; none when it holds a bad escape or a control character.
std::optional<std::string> decoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '+') {
      c = ' ';
    } else if (c == '%') {
      if (i + 2 >= text.size()) return std::nullopt;
      int high = hexValue(text[i + 1]);
      int low = hexValue(text[i + 2]);
      if (high < 0 || low < 0) return std::nullopt;
      c = static_cast<char>(high * 16 + low);
      i += 2;
    }
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return std::nullopt;
    out += c;
  }
  return out;
}

}  // namespace

std::optional<std::map<std::string, std::vector<std::string>>> parseFormBody(
    std::string_view body) {
  if (body.size() > kMostAdminBodyBytes) return std::nullopt;
  std::map<std::string, std::vector<std::string>> fields;
  std::size_t count = 0;
  for (std::size_t start = 0; start <= body.size();) {
    std::size_t end = body.find('&', start);
    if (end == std::string_view::npos) end = body.size();
    std::string_view pair = body.substr(start, end - start);
    start = end + 1;
    if (pair.empty()) continue;
    if (++count > kMostAdminFields) return std::nullopt;
    std::size_t equals = pair.find('=');
    std::optional<std::string> name = decoded(pair.substr(0, equals));
    std::optional<std::string> value =
        decoded(equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1));
    if (!name || !value || name->empty()) return std::nullopt;
    fields[*name].push_back(std::move(*value));
  }
  return fields;
}

std::string cookieValue(std::string_view header, std::string_view name) {
  for (std::size_t start = 0; start < header.size();) {
    std::size_t end = header.find(';', start);
    if (end == std::string_view::npos) end = header.size();
    std::string_view pair = header.substr(start, end - start);
    start = end + 1;
    while (!pair.empty() && pair.front() == ' ') pair.remove_prefix(1);
    std::size_t equals = pair.find('=');
    if (equals != std::string_view::npos && pair.substr(0, equals) == name) {
      return std::string(pair.substr(equals + 1));
    }
  }
  return "";
}

std::string newSessionId() { return randomHex(kSessionHexDigits / 2); }

bool isSessionId(std::string_view text) {
  if (text.size() != kSessionHexDigits) return false;
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

std::string newAdminSecret() { return randomHex(kLeastSecretBytes); }

std::string csrfToken(std::string_view secret, std::string_view user, std::string_view session) {
  if (secret.size() < kLeastSecretBytes || user.empty() || !isSessionId(session)) return "";
  std::string message = std::string(user) + '\n' + std::string(session);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
           reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest,
           &length) == nullptr) {
    return "";
  }
  return hexOf(digest, length);
}

bool csrfTokenMatches(std::string_view secret, std::string_view user, std::string_view session,
                      std::string_view presented) {
  std::string expected = csrfToken(secret, user, session);
  return !expected.empty() && presented.size() == expected.size() &&
         CRYPTO_memcmp(expected.data(), presented.data(), expected.size()) == 0;
}

}  // namespace ondrel::programs
