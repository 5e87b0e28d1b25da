#pragma once
// The character files as the dashboard's Character list sees them: each
// file's name and figures, and opening one (by name or path). The
// application's CharacterFiles implements it; a dashboard without it (tests,
// tools) lists the built-in two alone. Main thread.

#include <cstddef>
#include <string>
#include <vector>

#include "characters/CharacterFraming.h"

namespace velmora {

class CharacterChoices {
 public:
  struct Entry {
    std::string path;
    std::string name;        // the file name without folder and extension
    bool reading = false;    // a read is under way
    bool known = false;      // the figures below come from a read that succeeded
    std::string error;       // the last read's failure line; "" when it read
    int matchedTargets = 0;  // of the 52 blendshapes
    std::size_t triangles = 0;
    CharacterFraming::Rule framing = CharacterFraming::Rule::wholeBox;
  };

  virtual ~CharacterChoices() = default;
  virtual const std::vector<Entry>& entries() const = 0;
  // A name from the list (any letter case) or a path: read, then shown.
  virtual void open(const std::string& nameOrPath) = 0;
};

}  // namespace velmora
