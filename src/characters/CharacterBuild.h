#pragma once
// What a character builder returns: the character's root node, the morpher
// the scene manager drives, and the map from lower-cased blendshape name
// ("jawopen") to target index in that morpher.

#include <memory>
#include <string>
#include <unordered_map>

#include "scene/data/Morpher.h"
#include "scene/data/Node.h"

namespace velmora {

struct CharacterBuild {
  std::shared_ptr<Node> node;
  std::shared_ptr<Morpher> morpher;
  std::unordered_map<std::string, int> targetNameToIndex;
};

}  // namespace velmora
