#include "Json.h"

#include <fmt/format.h>

#include <cmath>

#include "Base64.h"
#include "DateFormats.h"

namespace ondrel {

std::string jsonQuoted(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          out += fmt::format("\\u{:04x}", c);
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string toJson(const Plist& value, int indent) {
  std::string pad(static_cast<std::size_t>(indent + 2), ' ');
  std::string close(static_cast<std::size_t>(indent), ' ');
  switch (value.type()) {
    case Plist::Type::Null:
      return "null";
    case Plist::Type::String:
      return jsonQuoted(value.stringValue());
    case Plist::Type::Integer:
      return value.integerText();
    case Plist::Type::Real:
      return std::isfinite(value.realValue()) ? fmt::format("{}", value.realValue()) : "null";
    case Plist::Type::Boolean:
      return value.boolValue() ? "true" : "false";
    case Plist::Type::Date:
      return jsonQuoted(formatRfc3339Date(*value.dateValue()));
    case Plist::Type::Data:
      return jsonQuoted(base64Encoded(value.dataValue().data(), value.dataValue().size()));
    case Plist::Type::Array: {
      if (value.size() == 0) return "[]";
      std::string out = "[\n";
      for (std::size_t i = 0; i < value.size(); ++i) {
        out += pad + toJson(value[i], indent + 2) + (i + 1 < value.size() ? ",\n" : "\n");
      }
      return out + close + "]";
    }
    case Plist::Type::Dictionary: {
      if (value.size() == 0) return "{}";
      std::string out = "{\n";
      std::size_t i = 0;
      for (const auto& [key, item] : value.items()) {
        out += pad + jsonQuoted(key) + ": " + toJson(item, indent + 2) +
               (++i < value.size() ? ",\n" : "\n");
      }
      return out + close + "}";
    }
  }
  return "null";
}

}  // namespace ondrel
