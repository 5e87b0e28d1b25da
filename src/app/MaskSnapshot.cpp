#include "app/MaskSnapshot.h"

#include <stdlib.h>

#include <array>
#include <cctype>
#include <filesystem>
#include <functional>
#include <vector>

#include "animation/CharacterAnimationController.h"
#include "app/ContactSheet.h"
#include "base/Clock.h"
#include "base/Log.h"
#include "characters/GltfCharacterReader.h"
#include "base/SettingsStore.h"
#include "render/PngWriter.h"
#include "render/RenderThread.h"
#include "scene/MaskSceneManager.h"
#include "stage/ARKitBlendShape.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

namespace {

// File-name forms of the cue kinds, in catalogue order.
constexpr std::array<const char*, 15> kCueSlugs = {
    "ghostFlyIn", "ghostFlyOut", "ghostSpook", "ghostSpin", "ghostWobble", "ghostPeek", "ghostLaugh", "ghostShiver",
    "maskBow",    "maskGasp",    "maskNod",    "maskShake", "maskLaugh",   "maskSob",   "maskGlare"};

// Every blendshape at 0 except the given ones: the scene sets the weights
// of the names it is given and leaves the others as they were, so each shot
// names them all.
BlendshapeMap expression(std::initializer_list<std::pair<std::string_view, float>> shapes) {
  BlendshapeMap map;
  for (ARKitBlendShape shape : allCases<ARKitBlendShape>()) map.set(shape, 0.0f);
  for (const auto& [name, value] : shapes) map[name] = value;
  return map;
}

// Cues are triggered with this duration and caught half-way.
constexpr double kCueSeconds = 2.0;

std::string presetSlug(const std::string& name) {
  std::string s;
  for (char c : name) {
    if (std::isalnum(static_cast<unsigned char>(c))) s += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    else if (!s.empty() && s.back() != '-') s += '-';
  }
  return s;
}

// A settings folder that lives as long as the run.
class ScratchFolder {
 public:
  ScratchFolder() {
    std::string templ = (std::filesystem::temp_directory_path() / "velmora-snapshot-XXXXXX").string();
    if (char* dir = ::mkdtemp(templ.data())) path_ = dir;
    else path_ = std::filesystem::temp_directory_path() / "velmora-snapshot";
  }
  ~ScratchFolder() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

struct Shot {
  std::string name;  // file name without ".png"
  std::function<void()> setUp;
};

// What the renderer uploads for a character: its vertex and index arrays as
// they are, 13 bytes per vertex a target moves (six half-float deltas and
// the target's index) plus 4 per vertex, a 24-byte morphed vertex, and the pictures with
// their mipmaps (4/3).
std::size_t gpuBytes(const Node& node, std::size_t textureBytes) {
  std::size_t bytes = textureBytes * 4 / 3;
  if (node.geometry) {
    for (const auto& source : node.geometry->sources) bytes += source.data ? source.data->size() * 4 : 0;
    for (const auto& element : node.geometry->elements) bytes += element.indices ? element.indices->size() * 4 : 0;
    const std::size_t vertices = node.geometry->vertexCount();
    if (node.morpher) bytes += vertices * (4 + 24);
    if (node.morpher && node.morpher->targets)
      for (const auto& target : *node.morpher->targets) bytes += target ? target->vertices.size() * 13 : 0;
  }
  for (const auto& child : node.children()) bytes += gpuBytes(*child, 0);
  return bytes;
}

// Renders every shot (each after one update of the scene) to NAME.png, then
// the contact sheet; returns the number of files written.
int writeShots(MaskSceneManager& scene, FaceTrackingState& state, CharacterAnimationController& animation,
               double& now, const std::vector<Shot>& shots, const std::string& outputDirectory) {
  namespace fs = std::filesystem;
  ContactSheet sheet(6, 320, 180);
  int written = 0;
  for (const auto& shot : shots) {
    animation.reset(false, now);
    now += 1.0;
    shot.setUp();
    scene.updateTracking(state);
    const double started = uptime();
    auto result = scene.renderFrameNow();
    const double took = uptime() - started;
    if (!result.frame) {
      logLine("snapshot", "Cannot render " + shot.name + ": " + result.error);
      if (written == 0) break;  // no renderer: nothing else will render either
      continue;
    }
    const std::string path = (fs::path(outputDirectory) / (shot.name + ".png")).string();
    std::string error;
    if (!PngWriter::write(path, *result.frame, &error)) {
      logLine("snapshot", error);
      continue;
    }
    ++written;
    logLine("snapshot", "Wrote " + path + " (rendered in " + std::to_string(static_cast<int>(took * 1000.0)) + " ms)");
    sheet.add(*result.frame, shot.name);
  }
  if (sheet.count() > 0) {
    const std::string path = (fs::path(outputDirectory) / "contact-sheet.png").string();
    std::string error;
    if (PngWriter::write(path, sheet.compose(), &error)) {
      ++written;
      logLine("snapshot", "Wrote " + path);
    } else {
      logLine("snapshot", error);
    }
  }
  return written;
}

}  // namespace

int MaskSnapshot::run(const std::string& outputDirectory) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::create_directories(outputDirectory, ec);
  if (ec || !fs::is_directory(outputDirectory)) {
    logLine("snapshot", "Cannot create the folder " + outputDirectory + (ec ? ": " + ec.message() : ""));
    logLine("snapshot", "Wrote 0 files");
    return 0;
  }

  ScratchFolder scratch;
  SettingsStore store(scratch.path());
  FaceTrackingState state(store);
  CharacterAnimationController animation;
  double now = 100.0;  // the media clock the scene samples; stepped below
  MaskSceneManager scene(state, animation, [&now] { return now; });
  scene.setRenderer(std::make_unique<RenderThread>());

  auto setCharacter = [&](CharacterModelType model) {
    if (state.characterModel() != model) state.setCharacterModel(model);
  };
  auto setExpression = [&](CharacterModelType model, BlendshapeMap shapes) {
    return [&, model, shapes] {
      setCharacter(model);
      state.setBlendshapes(shapes);
    };
  };
  const auto mask = CharacterModelType::theatricalMask;
  const auto ghost = CharacterModelType::cartoonGhost;

  std::vector<Shot> shots = {
      {"mask-rest", setExpression(mask, expression({}))},
      {"ghost-rest", setExpression(ghost, expression({}))},
      {"mask-jawOpen", setExpression(mask, expression({{"jawOpen", 1.0f}}))},
      {"mask-smile", setExpression(mask, expression({{"mouthSmileLeft", 1.0f}, {"mouthSmileRight", 1.0f}}))},
      {"mask-frown", setExpression(mask, expression({{"mouthFrownLeft", 1.0f}, {"mouthFrownRight", 1.0f}}))},
      {"mask-blink", setExpression(mask, expression({{"eyeBlinkLeft", 1.0f}, {"eyeBlinkRight", 1.0f}}))},
      {"mask-browInnerUp", setExpression(mask, expression({{"browInnerUp", 1.0f}}))},
  };
  for (const auto& preset : LightingSettings::presets()) {
    shots.push_back({"mask-lighting-" + presetSlug(preset.preset), [&, preset] {
                       setCharacter(mask);
                       state.setBlendshapes(expression({}));
                       state.setLighting(preset);
                     }});
  }
  const auto theatrical = LightingSettings::theatrical();
  auto ghostShot = [&](BlendshapeMap shapes) {
    return [&, shapes] {
      state.setLighting(theatrical);
      setCharacter(ghost);
      state.setBlendshapes(shapes);
    };
  };
  shots.push_back({"ghost-jawOpen", ghostShot(expression({{"jawOpen", 1.0f}}))});
  shots.push_back({"ghost-smile", ghostShot(expression({{"mouthSmileLeft", 1.0f}, {"mouthSmileRight", 1.0f}}))});
  shots.push_back({"ghost-frown", ghostShot(expression({{"mouthFrownLeft", 1.0f}, {"mouthFrownRight", 1.0f}}))});
  // Both eyes to the performer's left: the left eye looks out, the right eye in.
  shots.push_back({"ghost-lookLeft", ghostShot(expression({{"eyeLookOutLeft", 1.0f}, {"eyeLookInRight", 1.0f}}))});
  shots.push_back({"ghost-blink", ghostShot(expression({{"eyeBlinkLeft", 1.0f}, {"eyeBlinkRight", 1.0f}}))});
  for (std::size_t i = 0; i < AnimationCue::allKinds.size(); ++i) {
    const auto kind = AnimationCue::allKinds[i];
    shots.push_back({std::string("cue-") + kCueSlugs[i], [&, kind] {
                       state.setLighting(theatrical);
                       setCharacter(AnimationCue::isGhostCue(kind) ? ghost : mask);
                       state.setBlendshapes(expression({}));
                       const auto cue = AnimationCue::make(kind, kCueSeconds);
                       animation.reset(false, now);
                       animation.trigger(cue, now);
                       now += cue.duration() * 0.5;
                     }});
  }

  const int written = writeShots(scene, state, animation, now, shots, outputDirectory);
  logLine("snapshot", "Wrote " + std::to_string(written) + " files to " + outputDirectory);
  return written;
}

int MaskSnapshot::runCharacterFile(const std::string& outputDirectory, const std::string& file) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::create_directories(outputDirectory, ec);
  const double started = uptime();
  auto read = GltfCharacterReader::read(file);
  const double readSeconds = uptime() - started;
  if (ec || !fs::is_directory(outputDirectory) || !read) {
    logLine("snapshot", !read ? read.reason : "Cannot create the folder " + outputDirectory);
    logLine("snapshot", "Wrote 0 files");
    return 0;
  }
  std::shared_ptr<const FileCharacter> character = std::move(read.value);
  logLine("snapshot", "Read " + file + " in " + std::to_string(static_cast<int>(readSeconds * 1000.0)) + " ms: " +
                          std::to_string(character->triangles) + " triangles, " + std::to_string(character->vertices) +
                          " vertices, " + std::to_string(character->matchedBlendshapes.size()) + " of 52 blendshapes, " +
                          std::to_string(character->textureBytes / 1024) + " KiB of pictures, about " +
                          std::to_string(gpuBytes(*character->build.node, character->textureBytes) >> 10) +
                          " KiB of GPU memory, framed by " + std::string(CharacterFraming::label(character->framing)));

  ScratchFolder scratch;
  SettingsStore store(scratch.path());
  FaceTrackingState state(store);
  CharacterAnimationController animation;
  double now = 100.0;
  MaskSceneManager scene(state, animation, [&now] { return now; });
  scene.setRenderer(std::make_unique<RenderThread>());
  scene.setFileCharacter(character);
  state.setCharacterFile(character->path);

  // At rest, then each blendshape a target drives, at full weight.
  std::vector<Shot> shots = {{character->name + "-rest", [&] { state.setBlendshapes(expression({})); }}};
  for (const auto& name : character->matchedBlendshapes)
    shots.push_back({character->name + "-" + name, [&, name] {
                       BlendshapeMap shapes;
                       shapes[name] = 1.0f;
                       state.setBlendshapes(shapes);
                     }});
  const int written = writeShots(scene, state, animation, now, shots, outputDirectory);
  logLine("snapshot", "Wrote " + std::to_string(written) + " files to " + outputDirectory);
  return written;
}

}  // namespace velmora
