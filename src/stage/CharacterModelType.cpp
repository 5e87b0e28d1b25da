#include "stage/CharacterModelType.h"

#include <array>

namespace velmora {

namespace {
constexpr std::array<CharacterModelType, 2> cases = {CharacterModelType::theatricalMask,
                                                     CharacterModelType::cartoonGhost};
}  // namespace

std::string_view rawValue(CharacterModelType model) {
  switch (model) {
    case CharacterModelType::theatricalMask: return "theatrical_mask";
    case CharacterModelType::cartoonGhost: return "cartoon_ghost";
  }
  return {};
}

std::string_view displayName(CharacterModelType model) {
  switch (model) {
    case CharacterModelType::theatricalMask: return "Theatrical Mask";
    case CharacterModelType::cartoonGhost: return "Cartoon Ghost";
  }
  return {};
}

template <>
std::optional<CharacterModelType> fromRawValue<CharacterModelType>(std::string_view raw) {
  for (CharacterModelType model : cases) {
    if (rawValue(model) == raw) return model;
  }
  return std::nullopt;
}

template <>
std::span<const CharacterModelType> allCases<CharacterModelType>() {
  return cases;
}

}  // namespace velmora
