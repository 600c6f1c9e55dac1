// Writes property lists as XML, streaming: the document is never assembled in memory, so writing
// a large catalog costs no more than its buffered output. Text that XML 1.0 cannot carry (bytes
// that are not UTF-8, control characters, U+FFFE, U+FFFF) can only come from elsewhere than an
// XML document, since the reader refuses it there: from a binary property list or a program's
// value. It is written as U+FFFD so the document stays well-formed; every string read from XML
// is written back unchanged.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>

#include "Base64.h"
#include "DateFormats.h"
#include "FileIO.h"
#include "Plist.h"
#include "PlistXmlArrayFile.h"
#include "Utf8.h"

namespace ondrel {

namespace {

constexpr std::string_view kDocumentStart =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";

}  // namespace

class PlistXmlWriter {
 public:
  explicit PlistXmlWriter(std::FILE* file)
      : file_(file), buffer_(std::make_unique<char[]>(kBufferSize)) {}
  // Appends to text instead, unbuffered: for the text of one value.
  explicit PlistXmlWriter(std::string* text) : text_(text) {}

  bool writeDocument(const Plist& root) {
    beginDocument();
    writeValue(root, 0);
    return endDocument();
  }

  // The text value has as an element of a document's root array.
  void writeArrayElement(const Plist& value) { writeValue(value, 1); }

  // The same text as writeDocument with root, a dictionary, holding under streamedKey a
  // dictionary of the entries nextEntry gives.
  bool writeDocumentStreamingMember(const Plist& root, std::string_view streamedKey,
                                    const Plist::EntrySource& nextEntry) {
    beginDocument();
    put("<dict>\n");
    bool streamed = false;
    if (root.isDictionary()) {
      for (const auto& [key, item] : root.items()) {
        if (!streamed && key >= streamedKey) {
          writeStreamedDictionary(streamedKey, nextEntry, 1);
          streamed = true;
        }
        if (key == streamedKey) continue;
        writeKey(key, 1);
        writeValue(item, 1);
      }
    }
    if (!streamed) writeStreamedDictionary(streamedKey, nextEntry, 1);
    put("</dict>\n");
    return endDocument();
  }

 private:
  void beginDocument() { put(kDocumentStart); }

  bool endDocument() {
    put("</plist>\n");
    flush();
    return ok_;
  }

  // The document's many small pieces are gathered and handed to the stream in large writes.
  void put(std::string_view text) {
    if (text_ != nullptr) {
      text_->append(text);
      return;
    }
    if (text.size() > kBufferSize - used_) {
      flush();
      if (text.size() > kBufferSize) return write(text);
    }
    std::memcpy(buffer_.get() + used_, text.data(), text.size());
    used_ += text.size();
  }

  void flush() {
    write(std::string_view(buffer_.get(), used_));
    used_ = 0;
  }

  void write(std::string_view text) {
    if (ok_ && std::fwrite(text.data(), 1, text.size(), file_) != text.size()) ok_ = false;
  }

  void indent(int depth) {
    static constexpr std::string_view kTabs = "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t";
    while (depth > 0) {
      int count = std::min<int>(depth, static_cast<int>(kTabs.size()));
      put(kTabs.substr(0, static_cast<std::size_t>(count)));
      depth -= count;
    }
  }

  // Writes text as XML character data that every conforming reader gives back unchanged. A
  // carriage return goes out as a character reference (readers turn a raw one into a line feed).
  // What XML 1.0 cannot carry at all (control characters other than tab, line feed and carriage
  // return; U+FFFE and U+FFFF; bytes that are not UTF-8) is written as U+FFFD, one per character
  // or stray byte, so the document stays well-formed.
  void putEscaped(std::string_view text) {
    static constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";
    std::size_t start = 0;
    std::size_t i = 0;
    while (i < text.size()) {
      if (text.size() - i >= 8 && isPlainWord(text.data() + i)) {
        i += 8;
        continue;
      }
      auto c = static_cast<unsigned char>(text[i]);
      if (kPlainBytes[c]) {
        ++i;
        continue;
      }
      std::size_t length = 1;
      std::string_view replacement;
      if (c >= 0x80) {
        length = utf8SequenceLength(text, i);
        bool noncharacter = length == 3 && c == 0xEF && text[i + 1] == '\xBF' &&
                            (text[i + 2] == '\xBE' || text[i + 2] == '\xBF');
        if (length != 0 && !noncharacter) {
          i += length;
          continue;
        }
        length = std::max<std::size_t>(length, 1);
        replacement = kReplacementCharacter;
      } else if (c == '<') {
        replacement = "&lt;";
      } else if (c == '>') {
        replacement = "&gt;";
      } else if (c == '&') {
        replacement = "&amp;";
      } else if (c == '\r') {
        replacement = "&#13;";
      } else {
        replacement = kReplacementCharacter;
      }
      put(text.substr(start, i - start));
      put(replacement);
      i += length;
      start = i;
    }
    put(text.substr(start));
  }

  void element(int depth, std::string_view name, std::string_view escapedText) {
    indent(depth);
    put("<");
    put(name);
    put(">");
    put(escapedText);
    put("</");
    put(name);
    put(">\n");
  }

  void writeValue(const Plist& value, int depth) {
    switch (value.type()) {
      case Plist::Type::Null:
        // A null has no property-list form; it is written as an empty string.
        element(depth, "string", "");
        break;
      case Plist::Type::String:
        indent(depth);
        put("<string>");
        putEscaped(value.stringValue());
        put("</string>\n");
        break;
      case Plist::Type::Integer:
        element(depth, "integer", value.integerText());
        break;
      case Plist::Type::Real:
        element(depth, "real", fmt::format("{}", value.realValue()));
        break;
      case Plist::Type::Boolean:
        indent(depth);
        put(value.boolValue() ? "<true/>\n" : "<false/>\n");
        break;
      case Plist::Type::Date:
        element(depth, "date", formatRfc3339Date(*value.dateValue()));
        break;
      case Plist::Type::Data:
        writeData(value.dataValue(), depth);
        break;
      case Plist::Type::Array:
        writeArray(value, depth);
        break;
      case Plist::Type::Dictionary:
        writeDictionary(value, depth);
        break;
    }
  }

  void writeArray(const Plist& value, int depth) {
    indent(depth);
    if (value.size() == 0) return put("<array/>\n");
    put("<array>\n");
    for (const Plist& element : value.elements()) writeValue(element, depth + 1);
    indent(depth);
    put("</array>\n");
  }

  void writeDictionary(const Plist& value, int depth) {
    indent(depth);
    if (value.size() == 0) return put("<dict/>\n");
    put("<dict>\n");
    for (const auto& [key, item] : value.items()) {
      writeKey(key, depth + 1);
      writeValue(item, depth + 1);
    }
    indent(depth);
    put("</dict>\n");
  }

  void writeKey(std::string_view key, int depth) {
    indent(depth);
    put("<key>");
    putEscaped(key);
    put("</key>\n");
  }

  // The key and its dictionary; keys that do not ascend fail the write, since a dictionary
  // read back would hold them in another order or lose one.
  void writeStreamedDictionary(std::string_view key, const Plist::EntrySource& nextEntry,
                               int depth) {
    writeKey(key, depth);
    indent(depth);
    std::optional<std::pair<PlistKey, Plist>> entry = nextEntry();
    if (!entry) return put("<dict/>\n");
    put("<dict>\n");
    std::optional<PlistKey> previous;
    for (; entry; entry = nextEntry()) {
      if (previous && !(*previous < entry->first)) ok_ = false;
      writeKey(entry->first, depth + 1);
      writeValue(entry->second, depth + 1);
      previous = std::move(entry->first);
    }
    indent(depth);
    put("</dict>\n");
  }

  // 68 characters of base64 (51 bytes) a line.
  void writeData(const Plist::Bytes& bytes, int depth) {
    indent(depth);
    put("<data>\n");
    for (std::size_t i = 0; i < bytes.size(); i += 51) {
      indent(depth);
      put(base64Encoded(bytes.data() + i, std::min<std::size_t>(51, bytes.size() - i)));
      put("\n");
    }
    indent(depth);
    put("</data>\n");
  }

  // Whether the eight bytes at bytes are all printable ASCII but "<", ">" and "&", tested as one
  // word: most of a document is, and then putEscaped steps over them at once.
  static bool isPlainWord(const char* bytes) {
    constexpr std::uint64_t kEveryByte = 0x0101010101010101;
    constexpr std::uint64_t kHighBits = 0x8080808080808080;
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    // The high bit of each byte that is zero (exact for bytes below 0x80, as all are here).
    auto zeroBytes = [](std::uint64_t value) { return (value - kEveryByte) & ~value & kHighBits; };
    return (word & kHighBits) == 0 && ((word - kEveryByte * 0x20) & ~word & kHighBits) == 0 &&
           zeroBytes(word ^ (kEveryByte * '<')) == 0 && zeroBytes(word ^ (kEveryByte * '>')) == 0 &&
           zeroBytes(word ^ (kEveryByte * '&')) == 0;
  }

  static constexpr std::size_t kBufferSize = 1 << 16;
  // The bytes that go out as they are: printable ASCII other than the markup characters, tab
  // and line feed. Every other byte takes the slow path of putEscaped.
  static constexpr std::array<bool, 256> kPlainBytes = [] {
    std::array<bool, 256> plain{};
    for (int c = 0x20; c < 0x80; ++c) plain[c] = c != '<' && c != '>' && c != '&';
    plain['\t'] = plain['\n'] = true;
    return plain;
  }();

  std::FILE* file_ = nullptr;
  std::string* text_ = nullptr;
  std::unique_ptr<char[]> buffer_;
  std::size_t used_ = 0;
  bool ok_ = true;
};

std::string Plist::toXml() const {
  char* buffer = nullptr;
  std::size_t length = 0;
  std::FILE* stream = open_memstream(&buffer, &length);
  if (stream == nullptr) return {};
  PlistXmlWriter(stream).writeDocument(*this);
  std::fclose(stream);
  std::string xml(buffer, length);
  std::free(buffer);
  return xml;
}

bool Plist::writeXmlFile(const std::string& path, std::string* error) const {
  return writeFileAtomically(
      path, [this](std::FILE* file) { return writeXml(file); }, error);
}

bool Plist::writeXmlFileUnlessUnchanged(const std::string& path, bool* replaced,
                                        std::string* error) const {
  return writeFileAtomicallyUnlessUnchanged(
      path, [this](std::FILE* file) { return writeXml(file); }, replaced, error);
}

bool Plist::writeXmlFileStreamingMemberUnlessUnchanged(const std::string& path,
                                                       std::string_view key,
                                                       const EntrySource& nextEntry, bool* replaced,
                                                       std::string* error) const {
  return writeFileAtomicallyUnlessUnchanged(
      path,
      [&](std::FILE* file) {
        return PlistXmlWriter(file).writeDocumentStreamingMember(*this, key, nextEntry);
      },
      replaced, error);
}

bool Plist::writeXml(std::FILE* file) const { return PlistXmlWriter(file).writeDocument(*this); }

PlistXmlArrayFile::PlistXmlArrayFile(const std::string& path) : write_(path) {
  put(kDocumentStart);
}

void PlistXmlArrayFile::elementText(const Plist& value, std::string* text) {
  text->clear();
  PlistXmlWriter(text).writeArrayElement(value);
}

void PlistXmlArrayFile::appendText(std::string_view elementText) {
  if (empty_) put("<array>\n");
  empty_ = false;
  put(elementText);
}

bool PlistXmlArrayFile::finish(bool durable, std::string* error) {
  put(empty_ ? "<array/>\n</plist>\n" : "</array>\n</plist>\n");
  write_.close(durable);
  if (write_.place()) return true;
  if (error) *error = write_.errorText();
  return false;
}

void PlistXmlArrayFile::put(std::string_view text) {
  if (write_.stream() != nullptr && write_.ok() &&
      std::fwrite(text.data(), 1, text.size(), write_.stream()) != text.size()) {
    write_.fail(errno);
  }
}

}  // namespace ondrel
