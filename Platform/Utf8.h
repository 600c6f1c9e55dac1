// UTF-8 validation for text the server reads or writes as UTF-8. Pure functions; thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ondrel {

// True when text is well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
bool isValidUtf8(std::string_view text);

// The length of the well-formed UTF-8 sequence that starts at text[position], or 0 when the
// bytes there are not one.
std::size_t utf8SequenceLength(std::string_view text, std::size_t position);

// Appends the UTF-8 form of a code point (the caller passes a valid one).
void appendUtf8(char32_t code, std::string* text);

}  // namespace ondrel
