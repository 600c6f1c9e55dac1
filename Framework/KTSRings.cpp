#include "KTSRings.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "Sha256.h"

namespace ondrel {

namespace {

constexpr int kMappedPrefix = 96;  // the ::ffff: of an IPv4-mapped address
// A client's place among the shares, in hundredths of a percent.
constexpr std::uint32_t kHashBuckets = 10'000;

bool isMappedIPv4(const KTSRings::Address& address) {
  static constexpr std::uint8_t kPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  return std::equal(std::begin(kPrefix), std::end(kPrefix), address.begin());
}

std::optional<int> parsePrefix(std::string_view text, int most) {
  int value = -1;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < 0 || value > most) {
    return std::nullopt;
  }
  return value;
}

// Where the client's address falls in [0, kHashBuckets): the same for the same address always.
std::uint32_t hashBucket(const KTSRings::Address& address) {
  Sha256 hash;
  hash.add(std::string_view(reinterpret_cast<const char*>(address.data()), address.size()));
  std::string hex = hash.hexDigest();
  std::uint64_t value = 0;
  std::from_chars(hex.data(), hex.data() + 16, value, 16);
  return static_cast<std::uint32_t>(value % kHashBuckets);
}

}  // namespace

std::optional<KTSRings::Address> KTSRings::parseAddress(std::string_view text) {
  if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
    text = text.substr(1, text.size() - 2);
  }
  if (text.empty() || text.size() > 45) return std::nullopt;
  std::string zeroTerminated(text);
  Address address{};
  unsigned char four[4];
  if (::inet_pton(AF_INET, zeroTerminated.c_str(), four) == 1) {
    address[10] = address[11] = 0xff;
    std::copy(std::begin(four), std::end(four), address.begin() + 12);
    return address;
  }
  if (::inet_pton(AF_INET6, zeroTerminated.c_str(), address.data()) == 1) return address;
  return std::nullopt;
}

std::optional<KTSRings::Block> KTSRings::parseBlock(std::string_view text) {
  std::size_t slash = text.find('/');
  std::optional<Address> address = parseAddress(text.substr(0, slash));
  if (!address) return std::nullopt;
  bool ipv4 = text.substr(0, slash).find(':') == std::string_view::npos;
  Block block{*address, 128};
  if (slash != std::string_view::npos) {
    std::optional<int> prefix = parsePrefix(text.substr(slash + 1), ipv4 ? 32 : 128);
    if (!prefix) return std::nullopt;
    block.prefixLength = ipv4 ? kMappedPrefix + *prefix : *prefix;
  }
  // A block names its first address: bits past the prefix are a typing error, not a block.
  Block masked = block;
  for (int bit = block.prefixLength; bit < 128; ++bit) {
    masked.address[bit / 8] &= static_cast<std::uint8_t>(~(0x80u >> (bit % 8)));
  }
  if (masked.address != block.address) return std::nullopt;
  return block;
}

std::string KTSRings::blockText(const Block& block) {
  char text[INET6_ADDRSTRLEN] = {};
  if (isMappedIPv4(block.address) && block.prefixLength >= kMappedPrefix) {
    ::inet_ntop(AF_INET, block.address.data() + 12, text, sizeof text);
    return fmt::format("{}/{}", text, block.prefixLength - kMappedPrefix);
  }
  ::inet_ntop(AF_INET6, block.address.data(), text, sizeof text);
  return fmt::format("{}/{}", text, block.prefixLength);
}

bool KTSRings::isRingName(std::string_view name) {
  return !name.empty() && name.size() <= 32 && name.front() >= 'a' && name.front() <= 'z' &&
         std::all_of(name.begin(), name.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
         });
}

bool KTSRings::contains(const Block& block, const Address& address) {
  int whole = block.prefixLength / 8;
  if (!std::equal(block.address.begin(), block.address.begin() + whole, address.begin())) {
    return false;
  }
  int rest = block.prefixLength % 8;
  if (rest == 0) return true;
  auto mask = static_cast<std::uint8_t>(0xff << (8 - rest));
  return (block.address[whole] & mask) == (address[whole] & mask);
}

KTSRings KTSRings::fromPreferences(const Plist& preferences) {
  KTSRings rings;
  for (const Plist& entry : preferences["rings"].elements()) {
    Ring ring;
    ring.name = entry["name"].stringValue();
    for (const Plist& block : entry["blocks"].elements()) {
      if (std::optional<Block> parsed = parseBlock(block.stringValue())) {
        ring.blocks.push_back(*parsed);
      }
    }
    ring.delaySeconds = entry["delaySeconds"].integerValue();
    ring.sharePercent =
        static_cast<int>(std::clamp<std::int64_t>(entry["share"].integerValue(), -1, 101));
    std::string why;
    rings.set(std::move(ring), std::nullopt, &why);
  }
  for (const Plist& block : preferences["trustedProxies"].elements()) {
    std::optional<Block> parsed = parseBlock(block.stringValue());
    if (parsed && rings.trustedProxies_.size() < kMostBlocks) {
      rings.trustedProxies_.push_back(*parsed);
    }
  }
  return rings;
}

Plist KTSRings::trustedProxiesAsPlist() const {
  Plist list = Plist::array();
  for (const Block& block : trustedProxies_) list.append(blockText(block));
  return list;
}

bool KTSRings::setTrustedProxies(std::vector<Block> blocks, std::string* why) {
  if (blocks.size() > kMostBlocks) {
    *why = fmt::format("at most {} trusted proxies", kMostBlocks);
    return false;
  }
  trustedProxies_ = std::move(blocks);
  return true;
}

bool KTSRings::isTrustedProxy(const Address& address) const {
  return std::any_of(trustedProxies_.begin(), trustedProxies_.end(),
                     [&address](const Block& block) { return contains(block, address); });
}

std::optional<KTSRings::Address> KTSRings::clientAddress(std::string_view peer,
                                                         std::string_view forwardedFor) const {
  std::optional<Address> client = parseAddress(peer);
  // Each proxy appends the address it was reached from: read from the right, the first entry
  // no trusted proxy added is the client's, and an entry that is no address ends the trust.
  while (client && isTrustedProxy(*client) && !forwardedFor.empty()) {
    std::size_t comma = forwardedFor.rfind(',');
    std::string_view entry = forwardedFor.substr(comma == std::string_view::npos ? 0 : comma + 1);
    forwardedFor = forwardedFor.substr(0, comma == std::string_view::npos ? 0 : comma);
    while (!entry.empty() && (entry.front() == ' ' || entry.front() == '\t')) {
      entry.remove_prefix(1);
    }
    while (!entry.empty() && (entry.back() == ' ' || entry.back() == '\t')) entry.remove_suffix(1);
    std::optional<Address> forwarded = parseAddress(entry);
    if (!forwarded) break;
    client = forwarded;
  }
  return client;
}

Plist KTSRings::asPlist() const {
  Plist list = Plist::array();
  for (const Ring& ring : rings_) {
    Plist entry = Plist::dictionary();
    entry.set("name", ring.name);
    Plist blocks = Plist::array();
    for (const Block& block : ring.blocks) blocks.append(blockText(block));
    entry.set("blocks", blocks);
    entry.set("delaySeconds", Plist::integer(ring.delaySeconds));
    entry.set("share", Plist::integer(ring.sharePercent));
    list.append(entry);
  }
  return list;
}

const KTSRings::Ring* KTSRings::find(std::string_view name) const {
  auto found = std::find_if(rings_.begin(), rings_.end(),
                            [name](const Ring& ring) { return ring.name == name; });
  return found != rings_.end() ? &*found : nullptr;
}

bool KTSRings::set(Ring ring, std::optional<std::size_t> position, std::string* why) {
  auto same = std::find_if(rings_.begin(), rings_.end(),
                           [&ring](const Ring& other) { return other.name == ring.name; });
  int otherShares = 0;
  for (const Ring& other : rings_) otherShares += other.name == ring.name ? 0 : other.sharePercent;
  if (!isRingName(ring.name)) {
    *why = "a ring's name is 1 to 32 lowercase letters, digits and hyphens, starting with a letter";
  } else if (same == rings_.end() && rings_.size() >= kMostRings) {
    *why = fmt::format("there can be at most {} rings", kMostRings);
  } else if (ring.blocks.size() > kMostBlocks) {
    *why = fmt::format("a ring holds at most {} address blocks", kMostBlocks);
  } else if (ring.sharePercent < 0 || ring.sharePercent > 100 ||
             otherShares + ring.sharePercent > 100) {
    *why = fmt::format("the shares of all rings add up to at most 100 % ({} % are taken)",
                       otherShares);
  } else if (ring.delaySeconds < 0) {
    *why = "a ring's delay is not below zero";
  } else {
    if (same != rings_.end()) rings_.erase(same);
    std::size_t at = std::min(position.value_or(rings_.size()), rings_.size());
    rings_.insert(rings_.begin() + static_cast<std::ptrdiff_t>(at), std::move(ring));
    return true;
  }
  return false;
}

bool KTSRings::remove(std::string_view name) {
  return std::erase_if(rings_, [name](const Ring& ring) { return ring.name == name; }) > 0;
}

std::optional<std::size_t> KTSRings::ringOf(const Address& address) const {
  if (rings_.empty()) return std::nullopt;
  for (std::size_t index = 0; index < rings_.size(); ++index) {
    for (const Block& block : rings_[index].blocks) {
      if (contains(block, address)) return index;
    }
  }
  std::uint32_t bucket = hashBucket(address);
  std::uint32_t bound = 0;
  for (std::size_t index = 0; index < rings_.size(); ++index) {
    bound += static_cast<std::uint32_t>(rings_[index].sharePercent) * (kHashBuckets / 100);
    if (bucket < bound) return index;
  }
  return rings_.size() - 1;
}

}  // namespace ondrel
