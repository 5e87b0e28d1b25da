// The built velmora's "--export-gltf FOLDER" run from outside: the files it
// writes pass the Khronos glTF validator with no error and no warning and
// are read by gltfpack; a folder that cannot be created, a read-only folder
// and a full disk each give one clear line per file, exit status 0, and
// leave nothing half-written under a final name.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <tiny_gltf.h>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;

const std::string kVelmora = VELMORA_BINARY_DIR "/bin/velmora";
const std::string kValidatorScript = VELMORA_SOURCE_DIR "/tests/app/gltf_validate.js";
// The validator is an npm package installed on first use under the build folder.
const fs::path kValidatorModules = VELMORA_BINARY_DIR "/gltf-validator";
const char* const kValidatorPackage = "gltf-validator@2.0.0-dev.3.10";
const char* const kFiles[] = {"theatrical_mask.glb", "cartoon_ghost.glb"};

struct Outcome {
  int status = -1;
  std::string output;
};

Outcome run(const std::vector<std::string>& args, double seconds) {
  std::vector<std::string> env;
  if (const char* config = std::getenv("VELMORA_CONFIG_DIR")) env.push_back(std::string("VELMORA_CONFIG_DIR=") + config);
  test::ChildProcess child(args, env);
  const int status = child.started() ? child.wait(seconds) : -1;
  return {status, child.output()};
}

// A shell command; $1, $2, ... are `params` (no quoting needed).
Outcome shell(const std::string& script, const std::vector<std::string>& params = {}, double seconds = 300) {
  std::vector<std::string> args{"/bin/sh", "-c", script, "sh"};
  args.insert(args.end(), params.begin(), params.end());
  return run(args, seconds);
}

tinygltf::Model load(const fs::path& file) {
  tinygltf::Model doc;
  std::string err, warn;
  tinygltf::TinyGLTF reader;
  EXPECT_TRUE(reader.LoadBinaryFromFile(&doc, &err, &warn, file.string())) << file << ": " << err;
  return doc;
}

std::vector<std::string> targetNames(const tinygltf::Mesh& mesh) {
  std::vector<std::string> names;
  const tinygltf::Value& list = mesh.extras.Get("targetNames");
  for (std::size_t i = 0; i < list.ArrayLen(); ++i) names.push_back(list.Get(static_cast<int>(i)).Get<std::string>());
  return names;
}

class GltfExportE2ETest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = std::make_unique<test::TempDir>();
    exported_ = run({kVelmora, "--export-gltf", (dir_->path() / "out").string()}, 300);
  }
  static void TearDownTestSuite() { dir_.reset(); }
  static fs::path folder() { return dir_->path() / "out"; }

  static std::unique_ptr<test::TempDir> dir_;
  static Outcome exported_;
};

std::unique_ptr<test::TempDir> GltfExportE2ETest::dir_;
Outcome GltfExportE2ETest::exported_;

TEST_F(GltfExportE2ETest, WritesBothFilesWithOneLineEachAndExitsZero) {
  ASSERT_EQ(exported_.status, 0) << exported_.output;
  for (const char* file : kFiles) {
    const fs::path path = folder() / file;
    ASSERT_TRUE(fs::exists(path)) << exported_.output;
    const std::regex line("\\[export\\] Wrote " + path.string() + " \\(" + std::to_string(fs::file_size(path)) +
                          " bytes, (43|41) morph targets\\)\n");
    EXPECT_TRUE(std::regex_search(exported_.output, line)) << exported_.output;
  }
}

TEST_F(GltfExportE2ETest, TheKhronosValidatorFindsNoErrorAndNoWarning) {
  ASSERT_EQ(exported_.status, 0) << exported_.output;
  if (!fs::exists(kValidatorModules / "node_modules" / "gltf-validator" / "package.json")) {
    const Outcome npm = shell("npm install --prefix \"$1\" --no-audit --no-fund --fetch-retries=1 --fetch-timeout=30000 \"$2\" 2>&1",
                          {kValidatorModules.string(), kValidatorPackage}, 240);
    if (npm.status != 0) {
      if (std::regex_search(npm.output, std::regex("ENOTFOUND|EAI_AGAIN|ECONNREFUSED|ETIMEDOUT|ECONNRESET|ENETUNREACH|EHOSTUNREACH")))
        GTEST_SKIP() << "the npm registry is unreachable, so the Khronos validator cannot be installed:\n" << npm.output;
      FAIL() << "npm could not install " << kValidatorPackage << ":\n" << npm.output;
    }
  }
  const Outcome report = shell("node \"$@\" 2>&1", {kValidatorScript, kValidatorModules.string(), (folder() / kFiles[0]).string(),
                                                (folder() / kFiles[1]).string()});
  ASSERT_EQ(report.status, 0) << report.output;
  for (const char* file : kFiles) {
    EXPECT_NE(report.output.find((folder() / file).string() + ": 0 errors, 0 warnings,"), std::string::npos)
        << report.output;
  }
}

TEST_F(GltfExportE2ETest, GltfpackReadsBothFilesAndKeepsEveryNamedMorphTarget) {
  ASSERT_EQ(exported_.status, 0) << exported_.output;
  for (const char* file : kFiles) {
    SCOPED_TRACE(file);
    const fs::path packed = dir_->path() / (std::string("packed-") + file);
    const Outcome pack = shell("gltfpack -i \"$1\" -o \"$2\" 2>&1", {(folder() / file).string(), packed.string()});
    ASSERT_EQ(pack.status, 0) << pack.output;
    EXPECT_EQ(pack.output.find("Warning"), std::string::npos) << pack.output;
    ASSERT_TRUE(fs::exists(packed)) << pack.output;

    // What gltfpack made of it, read back: every expression survived under its name.
    const auto original = load(folder() / file);
    const auto repacked = load(packed);
    const std::vector<std::string> names = targetNames(original.meshes.at(0));
    EXPECT_EQ(names.size(), std::string(file) == kFiles[0] ? 43u : 41u);
    int meshesWithTargets = 0;
    for (const auto& mesh : repacked.meshes) {
      if (mesh.primitives.empty() || mesh.primitives[0].targets.empty()) continue;
      ++meshesWithTargets;
      EXPECT_EQ(mesh.primitives[0].targets.size(), names.size());
      EXPECT_EQ(targetNames(mesh), names);
    }
    EXPECT_GE(meshesWithTargets, 1);
  }
}

// The same failure for both files, one line each, nothing left behind.
void expectFailedLines(const Outcome& r, const fs::path& folder, const std::string& reason) {
  EXPECT_EQ(r.status, 0) << r.output;
  for (const char* file : kFiles)
    EXPECT_NE(r.output.find("[export] Could not write " + (folder / file).string() + ": " + reason + "\n"), std::string::npos)
        << r.output;
  EXPECT_EQ(r.output.find("[export] Wrote"), std::string::npos) << r.output;
}

TEST(GltfExportBadFolderE2ETest, EachFailureGivesOneClearLinePerFileAndLeavesNothingHalfWritten) {
  test::TempDir dir;
  {
    SCOPED_TRACE("a folder that cannot be created");
    const Outcome blocker = shell("echo file > \"$1/blocker\" && exec \"$2\" --export-gltf \"$1/blocker/out\"",
                              {dir.path().string(), kVelmora});
    expectFailedLines(blocker, dir.path() / "blocker" / "out",
                      "cannot create the folder " + (dir.path() / "blocker" / "out").string() + ": Not a directory");
  }

  // A read-only folder and a full disk need a private mount namespace.
  const Outcome probe = shell("unshare -rm true 2>&1");
  if (probe.status != 0)
    GTEST_SKIP() << "no private mount namespace here (unshare -rm: " << probe.output
                 << "), so no read-only folder or full disk can be made for this test";
  {
    SCOPED_TRACE("a read-only folder");
    const fs::path ro = dir.path() / "read-only";
    fs::create_directory(ro);
    const Outcome r = shell("unshare -rm sh -c 'mount --bind \"$1\" \"$1\" && mount -o remount,bind,ro \"$1\" && "
                        "\"$2\" --export-gltf \"$1\"; echo \"left: $(ls -A \"$1\")\"' sh \"$1\" \"$2\" 2>&1",
                        {ro.string(), kVelmora});
    expectFailedLines(r, ro, "Read-only file system");
    EXPECT_NE(r.output.find("left: \n"), std::string::npos) << r.output;
  }
  {
    SCOPED_TRACE("a full disk");
    // 256 KiB of space: less than either file. An older export stays whole.
    const fs::path full = dir.path() / "full";
    fs::create_directory(full);
    const Outcome r = shell("unshare -rm sh -c 'mount -t tmpfs -o size=256k tmpfs \"$1\" && "
                        "printf older > \"$1/theatrical_mask.glb\" && \"$2\" --export-gltf \"$1\"; "
                        "echo \"left: $(ls -A \"$1\" | tr \"\\n\" \" \")\"; echo \"mask: $(cat \"$1/theatrical_mask.glb\")\"' "
                        "sh \"$1\" \"$2\" 2>&1",
                        {full.string(), kVelmora});
    expectFailedLines(r, full, "No space left on device");
    EXPECT_NE(r.output.find("left: theatrical_mask.glb \n"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("mask: older\n"), std::string::npos) << r.output;
  }
}

}  // namespace
}  // namespace velmora
