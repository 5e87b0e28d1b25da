#pragma once
// The OSC commands window's "Copy as text": every command of the catalogue,
// grouped as the catalogue groups them, as plain text for a show file or an
// e-mail. Main thread (the catalogue is built there).

#include <string>

namespace velmora {

class OSCCommandsText {
 public:
  // `cuePort` is the UDP port the commands go to.
  static std::string build(int cuePort);
};

}  // namespace velmora
