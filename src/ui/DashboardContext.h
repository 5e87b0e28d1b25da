#pragma once
// What the dashboard's views act on, handed in by the application (the
// shared objects) or by a test (private ones). Every edit goes through the
// state's setters, the cue player's trigger/reset, the hooks and the
// show-safety object below.
// Main thread only.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace velmora {

class FaceTrackingState;
class CharacterAnimationController;
class ShowSafetyControls;

struct DashboardContext {
  DashboardContext(FaceTrackingState& state, CharacterAnimationController& animation,
                   std::function<double()> clock)
      : state(state), animation(animation), clock(std::move(clock)) {}

  FaceTrackingState& state;
  CharacterAnimationController& animation;
  // Seconds on the process's monotonic clock (cue times, packet ages).
  std::function<double()> clock;

  // Opens the projector when closed, closes it when open; none: no window system.
  std::function<void()> toggleProjector;
  // The monitor the open projector covers ("" when closed or unknown).
  std::function<std::string()> projectorMonitor;
  // True when the projector goes over the dashboard's own (only) monitor.
  std::function<bool()> projectorCoversDashboard;
  // (Re)starts the OSC cue server with the state's current port and switch.
  std::function<void()> restartCueServer;
  // The controllers subscribed to events, one line each, and the last reply
  // the cue server sent ("None" before the first); none: no cue server.
  std::function<std::vector<std::string>()> oscSubscribers;
  std::function<std::string()> lastOscReply;
  // The UDP ports the tracking receiver listens on.
  std::function<std::vector<std::uint16_t>()> trackingPorts;
  // Ends the run as closing the main window does; none: nothing to close.
  std::function<void()> quit;
  // Puts text on the clipboard.
  std::function<void(const std::string&)> setClipboard;

  // The recording, relay status, refused counts and the checks on typed
  // lists and addresses; none when the application has no such service.
  ShowSafetyControls* safety = nullptr;

  // Window visibility the menus and shortcuts switch.
  bool showOSCCommands = false;
};

}  // namespace velmora
