#pragma once
// A character read from a glTF file, ready to show: the builder's contract
// (node, morpher, target map by lower-cased blendshape name) and what the
// operator is told about it.

#include <cstddef>
#include <string>
#include <vector>

#include "characters/CharacterBuild.h"
#include "characters/CharacterFraming.h"

namespace velmora {

struct FileCharacter {
  std::string path;  // as given
  std::string name;  // the file name without its folder and extension
  CharacterBuild build;
  // The blendshapes (of the 52) some target drives, in vocabulary order.
  std::vector<std::string> matchedBlendshapes;
  // Target names that name no blendshape, in file order, each once.
  std::vector<std::string> unmatchedTargets;
  std::size_t triangles = 0;
  std::size_t vertices = 0;
  std::size_t textureBytes = 0;  // decoded RGBA of every texture
  CharacterFraming::Rule framing = CharacterFraming::Rule::wholeBox;
};

}  // namespace velmora
