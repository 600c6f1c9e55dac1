// Reads property lists. XML documents go through a small strict reader that builds the value
// directly: a catalog of tens of megabytes is read in one pass with no intermediate tree. It
// refuses what XML 1.0 refuses: bytes that are not UTF-8, and characters outside XML's Char
// (control characters other than tab, line feed and carriage return, U+FFFE, U+FFFF), raw or
// as character references; so whatever it accepts, the writer gives back unchanged.
// Binary property lists go through the bounded reader of PlistBinaryReader.
#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>

#include "DateFormats.h"
#include "FileIO.h"
#include "Plist.h"
#include "PlistBinaryReader.h"
#include "Utf8.h"

namespace ondrel {

namespace {

constexpr int kMaximumDepth = 512;

class XmlPlistReader {
 public:
  explicit XmlPlistReader(std::string_view text) : text_(text) {}

  std::optional<Plist> read(std::string* error) {
    Plist result;
    bool ok = readDocument(result);
    if (!ok) {
      if (error) *error = error_.empty() ? "not a property list" : error_;
      return std::nullopt;
    }
    return result;
  }

 private:
  bool fail(std::string message) {
    if (error_.empty()) {
      std::size_t end = std::min(position_, text_.size());
      auto line =
          1 + std::count(text_.begin(), text_.begin() + static_cast<std::ptrdiff_t>(end), '\n');
      error_ = message + " at line " + std::to_string(line);
    }
    return false;
  }

  // XML's Char: tab, line feed, carriage return, U+0020 to U+D7FF, U+E000 to U+FFFD, and U+10000
  // to U+10FFFF.
  static bool isXmlCharacter(char32_t code) {
    return code == 0x9 || code == 0xA || code == 0xD || (code >= 0x20 && code <= 0xD7FF) ||
           (code >= 0xE000 && code <= 0xFFFD) || (code >= 0x10000 && code <= 0x10FFFF);
  }

  // Steps over the next eight characters when they are all printable ASCII, tab, line feed or
  // carriage return, as most of a document is, testing them as one word.
  bool skipPlainAscii() {
    constexpr std::uint64_t kEveryByte = 0x0101010101010101;
    constexpr std::uint64_t kHighBits = 0x8080808080808080;
    if (text_.size() - position_ < 8) return false;
    std::uint64_t word = 0;
    std::memcpy(&word, text_.data() + position_, sizeof word);
    if ((word & kHighBits) != 0) return false;
    // The high bit of each byte below 0x20 (exact for bytes below 0x80).
    std::uint64_t controls = (word - kEveryByte * 0x20) & ~word & kHighBits;
    for (; controls != 0; controls &= controls - 1) {
      auto c = static_cast<unsigned char>(text_[position_ + std::countr_zero(controls) / 8]);
      if (c != '\t' && c != '\n' && c != '\r') return false;
    }
    position_ += 8;
    return true;
  }

  // The whole document, before anything is read of it: UTF-8 and XML characters only.
  bool checkCharacters() {
    for (position_ = 0; position_ < text_.size();) {
      if (skipPlainAscii()) continue;
      auto c = static_cast<unsigned char>(text_[position_]);
      if (c < 0x80) {
        if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') {
          return fail("character not allowed in XML");
        }
        ++position_;
        continue;
      }
      std::size_t length = utf8SequenceLength(text_, position_);
      if (length == 0) return fail("invalid UTF-8");
      // U+FFFE and U+FFFF, the only sequences of valid UTF-8 that XML does not allow.
      if (length == 3 && c == 0xEF && text_[position_ + 1] == '\xBF' &&
          (text_[position_ + 2] == '\xBE' || text_[position_ + 2] == '\xBF')) {
        return fail("character not allowed in XML");
      }
      position_ += length;
    }
    position_ = 0;
    return true;
  }

  bool atEnd() const { return position_ >= text_.size(); }
  // Markup is matched against literals at their own constant length, which the compiler
  // compares in a register or two instead of calling memcmp for every element.
  template <std::size_t N>
  bool startsWith(const char (&prefix)[N]) const {
    return position_ <= text_.size() && text_.size() - position_ >= N - 1 &&
           std::memcmp(text_.data() + position_, prefix, N - 1) == 0;
  }
  template <std::size_t N>
  static bool isNamed(std::string_view name, const char (&literal)[N]) {
    return name.size() == N - 1 && std::memcmp(name.data(), literal, N - 1) == 0;
  }

  void skipBlanks() {
    while (!atEnd()) {
      char c = text_[position_];
      if (c != ' ' && c != '\t' && c != '\n' && c != '\r') break;
      ++position_;
    }
  }

  bool skipPast(std::string_view terminator) {
    std::size_t found = text_.find(terminator, position_);
    if (found == std::string_view::npos) return fail("unterminated markup");
    position_ = found + terminator.size();
    return true;
  }

  // Skips blanks, comments and processing instructions.
  bool skipMisc() {
    for (;;) {
      skipBlanks();
      if (startsWith("<!--")) {
        if (!skipPast("-->")) return false;
      } else if (startsWith("<?")) {
        if (!skipPast("?>")) return false;
      } else {
        return true;
      }
    }
  }

  bool skipDoctype() {
    int nesting = 0;
    for (; !atEnd(); ++position_) {
      char c = text_[position_];
      if (c == '[') ++nesting;
      if (c == ']') --nesting;
      if (c == '>' && nesting <= 0) {
        ++position_;
        return true;
      }
    }
    return fail("unterminated document type");
  }

  bool readDocument(Plist& result) {
    if (!checkCharacters()) return false;
    if (startsWith("\xEF\xBB\xBF")) position_ += 3;
    if (!skipMisc()) return false;
    if (startsWith("<!DOCTYPE")) {
      if (!skipDoctype() || !skipMisc()) return false;
    }
    std::string_view name;
    bool empty = false;
    if (!readStartTag(&name, &empty)) return false;
    if (isNamed(name, "plist")) {
      if (empty) return fail("empty property list");
      if (!skipMisc()) return false;
      if (!readValue(result, 0)) return false;
      if (!skipMisc() || !readEndTag("plist")) return false;
    } else if (!readValueForTag(name, empty, result, 0)) {
      return false;
    }
    if (!skipMisc()) return false;
    return atEnd() || fail("content after the property list");
  }

  bool readStartTag(std::string_view* name, bool* empty) {
    if (atEnd() || text_[position_] != '<') return fail("expected an element");
    std::size_t close = text_.find('>', position_);
    if (close == std::string_view::npos) return fail("unterminated element");
    std::string_view tag = text_.substr(position_ + 1, close - position_ - 1);
    position_ = close + 1;
    *empty = !tag.empty() && tag.back() == '/';
    if (*empty) tag.remove_suffix(1);
    std::size_t nameEnd = tag.find_first_of(" \t\r\n");
    *name = tag.substr(0, nameEnd);
    if (name->empty() || name->front() == '/' || name->front() == '!') {
      return fail("expected an element");
    }
    return true;
  }

  bool readEndTag(std::string_view name) {
    if (!startsWith("</") || text_.compare(position_ + 2, name.size(), name) != 0) {
      return fail("expected </" + std::string(name) + ">");
    }
    position_ += 2 + name.size();
    skipBlanks();
    if (atEnd() || text_[position_] != '>') return fail("malformed end tag");
    ++position_;
    return true;
  }

  bool readValue(Plist& result, int depth) {
    std::string_view name;
    bool empty = false;
    if (!readStartTag(&name, &empty)) return false;
    return readValueForTag(name, empty, result, depth);
  }

  bool readValueForTag(std::string_view name, bool empty, Plist& result, int depth) {
    if (depth > kMaximumDepth) return fail("property list nested too deeply");
    if (isNamed(name, "dict")) return readDictionary(empty, result, depth);
    if (isNamed(name, "array")) return readArray(empty, result, depth);
    if (isNamed(name, "true") || isNamed(name, "false")) {
      result = Plist::boolean(isNamed(name, "true"));
      return empty || readEndTag(name);
    }
    std::string text;
    if (!empty && !readText(name, &text)) return false;
    if (isNamed(name, "string")) {
      result = Plist(std::move(text));
    } else if (isNamed(name, "integer")) {
      return readInteger(text, result);
    } else if (isNamed(name, "real")) {
      return readReal(text, result);
    } else if (isNamed(name, "date")) {
      std::optional<Date> date = parseRfc3339Date(trimmed(text));
      if (!date) return fail("malformed date");
      result = Plist::date(*date);
    } else if (isNamed(name, "data")) {
      return readBase64(text, result);
    } else {
      return fail("unexpected element <" + std::string(name) + ">");
    }
    return true;
  }

  bool readDictionary(bool empty, Plist& result, int depth) {
    std::vector<Plist::Dictionary::Entry> items;
    if (!empty) {
      for (;;) {
        if (!skipMisc()) return false;
        if (startsWith("</")) break;
        std::string_view name;
        bool emptyKey = false;
        if (!readStartTag(&name, &emptyKey)) return false;
        if (!isNamed(name, "key")) return fail("expected <key>");
        keyText_.clear();
        if (!emptyKey && !readText("key", &keyText_)) return false;
        PlistKey key = keys_.keyFor(keyText_);
        if (!skipMisc()) return false;
        Plist value;
        if (!readValue(value, depth + 1)) return false;
        items.emplace_back(std::move(key), std::move(value));
      }
      if (!readEndTag("dict")) return false;
    }
    result = Plist(Plist::Dictionary::fromEntries(std::move(items)));
    return true;
  }

  bool readArray(bool empty, Plist& result, int depth) {
    Plist::Array elements;
    if (!empty) {
      for (;;) {
        if (!skipMisc()) return false;
        if (startsWith("</")) break;
        elements.emplace_back();
        if (!readValue(elements.back(), depth + 1)) return false;
      }
      if (!readEndTag("array")) return false;
    }
    result = Plist(std::move(elements));
    return true;
  }

  // Where the next '<' or '&' is: two scans the C library does a block at a time, where
  // find_first_of would test every character against both.
  std::size_t findMarkupOrEntity() const {
    const char* begin = text_.data() + position_;
    const char* end = text_.data() + text_.size();
    const auto* markup = static_cast<const char*>(std::memchr(begin, '<', end - begin));
    const char* stop = markup ? markup : end;
    const auto* entity = static_cast<const char*>(std::memchr(begin, '&', stop - begin));
    if (entity) return entity - text_.data();
    return markup ? markup - text_.data() : std::string_view::npos;
  }

  // Character data up to the end tag of name, with entities and CDATA sections resolved.
  bool readText(std::string_view name, std::string* text) {
    for (;;) {
      std::size_t special = findMarkupOrEntity();
      if (special == std::string_view::npos) return fail("unterminated text");
      text->append(text_.data() + position_, special - position_);
      position_ = special;
      if (text_[position_] == '&') {
        if (!readEntity(text)) return false;
      } else if (startsWith("<![CDATA[")) {
        std::size_t end = text_.find("]]>", position_ + 9);
        if (end == std::string_view::npos) return fail("unterminated CDATA section");
        text->append(text_.data() + position_ + 9, end - position_ - 9);
        position_ = end + 3;
      } else if (startsWith("<!--")) {
        if (!skipPast("-->")) return false;
      } else {
        return readEndTag(name);
      }
    }
  }

  bool readEntity(std::string* text) {
    std::size_t semicolon = text_.find(';', position_);
    if (semicolon == std::string_view::npos || semicolon - position_ > 12) {
      return fail("malformed entity");
    }
    std::string_view entity = text_.substr(position_ + 1, semicolon - position_ - 1);
    position_ = semicolon + 1;
    if (entity == "lt") return text->push_back('<'), true;
    if (entity == "gt") return text->push_back('>'), true;
    if (entity == "amp") return text->push_back('&'), true;
    if (entity == "quot") return text->push_back('"'), true;
    if (entity == "apos") return text->push_back('\''), true;
    if (entity.size() < 2 || entity[0] != '#') return fail("unknown entity");
    bool hex = entity[1] == 'x' || entity[1] == 'X';
    std::string_view digits = entity.substr(hex ? 2 : 1);
    unsigned long code = 0;
    auto [end, status] =
        std::from_chars(digits.data(), digits.data() + digits.size(), code, hex ? 16 : 10);
    if (status != std::errc() || end != digits.data() + digits.size()) {
      return fail("malformed character reference");
    }
    if (code > 0x10FFFF || !isXmlCharacter(static_cast<char32_t>(code))) {
      return fail("character reference to a character not allowed in XML");
    }
    appendUtf8(static_cast<char32_t>(code), text);
    return true;
  }

  static std::string_view trimmed(std::string_view text) {
    std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    std::size_t last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
  }

  bool readInteger(std::string_view text, Plist& result) {
    text = trimmed(text);
    bool negative = !text.empty() && text.front() == '-';
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
      base = 16;
      text.remove_prefix(2);
    }
    std::uint64_t magnitude = 0;
    auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    if (text.empty() || status != std::errc() || end != text.data() + text.size()) {
      return fail("malformed integer");
    }
    if (negative && magnitude > (std::uint64_t{1} << 63)) return fail("integer out of range");
    result = negative ? Plist::integer(static_cast<std::int64_t>(0 - magnitude))
                      : Plist::unsignedInteger(magnitude);
    return true;
  }

  bool readReal(std::string_view text, Plist& result) {
    std::string value(trimmed(text));
    char* end = nullptr;
    double number = std::strtod(value.c_str(), &end);
    if (value.empty() || end != value.c_str() + value.size()) return fail("malformed real");
    result = Plist::real(number);
    return true;
  }

  bool readBase64(std::string_view text, Plist& result) {
    Plist::Bytes bytes;
    bytes.reserve(text.size() * 3 / 4);
    std::uint32_t accumulator = 0;
    int bits = 0;
    for (char c : text) {
      int value;
      if (c >= 'A' && c <= 'Z')
        value = c - 'A';
      else if (c >= 'a' && c <= 'z')
        value = c - 'a' + 26;
      else if (c >= '0' && c <= '9')
        value = c - '0' + 52;
      else if (c == '+')
        value = 62;
      else if (c == '/')
        value = 63;
      else if (c == '=' || c == ' ' || c == '\t' || c == '\r' || c == '\n')
        continue;
      else
        return fail("malformed data");
      accumulator = (accumulator << 6) | static_cast<std::uint32_t>(value);
      bits += 6;
      if (bits >= 8) {
        bits -= 8;
        bytes.push_back(static_cast<std::uint8_t>((accumulator >> bits) & 0xFF));
      }
    }
    result = Plist::data(std::move(bytes));
    return true;
  }

  std::string_view text_;
  std::size_t position_ = 0;
  std::string error_;
  // The document's keys, each text once, and the text of the key being read.
  PlistKey::Interner keys_;
  std::string keyText_;
};

}  // namespace

std::optional<Plist> Plist::fromBytes(std::string_view bytes, std::string* error) {
  if (bytes.substr(0, 6) == "bplist") return readBinaryPlist(bytes, error);
  return XmlPlistReader(bytes).read(error);
}

std::optional<Plist> Plist::readFile(const std::string& path, std::string* error,
                                     std::size_t maxBytes) {
  std::string contents;
  if (!readWholeFile(path, &contents, error, maxBytes)) return std::nullopt;
  return fromBytes(contents, error);
}

}  // namespace ondrel
