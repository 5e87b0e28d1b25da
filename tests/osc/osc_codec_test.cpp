// OSC wire codec on literal datagrams. Byte offsets are annotated in the
// comments; every multi-byte number is big-endian.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "base/Utf8.h"
#include "osc/OSCParser.h"

namespace velmora {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::vector<OSCMessage> parse(const Bytes& b) { return OSCParser::parsePacket(b); }

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

// "/a\0\0" ",f\0\0" 3F 80 00 00: the address /a with the float 1.0.
const Bytes kFloatOne = {'/', 'a', 0, 0, ',', 'f', 0, 0, 0x3F, 0x80, 0, 0};

TEST(OSCParserTest, TooShortAndMinimalMessages) {
  EXPECT_TRUE(parse({'/', 'a', 'b'}).empty());  // 3 bytes
  EXPECT_TRUE(parse({}).empty());
  // 4 bytes: three letters and the terminator, nothing after.
  auto m = parse({'a', 'b', 'c', 0});
  ASSERT_EQ(m.size(), 1u);
  EXPECT_EQ(m[0].address, "abc");  // no leading "/" required
  EXPECT_TRUE(m[0].arguments.empty());
  // An address without a terminator running to the end is accepted as it stands.
  m = parse({'/', 'a', 'b', 'c', 'd'});
  ASSERT_EQ(m.size(), 1u);
  EXPECT_EQ(m[0].address, "/abcd");
}

TEST(OSCParserTest, FloatArgumentsAfterTagsZeroIncluded) {
  auto m = parse(kFloatOne);
  ASSERT_EQ(m.size(), 1u);
  EXPECT_EQ(m[0].address, "/a");
  ASSERT_EQ(m[0].arguments.size(), 1u);
  EXPECT_EQ(m[0].floatValue(), 1.0f);

  // Float 0.0 at offset 8: the tag string's padding ends at 8, so the
  // zero group is the argument ("fade out", a closed eye).
  Bytes zero = kFloatOne;
  zero[8] = zero[9] = 0;
  m = parse(zero);
  ASSERT_EQ(m.size(), 1u);
  ASSERT_EQ(m[0].arguments.size(), 1u);
  EXPECT_EQ(m[0].floatValue(), 0.0f);
  EXPECT_FALSE(std::signbit(*m[0].arguments[0].get<float>()));

  // -0.0 (80 00 00 00) arrives with its sign.
  zero[8] = 0x80;
  m = parse(zero);
  ASSERT_EQ(m[0].arguments.size(), 1u);
  EXPECT_TRUE(std::signbit(*m[0].arguments[0].get<float>()));
}

TEST(OSCParserTest, IntegersOfEveryMagnitude) {
  // "/a\0\0" ",i\0\0" then the integer at offset 8; 0 and 5 are zero-led.
  Bytes five = {'/', 'a', 0, 0, ',', 'i', 0, 0, 0, 0, 0, 5};
  auto m = parse(five);
  ASSERT_EQ(m.size(), 1u);
  ASSERT_EQ(m[0].arguments.size(), 1u);
  EXPECT_EQ(*m[0].arguments[0].get<std::int32_t>(), 5);

  Bytes zero = {'/', 'a', 0, 0, ',', 'i', 0, 0, 0, 0, 0, 0};  // "NDI off"
  m = parse(zero);
  ASSERT_EQ(m[0].arguments.size(), 1u);
  EXPECT_EQ(m[0].boolValue(), false);

  Bytes big = {'/', 'a', 0, 0, ',', 'i', 0, 0, 0x01, 0, 0, 0};  // 16,777,216
  m = parse(big);
  ASSERT_EQ(m[0].arguments.size(), 1u);
  EXPECT_EQ(*m[0].arguments[0].get<std::int32_t>(), 16777216);

  Bytes negative = {'/', 'a', 0, 0, ',', 'i', 0, 0, 0xFF, 0xFF, 0xFF, 0xFE};  // -2
  m = parse(negative);
  ASSERT_EQ(m[0].arguments.size(), 1u);
  EXPECT_EQ(*m[0].arguments[0].get<std::int32_t>(), -2);
  EXPECT_EQ(m[0].floatValue(), -2.0f);
}

TEST(OSCParserTest, DoubleAndTruncatedNumbers) {
  // ",d\0\0" then 8 bytes of 0.7 at offset 8..15.
  Bytes d = {'/', 'a', 0, 0, ',', 'd', 0, 0, 0x3F, 0xE6, 0x66, 0x66, 0x66, 0x66, 0x66, 0x66};
  auto m = parse(d);
  ASSERT_EQ(m[0].arguments.size(), 1u);
  EXPECT_EQ(*m[0].arguments[0].get<double>(), 0.7);
  EXPECT_EQ(m[0].floatValue(), 0.7f);  // narrowed

  // Only 7 of the double's 8 bytes: the tag is skipped, then "f" reads the
  // first 4 of them (offset unchanged by the failed "d").
  Bytes shortD = {'/', 'a', 0, 0, ',', 'd', 'f', 0, 0x3F, 0x80, 0, 0, 0x11, 0x22, 0x33};
  m = parse(shortD);
  ASSERT_EQ(m[0].arguments.size(), 1u);
  EXPECT_EQ(*m[0].arguments[0].get<float>(), 1.0f);

  // ",f" with only two bytes after the tags: no argument, no overread.
  m = parse({'/', 'a', 0, 0, ',', 'f', 0, 0, 0x3F, 0x80});
  ASSERT_EQ(m.size(), 1u);
  EXPECT_TRUE(m[0].arguments.empty());
}

TEST(OSCParserTest, BooleansUnknownTagsAndBadTagStrings) {
  // ",TF\0": two booleans, no bytes consumed.
  auto m = parse({'/', 'a', 0, 0, ',', 'T', 'F', 0});
  ASSERT_EQ(m[0].arguments.size(), 2u);
  EXPECT_EQ(*m[0].arguments[0].get<bool>(), true);
  EXPECT_EQ(*m[0].arguments[1].get<bool>(), false);
  EXPECT_EQ(m[0].boolValue(), true);

  // ",fb\0" float 2.0 at 8, then blob size 4 at 12 and blob bytes at 16:
  // the blob tag is ignored and consumes nothing.
  m = parse({'/', 'a', 0, 0, ',', 'f', 'b', 0, 0x40, 0, 0, 0, 0, 0, 0, 4, 1, 2, 3, 4});
  ASSERT_EQ(m[0].arguments.size(), 1u);
  EXPECT_EQ(m[0].floatValue(), 2.0f);

  // ",bf": the unknown "b" leaves the offset for "f", which reads 2.0.
  m = parse({'/', 'a', 0, 0, ',', 'b', 'f', 0, 0x40, 0, 0, 0});
  ASSERT_EQ(m[0].arguments.size(), 1u);
  EXPECT_EQ(m[0].floatValue(), 2.0f);

  // A bare "f" without the comma, and a lone comma: no arguments.
  m = parse({'/', 'a', 0, 0, 'f', 0, 0, 0, 0x3F, 0x80, 0, 0});
  ASSERT_EQ(m.size(), 1u);
  EXPECT_TRUE(m[0].arguments.empty());
  m = parse({'/', 'a', 0, 0, ',', 0, 0, 0, 0x3F, 0x80, 0, 0});
  ASSERT_EQ(m.size(), 1u);
  EXPECT_TRUE(m[0].arguments.empty());
}

TEST(OSCParserTest, StringArgumentsAndTheirPadding) {
  // "/VMC/Ext/Blend/Val\0\0" (0..19), ",sf\0" (20..23),
  // "jawOpen\0" (24..31), float 0.7 (32..35).
  Bytes vmc = {'/', 'V', 'M', 'C', '/', 'E', 'x', 't', '/', 'B', 'l', 'e', 'n', 'd', '/', 'V', 'a', 'l', 0, 0,
               ',', 's', 'f', 0, 'j', 'a', 'w', 'O', 'p', 'e', 'n', 0, 0x3F, 0x33, 0x33, 0x33};
  auto m = parse(vmc);
  ASSERT_EQ(m[0].arguments.size(), 2u);
  EXPECT_EQ(m[0].stringValue(), "jawOpen");
  EXPECT_EQ(*m[0].arguments[1].get<float>(), 0.7f);

  // The same with value 0.0 (a resting jaw): it follows the name's padding.
  Bytes zero = vmc;
  zero[32] = zero[33] = zero[34] = zero[35] = 0;
  m = parse(zero);
  ASSERT_EQ(m[0].arguments.size(), 2u);
  EXPECT_EQ(*m[0].arguments[1].get<float>(), 0.0f);

  // ",ssf\0" (4..11), "x" (12..15), an empty string (16..19), float 1.0
  // (20..23): the empty string is an argument of its own.
  m = parse({'/', 'a', 0, 0, ',', 's', 's', 'f', 0, 0, 0, 0, 'x', 0, 0, 0, 0, 0, 0, 0, 0x3F, 0x80, 0, 0});
  ASSERT_EQ(m[0].arguments.size(), 3u);
  EXPECT_EQ(*m[0].arguments[0].get<std::string>(), "x");
  EXPECT_EQ(*m[0].arguments[1].get<std::string>(), "");
  EXPECT_EQ(*m[0].arguments[2].get<float>(), 1.0f);

  // An address whose 4th byte is zero-padded exactly: "abc\0" then tags.
  m = parse({'a', 'b', 'c', 0, ',', 's', 0, 0, 'h', 'i', 0, 0});
  EXPECT_EQ(m[0].stringValue(), "hi");
}

TEST(OSCParserTest, InvalidUTF8) {
  // Address bytes C3 28 are not UTF-8: no message.
  EXPECT_TRUE(parse({'/', 0xC3, 0x28, 0, ',', 'f', 0, 0, 0x3F, 0x80, 0, 0}).empty());
  // An invalid string argument is skipped; the following float is still read
  // (at the terminator the offset is 11, so "f" reads bytes 11..14).
  auto m = parse({'/', 'a', 0, 0, ',', 's', 'f', 0, 'x', 0xFF, 'y', 0, 0x3F, 0x80, 0, 0});
  ASSERT_EQ(m.size(), 1u);
  ASSERT_EQ(m[0].arguments.size(), 1u);
  EXPECT_TRUE(m[0].arguments[0].is<float>());

  const std::uint8_t overlong[] = {0xC0, 0xAF};
  const std::uint8_t surrogate[] = {0xED, 0xA0, 0x80};
  const std::uint8_t tooHigh[] = {0xF4, 0x90, 0x80, 0x80};
  const std::uint8_t truncated[] = {0xE2, 0x82};
  const std::uint8_t euro[] = {0xE2, 0x82, 0xAC};
  const std::uint8_t emoji[] = {0xF0, 0x9F, 0x98, 0x80};
  EXPECT_FALSE(isValidUTF8(overlong));
  EXPECT_FALSE(isValidUTF8(surrogate));
  EXPECT_FALSE(isValidUTF8(tooHigh));
  EXPECT_FALSE(isValidUTF8(truncated));
  EXPECT_TRUE(isValidUTF8(euro));
  EXPECT_TRUE(isValidUTF8(emoji));
}

TEST(OSCParserTest, ReadStringOffsets) {
  const Bytes b = {'a', 'b', 0, 0, 0, 0, 0, 0, 'c', 0};
  std::size_t offset = 0;
  EXPECT_EQ(OSCParser::readString(b, offset), "ab");
  EXPECT_EQ(offset, 4u);  // terminator and padding only; 4..7 is the next item
  EXPECT_EQ(OSCParser::readString(b, offset), "");
  EXPECT_EQ(offset, 8u);  // an empty string is four zero bytes
  EXPECT_EQ(OSCParser::readString(b, offset), "c");
  EXPECT_EQ(offset, 10u);  // padding stops at the end of the data
  EXPECT_EQ(OSCParser::readString(b, offset), "");  // a read exactly at the end
  offset = 11;
  EXPECT_EQ(OSCParser::readString(b, offset), std::nullopt);
}

TEST(OSCParserTest, Bundles) {
  const Bytes second = {'/', 'b', 0, 0, ',', 'f', 0, 0, 0x40, 0, 0, 0};
  // Two elements, in order.
  auto m = parse(bundle({element(kFloatOne), element(second)}));
  ASSERT_EQ(m.size(), 2u);
  EXPECT_EQ(m[0].address, "/a");
  EXPECT_EQ(m[1].address, "/b");

  // A size-0 second element ends the bundle: the third is never read.
  m = parse(bundle({element(kFloatOne), Bytes{0, 0, 0, 0}, element(second)}));
  ASSERT_EQ(m.size(), 1u);

  // The last element's size points past the end: the earlier one is kept.
  Bytes lying = bundle({element(kFloatOne), element(second)});
  lying[16 + 4 + 12 + 3] = 200;  // second size field at offset 32..35
  m = parse(lying);
  ASSERT_EQ(m.size(), 1u);
  EXPECT_EQ(m[0].address, "/a");

  // Nested bundles deliver their messages in place.
  m = parse(bundle({element(kFloatOne), element(bundle({element(second), element(kFloatOne)})), element(second)}));
  ASSERT_EQ(m.size(), 4u);
  EXPECT_EQ(m[0].address, "/a");
  EXPECT_EQ(m[1].address, "/b");
  EXPECT_EQ(m[2].address, "/a");
  EXPECT_EQ(m[3].address, "/b");

  // Elements shorter than 4 bytes yield nothing but do not end the bundle.
  m = parse(bundle({element({'/', 'x', 0}), element(second)}));
  ASSERT_EQ(m.size(), 1u);
  EXPECT_EQ(m[0].address, "/b");

  // "#bundle" without its terminator still counts (7-byte check); a header
  // with no elements yields nothing.
  Bytes noZero = bundle({element(second)});
  noZero[7] = 'X';
  EXPECT_EQ(parse(noZero).size(), 1u);
  EXPECT_TRUE(parse(bundle({})).empty());
  EXPECT_TRUE(parse({'#', 'b', 'u', 'n', 'd', 'l', 'e'}).empty());
}

TEST(OSCParserTest, DeeplyNestedBundleInOneDatagram) {
  // As deep as a 64 KiB datagram allows: each level is a 16-byte header
  // plus a 4-byte size field around the next.
  Bytes inner = kFloatOne;
  int depth = 0;
  while (inner.size() + 20 <= 65507) {
    inner = bundle({element(inner)});
    ++depth;
  }
  ASSERT_GT(depth, 3000);
  auto m = parse(inner);
  ASSERT_EQ(m.size(), 1u);
  EXPECT_EQ(m[0].floatValue(), 1.0f);
}

TEST(OSCMessageTest, Accessors) {
  auto make = [](OSCArgument a) { return OSCMessage{"/x", {std::move(a)}}; };
  EXPECT_EQ(make(std::int32_t(1)).boolValue(), true);
  EXPECT_EQ(make(0.5f).boolValue(), false);
  EXPECT_EQ(make(0.51f).boolValue(), true);
  EXPECT_EQ(make("true").boolValue(), std::nullopt);
  EXPECT_EQ(make("1").floatValue(), std::nullopt);
  EXPECT_EQ(make(true).floatValue(), std::nullopt);
  EXPECT_EQ(make(false).boolValue(), false);
  EXPECT_EQ(make(2.5).stringValue(), std::nullopt);
  EXPECT_EQ(make("hi").stringValue(), "hi");
  const OSCMessage none{"/x", {}};
  EXPECT_EQ(none.floatValue(), std::nullopt);
  EXPECT_EQ(none.boolValue(), std::nullopt);
  EXPECT_EQ(none.stringValue(), std::nullopt);
}

TEST(OSCMessageTest, PrintedArguments) {
  EXPECT_EQ((OSCMessage{"/r", {}}).printedArguments(), "[]");
  EXPECT_EQ((OSCMessage{"/s", {2.5f}}).printedArguments(), "[2.5]");
  // Shortest form that reads back to the same float, not its double expansion.
  EXPECT_EQ((OSCMessage{"/s", {0.1f, std::int32_t(7), "ghost", true, 0.25, -1.0f}}).printedArguments(),
            "[0.1, 7, \"ghost\", true, 0.25, -1]");
}

}  // namespace
}  // namespace velmora
