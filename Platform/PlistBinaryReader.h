// The reader of binary property lists behind Plist::fromBytes: bounded in nesting, object count,
// memory and time, so a hostile file is refused instead of crashing or stalling the process.
// Pure function; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Plist.h"

namespace ondrel {

// The value of a "bplist00" document, or none with the reason in error.
std::optional<Plist> readBinaryPlist(std::string_view bytes, std::string* error);

}  // namespace ondrel
