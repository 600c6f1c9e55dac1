#include "Plist.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <mutex>

#include "DateFormats.h"

namespace ondrel {

struct Plist::StringNode : Node {
  explicit StringNode(std::string text) : value(std::move(text)) {}
  std::string value;
};
struct Plist::DataNode : Node {
  explicit DataNode(Bytes bytes) : value(std::move(bytes)) {}
  Bytes value;
};
struct Plist::ArrayNode : Node {
  explicit ArrayNode(Array elements) : value(std::move(elements)) {}
  Array value;
};
struct Plist::DictionaryNode : Node {
  explicit DictionaryNode(Dictionary items) : value(std::move(items)) {}
  Dictionary value;
};

namespace {

// Every key text in use, once. Never freed, so that keys in static values outlive it at exit.
struct SharedKeyTexts {
  std::mutex mutex;
  std::unordered_map<std::string_view, void*> byText;
};

SharedKeyTexts& sharedKeyTexts() {
  static auto* texts = new SharedKeyTexts;
  return *texts;
}

}  // namespace

PlistKey::PlistKey(std::string_view text) {
  SharedKeyTexts& texts = sharedKeyTexts();
  std::lock_guard lock(texts.mutex);
  auto found = texts.byText.find(text);
  if (found != texts.byText.end()) {
    node_ = static_cast<Node*>(found->second);
    node_->references.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  node_ = new Node{{1}, std::string(text)};
  texts.byText.emplace(node_->text, node_);
}

void PlistKey::releaseLast(Node* node) {
  SharedKeyTexts& texts = sharedKeyTexts();
  std::lock_guard lock(texts.mutex);
  if (node->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  texts.byText.erase(node->text);
  delete node;
}

PlistKey PlistKey::Interner::keyFor(std::string_view text) {
  std::optional<PlistKey>& slot = recent_[std::hash<std::string_view>()(text) % kSlots];
  if (!slot || slot->text() != text) slot.emplace(text);
  return *slot;
}

namespace {
const Plist kNull;
const std::string kEmptyString;
const Plist::Bytes kEmptyBytes;
const Plist::Dictionary kEmptyDictionary;
const Plist::Array kEmptyArray;
}  // namespace

Plist::Plist(std::string text) : type_(Type::String), node_(new StringNode(std::move(text))) {}
Plist Plist::dictionary() { return Plist(Dictionary()); }
Plist::Plist(Dictionary items)
    : type_(Type::Dictionary), node_(new DictionaryNode(std::move(items))) {}
Plist::Plist(Array elements) : type_(Type::Array), node_(new ArrayNode(std::move(elements))) {}

Plist::Plist(const Plist& other) noexcept
    : type_(other.type_), unsigned_(other.unsigned_), integer_(other.integer_) {
  retain();
}

Plist::Plist(Plist&& other) noexcept
    : type_(other.type_), unsigned_(other.unsigned_), integer_(other.integer_) {
  other.type_ = Type::Null;
  other.unsigned_ = false;
  other.integer_ = 0;
}

Plist& Plist::operator=(const Plist& other) noexcept {
  if (this != &other) {
    other.retain();
    release();
    type_ = other.type_;
    unsigned_ = other.unsigned_;
    integer_ = other.integer_;
  }
  return *this;
}

Plist& Plist::operator=(Plist&& other) noexcept {
  if (this != &other) {
    release();
    type_ = other.type_;
    unsigned_ = other.unsigned_;
    integer_ = other.integer_;
    other.type_ = Type::Null;
    other.unsigned_ = false;
    other.integer_ = 0;
  }
  return *this;
}

Plist::~Plist() { release(); }

void Plist::retain() const {
  if (holdsNode()) node_->references.fetch_add(1, std::memory_order_relaxed);
}

void Plist::release() {
  if (!holdsNode()) return;
  if (node_->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    switch (type_) {
      case Type::String:
        delete static_cast<StringNode*>(node_);
        break;
      case Type::Data:
        delete static_cast<DataNode*>(node_);
        break;
      case Type::Array:
        delete static_cast<ArrayNode*>(node_);
        break;
      case Type::Dictionary:
        delete static_cast<DictionaryNode*>(node_);
        break;
      default:
        break;
    }
  }
  type_ = Type::Null;
  unsigned_ = false;
  integer_ = 0;
}

Plist Plist::integer(std::int64_t value) {
  Plist plist;
  plist.type_ = Type::Integer;
  plist.integer_ = value;
  return plist;
}

Plist Plist::unsignedInteger(std::uint64_t value) {
  Plist plist = integer(static_cast<std::int64_t>(value));
  plist.unsigned_ = value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  return plist;
}

Plist Plist::real(double value) {
  Plist plist;
  plist.type_ = Type::Real;
  plist.real_ = value;
  return plist;
}

Plist Plist::boolean(bool value) {
  Plist plist;
  plist.type_ = Type::Boolean;
  plist.integer_ = 0;
  plist.boolean_ = value;
  return plist;
}

Plist Plist::date(Date value) {
  Plist plist;
  plist.type_ = Type::Date;
  plist.dateTicks_ = value.time_since_epoch().count();
  return plist;
}

Plist Plist::data(Bytes bytes) {
  Plist plist;
  plist.type_ = Type::Data;
  plist.node_ = new DataNode(std::move(bytes));
  return plist;
}

Plist Plist::stringArray(const std::vector<std::string>& texts) {
  Array elements(texts.begin(), texts.end());
  return Plist(std::move(elements));
}

const std::string& Plist::stringValue() const {
  return type_ == Type::String ? static_cast<StringNode*>(node_)->value : kEmptyString;
}

namespace {
// Skips leading blanks, an optional sign and leading zeros, as the conventional coercions do.
std::string_view numericPrefix(std::string_view text, bool* negative) {
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  *negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    *negative = text[i] == '-';
    ++i;
  }
  return text.substr(i);
}
}  // namespace

std::int64_t Plist::integerValue() const {
  switch (type_) {
    case Type::Integer:
      return unsigned_ ? std::numeric_limits<std::int64_t>::max() : integer_;
    case Type::Boolean:
      return boolean_ ? 1 : 0;
    case Type::Real:
      if (std::isnan(real_)) return 0;
      if (real_ >= 9.2e18) return std::numeric_limits<std::int64_t>::max();
      if (real_ <= -9.2e18) return std::numeric_limits<std::int64_t>::min();
      return static_cast<std::int64_t>(real_);
    case Type::String: {
      bool negative = false;
      std::string_view digits = numericPrefix(stringValue(), &negative);
      std::int64_t value = 0;
      for (char c : digits) {
        if (c < '0' || c > '9') break;
        if (value > (std::numeric_limits<std::int64_t>::max() - (c - '0')) / 10) {
          return negative ? std::numeric_limits<std::int64_t>::min()
                          : std::numeric_limits<std::int64_t>::max();
        }
        value = value * 10 + (c - '0');
      }
      return negative ? -value : value;
    }
    default:
      return 0;
  }
}

std::string Plist::integerText() const {
  if (isLargeUnsignedInteger()) return std::to_string(static_cast<std::uint64_t>(integer_));
  return std::to_string(integerValue());
}

double Plist::realValue() const {
  switch (type_) {
    case Type::Real:
      return real_;
    case Type::Integer:
      return unsigned_ ? static_cast<double>(static_cast<std::uint64_t>(integer_))
                       : static_cast<double>(integer_);
    case Type::Boolean:
      return boolean_ ? 1.0 : 0.0;
    case Type::String:
      return std::strtod(stringValue().c_str(), nullptr);
    default:
      return 0.0;
  }
}

bool Plist::boolValue() const {
  switch (type_) {
    case Type::Boolean:
      return boolean_;
    case Type::Integer:
      return integer_ != 0;
    case Type::Real:
      return real_ != 0.0;
    case Type::String: {
      bool negative = false;
      std::string_view rest = numericPrefix(stringValue(), &negative);
      std::size_t i = rest.find_first_not_of('0');
      if (i == std::string_view::npos) return false;
      char c = rest[i];
      return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
    }
    default:
      return false;
  }
}

std::optional<Date> Plist::dateValue() const {
  if (type_ != Type::Date) return std::nullopt;
  return Date(Date::duration(dateTicks_));
}

const Plist::Bytes& Plist::dataValue() const {
  return type_ == Type::Data ? static_cast<DataNode*>(node_)->value : kEmptyBytes;
}

std::size_t Plist::size() const {
  if (type_ == Type::Dictionary) return static_cast<DictionaryNode*>(node_)->value.size();
  if (type_ == Type::Array) return static_cast<ArrayNode*>(node_)->value.size();
  return 0;
}

const Plist::Dictionary& Plist::items() const& {
  return type_ == Type::Dictionary ? static_cast<DictionaryNode*>(node_)->value : kEmptyDictionary;
}

const Plist::Array& Plist::elements() const& {
  return type_ == Type::Array ? static_cast<ArrayNode*>(node_)->value : kEmptyArray;
}

const Plist& Plist::operator[](std::string_view key) const& {
  const Dictionary& dictionary = items();
  auto found = dictionary.find(key);
  return found == dictionary.end() ? kNull : found->second;
}

const Plist& Plist::operator[](std::size_t index) const& {
  const Array& array = elements();
  return index < array.size() ? array[index] : kNull;
}

bool Plist::contains(std::string_view key) const {
  const Dictionary& dictionary = items();
  return dictionary.find(key) != dictionary.end();
}

bool Plist::containsElement(const Plist& element) const {
  const Array& array = elements();
  return std::find(array.begin(), array.end(), element) != array.end();
}

Plist::DictionaryNode& Plist::uniqueDictionary() {
  if (type_ != Type::Dictionary) {
    *this = dictionary();
  } else if (node_->references.load(std::memory_order_acquire) > 1) {
    *this = Plist(static_cast<DictionaryNode*>(node_)->value);
  }
  return *static_cast<DictionaryNode*>(node_);
}

Plist::ArrayNode& Plist::uniqueArray() {
  if (type_ != Type::Array) {
    *this = array();
  } else if (node_->references.load(std::memory_order_acquire) > 1) {
    *this = Plist(static_cast<ArrayNode*>(node_)->value);
  }
  return *static_cast<ArrayNode*>(node_);
}

Plist::Dictionary& Plist::mutableItems() { return uniqueDictionary().value; }
Plist::Array& Plist::mutableElements() { return uniqueArray().value; }

void Plist::set(std::string_view key, Plist value) { mutableValue(key) = std::move(value); }

bool Plist::remove(std::string_view key) {
  if (!contains(key)) return false;
  return mutableItems().erase(key);
}

void Plist::setEntries(std::vector<std::pair<PlistKey, Plist>> entries) {
  mutableItems().assignAll(Dictionary::fromEntries(std::move(entries)));
}

void Plist::removeKeys(const std::vector<std::string>& keys) {
  if (!isDictionary() || keys.empty()) return;
  mutableItems().eraseKeys(keys);
}

void Plist::append(Plist value) { mutableElements().push_back(std::move(value)); }

Plist& Plist::mutableValue(std::string_view key) { return mutableItems().valueFor(key); }

namespace {
// Orders texts as their bytes do, deciding most pairs of long enough keys (product ids, file
// names) on their first eight bytes without a call to memcmp.
bool textIsBefore(std::string_view a, std::string_view b) {
  if (a.size() >= 8 && b.size() >= 8) {
    std::uint64_t x;
    std::uint64_t y;
    std::memcpy(&x, a.data(), 8);
    std::memcpy(&y, b.data(), 8);
    if (x != y) {
      if constexpr (std::endian::native == std::endian::little) {
        x = __builtin_bswap64(x);
        y = __builtin_bswap64(y);
      }
      return x < y;
    }
  }
  return a < b;
}
bool keyIsBefore(const Plist::Dictionary::Entry& entry, std::string_view key) {
  return textIsBefore(entry.first, key);
}
bool keysAreOrdered(const Plist::Dictionary::Entry& a, const Plist::Dictionary::Entry& b) {
  return textIsBefore(a.first, b.first);
}
}  // namespace

Plist::Dictionary Plist::Dictionary::fromEntries(std::vector<Entry> entries) {
  Dictionary dictionary;
  if (!std::is_sorted(entries.begin(), entries.end(), keysAreOrdered)) {
    std::stable_sort(entries.begin(), entries.end(), keysAreOrdered);
  }
  // Of equal keys, now side by side in their first order, the last one stays.
  auto kept = entries.begin();
  for (auto next = entries.begin(); next != entries.end(); ++next) {
    if (kept != entries.begin() && std::prev(kept)->first == next->first) {
      *std::prev(kept) = std::move(*next);
    } else {
      if (kept != next) *kept = std::move(*next);
      ++kept;
    }
  }
  entries.erase(kept, entries.end());
  entries.shrink_to_fit();
  dictionary.entries_ = std::move(entries);
  return dictionary;
}

Plist::Dictionary::const_iterator Plist::Dictionary::find(std::string_view key) const {
  auto found = std::lower_bound(entries_.begin(), entries_.end(), key, keyIsBefore);
  return found != entries_.end() && found->first == key ? found : entries_.end();
}

Plist& Plist::Dictionary::valueFor(std::string_view key) {
  auto found = entries_.empty() || textIsBefore(entries_.back().first, key)
                   ? entries_.end()
                   : std::lower_bound(entries_.begin(), entries_.end(), key, keyIsBefore);
  if (found != entries_.end() && found->first == key) return found->second;
  // Growing by a quarter keeps appends amortised constant without doubling a copied
  // dictionary that gains one key.
  if (entries_.size() == entries_.capacity()) {
    std::size_t offset = found - entries_.begin();
    entries_.reserve(entries_.size() + entries_.size() / 4 + 4);
    found = entries_.begin() + offset;
  }
  return entries_.emplace(found, PlistKey(key), Plist())->second;
}

void Plist::Dictionary::assignAll(Dictionary incoming) {
  if (entries_.empty()) {
    entries_ = std::move(incoming.entries_);
    return;
  }
  std::vector<Entry> merged;
  merged.reserve(entries_.size() + incoming.size());
  auto mine = entries_.begin();
  auto theirs = incoming.entries_.begin();
  while (mine != entries_.end() || theirs != incoming.entries_.end()) {
    if (theirs == incoming.entries_.end() ||
        (mine != entries_.end() && mine->first < theirs->first)) {
      merged.push_back(std::move(*mine++));
      continue;
    }
    if (mine != entries_.end() && mine->first == theirs->first) ++mine;
    merged.push_back(std::move(*theirs++));
  }
  merged.shrink_to_fit();
  entries_ = std::move(merged);
}

bool Plist::Dictionary::erase(std::string_view key) {
  auto found = find(key);
  if (found == entries_.end()) return false;
  entries_.erase(found);
  return true;
}

void Plist::Dictionary::eraseKeys(const std::vector<std::string>& keys) {
  std::vector<std::string_view> doomed(keys.begin(), keys.end());
  std::sort(doomed.begin(), doomed.end());
  auto next = doomed.begin();
  auto removed = std::remove_if(entries_.begin(), entries_.end(), [&](const Entry& entry) {
    next = std::lower_bound(next, doomed.end(), std::string_view(entry.first));
    return next != doomed.end() && *next == entry.first;
  });
  entries_.erase(removed, entries_.end());
}

bool Plist::operator==(const Plist& other) const {
  if (type_ != other.type_) {
    // Numbers compare by value across their kinds, as the conventional model does.
    if (isNumber() && other.isNumber()) {
      if (type_ == Type::Real || other.type_ == Type::Real) {
        return realValue() == other.realValue();
      }
      return integerValue() == other.integerValue();
    }
    return false;
  }
  switch (type_) {
    case Type::Null:
      return true;
    case Type::Integer:
      return integer_ == other.integer_ && unsigned_ == other.unsigned_;
    case Type::Real:
      // A NaN read back from a file is the value that was written.
      return real_ == other.real_ || (std::isnan(real_) && std::isnan(other.real_));
    case Type::Boolean:
      return boolean_ == other.boolean_;
    case Type::Date:
      return dateTicks_ == other.dateTicks_;
    default:
      break;
  }
  if (node_ == other.node_) return true;
  switch (type_) {
    case Type::String:
      return stringValue() == other.stringValue();
    case Type::Data:
      return dataValue() == other.dataValue();
    case Type::Array:
      return elements() == other.elements();
    case Type::Dictionary:
      return items() == other.items();
    default:
      return false;
  }
}

bool Plist::isIdenticalTo(const Plist& other) const {
  if (type_ != other.type_) return false;
  switch (type_) {
    case Type::Integer:
      return integer_ == other.integer_ && unsigned_ == other.unsigned_;
    case Type::Real:
      return (real_ == other.real_ && std::signbit(real_) == std::signbit(other.real_)) ||
             (std::isnan(real_) && std::isnan(other.real_));
    case Type::Array: {
      if (node_ == other.node_) return true;
      const Array& mine = elements();
      const Array& theirs = other.elements();
      return std::equal(mine.begin(), mine.end(), theirs.begin(), theirs.end(),
                        [](const Plist& a, const Plist& b) { return a.isIdenticalTo(b); });
    }
    case Type::Dictionary: {
      if (node_ == other.node_) return true;
      const Dictionary& mine = items();
      const Dictionary& theirs = other.items();
      return std::equal(mine.begin(), mine.end(), theirs.begin(), theirs.end(),
                        [](const auto& a, const auto& b) {
                          return a.first == b.first && a.second.isIdenticalTo(b.second);
                        });
    }
    default:
      return *this == other;
  }
}

bool Plist::sharesStorageWith(const Plist& other) const {
  return holdsNode() && type_ == other.type_ && node_ == other.node_;
}

namespace {

bool needsQuotesInCollection(const std::string& text) {
  if (text.empty()) return true;
  return !std::all_of(text.begin(), text.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == '/' ||
           c == '$' || c == ':';
  });
}

std::string quotedForCollection(const std::string& text) {
  if (!needsQuotesInCollection(text)) return text;
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    if (c == '\n') {
      quoted += "\\n";
      continue;
    }
    quoted += c;
  }
  return quoted + "\"";
}

void describe(const Plist& value, int depth, bool nested, std::string& out) {
  const std::string indent(static_cast<std::size_t>(depth) * 4, ' ');
  const std::string inner(static_cast<std::size_t>(depth + 1) * 4, ' ');
  switch (value.type()) {
    case Plist::Type::Null:
      out += "(null)";
      break;
    case Plist::Type::String:
      out += nested ? quotedForCollection(value.stringValue()) : value.stringValue();
      break;
    case Plist::Type::Integer:
      out += value.integerText();
      break;
    case Plist::Type::Real:
      out += fmt::format("{}", value.realValue());
      break;
    case Plist::Type::Boolean:
      out += value.boolValue() ? "1" : "0";
      break;
    case Plist::Type::Date:
      out += formatDescriptionDate(*value.dateValue());
      break;
    case Plist::Type::Data: {
      out += '<';
      const Plist::Bytes& bytes = value.dataValue();
      for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0 && i % 4 == 0) out += ' ';
        out += fmt::format("{:02x}", bytes[i]);
      }
      out += '>';
      break;
    }
    case Plist::Type::Array: {
      out += "(\n";
      const Plist::Array& elements = value.elements();
      for (std::size_t i = 0; i < elements.size(); ++i) {
        out += inner;
        describe(elements[i], depth + 1, true, out);
        out += i + 1 < elements.size() ? ",\n" : "\n";
      }
      out += indent + ")";
      break;
    }
    case Plist::Type::Dictionary:
      out += "{\n";
      for (const auto& [key, item] : value.items()) {
        out += inner + quotedForCollection(key) + " = ";
        describe(item, depth + 1, true, out);
        out += ";\n";
      }
      out += indent + "}";
      break;
  }
}

}  // namespace

std::string Plist::description() const {
  std::string out;
  describe(*this, 0, false, out);
  return out;
}

}  // namespace ondrel
