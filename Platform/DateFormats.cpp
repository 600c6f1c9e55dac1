#include "DateFormats.h"

#include <fmt/format.h>

#include <ctime>

namespace ondrel {

namespace {

using std::chrono::days;
using std::chrono::seconds;
using std::chrono::sys_days;

// Reads exactly count decimal digits at text[*position].
bool readDigits(std::string_view text, std::size_t* position, int count, int* value) {
  if (*position + static_cast<std::size_t>(count) > text.size()) return false;
  int result = 0;
  for (int i = 0; i < count; ++i) {
    char c = text[*position + static_cast<std::size_t>(i)];
    if (c < '0' || c > '9') return false;
    result = result * 10 + (c - '0');
  }
  *position += static_cast<std::size_t>(count);
  *value = result;
  return true;
}

bool readLiteral(std::string_view text, std::size_t* position, char literal) {
  if (*position >= text.size() || text[*position] != literal) return false;
  ++*position;
  return true;
}

// Reads "yyyy-MM-dd<separator>HH:mm:ss" and gives the moment, as if it were UTC, in seconds.
std::optional<std::int64_t> readDateAndTime(std::string_view text, std::size_t* position,
                                            char separator) {
  int year, month, day, hour, minute, second;
  if (!readDigits(text, position, 4, &year) || !readLiteral(text, position, '-') ||
      !readDigits(text, position, 2, &month) || !readLiteral(text, position, '-') ||
      !readDigits(text, position, 2, &day) || !readLiteral(text, position, separator) ||
      !readDigits(text, position, 2, &hour) || !readLiteral(text, position, ':') ||
      !readDigits(text, position, 2, &minute) || !readLiteral(text, position, ':') ||
      !readDigits(text, position, 2, &second)) {
    return std::nullopt;
  }
  std::chrono::year_month_day calendarDay{std::chrono::year(year),
                                          std::chrono::month(static_cast<unsigned>(month)),
                                          std::chrono::day(static_cast<unsigned>(day))};
  if (!calendarDay.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  auto moment = sys_days(calendarDay) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
                seconds(second);
  return moment.time_since_epoch().count();
}

struct CalendarParts {
  int year, month, day, hour, minute, second;
};

CalendarParts utcParts(Date date) {
  auto wholeSeconds = std::chrono::floor<seconds>(date);
  auto day = std::chrono::floor<days>(wholeSeconds);
  std::chrono::year_month_day calendarDay{day};
  std::chrono::hh_mm_ss<seconds> time{wholeSeconds - day};
  return {static_cast<int>(calendarDay.year()),
          static_cast<int>(unsigned(calendarDay.month())),
          static_cast<int>(unsigned(calendarDay.day())),
          static_cast<int>(time.hours().count()),
          static_cast<int>(time.minutes().count()),
          static_cast<int>(time.seconds().count())};
}

std::string formatWithOffset(Date date, long offsetSeconds) {
  CalendarParts parts = utcParts(date + seconds(offsetSeconds));
  long offsetMinutes = (offsetSeconds < 0 ? -offsetSeconds : offsetSeconds) / 60;
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} {}{:02}{:02}", parts.year, parts.month,
                     parts.day, parts.hour, parts.minute, parts.second,
                     offsetSeconds < 0 ? '-' : '+', offsetMinutes / 60, offsetMinutes % 60);
}

}  // namespace

std::optional<Date> dateFromUnixSeconds(std::int64_t secondsSinceEpoch, std::int64_t nanoseconds) {
  using Ticks = Date::duration;
  constexpr std::int64_t kTicksPerSecond = Ticks::period::den / Ticks::period::num;
  std::int64_t ticks = 0;
  if (__builtin_mul_overflow(secondsSinceEpoch, kTicksPerSecond, &ticks) ||
      __builtin_add_overflow(ticks, nanoseconds / (1'000'000'000 / kTicksPerSecond), &ticks)) {
    return std::nullopt;
  }
  return Date(Ticks(ticks));
}

std::optional<Date> parseRfc3339Date(std::string_view text) {
  std::size_t position = 0;
  std::optional<std::int64_t> moment = readDateAndTime(text, &position, 'T');
  if (!moment || !readLiteral(text, &position, 'Z') || position != text.size()) {
    return std::nullopt;
  }
  return dateFromUnixSeconds(*moment);
}

std::string formatRfc3339Date(Date date) {
  CalendarParts parts = utcParts(date);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", parts.year, parts.month, parts.day,
                     parts.hour, parts.minute, parts.second);
}

std::optional<Date> parseArchiveDate(std::string_view text) {
  std::size_t position = 0;
  std::optional<std::int64_t> moment = readDateAndTime(text, &position, ' ');
  if (!moment || !readLiteral(text, &position, ' ') || position >= text.size()) {
    return std::nullopt;
  }
  char sign = text[position++];
  int offsetHours, offsetMinutes;
  if ((sign != '+' && sign != '-') || !readDigits(text, &position, 2, &offsetHours) ||
      !readDigits(text, &position, 2, &offsetMinutes) || position != text.size() ||
      offsetHours > 23 || offsetMinutes > 59) {
    return std::nullopt;
  }
  std::int64_t offset = offsetHours * 3600 + offsetMinutes * 60;
  return dateFromUnixSeconds(sign == '+' ? *moment - offset : *moment + offset);
}

std::string formatArchiveDate(Date date) {
  std::time_t moment = std::chrono::system_clock::to_time_t(date);
  std::tm local{};
  localtime_r(&moment, &local);
  return formatWithOffset(date, local.tm_gmtoff);
}

std::string formatDescriptionDate(Date date) { return formatWithOffset(date, 0); }

}  // namespace ondrel
