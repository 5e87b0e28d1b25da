#include "outputs/ProjectorMonitorRule.h"

namespace velmora {

std::optional<int> ProjectorMonitorRule::chooseIndex(int monitorCount) {
  if (monitorCount >= 2) return 1;  // the operator keeps the first for the dashboard
  if (monitorCount == 1) return 0;
  return std::nullopt;
}

}  // namespace velmora
