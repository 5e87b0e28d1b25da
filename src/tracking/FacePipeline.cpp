#include "tracking/FacePipeline.h"

#include <cmath>

namespace velmora {

namespace {

// Clamps into [0, 1]; a value not greater than 0 (NaN included) gives 0.
float clampUnit(float v) {
  if (!(v > 0.0f)) return 0.0f;
  return v > 1.0f ? 1.0f : v;
}

// max(v, floor) that also maps NaN to the floor.
float atLeast(float v, float floor) { return v > floor ? v : floor; }

}  // namespace

float3 FacePipeline::rotation(const float3& received, const HeadOptions& options, double now) {
  float3 r = received;
  if (options.neutralRotation) r = r - *options.neutralRotation;
  float3 input(0.0f);
  if (!options.lockRotation) {
    // The sender's signs are inverted by default (the phone faces the
    // performer, the character faces the audience); each reverse flag
    // keeps the sender's sign for its axis.
    const float scale = options.rotationScale;
    input.x = options.reverseUpDown ? r.x * scale : -(r.x * scale);
    input.y = options.reverseLeftRight ? r.y * scale : -(r.y * scale);
    input.z = options.reverseTilt ? r.z * scale : -(r.z * scale);
  }
  return rotationFilter_.filter(input, now);
}

float3 FacePipeline::position(double now) { return positionFilter_.filter(float3(0.0f), now); }

bool FacePipeline::blendshapes(const BlendshapeMap& received, double now, const BlendshapeRanges& ranges,
                               const Sensitivities& sensitivities, BlendshapeOutputs outputs) {
  bool wrote = false;
  // The blendshape filters normally all saw the previous packet's time, so
  // the time-only part of their step is worked out once per packet.
  std::optional<OneEuroFilter1D::TimeStep> sharedStep;
  for (const auto& [name, value] : received) {
    if (!std::isfinite(value)) continue;
    auto it = channels_.find(name);
    if (it == channels_.end()) it = channels_.emplace(name, Channel(blendshapeRegion(name))).first;
    Channel& channel = it->second;
    if (channel.slotsGeneration != slotsGeneration_) {
      channel.raw = &outputs.raw[name];
      channel.out = &outputs.processed[name];
      channel.slotsGeneration = slotsGeneration_;
    }
    if (channel.rangesGeneration != rangesGeneration_) {
      const auto range = ranges.find(name);
      channel.range = range == ranges.end() ? std::nullopt : std::optional(range->second);
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

    float n = f;
    if (channel.range) {
      float span = channel.range->ceiling - channel.range->floor;
      if (!(span >= minRangeGap)) span = minRangeGap;
      n = clampUnit((f - channel.range->floor) / span);
    }

    float s = sensitivities.global;
    switch (channel.region) {
      case BlendshapeRegion::mouth: s = s * sensitivities.mouth; break;
      case BlendshapeRegion::brow: s = s * sensitivities.brow; break;
      case BlendshapeRegion::eye: s = s * sensitivities.eye; break;
      case BlendshapeRegion::none: break;
    }
    *channel.out = clampUnit(n * s);
    wrote = true;
  }
  return wrote;
}

void FacePipeline::updateFilterParameters(float smoothing) {
  const float minCutoff = atLeast((1.0f - smoothing) * 3.0f, 0.2f);
  const float beta = atLeast((1.0f - smoothing) * 0.02f, 0.001f);
  rotationFilter_.updateParameters(minCutoff, beta);
  positionFilter_.updateParameters(minCutoff, beta);
  for (auto& [name, channel] : channels_) {
    channel.filter.minCutoff = minCutoff * 1.2f;
    channel.filter.beta = beta * 1.5f;
  }
}

void FacePipeline::resetHeadFilters() {
  rotationFilter_.reset();
  positionFilter_.reset();
}

void FacePipeline::applyRange(BlendshapeRanges& ranges, const std::string& name, std::optional<float> floor,
                              std::optional<float> ceiling) {
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

const OneEuroFilter1D* FacePipeline::blendshapeFilter(const std::string& name) const {
  const auto it = channels_.find(name);
  return it == channels_.end() ? nullptr : &it->second.filter;
}

}  // namespace velmora
