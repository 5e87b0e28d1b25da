// CPU pieces of the render path: the ambient terms derived from an
// environment, the contact sheet, PNG writing and the snapshot's failure
// paths. No GL.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "scene/ContactSheet.h"
#include "scene/EnvironmentLighting.h"
#include "scene/MaskSceneManager.h"
#include "scene/MaskSnapshot.h"
#include "scene/PngWriter.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

EnvironmentImage uniformEnvironment(float3 radiance, int w = 64, int h = 32) {
  EnvironmentImage image;
  image.width = w;
  image.height = h;
  image.texels.assign(static_cast<std::size_t>(w) * h, radiance);
  return image;
}

TEST(EnvironmentLightingTest, AUniformSkyGivesPiTimesItsRadianceFromEveryDirection) {
  const auto lighting = EnvironmentLighting::compute(uniformEnvironment(float3(0.5f, 1.0f, 2.0f)));
  for (const float3 n : {float3(0, 1, 0), float3(0, -1, 0), float3(1, 0, 0), glm::normalize(float3(1, 1, 1))}) {
    const float3 e = lighting.irradiance(n);
    EXPECT_NEAR(e.x, 3.14159f * 0.5f, 0.02f);
    EXPECT_NEAR(e.z, 3.14159f * 2.0f, 0.08f);
  }
  ASSERT_EQ(lighting.specular.size(), static_cast<std::size_t>(EnvironmentLighting::specularLevels));
  EXPECT_EQ(lighting.specular[0].width, 128);
  EXPECT_EQ(lighting.specular.back().width, 4);
  for (const auto& level : lighting.specular) EXPECT_NEAR(level.at(level.width / 2, level.height / 2).y, 1.0f, 1e-3f);
}

TEST(EnvironmentLightingTest, ABrightSkyLightsUpFacingSurfacesMore) {
  EnvironmentImage sky = uniformEnvironment(float3(0.0f));
  for (int y = 0; y < sky.height / 2; ++y)
    for (int x = 0; x < sky.width; ++x) sky.texels[static_cast<std::size_t>(y) * sky.width + x] = float3(1.0f);
  const auto lighting = EnvironmentLighting::compute(sky);
  EXPECT_GT(lighting.irradiance({0, 1, 0}).x, 2.5f);   // about pi
  EXPECT_LT(lighting.irradiance({0, -1, 0}).x, 0.3f);  // about 0
  // The rough levels blur the horizon: straight up stays bright, the horizon is half lit.
  const auto& rough = lighting.specular.back();
  EXPECT_GT(rough.at(0, 0).x, rough.at(0, rough.height - 1).x);
}

TEST(EnvironmentLightingTest, AnEmptyImageGivesNoAmbient) {
  const auto lighting = EnvironmentLighting::compute(EnvironmentImage{});
  EXPECT_TRUE(lighting.specular.empty());
  EXPECT_EQ(lighting.irradiance({0, 1, 0}), float3(0.0f));
}

TEST(EnvironmentLightingTest, TheStageEnvironmentIsLitFromAbove) {
  const auto image = MaskSceneManager::makeEnvironmentImage();
  ASSERT_TRUE(image);
  const auto lighting = EnvironmentLighting::compute(*image);
  EXPECT_GT(lighting.irradiance({0, 1, 0}).y, 2.0f * lighting.irradiance({0, -1, 0}).y);
  EXPECT_GT(lighting.irradiance({0, 0, 1}).y, 0.0f);
  // Directions and texture coordinates agree.
  const float3 d = image->directionAt(10.0f, 20.0f);
  const float2 uv = EnvironmentImage::coordinatesOf(d);
  EXPECT_NEAR(uv.x, 10.5f / image->width, 1e-4f);
  EXPECT_NEAR(uv.y, 20.5f / image->height, 1e-4f);
}

RenderedFrame solidFrame(int w, int h, std::uint8_t b, std::uint8_t g, std::uint8_t r, std::uint8_t a) {
  RenderedFrame f;
  f.width = w;
  f.height = h;
  f.pixels.resize(static_cast<std::size_t>(w) * h * 4);
  for (std::size_t i = 0; i < f.pixels.size(); i += 4) {
    f.pixels[i] = b;
    f.pixels[i + 1] = g;
    f.pixels[i + 2] = r;
    f.pixels[i + 3] = a;
  }
  return f;
}

TEST(ContactSheetTest, TransparencyShowsTheCheckerboardAndOpaqueFramesCoverIt) {
  ContactSheet sheet(2, 32, 18);
  sheet.add(solidFrame(192, 108, 0, 0, 0, 0), "empty");
  sheet.add(solidFrame(192, 108, 0, 0, 255, 255), "red");
  sheet.add(solidFrame(100, 50, 255, 0, 0, 255), "a label far too long to fit under a small tile at all");
  const RenderedFrame out = sheet.compose();
  const int m = ContactSheet::margin;
  EXPECT_EQ(out.width, 2 * (32 + m) + m);
  EXPECT_EQ(out.height, 2 * (18 + ContactSheet::labelHeight + m) + m);
  for (std::size_t i = 3; i < out.pixels.size(); i += 4) ASSERT_EQ(out.pixels[i], 255);
  // Tile 0: two different greys of the checkerboard.
  const std::uint8_t* a = out.pixel(m + 1, m + 1);
  const std::uint8_t* b = out.pixel(m + 9, m + 1);
  EXPECT_NE(a[0], b[0]);
  EXPECT_EQ(a[0], a[2]);
  // Tile 1: red.
  const std::uint8_t* red = out.pixel(m + 32 + m + 5, m + 5);
  EXPECT_EQ(red[2], 255);
  EXPECT_EQ(red[0], 0);
  // A label was drawn below tile 0 (some bright pixels in its strip).
  int bright = 0;
  for (int y = m + 18; y < m + 18 + ContactSheet::labelHeight; ++y)
    for (int x = m; x < m + 32; ++x) bright += out.pixel(x, y)[1] > 200;
  EXPECT_GT(bright, 0);
}

TEST(PngWriterTest, WritesAValidFileAndReportsFailures) {
  test::TempDir dir;
  const auto path = (dir.path() / "f.png").string();
  std::string error;
  ASSERT_TRUE(PngWriter::write(path, solidFrame(8, 4, 1, 2, 3, 4), &error)) << error;
  std::ifstream in(path, std::ios::binary);
  std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), {});
  ASSERT_GT(bytes.size(), 24u);
  EXPECT_EQ(bytes[1], 'P');
  EXPECT_EQ(bytes[19], 8);  // IHDR width, big-endian
  EXPECT_EQ(bytes[23], 4);  // height

  EXPECT_FALSE(PngWriter::write((dir.path() / "missing" / "f.png").string(), solidFrame(8, 4, 0, 0, 0, 0), &error));
  EXPECT_NE(error.find("cannot write"), std::string::npos);
  EXPECT_FALSE(PngWriter::write(path, RenderedFrame{}, &error));
  EXPECT_NE(error.find("empty"), std::string::npos);
}

TEST(MaskSnapshotTest, AFolderThatCannotBeCreatedIsReportedAndNothingIsWritten) {
  test::TempDir dir;
  const auto file = dir.path() / "a-file";
  std::ofstream(file) << "x";
  test::LogCapture log;
  EXPECT_EQ(MaskSnapshot::run((file / "inside").string()), 0);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].rfind("[snapshot] Cannot create the folder ", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1], "[snapshot] Wrote 0 files");
}

}  // namespace
}  // namespace velmora
