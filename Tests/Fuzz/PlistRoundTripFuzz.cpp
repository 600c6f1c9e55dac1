// libFuzzer target: whatever is read can be written, and what is written reads back. A document
// the XML reader accepted comes back exactly; one of another kind (a binary plist) may be
// normalised by the first write (text XML cannot carry becomes U+FFFD, dates lose fractions of a
// second), and from then on a write and a read must give back the same value.
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
  bool binary = bytes.substr(0, 6) == "bplist";
  if (!binary && !(*once == *read)) std::abort();
  std::optional<Plist> twice = Plist::fromBytes(once->toXml(), nullptr);
  if (!twice || !(*twice == *once)) std::abort();
  return 0;
}
