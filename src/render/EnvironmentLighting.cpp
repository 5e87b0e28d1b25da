#include "render/EnvironmentLighting.h"

#include <algorithm>
#include <cmath>

namespace velmora {

namespace {

constexpr float kPi = 3.14159265358979f;

// Box-filters an equirectangular image down to w x h (each a divisor of the
// source size, which every use here guarantees), weighting by solid angle.
EnvironmentImage downsample(const EnvironmentImage& src, int w, int h) {
  if (src.width == w && src.height == h) return src;
  EnvironmentImage out;
  out.width = w;
  out.height = h;
  out.texels.assign(static_cast<std::size_t>(w) * h, float3(0.0f));
  const int fx = std::max(1, src.width / w), fy = std::max(1, src.height / h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      float3 sum(0.0f);
      float weight = 0.0f;
      for (int sy = y * fy; sy < std::min(src.height, (y + 1) * fy); ++sy) {
        const float s = std::sin((sy + 0.5f) / src.height * kPi);
        for (int sx = x * fx; sx < std::min(src.width, (x + 1) * fx); ++sx) {
          sum += src.at(sx, sy) * s;
          weight += s;
        }
      }
      out.texels[static_cast<std::size_t>(y) * w + x] = weight > 0.0f ? sum / weight : float3(0.0f);
    }
  return out;
}

// Resamples to w x h by nearest texel, for sources whose size does not divide.
EnvironmentImage resample(const EnvironmentImage& src, int w, int h) {
  EnvironmentImage out;
  out.width = w;
  out.height = h;
  out.texels.resize(static_cast<std::size_t>(w) * h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const int sx = std::min(src.width - 1, (x * src.width + src.width / 2) / w);
      const int sy = std::min(src.height - 1, (y * src.height + src.height / 2) / h);
      out.texels[static_cast<std::size_t>(y) * w + x] = src.at(sx, sy);
    }
  return out;
}

}  // namespace

std::array<float, 9> EnvironmentLighting::basis(const float3& d) {
  return {0.282095f,
          0.488603f * d.y,
          0.488603f * d.z,
          0.488603f * d.x,
          1.092548f * d.x * d.y,
          1.092548f * d.y * d.z,
          0.315392f * (3.0f * d.z * d.z - 1.0f),
          1.092548f * d.x * d.z,
          0.546274f * (d.x * d.x - d.y * d.y)};
}

float3 EnvironmentLighting::irradiance(const float3& normal) const {
  const auto y = basis(normal);
  float3 e(0.0f);
  for (int i = 0; i < 9; ++i) e += irradianceSH[static_cast<std::size_t>(i)] * y[static_cast<std::size_t>(i)];
  return glm::max(e, float3(0.0f));
}

EnvironmentLighting EnvironmentLighting::compute(const EnvironmentImage& image) {
  EnvironmentLighting out;
  if (image.width < 1 || image.height < 1 || image.texels.size() < static_cast<std::size_t>(image.width) * image.height)
    return out;  // no environment: no ambient light, black reflections

  // A working copy at 128 x 64 (or the image itself when it has that size).
  const int bw = specularBaseWidth, bh = specularBaseWidth / 2;
  const EnvironmentImage base = (image.width % bw == 0 && image.height % bh == 0) ? downsample(image, bw, bh)
                                                                                   : resample(image, bw, bh);

  // Irradiance SH: project the radiance (weighted by texel solid angle),
  // then convolve with the clamped cosine (A0 = pi, A1 = 2pi/3, A2 = pi/4).
  std::array<double, 27> acc{};
  const double dPhi = 2.0 * kPi / base.width, dTheta = kPi / base.height;
  for (int y = 0; y < base.height; ++y) {
    const double solid = dPhi * dTheta * std::sin((y + 0.5) * dTheta);
    for (int x = 0; x < base.width; ++x) {
      const float3 d = base.directionAt(static_cast<float>(x), static_cast<float>(y));
      const auto yb = basis(d);
      const float3& L = base.at(x, y);
      for (int i = 0; i < 9; ++i)
        for (int c = 0; c < 3; ++c) acc[static_cast<std::size_t>(i * 3 + c)] += L[c] * yb[static_cast<std::size_t>(i)] * solid;
    }
  }
  const float band[9] = {kPi, 2 * kPi / 3, 2 * kPi / 3, 2 * kPi / 3, kPi / 4, kPi / 4, kPi / 4, kPi / 4, kPi / 4};
  for (int i = 0; i < 9; ++i)
    out.irradianceSH[static_cast<std::size_t>(i)] =
        band[i] * float3(static_cast<float>(acc[static_cast<std::size_t>(i * 3)]),
                         static_cast<float>(acc[static_cast<std::size_t>(i * 3 + 1)]),
                         static_cast<float>(acc[static_cast<std::size_t>(i * 3 + 2)]));

  // Glossy chain. Level 0 is the image itself; level k convolves a 64 x 32
  // copy with a cosine-power lobe matching GGX at roughness k / (levels - 1)
  // (power 2 / alpha^2 - 2, alpha = roughness^2), at half the previous size.
  out.specular.push_back(base);
  const EnvironmentImage source = downsample(base, bw / 2, bh / 2);
  std::vector<float3> srcDir(source.texels.size());
  std::vector<float> srcSolid(source.texels.size());
  for (int y = 0; y < source.height; ++y)
    for (int x = 0; x < source.width; ++x) {
      const std::size_t i = static_cast<std::size_t>(y) * source.width + x;
      srcDir[i] = source.directionAt(static_cast<float>(x), static_cast<float>(y));
      srcSolid[i] = std::sin((y + 0.5f) / source.height * kPi);
    }
  for (int level = 1; level < specularLevels; ++level) {
    const float roughness = static_cast<float>(level) / (specularLevels - 1);
    const float alpha = std::max(roughness * roughness, 1e-3f);
    const float power = std::max(2.0f / (alpha * alpha) - 2.0f, 1.0f);
    EnvironmentImage img;
    img.width = std::max(1, bw >> level);
    img.height = std::max(1, bh >> level);
    img.texels.resize(static_cast<std::size_t>(img.width) * img.height);
    for (int y = 0; y < img.height; ++y)
      for (int x = 0; x < img.width; ++x) {
        const float3 r = img.directionAt(static_cast<float>(x), static_cast<float>(y));
        float3 sum(0.0f);
        float weight = 0.0f;
        for (std::size_t i = 0; i < srcDir.size(); ++i) {
          const float c = glm::dot(r, srcDir[i]);
          if (c <= 0.0f) continue;
          const float w = std::pow(c, power) * srcSolid[i];
          sum += source.texels[i] * w;
          weight += w;
        }
        img.texels[static_cast<std::size_t>(y) * img.width + x] = weight > 0.0f ? sum / weight : float3(0.0f);
      }
    out.specular.push_back(std::move(img));
  }
  return out;
}

}  // namespace velmora
