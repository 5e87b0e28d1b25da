// The settings file and the whole-file replacement under it: new bytes
// replace the old ones entirely, no temporary file stays behind, a write that
// cannot happen leaves the folder as it was and says why.
#include "base/SettingsStore.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <tuple>
#include <vector>

#include "base/AtomicFile.h"
#include "support/LogCapture.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The first write creates the folder; a removed key stays removed.
TEST(SettingsStore, ValuesSurviveANewInstanceAndTypedReadsRefuseOtherKinds) {
  test::TempDir dir;
  const fs::path folder = dir.path() / "nested" / "velmora";
  {
    SettingsStore store(folder);
    const nlohmann::json values = {{"gone", 1},      {"text", "cartoon_ghost"}, {"three", "3"},
                                   {"int", 53100},   {"flag", false},           {"real", 0.25},
                                   {"list", {0.1, 0.8}}, {"dict", {{"jawOpen", {0.1, 0.9}}}}};
    for (const auto& [key, value] : values.items()) EXPECT_TRUE(store.set(key, value)) << key;
    EXPECT_TRUE(store.remove("gone"));  // the last write
  }
  SettingsStore again(folder);
  EXPECT_EQ(again.string("text"), "cartoon_ghost");
  EXPECT_EQ(again.integer("int"), 53100);
  EXPECT_EQ(again.boolean("flag"), false);
  EXPECT_EQ(again.number("real"), 0.25);
  EXPECT_EQ(again.number("int"), 53100.0);  // any number reads as a double
  EXPECT_EQ(again.array("list"), nlohmann::json::array({0.1, 0.8}));
  EXPECT_EQ(again.dictionary("dict"), (nlohmann::json{{"jawOpen", {0.1, 0.9}}}));
  // None of these: a string that looks like a number, a fractional number and
  // a boolean are not integers, 1/0 are not booleans, absent keys are absent.
  const auto refused = std::tuple(again.integer("three"), again.integer("real"), again.integer("flag"),
                                  again.boolean("int"), again.string("int"), again.object("absent"),
                                  again.dictionary("text"), again.array("text"), again.object("gone"));
  EXPECT_EQ(refused, decltype(refused)());
}

// A file cut short mid-write by some other program, or one whose top level
// is not an object, is moved aside with one log line; the next write is valid.
TEST(SettingsStore, CorruptFileIsMovedAsideWithOneLogLineAndTheNextWriteIsValid) {
  for (const char* corrupt : {"{ \"characterModel\": \"cartoon_gh", "[1, 2, 3]"}) {
    SCOPED_TRACE(corrupt);
    test::TempDir dir;
    std::ofstream(dir.path() / "settings.json") << corrupt;
    test::LogCapture log;
    SettingsStore store(dir.path());
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("[Settings] ", 0), 0u);
    EXPECT_FALSE(store.object("characterModel"));
    EXPECT_FALSE(store.object("0"));
    EXPECT_FALSE(std::filesystem::exists(store.filePath()));
    // Only the old file is left, under another name, its content kept.
    const std::vector<fs::directory_entry> left(fs::directory_iterator(dir.path()), {});
    ASSERT_EQ(left.size(), 1u);
    EXPECT_TRUE(left[0].path().filename().string().starts_with("settings.json.corrupt-")) << left[0].path();
    EXPECT_EQ(contents(left[0].path()), corrupt);
    store.set("characterModel", "theatrical_mask");
    EXPECT_EQ(nlohmann::json::parse(contents(store.filePath()), nullptr, false),
              (nlohmann::json{{"characterModel", "theatrical_mask"}}));
  }
}

TEST(SettingsStore, UnwritableFolderLogsAndKeepsTheValueInMemory) {
  test::TempDir dir;
  { std::ofstream(dir.path() / "blocker") << "a file where the settings folder should be"; }
  SettingsStore store(dir.path() / "blocker" / "velmora");
  test::LogCapture log;
  EXPECT_FALSE(store.set("a", 1));
  EXPECT_EQ(store.integer("a"), 1);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"[Settings] Could not write " + store.filePath().string() +
                                                  ": Not a directory"});
}

TEST(SettingsStore, DefaultFolderFollowsTheEnvironment) {
  test::ScopedEnv config("VELMORA_CONFIG_DIR", "/tmp/velmora-a"), xdg("XDG_CONFIG_HOME", "/tmp/xdg"),
      home("HOME", "/home/op");
  EXPECT_EQ(SettingsStore::defaultFolder(), "/tmp/velmora-a");
  config.set(nullptr);
  EXPECT_EQ(SettingsStore::defaultFolder(), "/tmp/xdg/velmora");
  xdg.set(nullptr);
  EXPECT_EQ(SettingsStore::defaultFolder(), "/home/op/.config/velmora");
}

TEST(AtomicFile, ReplacesTheWholeFileAndLeavesNoTemporaryFile) {
  test::TempDir dir;
  const fs::path file = dir.path() / "a.bin";
  ASSERT_EQ(AtomicFile::write(file, std::string(10000, 'x')), "");
  const std::string shorter("\0glb\0", 5);  // binary-safe, and shorter than before
  ASSERT_EQ(AtomicFile::write(file, shorter), "");
  EXPECT_EQ(contents(file), shorter);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 1);

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
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 1);
}

}  // namespace
}  // namespace velmora
