#include "characters/CharacterFraming.h"

#include <cctype>

namespace velmora {

float CharacterFraming::scaleFor(const Box& box) {
  const float height = box.hi.y - box.lo.y;
  if (!box.valid() || !(height > 1e-9f)) return 1.0f;
  return (maskHigh.y - maskLow.y) / height;
}

float3 CharacterFraming::translationFor(const Box& box, float scale) {
  const float3 maskCentre = 0.5f * (maskLow + maskHigh);
  if (!box.valid()) return maskCentre;
  return maskCentre - scale * box.centre();
}

std::string_view CharacterFraming::label(Rule rule) {
  switch (rule) {
    case Rule::headNode: return "head bone";
    case Rule::faceTargets: return "face targets";
    case Rule::wholeBox: return "whole model";
    case Rule::stageUnits: return "stage units";
  }
  return "whole model";
}

bool CharacterFraming::isHeadName(std::string_view name) {
  // Blender appends ".001" to duplicates; keep what comes before.
  const std::string_view stem = name.substr(0, name.find('.'));
  if (stem.size() < 4) return false;
  const std::size_t at = stem.size() - 4;
  for (std::size_t i = 0; i < 4; ++i)
    if (std::tolower(static_cast<unsigned char>(stem[at + i])) != "head"[i]) return false;
  if (at == 0) return true;
  // "head" must start a word: after a separator, or a capital after a small letter.
  const auto before = static_cast<unsigned char>(stem[at - 1]);
  if (!std::isalpha(before)) return true;
  return std::islower(before) && std::isupper(static_cast<unsigned char>(stem[at]));
}

}  // namespace velmora
