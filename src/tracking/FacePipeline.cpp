#include "tracking/FacePipeline.h"

#include <bit>
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

// A filtered value through its range and its region's sensitivity factor:
// the processed value in [0, 1]. Inlined into the per-name loops.
inline float finish(float filtered, const BlendshapeRange* range, float sensitivity) {
  float f = filtered;
  if (!std::isfinite(f)) f = 0.0f;
  float n = f;
  if (range) {
    float span = range->ceiling - range->floor;
    if (!(span >= FacePipeline::minRangeGap)) span = FacePipeline::minRangeGap;
    n = clampUnit((f - range->floor) / span);
  }
  return clampUnit(n * sensitivity);
}

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

const std::array<BlendshapeRegion, arkitBlendShapeCount> FacePipeline::slotRegions_ = [] {
  std::array<BlendshapeRegion, arkitBlendShapeCount> regions{};
  for (const ARKitBlendShape shape : allCases<ARKitBlendShape>()) regions[index(shape)] = blendshapeRegion(rawValue(shape));
  return regions;
}();

bool FacePipeline::blendshapes(const BlendshapeMap& received, double now, const BlendshapeRanges& ranges,
                               const Sensitivities& sensitivities, BlendshapeOutputs outputs) {
  bool wrote = false;
  // The factor of each region: global, then times the region's own.
  std::array<float, 4> factor;
  factor[static_cast<std::size_t>(BlendshapeRegion::mouth)] = sensitivities.global * sensitivities.mouth;
  factor[static_cast<std::size_t>(BlendshapeRegion::brow)] = sensitivities.global * sensitivities.brow;
  factor[static_cast<std::size_t>(BlendshapeRegion::eye)] = sensitivities.global * sensitivities.eye;
  factor[static_cast<std::size_t>(BlendshapeRegion::none)] = sensitivities.global;
  const auto factorOf = [&factor](BlendshapeRegion region) { return factor[static_cast<std::size_t>(region)]; };

  // The vocabulary's filters normally all saw the previous packet's time:
  // the time-only part of their step is worked out once and they are
  // stepped together. A name's first sample, or one that missed packets,
  // steps alone; the results are the same.
  std::optional<OneEuroFilter1D::TimeStep> sharedStep;
  alignas(16) std::array<float, arkitBlendShapeCount> values{}, filtered;
  std::uint64_t together = 0;
  received.forEachSlot([&](ARKitBlendShape shape, float value) {
    if (!std::isfinite(value)) return;
    const std::size_t i = index(shape);
    if (!slotFilters_.exists(i)) slotFilters_.create(i, 1.5f, 0.02f, 1.0f);  // creation parameters
    outputs.raw.set(shape, value);
    wrote = true;
    if (!sharedStep && slotFilters_.isPrimed(i))
      sharedStep = OneEuroFilter1D::timeStep(slotFilters_.previousTime(i), now, slotFilters_.dCutoff(i));
    if (sharedStep && slotFilters_.canShare(i, *sharedStep)) {
      values[i] = value;
      together |= std::uint64_t{1} << i;
      return;
    }
    outputs.processed.set(shape, finish(slotFilters_.filter(i, value, now), ranges.get(shape), factorOf(slotRegions_[i])));
  });
  if (together) {
    slotFilters_.filterShared(together, values.data(), *sharedStep, filtered.data());
    for (std::uint64_t bits = together; bits; bits &= bits - 1) {
      const auto i = static_cast<std::size_t>(std::countr_zero(bits));
      const auto shape = static_cast<ARKitBlendShape>(i);
      outputs.processed.set(shape, finish(filtered[i], ranges.get(shape), factorOf(slotRegions_[i])));
    }
  }
  for (const auto& [name, value] : received.others()) {
    if (!std::isfinite(value)) continue;
    auto it = otherChannels_.find(name);
    if (it == otherChannels_.end()) it = otherChannels_.emplace(name, Channel{.region = blendshapeRegion(name)}).first;
    outputs.raw[name] = value;
    outputs.processed[name] = finish(it->second.filter.filter(value, now), ranges.get(name), factorOf(it->second.region));
    wrote = true;
  }
  return wrote;
}

void FacePipeline::updateFilterParameters(float smoothing) {
  const float minCutoff = atLeast((1.0f - smoothing) * 3.0f, 0.2f);
  const float beta = atLeast((1.0f - smoothing) * 0.02f, 0.001f);
  rotationFilter_.updateParameters(minCutoff, beta);
  positionFilter_.updateParameters(minCutoff, beta);
  slotFilters_.updateParameters(minCutoff * 1.2f, beta * 1.5f);
  for (auto& [name, channel] : otherChannels_) {
    channel.filter.minCutoff = minCutoff * 1.2f;
    channel.filter.beta = beta * 1.5f;
  }
}

void FacePipeline::resetHeadFilters() {
  rotationFilter_.reset();
  positionFilter_.reset();
}

void FacePipeline::applyRange(BlendshapeRanges& ranges, std::string_view name, std::optional<float> floor,
                              std::optional<float> ceiling) {
  const BlendshapeRange* stored = ranges.get(name);
  BlendshapeRange current = stored ? *stored : BlendshapeRange{};
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

std::optional<OneEuroFilter1D> FacePipeline::blendshapeFilter(std::string_view name) const {
  if (const auto shape = fromRawValue<ARKitBlendShape>(name)) {
    const std::size_t i = index(*shape);
    if (!slotFilters_.exists(i)) return std::nullopt;
    return slotFilters_.filterAt(i);
  }
  const auto it = otherChannels_.find(std::string(name));
  if (it == otherChannels_.end()) return std::nullopt;
  return it->second.filter;
}

}  // namespace velmora
