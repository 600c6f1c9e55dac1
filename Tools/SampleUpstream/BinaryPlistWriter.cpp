#include "BinaryPlistWriter.h"

#include <cstring>
#include <vector>

namespace ondrel::sample {

namespace {

constexpr double kReferenceDateOffset = 978307200.0;

class Writer {
 public:
  std::string write(const Plist& root) {
    out_ = "bplist00";
    std::uint64_t top = add(root);
    std::uint64_t tableOffset = out_.size();
    for (std::uint64_t offset : offsets_) bigEndian(offset, 8);
    std::string trailer(6, '\0');
    out_ += trailer;
    out_ += static_cast<char>(8);  // offset size
    out_ += static_cast<char>(8);  // reference size
    bigEndian(offsets_.size(), 8);
    bigEndian(top, 8);
    bigEndian(tableOffset, 8);
    return out_;
  }

 private:
  void bigEndian(std::uint64_t value, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
      out_ += static_cast<char>((value >> shift) & 0xFF);
    }
  }

  void marker(unsigned type, std::uint64_t count) {
    if (count < 15) {
      out_ += static_cast<char>((type << 4) | count);
    } else {
      out_ += static_cast<char>((type << 4) | 0x0F);
      out_ += static_cast<char>(0x13);
      bigEndian(count, 8);
    }
  }

  // Children are written before their container, whose references then point back at them.
  std::uint64_t add(const Plist& value) {
    std::vector<std::uint64_t> references;
    if (value.isArray()) {
      for (const Plist& element : value.elements()) references.push_back(add(element));
    } else if (value.isDictionary()) {
      for (const auto& [key, item] : value.items()) references.push_back(add(Plist(key.text())));
      for (const auto& [key, item] : value.items()) references.push_back(add(item));
    }
    std::uint64_t index = offsets_.size();
    offsets_.push_back(out_.size());
    switch (value.type()) {
      case Plist::Type::Boolean:
        out_ += static_cast<char>(value.boolValue() ? 0x09 : 0x08);
        break;
      case Plist::Type::Integer:
        if (value.isLargeUnsignedInteger()) {
          out_ += static_cast<char>(0x14);
          bigEndian(0, 8);
          bigEndian(std::stoull(value.integerText()), 8);
        } else {
          out_ += static_cast<char>(0x13);
          bigEndian(static_cast<std::uint64_t>(value.integerValue()), 8);
        }
        break;
      case Plist::Type::Real:
      case Plist::Type::Date: {
        double number =
            value.isDate()
                ? std::chrono::duration<double>(value.dateValue()->time_since_epoch()).count() -
                      kReferenceDateOffset
                : value.realValue();
        std::uint64_t bits;
        std::memcpy(&bits, &number, sizeof bits);
        out_ += static_cast<char>(value.isDate() ? 0x33 : 0x23);
        bigEndian(bits, 8);
        break;
      }
      case Plist::Type::Data:
        marker(0x4, value.dataValue().size());
        out_.append(value.dataValue().begin(), value.dataValue().end());
        break;
      case Plist::Type::Null:
      case Plist::Type::String:
        writeString(value.stringValue());
        break;
      case Plist::Type::Array:
        marker(0xA, references.size());
        for (std::uint64_t reference : references) bigEndian(reference, 8);
        break;
      case Plist::Type::Dictionary:
        marker(0xD, references.size() / 2);
        for (std::uint64_t reference : references) bigEndian(reference, 8);
        break;
    }
    return index;
  }

  // ASCII strings as they are; anything else as UTF-16.
  void writeString(const std::string& text) {
    bool ascii = true;
    for (char c : text) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    if (ascii) {
      marker(0x5, text.size());
      out_ += text;
      return;
    }
    std::u16string units;
    for (std::size_t i = 0; i < text.size();) {
      auto lead = static_cast<unsigned char>(text[i]);
      char32_t code = lead;
      std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
      if (length > 1) code = lead & (0x7F >> length);
      for (std::size_t j = 1; j < length && i + j < text.size(); ++j) {
        code = (code << 6) | (static_cast<unsigned char>(text[i + j]) & 0x3F);
      }
      i += length;
      if (code >= 0x10000) {
        code -= 0x10000;
        units += static_cast<char16_t>(0xD800 + (code >> 10));
        units += static_cast<char16_t>(0xDC00 + (code & 0x3FF));
      } else {
        units += static_cast<char16_t>(code);
      }
    }
    marker(0x6, units.size());
    for (char16_t unit : units) bigEndian(unit, 2);
  }

  std::string out_;
  std::vector<std::uint64_t> offsets_;
};

}  // namespace

std::string binaryPlist(const Plist& value) { return Writer().write(value); }

}  // namespace ondrel::sample
