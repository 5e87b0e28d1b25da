#pragma once
// Which character the scene shows. Persisted under "characterModel" as the
// raw value string; the raw value is also its id.

#include <string_view>

#include "stage/RawValue.h"

namespace velmora {

enum class CharacterModelType { theatricalMask = 0, cartoonGhost = 1 };

// "theatrical_mask" / "cartoon_ghost".
std::string_view rawValue(CharacterModelType model);
// "Theatrical Mask" / "Cartoon Ghost".
std::string_view displayName(CharacterModelType model);

template <>
std::optional<CharacterModelType> fromRawValue<CharacterModelType>(std::string_view raw);

// theatricalMask, cartoonGhost.
template <>
std::span<const CharacterModelType> allCases<CharacterModelType>();

}  // namespace velmora
