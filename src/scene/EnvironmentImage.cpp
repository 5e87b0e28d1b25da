#include "scene/EnvironmentImage.h"

#include <cmath>

namespace velmora {

namespace {
constexpr float kPi = 3.14159265358979f;
}

float3 EnvironmentImage::directionAt(float x, float y) const {
  const float u = (x + 0.5f) / static_cast<float>(width);
  const float v = (y + 0.5f) / static_cast<float>(height);
  const float phi = (u - 0.5f) * 2.0f * kPi;  // longitude from -z towards +x
  const float theta = v * kPi;                // 0 = up
  const float s = std::sin(theta);
  return {s * std::sin(phi), std::cos(theta), -s * std::cos(phi)};
}

float2 EnvironmentImage::coordinatesOf(const float3& d) {
  const float phi = std::atan2(d.x, -d.z);
  const float theta = std::acos(std::fmax(-1.0f, std::fmin(1.0f, d.y)));
  return {phi / (2.0f * kPi) + 0.5f, theta / kPi};
}

}  // namespace velmora
