#include "Utf8.h"

namespace ondrel {

std::size_t utf8SequenceLength(std::string_view text, std::size_t position) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  unsigned char lead = bytes[position];
  if (lead < 0x80) return 1;
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
    return 0;
  }
  if (position + length > text.size()) return 0;
  for (std::size_t j = 1; j < length; ++j) {
    if ((bytes[position + j] & 0xC0) != 0x80) return 0;
    code = (code << 6) | (bytes[position + j] & 0x3F);
  }
  static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return length;
}

bool isValidUtf8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    std::size_t length = utf8SequenceLength(text, i);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

void appendUtf8(char32_t code, std::string* text) {
  if (code < 0x80) {
    text->push_back(static_cast<char>(code));
  } else if (code < 0x800) {
    text->push_back(static_cast<char>(0xC0 | (code >> 6)));
    text->push_back(static_cast<char>(0x80 | (code & 0x3F)));
  } else if (code < 0x10000) {
    text->push_back(static_cast<char>(0xE0 | (code >> 12)));
    text->push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
    text->push_back(static_cast<char>(0x80 | (code & 0x3F)));
  } else {
    text->push_back(static_cast<char>(0xF0 | (code >> 18)));
    text->push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
    text->push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
    text->push_back(static_cast<char>(0x80 | (code & 0x3F)));
  }
}

}  // namespace ondrel
