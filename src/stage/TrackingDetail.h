#pragma once
// Detail level of the wireframe tracker view. Integer-backed; the raw value
// is also its id. Persisted under "trackingDetail" as that integer.

#include <string_view>

#include "stage/RawValue.h"

namespace velmora {

enum class TrackingDetail { simple = 0, standard = 1, detailed = 2, many = 3 };

constexpr int rawValue(TrackingDetail detail) { return static_cast<int>(detail); }
// "Simple", "Standard", "Detailed", "Many".
std::string_view label(TrackingDetail detail);

// Only 0..3; anything else yields none.
template <>
std::optional<TrackingDetail> fromRawValue<TrackingDetail>(std::int64_t raw);

template <>
std::span<const TrackingDetail> allCases<TrackingDetail>();

}  // namespace velmora
