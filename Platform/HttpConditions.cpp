#include "HttpConditions.h"

#include <array>
#include <chrono>

namespace ondrel {

namespace {

constexpr std::array<std::string_view, 7> kShortDays = {"Mon", "Tue", "Wed", "Thu",
                                                        "Fri", "Sat", "Sun"};
constexpr std::array<std::string_view, 7> kLongDays = {
    "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"};
constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Reads the text in order, each step failing once one has failed.
class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  bool literal(std::string_view expected) {
    if (!ok_ || text_.substr(position_, expected.size()) != expected) return ok_ = false;
    position_ += expected.size();
    return true;
  }
  // The index of the name that follows among names.
  template <std::size_t N>
  int oneOf(const std::array<std::string_view, N>& names) {
    for (std::size_t i = 0; ok_ && i < N; ++i) {
      if (text_.substr(position_, names[i].size()) == names[i]) {
        position_ += names[i].size();
        return static_cast<int>(i);
      }
    }
    ok_ = false;
    return -1;
  }
  int digits(int count) {
    int value = 0;
    for (int i = 0; i < count; ++i) {
      if (!ok_ || position_ >= text_.size() || text_[position_] < '0' || text_[position_] > '9') {
        ok_ = false;
        return 0;
      }
      value = value * 10 + (text_[position_++] - '0');
    }
    return value;
  }
  // "HH:MM:SS"
  bool timeOfDay(int* hour, int* minute, int* second) {
    *hour = digits(2);
    literal(":");
    *minute = digits(2);
    literal(":");
    *second = digits(2);
    return ok_;
  }
  bool atEnd() const { return ok_ && position_ == text_.size(); }

 private:
  std::string_view text_;
  std::size_t position_ = 0;
  bool ok_ = true;
};

std::optional<std::int64_t> moment(int year, int month, int day, int hour, int minute, int second) {
  std::chrono::year_month_day date{std::chrono::year(year),
                                   std::chrono::month(static_cast<unsigned>(month + 1)),
                                   std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  auto time = std::chrono::sys_days(date) + std::chrono::hours(hour) +
              std::chrono::minutes(minute) + std::chrono::seconds(second);
  return time.time_since_epoch().count();
}

std::optional<std::int64_t> parseImfFixdate(std::string_view text) {
  Reader reader(text);
  int hour, minute, second;
  reader.oneOf(kShortDays);
  reader.literal(", ");
  int day = reader.digits(2);
  reader.literal(" ");
  int month = reader.oneOf(kMonths);
  reader.literal(" ");
  int year = reader.digits(4);
  reader.literal(" ");
  reader.timeOfDay(&hour, &minute, &second);
  reader.literal(" GMT");
  if (!reader.atEnd()) return std::nullopt;
  return moment(year, month, day, hour, minute, second);
}

std::optional<std::int64_t> parseRfc850Date(std::string_view text) {
  Reader reader(text);
  int hour, minute, second;
  reader.oneOf(kLongDays);
  reader.literal(", ");
  int day = reader.digits(2);
  reader.literal("-");
  int month = reader.oneOf(kMonths);
  reader.literal("-");
  int year = reader.digits(2);
  reader.literal(" ");
  reader.timeOfDay(&hour, &minute, &second);
  reader.literal(" GMT");
  if (!reader.atEnd()) return std::nullopt;
  // A two-digit year is read as the one of the last hundred years up to 2069.
  return moment(year < 70 ? 2000 + year : 1900 + year, month, day, hour, minute, second);
}

std::optional<std::int64_t> parseAsctimeDate(std::string_view text) {
  Reader reader(text);
  int hour, minute, second;
  reader.oneOf(kShortDays);
  reader.literal(" ");
  int month = reader.oneOf(kMonths);
  reader.literal(" ");
  // The day is two digits or a space and one digit.
  int day = text.size() > 8 && text[8] == ' ' ? (reader.literal(" "), reader.digits(1))
                                              : reader.digits(2);
  reader.literal(" ");
  reader.timeOfDay(&hour, &minute, &second);
  reader.literal(" ");
  int year = reader.digits(4);
  if (!reader.atEnd()) return std::nullopt;
  return moment(year, month, day, hour, minute, second);
}

bool isEntityTagCharacter(char c) {
  auto byte = static_cast<unsigned char>(c);
  return byte == 0x21 || (byte >= 0x23 && byte != 0x7f);
}

// Reads one entity tag at *position and gives its quoted part (with the quotes); none when the
// text there is not one.
std::optional<std::string_view> readEntityTag(std::string_view text, std::size_t* position) {
  std::size_t start = *position;
  if (text.substr(start, 2) == "W/") start += 2;
  if (start >= text.size() || text[start] != '"') return std::nullopt;
  std::size_t end = start + 1;
  while (end < text.size() && isEntityTagCharacter(text[end])) ++end;
  if (end >= text.size() || text[end] != '"') return std::nullopt;
  *position = end + 1;
  return text.substr(start, end + 1 - start);
}

void skipWhitespace(std::string_view text, std::size_t* position) {
  while (*position < text.size() && (text[*position] == ' ' || text[*position] == '\t')) {
    ++*position;
  }
}

}  // namespace

std::optional<std::int64_t> parseHttpDate(std::string_view text) {
  if (auto date = parseImfFixdate(text)) return date;
  if (auto date = parseRfc850Date(text)) return date;
  return parseAsctimeDate(text);
}

bool ifNoneMatchNames(std::string_view field, std::string_view entityTag) {
  std::size_t position = 0;
  std::optional<std::string_view> ours = readEntityTag(entityTag, &position);
  if (!ours || position != entityTag.size()) return false;
  position = 0;
  skipWhitespace(field, &position);
  if (field.substr(position) == "*") return true;
  bool named = false;
  // A list of tags separated by commas, with optional white space and empty elements.
  while (position < field.size()) {
    if (field[position] == ',') {
      ++position;
    } else {
      std::optional<std::string_view> tag = readEntityTag(field, &position);
      if (!tag) return false;
      named = named || *tag == *ours;
      skipWhitespace(field, &position);
      if (position < field.size() && field[position] != ',') return false;
    }
    skipWhitespace(field, &position);
  }
  return named;
}

}  // namespace ondrel
