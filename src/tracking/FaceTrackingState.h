#pragma once
// The one central, observable state of the system. It receives every decoded
// face frame (ingestPacket), runs it through the face pipeline (filters,
// neutral pose, ranges, sensitivities) and publishes the result for the
// scene. It also holds the operator's settings and the status texts the
// dashboard shows.
//
// Threads: main thread only, every method and every property write
// (asserted in debug builds). Decoders post their frames to the main queue.
// No locks.
//
// Observers: every write of a published property (through its setter or
// internally) notifies every observer with the property written, after the
// new value is in place (and persisted, for the persisted ones), also when
// the value did not change. One packet's updates to the blendshape maps
// count as one write of each map.
//
// Persistence: TrackingSettings (its keys and fallbacks). The settings are
// read once, at construction; the setters of characterModel, trackingDetail,
// lighting, isNDIActive, oscPort and isOSCEnabled write them back, and the
// range operations write "blendshapeRanges". So do the show-safety settings
// (trackingTimeout, relayTargets, the two bind addresses and the two sender
// allow-lists). Everything else starts from its default on every launch.
//
// senderApp: the app of the last frame ("iFacialMocap", "VTube Studio",
// "VMC", "Live Link Face", "OSC", "JSON"; empty before the first and after
// a datagram in no known format). phoneAddress and phoneApp (persisted):
// the phone Velmora asks for data (PhoneConnection) and its app;
// phoneStatus what came of asking.
//
// Tracking loss: after trackingTimeout seconds without a packet (at once
// when a frame says the sender sees no face) the live face eases to neutral (TrackingLossEase, one stage after the published
// values: blendshapes and headRotation stay as ingestPacket leaves them;
// the scene applies trackingLoss() to what it shows). isTrackingLost and
// trackingLostSince (the wall-clock time of the last packet) say so.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "base/Clock.h"
#include "base/Math.h"
#include "base/ObserverList.h"
#include "stage/CharacterModelType.h"
#include "stage/FaceFrame.h"
#include "stage/LightingSettings.h"
#include "stage/TrackingDetail.h"
#include "tracking/BlendshapeRange.h"
#include "tracking/FacePipeline.h"
#include "tracking/TrackingFormat.h"
#include "tracking/TrackingLossEase.h"
#include "tracking/TrackingSettings.h"

namespace velmora {

class SettingsStore;

// The published properties, in declaration order: X(name, setter, type,
// initial value). The property enum, the fields, the getters and the setters
// all come from this one table; FaceTrackingState::afterWrite holds every
// setter's side effect. outputLatencyP50 / outputLatencyP99: milliseconds
// from a tracking datagram's arrival to the first rendered frame holding it
// being handed to the outputs, median and 99th percentile over the last
// second (0 while nothing was measured).
#define VELMORA_FACE_TRACKING_PROPERTIES(X)                                                  \
  X(blendshapes, setBlendshapes, BlendshapeMap, {})                                          \
  X(headRotation, setHeadRotation, float3, float3(0.0f))                                     \
  X(headPosition, setHeadPosition, float3, float3(0.0f))                                     \
  X(rawBlendshapes, setRawBlendshapes, BlendshapeMap, {})                                    \
  X(rawRotation, setRawRotation, float3, float3(0.0f))                                       \
  X(rawPosition, setRawPosition, float3, float3(0.0f))                                       \
  X(zeroRotationOffset, setZeroRotationOffset, float3, float3(0.0f))                         \
  X(zeroPositionOffset, setZeroPositionOffset, float3, float3(0.0f))                         \
  X(isCalibrated, setIsCalibrated, bool, false)                                              \
  X(smoothing, setSmoothing, float, 0.45f)                                                   \
  X(globalSensitivity, setGlobalSensitivity, float, 1.0f)                                    \
  X(mouthSensitivity, setMouthSensitivity, float, 1.2f)                                      \
  X(browSensitivity, setBrowSensitivity, float, 1.2f)                                        \
  X(eyeSensitivity, setEyeSensitivity, float, 1.0f)                                          \
  X(blendshapeRanges, setBlendshapeRanges, BlendshapeRanges, {})                             \
  X(characterModel, setCharacterModel, CharacterModelType, CharacterModelType::theatricalMask) \
  X(trackingDetail, setTrackingDetail, TrackingDetail, TrackingDetail::detailed)             \
  X(lockRotation, setLockRotation, bool, false)                                              \
  X(rotationScale, setRotationScale, float, 1.0f)                                            \
  X(reverseUpDown, setReverseUpDown, bool, false)                                            \
  X(reverseLeftRight, setReverseLeftRight, bool, false)                                      \
  X(reverseTilt, setReverseTilt, bool, false)                                                \
  X(maskOpacity, setMaskOpacity, float, 1.0f)                                                \
  X(lightIntensity, setLightIntensity, float, 1.2f)                                          \
  X(lighting, setLighting, LightingSettings, {})                                             \
  X(rimLightColor, setRimLightColor, float3, float3(0.9f, 0.95f, 1.0f))                      \
  X(isSyphonActive, setIsSyphonActive, bool, true)                                           \
  X(isNDIActive, setIsNDIActive, bool, false)                                                \
  X(syphonStatus, setSyphonStatus, std::string, "Syphon: starting…")                         \
  X(ndiStatus, setNdiStatus, std::string, "NDI: off")                                        \
  X(isProjectorFullscreen, setIsProjectorFullscreen, bool, false)                            \
  X(localIP, setLocalIP, std::string, {})                                                    \
  X(isConnected, setIsConnected, bool, false)                                                \
  X(senderIP, setSenderIP, std::string, "Waiting for iPhone...")                             \
  X(incomingFPS, setIncomingFPS, double, 0.0)                                                \
  X(totalPacketsReceived, setTotalPacketsReceived, std::uint64_t, 0)                         \
  X(lastPacketTimestamp, setLastPacketTimestamp, std::optional<WallTime>, std::nullopt)      \
  X(lastQLabCommand, setLastQLabCommand, std::string, "None")                                \
  X(oscPort, setOscPort, int, TrackingSettings::defaultOSCPort)                              \
  X(isOSCEnabled, setIsOSCEnabled, bool, true)                                               \
  X(oscStatus, setOscStatus, std::string, "OSC cues: starting…")                              \
  X(outputLatencyP50, setOutputLatencyP50, double, 0.0)                                      \
  X(outputLatencyP99, setOutputLatencyP99, double, 0.0)                                      \
  X(trackingTimeout, setTrackingTimeout, double, TrackingLossEase::defaultTimeout)           \
  X(isTrackingLost, setIsTrackingLost, bool, false)                                          \
  X(trackingLostSince, setTrackingLostSince, std::optional<WallTime>, std::nullopt)          \
  X(relayTargets, setRelayTargets, std::vector<std::string>, {})                             \
  X(trackingBindAddress, setTrackingBindAddress, std::string, {})                            \
  X(oscBindAddress, setOscBindAddress, std::string, {})                                      \
  X(trackingAllowedSenders, setTrackingAllowedSenders, std::vector<std::string>, {})         \
  X(oscAllowedSenders, setOscAllowedSenders, std::vector<std::string>, {})                   \
  X(senderApp, setSenderApp, std::string, {})                                                \
  X(phoneAddress, setPhoneAddress, std::string, {})                                          \
  X(phoneApp, setPhoneApp, std::string, "iFacialMocap")                                      \
  X(phoneStatus, setPhoneStatus, std::string, "Phone: none set")                             \
  X(characterFile, setCharacterFile, std::string, {})                                        \
  X(characterStatus, setCharacterStatus, std::string, {})

class FaceTrackingState {
 public:
  // One per published property, in declaration order.
  enum class Property {
#define VELMORA_PROPERTY_ENUM(name, setter, Type, initial) name,
    VELMORA_FACE_TRACKING_PROPERTIES(VELMORA_PROPERTY_ENUM)
#undef VELMORA_PROPERTY_ENUM
  };

  static constexpr float minRangeGap = FacePipeline::minRangeGap;
  static constexpr int defaultOSCPort = TrackingSettings::defaultOSCPort;

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

  // A decoded frame from `app`: ingestPacket with its values, and what only
  // some apps send: the app's name becomes senderApp; eye rotations become
  // eyeLook* gaze when the frame has no eyeLook* of its own (EyeGaze); a
  // frame without a face starts the tracking-loss ease at once.
  void ingestFrame(const FaceFrame& frame, TrackingApp app);

  // The arrival time (uptime seconds) of the frame just ingested; the
  // newest one is kept for the frame descriptions, which measure output
  // latency from it. Not a published property: it changes every packet.
  void noteArrival(double arrivalTime) { newestArrivalTime_ = std::max(newestArrivalTime_, arrivalTime); }
  // 0 before the first timed frame.
  double newestArrivalTime() const { return newestArrivalTime_; }

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

  // Persists "characterModel" and notifies observers; called by
  // setCharacterModel, and by remote model commands even when unchanged.
  // Choosing a built-in character puts away a character file (characterFile
  // becomes "").
  void handleCharacterModelChange();

  // ---- tracking loss ---------------------------------------------------

  // Once per tick: moves the ease to the state's clock and publishes
  // isTrackingLost and trackingLostSince when they change.
  void updateTrackingLoss();
  // The stage the scene applies after the published values.
  const TrackingLossEase& trackingLoss() const { return trackingLoss_; }

  // ---- observers -------------------------------------------------------

  // Returns a token for unobserve. Observers may observe, unobserve and
  // write properties from inside a notification.
  int observe(std::function<void(Property)> observer);
  void unobserve(int token);

  // ---- published properties --------------------------------------------

  // Small values are returned by value, the rest by reference.
  template <class T>
  using Get = std::conditional_t<std::is_trivially_copyable_v<T> && sizeof(T) <= 16, T, const T&>;

  // Getters, then setters. Every setter writes, runs the property's side
  // effect (afterWrite: smoothing -> updateFilterParameters; characterModel,
  // trackingDetail, lighting, isNDIActive, oscPort, isOSCEnabled and the
  // show-safety settings persist; trackingTimeout also sets the ease's;
  // isOSCEnabled also shows "OSC cues: disabled" when switched off, before
  // its own notification) and notifies. setBlendshapeRanges publishes
  // without persisting (setRange and resetAllRanges persist).
#define VELMORA_PROPERTY_ACCESS(name, setter, Type, initial) \
  Get<Type> name() const { return name##_; }                \
  void setter(Type value);
  VELMORA_FACE_TRACKING_PROPERTIES(VELMORA_PROPERTY_ACCESS)
#undef VELMORA_PROPERTY_ACCESS

  // ---- inspection (dashboard, tests) -----------------------------------

  const FacePipeline& pipeline() const { return pipeline_; }
  const OneEuroFilter3D& rotationFilter() const { return pipeline_.rotationFilter(); }
  const OneEuroFilter3D& positionFilter() const { return pipeline_.positionFilter(); }
  // The filter of a blendshape name, or nullptr before its first sample.
  std::optional<OneEuroFilter1D> blendshapeFilter(std::string_view name) const { return pipeline_.blendshapeFilter(name); }
  TrackingSettings& settings() { return settings_; }

 private:
  // Writes a published property and notifies (no side effect).
  template <class T>
  void write(T& field, T value, Property property) {
    field = std::move(value);
    observers_.notify(property);
  }
  // A setter's side effect and notification, after its field was written.
  void afterWrite(Property property);
  // ingestPacket, with whether the sender saw a face.
  void ingest(const std::optional<BlendshapeMap>& blendshapes, const std::optional<float3>& rotation,
              const std::optional<float3>& position, const std::string& sender, bool faceFound);
  void publishRanges(BlendshapeRanges ranges, bool persist);
  void loadPersisted();

  TrackingSettings settings_;
  std::function<double()> clock_;
  FacePipeline pipeline_;
  ObserverList<Property> observers_;

#define VELMORA_PROPERTY_FIELD(name, setter, Type, initial) Type name##_ = initial;
  VELMORA_FACE_TRACKING_PROPERTIES(VELMORA_PROPERTY_FIELD)
#undef VELMORA_PROPERTY_FIELD
  double newestArrivalTime_ = 0.0;
  std::optional<WallTime> faceLostSince_;  // the first of the latest frames without a face

  std::uint64_t packetCountSinceLastSecond_ = 0;
  double lastFPSCheckTime_ = 0.0;
  TrackingLossEase trackingLoss_;
};

}  // namespace velmora
