#include "KTSStatusValues.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

namespace ondrel::KTSStatusValues {

Plist count(std::uint64_t value) {
  return Plist::integer(static_cast<std::int64_t>(
      std::min<std::uint64_t>(value, static_cast<std::uint64_t>(INT64_MAX))));
}

std::uint64_t countFrom(const Plist& value) {
  return value.isNumber() && value.integerValue() > 0
             ? static_cast<std::uint64_t>(value.integerValue())
             : 0;
}

double secondsSinceEpoch(const std::optional<Date>& date) {
  return date ? std::chrono::duration<double>(date->time_since_epoch()).count() : 0;
}

std::string metric(std::string_view name, std::string_view type, std::string_view help,
                   double value) {
  return fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n{0} {3}\n", name, help, type, value);
}

}  // namespace ondrel::KTSStatusValues
