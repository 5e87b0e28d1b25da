#pragma once
// Places a character of any scale and origin where the built-in mask is, so
// the camera, the lights and the cues fit it: a box around its head is
// centred where the mask's box is and scaled (uniformly) to the mask's height.
// Which box that is depends on what the file tells (see Rule); the rule used
// is shown to the operator.

#include <optional>
#include <string_view>

#include "base/Math.h"

namespace velmora {

class CharacterFraming {
 public:
  enum class Rule {
    headNode,     // the humanoid head bone or a node named like "Head"
    faceTargets,  // the vertices the face's morph targets move
    wholeBox,     // everything
    stageUnits,   // written by Velmora's own export: already in place
  };

  struct Box {
    float3 lo{0.0f}, hi{0.0f};
    bool valid() const { return hi.x >= lo.x && hi.y >= lo.y && hi.z >= lo.z; }
    float3 centre() const { return 0.5f * (lo + hi); }
  };

  // The mask's neutral box in stage units (its shell, measured once).
  static constexpr float3 maskLow{-0.93f, -0.9943f, -0.0869f};
  static constexpr float3 maskHigh{0.93f, 1.0473f, 0.8874f};

  // The uniform scale and the translation (applied after it) that put `box`
  // where the mask's box is. A flat or empty box keeps the scale at 1.
  static float scaleFor(const Box& box);
  static float3 translationFor(const Box& box, float scale);

  // "head bone", "face targets", "whole model", "stage units".
  static std::string_view label(Rule rule);

  // Whether a node name reads as a head: "Head", "J_Bip_C_Head",
  // "mixamorig:Head", "head.001"; not "Forehead" or "HeadTop_End".
  static bool isHeadName(std::string_view name);
};

}  // namespace velmora
