// libFuzzer target: whatever is read can be written, and what is written reads back. The first
// write may normalise (text XML cannot carry becomes U+FFFD, dates lose fractions of a second);
// from then on a write and a read must give back the same value.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "Plist.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using ondrel::Plist;
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  std::optional<Plist> read = Plist::fromBytes(bytes, nullptr);
  if (!read) return 0;
  std::optional<Plist> once = Plist::fromBytes(read->toXml(), nullptr);
  if (!once) std::abort();
  std::optional<Plist> twice = Plist::fromBytes(once->toXml(), nullptr);
  if (!twice || !(*twice == *once)) std::abort();
  return 0;
}
