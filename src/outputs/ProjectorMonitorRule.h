#pragma once
// Which monitor the projector goes to, by its place in the system's monitor
// list (glfwGetMonitors order): the second when two or more are connected,
// the only one when there is one, none when none is listed. Pure; any thread.

#include <optional>

namespace velmora {

struct ProjectorMonitorRule {
  static std::optional<int> chooseIndex(int monitorCount);
};

}  // namespace velmora
