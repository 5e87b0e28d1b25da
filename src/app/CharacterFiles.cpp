#include "app/CharacterFiles.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "base/Log.h"
#include "base/MainQueue.h"
#include "characters/GltfCharacterReader.h"
#include "scene/MaskSceneManager.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

namespace {

std::string lowercased(std::string s) {
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

bool isCharacterFile(const std::filesystem::path& p) {
  const std::string ext = lowercased(p.extension().string());
  return ext == ".glb" || ext == ".gltf" || ext == ".vrm";
}

}  // namespace

CharacterFiles::CharacterFiles(FaceTrackingState& state, MaskSceneManager& scene, MainQueue& mainQueue)
    : state_(state), scene_(scene), mainQueue_(mainQueue) {}

CharacterFiles::~CharacterFiles() {
  alive_.reset();
  worker_.stop();
}

std::filesystem::path CharacterFiles::folder() {
  if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data)
    return std::filesystem::path(data) / "velmora" / "characters";
  const char* home = std::getenv("HOME");
  return std::filesystem::path(home ? home : ".") / ".local" / "share" / "velmora" / "characters";
}

void CharacterFiles::scanFolder() {
  std::error_code ec;
  std::vector<std::filesystem::path> found;
  for (const auto& e : std::filesystem::directory_iterator(folder(), ec))
    if (e.is_regular_file(ec) && isCharacterFile(e.path())) found.push_back(e.path());
  std::sort(found.begin(), found.end());
  for (const auto& p : found) {
    const std::size_t before = entries_.size();
    const std::size_t index = add(p.string());
    if (index == before) read(index, false);
  }
}

std::size_t CharacterFiles::add(const std::string& path) {
  for (std::size_t i = 0; i < entries_.size(); ++i)
    if (entries_[i].path == path) return i;
  Entry e;
  e.path = path;
  e.name = std::filesystem::path(path).stem().string();
  entries_.push_back(std::move(e));
  return entries_.size() - 1;
}

void CharacterFiles::open(const std::string& nameOrPath) {
  const std::string wanted = lowercased(nameOrPath);
  for (std::size_t i = 0; i < entries_.size(); ++i)
    if (lowercased(entries_[i].name) == wanted || entries_[i].path == nameOrPath) return read(i, true);
  read(add(nameOrPath), true);
}

void CharacterFiles::read(std::size_t index, bool show) {
  Entry& entry = entries_[index];
  entry.reading = true;
  if (show) state_.setCharacterStatus("Character: reading " + entry.name + "...");
  std::weak_ptr<int> alive = alive_;
  const std::string path = entry.path;
  worker_.post([this, alive, path, index, show] {
    std::shared_ptr<const FileCharacter> character;
    auto result = GltfCharacterReader::read(path);
    const std::string error = result ? std::string() : result.reason;
    if (result) character = std::move(result.value);
    mainQueue_.post([this, alive, character, error, index, show] {
      if (!alive.lock()) return;
      Entry& e = entries_[index];
      e.reading = false;
      e.error = error;
      if (!character) {
        logLine("Character", error);
        if (show) state_.setCharacterStatus(error);
        return;
      }
      e.known = true;
      e.matchedTargets = static_cast<int>(character->matchedBlendshapes.size());
      e.triangles = character->triangles;
      e.framing = character->framing;
      if (!show) return;
      std::string line = "Showing " + e.name + ": " + std::to_string(e.matchedTargets) + " of 52 blendshapes, " +
                         std::to_string(e.triangles) + " triangles, framed by " +
                         std::string(CharacterFraming::label(e.framing));
      if (!character->unmatchedTargets.empty()) {
        line += "; targets not matched:";
        for (const auto& name : character->unmatchedTargets) line += " " + name;
      }
      logLine("Character", line);
      scene_.setFileCharacter(character);
      state_.setCharacterFile(character->path);
      state_.setCharacterStatus("Character: " + e.name + " (" + std::to_string(e.matchedTargets) + "/52, " +
                                std::to_string(e.triangles) + " triangles, " +
                                std::string(CharacterFraming::label(e.framing)) + ")");
    });
  });
}

}  // namespace velmora
