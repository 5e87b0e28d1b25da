// The built velmora and the phone simulator on loopback: for every wire
// format the headless status line shows packets arriving and being ingested,
// and SIGINT ends the run cleanly with status 0.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

const std::string kVelmora = test::builtProgram("velmora");
const std::string kPhoneSim = test::builtProgram("velmora-phone-sim");

TEST(TrackingEndToEndTest, EveryFormatFromThePhoneSimulatorReachesTheState) {
  test::TempDir config;
  const std::vector<std::uint16_t> ports{test::freeUdpPort(), test::freeUdpPort(), test::freeUdpPort()};
  const std::string portList =
      std::to_string(ports[0]) + "," + std::to_string(ports[1]) + "," + std::to_string(ports[2]);
  test::ChildProcess velmora({kVelmora}, {"VELMORA_CONFIG_DIR=" + config.path().string(), "VELMORA_TRACKING_PORTS=" + portList});
  ASSERT_TRUE(velmora.started()) << kVelmora;

  for (std::uint16_t port : ports) {
    const std::string listening = "[TrackingReceiver] Listening for ARKit facial tracking on UDP port " + std::to_string(port);
    ASSERT_TRUE(velmora.waitForLine([&](const std::string& l) { return l == listening; }, 20.0))
        << "no listening line for " << port << "\n" << velmora.output();
  }

  const std::regex status(R"(\[Velmora\] tracking: ([0-9]+\.[0-9]) packets/s from (.*), ([0-9]+) received.*)");
  unsigned long long received = 0;
  const std::vector<std::string> formats{"livelink", "ifacialmocap", "osc", "vmc", "json"};
  const std::vector<std::string> apps{"Live Link Face", "iFacialMocap", "OSC", "VMC", "JSON"};
  for (std::size_t i = 0; i < formats.size(); ++i) {
    const std::uint16_t port = ports[i % ports.size()];
    test::ChildProcess sim({kPhoneSim, "--format", formats[i], "--port", std::to_string(port), "--duration", "2.5"}, {});
    ASSERT_TRUE(sim.started()) << kPhoneSim;
    ASSERT_EQ(sim.wait(30), 0) << sim.output();

    // A status line counting well over a second's worth of this format's
    // packets, from the loopback sender, in a known format.
    std::string seen;
    const bool arrived = velmora.waitForLine(
        [&](const std::string& l) {
          std::smatch m;
          if (!std::regex_match(l, m, status)) return false;
          seen = l;
          EXPECT_EQ(m[2].str().find("(Unknown format)"), std::string::npos) << formats[i] << ": " << l;
          EXPECT_EQ(m[2].str().rfind("127.0.0.1:", 0), 0u) << l;
          EXPECT_TRUE(m[2].str().ends_with(" (" + apps[i] + ")")) << l;
          EXPECT_GT(std::stod(m[1].str()), 0.0) << l;
          return std::stoull(m[3].str()) >= received + 100;
        },
        6.0);
    ASSERT_TRUE(arrived) << formats[i] << ": last status line \"" << seen << "\"\n" << velmora.output();
    std::smatch m;
    std::regex_match(seen, m, status);
    received = std::stoull(m[3].str());
  }

  EXPECT_EQ(velmora.stop(SIGINT, 15.0), 0) << velmora.output();
  const auto& lines = velmora.lines();
  EXPECT_NE(std::find(lines.begin(), lines.end(), "[Velmora] Stopped cleanly"), lines.end()) << velmora.output();
}

}  // namespace
}  // namespace velmora
