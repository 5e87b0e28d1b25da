#pragma once
// The setting most tests of the state's users start from: a fresh settings
// folder, a SettingsStore on it and a FaceTrackingState over that store.
// With `testClock` the state's clock is `now` (seconds), which the test
// moves; otherwise it is the process's monotonic clock.
#include "base/SettingsStore.h"
#include "support/TempDir.h"
#include "tracking/FaceTrackingState.h"

namespace velmora::test {

struct StateFixture {
  explicit StateFixture(bool testClock = false, double start = 100.0)
      : now(start), state(testClock ? FaceTrackingState(store, [this] { return now; }) : FaceTrackingState(store)) {}

  TempDir dir;
  SettingsStore store{dir.path()};
  double now;
  FaceTrackingState state;
};

}  // namespace velmora::test
