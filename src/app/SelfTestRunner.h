#pragma once
// The built-in acceptance suite behind "--run-tests": exercises the real
// shared objects (state, command catalogue, cue player, character geometry)
// with no window, network peer or output, prints one line per check and a
// closing tally. Main thread. Settings the suite changes on the way (the
// character, the lighting look, remote control on/off) are put back when it
// ends, so a verification run leaves the operator's setup as it found it.

#include <string>
#include <string_view>

namespace velmora {

class SelfTestRunner {
 public:
  struct Result {
    int passed = 0;
    int failed = 0;
  };

  // Runs all seven sections in order and prints the results. Always runs
  // to the end; a failing check is reported and counted.
  Result run();

  // Prints "  ✓ PASS: <name>" or "  ✗ FAIL: <name>" and counts it.
  void check(std::string_view name, bool condition);

  // "<text><value>)" for the checks that report a measured value; the value
  // in its shortest round-trip form (e.g. 0.32, 0.5).
  static std::string withActual(std::string_view text, float value);

 private:
  void sectionDispatch();
  void sectionModelSwitching();
  void sectionGhostCues();
  void sectionMaskGestures();
  void sectionBlending();
  void sectionGeometry();
  void sectionOSCToggle();

  Result result_;
};

}  // namespace velmora
