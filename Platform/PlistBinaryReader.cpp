// Reads binary property lists ("bplist00"). The format is a table of objects addressed by index;
// a hostile file can make objects refer to themselves, share one object from many places or
// nest without end, so every object is converted at most once (shared references share the
// converted value), a reference back into an object still being converted is refused, nesting
// is bounded and every count is checked against the bytes that could hold it before anything is
// allocated. Work and memory stay linear in the size of the input.
#include "PlistBinaryReader.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "DateFormats.h"
#include "Utf8.h"

namespace ondrel {

namespace {

constexpr int kMaximumDepth = 512;
constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;
// Seconds between the Unix epoch and the reference date of binary property lists (2001-01-01).
constexpr double kReferenceDateOffset = 978307200.0;

class BinaryPlistReader {
 public:
  explicit BinaryPlistReader(std::string_view bytes) : bytes_(bytes) {}

  std::optional<Plist> read(std::string* error) {
    std::optional<Plist> result = readTrailer() ? object(topObject_, 0) : std::nullopt;
    if (!result && error) *error = error_.empty() ? "malformed binary property list" : error_;
    return result;
  }

 private:
  enum class State : std::uint8_t { NotRead, Reading, Read };

  std::nullopt_t fail(const char* message) {
    if (error_.empty()) error_ = std::string("malformed binary property list: ") + message;
    return std::nullopt;
  }

  // A big-endian unsigned number of width bytes (1 to 8) at offset; the caller checked bounds.
  std::uint64_t number(std::size_t offset, std::size_t width) const {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
      value = (value << 8) | static_cast<unsigned char>(bytes_[offset + i]);
    }
    return value;
  }

  bool readTrailer() {
    if (bytes_.size() < kHeaderSize + kTrailerSize || bytes_.substr(0, 8) != "bplist00") {
      return fail("bad header or trailer"), false;
    }
    std::size_t trailer = bytes_.size() - kTrailerSize;
    offsetSize_ = static_cast<unsigned char>(bytes_[trailer + 6]);
    referenceSize_ = static_cast<unsigned char>(bytes_[trailer + 7]);
    std::uint64_t objectCount = number(trailer + 8, 8);
    topObject_ = number(trailer + 16, 8);
    std::uint64_t tableOffset = number(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) {
      return fail("bad integer sizes"), false;
    }
    // Every object takes at least one byte, so the count is bounded by the file's size.
    if (objectCount == 0 || objectCount > trailer || topObject_ >= objectCount ||
        tableOffset < kHeaderSize || tableOffset > trailer ||
        (trailer - tableOffset) / offsetSize_ < objectCount) {
      return fail("bad object table"), false;
    }
    tableOffset_ = static_cast<std::size_t>(tableOffset);
    objectsEnd_ = tableOffset_;
    values_.resize(static_cast<std::size_t>(objectCount));
    states_.assign(static_cast<std::size_t>(objectCount), State::NotRead);
    return true;
  }

  std::optional<Plist> object(std::uint64_t index, int depth) {
    if (index >= values_.size()) return fail("object reference out of range");
    if (depth > kMaximumDepth) return fail("nested too deeply");
    auto slot = static_cast<std::size_t>(index);
    if (states_[slot] == State::Read) return values_[slot];
    if (states_[slot] == State::Reading) return fail("object refers to itself");
    states_[slot] = State::Reading;
    std::uint64_t offset = number(tableOffset_ + slot * offsetSize_, offsetSize_);
    if (offset < kHeaderSize || offset >= objectsEnd_) return fail("object offset out of range");
    std::optional<Plist> value = parse(static_cast<std::size_t>(offset), depth);
    if (!value) return std::nullopt;
    values_[slot] = *value;
    states_[slot] = State::Read;
    return value;
  }

  // True when count items of itemSize bytes fit between offset and the object table.
  bool fits(std::size_t offset, std::uint64_t count, std::size_t itemSize) const {
    return offset <= objectsEnd_ && (objectsEnd_ - offset) / itemSize >= count;
  }

  // The element count of a collection, string or data object whose marker is at offset; moves
  // offset past the marker and any extended count.
  std::optional<std::uint64_t> count(std::size_t* offset) {
    unsigned info = static_cast<unsigned char>(bytes_[*offset]) & 0x0F;
    ++*offset;
    if (info != 0x0F) return info;
    if (*offset >= objectsEnd_) return fail("truncated count");
    auto marker = static_cast<unsigned char>(bytes_[*offset]);
    std::size_t width = std::size_t{1} << (marker & 0x0F);
    if ((marker & 0xF0) != 0x10 || width > 8 || !fits(*offset + 1, width, 1)) {
      return fail("bad count");
    }
    std::uint64_t value = number(*offset + 1, width);
    *offset += 1 + width;
    return value;
  }

  std::optional<Plist> parse(std::size_t offset, int depth) {
    auto marker = static_cast<unsigned char>(bytes_[offset]);
    unsigned info = marker & 0x0F;
    switch (marker >> 4) {
      case 0x0:
        if (marker == 0x08 || marker == 0x09) return Plist::boolean(marker == 0x09);
        return fail("unsupported simple value");
      case 0x1:
        return integer(offset + 1, std::size_t{1} << info);
      case 0x2:
        return real(offset + 1, std::size_t{1} << info);
      case 0x3:
        if (marker != 0x33) return fail("bad date");
        return date(offset + 1);
      case 0x4:
        return data(offset);
      case 0x5:
        return asciiString(offset);
      case 0x6:
        return utf16String(offset);
      case 0xA:
        return array(offset, depth);
      case 0xD:
        return dictionary(offset, depth);
      default:
        return fail("unsupported object type");
    }
  }

  std::optional<Plist> integer(std::size_t offset, std::size_t width) {
    if (width > 16 || !fits(offset, width, 1)) return fail("bad integer");
    if (width == 16) {
      // Unsigned values above the signed range are stored in 16 bytes, the upper 8 zero.
      if (number(offset, 8) != 0) return fail("integer out of range");
      return Plist::unsignedInteger(number(offset + 8, 8));
    }
    // Widths up to 4 bytes are unsigned; 8 bytes are a signed 64-bit integer.
    return Plist::integer(static_cast<std::int64_t>(number(offset, width)));
  }

  std::optional<double> floatingPoint(std::size_t offset, std::size_t width) {
    if ((width != 4 && width != 8) || !fits(offset, width, 1)) return fail("bad real");
    std::uint64_t bits = number(offset, width);
    if (width == 4) {
      float value;
      auto narrow = static_cast<std::uint32_t>(bits);
      std::memcpy(&value, &narrow, sizeof value);
      return value;
    }
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }

  std::optional<Plist> real(std::size_t offset, std::size_t width) {
    std::optional<double> value = floatingPoint(offset, width);
    if (!value) return std::nullopt;
    return Plist::real(*value);
  }

  std::optional<Plist> date(std::size_t offset) {
    std::optional<double> seconds = floatingPoint(offset, 8);
    if (!seconds) return std::nullopt;
    double sinceEpoch = *seconds + kReferenceDateOffset;
    // Outside this range the value cannot be a Date, and converting it would overflow.
    if (!std::isfinite(sinceEpoch) || std::fabs(sinceEpoch) > 1e11)
      return fail("date out of range");
    double whole = std::floor(sinceEpoch);
    std::optional<Date> moment = dateFromUnixSeconds(static_cast<std::int64_t>(whole),
                                                     std::llround((sinceEpoch - whole) * 1e9));
    if (!moment) return fail("date out of range");
    return Plist::date(*moment);
  }

  std::optional<Plist> data(std::size_t offset) {
    std::optional<std::uint64_t> length = count(&offset);
    if (!length) return std::nullopt;
    if (!fits(offset, *length, 1)) return fail("truncated data");
    const auto* start = reinterpret_cast<const std::uint8_t*>(bytes_.data() + offset);
    return Plist::data(Plist::Bytes(start, start + *length));
  }

  std::optional<Plist> asciiString(std::size_t offset) {
    std::optional<std::uint64_t> length = count(&offset);
    if (!length) return std::nullopt;
    if (!fits(offset, *length, 1)) return fail("truncated string");
    std::string_view text = bytes_.substr(offset, static_cast<std::size_t>(*length));
    for (char c : text) {
      if (static_cast<unsigned char>(c) >= 0x80) return fail("non-ASCII byte in ASCII string");
    }
    return Plist(std::string(text));
  }

  std::optional<Plist> utf16String(std::size_t offset) {
    std::optional<std::uint64_t> units = count(&offset);
    if (!units) return std::nullopt;
    if (!fits(offset, *units, 2)) return fail("truncated string");
    std::string text;
    text.reserve(static_cast<std::size_t>(*units));
    for (std::uint64_t i = 0; i < *units; ++i) {
      auto code = static_cast<char32_t>(number(offset + 2 * i, 2));
      if (code >= 0xD800 && code <= 0xDBFF && i + 1 < *units) {
        auto low = static_cast<char32_t>(number(offset + 2 * (i + 1), 2));
        if (low >= 0xDC00 && low <= 0xDFFF) {
          code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
          ++i;
        }
      }
      if (code >= 0xD800 && code <= 0xDFFF) return fail("unpaired surrogate in string");
      appendUtf8(code, &text);
    }
    return Plist(std::move(text));
  }

  std::uint64_t reference(std::size_t offset, std::uint64_t index) const {
    return number(offset + static_cast<std::size_t>(index) * referenceSize_, referenceSize_);
  }

  std::optional<Plist> array(std::size_t offset, int depth) {
    std::optional<std::uint64_t> length = count(&offset);
    if (!length) return std::nullopt;
    if (!fits(offset, *length, referenceSize_)) return fail("truncated array");
    Plist::Array elements;
    elements.reserve(static_cast<std::size_t>(*length));
    for (std::uint64_t i = 0; i < *length; ++i) {
      std::optional<Plist> element = object(reference(offset, i), depth + 1);
      if (!element) return std::nullopt;
      elements.push_back(std::move(*element));
    }
    return Plist(std::move(elements));
  }

  std::optional<Plist> dictionary(std::size_t offset, int depth) {
    std::optional<std::uint64_t> length = count(&offset);
    if (!length) return std::nullopt;
    if (*length > std::numeric_limits<std::uint64_t>::max() / 2 ||
        !fits(offset, *length * 2, referenceSize_)) {
      return fail("truncated dictionary");
    }
    std::vector<Plist::Dictionary::Entry> items;
    items.reserve(*length);
    for (std::uint64_t i = 0; i < *length; ++i) {
      std::optional<Plist> key = object(reference(offset, i), depth + 1);
      if (!key) return std::nullopt;
      if (!key->isString() || key->stringValue().find('\0') != std::string::npos) {
        return fail("dictionary key is not a name");
      }
      std::optional<Plist> value = object(reference(offset, *length + i), depth + 1);
      if (!value) return std::nullopt;
      items.emplace_back(keys_.keyFor(key->stringValue()), std::move(*value));
    }
    return Plist(Plist::Dictionary::fromEntries(std::move(items)));
  }

  std::string_view bytes_;
  // The document's keys, each text once.
  PlistKey::Interner keys_;
  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::uint64_t topObject_ = 0;
  std::size_t tableOffset_ = 0;
  std::size_t objectsEnd_ = 0;
  std::vector<Plist> values_;
  std::vector<State> states_;
  std::string error_;
};

}  // namespace

std::optional<Plist> readBinaryPlist(std::string_view bytes, std::string* error) {
  return BinaryPlistReader(bytes).read(error);
}

}  // namespace ondrel
