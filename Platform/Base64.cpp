#include "Base64.h"

namespace ondrel {

std::string base64Encoded(const std::uint8_t* bytes, std::size_t count) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((count + 2) / 3 * 4);
  for (std::size_t i = 0; i < count; i += 3) {
    std::uint32_t group = static_cast<std::uint32_t>(bytes[i]) << 16;
    if (i + 1 < count) group |= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
    if (i + 2 < count) group |= bytes[i + 2];
    text += kAlphabet[(group >> 18) & 63];
    text += kAlphabet[(group >> 12) & 63];
    text += i + 1 < count ? kAlphabet[(group >> 6) & 63] : '=';
    text += i + 2 < count ? kAlphabet[group & 63] : '=';
  }
  return text;
}

}  // namespace ondrel
