#include "scene/MaskSceneManager.h"

// Index of this file:
//   [SECTION] Creation
//   [SECTION] Set-up
//   [SECTION] Per frame
//   [SECTION] Outputs
//   [SECTION] Frame descriptions, rendering on request, frame consumers

#include <algorithm>
#include <cmath>

#include "animation/CharacterAnimationController.h"
#include "base/Clock.h"
#include "base/MainQueue.h"
#include "characters/CartoonGhost.h"
#include "characters/MaskExpressionTargets.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

namespace {

float valueOf(const BlendshapeMap& map, ARKitBlendShape shape) {
  const float* value = map.get(shape);
  return value ? *value : 0.0f;
}

}  // namespace

// ---------------------------------------------------------------------------
// [SECTION] Creation
// ---------------------------------------------------------------------------

MaskSceneManager& MaskSceneManager::shared() {
  static MaskSceneManager instance(FaceTrackingState::shared(), CharacterAnimationController::shared());
  return instance;
}

MaskSceneManager::MaskSceneManager(FaceTrackingState& state, CharacterAnimationController& animation,
                                   std::function<double()> clock)
    : state_(state),
      animation_(animation),
      clock_(clock ? std::move(clock) : std::function<double()>(uptime)),
      consumers_(std::make_shared<Consumers>()) {
  consumers_->clock = clock_;
  scene_ = Node::make("Scene");
  cameraNode_ = Node::make("Camera");
  keyLightNode_ = Node::make("KeyLight");
  fillLightNode_ = Node::make("FillLight");
  rimLightNode_ = Node::make("RimLight");
  setupScene();
  setupLighting();
  applyLighting(state_.lighting(), state_.lightIntensity());
  switchModel(state_.characterModel());
  setupOffscreenRenderer();
}

MaskSceneManager::~MaskSceneManager() {
  if (renderer_) renderer_->stop();
}

// ---------------------------------------------------------------------------
// [SECTION] Set-up
// ---------------------------------------------------------------------------

void MaskSceneManager::setupScene() {
  // The background is the clear colour (0, 0, 0, 0): the renderer clears to it.
  camera_ = FrameCamera{};
  camera_.nearPlane = 0.1f;
  camera_.farPlane = 100.0f;
  camera_.verticalFieldOfViewDegrees = 45.0f;
  camera_.position = float3(0.0f, 0.0f, 3.2f);
  cameraNode_->position = camera_.position;  // looks down -z with no rotation
  scene_->addChild(cameraNode_);
}

void MaskSceneManager::setupLighting() {
  rig_ = LightRig::initial();
  environment_ = makeEnvironmentImage();
  keyLightNode_->position = rig_.keyPosition;
  fillLightNode_->position = rig_.fillPosition;
  rimLightNode_->position = rig_.rimPosition;
  scene_->addChild(keyLightNode_);
  scene_->addChild(fillLightNode_);
  scene_->addChild(rimLightNode_);
}

void MaskSceneManager::setupOffscreenRenderer() {
  if (!renderer_) return;
  std::weak_ptr<Consumers> weak = consumers_;
  renderer_->setFrameHandler([weak](const std::shared_ptr<const RenderedFrame>& frame) {
    auto consumers = weak.lock();
    if (!consumers) return;
    // Taken out under the lock and called outside it. Reused: the handler
    // runs on the render thread only, so nothing is allocated per frame
    // once it has seen every consumer.
    thread_local std::vector<std::shared_ptr<const FrameConsumer>> takers;
    takers.clear();
    VideoOutput* outputs[2] = {nullptr, nullptr};
    const bool outputSize = frame->width == outputWidth && frame->height == outputHeight;
    {
      std::lock_guard lock(consumers->mutex);
      for (const auto& [token, consumer] : consumers->list)
        if (consumer.width == frame->width && consumer.height == frame->height) takers.push_back(consumer.take);
      if (outputSize) {
        outputs[0] = consumers->syphon;
        outputs[1] = consumers->ndi;
      }
    }
    // Each output drops what it cannot take (stopped, no client, busy).
    for (VideoOutput* output : outputs)
      if (output) output->publish(frame);
    if ((outputs[0] || outputs[1]) && frame->newestArrival > 0.0) {
      std::lock_guard lock(consumers->mutex);
      if (frame->newestArrival > consumers->lastMeasuredArrival) {
        consumers->lastMeasuredArrival = frame->newestArrival;
        consumers->latency.record(frame->newestArrival, frame->time, consumers->clock());
      }
    }
    for (const auto& take : takers) (*take)(frame);
    takers.clear();  // the consumers' captures are not kept alive past their removal
  });
}

void MaskSceneManager::setRenderer(std::unique_ptr<FrameRenderer> renderer) {
  VELMORA_ASSERT_MAIN_THREAD();
  if (renderer_) renderer_->stop();
  renderer_ = std::move(renderer);
  setupOffscreenRenderer();
}

void MaskSceneManager::applyLighting(const LightingSettings& settings, float master) {
  if (appliedLighting_ && appliedMaster_ && *appliedLighting_ == settings && *appliedMaster_ == master) return;
  appliedLighting_ = settings;
  appliedMaster_ = master;
  rig_ = LightRig::applied(settings, master);
  keyLightNode_->position = rig_.keyPosition;  // re-aimed at rig_.keyTarget
}

std::shared_ptr<const EnvironmentImage> MaskSceneManager::makeEnvironmentImage() {
  auto image = std::make_shared<EnvironmentImage>();
  image->width = 128;
  image->height = 64;
  image->texels.resize(static_cast<std::size_t>(image->width) * image->height);
  const float3 batten = glm::normalize(float3(0.0f, 1.0f, 0.35f));
  const float3 wash = glm::normalize(float3(0.45f, 0.3f, 1.0f));
  const float3 warm(1.0f, 0.93f, 0.82f), cool(0.82f, 0.88f, 1.0f);
  auto lobe = [](const float3& d, const float3& axis, float width) {
    const float angle = std::acos(std::clamp(glm::dot(d, axis), -1.0f, 1.0f));
    return std::exp(-(angle * angle) / (width * width));
  };
  for (int y = 0; y < image->height; ++y)
    for (int x = 0; x < image->width; ++x) {
      const float3 d = image->directionAt(static_cast<float>(x), static_cast<float>(y));
      float3 c;
      if (d.y >= 0.0f) {
        // The fly tower: dim at the horizon (the wings), brighter overhead.
        c = cool * (0.18f + 0.55f * std::pow(d.y, 0.8f));
      } else {
        // The stage floor, dark, with a little bounce in front of the mask.
        c = warm * (0.05f + 0.12f * std::max(0.0f, d.z) * -d.y);
      }
      c += warm * (5.0f * lobe(d, batten, 0.3f) + 2.0f * lobe(d, wash, 0.35f));
      image->texels[static_cast<std::size_t>(y) * image->width + x] = c;
    }
  return image;
}

// ---------------------------------------------------------------------------
// [SECTION] Per frame
// ---------------------------------------------------------------------------

void MaskSceneManager::switchModel(CharacterModelType model) {
  VELMORA_ASSERT_MAIN_THREAD();
  if (currentModelType_ && *currentModelType_ == model && maskNode_ && shownFile_.empty()) return;
  CharacterBuild build = model == CharacterModelType::cartoonGhost ? createGhostNode() : createTheatricalMaskNode();
  install(std::move(build));
  if (model == CharacterModelType::cartoonGhost && maskNode_) {
    ghostRootNode_ = maskNode_;
    ghostLeftEyeNode_ = maskNode_->find("LeftEye");
    ghostRightEyeNode_ = maskNode_->find("RightEye");
  }
  currentModelType_ = model;
}

void MaskSceneManager::setFileCharacter(std::shared_ptr<const FileCharacter> character) {
  VELMORA_ASSERT_MAIN_THREAD();
  // The one on show stays until the next update decides (it may be this path again).
  fileCharacter_ = std::move(character);
}

void MaskSceneManager::install(CharacterBuild build) {
  if (maskNode_) maskNode_->removeFromParent();
  ghostRootNode_.reset();
  ghostLeftEyeNode_.reset();
  ghostRightEyeNode_.reset();
  maskNode_ = build.node;
  morpher_ = build.morpher;
  targetNameToIndex_ = std::move(build.targetNameToIndex);
  // The vocabulary's targets found once per character, so the per-frame
  // update needs no string work for them.
  slotTargets_.fill(-1);
  for (const ARKitBlendShape shape : allCases<ARKitBlendShape>()) {
    const auto it = targetNameToIndex_.find(targetKey(std::string(rawValue(shape))));
    if (it != targetNameToIndex_.end() && morpher_ && it->second >= 0 &&
        static_cast<std::size_t>(it->second) < morpher_->targetCount())
      slotTargets_[index(shape)] = it->second;
  }
  if (maskNode_) scene_->addChild(maskNode_);
  shownFile_.clear();
}

std::optional<int> MaskSceneManager::targetIndex(std::string_view name) const {
  auto it = targetNameToIndex_.find(targetKey(std::string(name)));
  if (it == targetNameToIndex_.end()) return std::nullopt;
  return it->second;
}

void MaskSceneManager::updateTracking(const FaceTrackingState& state) {
  VELMORA_ASSERT_MAIN_THREAD();
  // 1. Model: the character file when the state names the one held, else
  // the built-in model (also while a named file is still being read).
  const bool fileWanted = fileCharacter_ && !state.characterFile().empty() && state.characterFile() == fileCharacter_->path;
  if (fileWanted) {
    if (shownFile_ != fileCharacter_->path) {
      install(fileCharacter_->build);
      shownFile_ = fileCharacter_->path;
      currentModelType_ = state.characterModel();
    }
  } else if (!currentModelType_ || *currentModelType_ != state.characterModel() || !shownFile_.empty()) {
    switchModel(state.characterModel());
  }
  // 2.
  if (!maskNode_) return;
  // 3. Cue output at the media time.
  const double t = clock_();
  const AnimationOutput out = animation_.sample(t);
  // 4. Idle float, the ghost only.
  float bob = 0.0f, sway = 0.0f;
  if (currentModelType_ == CharacterModelType::cartoonGhost && shownFile_.empty()) {
    bob = static_cast<float>(std::sin(1.8 * t) * 0.025);
    sway = static_cast<float>(std::sin(1.2 * t) * 0.015);
  }
  // The live face as shown: the published values through the tracking-loss
  // stage (eased to neutral while the phone is gone). Cues act on top of it.
  BlendshapeMap blended = state.blendshapes();
  float3 head = state.headRotation();
  state.trackingLoss().apply(blended, head);
  // 5. Orientation: the cue's rotation in full, whatever its blend weight
  // (the nod and shake cues rotate at weight 0).
  maskNode_->eulerAngles = float3(head.x + out.rotationOffset.x, head.y + out.rotationOffset.y,
                                  head.z + out.rotationOffset.z + sway);
  // 6. Position.
  float3 position = 1.5f * state.headPosition() + out.positionOffset;
  position.y += bob;
  maskNode_->position = position;
  // 7. Scale.
  maskNode_->scale = out.scaleMultiplier;
  // 8. Expression blend: the cue's channels move from live towards the cue
  // by its weight; a channel the live map lacks blends from 0.
  if (out.blendWeight > 0.0f) {
    const float w = out.blendWeight;
    out.blendshapes.forEachSlot([&](ARKitBlendShape shape, float value) {
      const float live = valueOf(blended, shape);
      blended.set(shape, w * value + (1.0f - w) * live);
    });
    for (const auto& [name, value] : out.blendshapes.others()) {
      const float* live = blended.get(name);
      const float mixed = w * value + (1.0f - w) * (live ? *live : 0.0f);
      blended[name] = mixed;
    }
  }
  // 9. Morph weights by lower-cased name; names without a target are skipped.
  // A target that the blended map does not name rests at 0, so nothing a cue
  // or an earlier sender left behind lingers once the map stops naming it.
  if (morpher_) {
    weights_.assign(morpher_->targetCount(), 0.0f);
    blended.forEachSlot([&](ARKitBlendShape shape, float weight) {
      const int target = slotTargets_[index(shape)];
      if (target >= 0) weights_[static_cast<std::size_t>(target)] = weight;
    });
    for (const auto& [name, weight] : blended.others()) {  // names outside the vocabulary, in any case
      auto it = targetNameToIndex_.find(targetKey(name));
      if (it != targetNameToIndex_.end() && it->second >= 0 && static_cast<std::size_t>(it->second) < weights_.size())
        weights_[static_cast<std::size_t>(it->second)] = weight;
    }
    for (std::size_t i = 0; i < weights_.size(); ++i) morpher_->setWeight(i, weights_[i]);
  }
  // 10. Ghost eyes.
  if (ghostLeftEyeNode_ && ghostRightEyeNode_) updateGhostEyes(*ghostLeftEyeNode_, *ghostRightEyeNode_, blended);
  // 11. Opacity, clamped to 0..1 (a product that is not a number hides).
  const float opacity = state.maskOpacity() * out.opacityMultiplier;
  maskNode_->opacity = std::isnan(opacity) ? 0.0f : std::clamp(opacity, 0.0f, 1.0f);
  // 12. Lighting (returns at once when nothing changed).
  applyLighting(state.lighting(), state.lightIntensity());
}

void MaskSceneManager::updateGhostEyes(Node& leftEye, Node& rightEye, const BlendshapeMap& b) {
  using S = ARKitBlendShape;
  leftEye.eulerAngles = float3((valueOf(b, S::eyeLookDownLeft) - valueOf(b, S::eyeLookUpLeft)) * 0.35f,
                               (valueOf(b, S::eyeLookOutLeft) - valueOf(b, S::eyeLookInLeft)) * 0.35f, 0.0f);
  // Opposite in form to the left eye, so that both turn the same way.
  rightEye.eulerAngles = float3((valueOf(b, S::eyeLookDownRight) - valueOf(b, S::eyeLookUpRight)) * 0.35f,
                                (valueOf(b, S::eyeLookInRight) - valueOf(b, S::eyeLookOutRight)) * 0.35f, 0.0f);
  // A closed eye keeps 8 % of its height.
  leftEye.scale = float3(1.0f, std::max(1.0f - 0.92f * valueOf(b, S::eyeBlinkLeft), 0.08f), 1.0f);
  rightEye.scale = float3(1.0f, std::max(1.0f - 0.92f * valueOf(b, S::eyeBlinkRight), 0.08f), 1.0f);
}

void MaskSceneManager::tick() {
  updateTracking(state_);
  if (trackerUpdate_) trackerUpdate_();
  if (state_.isSyphonActive() || state_.isNDIActive()) {
    renderOffscreenFrame();  // syncs the outputs first
  } else {
    syncOutputs(state_);  // so switching both off still stops them and says so
    submitFrames(false, false);  // the live views still want theirs
  }
}

void MaskSceneManager::renderOffscreenFrame() {
  VELMORA_ASSERT_MAIN_THREAD();
  if (!renderer_) return;
  syncOutputs(state_);
  // A running output that is switched on renders only when it can take the
  // frame: rendering 1080p for a PipeWire source nobody is linked to would
  // cost a whole core on software GL for a frame with nowhere to go.
  const bool toSyphon = syphon_ && state_.isSyphonActive() && syphon_->isRunning() && syphon_->wantsFrames();
  const bool toNDI = ndi_ && state_.isNDIActive() && ndi_->isRunning() && ndi_->wantsFrames();
  submitFrames(toSyphon || toNDI, true);
}

void MaskSceneManager::submitFrames(bool forOutputs, bool forConsumers) {
  if (!renderer_) return;
  // One frame per size: the output size when an output, a consumer or a view
  // of that size takes it, and each other view's own size once.
  bool outputFrame = forOutputs;
  sizes_.clear();
  {
    std::lock_guard lock(consumers_->mutex);
    for (const auto& [token, consumer] : consumers_->list) {
      const std::pair<int, int> size{consumer.width, consumer.height};
      if (size == std::pair{outputWidth, outputHeight}) {
        outputFrame = outputFrame || forConsumers || consumer.view;
      } else if (consumer.view && std::find(sizes_.begin(), sizes_.end(), size) == sizes_.end()) {
        sizes_.push_back(size);
      }
    }
  }
  if (outputFrame) renderer_->submit(makeFrameDescription());
  for (const auto& [width, height] : sizes_) renderer_->submit(makeFrameDescription(width, height));
}

// ---------------------------------------------------------------------------
// [SECTION] Outputs
// ---------------------------------------------------------------------------

void MaskSceneManager::setOutputs(VideoOutput* syphon, VideoOutput* ndi) {
  VELMORA_ASSERT_MAIN_THREAD();
  syphon_ = syphon;
  ndi_ = ndi;
  std::lock_guard lock(consumers_->mutex);
  consumers_->syphon = syphon;
  consumers_->ndi = ndi;
}

void MaskSceneManager::syncOutputs(FaceTrackingState& state) {
  VELMORA_ASSERT_MAIN_THREAD();
  // 1, 2: each output follows its switch. A start that fails is asked again
  // next frame; the output itself paces real attempts.
  const std::pair<VideoOutput*, bool> outputs[] = {{syphon_, state.isSyphonActive()}, {ndi_, state.isNDIActive()}};
  for (const auto& [output, active] : outputs) {
    if (!output) continue;
    if (active && !output->isRunning())
      output->start();
    else if (!active && output->isRunning())
      output->stop();
  }
  // 3: the status texts, at most twice a second, written only when changed
  // so observers are not woken for nothing.
  const double now = clock_();
  if (lastStatusCheck_ && now - *lastStatusCheck_ <= statusRefreshInterval) return;
  lastStatusCheck_ = now;
  std::string syphon = syphonStatusText(state.isSyphonActive(), syphon_);
  if (syphon != state.syphonStatus()) state.setSyphonStatus(std::move(syphon));
  std::string ndi = ndiStatusText(state.isNDIActive(), ndi_);
  if (ndi != state.ndiStatus()) state.setNdiStatus(std::move(ndi));
  // Latency in milliseconds to 0.1 ms, so noise below that wakes nobody.
  const OutputLatency::Summary latency = consumers_->latency.summary(now);
  const double p50 = std::round(latency.p50 * 1e4) / 10.0, p99 = std::round(latency.p99 * 1e4) / 10.0;
  if (p50 != state.outputLatencyP50()) state.setOutputLatencyP50(p50);
  if (p99 != state.outputLatencyP99()) state.setOutputLatencyP99(p99);
}

void MaskSceneManager::shutdownOutputs() {
  VELMORA_ASSERT_MAIN_THREAD();
  if (syphon_) syphon_->stop();
  if (ndi_) ndi_->stop();
}

std::string MaskSceneManager::syphonStatusText(bool active, const VideoOutput* output) {
  if (!active) return "Syphon: off";
  if (!output || !output->isRunning()) {
    const auto error = output ? output->lastError() : std::nullopt;
    return "Syphon: " + error.value_or("unavailable");
  }
  return output->clientCount() > 0 ? "Syphon: sending to a client" : "Syphon: ready, waiting for a client";
}

std::string MaskSceneManager::ndiStatusText(bool active, const VideoOutput* output) {
  if (!active) return "NDI: off";
  if (!output || !output->isRunning()) {
    const auto error = output ? output->lastError() : std::nullopt;
    std::string text = "NDI: " + error.value_or("unavailable");
    // Whole seconds, rounded up: the text changes at most once a second.
    if (const auto wait = output ? output->retryIn() : std::nullopt)
      text += retryNote + std::to_string(static_cast<int>(std::ceil(*wait))) + " s)";
    return text;
  }
  const int n = output->clientCount();
  if (n < 1) return "NDI: ready, waiting for a receiver";
  return "NDI: sending to " + std::to_string(n) + " receiver" + (n == 1 ? "" : "s");
}

// ---------------------------------------------------------------------------
// [SECTION] Frame descriptions, rendering on request, frame consumers
// ---------------------------------------------------------------------------

std::shared_ptr<const FrameDescription> MaskSceneManager::makeFrameDescription(int width, int height) const {
  auto frame = std::make_shared<FrameDescription>();
  frame->width = width;
  frame->height = height;
  frame->time = clock_();
  frame->sequence = ++sequence_;
  frame->newestArrival = state_.newestArrivalTime();
  frame->lights = rig_;
  frame->camera = camera_;
  frame->environment = environment_;
  // The mask's targets (about 28 MB) are kept here only until a renderer
  // has its GPU copy; frames then name them by their source.
  if (morpher_ && morpher_->targets && morpher_->source && morpher_->source->uploaded) morpher_->targets.reset();
  if (maskNode_) frame->addNodes(*maskNode_);
  return frame;
}

FrameRenderer::Result MaskSceneManager::renderFrameNow(int width, int height, int sampleCount) {
  if (!renderer_) return {nullptr, "MaskSceneManager: no offscreen renderer"};
  auto frame = std::const_pointer_cast<FrameDescription>(makeFrameDescription(width, height));
  frame->sampleCount = sampleCount;
  return renderer_->renderNow(frame);
}

int MaskSceneManager::addFrameConsumer(FrameConsumer consumer) {
  std::lock_guard lock(consumers_->mutex);
  const int token = consumers_->nextToken++;
  consumers_->list.emplace(token, Consumer{std::make_shared<const FrameConsumer>(std::move(consumer)), outputWidth, outputHeight, false});
  return token;
}

int MaskSceneManager::addView(int width, int height, FrameConsumer consumer) {
  std::lock_guard lock(consumers_->mutex);
  const int token = consumers_->nextToken++;
  consumers_->list.emplace(token, Consumer{std::make_shared<const FrameConsumer>(std::move(consumer)), width, height, true});
  return token;
}

void MaskSceneManager::removeFrameConsumer(int token) {
  std::lock_guard lock(consumers_->mutex);
  consumers_->list.erase(token);
}

}  // namespace velmora
