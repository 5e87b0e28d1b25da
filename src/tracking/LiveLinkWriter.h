#pragma once
// The datagram the Live Link Face app sends, built from values: the phone
// simulator, the intake benchmarks and the tests all write it here.
//   version      1 byte, 6
//   device id    uint32 length, the bytes
//   subject      uint32 length, the bytes
//   frame time   uint32 frame, float32 subframe, uint32 rate numerator, uint32 rate denominator
//   count        1 byte, 61
//   values       61 float32: 52 blendshapes in Live Link order, head yaw, pitch,
//                roll (radians), left eye yaw, pitch, roll, right eye yaw, pitch, roll
// Every number big-endian. The decoder reads only the last 244 bytes.

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

namespace velmora {

class LiveLinkWriter {
 public:
  static constexpr std::size_t kValueCount = 61;

  struct FrameTime {
    std::uint32_t frame = 0;
    float subframe = 0.0f;
    std::uint32_t rateNumerator = 60;
    std::uint32_t rateDenominator = 1;
  };

  static std::vector<std::uint8_t> packet(std::string_view device, std::string_view subject, const FrameTime& time,
                                          const std::array<float, kValueCount>& values);
};

}  // namespace velmora
