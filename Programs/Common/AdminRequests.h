// The administration page's requests as its CGI receives them, all untrusted text: form bodies,
// cookies, and the token that ties every state-changing request to the session it came from (an
// HMAC of the user and the session's id under the server's secret, so that a page of another
// site can neither read nor forge it). Pure functions. Thread-safe.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ondrel::programs {

// The largest request body the page sends (a change to many products) and a little more.
inline constexpr std::size_t kMostAdminBodyBytes = 256 * 1024;
inline constexpr std::size_t kMostAdminFields = 20000;

// The fields of an application/x-www-form-urlencoded body, each name with its values in order.
// None when the body is malformed (a bad %-escape, a NUL or other control character, too many
// fields or bytes).
std::optional<std::map<std::string, std::vector<std::string>>> parseFormBody(std::string_view body);
// The value of the cookie called name in a Cookie header, or empty.
std::string cookieValue(std::string_view header, std::string_view name);

// A fresh session id: 32 lowercase hex digits from the kernel's random source.
std::string newSessionId();
bool isSessionId(std::string_view text);
// A fresh secret for the tokens, as 64 hex digits.
std::string newAdminSecret();

// The token of the user's session; empty when the secret or the session is unusable.
std::string csrfToken(std::string_view secret, std::string_view user, std::string_view session);
// Whether presented is the token of the user's session, compared in constant time.
bool csrfTokenMatches(std::string_view secret, std::string_view user, std::string_view session,
                      std::string_view presented);

}  // namespace ondrel::programs
