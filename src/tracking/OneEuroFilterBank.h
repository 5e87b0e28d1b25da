#pragma once
// The One Euro filters of the 52 vocabulary blendshapes, kept side by side
// (one array per field) so that a packet's values, which normally all share
// one time step, are filtered four at a time in vector registers. Each lane
// behaves exactly as its own OneEuroFilter1D would, bit for bit: same
// parameters, same creation, priming, non-finite and time-step rules.
//
// Lanes are indexed by ARKitBlendShape case index. A lane exists from its
// name's first sample (create) on. Main thread (owned by FacePipeline).

#include <cstddef>
#include <cstdint>

#include "stage/ARKitBlendShape.h"
#include "tracking/OneEuroFilter1D.h"

namespace velmora {

class OneEuroFilterBank {
 public:
  static constexpr std::size_t laneCount = arkitBlendShapeCount;

  bool exists(std::size_t lane) const { return exists_ & bit(lane); }
  // Makes the lane a fresh, empty filter with these parameters.
  void create(std::size_t lane, float minCutoff, float beta, float dCutoff);
  // Bit i: lane i exists.
  std::uint64_t existing() const { return exists_; }

  // As OneEuroFilter1D::filter(value, timestamp) for this lane.
  float filter(std::size_t lane, float value, double timestamp);

  bool isPrimed(std::size_t lane) const { return primed_ & bit(lane); }
  double previousTime(std::size_t lane) const { return previousTime_[lane]; }
  float dCutoff(std::size_t lane) const { return dCutoff_[lane]; }
  // True when filterShared may step this lane with `shared` (primed, made
  // for its previous time and its dCutoff).
  bool canShare(std::size_t lane, const OneEuroFilter1D::TimeStep& shared) const {
    return isPrimed(lane) && previousTime_[lane] == shared.previousTime && dCutoff_[lane] == shared.dCutoff;
  }
  // Steps every lane whose bit is set in `lanes` (each must pass canShare)
  // with values[lane] (finite) at shared.timestamp; outputs[lane] is what
  // the lane's own filter would return. Arrays are indexed by lane; entries
  // of other lanes are not read from values (beyond being loaded) nor
  // written in outputs' meaning.
  void filterShared(std::uint64_t lanes, const float* values, const OneEuroFilter1D::TimeStep& shared,
                    float* outputs);

  // Every existing lane: minCutoff and beta set, state kept.
  void updateParameters(float minCutoff, float beta);

  // A copy of the lane as a standalone filter (display and tests).
  OneEuroFilter1D filterAt(std::size_t lane) const;

 private:
  static constexpr std::uint64_t bit(std::size_t lane) { return std::uint64_t{1} << lane; }
  void load(std::size_t lane, const OneEuroFilter1D& filter);

  std::uint64_t exists_ = 0;
  std::uint64_t primed_ = 0;
  alignas(16) float previousOutput_[laneCount] = {};
  alignas(16) float previousDerivative_[laneCount] = {};
  alignas(16) float minCutoff_[laneCount] = {};
  alignas(16) float beta_[laneCount] = {};
  alignas(16) float dCutoff_[laneCount] = {};
  double previousTime_[laneCount] = {};
};

}  // namespace velmora
