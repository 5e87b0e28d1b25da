// The in-place OSC reader (OSCParser::forEachMessage and the text scan that
// reads sixteen, eight and four bytes at a time) against the plain readers:
// texts of every length at every alignment, with bytes above 0x7F before,
// at and after the terminator, and messages with more arguments than fit
// in place.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "ReferenceOSCString.h"
#include "osc/OSCParser.h"
#include "support/OscBytes.h"

namespace velmora {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Reads from `start` with both readers; they must agree on text and offset.
void expectSameRead(const Bytes& data, std::size_t start, const std::string& label) {
  std::size_t offset = start, plainOffset = start;
  const auto text = OSCParser::readString(data, offset);
  const auto plain = reference::readOSCString(data, plainOffset);
  EXPECT_EQ(text, plain) << label;
  EXPECT_EQ(offset, plainOffset) << label;
}

TEST(OSCInPlaceReaderTest, TextsOfEveryLengthAndAlignment) {
  // A text of `length` letters from `lead`, one byte replaced by `odd` at
  // `oddAt` (before, at or after the terminator), a terminator (or none),
  // then padding groups that are zero or not.
  const std::vector<std::vector<std::uint8_t>> odds = {{0xC3, 0xA9}, {0xFF}, {0xE2, 0x82, 0xAC}, {0x80}};
  int checked = 0;
  for (std::size_t lead = 0; lead < 4; ++lead) {
    for (std::size_t length = 0; length <= 40; ++length) {
      for (bool terminated : {true, false}) {
        for (std::size_t o = 0; o <= odds.size(); ++o) {
          for (std::size_t oddAt = 0; oddAt < length + 6; oddAt += (o == odds.size() ? 100 : 1)) {
            Bytes b(lead, 'x');
            for (std::size_t i = 0; i < length; ++i) b.push_back(std::uint8_t('a' + i % 26));
            if (terminated) {
              b.push_back(0);
              b.insert(b.end(), {0, 0, 0, 0, 0, 0, 0, 0, 'q', 0, 0, 0});
            }
            if (o < odds.size() && lead + oddAt < b.size()) {
              const auto& odd = odds[o];
              b.erase(b.begin() + long(lead + oddAt));
              b.insert(b.begin() + long(lead + oddAt), odd.begin(), odd.end());
            }
            const std::string label = "lead " + std::to_string(lead) + " length " + std::to_string(length) +
                                      (terminated ? "" : " unterminated") + " odd " + std::to_string(o) + " at " +
                                      std::to_string(oddAt);
            for (std::size_t start = 0; start <= lead + 1 && start <= b.size() + 1; ++start) {
              expectSameRead(b, start, label + " from " + std::to_string(start));
            }
            ++checked;
          }
        }
      }
    }
  }
  EXPECT_GT(checked, 10000);
}

// Every message the in-place reader hands out equals parsePacket's copy.
void expectViewsMatch(const Bytes& datagram) {
  const auto owned = OSCParser::parsePacket(datagram);
  std::vector<OSCMessage> copied;
  const std::size_t count = OSCParser::forEachMessage(datagram, [&](const OSCMessageView& view) {
    OSCMessage m;
    m.address = std::string(view.address);
    for (const auto& a : view.arguments) {
      std::visit(
          [&](const auto& v) {
            if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::string_view>) {
              m.arguments.emplace_back(std::string(v));
            } else {
              m.arguments.emplace_back(v);
            }
          },
          a);
    }
    copied.push_back(std::move(m));
  });
  EXPECT_EQ(count, owned.size());
  EXPECT_EQ(copied, owned);
}

TEST(OSCInPlaceReaderTest, ManyArgumentsAndMixedMessagesInOneBundle) {
  std::vector<test::OscArgument> many;
  for (int i = 0; i < 40; ++i) {
    if (i % 3 == 0) many.emplace_back("name" + std::to_string(i));
    else many.emplace_back(float(i) + 0.5f);
  }
  const Bytes big = test::oscMessage("/many", many);
  const Bytes small = test::oscMessage("/VMC/Ext/Blend/Val", {"jawOpen", 0.25f});
  expectViewsMatch(big);
  expectViewsMatch(test::oscBundle({big, small, big}));
  expectViewsMatch(test::oscBundle({small, test::oscMessage("/caf\xC3\xA9", {1.0f}),
                                    test::oscMessage("/bad\xFF", {1.0f})}));

  // The in-place count reaches past sixteen arguments.
  std::size_t arguments = 0;
  OSCParser::forEachMessage(big, [&](const OSCMessageView& m) { arguments = m.arguments.size(); });
  EXPECT_EQ(arguments, 40u);
}

}  // namespace
}  // namespace velmora
