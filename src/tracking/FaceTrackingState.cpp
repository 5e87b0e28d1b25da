#include "tracking/FaceTrackingState.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "base/MainQueue.h"
#include "base/SettingsStore.h"
#include "tracking/LocalAddress.h"

namespace velmora {

namespace {

constexpr const char* characterModelKey = "characterModel";
constexpr const char* trackingDetailKey = "trackingDetail";
constexpr const char* blendshapeRangesKey = "blendshapeRanges";
constexpr const char* oscCuePortKey = "oscCuePort";
constexpr const char* isOSCEnabledKey = "isOSCEnabled";
constexpr const char* ndiOutputEnabledKey = "ndiOutputEnabled";

constexpr int lowestOSCPort = 1024;
constexpr int highestOSCPort = 65535;

// Clamps into [0, 1]; a value not greater than 0 (NaN included) gives 0.
float clampUnit(float v) {
  if (!(v > 0.0f)) return 0.0f;
  return v > 1.0f ? 1.0f : v;
}

// max(v, floor) that also maps NaN to the floor.
float atLeast(float v, float floor) { return v > floor ? v : floor; }

void logUnusable(const char* key, const nlohmann::json& stored, const std::string& fallback) {
  logLine("Settings", std::string("Stored \"") + key + "\" value " + stored.dump() + " is not usable; using " +
                          fallback);
}

}  // namespace

FaceTrackingState& FaceTrackingState::shared() {
  static FaceTrackingState state(SettingsStore::shared());
  return state;
}

FaceTrackingState::FaceTrackingState(SettingsStore& store) : FaceTrackingState(store, [] { return uptime(); }) {}

FaceTrackingState::FaceTrackingState(SettingsStore& store, std::function<double()> clock)
    : store_(store), clock_(clock ? std::move(clock) : std::function<double()>([] { return uptime(); })) {
  VELMORA_ASSERT_MAIN_THREAD();
  loadPersisted();
  localIP_ = detectLocalIP();
  lastFPSCheckTime_ = clock_();
  updateFilterParameters();
}

// ---------------------------------------------------------------------------
// Persistence
// ---------------------------------------------------------------------------

void FaceTrackingState::loadPersisted() {
  if (auto stored = store_.object(characterModelKey)) {
    std::optional<CharacterModelType> model;
    if (stored->is_string()) model = fromRawValue<CharacterModelType>(stored->get<std::string>());
    if (model) {
      characterModel_ = *model;
    } else {
      logUnusable(characterModelKey, *stored, std::string(rawValue(CharacterModelType::theatricalMask)));
    }
  }

  if (auto stored = store_.object(trackingDetailKey)) {
    std::optional<TrackingDetail> detail;
    if (auto raw = store_.integer(trackingDetailKey)) detail = fromRawValue<TrackingDetail>(*raw);
    if (detail) {
      trackingDetail_ = *detail;
    } else {
      logUnusable(trackingDetailKey, *stored, std::to_string(rawValue(TrackingDetail::detailed)));
    }
  }

  blendshapeRanges_ = loadRanges();

  // Read as an integer, 0 when absent; only 1024..65535 is a usable port.
  const std::int64_t port = store_.integer(oscCuePortKey).value_or(0);
  if (port >= lowestOSCPort && port <= highestOSCPort) {
    oscPort_ = static_cast<int>(port);
  } else {
    oscPort_ = defaultOSCPort;
    if (auto stored = store_.object(oscCuePortKey)) logUnusable(oscCuePortKey, *stored, std::to_string(defaultOSCPort));
  }

  if (auto stored = store_.object(isOSCEnabledKey)) {
    if (stored->is_boolean()) {
      isOSCEnabled_ = stored->get<bool>();
    } else {
      logUnusable(isOSCEnabledKey, *stored, "true");
    }
  }

  if (auto stored = store_.object(ndiOutputEnabledKey)) {
    if (stored->is_boolean()) {
      isNDIActive_ = stored->get<bool>();
    } else {
      logUnusable(ndiOutputEnabledKey, *stored, "false");
    }
  }

  if (auto stored = store_.object(LightingSettings::storeKey)) {
    if (auto settings = LightingSettings::stored(store_)) {
      lighting_ = std::move(*settings);
    } else {
      logUnusable(LightingSettings::storeKey, *stored, LightingSettings::theatrical().preset);
    }
  }
}

void FaceTrackingState::saveRanges(const BlendshapeRanges& ranges) {
  nlohmann::json dictionary = nlohmann::json::object();
  for (const auto& [name, range] : ranges) {
    dictionary[name] = nlohmann::json::array({static_cast<double>(range.floor), static_cast<double>(range.ceiling)});
  }
  store_.set(blendshapeRangesKey, std::move(dictionary));
}

BlendshapeRanges FaceTrackingState::loadRanges() const {
  const auto stored = store_.object(blendshapeRangesKey);
  if (!stored) return {};
  // The whole value must be a dictionary of number arrays, else nothing of
  // it is used.
  bool usable = stored->is_object();
  if (usable) {
    for (const auto& [name, value] : stored->items()) {
      usable = value.is_array() && std::all_of(value.begin(), value.end(), [](const auto& e) { return e.is_number(); });
      if (!usable) break;
    }
  }
  if (!usable) {
    logUnusable(blendshapeRangesKey, *stored, "no ranges");
    return {};
  }
  BlendshapeRanges ranges;
  for (const auto& [name, value] : stored->items()) {
    if (value.size() != 2) continue;
    const double first = value[0].get<double>();
    const double second = value[1].get<double>();
    if (!(second > first)) continue;
    const BlendshapeRange range{static_cast<float>(first), static_cast<float>(second)};
    // A range too wide for single precision cannot normalise anything.
    if (!std::isfinite(range.floor) || !std::isfinite(range.ceiling)) continue;
    ranges.emplace(name, range);
  }
  return ranges;
}

// ---------------------------------------------------------------------------
// Per-frame processing
// ---------------------------------------------------------------------------

void FaceTrackingState::ingestPacket(const std::optional<BlendshapeMap>& blendshapes,
                                     const std::optional<float3>& rotation, const std::optional<float3>& position,
                                     const std::string& sender) {
  VELMORA_ASSERT_MAIN_THREAD();
  const double now = clock_();

  ++totalPacketsReceived_;
  notify(Property::totalPacketsReceived);
  ++packetCountSinceLastSecond_;
  write(lastPacketTimestamp_, std::optional<WallTime>(wallNow()), Property::lastPacketTimestamp);
  if (senderIP_ != sender) senderIP_ = sender;  // no reallocation for the usual unchanged sender
  notify(Property::senderIP);
  write(isConnected_, true, Property::isConnected);

  if (now - lastFPSCheckTime_ >= 1.0) {
    write(incomingFPS_, static_cast<double>(packetCountSinceLastSecond_) / (now - lastFPSCheckTime_),
          Property::incomingFPS);
    packetCountSinceLastSecond_ = 0;
    lastFPSCheckTime_ = now;
  }

  if (rotation) {
    write(rawRotation_, *rotation, Property::rawRotation);
    float3 r = *rotation;
    if (isCalibrated_) r = r - zeroRotationOffset_;
    float3 input(0.0f);
    if (!lockRotation_) {
      // The sender's signs are inverted by default (the phone faces the
      // performer, the character faces the audience); each reverse flag
      // keeps the sender's sign for its axis.
      input.x = reverseUpDown_ ? r.x * rotationScale_ : -(r.x * rotationScale_);
      input.y = reverseLeftRight_ ? r.y * rotationScale_ : -(r.y * rotationScale_);
      input.z = reverseTilt_ ? r.z * rotationScale_ : -(r.z * rotationScale_);
    }
    write(headRotation_, rotationFilter_.filter(input, now), Property::headRotation);
  }

  if (position) {
    write(rawPosition_, *position, Property::rawPosition);
    // The character stays in place: the received position is for display
    // only, and the filter is always driven with zeros.
    write(headPosition_, positionFilter_.filter(float3(0.0f), now), Property::headPosition);
  }

  if (blendshapes) {
    bool wrote = false;
    // The blendshape filters normally all saw the previous packet's time,
    // so the time-only part of their step is worked out once per packet.
    std::optional<OneEuroFilter1D::TimeStep> sharedStep;
    for (const auto& [name, value] : *blendshapes) {
      if (!std::isfinite(value)) continue;
      auto it = channels_.find(name);
      if (it == channels_.end()) it = channels_.emplace(name, Channel(blendshapeRegion(name))).first;
      Channel& channel = it->second;
      if (channel.slotsGeneration != slotsGeneration_) {
        channel.raw = &rawBlendshapes_[name];
        channel.out = &blendshapes_[name];
        channel.slotsGeneration = slotsGeneration_;
      }
      if (channel.rangesGeneration != rangesGeneration_) {
        const auto range = blendshapeRanges_.find(name);
        channel.range = range == blendshapeRanges_.end() ? std::nullopt : std::optional(range->second);
        channel.rangesGeneration = rangesGeneration_;
      }

      *channel.raw = value;
      const auto previousTime = channel.filter.previousTime();
      if (previousTime && (!sharedStep || sharedStep->previousTime != *previousTime ||
                           sharedStep->dCutoff != channel.filter.dCutoff)) {
        sharedStep = OneEuroFilter1D::timeStep(*previousTime, now, channel.filter.dCutoff);
      }
      float f = sharedStep ? channel.filter.filter(value, now, *sharedStep) : channel.filter.filter(value, now);
      if (!std::isfinite(f)) f = 0.0f;

      // Filter first, then map the filtered signal through the range, then
      // amplify within that scale.
      float n = f;
      if (channel.range) {
        float span = channel.range->ceiling - channel.range->floor;
        if (!(span >= minRangeGap)) span = minRangeGap;
        n = clampUnit((f - channel.range->floor) / span);
      }

      float s = globalSensitivity_;
      switch (channel.region) {
        case BlendshapeRegion::mouth: s = s * mouthSensitivity_; break;
        case BlendshapeRegion::brow: s = s * browSensitivity_; break;
        case BlendshapeRegion::eye: s = s * eyeSensitivity_; break;
        case BlendshapeRegion::none: break;
      }
      *channel.out = clampUnit(n * s);
      wrote = true;
    }
    if (wrote) {
      notify(Property::rawBlendshapes);
      notify(Property::blendshapes);
    }
  }
}

void FaceTrackingState::updateFilterParameters() {
  VELMORA_ASSERT_MAIN_THREAD();
  const float minCutoff = atLeast((1.0f - smoothing_) * 3.0f, 0.2f);
  const float beta = atLeast((1.0f - smoothing_) * 0.02f, 0.001f);
  rotationFilter_.updateParameters(minCutoff, beta);
  positionFilter_.updateParameters(minCutoff, beta);
  // Blendshapes respond a little faster than the head.
  for (auto& [name, channel] : channels_) {
    channel.filter.minCutoff = minCutoff * 1.2f;
    channel.filter.beta = beta * 1.5f;
  }
}

const OneEuroFilter1D* FaceTrackingState::blendshapeFilter(const std::string& name) const {
  const auto it = channels_.find(name);
  return it == channels_.end() ? nullptr : &it->second.filter;
}

// ---------------------------------------------------------------------------
// Calibration
// ---------------------------------------------------------------------------

void FaceTrackingState::recentreNeutralPose() {
  VELMORA_ASSERT_MAIN_THREAD();
  write(zeroRotationOffset_, rawRotation_, Property::zeroRotationOffset);
  write(zeroPositionOffset_, rawPosition_, Property::zeroPositionOffset);
  write(isCalibrated_, true, Property::isCalibrated);
  // The head settles at once instead of easing from the old pose.
  rotationFilter_.reset();
  positionFilter_.reset();
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

void FaceTrackingState::applyRange(BlendshapeRanges& ranges, const std::string& name, std::optional<float> floor,
                                   std::optional<float> ceiling) const {
  const auto it = ranges.find(name);
  BlendshapeRange current = it == ranges.end() ? BlendshapeRange{} : it->second;
  if (floor) {
    float f = *floor > 0.0f ? *floor : 0.0f;
    const float highest = current.ceiling - minRangeGap;
    if (f > highest) f = highest;
    current.floor = f;
  }
  if (ceiling) {
    // A NaN ceiling counts as 1, so nothing unstorable reaches the settings.
    float c = *ceiling < 1.0f ? *ceiling : 1.0f;
    const float lowest = current.floor + minRangeGap;
    if (c < lowest) c = lowest;
    current.ceiling = c;
  }
  if (current.floor <= 0.0f && current.ceiling >= 1.0f) {
    ranges.erase(name);
  } else {
    ranges[name] = current;
  }
}

void FaceTrackingState::setRange(const std::string& name, std::optional<float> floor, std::optional<float> ceiling) {
  VELMORA_ASSERT_MAIN_THREAD();
  BlendshapeRanges ranges = blendshapeRanges_;
  applyRange(ranges, name, floor, ceiling);
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
    applyRange(ranges, name, raw > 0.9f ? 0.9f : raw, std::nullopt);
  }
  // One publication and one settings write for the whole pose.
  publishRanges(std::move(ranges), true);
}

void FaceTrackingState::publishRanges(BlendshapeRanges ranges, bool persist) {
  ++rangesGeneration_;
  write(blendshapeRanges_, std::move(ranges), Property::blendshapeRanges);
  if (persist) saveRanges(blendshapeRanges_);
}

// ---------------------------------------------------------------------------
// Remote control hooks
// ---------------------------------------------------------------------------

void FaceTrackingState::setOSCServerControl(std::function<void(bool enabled)> hook) {
  VELMORA_ASSERT_MAIN_THREAD();
  oscServerControl_ = std::move(hook);
}

void FaceTrackingState::handleCharacterModelChange() {
  VELMORA_ASSERT_MAIN_THREAD();
  store_.set(characterModelKey, std::string(rawValue(characterModel_)));
  notify(Property::characterModel);
}

// ---------------------------------------------------------------------------
// Observers
// ---------------------------------------------------------------------------

int FaceTrackingState::observe(std::function<void(Property)> observer) {
  VELMORA_ASSERT_MAIN_THREAD();
  const int token = nextObserverToken_++;
  observers_.push_back(Observer{token, std::move(observer)});
  return token;
}

void FaceTrackingState::unobserve(int token) {
  VELMORA_ASSERT_MAIN_THREAD();
  for (auto it = observers_.begin(); it != observers_.end(); ++it) {
    if (it->token != token) continue;
    if (notifyDepth_ > 0) {
      it->active = false;
      observersNeedCompaction_ = true;
    } else {
      observers_.erase(it);
    }
    return;
  }
}

void FaceTrackingState::notify(Property property) {
  if (observers_.empty()) return;
  struct Depth {
    FaceTrackingState& state;
    explicit Depth(FaceTrackingState& s) : state(s) { ++state.notifyDepth_; }
    ~Depth() {
      if (--state.notifyDepth_ == 0 && state.observersNeedCompaction_) {
        std::erase_if(state.observers_, [](const Observer& o) { return !o.active; });
        state.observersNeedCompaction_ = false;
      }
    }
  } depth(*this);
  // Observers added during this notification hear from the next one on.
  // Deque elements stay put when others are appended.
  const std::size_t count = observers_.size();
  for (std::size_t i = 0; i < count; ++i) {
    Observer& observer = observers_[i];
    if (observer.active && observer.function) observer.function(property);
  }
}

template <class T>
void FaceTrackingState::write(T& field, T value, Property property) {
  field = std::move(value);
  notify(property);
}

// ---------------------------------------------------------------------------
// Setters
// ---------------------------------------------------------------------------

void FaceTrackingState::setBlendshapes(BlendshapeMap value) {
  VELMORA_ASSERT_MAIN_THREAD();
  ++slotsGeneration_;
  write(blendshapes_, std::move(value), Property::blendshapes);
}

void FaceTrackingState::setHeadRotation(float3 value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(headRotation_, value, Property::headRotation);
}

void FaceTrackingState::setHeadPosition(float3 value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(headPosition_, value, Property::headPosition);
}

void FaceTrackingState::setRawBlendshapes(BlendshapeMap value) {
  VELMORA_ASSERT_MAIN_THREAD();
  ++slotsGeneration_;
  write(rawBlendshapes_, std::move(value), Property::rawBlendshapes);
}

void FaceTrackingState::setRawRotation(float3 value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(rawRotation_, value, Property::rawRotation);
}

void FaceTrackingState::setRawPosition(float3 value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(rawPosition_, value, Property::rawPosition);
}

void FaceTrackingState::setZeroRotationOffset(float3 value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(zeroRotationOffset_, value, Property::zeroRotationOffset);
}

void FaceTrackingState::setZeroPositionOffset(float3 value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(zeroPositionOffset_, value, Property::zeroPositionOffset);
}

void FaceTrackingState::setIsCalibrated(bool value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(isCalibrated_, value, Property::isCalibrated);
}

void FaceTrackingState::setSmoothing(float value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(smoothing_, value, Property::smoothing);
  updateFilterParameters();
}

void FaceTrackingState::setGlobalSensitivity(float value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(globalSensitivity_, value, Property::globalSensitivity);
}

void FaceTrackingState::setMouthSensitivity(float value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(mouthSensitivity_, value, Property::mouthSensitivity);
}

void FaceTrackingState::setBrowSensitivity(float value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(browSensitivity_, value, Property::browSensitivity);
}

void FaceTrackingState::setEyeSensitivity(float value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(eyeSensitivity_, value, Property::eyeSensitivity);
}

void FaceTrackingState::setBlendshapeRanges(BlendshapeRanges value) {
  VELMORA_ASSERT_MAIN_THREAD();
  publishRanges(std::move(value), false);
}

void FaceTrackingState::setCharacterModel(CharacterModelType value) {
  VELMORA_ASSERT_MAIN_THREAD();
  characterModel_ = value;
  handleCharacterModelChange();
}

void FaceTrackingState::setTrackingDetail(TrackingDetail value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(trackingDetail_, value, Property::trackingDetail);
  store_.set(trackingDetailKey, rawValue(value));
}

void FaceTrackingState::setLockRotation(bool value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(lockRotation_, value, Property::lockRotation);
}

void FaceTrackingState::setRotationScale(float value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(rotationScale_, value, Property::rotationScale);
}

void FaceTrackingState::setReverseUpDown(bool value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(reverseUpDown_, value, Property::reverseUpDown);
}

void FaceTrackingState::setReverseLeftRight(bool value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(reverseLeftRight_, value, Property::reverseLeftRight);
}

void FaceTrackingState::setReverseTilt(bool value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(reverseTilt_, value, Property::reverseTilt);
}

void FaceTrackingState::setMaskOpacity(float value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(maskOpacity_, value, Property::maskOpacity);
}

void FaceTrackingState::setLightIntensity(float value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(lightIntensity_, value, Property::lightIntensity);
}

void FaceTrackingState::setLighting(LightingSettings value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(lighting_, std::move(value), Property::lighting);
  lighting_.save(store_);
}

void FaceTrackingState::setRimLightColor(float3 value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(rimLightColor_, value, Property::rimLightColor);
}

void FaceTrackingState::setIsSyphonActive(bool value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(isSyphonActive_, value, Property::isSyphonActive);
}

void FaceTrackingState::setIsNDIActive(bool value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(isNDIActive_, value, Property::isNDIActive);
  store_.set(ndiOutputEnabledKey, value);
}

void FaceTrackingState::setSyphonStatus(std::string value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(syphonStatus_, std::move(value), Property::syphonStatus);
}

void FaceTrackingState::setNdiStatus(std::string value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(ndiStatus_, std::move(value), Property::ndiStatus);
}

void FaceTrackingState::setIsProjectorFullscreen(bool value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(isProjectorFullscreen_, value, Property::isProjectorFullscreen);
}

void FaceTrackingState::setLocalIP(std::string value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(localIP_, std::move(value), Property::localIP);
}

void FaceTrackingState::setIsConnected(bool value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(isConnected_, value, Property::isConnected);
}

void FaceTrackingState::setSenderIP(std::string value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(senderIP_, std::move(value), Property::senderIP);
}

void FaceTrackingState::setIncomingFPS(double value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(incomingFPS_, value, Property::incomingFPS);
}

void FaceTrackingState::setTotalPacketsReceived(std::uint64_t value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(totalPacketsReceived_, value, Property::totalPacketsReceived);
}

void FaceTrackingState::setLastPacketTimestamp(std::optional<WallTime> value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(lastPacketTimestamp_, value, Property::lastPacketTimestamp);
}

void FaceTrackingState::setLastQLabCommand(std::string value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(lastQLabCommand_, std::move(value), Property::lastQLabCommand);
}

void FaceTrackingState::setOscPort(int value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(oscPort_, value, Property::oscPort);
  store_.set(oscCuePortKey, value);
}

void FaceTrackingState::setIsOSCEnabled(bool value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(isOSCEnabled_, value, Property::isOSCEnabled);
  store_.set(isOSCEnabledKey, value);
  if (!value) write(oscStatus_, std::string("OSC cues: disabled"), Property::oscStatus);
  if (oscServerControl_) {
    auto hook = oscServerControl_;  // the hook may replace itself
    hook(value);
  }
}

void FaceTrackingState::setOscStatus(std::string value) {
  VELMORA_ASSERT_MAIN_THREAD();
  write(oscStatus_, std::move(value), Property::oscStatus);
}

}  // namespace velmora
