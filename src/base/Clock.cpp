#include "base/Clock.h"

namespace velmora {

double uptime() {
  static const auto origin = std::chrono::steady_clock::now();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - origin).count();
}

WallTime wallNow() { return std::chrono::system_clock::now(); }

}  // namespace velmora
