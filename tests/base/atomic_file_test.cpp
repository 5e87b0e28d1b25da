// Whole-file replacement: the new bytes replace the old ones entirely and no
// temporary file stays behind; a write that cannot happen leaves the folder
// as it was and says why.
#include "base/AtomicFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "support/TempDir.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

int entries(const fs::path& dir) {
  int n = 0;
  for ([[maybe_unused]] const auto& e : fs::directory_iterator(dir)) ++n;
  return n;
}

TEST(AtomicFile, ReplacesTheWholeFileAndLeavesNoTemporaryFile) {
  test::TempDir dir;
  const fs::path file = dir.path() / "a.bin";
  ASSERT_EQ(AtomicFile::write(file, std::string(10000, 'x')), "");
  const std::string shorter("\0glb\0", 5);  // binary-safe, and shorter than before
  ASSERT_EQ(AtomicFile::write(file, shorter), "");
  EXPECT_EQ(contents(file), shorter);
  EXPECT_EQ(entries(dir.path()), 1);

  const fs::path secret = dir.path() / "settings.json";
  ASSERT_EQ(AtomicFile::write(secret, "{}", 0600), "");
  EXPECT_EQ(fs::status(secret).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
}

TEST(AtomicFile, AWriteThatCannotHappenSaysWhyAndLeavesNothing) {
  test::TempDir dir;
  EXPECT_EQ(AtomicFile::write(dir.path() / "missing" / "a.bin", "data"), "No such file or directory");
  const fs::path asFolder = dir.path() / "taken";
  fs::create_directory(asFolder);  // a folder where the file should go: the rename fails
  EXPECT_EQ(AtomicFile::write(asFolder, "data"), "Is a directory");
  EXPECT_TRUE(fs::is_directory(asFolder));
  EXPECT_EQ(entries(dir.path()), 1);
}

}  // namespace
}  // namespace velmora
