// The fixed date patterns of the server: the RFC 3339 form used in catalogs and property lists,
// the archive form used in stored records, and the text form of a date in messages.
// Parsing is strict: text that does not match the whole pattern is no date. Thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Plist.h"

namespace ondrel {

// The moment as a Date, or none when it lies outside what a Date holds (about 1678 to 2261):
// text or binary data naming such a moment holds no date.
std::optional<Date> dateFromUnixSeconds(std::int64_t secondsSinceEpoch,
                                        std::int64_t nanoseconds = 0);

// "yyyy-MM-ddTHH:mm:ssZ", always UTC with the literal letter Z and no fractional seconds.
std::optional<Date> parseRfc3339Date(std::string_view text);
std::string formatRfc3339Date(Date date);

// "yyyy-MM-dd HH:mm:ss ZZZ" with a numeric offset such as +0000 or -0800.
std::optional<Date> parseArchiveDate(std::string_view text);
// Formats in the process's time zone, with its offset.
std::string formatArchiveDate(Date date);

// "yyyy-MM-dd HH:mm:ss +0000": how a date reads in a message.
std::string formatDescriptionDate(Date date);

}  // namespace ondrel
