#include "tracking/FaceTrackingState.h"

#include <utility>

#include "base/MainQueue.h"
#include "base/SettingsStore.h"
#include "net/LocalAddress.h"
#include "tracking/EyeGaze.h"

namespace velmora {

FaceTrackingState& FaceTrackingState::shared() {
  static FaceTrackingState state(SettingsStore::shared());
  return state;
}

FaceTrackingState::FaceTrackingState(SettingsStore& store) : FaceTrackingState(store, [] { return uptime(); }) {}

FaceTrackingState::FaceTrackingState(SettingsStore& store, std::function<double()> clock)
    : settings_(store), clock_(clock ? std::move(clock) : std::function<double()>([] { return uptime(); })) {
  VELMORA_ASSERT_MAIN_THREAD();
  loadPersisted();
  localIP_ = detectLocalIP();
  lastFPSCheckTime_ = clock_();
  updateFilterParameters();
}

void FaceTrackingState::loadPersisted() {
  // In this order, so that the log lines of unusable values keep theirs.
  if (auto model = settings_.characterModel()) characterModel_ = *model;
  if (auto detail = settings_.trackingDetail()) trackingDetail_ = *detail;
  blendshapeRanges_ = settings_.loadRanges();
  oscPort_ = settings_.oscPort();
  if (auto enabled = settings_.isOSCEnabled()) isOSCEnabled_ = *enabled;
  if (auto enabled = settings_.ndiOutputEnabled()) isNDIActive_ = *enabled;
  if (auto lighting = settings_.lighting()) lighting_ = std::move(*lighting);
  if (auto timeout = settings_.trackingTimeout()) trackingTimeout_ = *timeout;
  trackingLoss_.setTimeout(trackingTimeout_);
  relayTargets_ = settings_.stringList(TrackingSettings::relayTargetsKey);
  trackingBindAddress_ = settings_.string(TrackingSettings::trackingBindAddressKey);
  oscBindAddress_ = settings_.string(TrackingSettings::oscBindAddressKey);
  trackingAllowedSenders_ = settings_.stringList(TrackingSettings::trackingAllowedSendersKey);
  oscAllowedSenders_ = settings_.stringList(TrackingSettings::oscAllowedSendersKey);
  phoneAddress_ = settings_.string(TrackingSettings::phoneAddressKey);
  if (auto app = settings_.string(TrackingSettings::phoneAppKey); !app.empty()) phoneApp_ = std::move(app);
  characterFile_ = settings_.string(TrackingSettings::characterFileKey);
}

// ---------------------------------------------------------------------------
// Per-frame processing
// ---------------------------------------------------------------------------

void FaceTrackingState::ingestPacket(const std::optional<BlendshapeMap>& blendshapes,
                                     const std::optional<float3>& rotation, const std::optional<float3>& position,
                                     const std::string& sender) {
  ingest(blendshapes, rotation, position, sender, true);
}

void FaceTrackingState::ingestFrame(const FaceFrame& frame, TrackingApp app) {
  VELMORA_ASSERT_MAIN_THREAD();
  const std::string_view name = trackingAppName(app);
  if (senderApp_ != name) senderApp_ = name;
  observers_.notify(Property::senderApp);
  if ((frame.leftEyeRotation || frame.rightEyeRotation) && !(frame.blendshapes && hasEyeLook(*frame.blendshapes))) {
    // Only senders that measure the eyes apart pay for this copy.
    BlendshapeMap withGaze = frame.blendshapes.value_or(BlendshapeMap{});
    addGazeFromEyeRotations(withGaze, frame.leftEyeRotation, frame.rightEyeRotation);
    ingest(withGaze, frame.rotation, frame.position, frame.sender, frame.faceFound);
  } else {
    ingest(frame.blendshapes, frame.rotation, frame.position, frame.sender, frame.faceFound);
  }
}

void FaceTrackingState::ingest(const std::optional<BlendshapeMap>& blendshapes, const std::optional<float3>& rotation,
                               const std::optional<float3>& position, const std::string& sender, bool faceFound) {
  VELMORA_ASSERT_MAIN_THREAD();
  const double now = clock_();
  trackingLoss_.packetArrived(now, faceFound);
  if (faceFound) {
    faceLostSince_.reset();
  } else if (!faceLostSince_) {
    faceLostSince_ = wallNow();
  }

  ++totalPacketsReceived_;
  observers_.notify(Property::totalPacketsReceived);
  ++packetCountSinceLastSecond_;
  write(lastPacketTimestamp_, std::optional<WallTime>(wallNow()), Property::lastPacketTimestamp);
  if (senderIP_ != sender) senderIP_ = sender;  // no reallocation for the usual unchanged sender
  observers_.notify(Property::senderIP);
  write(isConnected_, true, Property::isConnected);

  if (now - lastFPSCheckTime_ >= 1.0) {
    write(incomingFPS_, static_cast<double>(packetCountSinceLastSecond_) / (now - lastFPSCheckTime_),
          Property::incomingFPS);
    packetCountSinceLastSecond_ = 0;
    lastFPSCheckTime_ = now;
  }

  if (rotation) {
    write(rawRotation_, *rotation, Property::rawRotation);
    FacePipeline::HeadOptions head;
    head.lockRotation = lockRotation_;
    head.rotationScale = rotationScale_;
    head.reverseUpDown = reverseUpDown_;
    head.reverseLeftRight = reverseLeftRight_;
    head.reverseTilt = reverseTilt_;
    if (isCalibrated_) head.neutralRotation = zeroRotationOffset_;
    write(headRotation_, pipeline_.rotation(*rotation, head, now), Property::headRotation);
  }

  if (position) {
    write(rawPosition_, *position, Property::rawPosition);
    write(headPosition_, pipeline_.position(now), Property::headPosition);
  }

  if (blendshapes) {
    const FacePipeline::Sensitivities sensitivities{globalSensitivity_, mouthSensitivity_, browSensitivity_,
                                                    eyeSensitivity_};
    if (pipeline_.blendshapes(*blendshapes, now, blendshapeRanges_, sensitivities,
                              {rawBlendshapes_, blendshapes_})) {
      observers_.notify(Property::rawBlendshapes);
      observers_.notify(Property::blendshapes);
    }
  }
}

void FaceTrackingState::updateFilterParameters() {
  VELMORA_ASSERT_MAIN_THREAD();
  pipeline_.updateFilterParameters(smoothing_);
}

// ---------------------------------------------------------------------------
// Calibration and ranges
// ---------------------------------------------------------------------------

void FaceTrackingState::recentreNeutralPose() {
  VELMORA_ASSERT_MAIN_THREAD();
  write(zeroRotationOffset_, rawRotation_, Property::zeroRotationOffset);
  write(zeroPositionOffset_, rawPosition_, Property::zeroPositionOffset);
  write(isCalibrated_, true, Property::isCalibrated);
  // The head settles at once instead of easing from the old pose.
  pipeline_.resetHeadFilters();
}

void FaceTrackingState::resetCalibration() {
  VELMORA_ASSERT_MAIN_THREAD();
  write(zeroRotationOffset_, float3(0.0f), Property::zeroRotationOffset);
  write(zeroPositionOffset_, float3(0.0f), Property::zeroPositionOffset);
  write(isCalibrated_, false, Property::isCalibrated);
}

BlendshapeRange FaceTrackingState::range(const std::string& name) const {
  const auto it = blendshapeRanges_.find(name);
  return it == blendshapeRanges_.end() ? BlendshapeRange{} : it->second;
}

void FaceTrackingState::setRange(const std::string& name, std::optional<float> floor, std::optional<float> ceiling) {
  VELMORA_ASSERT_MAIN_THREAD();
  BlendshapeRanges ranges = blendshapeRanges_;
  FacePipeline::applyRange(ranges, name, floor, ceiling);
  publishRanges(std::move(ranges), true);
}

void FaceTrackingState::resetAllRanges() {
  VELMORA_ASSERT_MAIN_THREAD();
  publishRanges({}, true);
}

void FaceTrackingState::setFloorsFromCurrentPose() {
  VELMORA_ASSERT_MAIN_THREAD();
  BlendshapeRanges ranges = blendshapeRanges_;
  for (const auto& [name, raw] : rawBlendshapes_) {
    FacePipeline::applyRange(ranges, name, raw > 0.9f ? 0.9f : raw, std::nullopt);
  }
  // One publication and one settings write for the whole pose.
  publishRanges(std::move(ranges), true);
}

void FaceTrackingState::publishRanges(BlendshapeRanges ranges, bool persist) {
  write(blendshapeRanges_, std::move(ranges), Property::blendshapeRanges);
  if (persist) settings_.saveRanges(blendshapeRanges_);
}

void FaceTrackingState::handleCharacterModelChange() {
  VELMORA_ASSERT_MAIN_THREAD();
  settings_.saveCharacterModel(characterModel_);
  observers_.notify(Property::characterModel);
  if (!characterFile_.empty()) setCharacterFile({});
}

int FaceTrackingState::observe(std::function<void(Property)> observer) {
  VELMORA_ASSERT_MAIN_THREAD();
  return observers_.observe(std::move(observer));
}

void FaceTrackingState::unobserve(int token) {
  VELMORA_ASSERT_MAIN_THREAD();
  observers_.unobserve(token);
}

// ---------------------------------------------------------------------------
// Setters: one per published property, all alike; the side effects are here
// ---------------------------------------------------------------------------

void FaceTrackingState::afterWrite(Property property) {
  switch (property) {
    case Property::characterModel:
      handleCharacterModelChange();  // persists and notifies
      return;
    case Property::trackingDetail:
      settings_.saveTrackingDetail(trackingDetail_);
      break;
    case Property::lighting:
      settings_.saveLighting(lighting_);
      break;
    case Property::isNDIActive:
      settings_.saveNDIOutputEnabled(isNDIActive_);
      break;
    case Property::oscPort:
      settings_.saveOSCPort(oscPort_);
      break;
    case Property::trackingTimeout:
      settings_.saveTrackingTimeout(trackingTimeout_);
      trackingLoss_.setTimeout(trackingTimeout_);
      break;
    case Property::relayTargets:
      settings_.saveStringList(TrackingSettings::relayTargetsKey, relayTargets_);
      break;
    case Property::characterFile:
      settings_.saveString(TrackingSettings::characterFileKey, characterFile_);
      break;
    case Property::trackingBindAddress:
      settings_.saveString(TrackingSettings::trackingBindAddressKey, trackingBindAddress_);
      break;
    case Property::oscBindAddress:
      settings_.saveString(TrackingSettings::oscBindAddressKey, oscBindAddress_);
      break;
    case Property::trackingAllowedSenders:
      settings_.saveStringList(TrackingSettings::trackingAllowedSendersKey, trackingAllowedSenders_);
      break;
    case Property::oscAllowedSenders:
      settings_.saveStringList(TrackingSettings::oscAllowedSendersKey, oscAllowedSenders_);
      break;
    case Property::phoneAddress:
      settings_.saveString(TrackingSettings::phoneAddressKey, phoneAddress_);
      break;
    case Property::phoneApp:
      settings_.saveString(TrackingSettings::phoneAppKey, phoneApp_);
      break;
    case Property::isOSCEnabled:
      // Stored, and the status written, before observers hear of the switch:
      // the one that starts and stops the cue server relies on both.
      settings_.saveIsOSCEnabled(isOSCEnabled_);
      if (!isOSCEnabled_) write(oscStatus_, std::string("OSC cues: disabled"), Property::oscStatus);
      break;
    default:
      break;
  }
  observers_.notify(property);
  if (property == Property::smoothing) updateFilterParameters();
}

void FaceTrackingState::updateTrackingLoss() {
  VELMORA_ASSERT_MAIN_THREAD();
  if (!trackingLoss_.update(clock_())) return;
  std::optional<WallTime> since;
  if (trackingLoss_.isLost()) since = faceLostSince_ ? faceLostSince_ : lastPacketTimestamp_;
  write(trackingLostSince_, since, Property::trackingLostSince);
  write(isTrackingLost_, trackingLoss_.isLost(), Property::isTrackingLost);
}

#define VELMORA_PROPERTY_SETTER(name, setter, Type, initial) \
  void FaceTrackingState::setter(Type value) {               \
    VELMORA_ASSERT_MAIN_THREAD();                            \
    name##_ = std::move(value);                              \
    afterWrite(Property::name);                              \
  }
VELMORA_FACE_TRACKING_PROPERTIES(VELMORA_PROPERTY_SETTER)
#undef VELMORA_PROPERTY_SETTER

}  // namespace velmora
