#pragma once
// The one central, observable state of the system. It receives every decoded
// face frame (ingestPacket), filters it (One Euro), calibrates it (neutral
// pose, per-blendshape floor/ceiling ranges), scales it (global and regional
// sensitivity) and publishes the result for the scene. It also holds the
// operator's settings and the status texts the dashboard shows.
//
// Threads: main thread only, every method and every property write
// (asserted in debug builds). Decoders post their frames to the main queue.
// No locks.
//
// Observers: every write of a published property (through its setter or
// internally) notifies every observer with the property written, after the
// new value is in place, also when the value did not change. One packet's
// updates to the blendshape maps count as one write of each map.
//
// Persistence (settings store keys): "characterModel", "trackingDetail",
// "blendshapeRanges", "oscCuePort", "isOSCEnabled", "ndiOutputEnabled",
// "lightingSettings". They are read once, at construction; the setters
// named below write them back. Everything else starts from its default on
// every launch.

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>

#include "base/Clock.h"
#include "base/Math.h"
#include "stage/CharacterModelType.h"
#include "stage/FaceFrame.h"
#include "stage/LightingSettings.h"
#include "stage/TrackingDetail.h"
#include "tracking/BlendshapeRange.h"
#include "tracking/BlendshapeRegion.h"
#include "tracking/OneEuroFilter1D.h"
#include "tracking/OneEuroFilter3D.h"

namespace velmora {

class SettingsStore;

class FaceTrackingState {
 public:
  // One per published property, in declaration order.
  enum class Property {
    blendshapes,
    headRotation,
    headPosition,
    rawBlendshapes,
    rawRotation,
    rawPosition,
    zeroRotationOffset,
    zeroPositionOffset,
    isCalibrated,
    smoothing,
    globalSensitivity,
    mouthSensitivity,
    browSensitivity,
    eyeSensitivity,
    blendshapeRanges,
    characterModel,
    trackingDetail,
    lockRotation,
    rotationScale,
    reverseUpDown,
    reverseLeftRight,
    reverseTilt,
    maskOpacity,
    lightIntensity,
    lighting,
    rimLightColor,
    isSyphonActive,
    isNDIActive,
    syphonStatus,
    ndiStatus,
    isProjectorFullscreen,
    localIP,
    isConnected,
    senderIP,
    incomingFPS,
    totalPacketsReceived,
    lastPacketTimestamp,
    lastQLabCommand,
    oscPort,
    isOSCEnabled,
    oscStatus,
  };

  static constexpr float minRangeGap = 0.02f;  // smallest allowed ceiling - floor
  static constexpr int defaultOSCPort = 53100;

  // The application's state over SettingsStore::shared(), created on first use.
  static FaceTrackingState& shared();

  // Reads the persisted settings from the store once. The store must
  // outlive the state.
  explicit FaceTrackingState(SettingsStore& store);
  // As above with another monotonic clock (seconds) for the filters and the
  // packet rate; tests use it to control time.
  FaceTrackingState(SettingsStore& store, std::function<double()> clock);

  FaceTrackingState(const FaceTrackingState&) = delete;
  FaceTrackingState& operator=(const FaceTrackingState&) = delete;

  // ---- per-frame entry point -------------------------------------------

  // One decoded face frame. Rotation is (pitch, yaw, roll) in radians;
  // sender is "a.b.c.d:port". Non-finite blendshape values are skipped.
  void ingestPacket(const std::optional<BlendshapeMap>& blendshapes, const std::optional<float3>& rotation,
                    const std::optional<float3>& position, const std::string& sender);

  // ---- calibration -----------------------------------------------------

  // Captures the current raw pose as neutral and resets the head filters so
  // the head settles at once. Blendshapes and ranges are not touched.
  void recentreNeutralPose();
  void recenterNeutralPose() { recentreNeutralPose(); }
  // Forgets the neutral pose. Ranges, sensitivities and filters are kept.
  void resetCalibration();

  // Rewrites every filter's parameters from smoothing (0 = light, 1 = heavy).
  void updateFilterParameters();

  // The stored range for a name, or (0, 1).
  BlendshapeRange range(const std::string& name) const;
  // Sets either bound or both (floor >= 0, ceiling <= 1, ceiling - floor >=
  // minRangeGap), removes the entry when it becomes (0, 1), then persists.
  void setRange(const std::string& name, std::optional<float> floor, std::optional<float> ceiling);
  // Empties the ranges and persists the empty map.
  void resetAllRanges();
  // Uses each current raw value (at most 0.9) as that blendshape's floor.
  void setFloorsFromCurrentPose();

  // "blendshapeRanges": name -> [floor, ceiling] as two doubles.
  void saveRanges(const BlendshapeRanges& ranges);
  // Entries that are not two numbers with ceiling > floor are dropped; a
  // value that is not a dictionary of number arrays gives an empty map.
  BlendshapeRanges loadRanges() const;

  // ---- remote control hooks --------------------------------------------

  // The control layer installs the routine that starts (true) or stops
  // (false) the OSC cue server; setIsOSCEnabled calls it.
  void setOSCServerControl(std::function<void(bool enabled)> hook);
  // Persists "characterModel" and notifies observers; called by
  // setCharacterModel, and by remote model commands even when unchanged.
  void handleCharacterModelChange();

  // ---- observers -------------------------------------------------------

  // Returns a token for unobserve. Observers may observe, unobserve and
  // write properties from inside a notification.
  int observe(std::function<void(Property)> observer);
  void unobserve(int token);

  // ---- published properties --------------------------------------------

  const BlendshapeMap& blendshapes() const { return blendshapes_; }
  float3 headRotation() const { return headRotation_; }
  float3 headPosition() const { return headPosition_; }
  const BlendshapeMap& rawBlendshapes() const { return rawBlendshapes_; }
  float3 rawRotation() const { return rawRotation_; }
  float3 rawPosition() const { return rawPosition_; }
  float3 zeroRotationOffset() const { return zeroRotationOffset_; }
  float3 zeroPositionOffset() const { return zeroPositionOffset_; }
  bool isCalibrated() const { return isCalibrated_; }
  float smoothing() const { return smoothing_; }
  float globalSensitivity() const { return globalSensitivity_; }
  float mouthSensitivity() const { return mouthSensitivity_; }
  float browSensitivity() const { return browSensitivity_; }
  float eyeSensitivity() const { return eyeSensitivity_; }
  const BlendshapeRanges& blendshapeRanges() const { return blendshapeRanges_; }
  CharacterModelType characterModel() const { return characterModel_; }
  TrackingDetail trackingDetail() const { return trackingDetail_; }
  bool lockRotation() const { return lockRotation_; }
  float rotationScale() const { return rotationScale_; }
  bool reverseUpDown() const { return reverseUpDown_; }
  bool reverseLeftRight() const { return reverseLeftRight_; }
  bool reverseTilt() const { return reverseTilt_; }
  float maskOpacity() const { return maskOpacity_; }
  float lightIntensity() const { return lightIntensity_; }
  const LightingSettings& lighting() const { return lighting_; }
  float3 rimLightColor() const { return rimLightColor_; }
  bool isSyphonActive() const { return isSyphonActive_; }
  bool isNDIActive() const { return isNDIActive_; }
  const std::string& syphonStatus() const { return syphonStatus_; }
  const std::string& ndiStatus() const { return ndiStatus_; }
  bool isProjectorFullscreen() const { return isProjectorFullscreen_; }
  const std::string& localIP() const { return localIP_; }
  bool isConnected() const { return isConnected_; }
  const std::string& senderIP() const { return senderIP_; }
  double incomingFPS() const { return incomingFPS_; }
  std::uint64_t totalPacketsReceived() const { return totalPacketsReceived_; }
  std::optional<WallTime> lastPacketTimestamp() const { return lastPacketTimestamp_; }
  const std::string& lastQLabCommand() const { return lastQLabCommand_; }
  int oscPort() const { return oscPort_; }
  bool isOSCEnabled() const { return isOSCEnabled_; }
  const std::string& oscStatus() const { return oscStatus_; }

  // Setters. Side effects: setSmoothing -> updateFilterParameters();
  // setCharacterModel -> handleCharacterModelChange(); setTrackingDetail,
  // setIsNDIActive, setOscPort, setIsOSCEnabled, setLighting persist their
  // value; setIsOSCEnabled also sets oscStatus "OSC cues: disabled" when
  // switching off and then calls the OSC server hook. setBlendshapeRanges
  // publishes without persisting (setRange and resetAllRanges persist).
  void setBlendshapes(BlendshapeMap value);
  void setHeadRotation(float3 value);
  void setHeadPosition(float3 value);
  void setRawBlendshapes(BlendshapeMap value);
  void setRawRotation(float3 value);
  void setRawPosition(float3 value);
  void setZeroRotationOffset(float3 value);
  void setZeroPositionOffset(float3 value);
  void setIsCalibrated(bool value);
  void setSmoothing(float value);
  void setGlobalSensitivity(float value);
  void setMouthSensitivity(float value);
  void setBrowSensitivity(float value);
  void setEyeSensitivity(float value);
  void setBlendshapeRanges(BlendshapeRanges value);
  void setCharacterModel(CharacterModelType value);
  void setTrackingDetail(TrackingDetail value);
  void setLockRotation(bool value);
  void setRotationScale(float value);
  void setReverseUpDown(bool value);
  void setReverseLeftRight(bool value);
  void setReverseTilt(bool value);
  void setMaskOpacity(float value);
  void setLightIntensity(float value);
  void setLighting(LightingSettings value);
  void setRimLightColor(float3 value);
  void setIsSyphonActive(bool value);
  void setIsNDIActive(bool value);
  void setSyphonStatus(std::string value);
  void setNdiStatus(std::string value);
  void setIsProjectorFullscreen(bool value);
  void setLocalIP(std::string value);
  void setIsConnected(bool value);
  void setSenderIP(std::string value);
  void setIncomingFPS(double value);
  void setTotalPacketsReceived(std::uint64_t value);
  void setLastPacketTimestamp(std::optional<WallTime> value);
  void setLastQLabCommand(std::string value);
  void setOscPort(int value);
  void setIsOSCEnabled(bool value);
  void setOscStatus(std::string value);

  // ---- inspection (dashboard, tests) -----------------------------------

  const OneEuroFilter3D& rotationFilter() const { return rotationFilter_; }
  const OneEuroFilter3D& positionFilter() const { return positionFilter_; }
  // The filter of a blendshape name, or nullptr before its first sample.
  const OneEuroFilter1D* blendshapeFilter(const std::string& name) const;

 private:
  // Everything ingestPacket needs per blendshape name, found with one hash
  // lookup: its filter, its region, and cached pointers to its slots in the
  // published maps (unordered_map nodes never move; the generations say when
  // a map was replaced or the ranges changed).
  struct Channel {
    explicit Channel(BlendshapeRegion region) : region(region) {}
    OneEuroFilter1D filter{1.5f, 0.02f, 1.0f};
    BlendshapeRegion region;
    float* raw = nullptr;
    float* out = nullptr;
    std::uint64_t slotsGeneration = 0;
    std::optional<BlendshapeRange> range;
    std::uint64_t rangesGeneration = 0;
  };

  struct Observer {
    int token;
    std::function<void(Property)> function;
    // Cleared by unobserve; the entry itself goes after the outermost
    // notification, so a running observer is never destroyed under itself.
    bool active = true;
  };

  void notify(Property property);
  // Writes a published property and notifies.
  template <class T>
  void write(T& field, T value, Property property);
  void publishRanges(BlendshapeRanges ranges, bool persist);
  // setRange's clamping without publishing or saving.
  void applyRange(BlendshapeRanges& ranges, const std::string& name, std::optional<float> floor,
                  std::optional<float> ceiling) const;
  void loadPersisted();

  SettingsStore& store_;
  std::function<double()> clock_;
  std::function<void(bool)> oscServerControl_;

  BlendshapeMap blendshapes_;
  float3 headRotation_{0.0f};
  float3 headPosition_{0.0f};
  BlendshapeMap rawBlendshapes_;
  float3 rawRotation_{0.0f};
  float3 rawPosition_{0.0f};
  float3 zeroRotationOffset_{0.0f};
  float3 zeroPositionOffset_{0.0f};
  bool isCalibrated_ = false;
  float smoothing_ = 0.45f;
  float globalSensitivity_ = 1.0f;
  float mouthSensitivity_ = 1.2f;
  float browSensitivity_ = 1.2f;
  float eyeSensitivity_ = 1.0f;
  BlendshapeRanges blendshapeRanges_;
  CharacterModelType characterModel_ = CharacterModelType::theatricalMask;
  TrackingDetail trackingDetail_ = TrackingDetail::detailed;
  bool lockRotation_ = false;
  float rotationScale_ = 1.0f;
  bool reverseUpDown_ = false;
  bool reverseLeftRight_ = false;
  bool reverseTilt_ = false;
  float maskOpacity_ = 1.0f;
  float lightIntensity_ = 1.2f;
  LightingSettings lighting_;
  float3 rimLightColor_{0.9f, 0.95f, 1.0f};
  bool isSyphonActive_ = true;
  bool isNDIActive_ = false;
  std::string syphonStatus_ = "Syphon: starting…";
  std::string ndiStatus_ = "NDI: off";
  bool isProjectorFullscreen_ = false;
  std::string localIP_;
  bool isConnected_ = false;
  std::string senderIP_ = "Waiting for iPhone...";
  double incomingFPS_ = 0.0;
  std::uint64_t totalPacketsReceived_ = 0;
  std::optional<WallTime> lastPacketTimestamp_;
  std::string lastQLabCommand_ = "None";
  int oscPort_ = defaultOSCPort;
  bool isOSCEnabled_ = true;
  std::string oscStatus_ = "OSC cues: starting…";

  OneEuroFilter3D rotationFilter_{1.2f, 0.01f, 1.0f};
  OneEuroFilter3D positionFilter_{1.0f, 0.008f, 1.0f};
  std::unordered_map<std::string, Channel> channels_;  // blendshape filters by name
  std::uint64_t slotsGeneration_ = 1;
  std::uint64_t rangesGeneration_ = 1;
  std::uint64_t packetCountSinceLastSecond_ = 0;
  double lastFPSCheckTime_ = 0.0;

  std::deque<Observer> observers_;
  int nextObserverToken_ = 1;
  int notifyDepth_ = 0;
  bool observersNeedCompaction_ = false;
};

}  // namespace velmora
