// Test entry point shared by every suite: each test binary gets a fresh,
// private settings folder before any code can read VELMORA_CONFIG_DIR, and
// the test thread is the application's main thread.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "base/MainQueue.h"

int main(int argc, char** argv) {
  std::string templ = (std::filesystem::temp_directory_path() / "velmora-test-XXXXXX").string();
  if (char* dir = ::mkdtemp(templ.data())) ::setenv("VELMORA_CONFIG_DIR", dir, 1);
  velmora::MainQueue::shared().bindToCurrentThread();
  ::testing::InitGoogleTest(&argc, argv);
  const int rc = RUN_ALL_TESTS();
  std::error_code ec;
  std::filesystem::remove_all(templ, ec);
  return rc;
}
