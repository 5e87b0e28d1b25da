#include "stage/TrackingDetail.h"

#include <array>

namespace velmora {

namespace {
constexpr std::array<TrackingDetail, 4> cases = {TrackingDetail::simple, TrackingDetail::standard,
                                                 TrackingDetail::detailed, TrackingDetail::many};
}  // namespace

std::string_view label(TrackingDetail detail) {
  switch (detail) {
    case TrackingDetail::simple: return "Simple";
    case TrackingDetail::standard: return "Standard";
    case TrackingDetail::detailed: return "Detailed";
    case TrackingDetail::many: return "Many";
  }
  return {};
}

template <>
std::optional<TrackingDetail> fromRawValue<TrackingDetail>(std::int64_t raw) {
  if (raw < 0 || raw >= static_cast<std::int64_t>(cases.size())) return std::nullopt;
  return cases[static_cast<std::size_t>(raw)];
}

template <>
std::span<const TrackingDetail> allCases<TrackingDetail>() {
  return cases;
}

}  // namespace velmora
