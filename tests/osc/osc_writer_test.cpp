// OSC encoder against literal datagrams; offsets annotated, numbers big-endian.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "osc/OSCWriter.h"

namespace velmora {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(OSCWriterTest, MessageWithEveryArgumentKind) {
  const Bytes blob{0xAA, 0xBB, 0xCC, 0xDD, 0xEE};
  const Bytes got = OSCWriter::message("/cue").i(-2).f(1.0f).s("abcd").b(blob).boolean(true).boolean(false).bytes();
  const Bytes want = {
      '/', 'c', 'u', 'e', 0, 0, 0, 0,                 //  0: address, a whole group of padding
      ',', 'i', 'f', 's', 'b', 'T', 'F', 0,           //  8: seven tags, one terminator
      0xFF, 0xFF, 0xFF, 0xFE,                         // 16: int32 -2
      0x3F, 0x80, 0x00, 0x00,                         // 20: float32 1.0
      'a', 'b', 'c', 'd', 0, 0, 0, 0,                 // 24: string filling its group, then 4 zeros
      0, 0, 0, 5, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0, 0, 0,  // 32: blob size 5, bytes, padding to 44
  };
  EXPECT_EQ(got, want);
}

TEST(OSCWriterTest, TagStringGrowsByAGroupEveryFourthTag) {
  // No arguments: ",\0\0\0" at 4.
  EXPECT_EQ(OSCWriter::message("/a").bytes(), (Bytes{'/', 'a', 0, 0, ',', 0, 0, 0}));
  // ",fff" fills 4..7, so its terminator opens a group at 8; the floats follow at 12.
  EXPECT_EQ(OSCWriter::message("/a").f(0.5f).f(0.5f).f(0.5f).bytes(),
            (Bytes{'/', 'a', 0, 0, ',', 'f', 'f', 'f', 0, 0, 0, 0, 0x3F, 0, 0, 0, 0x3F, 0, 0, 0, 0x3F, 0, 0, 0}));
}

TEST(OSCWriterTest, NestedBundlesKeepEverySizeCurrent) {
  Bytes out{0x99};  // the caller's bytes stay in front
  out.reserve(128);
  const std::uint8_t* storage = out.data();
  {
    OSCWriter::Bundle outer = OSCWriter::bundle(out, 0x0000000100000002ull);
    outer.message("/a").i(0x01020304);
    OSCWriter::Bundle inner = outer.bundle();
    inner.message("/b");
  }
  const Bytes want = {
      0x99,                                            //  0: the caller's byte
      '#', 'b', 'u', 'n', 'd', 'l', 'e', 0,            //  1
      0, 0, 0, 1, 0, 0, 0, 2,                          //  9: time tag 1 s + 2/2^32
      0, 0, 0, 12,                                     // 17: element of 12 bytes
      '/', 'a', 0, 0, ',', 'i', 0, 0, 1, 2, 3, 4,      // 21
      0, 0, 0, 28,                                     // 33: nested bundle of 28 bytes
      '#', 'b', 'u', 'n', 'd', 'l', 'e', 0,            // 37
      0, 0, 0, 0, 0, 0, 0, 1,                          // 45: "immediately"
      0, 0, 0, 8,                                      // 53
      '/', 'b', 0, 0, ',', 0, 0, 0,                    // 57..64
  };
  EXPECT_EQ(out, want);
  EXPECT_EQ(out.data(), storage);  // written within the reserved capacity

  // A ready-made element copied in gives the same bytes.
  Bytes copied = OSCWriter::bundle(0x0000000100000002ull)
                     .add(OSCWriter::message("/a").i(0x01020304).bytes())
                     .add(OSCWriter::bundle().add(OSCWriter::message("/b").bytes()).bytes())
                     .bytes();
  EXPECT_EQ(copied, Bytes(want.begin() + 1, want.end()));
}

}  // namespace
}  // namespace velmora
