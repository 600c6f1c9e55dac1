#include "Utf8.h"

namespace ondrel {

bool isValidUtf8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  std::size_t size = text.size();
  for (std::size_t i = 0; i < size;) {
    unsigned char lead = bytes[i];
    if (lead < 0x80) {
      ++i;
      continue;
    }
    std::size_t length;
    char32_t code;
    if ((lead & 0xE0) == 0xC0) {
      length = 2;
      code = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3;
      code = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4;
      code = lead & 0x07;
    } else {
      return false;
    }
    if (i + length > size) return false;
    for (std::size_t j = 1; j < length; ++j) {
      if ((bytes[i + j] & 0xC0) != 0x80) return false;
      code = (code << 6) | (bytes[i + j] & 0x3F);
    }
    static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
      return false;
    }
    i += length;
  }
  return true;
}

}  // namespace ondrel
