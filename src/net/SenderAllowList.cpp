#include "net/SenderAllowList.h"

#include <charconv>

namespace velmora {

namespace {

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// A decimal number of 1 to 3 digits (no sign, no spaces) up to `max`.
std::optional<unsigned> smallNumber(std::string_view s, unsigned max) {
  if (s.empty() || s.size() > 3) return std::nullopt;
  unsigned value = 0;
  auto r = std::from_chars(s.data(), s.data() + s.size(), value);
  if (r.ec != std::errc() || r.ptr != s.data() + s.size() || value > max) return std::nullopt;
  return value;
}

}  // namespace

std::optional<std::uint32_t> SenderAllowList::parseAddress(std::string_view text) {
  std::uint32_t address = 0;
  for (int part = 0; part < 4; ++part) {
    const std::size_t dot = text.find('.');
    if ((part < 3) != (dot != std::string_view::npos)) return std::nullopt;
    const auto octet = smallNumber(text.substr(0, dot), 255);
    if (!octet) return std::nullopt;
    address = address << 8 | *octet;
    text = part < 3 ? text.substr(dot + 1) : std::string_view();
  }
  return address;
}

std::optional<SenderAllowList::Block> SenderAllowList::parseEntry(std::string_view entry, std::string* why) {
  const std::string_view text = trimmed(entry);
  const std::size_t slash = text.find('/');
  const auto address = parseAddress(text.substr(0, slash));
  if (!address) {
    if (why) *why = "not an IPv4 address";
    return std::nullopt;
  }
  unsigned prefix = 32;
  if (slash != std::string_view::npos) {
    const auto bits = smallNumber(text.substr(slash + 1), 32);
    if (!bits) {
      if (why) *why = "the prefix length after \"/\" must be 0 to 32";
      return std::nullopt;
    }
    prefix = *bits;
  }
  Block block;
  block.mask = prefix == 0 ? 0u : ~std::uint32_t(0) << (32 - prefix);
  block.network = *address & block.mask;
  return block;
}

SenderAllowList SenderAllowList::parse(const std::vector<std::string>& entries, std::vector<std::string>* malformed) {
  SenderAllowList list;
  list.restricted_ = !entries.empty();
  for (const std::string& entry : entries) {
    std::string why;
    if (auto block = parseEntry(entry, &why)) {
      list.blocks_.push_back(*block);
    } else if (malformed) {
      malformed->push_back("\"" + entry + "\": " + why);
    }
  }
  return list;
}

bool SenderAllowList::allows(std::uint32_t address) const {
  if (!restricted_) return true;
  for (const Block& b : blocks_) {
    if ((address & b.mask) == b.network) return true;
  }
  return false;
}

}  // namespace velmora
