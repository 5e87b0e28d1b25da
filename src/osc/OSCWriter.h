#pragma once
// OSC 1.0 encoder: messages and bundles (nested to any depth) to bytes.
// The inverse of OSCParser, with no sockets; any thread, one builder per buffer.
//
//   Bytes one = OSCWriter::message("/velmora/cue").s("smile").f(0.5f).bytes();
//   OSCWriter::Bundle b = OSCWriter::bundle(out);      // appends to `out`
//   b.message("/VMC/Ext/Blend/Val").s("jawOpen").f(0.25f);
//   b.message("/VMC/Ext/Blend/Apply");
//
// Each builder writes straight into its buffer and keeps it a complete,
// valid packet after every call: the type-tag string grows in place (its
// padding absorbs three tags out of four) and the size of every enclosing
// bundle element is rewritten as the element grows. So nothing is finished
// by hand, and appending to a caller's vector allocates only when that
// vector's capacity runs out. The element being written must stay the
// buffer's tail: finish one element before opening the next.
//
// Encoding: strings zero-terminated and padded with zeros to a multiple of 4
// bytes; int32, float32 and float64 big-endian (floats as their IEEE-754 bits); a blob is
// its int32 size, the bytes, zero padding; true/false (T/F) carry no bytes;
// a bundle is "#bundle\0", a 64-bit NTP time tag, then elements, each an
// int32 size followed by a message or bundle.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace velmora {

class OSCWriter {
 public:
  using Bytes = std::vector<std::uint8_t>;
  // NTP time tag meaning "at once": seconds 0, fraction 1.
  static constexpr std::uint64_t kImmediately = 1;

  class Bundle;

  // Common state: the buffer written into (this builder's own, or the
  // caller's), where this element's size field sits when it lies inside a
  // bundle, and the enclosing bundle whose size follows this one's growth.
  class Element {
   public:
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;

    // The packet written so far; for a builder over its own buffer, moves
    // that buffer out (the builder is then spent).
    Bytes bytes();

   protected:
    Element(Bytes* external, Bundle* parent);
    void grew();
    void append(std::span<const std::uint8_t> data);
    void appendBigEndian(std::uint64_t value, int byteCount);
    // Zero-terminated, zero-padded to a multiple of 4.
    void appendString(std::string_view text);

    Bytes own_;
    Bytes* out_;
    Bundle* parent_;
    // Offset of this element's int32 size field; npos when top-level.
    std::size_t sizeField_ = npos;
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

    friend class Bundle;
  };

  class Message : public Element {
   public:
    Message& i(std::int32_t value);
    Message& f(float value);
    // float64, tag 'd'.
    Message& d(double value);
    Message& s(std::string_view text);
    Message& b(std::span<const std::uint8_t> blob);
    // T or F.
    Message& boolean(bool value);

   private:
    friend class OSCWriter;
    friend class Bundle;
    Message(Bytes* external, Bundle* parent, std::string_view address);
    void addTag(char tag);

    std::size_t tagsStart_ = 0;  // offset of the ',' starting the type tags
    std::size_t tagCount_ = 0;   // tags after the ','
  };

  class Bundle : public Element {
   public:
    // A message element; write its arguments before opening the next element.
    Message message(std::string_view address);
    // A nested bundle element.
    Bundle bundle(std::uint64_t timeTag = kImmediately);
    // An element already encoded (a message or a bundle), copied in.
    Bundle& add(std::span<const std::uint8_t> element);

   private:
    friend class OSCWriter;
    friend class Element;
    Bundle(Bytes* external, Bundle* parent, std::uint64_t timeTag);
  };

  // Into a buffer the builder owns (take it with bytes()).
  static Message message(std::string_view address) { return Message(nullptr, nullptr, address); }
  static Bundle bundle(std::uint64_t timeTag = kImmediately) { return Bundle(nullptr, nullptr, timeTag); }
  // Appended to `out`, which must outlive the builder.
  static Message message(Bytes& out, std::string_view address) { return Message(&out, nullptr, address); }
  static Bundle bundle(Bytes& out, std::uint64_t timeTag = kImmediately) { return Bundle(&out, nullptr, timeTag); }
};

}  // namespace velmora
