// Which monitor the projector covers, by the number connected.
#include <gtest/gtest.h>

#include "outputs/ProjectorMonitorRule.h"

namespace velmora {
namespace {

TEST(ProjectorMonitorRuleTest, SecondOfSeveralElseTheOnlyOneElseNone) {
  EXPECT_EQ(ProjectorMonitorRule::chooseIndex(0), std::nullopt);
  EXPECT_EQ(ProjectorMonitorRule::chooseIndex(1), 0);
  EXPECT_EQ(ProjectorMonitorRule::chooseIndex(2), 1);
  EXPECT_EQ(ProjectorMonitorRule::chooseIndex(3), 1);
}

}  // namespace
}  // namespace velmora
