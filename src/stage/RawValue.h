#pragma once
// Conversions between the tracking vocabulary's enumerations and the raw
// values they have on the wire and in the settings store. Each enumeration's
// header specialises these for itself:
//
//   fromRawValue<CharacterModelType>("cartoon_ghost")  -> cartoonGhost
//   fromRawValue<TrackingDetail>(3)                     -> many
//   allCases<ARKitBlendShape>()                         -> the 52, in order
//
// An unknown raw value yields none.

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace velmora {

template <class E>
std::optional<E> fromRawValue(std::string_view raw) = delete;

template <class E>
std::optional<E> fromRawValue(std::int64_t raw) = delete;

template <class E>
std::span<const E> allCases() = delete;

}  // namespace velmora
