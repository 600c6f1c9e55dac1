// The validators of a conditional HTTP request, read as HTTP defines them (RFC 9110): an
// HTTP-date in any of its three forms, and an If-None-Match field holding "*" or a list of
// entity tags, compared weakly. Anything that does not match its grammar in full is no date or
// no match. Used by the catalog CGI. Thread-safe: no state.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace ondrel {

// Seconds since the epoch of "Sun, 06 Nov 1994 08:49:37 GMT", "Sunday, 06-Nov-94 08:49:37 GMT"
// or "Sun Nov  6 08:49:37 1994"; none for any other text.
std::optional<std::int64_t> parseHttpDate(std::string_view text);

// Whether an If-None-Match field value names entityTag (itself a quoted tag, weak or strong):
// "*" names every tag; a list names a tag whose quoted part equals entityTag's, "W/" or not. A
// field that breaks the grammar names nothing.
bool ifNoneMatchNames(std::string_view field, std::string_view entityTag);

}  // namespace ondrel
