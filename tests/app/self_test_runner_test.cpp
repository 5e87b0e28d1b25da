#include "app/SelfTestRunner.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/LogCapture.h"

namespace velmora {
namespace {

TEST(SelfTestRunner, ChecksPrintPassOrFailAndAreCounted) {
  test::LogCapture log;
  SelfTestRunner runner;
  runner.check("it holds", true);
  runner.check("it does not", false);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"  \xE2\x9C\x93 PASS: it holds", "  \xE2\x9C\x97 FAIL: it does not"}));
}

}  // namespace
}  // namespace velmora
