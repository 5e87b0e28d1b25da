#pragma once
// The export behind "--export-gltf FOLDER": every character, as built, into
// one GLB file each, named after its model type ("theatrical_mask.glb",
// "cartoon_ghost.glb"), in a folder created when missing. Each file is written
// whole under a temporary name and then renamed, so a failure (a folder that
// cannot be created or written, a full disk) leaves nothing half-written
// under the final name. One "[export] ..." line per file:
//   Wrote /abs/folder/theatrical_mask.glb (12345678 bytes, 43 morph targets)
//   Could not write /abs/folder/cartoon_ghost.glb: No space left on device
// The characters are built on the calling thread (about a second for both
// on two cores the first time in a process); any thread.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "stage/CharacterModelType.h"

namespace velmora {

class CharacterExport {
 public:
  struct Outcome {
    CharacterModelType model = CharacterModelType::theatricalMask;
    std::filesystem::path file;  // absolute
    bool written = false;
    std::uintmax_t bytes = 0;
    int morphTargets = 0;        // of the character's root node
    std::string error;           // why it was not written
  };

  // Exports every character (in allCases order) into `folder`.
  static std::vector<Outcome> run(const std::string& folder);

  // "<raw value>.glb".
  static std::string fileName(CharacterModelType model);
};

}  // namespace velmora
