// The built velmora's "--export-gltf FOLDER" run from outside: the files it
// writes pass the Khronos glTF validator with no error and no warning, and
// gltfpack and three.js read every expression under its ARKit name; a read-only folder
// and a full disk each give one clear line per file, exit status 0, and
// leave nothing half-written under a final name.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <tiny_gltf.h>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;

const std::string kVelmora = test::builtProgram("velmora");
const std::string kValidatorScript = VELMORA_SOURCE_DIR "/tests/app/gltf_validate.js";
const std::string kThreeScript = VELMORA_SOURCE_DIR "/tests/app/gltf_three.mjs";
// Two real glTF consumers from npm (the Khronos validator and three.js),
// installed on first use under the build folder.
const fs::path kNodeModules = VELMORA_BINARY_DIR "/gltf-consumers";
const char* const kNodePackages = "gltf-validator@2.0.0-dev.3.10 three@0.187.0";
const char* const kFiles[] = {"theatrical_mask.glb", "cartoon_ghost.glb"};

using Outcome = test::Finished;

Outcome run(const std::vector<std::string>& args, double seconds) { return test::runToEnd(args, {}, seconds); }

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
  if (!mesh.extras.IsObject() || !mesh.extras.Has("targetNames")) return names;
  const tinygltf::Value& list = mesh.extras.Get("targetNames");
  for (std::size_t i = 0; i < list.ArrayLen(); ++i) names.push_back(list.Get(static_cast<int>(i)).Get<std::string>());
  return names;
}

// Installs the npm consumers once (tests running side by side take turns);
// "" when they are there, else why not.
std::string installNodeConsumers(bool& registryUnreachable) {
  registryUnreachable = false;
  const Outcome npm = shell(
      "mkdir -p \"$1\" && exec flock \"$1/.install-lock\" sh -c '"
      "test -f \"$1/node_modules/gltf-validator/package.json\" -a -f \"$1/node_modules/three/package.json\" || "
      "npm install --prefix \"$1\" --no-audit --no-fund --fetch-retries=1 --fetch-timeout=30000 $2' sh \"$1\" \"$2\" 2>&1",
      {kNodeModules.string(), kNodePackages}, 240);
  if (npm.status == 0) return {};
  registryUnreachable =
      std::regex_search(npm.output, std::regex("ENOTFOUND|EAI_AGAIN|ECONNREFUSED|ETIMEDOUT|ECONNRESET|ENETUNREACH|EHOSTUNREACH"));
  return "npm could not install " + std::string(kNodePackages) + ":\n" + npm.output;
}

#define VELMORA_REQUIRE_NODE_CONSUMERS()                                                              \
  do {                                                                                               \
    bool unreachable = false;                                                                        \
    const std::string why = installNodeConsumers(unreachable);                                       \
    if (unreachable) GTEST_SKIP() << "the npm registry is unreachable, so the glTF consumers from npm " \
                                     "cannot be installed: "                                         \
                                  << why;                                                            \
    ASSERT_EQ(why, "");                                                                              \
  } while (false)

// One export; the outside readers are the peer oracles: the Khronos
// validator finds no error and no warning, three.js loads every mesh with
// every expression by name, and gltfpack keeps every named morph target.
TEST(GltfExportE2ETest, ExportedFilesPassEveryOutsideReader) {
  test::TempDir dir;
  const fs::path folder = dir.path() / "out";
  const Outcome exported = run({kVelmora, "--export-gltf", folder.string()}, 300);
  ASSERT_EQ(exported.status, 0) << exported.output;
  for (const char* file : kFiles) {
    const fs::path path = folder / file;
    ASSERT_TRUE(fs::exists(path)) << exported.output;
    const std::regex line("\\[export\\] Wrote " + path.string() + " \\(" + std::to_string(fs::file_size(path)) +
                          " bytes, (43|41) morph targets\\)\n");
    EXPECT_TRUE(std::regex_search(exported.output, line)) << exported.output;
  }

  for (const char* file : kFiles) {
    SCOPED_TRACE(file);
    const fs::path packed = dir.path() / (std::string("packed-") + file);
    const Outcome pack = shell("gltfpack -i \"$1\" -o \"$2\" 2>&1", {(folder / file).string(), packed.string()});
    ASSERT_EQ(pack.status, 0) << pack.output;
    EXPECT_EQ(pack.output.find("Warning"), std::string::npos) << pack.output;
    // What gltfpack made of it, read back: every expression survived under its name.
    const auto repacked = load(packed);
    const std::vector<std::string> names = targetNames(load(folder / file).meshes.at(0));
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

  VELMORA_REQUIRE_NODE_CONSUMERS();
  const std::vector<std::string> files{(folder / kFiles[0]).string(), (folder / kFiles[1]).string()};
  const Outcome report = shell("node \"$@\" 2>&1", {kValidatorScript, kNodeModules.string(), files[0], files[1]});
  ASSERT_EQ(report.status, 0) << report.output;
  for (const auto& file : files)
    EXPECT_NE(report.output.find(file + ": 0 errors, 0 warnings,"), std::string::npos) << report.output;

  const Outcome loaded = shell("node \"$@\" 2>&1", {kThreeScript, kNodeModules.string(), files[0], files[1]});
  ASSERT_EQ(loaded.status, 0) << loaded.output;
  for (const auto& file : files) {
    SCOPED_TRACE(file);
    const tinygltf::Model doc = load(file);
    // three.js makes one mesh per primitive of every node; those with targets carry the names.
    std::vector<std::string> expected;
    for (const auto& node : doc.nodes) {
      if (node.mesh < 0) continue;
      const tinygltf::Mesh& mesh = doc.meshes[static_cast<std::size_t>(node.mesh)];
      std::string names;
      for (const auto& name : targetNames(mesh)) names += (names.empty() ? "" : ",") + name;
      for (const auto& p : mesh.primitives)
        expected.push_back(std::to_string(doc.accessors[static_cast<std::size_t>(p.attributes.at("POSITION"))].count) +
                           " | " + names);
    }
    std::vector<std::string> seen;
    const std::regex line("^" + file + " \\| [^|]* \\| (\\d+ \\| [^|]*) \\| \\w+$");
    std::smatch m;
    std::istringstream lines(loaded.output);
    for (std::string l; std::getline(lines, l);)
      if (std::regex_match(l, m, line)) seen.push_back(m[1]);
    std::sort(expected.begin(), expected.end());
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, expected) << loaded.output;
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

// A folder that cannot be created is gltf_export_test's (the same lines).
TEST(GltfExportBadFolderE2ETest, EachFailureGivesOneClearLinePerFileAndLeavesNothingHalfWritten) {
  test::TempDir dir;
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
