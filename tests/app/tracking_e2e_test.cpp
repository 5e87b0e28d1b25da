// The built velmora and the phone simulator on loopback: for every wire
// format the headless status line shows packets arriving from the loopback
// sender in that app's format, and SIGINT ends the run cleanly with status 0.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "support/VelmoraRun.h"

namespace velmora {
namespace {

TEST(TrackingEndToEndTest, EveryFormatFromThePhoneSimulatorReachesTheState) {
  test::VelmoraRun velmora({.ports = {test::freeUdpPort(), test::freeUdpPort(), test::freeUdpPort()}});
  ASSERT_TRUE(velmora.ready()) << velmora->output();
  struct Row {
    const char* format;
    const char* app;
  };
  const Row rows[] = {{"livelink", "Live Link Face"}, {"ifacialmocap", "iFacialMocap"}, {"osc", "OSC"},
                      {"vmc", "VMC"}, {"json", "JSON"}};
  const std::regex status(R"(\[Velmora\] tracking: ([0-9]+\.[0-9]) packets/s from 127\.0\.0\.1:[0-9]+ \((.*)\), ([0-9]+) received.*)");
  unsigned long long received = 0;
  std::size_t i = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.format);
    const std::string port = std::to_string(velmora.ports[i++ % velmora.ports.size()]);
    ASSERT_EQ(test::runToEnd({test::builtProgram("velmora-phone-sim"), "--format", row.format, "--port", port,
                              "--duration", "2.5"}, {}, 30).status, 0);
    // A status line counting well over a second's worth of this format's packets.
    std::string seen;
    std::smatch m;
    EXPECT_TRUE(velmora->waitForLine(
        [&](const std::string& l) {
          if (!std::regex_match(l, m, status)) return false;
          seen = l;
          return m[2] == row.app && std::stod(m[1]) > 0.0 && std::stoull(m[3]) >= received + 100;
        },
        6.0))
        << "last status line \"" << seen << "\"\n" << velmora->output();
    if (std::regex_match(seen, m, status)) received = std::stoull(m[3]);
  }
  EXPECT_TRUE(velmora.stopsCleanly()) << velmora->output();
}

}  // namespace
}  // namespace velmora
