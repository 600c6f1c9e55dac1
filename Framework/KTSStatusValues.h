// What the daemon's status records (the passes' history, the scrub's record) have in common: a
// count as a property-list value, read back as untrusted, a date as seconds for a metric, and a
// metric as Prometheus text. Stateless; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Plist.h"

namespace ondrel::KTSStatusValues {

// A count as a record holds it: at most the largest integer a property list holds.
Plist count(std::uint64_t value);
// The count a record holds: a number above zero as it is, anything else 0.
std::uint64_t countFrom(const Plist& value);
// The date in seconds since the epoch; 0 for none.
double secondsSinceEpoch(const std::optional<Date>& date);
// One metric, "# HELP", "# TYPE" and its value, as Prometheus text ("counter" or "gauge").
std::string metric(std::string_view name, std::string_view type, std::string_view help,
                   double value);

}  // namespace ondrel::KTSStatusValues
