#include "osc/OSCWriter.h"

#include <bit>
#include <cstring>

namespace velmora {

using Element = OSCWriter::Element;
using Message = OSCWriter::Message;
using Bundle = OSCWriter::Bundle;

Element::Element(Bytes* external, Bundle* parent) : out_(external ? external : &own_), parent_(parent) {
  if (parent_) {
    // Opening an element inside a bundle: its size field first, kept current by grew().
    sizeField_ = out_->size();
    appendBigEndian(0, 4);
  }
}

OSCWriter::Bytes Element::bytes() {
  if (out_ == &own_) return std::move(own_);
  return *out_;
}

// This element is the buffer's tail, and so is every enclosing one: each size
// field is the distance from just after it to the end.
void Element::grew() {
  for (Element* e = this; e; e = e->parent_) {
    if (e->sizeField_ == npos) continue;
    const auto size = static_cast<std::uint32_t>(out_->size() - e->sizeField_ - 4);
    for (int k = 0; k < 4; ++k) (*out_)[e->sizeField_ + k] = static_cast<std::uint8_t>(size >> (24 - 8 * k));
  }
}

void Element::append(std::span<const std::uint8_t> data) {
  out_->insert(out_->end(), data.begin(), data.end());
  grew();
}

void Element::appendBigEndian(std::uint64_t value, int byteCount) {
  for (int shift = 8 * (byteCount - 1); shift >= 0; shift -= 8) out_->push_back(static_cast<std::uint8_t>(value >> shift));
  grew();
}

void Element::appendString(std::string_view text) {
  out_->insert(out_->end(), text.begin(), text.end());
  out_->insert(out_->end(), 4 - text.size() % 4, 0);  // 1..4 zero bytes: terminator plus padding
  grew();
}

Message::Message(Bytes* external, Bundle* parent, std::string_view address) : Element(external, parent) {
  appendString(address);
  tagsStart_ = out_->size();
  appendString(",");
}

// The tag string ',' + tags with its padding stays in place: a new tag takes
// the first zero of the padding; when that zero was the terminator (the text
// filled its 4-byte group), a group of 4 zeros goes in before the arguments.
void Message::addTag(char tag) {
  const std::size_t textLength = 1 + tagCount_;  // ',' and the tags so far
  const std::size_t paddedEnd = tagsStart_ + textLength / 4 * 4 + 4;
  if ((textLength + 1) % 4 == 0) out_->insert(out_->begin() + static_cast<std::ptrdiff_t>(paddedEnd), 4, 0);
  (*out_)[tagsStart_ + textLength] = static_cast<std::uint8_t>(tag);
  ++tagCount_;
  grew();
}

Message& Message::i(std::int32_t value) {
  addTag('i');
  appendBigEndian(static_cast<std::uint32_t>(value), 4);
  return *this;
}

Message& Message::f(float value) {
  addTag('f');
  appendBigEndian(std::bit_cast<std::uint32_t>(value), 4);
  return *this;
}

Message& Message::d(double value) {
  addTag('d');
  appendBigEndian(std::bit_cast<std::uint64_t>(value), 8);
  return *this;
}

Message& Message::s(std::string_view text) {
  addTag('s');
  appendString(text);
  return *this;
}

Message& Message::b(std::span<const std::uint8_t> blob) {
  addTag('b');
  appendBigEndian(static_cast<std::uint32_t>(blob.size()), 4);
  out_->insert(out_->end(), blob.begin(), blob.end());
  out_->insert(out_->end(), (4 - blob.size() % 4) % 4, 0);
  grew();
  return *this;
}

Message& Message::boolean(bool value) {
  addTag(value ? 'T' : 'F');
  return *this;
}

Bundle::Bundle(Bytes* external, Bundle* parent, std::uint64_t timeTag) : Element(external, parent) {
  appendString("#bundle");
  appendBigEndian(timeTag, 8);
}

Message Bundle::message(std::string_view address) { return Message(out_, this, address); }

Bundle Bundle::bundle(std::uint64_t timeTag) { return Bundle(out_, this, timeTag); }

Bundle& Bundle::add(std::span<const std::uint8_t> element) {
  appendBigEndian(element.size(), 4);
  append(element);
  return *this;
}

}  // namespace velmora
