// KTSRings are the groups of clients a staged rollout opens a product to, one after the other,
// told apart by nothing but the client's address: an ordered list of rings, each with address
// blocks (IPv4 and IPv6 CIDR), a delay after a product is enabled, and a share of the clients
// no block names. A client belongs to the first ring whose blocks hold its address; any other
// client is placed by a stable hash of its address into the rings' shares, so that it stays in
// its ring from one request, pass and day to the next (what the shares leave falls to the last
// ring). With no rings, there is no rollout: every client sees every enabled product.
//
// The rings live in the preferences ("rings"), read as untrusted: an entry that is not a ring is
// left out. Beside them the preferences list the reverse proxies whose forwarded-for header is
// believed ("trustedProxies"); any other peer's address is the client's. A value type;
// thread-safe for reading.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Plist.h"

namespace ondrel {

class KTSRings {
 public:
  // An address as 16 bytes; an IPv4 address as its IPv4-mapped IPv6 form (::ffff:a.b.c.d).
  using Address = std::array<std::uint8_t, 16>;
  struct Block {
    Address address{};
    int prefixLength = 128;  // of the 16-byte form: an IPv4 /24 is 96 + 24
    bool operator==(const Block&) const = default;
  };
  struct Ring {
    std::string name;
    std::vector<Block> blocks;
    std::int64_t delaySeconds = 0;
    int sharePercent = 0;
  };

  static constexpr std::size_t kMostRings = 16;
  static constexpr std::size_t kMostBlocks = 256;

  // "192.0.2.7", "2001:db8::1" or "[2001:db8::1]"; none for anything else.
  static std::optional<Address> parseAddress(std::string_view text);
  // "10.0.0.0/8", "2001:db8::/32", or an address alone (the one address); none for anything
  // else, or bits set past the prefix.
  static std::optional<Block> parseBlock(std::string_view text);
  static std::string blockText(const Block& block);
  // A ring's name: 1 to 32 lowercase letters, digits and hyphens, starting with a letter.
  static bool isRingName(std::string_view name);
  static bool contains(const Block& block, const Address& address);

  // The rings and trusted proxies the preferences hold.
  static KTSRings fromPreferences(const Plist& preferences);
  // The values the preferences hold the rings and the trusted proxies as.
  Plist asPlist() const;
  Plist trustedProxiesAsPlist() const;

  const std::vector<Block>& trustedProxies() const { return trustedProxies_; }
  // False, with why, for more than kMostBlocks blocks.
  bool setTrustedProxies(std::vector<Block> blocks, std::string* why);
  // The client's address for a request from peer carrying the X-Forwarded-For value
  // forwardedFor: from a trusted proxy, the last address of the header that is not one (as far
  // as the proxies' entries go); from any other peer, the peer's. None for a peer that is no
  // address.
  std::optional<Address> clientAddress(std::string_view peer, std::string_view forwardedFor) const;

  const std::vector<Ring>& rings() const { return rings_; }
  bool empty() const { return rings_.empty(); }
  const Ring* find(std::string_view name) const;

  // Puts ring in place of the one of its name, or adds it at the end (or at position, counted
  // from 0). False, with why, when it is not one: a bad name, too many rings or blocks, a share
  // outside 0 to 100 or shares adding up past 100, a delay below zero.
  bool set(Ring ring, std::optional<std::size_t> position, std::string* why);
  // False when there is no ring of that name.
  bool remove(std::string_view name);

  // The index of the ring of a client at address; none when there are no rings.
  std::optional<std::size_t> ringOf(const Address& address) const;

 private:
  bool isTrustedProxy(const Address& address) const;

  std::vector<Ring> rings_;
  std::vector<Block> trustedProxies_;
};

}  // namespace ondrel
