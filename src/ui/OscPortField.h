#pragma once
// The dashboard's cue port entry: what the operator typed, checked before it
// becomes the state's oscPort. Ports 1024 to 65535 are accepted, except
// 53000, the cue-playback software's own port, which is refused with the
// same text the cue server shows for it. Pure; any thread.

#include <optional>
#include <string>
#include <string_view>

namespace velmora {

struct OscPortCheck {
  std::optional<int> port;  // set when the text may be used
  std::string message;      // why not, for the operator (empty when accepted)
};

class OscPortField {
 public:
  static constexpr int lowest = 1024;
  static constexpr int highest = 65535;
  static constexpr int reserved = 53000;

  // Decimal digits only (surrounding blanks allowed).
  static OscPortCheck check(std::string_view text);
};

}  // namespace velmora
