// CPU pieces of the render path: the ambient terms derived from an
// environment and PNG writing's failures. No GL is opened.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "render/EnvironmentLighting.h"
#include "render/PngWriter.h"
#include "scene/MaskSceneManager.h"
#include "support/SolidFrame.h"
#include "support/StbImage.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

using test::solidFrame;

// A uniform sky gives pi times its radiance from every direction; a bright
// upper half lights upward surfaces more; the stage environment is lit from above.
TEST(EnvironmentLightingTest, SkiesLightSurfacesByTheWayTheyFace) {
  const auto lighting = EnvironmentLighting::compute({64, 32, std::vector<float3>(64 * 32, float3(0.5f, 1.0f, 2.0f))});
  for (const float3 n : {float3(0, 1, 0), float3(0, -1, 0), float3(1, 0, 0), glm::normalize(float3(1, 1, 1))}) {
    const float3 e = lighting.irradiance(n);
    EXPECT_NEAR(e.x, 3.14159f * 0.5f, 0.02f);
    EXPECT_NEAR(e.z, 3.14159f * 2.0f, 0.08f);
  }
  ASSERT_EQ(lighting.specular.size(), static_cast<std::size_t>(EnvironmentLighting::specularLevels));
  EXPECT_EQ(std::pair(lighting.specular[0].width, lighting.specular.back().width), std::pair(128, 4));
  for (const auto& level : lighting.specular) EXPECT_NEAR(level.at(level.width / 2, level.height / 2).y, 1.0f, 1e-3f);
  // An empty image gives no ambient at all.
  const auto none = EnvironmentLighting::compute(EnvironmentImage{});
  EXPECT_TRUE(none.specular.empty());
  EXPECT_EQ(none.irradiance({0, 1, 0}), float3(0.0f));

  EnvironmentImage sky{64, 32, std::vector<float3>(64 * 32, float3(0.0f))};
  std::fill_n(sky.texels.begin(), 64 * 16, float3(1.0f));  // rows 0..15, the upper half
  const auto upper = EnvironmentLighting::compute(sky);
  EXPECT_GT(upper.irradiance({0, 1, 0}).x, 2.5f);   // about pi
  EXPECT_LT(upper.irradiance({0, -1, 0}).x, 0.3f);  // about 0
  // The rough levels blur the horizon: straight up stays bright, the horizon is half lit.
  const auto& rough = upper.specular.back();
  EXPECT_GT(rough.at(0, 0).x, rough.at(0, rough.height - 1).x);

  const auto image = MaskSceneManager::makeEnvironmentImage();
  ASSERT_TRUE(image);
  const auto stage = EnvironmentLighting::compute(*image);
  EXPECT_GT(stage.irradiance({0, 1, 0}).y, 2.0f * stage.irradiance({0, -1, 0}).y);
  EXPECT_GT(stage.irradiance({0, 0, 1}).y, 0.0f);
  // Directions and texture coordinates agree.
  const float3 d = image->directionAt(10.0f, 20.0f);
  const float2 uv = EnvironmentImage::coordinatesOf(d);
  EXPECT_LE(glm::length(uv - float2(10.5f / image->width, 20.5f / image->height)), 1e-4f);
}

// A written file's bytes (signature, size) are read by the snapshot run's
// picture checks (SnapshotE2ETest); here the failures.
// What the writer makes, read by another decoder (stb_image): size, channel
// order (BGRA in, RGBA in the file) and straight alpha; then its failures.
TEST(PngWriterTest, WritesWhatAnotherDecoderReadsAndReportsFailures) {
  test::TempDir dir;
  std::string error;
  ASSERT_TRUE(PngWriter::write((dir.path() / "f.png").string(), solidFrame(8, 4, 1, 2, 3, 4), &error)) << error;
  const test::Picture png = test::loadPicture((dir.path() / "f.png").string());
  ASSERT_EQ(std::pair(png.width, png.height), std::pair(8, 4));
  EXPECT_EQ(std::vector(png.at(7, 3), png.at(7, 3) + 4), (std::vector<unsigned char>{3, 2, 1, 4}));
  EXPECT_FALSE(PngWriter::write((dir.path() / "missing" / "f.png").string(), solidFrame(8, 4, 0, 0, 0, 0), &error));
  EXPECT_NE(error.find("cannot write"), std::string::npos);
  EXPECT_FALSE(PngWriter::write((dir.path() / "f.png").string(), RenderedFrame{}, &error));
  EXPECT_NE(error.find("empty"), std::string::npos);
}

}  // namespace
}  // namespace velmora
