// JSON text of property-list values, for the programs' --json output, the health check and the
// administration page: dates as RFC 3339 text, data as base64 text, non-finite reals as null.
// Thread-safe.
#pragma once

#include <string>

#include "Plist.h"

namespace ondrel {

// The value as indented JSON; indent is the indentation of the line the value starts on.
std::string toJson(const Plist& value, int indent = 0);
// text as a JSON string, quotes included.
std::string jsonQuoted(const std::string& text);

}  // namespace ondrel
