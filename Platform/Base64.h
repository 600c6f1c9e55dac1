// Base64 text of bytes (standard alphabet, with padding), for property-list data and JSON
// output. Pure function; thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace ondrel {

std::string base64Encoded(const std::uint8_t* bytes, std::size_t count);

}  // namespace ondrel
