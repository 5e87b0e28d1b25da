#pragma once
// Which senders a listener accepts: IPv4 addresses ("192.168.1.20") and
// CIDR blocks ("192.168.1.0/24"). An empty list accepts everyone (the
// behaviour without a list). A list whose entries are all malformed is not
// empty: it accepts nobody, since a typo must never open the door to all.
//
// Plain value; any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

class SenderAllowList {
 public:
  struct Block {
    std::uint32_t network = 0;  // host byte order, host bits cleared
    std::uint32_t mask = 0;     // host byte order
    bool operator==(const Block&) const = default;
  };

  // Accepts everyone.
  SenderAllowList() = default;

  // Parses each entry (surrounding spaces ignored). Entries that are not an
  // address or a block are skipped and, with their reason, appended to
  // `malformed` ("10.0.0.300: not an IPv4 address").
  static SenderAllowList parse(const std::vector<std::string>& entries, std::vector<std::string>* malformed = nullptr);
  // One entry; none when malformed, with the reason in `why`.
  static std::optional<Block> parseEntry(std::string_view entry, std::string* why = nullptr);
  // "a.b.c.d" in host byte order; none unless exactly four decimal parts 0..255.
  static std::optional<std::uint32_t> parseAddress(std::string_view text);

  // True when the list restricts nothing.
  bool acceptsEveryone() const { return !restricted_; }
  // `address` in host byte order.
  bool allows(std::uint32_t address) const;
  const std::vector<Block>& blocks() const { return blocks_; }

 private:
  bool restricted_ = false;
  std::vector<Block> blocks_;
};

}  // namespace velmora
