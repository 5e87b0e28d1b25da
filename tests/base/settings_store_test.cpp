#include "base/SettingsStore.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

std::string readFile(const std::filesystem::path& p) {
  std::ifstream in(p);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST(SettingsStore, ValuesSurviveANewInstanceOnTheSameFolder) {
  test::TempDir dir;
  {
    SettingsStore store(dir.path());
    EXPECT_TRUE(store.set("text", "cartoon_ghost"));
    store.set("int", 53100);
    store.set("flag", false);
    store.set("real", 0.25);
    store.set("list", nlohmann::json::array({0.1, 0.8}));
    store.set("dict", nlohmann::json{{"jawOpen", {0.1, 0.9}}});
  }
  SettingsStore again(dir.path());
  EXPECT_EQ(again.string("text"), "cartoon_ghost");
  EXPECT_EQ(again.integer("int"), 53100);
  EXPECT_EQ(again.boolean("flag"), false);
  EXPECT_EQ(again.number("real"), 0.25);
  ASSERT_TRUE(again.array("list"));
  EXPECT_EQ(again.array("list")->size(), 2u);
  ASSERT_TRUE(again.dictionary("dict"));
  EXPECT_TRUE(again.dictionary("dict")->contains("jawOpen"));
}

TEST(SettingsStore, TypedReadsRefuseOtherKinds) {
  test::TempDir dir;
  SettingsStore store(dir.path());
  store.set("s", "3");
  store.set("d", 2.5);
  store.set("b", true);
  store.set("i", 7);
  EXPECT_FALSE(store.integer("s"));  // a string that looks like a number is not an integer
  EXPECT_FALSE(store.integer("d"));  // a fractional number is not an integer
  EXPECT_FALSE(store.integer("b"));
  EXPECT_FALSE(store.boolean("i"));  // 1/0 are not booleans
  EXPECT_FALSE(store.string("i"));
  EXPECT_EQ(store.number("i"), 7.0);  // any number reads as a double
  EXPECT_FALSE(store.object("absent"));
  EXPECT_FALSE(store.dictionary("s"));
  EXPECT_FALSE(store.array("s"));
}

TEST(SettingsStore, CorruptFileIsMovedAsideWithOneLogLineAndTheNextWriteIsValid) {
  test::TempDir dir;
  {
    std::ofstream out(dir.path() / "settings.json");
    out << "{ \"characterModel\": \"cartoon_gh";  // truncated mid-write by some other program
  }
  test::LogCapture log;
  SettingsStore store(dir.path());
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("[Settings] ", 0), 0u);
  EXPECT_FALSE(store.object("characterModel"));

  int aside = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir.path()))
    if (e.path().filename().string().rfind("settings.json.corrupt-", 0) == 0) {
      ++aside;
      EXPECT_NE(readFile(e.path()).find("cartoon_gh"), std::string::npos) << "the old content is kept";
    }
  EXPECT_EQ(aside, 1);

  store.set("characterModel", "theatrical_mask");
  auto parsed = nlohmann::json::parse(readFile(store.filePath()), nullptr, false);
  ASSERT_TRUE(parsed.is_object());
  EXPECT_EQ(parsed["characterModel"], "theatrical_mask");
}

TEST(SettingsStore, ATopLevelThatIsNotAnObjectCountsAsCorrupt) {
  test::TempDir dir;
  {
    std::ofstream out(dir.path() / "settings.json");
    out << "[1, 2, 3]";
  }
  SettingsStore store(dir.path());
  EXPECT_FALSE(store.object("0"));
  EXPECT_FALSE(std::filesystem::exists(store.filePath()));
}

TEST(SettingsStore, WritesLeaveNoTemporaryFilesAndCreateTheFolder) {
  test::TempDir dir;
  SettingsStore store(dir.path() / "nested" / "velmora");
  EXPECT_TRUE(store.set("a", 1));
  EXPECT_TRUE(store.remove("a"));
  int files = 0;
  for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(store.folder())) ++files;
  EXPECT_EQ(files, 1);
  EXPECT_FALSE(SettingsStore(store.folder()).object("a"));
}

TEST(SettingsStore, UnwritableFolderLogsAndKeepsTheValueInMemory) {
  test::TempDir dir;
  { std::ofstream(dir.path() / "blocker") << "a file where the settings folder should be"; }
  SettingsStore store(dir.path() / "blocker" / "velmora");
  test::LogCapture log;
  EXPECT_FALSE(store.set("a", 1));
  EXPECT_EQ(store.integer("a"), 1);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("Could not write"), std::string::npos);
}

TEST(SettingsStore, DefaultFolderFollowsTheEnvironment) {
  ::setenv("VELMORA_CONFIG_DIR", "/tmp/velmora-a", 1);
  EXPECT_EQ(SettingsStore::defaultFolder(), "/tmp/velmora-a");
  const std::string saved = std::getenv("VELMORA_CONFIG_DIR");
  ::unsetenv("VELMORA_CONFIG_DIR");
  ::setenv("XDG_CONFIG_HOME", "/tmp/xdg", 1);
  EXPECT_EQ(SettingsStore::defaultFolder(), "/tmp/xdg/velmora");
  ::unsetenv("XDG_CONFIG_HOME");
  ::setenv("HOME", "/home/op", 1);
  EXPECT_EQ(SettingsStore::defaultFolder(), "/home/op/.config/velmora");
  ::setenv("VELMORA_CONFIG_DIR", saved.c_str(), 1);
}

}  // namespace
}  // namespace velmora
