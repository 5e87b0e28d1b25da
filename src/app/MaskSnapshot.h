#pragma once
// The snapshot renderer behind "--snapshot FOLDER": renders a fixed set of
// 1920 x 1080 transparent PNGs of both characters (at rest, expressions,
// every lighting preset, one mid-cue frame of every cue) and a contact
// sheet of them all, with stable file names, into the folder (created when
// missing). One "[snapshot] ..." line per file and a final count.
//
// It uses private instances of the face state (settings in a temporary
// folder, so the user's settings are neither read nor changed), of the cue
// player and of the scene manager, with a clock it steps itself.
// Main thread.

#include <string>

namespace velmora {

class MaskSnapshot {
 public:
  // Returns the number of files written (0 when nothing could be rendered;
  // the reason is logged).
  static int run(const std::string& outputDirectory);
  // "--snapshot FOLDER --character FILE": that character alone, at rest and
  // with each blendshape it has a target for, as NAME-rest.png and
  // NAME-BLENDSHAPE.png, then the contact sheet. A file that does not read
  // writes nothing and logs its line.
  static int runCharacterFile(const std::string& outputDirectory, const std::string& file);
};

}  // namespace velmora
