// The rule for product ids that arrive from outside (catalogs, requests, tickets, the command
// line). An id becomes part of file names, so only ids that cannot name another folder are
// accepted. Pure function; thread-safe.
#pragma once

#include <string_view>

namespace ondrel {

// True for [A-Za-z0-9][A-Za-z0-9._-]{0,127}.
bool isValidProductId(std::string_view productId);

}  // namespace ondrel
