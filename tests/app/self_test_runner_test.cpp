#include "app/SelfTestRunner.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/LogCapture.h"

namespace velmora {
namespace {

TEST(SelfTestRunner, MeasuredValuesAreAppendedWithAClosingParenthesis) {
  EXPECT_EQ(SelfTestRunner::withActual("Z (actual: ", 0.32f), "Z (actual: 0.32)");
  EXPECT_EQ(SelfTestRunner::withActual("pitch (actual: ", 0.5f), "pitch (actual: 0.5)");
  EXPECT_EQ(SelfTestRunner::withActual("x: ", -0.125f), "x: -0.125)");
}

TEST(SelfTestRunner, ChecksPrintPassOrFailAndAreCounted) {
  test::LogCapture log;
  SelfTestRunner runner;
  runner.check("it holds", true);
  runner.check("it does not", false);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"  \xE2\x9C\x93 PASS: it holds", "  \xE2\x9C\x97 FAIL: it does not"}));
}

}  // namespace
}  // namespace velmora
