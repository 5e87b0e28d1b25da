// The built velmora's "--snapshot FOLDER" run from outside: every picture is
// written as a 1920x1080 PNG with a transparent background and the character
// in it, the contact sheet too, and a machine without any GL display still
// exits 0 with the reason.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>

#include "support/ChildProcess.h"
#include "support/StbImage.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

TEST(SnapshotE2ETest, WritesEveryPictureWithATransparentBackground) {
  test::TempDir dir;
  const auto folder = dir.path() / "pictures" / "nested";  // created by the run
  const test::Finished r = test::runToEnd({test::builtProgram("velmora"), "--snapshot", folder.string()}, {}, 300);
  ASSERT_EQ(r.status, 0) << r.output;

  std::smatch m;
  ASSERT_TRUE(std::regex_search(r.output, m, std::regex(R"(\[snapshot\] Wrote (\d+) files to )"))) << r.output;
  const int count = std::stoi(m[1]);
  // 2 at rest, 5 mask and 5 ghost expressions, 6 presets, 15 cues, the sheet.
  EXPECT_EQ(count, 34);
  const std::regex fileLine(R"(\[snapshot\] Wrote /.*\.png)");
  EXPECT_EQ(std::distance(std::sregex_iterator(r.output.begin(), r.output.end(), fileLine), std::sregex_iterator()), count);

  int pictures = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const auto name = entry.path().filename().string();
    ASSERT_EQ(entry.path().extension(), ".png") << name;
    const test::Picture image = test::loadPicture(entry.path().string());
    ASSERT_FALSE(image.rgba.empty()) << name;
    if (name == "contact-sheet.png") {
      EXPECT_GT(image.width, 1000) << name;
      EXPECT_EQ(image.alpha(image.width / 2, image.height / 2), 255) << name;
      continue;
    }
    ++pictures;
    EXPECT_EQ(image.width, 1920) << name;
    EXPECT_EQ(image.height, 1080) << name;
    EXPECT_EQ(image.alpha(0, 0), 0) << name;
    EXPECT_EQ(image.alpha(1919, 1079), 0) << name;
    const std::size_t seen = image.count(0, 0, 1920, 1080, [](int, int, int, int a) { return a > 0; });
    const std::size_t opaque = image.count(0, 0, 1920, 1080, [](int, int, int, int a) { return a == 255; });
    EXPECT_GT(double(seen) / (1920.0 * 1080.0), 0.002) << name;  // even the ghost flying away, fading
    const double coverage = double(opaque) / (1920.0 * 1080.0);
    EXPECT_LT(coverage, 0.6) << name;
    EXPECT_GT(coverage, name.starts_with("cue-") ? -1.0 : 0.1) << name;  // a character at rest fills a tenth
  }
  EXPECT_EQ(pictures, count - 1);
  for (const char* expected : {"mask-rest.png", "ghost-rest.png", "mask-jawOpen.png", "mask-lighting-under-light.png",
                               "ghost-lookLeft.png", "cue-ghostSpin.png", "cue-maskGlare.png"})
    EXPECT_TRUE(std::filesystem::exists(folder / expected)) << expected;
}

TEST(SnapshotE2ETest, WithoutAnyGLDisplayItSaysWhyAndExitsZero) {
  test::TempDir dir;
  // An EGL vendor list that names nothing: no display of any kind.
  const test::Finished r = test::runToEnd({test::builtProgram("velmora"), "--snapshot", (dir.path() / "out").string()},
                                          {"__EGL_VENDOR_LIBRARY_FILENAMES=/nonexistent/egl.json"}, 300);
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("[Renderer] EglContext::create(): "), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("nothing will be rendered"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("[snapshot] Wrote 0 files to "), std::string::npos) << r.output;
}

}  // namespace
}  // namespace velmora
