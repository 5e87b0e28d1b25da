#pragma once
// Connection: this machine's address in large type (what the operator types
// into the phone) with a copy button, the tracking and cue ports, the
// sender, packets per second and in total, how long ago the last packet
// came ("Waiting for iPhone..." until the first; "Tracking lost" while the
// character eases to neutral for want of packets), and the input-to-output
// latency once the outputs measure it. Main thread.

#include <optional>
#include <string>

#include "base/Clock.h"

struct ImFont;

namespace velmora {

struct DashboardContext;

class ConnectionPanel {
 public:
  // After this long without a packet the phone is shown as silent.
  static constexpr double silentAfterSeconds = 2.0;

  explicit ConnectionPanel(DashboardContext& context) : context_(context) {}
  void draw(ImFont* largeFont);

  // "never", "0.4 s ago", "12 s ago", "3 min ago", "2 h ago".
  static std::string ageText(std::optional<WallTime> last, WallTime now);

 private:
  DashboardContext& context_;
};

}  // namespace velmora
