// The built velmora's batch runs from outside. "--snapshot FOLDER" writes
// every picture as a 1920x1080 PNG with a transparent background and the
// character in it, the contact sheet too; runs that end at once (help,
// version, an unknown option, a snapshot without GL) say why in their exit
// status and output. "--export-gltf FOLDER" writes files
// that pass the Khronos glTF validator with no error and no warning, and
// gltfpack reads every expression under its ARKit name; a full
// disk gives one clear line per file, exit status 0, and leaves nothing
// half-written under a final name.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "support/ChildProcess.h"
#include "support/GltfRead.h"
#include "support/StbImage.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;

const std::string kVelmora = test::builtProgram("velmora");
const std::string kValidatorScript = VELMORA_SOURCE_DIR "/tests/app/gltf_validate.js";
// The Khronos validator from npm, installed on first use under the build folder.
const fs::path kNodeModules = VELMORA_BINARY_DIR "/gltf-consumers";
const char* const kNodePackages = "gltf-validator@2.0.0-dev.3.10";
const char* const kFiles[] = {"theatrical_mask.glb", "cartoon_ghost.glb"};

TEST(SnapshotE2ETest, WritesEveryPictureWithATransparentBackground) {
  test::TempDir dir;
  const auto folder = dir.path() / "pictures" / "nested";  // created by the run
  const test::Finished r = test::runToEnd({kVelmora, "--snapshot", folder.string()}, {}, 300);
  ASSERT_EQ(r.status, 0) << r.output;

  // 2 at rest, 5 mask and 5 ghost expressions, 6 presets, 15 cues, the sheet.
  EXPECT_NE(r.output.find("[snapshot] Wrote 34 files to "), std::string::npos) << r.output;
  const std::regex fileLine(R"(\[snapshot\] Wrote /.*\.png)");
  EXPECT_EQ(std::distance(std::sregex_iterator(r.output.begin(), r.output.end(), fileLine), std::sregex_iterator()), 34);

  int pictures = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const auto name = entry.path().filename().string();
    ASSERT_EQ(entry.path().extension(), ".png") << name;
    const test::Picture image = test::loadPicture(entry.path().string());
    ASSERT_FALSE(image.rgba.empty()) << name;
    if (name == "contact-sheet.png") continue;  // its tiles and opacity are ContactSheetTest's
    ++pictures;
    const auto size = std::tuple(image.width, image.height, image.alpha(0, 0), image.alpha(1919, 1079));
    EXPECT_EQ(size, std::tuple(1920, 1080, 0, 0)) << name;  // clear corners
    const auto share = [&](auto covers) { return double(image.count(0, 0, 1920, 1080, covers)) / (1920.0 * 1080.0); };
    EXPECT_GT(share([](int, int, int, int a) { return a > 0; }), 0.002) << name;  // even the ghost flying away, fading
    const double coverage = share([](int, int, int, int a) { return a == 255; });
    EXPECT_LT(coverage, 0.6) << name;
    EXPECT_GT(coverage, name.starts_with("cue-") ? -1.0 : 0.1) << name;  // a character at rest fills a tenth
  }
  EXPECT_EQ(pictures, 33);
  for (const char* expected : {"mask-rest.png", "ghost-rest.png", "mask-jawOpen.png", "mask-lighting-under-light.png",
                               "ghost-lookLeft.png", "cue-ghostSpin.png", "cue-maskGlare.png"})
    EXPECT_TRUE(fs::exists(folder / expected)) << expected;
}

// Runs that end at once: --help and --version print and exit 0; an option
// nobody knows is named with a hint in one line and exit status 2; a
// snapshot on a machine without any GL display (an EGL vendor list that
// names nothing) says why and exits 0.
TEST(BatchRunsE2E, RunsThatEndAtOnceSayWhatTheyDidInTheirStatusAndOutput) {
  test::TempDir dir;
  struct Row {
    std::vector<std::string> args;  // the program first
    int status;
    std::vector<std::string> shown;  // substrings of the output
    std::vector<std::string> env = {};
  };
  const Row rows[] = {
      {{kVelmora, "--help"}, 0, {"Usage: velmora [OPTION]...", "  --output-selftest FOLDER", "  --record FILE",
                                 "VELMORA_CONFIG_DIR", "VELMORA_TRACKING_PORTS", "NDI_RUNTIME_DIR_V6", "NDI_RUNTIME_DIR_V5",
                                 "/velmora/settings.json"}},
      {{kVelmora, "--version"}, 0, {"velmora " VELMORA_VERSION "\n"}},
      {{kVelmora, "--fullscreen", "--version"}, 0, {"velmora " VELMORA_VERSION}},
      {{kVelmora, "--fullscreen"}, 2, {"velmora: unrecognized option '--fullscreen'; try 'velmora --help'\n"}},
      {{kVelmora, "--snapshot", (dir.path() / "out").string()}, 0,
       {"[Renderer] EglContext::create(): ", "nothing will be rendered", "[snapshot] Wrote 0 files to "},
       {"__EGL_VENDOR_LIBRARY_FILENAMES=/nonexistent/egl.json"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.args.at(1));
    const test::Finished r = test::runToEnd(row.args, row.env, 60);
    EXPECT_EQ(r.status, row.status) << r.output;
    for (const auto& text : row.shown) EXPECT_NE(r.output.find(text), std::string::npos) << text;
    EXPECT_TRUE(row.status != 2 || std::count(r.output.begin(), r.output.end(), '\n') == 1) << r.output;
  }
}

// One export; the outside readers are the peer oracles: the Khronos
// validator finds no error and no warning, and gltfpack keeps every named
// morph target.
TEST(GltfExportE2ETest, ExportedFilesPassEveryOutsideReader) {
  test::TempDir dir;
  const fs::path folder = dir.path() / "out";
  const test::Finished exported = test::runToEnd({kVelmora, "--export-gltf", folder.string()}, {}, 300);
  ASSERT_EQ(exported.status, 0) << exported.output;
  // The validator, installed once (tests running side by side take turns).
  // Without the npm registry gltfpack still reads the files; the test then
  // says what it skipped.
  const test::Finished npm = test::shell(
      "mkdir -p \"$1\" && exec flock \"$1/.install-lock\" sh -c '"
      "test -f \"$1/node_modules/gltf-validator/package.json\" || "
      "npm install --prefix \"$1\" --no-audit --no-fund --fetch-retries=1 --fetch-timeout=30000 $2' sh \"$1\" \"$2\" 2>&1",
      {kNodeModules.string(), kNodePackages}, {}, 240);
  const std::string why = npm.status == 0 ? "" : "npm could not install " + std::string(kNodePackages) + ":\n" + npm.output;
  ASSERT_TRUE(why.empty() || std::regex_search(npm.output, std::regex("ENOTFOUND|EAI_AGAIN|ECONNREFUSED|ETIMEDOUT|"
                                                                      "ECONNRESET|ENETUNREACH|EHOSTUNREACH")))
      << why;
  const std::vector<std::string> files{(folder / kFiles[0]).string(), (folder / kFiles[1]).string()};
  test::Finished report{0, ""};
  if (why.empty()) report = test::shell("node \"$@\" 2>&1", {kValidatorScript, kNodeModules.string(), files[0], files[1]});
  ASSERT_EQ(report.status, 0) << report.output;

  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    ASSERT_TRUE(fs::exists(file)) << exported.output;
    const std::vector<std::string> names = test::targetNames(test::loadGlb(file).meshes.at(0));

    // What gltfpack made of it, read back: every expression survived under its name.
    const std::string packed = file + ".packed.glb";
    const test::Finished pack = test::shell("gltfpack -i \"$1\" -o \"$2\" 2>&1", {file, packed});
    ASSERT_EQ(pack.status, 0) << pack.output;
    EXPECT_EQ(pack.output.find("Warning"), std::string::npos) << pack.output;
    int meshesWithTargets = 0;
    for (const auto& mesh : test::loadGlb(packed).meshes) {
      if (mesh.primitives.empty() || mesh.primitives[0].targets.empty()) continue;
      ++meshesWithTargets;
      EXPECT_EQ(std::pair(mesh.primitives[0].targets.size(), test::targetNames(mesh)), std::pair(names.size(), names));
    }
    EXPECT_GE(meshesWithTargets, 1);
    EXPECT_TRUE(!why.empty() || report.output.find(file + ": 0 errors, 0 warnings,") != std::string::npos)
        << report.output;
  }
  if (!why.empty()) GTEST_SKIP() << "the npm registry is unreachable, so the validator was not run: " << why;
}

// A full disk (256 KiB of space: less than either file) gives one clear
// line per file, exit status 0, and leaves nothing half-written under a final
// name: an older export stays whole. Other failures take the same path; a
// folder that cannot be created is gltf_export_test's.
TEST(GltfExportBadFolderE2ETest, AFullDiskGivesOneClearLinePerFileAndLeavesNothingHalfWritten) {
  const test::Finished probe = test::shell("unshare -rm true 2>&1");
  if (probe.status != 0)
    GTEST_SKIP() << "no private mount namespace here (unshare -rm: " << probe.output << "), so no full disk can be made";
  test::TempDir dir;
  const fs::path full = dir.path() / "full";
  fs::create_directory(full);
  const test::Finished r =
      test::shell("unshare -rm sh -c 'mount -t tmpfs -o size=256k tmpfs \"$1\" && "
                  "printf older > \"$1/theatrical_mask.glb\" && \"$2\" --export-gltf \"$1\"; "
                  "echo \"left: $(ls -A \"$1\" | tr \"\\n\" \" \")\"; echo \"mask: $(cat \"$1/theatrical_mask.glb\")\"' "
                  "sh \"$1\" \"$2\" 2>&1",
                  {full.string(), kVelmora});
  EXPECT_EQ(r.status, 0) << r.output;
  for (const char* file : kFiles)
    EXPECT_NE(r.output.find("[export] Could not write " + (full / file).string() + ": No space left on device\n"),
              std::string::npos)
        << r.output;
  EXPECT_EQ(r.output.find("[export] Wrote"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("left: theatrical_mask.glb \nmask: older\n"), std::string::npos) << r.output;
}

}  // namespace
}  // namespace velmora
