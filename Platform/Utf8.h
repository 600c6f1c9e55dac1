// UTF-8 validation for text files the server reads as UTF-8. Pure function; thread-safe.
#pragma once

#include <string_view>

namespace ondrel {

// True when text is well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
bool isValidUtf8(std::string_view text);

}  // namespace ondrel
