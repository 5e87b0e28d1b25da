#pragma once
// What a character builder returns: the character's root node, the morpher
// the scene manager drives, and the map from lower-cased blendshape name
// ("jawopen") to target index in that morpher.

#include <cctype>
#include <memory>
#include <string>
#include <unordered_map>

#include "stage/CharacterModelType.h"
#include "stage/Morpher.h"
#include "stage/Node.h"

namespace velmora {

struct CharacterBuild {
  std::shared_ptr<Node> node;
  std::shared_ptr<Morpher> morpher;
  std::unordered_map<std::string, int> targetNameToIndex;
};

// A new node tree of the given character (createTheatricalMaskNode() or
// createGhostNode()). Any thread.
CharacterBuild createCharacterNode(CharacterModelType model);

// The key of a blendshape name in targetNameToIndex: ASCII lower case.
inline std::string targetKey(std::string name) {
  for (auto& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return name;
}

// The map from each entry's lower-cased `name` to its index in `table`
// (a later entry with the same key wins).
template <class Table>
std::unordered_map<std::string, int> targetNameIndex(const Table& table) {
  std::unordered_map<std::string, int> map;
  for (std::size_t i = 0; i < table.size(); ++i) map[targetKey(table[i].name)] = static_cast<int>(i);
  return map;
}

}  // namespace velmora
