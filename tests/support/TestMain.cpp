// Test entry point shared by every suite: each test binary gets a fresh,
// private settings folder before any code can read VELMORA_CONFIG_DIR, and
// the test thread is the application's main thread.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "base/MainQueue.h"
#include "support/TempDir.h"

int main(int argc, char** argv) {
  const velmora::test::TempDir config;  // removed when the tests are done
  ::setenv("VELMORA_CONFIG_DIR", config.path().c_str(), 1);
  velmora::MainQueue::shared().bindToCurrentThread();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
