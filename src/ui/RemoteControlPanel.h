#pragma once
// Remote control: the OSC cue switch, the cue port (checked by OscPortField
// before it is stored; applying it restarts the cue server), the server's
// status, the last command received, the last reply sent and the
// controllers subscribed to events. Main thread.

#include <string>

namespace velmora {

struct DashboardContext;

class RemoteControlPanel {
 public:
  explicit RemoteControlPanel(DashboardContext& context);
  void draw();

  // The port entry's Apply: stores an accepted port and restarts the cue
  // server; a refused one changes nothing. Returns the message to show
  // (empty when accepted).
  std::string applyPort(const std::string& text);
  const std::string& portMessage() const { return portMessage_; }

 private:
  DashboardContext& context_;
  char portText_[16] = {};
  std::string portMessage_;
};

}  // namespace velmora
