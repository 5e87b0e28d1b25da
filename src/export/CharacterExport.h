#pragma once
// The export behind "--export-gltf FOLDER": every character, as built, into
// one GLB file each, named after its model type ("theatrical_mask.glb",
// "cartoon_ghost.glb"), in a folder created when missing. Each file is written
// whole under a temporary name and then renamed, so a failure (a folder that
// cannot be created or written, a full disk) leaves nothing half-written
// under the final name. One "[export] ..." line per file:
//   Wrote /abs/folder/theatrical_mask.glb (12345678 bytes, 43 morph targets)
//   Could not write /abs/folder/cartoon_ghost.glb: No space left on device
// run() builds and writes on the calling thread (a few seconds for both
// characters on two cores); runInBackground() does the same on the
// "com.velmora.export" queue so the main thread never waits for it.

#include <cstdint>
#include <filesystem>
#include <functional>
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

  // Any thread. Exports every character (in allCases order) into `folder`.
  static std::vector<Outcome> run(const std::string& folder);
  // Any thread; returns at once. run(folder) on the export queue (one export
  // at a time, in request order), then `done` with its outcomes on the main
  // thread (posted to MainQueue).
  static void runInBackground(const std::string& folder, std::function<void(std::vector<Outcome>)> done);

  // "<raw value>.glb".
  static std::string fileName(CharacterModelType model);
  // The outcome's line, as logged (without the "[export] " prefix):
  // "Wrote <file> (<bytes> bytes, <n> morph targets)" or
  // "Could not write <file>: <reason>".
  static std::string describe(const Outcome& outcome);
};

}  // namespace velmora
