// Plist is a property-list value: null, dictionary, array, string, integer, real, boolean, date
// or data. Every record the server keeps on disk is built from it.
// Copies share their storage and a container is copied (one level deep) only when a shared copy is
// changed, so taking a mutable copy of a large catalog is cheap. A dictionary keeps its entries in
// key order in one block, about half the memory of a tree, and its keys share their texts with
// every key alike (PlistKey). A value may be read from several threads; a value that is being
// changed belongs to one thread.
#pragma once

#include <fmt/format.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "FileIO.h"

namespace ondrel {

using Date = std::chrono::system_clock::time_point;

// A dictionary key. Keys alike share one text, counted, for as long as any of them lives: a key
// costs a pointer in its dictionary, and a key that many records name (every product's metadata
// names "localization") costs its text once. Reads as the std::string it holds. Copies are
// cheap; keys may be made, copied and read from several threads.
class PlistKey {
 public:
  PlistKey(std::string_view text);
  PlistKey(const std::string& text) : PlistKey(std::string_view(text)) {}
  PlistKey(const char* text) : PlistKey(std::string_view(text)) {}
  PlistKey(const PlistKey& other) noexcept : node_(other.node_) { retain(); }
  PlistKey(PlistKey&& other) noexcept : node_(std::exchange(other.node_, &movedFrom_)) {}
  PlistKey& operator=(const PlistKey& other) noexcept {
    PlistKey copy(other);
    std::swap(node_, copy.node_);
    return *this;
  }
  PlistKey& operator=(PlistKey&& other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }
  ~PlistKey() { release(); }

  const std::string& text() const { return node_->text; }
  operator const std::string&() const { return node_->text; }
  operator std::string_view() const { return node_->text; }
  bool sharesTextWith(const PlistKey& other) const { return node_ == other.node_; }

  friend bool operator==(const PlistKey& a, const PlistKey& b) {
    return a.node_ == b.node_ || a.text() == b.text();
  }
  friend bool operator==(const PlistKey& a, std::string_view b) { return a.text() == b; }
  friend bool operator==(const PlistKey& a, const char* b) { return a.text() == b; }
  friend bool operator==(const PlistKey& a, const std::string& b) { return a.text() == b; }
  friend auto operator<=>(const PlistKey& a, const PlistKey& b) { return a.text() <=> b.text(); }
  friend auto operator<=>(const PlistKey& a, std::string_view b) {
    return std::string_view(a.text()) <=> b;
  }
  template <typename Stream>
  friend auto operator<<(Stream& stream, const PlistKey& key)
      -> decltype(stream << std::declval<const std::string&>()) {
    return stream << key.text();
  }

  class Interner;

 private:
  struct Node {
    std::atomic<std::uint32_t> references;
    std::string text;
  };
  // The text of moved-from keys (empty): never counted nor freed.
  inline static Node movedFrom_{{1}, {}};
  void retain() const {
    if (node_ != &movedFrom_) node_->references.fetch_add(1, std::memory_order_relaxed);
  }
  // A key that may be the last of its text takes the shared texts' lock to let go of it, so
  // that no key is made from the table's node while it is freed.
  void release() {
    if (node_ == &movedFrom_) return;
    std::uint32_t count = node_->references.load(std::memory_order_relaxed);
    while (count > 1) {
      if (node_->references.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel)) {
        return;
      }
    }
    releaseLast(node_);
  }
  static void releaseLast(Node* node);

  Node* node_;
};

// The keys of one document as they are read. The texts met lately are kept in a small table by
// their hash, so that the few keys a document repeats on every entry skip the shared texts and
// their lock; a text met once (a product id) only passes through it.
class PlistKey::Interner {
 public:
  PlistKey keyFor(std::string_view text);

 private:
  static constexpr std::size_t kSlots = 256;
  std::array<std::optional<PlistKey>, kSlots> recent_;
};

class Plist {
 public:
  enum class Type : std::uint8_t {
    Null,
    Dictionary,
    Array,
    String,
    Integer,
    Real,
    Boolean,
    Date,
    Data
  };
  class Dictionary;
  using Array = std::vector<Plist>;
  using Bytes = std::vector<std::uint8_t>;

  Plist() noexcept : type_(Type::Null), integer_(0) {}
  Plist(std::string text);
  Plist(std::string_view text) : Plist(std::string(text)) {}
  Plist(const char* text) : Plist(std::string(text)) {}
  explicit Plist(Dictionary items);
  explicit Plist(Array elements);
  Plist(const Plist& other) noexcept;
  Plist(Plist&& other) noexcept;
  Plist& operator=(const Plist& other) noexcept;
  Plist& operator=(Plist&& other) noexcept;
  ~Plist();

  static Plist integer(std::int64_t value);
  // An unsigned 64-bit integer; values above the signed range keep their magnitude.
  static Plist unsignedInteger(std::uint64_t value);
  static Plist real(double value);
  static Plist boolean(bool value);
  static Plist date(Date value);
  static Plist data(Bytes bytes);
  static Plist dictionary();
  static Plist array() { return Plist(Array{}); }
  static Plist stringArray(const std::vector<std::string>& texts);

  Type type() const { return type_; }
  bool isNull() const { return type_ == Type::Null; }
  bool isDictionary() const { return type_ == Type::Dictionary; }
  bool isArray() const { return type_ == Type::Array; }
  bool isString() const { return type_ == Type::String; }
  bool isDate() const { return type_ == Type::Date; }
  bool isData() const { return type_ == Type::Data; }
  // Integers, reals and booleans are all numbers, as in the conventional model.
  bool isNumber() const {
    return type_ == Type::Integer || type_ == Type::Real || type_ == Type::Boolean;
  }

  // True for an integer above the signed 64-bit range (read from an unsigned value).
  bool isLargeUnsignedInteger() const { return type_ == Type::Integer && unsigned_; }

  // Scalar readers with the conventional coercions; a value of another kind gives 0, false,
  // an empty string or none. integerValue() of a large unsigned integer is the signed maximum.
  const std::string& stringValue() const;
  std::int64_t integerValue() const;
  double realValue() const;
  bool boolValue() const;
  std::optional<Date> dateValue() const;
  const Bytes& dataValue() const;
  // The decimal text of an integer exactly as stored (unsigned when it is a large one).
  std::string integerText() const;

  // Collections. Reading a missing key, an index out of range, or a value that is not a
  // collection gives a null value.
  // On a temporary these give values, not references into it, so that
  // "for (auto& item : readSomething()["key"].items())" cannot run over freed storage.
  std::size_t size() const;
  const Plist& operator[](std::string_view key) const&;
  const Plist& operator[](std::size_t index) const&;
  Plist operator[](std::string_view key) && { return std::as_const(*this)[key]; }
  Plist operator[](std::size_t index) && { return std::as_const(*this)[index]; }
  bool contains(std::string_view key) const;
  const Dictionary& items() const&;
  const Array& elements() const&;
  Dictionary items() &&;
  Array elements() && { return std::as_const(*this).elements(); }
  bool containsElement(const Plist& element) const;

  // Changing a collection. A value that is not yet a dictionary (or array) becomes an empty one
  // first. The storage is copied first when another value shares it.
  // Setting keys in ascending order costs one append each; a key set between others moves the
  // entries after it, so code that builds a large dictionary goes in key order.
  void set(std::string_view key, Plist value);
  bool remove(std::string_view key);
  // Sets every entry at once, in any order (of entries with one key the last one is set): one
  // merge instead of one move per key.
  void setEntries(std::vector<std::pair<PlistKey, Plist>> entries);
  // Removes every entry whose key is in keys, at once.
  void removeKeys(const std::vector<std::string>& keys);
  void append(Plist value);
  Array& mutableElements();
  // The value under key, created as null when missing, ready to be changed in place. The
  // reference holds until this dictionary gains or loses a key.
  Plist& mutableValue(std::string_view key);

  bool operator==(const Plist& other) const;
  bool operator!=(const Plist& other) const { return !(*this == other); }
  // Stricter than ==: true only when both are written as the same text, so numbers of different
  // kinds (1 and 1.0) differ. What decides whether a file needs writing again.
  bool isIdenticalTo(const Plist& other) const;

  // The text form used in messages: strings as they are, numbers in decimal, booleans as 1 or 0,
  // dates as "yyyy-MM-dd HH:mm:ss +0000", collections in the classic bracketed form.
  std::string description() const;

  // True when both values hold the very same storage (used to prove that copies are shallow).
  bool sharesStorageWith(const Plist& other) const;

  // Codec. Reading accepts XML and binary property lists; writing produces XML.
  static std::optional<Plist> fromBytes(std::string_view bytes, std::string* error);
  // Reads a regular file of at most maxBytes (see readWholeFile).
  static std::optional<Plist> readFile(const std::string& path, std::string* error,
                                       std::size_t maxBytes = kDefaultReadLimit);
  std::string toXml() const;
  // Replaces the file at path atomically: readers see the old file or the new one, never a part.
  bool writeXmlFile(const std::string& path, std::string* error) const;
  // The same, except that a file that already holds this very document is left untouched.
  bool writeXmlFileUnlessUnchanged(const std::string& path, bool* replaced,
                                   std::string* error) const;
  // Writes the document to an open stream; false when a write failed.
  bool writeXml(std::FILE* file) const;
  // Writes, like writeXmlFileUnlessUnchanged, this dictionary with the value of key replaced by
  // a dictionary of the entries nextEntry gives until it gives none. Each is written as it comes,
  // so that dictionary is never held in memory; their keys must ascend, or the write fails.
  using EntrySource = std::function<std::optional<std::pair<PlistKey, Plist>>()>;
  bool writeXmlFileStreamingMemberUnlessUnchanged(const std::string& path, std::string_view key,
                                                  const EntrySource& nextEntry, bool* replaced,
                                                  std::string* error) const;

 private:
  struct Node {
    std::atomic<std::uint32_t> references{1};
  };
  struct StringNode;
  struct DataNode;
  struct ArrayNode;
  struct DictionaryNode;
  friend class PlistXmlWriter;

  void retain() const;
  void release();
  bool holdsNode() const {
    return type_ == Type::String || type_ == Type::Data || type_ == Type::Array ||
           type_ == Type::Dictionary;
  }
  DictionaryNode& uniqueDictionary();
  Dictionary& mutableItems();
  ArrayNode& uniqueArray();

  Type type_;
  bool unsigned_ = false;  // an Integer whose value is integer_ read as unsigned
  union {
    std::int64_t integer_;
    double real_;
    bool boolean_;
    std::int64_t dateTicks_;  // system clock ticks since the epoch
    Node* node_;
  };
};

// A dictionary's entries, sorted by key, in one vector. Changed only through Plist, which keeps
// keys unique; read like a sorted map.
class Plist::Dictionary {
 public:
  using Entry = std::pair<PlistKey, Plist>;
  using const_iterator = std::vector<Entry>::const_iterator;

  Dictionary() = default;
  // The entries in any order; of several with one key the last one is kept.
  static Dictionary fromEntries(std::vector<Entry> entries);

  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }
  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  const_iterator find(std::string_view key) const;
  bool operator==(const Dictionary& other) const { return entries_ == other.entries_; }

 private:
  friend class Plist;
  // The value under key, created as null when missing.
  Plist& valueFor(std::string_view key);
  void assignAll(Dictionary incoming);
  bool erase(std::string_view key);
  void eraseKeys(const std::vector<std::string>& keys);

  std::vector<Entry> entries_;
};

inline Plist::Dictionary Plist::items() && { return std::as_const(*this).items(); }

}  // namespace ondrel

template <>
struct fmt::formatter<ondrel::PlistKey> : fmt::formatter<std::string_view> {
  template <typename FormatContext>
  auto format(const ondrel::PlistKey& key, FormatContext& context) const {
    return fmt::formatter<std::string_view>::format(key.text(), context);
  }
};

template <>
struct fmt::formatter<ondrel::Plist> : fmt::formatter<std::string_view> {
  template <typename FormatContext>
  auto format(const ondrel::Plist& value, FormatContext& context) const {
    return fmt::formatter<std::string_view>::format(value.description(), context);
  }
};
