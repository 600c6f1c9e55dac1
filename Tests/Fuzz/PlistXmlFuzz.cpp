// libFuzzer target: the XML property-list reader must refuse or read any input, quickly.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Plist.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (bytes.substr(0, 6) == "bplist") return 0;
  ondrel::Plist::fromBytes(bytes, nullptr);
  return 0;
}
