#include "characters/CharacterBuild.h"

#include "characters/CartoonGhost.h"
#include "characters/MaskExpressionTargets.h"

namespace velmora {

CharacterBuild createCharacterNode(CharacterModelType model) {
  switch (model) {
    case CharacterModelType::cartoonGhost: return createGhostNode();
    case CharacterModelType::theatricalMask: break;
  }
  return createTheatricalMaskNode();
}

}  // namespace velmora
