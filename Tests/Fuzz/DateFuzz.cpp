// libFuzzer target: the strict date patterns refuse or read any text, never overflow, and a date
// they read formats to text that reads back as the same date.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "DateFormats.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  if (std::optional<ondrel::Date> date = ondrel::parseRfc3339Date(text)) {
    if (ondrel::parseRfc3339Date(ondrel::formatRfc3339Date(*date)) != date) std::abort();
  }
  if (std::optional<ondrel::Date> date = ondrel::parseArchiveDate(text)) {
    if (ondrel::parseArchiveDate(ondrel::formatArchiveDate(*date)) != date) std::abort();
  }
  return 0;
}
