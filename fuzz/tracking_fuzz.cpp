// libFuzzer target: datagrams through the tracking receiver's detection and
// each decoder, with no sockets and no main queue. Every input, whole and
// without its first byte, must decode exactly as the plain reference decoder
// (ReferenceTrackingDecoder) reads it. The first byte then picks an entry
// point; the sink checks every frame's invariants and keeps nothing.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <string_view>

#include "ReferenceTrackingDecoder.h"
#include "osc/OSCParser.h"
#include "tracking/TrackingDecoders.h"
#include "tracking/TrackingReceiver.h"

namespace {

const std::string kSender = "10.0.0.2:50000";

bool finite(const velmora::float3& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

class CheckingSink final : public velmora::TrackingSink {
 public:
  void deliver(velmora::DecodedFrame d) override {
    if (d.frame.sender != kSender) std::abort();
    // A rotation is (pitch, yaw, roll) with every component finite.
    if (d.frame.rotation && !finite(*d.frame.rotation)) std::abort();
    // Components a packet did not set are placeholders, completed on the main thread.
    const velmora::FaceFrame f = std::move(d).completed(velmora::float3(0.1f, 0.2f, 0.3f), velmora::float3(1.0f));
    if (f.rotation && !finite(*f.rotation)) std::abort();
    ++frames;
  }
  void deliverUnknown(const std::string& sender) override {
    if (sender != kSender) std::abort();
    ++unknown;
  }
  std::uint64_t frames = 0, unknown = 0;
};

// The receiver decodes OSC and JSON straight from the datagram: the OSC walk
// must find a message exactly where the codec does, and the JSON fast path
// must agree with parsing first and decoding the parsed result.
void crossCheck(std::span<const std::uint8_t> body) {
  const auto messages = velmora::OSCParser::parsePacket(body);
  const auto fastOSC = velmora::decodeOSCPacket(body, kSender);
  if (fastOSC.has_value() != !messages.empty()) std::abort();

  const auto document = nlohmann::json::parse(body.begin(), body.end(), nullptr, false);
  const auto fastJSON = velmora::decodeJSONText(body, kSender);
  if (fastJSON.has_value() != document.is_object()) std::abort();
  // Same fields, bit for bit (the reference decoder's rendering of a frame).
  using velmora::reference::shown;
  if (fastJSON && shown(*fastJSON) != shown(velmora::decodeJSON(document, kSender))) std::abort();
}

// Same format, names, value bits, head and set components as the reference.
void againstReference(std::span<const std::uint8_t> bytes) {
  const std::string d = velmora::reference::crossCheck(bytes);
  if (d.empty()) return;
  // fwrite, not %s: a name may hold a zero byte.
  std::fputs("decodeDatagram differs from the reference decoder:\n", stderr);
  std::fwrite(d.data(), 1, d.size(), stderr);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static auto sink = std::make_shared<CheckingSink>();
  static velmora::TrackingReceiver receiver(sink);
  againstReference({data, size});
  if (size == 0) return 0;
  const std::span<const std::uint8_t> body(data + 1, size - 1);
  againstReference(body);
  const std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
  const std::uint64_t before = sink->frames + sink->unknown;
  switch (data[0] % 6) {
    case 0: {
      const auto packets = receiver.statistics().packetsReceived;
      receiver.processData(body, kSender);
      // Every datagram ends as exactly one frame or one unknown.
      if (sink->frames + sink->unknown != before + 1) std::abort();
      if (receiver.statistics().packetsReceived != packets + 1) std::abort();
      break;
    }
    case 1: {
      auto liveLink = velmora::decodeUnrealLiveLinkBinary(body, kSender);
      if (liveLink.has_value() != (body.size() >= 244)) std::abort();
      if (liveLink) sink->deliver(std::move(*liveLink));
      break;
    }
    case 2:
      sink->deliver(velmora::decodeIFacialMocap(text, kSender));
      break;
    case 3: {
      auto json = nlohmann::json::parse(body.begin(), body.end(), nullptr, false);
      if (json.is_object()) sink->deliver(velmora::decodeJSON(json, kSender));
      break;
    }
    case 4:
      if (auto osc = velmora::decodeOSCPacket(body, kSender)) sink->deliver(std::move(*osc));
      break;
    case 5:
      crossCheck(body);
      break;
  }
  return 0;
}
