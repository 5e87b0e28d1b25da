// OSC wire codec on literal datagrams. Byte offsets are annotated in the
// comments; every multi-byte number is big-endian. The in-place reader
// (forEachMessage) walks the same way as parsePacket; that the two agree, and
// that the text scan reads as the plain byte-by-byte reader does, is the OSC
// fuzzer's cross-check.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "base/Utf8.h"
#include "osc/OSCParser.h"
#include "support/OscBytes.h"

namespace velmora {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Messages = std::vector<OSCMessage>;

Messages parse(const Bytes& datagram) { return OSCParser::parsePacket(datagram); }

// Bundles: "#bundle\0" (0..7), time tag "immediately" (8..15), then the
// pieces as given; an element is its int32 size and its body.
Bytes element(const Bytes& body) {
  const auto n = static_cast<std::uint32_t>(body.size());
  Bytes out{std::uint8_t(n >> 24), std::uint8_t(n >> 16), std::uint8_t(n >> 8), std::uint8_t(n)};
  out.insert(out.end(), body.begin(), body.end());
  return out;
}
Bytes bundle(std::initializer_list<Bytes> pieces) {
  Bytes out{'#', 'b', 'u', 'n', 'd', 'l', 'e', 0, 0, 0, 0, 0, 0, 0, 0, 1};
  for (const auto& p : pieces) out.insert(out.end(), p.begin(), p.end());
  return out;
}
// `b` with the bytes from `at` on replaced by `values`.
Bytes with(Bytes b, std::size_t at, std::initializer_list<std::uint8_t> values) {
  std::copy(values.begin(), values.end(), b.begin() + static_cast<std::ptrdiff_t>(at));
  return b;
}

// "/a\0\0" ",f\0\0" 3F 80 00 00: the address /a with the float 1.0.
const Bytes kFloatOne = {'/', 'a', 0, 0, ',', 'f', 0, 0, 0x3F, 0x80, 0, 0};
const Bytes kFloatTwoAtB = {'/', 'b', 0, 0, ',', 'f', 0, 0, 0x40, 0, 0, 0};
// "/VMC/Ext/Blend/Val\0\0" (0..19), ",sf\0" (20..23), "jawOpen\0" (24..31), float 0.7 (32..35).
const Bytes kVmc = {'/', 'V', 'M', 'C', '/', 'E', 'x', 't', '/', 'B', 'l', 'e', 'n', 'd', '/', 'V', 'a', 'l', 0, 0,
                    ',', 's', 'f', 0, 'j', 'a', 'w', 'O', 'p', 'e', 'n', 0, 0x3F, 0x33, 0x33, 0x33};
const OSCMessage a1{"/a", {1.0f}}, b2{"/b", {2.0f}};

TEST(OSCParserTest, LiteralDatagrams) {
  // As deep as a 64 KiB datagram allows (over 3000 levels): each level is a
  // 16-byte header plus a 4-byte size field around the next.
  Bytes deep = kFloatOne;
  while (deep.size() + 20 <= 65507) deep = bundle({element(deep)});
  struct Row {
    const char* what;
    Bytes datagram;
    Messages expected;
  };
  const Row rows[] = {
      {"3 bytes", {'/', 'a', 'b'}, {}},
      {"empty", {}, {}},
      {"4 bytes, no leading / required", {'a', 'b', 'c', 0}, {{"abc", {}}}},
      {"unterminated address to the end", {'/', 'a', 'b', 'c', 'd'}, {{"/abcd", {}}}},
      {"float 1.0", kFloatOne, {a1}},
      // The tag string's padding ends at 8, so a zero group there is the argument (fade out, a closed eye).
      {"float 0.0 at 8", with(kFloatOne, 8, {0, 0}), {{"/a", {0.0f}}}},
      {"int 5, zero-led", {'/', 'a', 0, 0, ',', 'i', 0, 0, 0, 0, 0, 5}, {{"/a", {std::int32_t(5)}}}},
      {"int 0 (NDI off)", {'/', 'a', 0, 0, ',', 'i', 0, 0, 0, 0, 0, 0}, {{"/a", {std::int32_t(0)}}}},
      {"int 16,777,216", {'/', 'a', 0, 0, ',', 'i', 0, 0, 0x01, 0, 0, 0}, {{"/a", {std::int32_t(16777216)}}}},
      {"int -2", {'/', 'a', 0, 0, ',', 'i', 0, 0, 0xFF, 0xFF, 0xFF, 0xFE}, {{"/a", {std::int32_t(-2)}}}},
      {"double 0.7 at 8..15", {'/', 'a', 0, 0, ',', 'd', 0, 0, 0x3F, 0xE6, 0x66, 0x66, 0x66, 0x66, 0x66, 0x66},
       {{"/a", {0.7}}}},
      // Only 7 of the double's 8 bytes: "d" is skipped, then "f" reads the first 4 of them.
      {"double cut short", {'/', 'a', 0, 0, ',', 'd', 'f', 0, 0x3F, 0x80, 0, 0, 0x11, 0x22, 0x33}, {a1}},
      {"float with two bytes", {'/', 'a', 0, 0, ',', 'f', 0, 0, 0x3F, 0x80}, {{"/a", {}}}},
      {",TF: no bytes consumed", {'/', 'a', 0, 0, ',', 'T', 'F', 0}, {{"/a", {true, false}}}},
      // A blob tag is ignored and consumes nothing: size 4 at 12 and its bytes stay unread.
      {",fb", {'/', 'a', 0, 0, ',', 'f', 'b', 0, 0x40, 0, 0, 0, 0, 0, 0, 4, 1, 2, 3, 4}, {{"/a", {2.0f}}}},
      {",bf: f reads at 8", {'/', 'a', 0, 0, ',', 'b', 'f', 0, 0x40, 0, 0, 0}, {{"/a", {2.0f}}}},
      {"tags without the comma", {'/', 'a', 0, 0, 'f', 0, 0, 0, 0x3F, 0x80, 0, 0}, {{"/a", {}}}},
      {"a lone comma", {'/', 'a', 0, 0, ',', 0, 0, 0, 0x3F, 0x80, 0, 0}, {{"/a", {}}}},
      {"text and float", kVmc, {{"/VMC/Ext/Blend/Val", {"jawOpen", 0.7f}}}},
      {"a resting jaw after the name's padding", with(kVmc, 32, {0, 0, 0, 0}), {{"/VMC/Ext/Blend/Val", {"jawOpen", 0.0f}}}},
      // ",ssf\0" (4..11), "x" (12..15), an empty string (16..19), float 1.0 (20..23).
      {"empty text is an argument",
       {'/', 'a', 0, 0, ',', 's', 's', 'f', 0, 0, 0, 0, 'x', 0, 0, 0, 0, 0, 0, 0, 0x3F, 0x80, 0, 0},
       {{"/a", {"x", "", 1.0f}}}},
      {"address filling its group", {'a', 'b', 'c', 0, ',', 's', 0, 0, 'h', 'i', 0, 0}, {{"abc", {"hi"}}}},
      {"address C3 28 is not UTF-8", {'/', 0xC3, 0x28, 0, ',', 'f', 0, 0, 0x3F, 0x80, 0, 0}, {}},
      // An invalid text is skipped; at its terminator the offset is 11, so "f" reads bytes 11..14.
      {"invalid text argument", {'/', 'a', 0, 0, ',', 's', 'f', 0, 'x', 0xFF, 'y', 0, 0x3F, 0x80, 0, 0},
       {{"/a", {std::bit_cast<float>(0x003F8000u)}}}},
      {"bundle of two", bundle({element(kFloatOne), element(kFloatTwoAtB)}), {a1, b2}},
      {"a size-0 element ends the bundle", bundle({element(kFloatOne), Bytes{0, 0, 0, 0}, element(kFloatTwoAtB)}),
       {a1}},
      // The second size field (32..35) points past the end.
      {"last size past the end", with(bundle({element(kFloatOne), element(kFloatTwoAtB)}), 35, {200}), {a1}},
      {"nested bundle in place",
       bundle({element(kFloatOne), element(bundle({element(kFloatTwoAtB), element(kFloatOne)})), element(kFloatTwoAtB)}),
       {a1, b2, a1, b2}},
      {"element under 4 bytes", bundle({element({'/', 'x', 0}), element(kFloatTwoAtB)}), {b2}},
      {"#bundle without its terminator (7-byte check)", with(bundle({element(kFloatTwoAtB)}), 7, {'X'}), {b2}},
      {"header only", bundle({}), {}},
      {"7 bytes of #bundle", {'#', 'b', 'u', 'n', 'd', 'l', 'e'}, {}},
      {"nested as deep as a datagram allows", deep, {a1}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(parse(row.datagram), row.expected);
  }
  // Zero floats keep their sign: 00 00 00 00 is +0, 80 00 00 00 is -0.
  EXPECT_FALSE(std::signbit(*parse(with(kFloatOne, 8, {0, 0}))[0].arguments[0].get<float>()));
  EXPECT_TRUE(std::signbit(*parse(with(kFloatOne, 8, {0x80, 0}))[0].arguments[0].get<float>()));
}

TEST(OSCParserTest, ManyArgumentsAndMixedMessagesInOneBundle) {
  std::vector<test::OscArgument> many;
  OSCMessage expected{"/many", {}};
  for (int i = 0; i < 40; ++i) {  // more than fit in place
    if (i % 3 == 0) many.emplace_back("name" + std::to_string(i));
    else many.emplace_back(float(i) + 0.5f);
    std::visit([&](const auto& v) { expected.arguments.emplace_back(v); }, many.back());
  }
  const Bytes big = test::oscMessage("/many", many);
  const Bytes small = test::oscMessage("/VMC/Ext/Blend/Val", {"jawOpen", 0.25f});
  const OSCMessage jaw{"/VMC/Ext/Blend/Val", {"jawOpen", 0.25f}};
  EXPECT_EQ(parse(test::oscBundle({big, small, big})), (Messages{expected, jaw, expected}));
  EXPECT_EQ(parse(test::oscBundle({small, test::oscMessage("/caf\xC3\xA9", {1.0f}), test::oscMessage("/bad\xFF", {1.0f})})),
            (Messages{jaw, {"/caf\xC3\xA9", {1.0f}}}));
}

TEST(OSCParserTest, ReadStringOffsets) {
  const Bytes b = {'a', 'b', 0, 0, 0, 0, 0, 0, 'c', 0};
  std::size_t offset = 0;
  // Each read in turn, and the offset after it: "ab" takes its terminator and
  // padding only (4..7 is the next item), an empty string is four zero bytes,
  // padding stops at the end of the data, and a read exactly at the end is "".
  for (const auto& [text, after] : {std::pair<std::string, std::size_t>{"ab", 4}, {"", 8}, {"c", 10}, {"", 10}}) {
    EXPECT_EQ(OSCParser::readString(b, offset), text);
    EXPECT_EQ(offset, after);
  }
  offset = 11;
  EXPECT_EQ(OSCParser::readString(b, offset), std::nullopt);
}

TEST(OSCParserTest, UTF8Validity) {
  const std::pair<Bytes, bool> rows[] = {
      {{0xC0, 0xAF}, false},              // overlong
      {{0xED, 0xA0, 0x80}, false},        // surrogate
      {{0xF4, 0x90, 0x80, 0x80}, false},  // above U+10FFFF
      {{0xE2, 0x82}, false},              // cut short
      {{0xE2, 0x82, 0xAC}, true},         // euro sign
      {{0xF0, 0x9F, 0x98, 0x80}, true},   // emoji
  };
  for (const auto& [bytes, valid] : rows) EXPECT_EQ(isValidUTF8(bytes), valid) << int(bytes[0]) << " " << bytes.size();
}

TEST(OSCMessageTest, AccessorsAndPrintedArguments) {
  // A first argument of each kind and what the accessors read of it: a float
  // (ints and doubles converted), a bool (a number above 0.5), a text.
  using Read = std::tuple<std::optional<float>, std::optional<bool>, std::optional<std::string>>;
  const std::pair<OSCArgument, Read> rows[] = {
      {std::int32_t(1), {1.0f, true, {}}}, {std::int32_t(0), {0.0f, false, {}}}, {std::int32_t(-2), {-2.0f, false, {}}},
      {0.5f, {0.5f, false, {}}},           {0.51f, {0.51f, true, {}}},           {0.7, {0.7f, true, {}}},
      {2.5, {2.5f, true, {}}},             {false, {std::nullopt, false, {}}},   {true, {std::nullopt, true, {}}},
      {"true", {std::nullopt, {}, "true"}}, {"1", {std::nullopt, {}, "1"}},      {"hi", {std::nullopt, {}, "hi"}},
  };
  for (const auto& [argument, read] : rows) {
    const OSCMessage m{"/x", {argument}};
    EXPECT_EQ(Read(m.floatValue(), m.boolValue(), m.stringValue()), read) << argument.printed();
  }
  EXPECT_EQ((OSCMessage{"/x", {true, 1.0f}}).boolValue(), true);  // the first argument
  const OSCMessage none{"/x", {}};
  EXPECT_EQ(Read(none.floatValue(), none.boolValue(), none.stringValue()), Read());
  EXPECT_EQ(none.printedArguments(), "[]");
  // Shortest form that reads back to the same float, not its double expansion.
  EXPECT_EQ((OSCMessage{"/s", {0.1f, std::int32_t(7), "ghost", true, 0.25, -1.0f}}).printedArguments(),
            "[0.1, 7, \"ghost\", true, 0.25, -1]");
}

}  // namespace
}  // namespace velmora
