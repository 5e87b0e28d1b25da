#pragma once
// The one long-lived scene: camera, light rig, the active character (the
// theatrical mask or the cartoon ghost), and the per-frame application of
// the live face state and the cue player's output to it. It captures an
// immutable frame description every frame that an output wants and hands it
// to the render thread, which renders 1920 x 1080 BGRA frames (straight
// alpha, see RenderedFrame.h) for the frame consumers.
//
// Threads: everything here runs on the main thread except the frame
// consumers, which are called on the render thread. The main thread never
// waits for the GPU, except in renderFrameNow() (snapshots and tests).
//
// The renderer is handed in (setRenderer): the scene knows only the
// FrameRenderer interface, so it builds and tests without GL. So are the two
// video outputs (setOutputs): the scene starts and stops them with the
// operator's switches, writes their status texts into the state and hands
// them every finished frame, through the VideoOutput interface.

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "scene/EnvironmentImage.h"
#include "scene/FrameDescription.h"
#include "scene/FrameRenderer.h"
#include "scene/LightingRig.h"
#include "scene/OutputLatency.h"
#include "scene/RenderedFrame.h"
#include "scene/VideoOutput.h"
#include "stage/CharacterModelType.h"
#include "stage/FaceFrame.h"
#include "stage/LightingSettings.h"
#include "stage/Morpher.h"
#include "stage/Node.h"

namespace velmora {

class FaceTrackingState;
class CharacterAnimationController;

class MaskSceneManager {
 public:
  static constexpr int outputWidth = 1920;
  static constexpr int outputHeight = 1080;

  using FrameConsumer = std::function<void(const std::shared_ptr<const RenderedFrame>&)>;

  // Over FaceTrackingState::shared() and CharacterAnimationController::shared(),
  // created on first use (after the state exists).
  static MaskSceneManager& shared();

  // init: creates the scene and nodes, then setupScene, setupLighting,
  // applyLighting(state.lighting, state.lightIntensity), switchModel(to:
  // state.characterModel) and setupOffscreenRenderer, in that order. The
  // clock is the media clock (seconds) of the per-frame update; tests pass
  // their own.
  MaskSceneManager(FaceTrackingState& state, CharacterAnimationController& animation,
                   std::function<double()> clock = {});
  ~MaskSceneManager();
  MaskSceneManager(const MaskSceneManager&) = delete;
  MaskSceneManager& operator=(const MaskSceneManager&) = delete;

  // ---- set-up ---------------------------------------------------------------
  void setupScene();
  void setupLighting();
  // Connects the renderer's finished frames to the frame consumers; a no-op
  // until a renderer has been handed in.
  void setupOffscreenRenderer();
  // Main thread. Hands in the renderer (the application's GL render thread;
  // tests may pass a fake) and connects it; a previous one is stopped.
  void setRenderer(std::unique_ptr<FrameRenderer> renderer);
  // Applies the settings at master level `master` to the rig; returns at
  // once when both equal what was applied last (the first call always applies).
  void applyLighting(const LightingSettings& settings, float master);
  // The stage environment: a small equirectangular radiance image (a bright
  // overhead batten, a soft front wash, dark wings and floor) that lights the
  // character's ambient and glossy reflections.
  static std::shared_ptr<const EnvironmentImage> makeEnvironmentImage();

  // ---- per frame --------------------------------------------------------------
  void switchModel(CharacterModelType model);
  // The morph target of a blendshape name (any case), if the character has one.
  std::optional<int> targetIndex(std::string_view name) const;
  // The per-frame update, in twelve steps (model, cue sample, idle float,
  // orientation, position, scale, expression blend, morph weights, ghost
  // eyes, opacity, lighting).
  void updateTracking(const FaceTrackingState& state);
  static void updateGhostEyes(Node& leftEye, Node& rightEye, const BlendshapeMap& blendshapes);

  // Main thread. The frame loop's second step, run by tick() right after
  // updateTracking (the dashboard's wireframe tracker); none by default.
  void setTrackerUpdate(std::function<void()> update) { trackerUpdate_ = std::move(update); }
  // The 60 Hz tick: updateTracking(state), the tracker update, then
  // renderOffscreenFrame() when the Syphon or the NDI output is switched on,
  // else syncOutputs(state) alone (so outputs switched off are stopped and
  // their status says so) and a frame for each live view.
  void tick();
  // syncOutputs(state), then captures the frame and hands it to the render
  // thread when an output runs, is switched on and wants frames (a PipeWire
  // source with no consumer linked does not), or a frame consumer is
  // registered; and a frame for each live view of another size. Without a
  // renderer nothing is rendered.
  void renderOffscreenFrame();

  // ---- outputs ----------------------------------------------------------------
  // Seconds between two refreshes of the outputs' status texts.
  static constexpr double statusRefreshInterval = 0.5;
  // Main thread. The same-machine ("Syphon") and network ("NDI") outputs;
  // either may be null (it then reads as unavailable). Not owned: they must
  // outlive their use here (the application's shared publishers).
  void setOutputs(VideoOutput* syphon, VideoOutput* ndi);
  // Starts or stops each output to follow state.isSyphonActive and
  // state.isNDIActive, then, when more than statusRefreshInterval seconds
  // have passed since the last refresh, recomputes state.syphonStatus and
  // state.ndiStatus, writing each only when its text changed.
  void syncOutputs(FaceTrackingState& state);
  // Stops both outputs (at exit).
  void shutdownOutputs();
  // The status texts as output sync computes them (a null output has no
  // server and no error).
  static std::string syphonStatusText(bool active, const VideoOutput* output);
  static std::string ndiStatusText(bool active, const VideoOutput* output);
  // How a status text ends while a failed output waits to try again:
  // " (next try in 2 s)", counting down once a second.
  static constexpr const char* retryNote = " (next try in ";
  // The status without that countdown, so a log line is written when the
  // failure changes, not every second.
  static std::string withoutRetryNote(const std::string& status) { return status.substr(0, status.find(retryNote)); }
  std::optional<double> lastStatusCheck() const { return lastStatusCheck_; }
  // Arrival-to-hand-off latency of the frames handed to the outputs; the
  // status refresh publishes its last second as state.outputLatencyP50/P99.
  const OutputLatency& outputLatency() const { return consumers_->latency; }
  // The frame as it stands now (any size; the outputs use 1920 x 1080).
  std::shared_ptr<const FrameDescription> makeFrameDescription(int width = outputWidth,
                                                               int height = outputHeight) const;
  // Renders the current frame synchronously (snapshots, tests).
  FrameRenderer::Result renderFrameNow(int width = outputWidth, int height = outputHeight, int sampleCount = 4);

  // Any thread. Consumers are called on the render thread with each frame
  // rendered at the output size.
  int addFrameConsumer(FrameConsumer consumer);
  // Any thread. A live view of the scene at its own size (the projector
  // window): a frame is rendered for it on every tick, whether an output is
  // switched on or not, by the same renderer as the outputs' frames (one GPU
  // copy of every character for all of them). A view at the output size
  // takes the outputs' very frame: one render serves both. The consumer is
  // called on the render thread with each frame of the view's size.
  int addView(int width, int height, FrameConsumer consumer);
  // Removes a consumer or a view; a call already under way on the render
  // thread may still finish.
  void removeFrameConsumer(int token);
  FrameRenderer* renderer() { return renderer_.get(); }

  // ---- fields ---------------------------------------------------------------
  const std::shared_ptr<Node>& scene() const { return scene_; }
  const std::shared_ptr<Node>& maskNode() const { return maskNode_; }
  const std::shared_ptr<Morpher>& morpher() const { return morpher_; }
  const std::shared_ptr<Node>& ghostRootNode() const { return ghostRootNode_; }
  const std::shared_ptr<Node>& ghostLeftEyeNode() const { return ghostLeftEyeNode_; }
  const std::shared_ptr<Node>& ghostRightEyeNode() const { return ghostRightEyeNode_; }
  std::optional<CharacterModelType> currentModelType() const { return currentModelType_; }
  const std::shared_ptr<Node>& cameraNode() const { return cameraNode_; }
  const std::shared_ptr<Node>& keyLightNode() const { return keyLightNode_; }
  const std::shared_ptr<Node>& fillLightNode() const { return fillLightNode_; }
  const std::shared_ptr<Node>& rimLightNode() const { return rimLightNode_; }
  const std::unordered_map<std::string, int>& targetNameToIndex() const { return targetNameToIndex_; }
  const std::optional<LightingSettings>& appliedLighting() const { return appliedLighting_; }
  const std::optional<float>& appliedMaster() const { return appliedMaster_; }
  // The numbers of every light as last applied.
  const LightRig& lightRig() const { return rig_; }
  const FrameCamera& camera() const { return camera_; }
  const std::shared_ptr<const EnvironmentImage>& environment() const { return environment_; }

 private:
  // A frame consumer, or a live view (see addView), and the frame size it takes.
  struct Consumer {
    std::shared_ptr<const FrameConsumer> take;  // shared so the handler takes it without a copy
    int width = outputWidth, height = outputHeight;
    bool view = false;
  };
  // Everything the render thread's frame handler reads, under one lock.
  struct Consumers {
    std::mutex mutex;
    std::map<int, Consumer> list;
    int nextToken = 1;
    VideoOutput* syphon = nullptr;
    VideoOutput* ndi = nullptr;
    // Each datagram's arrival is measured once, with the first frame showing it.
    double lastMeasuredArrival = 0.0;
    std::function<double()> clock;
    OutputLatency latency;
  };

  // Hands the render thread this tick's frames: one at the output size when
  // an output takes it (forOutputs), a consumer does (forConsumers) or a
  // view of that size does, and one for each live view of another size.
  void submitFrames(bool forOutputs, bool forConsumers);

  FaceTrackingState& state_;
  CharacterAnimationController& animation_;
  std::function<double()> clock_;
  std::function<void()> trackerUpdate_;

  std::shared_ptr<Node> scene_;
  std::shared_ptr<Node> maskNode_;
  std::shared_ptr<Morpher> morpher_;
  std::shared_ptr<Node> ghostRootNode_;
  std::shared_ptr<Node> ghostLeftEyeNode_, ghostRightEyeNode_;
  std::optional<CharacterModelType> currentModelType_;
  std::shared_ptr<Node> cameraNode_;
  std::shared_ptr<Node> keyLightNode_, fillLightNode_, rimLightNode_;
  std::unordered_map<std::string, int> targetNameToIndex_;
  std::array<int, arkitBlendShapeCount> slotTargets_{};  // morph target of each vocabulary name, -1: none
  std::vector<float> weights_;  // the per-frame morph weights, reused
  std::optional<LightingSettings> appliedLighting_;
  std::optional<float> appliedMaster_;

  LightRig rig_;
  FrameCamera camera_;
  std::shared_ptr<const EnvironmentImage> environment_;
  std::unique_ptr<FrameRenderer> renderer_;
  std::shared_ptr<Consumers> consumers_;
  VideoOutput* syphon_ = nullptr;
  VideoOutput* ndi_ = nullptr;
  // Main thread: the frame sizes to render this tick, reused.
  std::vector<std::pair<int, int>> sizes_;
  std::optional<double> lastStatusCheck_;  // clock time of the last status refresh
  mutable std::uint64_t sequence_ = 0;
};

}  // namespace velmora
