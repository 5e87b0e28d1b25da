// The built velmora executable driven from outside: a headless run taking
// remote cues from oscsend (liblo-tools, a client nobody here wrote), and the
// verification suite behind "--run-tests".
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "osc/OSCParser.h"
#include "support/ChildProcess.h"
#include "support/OscBytes.h"
#include "support/TempDir.h"
#include "support/UdpSocket.h"

namespace velmora {
namespace {

const std::string kVelmora = test::builtProgram("velmora");

int oscsend(const std::vector<std::string>& args) {
  std::vector<std::string> full = {"/usr/bin/oscsend"};
  full.insert(full.end(), args.begin(), args.end());
  return test::runToEnd(full, {}, 10).status;
}

nlohmann::json readSettings(const std::filesystem::path& folder) {
  std::ifstream in(folder / "settings.json");
  return nlohmann::json::parse(in, nullptr, false);
}

// A headless run listening for cues on `port`, its settings in `config`;
// the tracking receiver listens on a free port too, never the fixed ones.
std::unique_ptr<test::ChildProcess> headlessOnCuePort(const test::TempDir& config, std::uint16_t port) {
  std::ofstream(config.path() / "settings.json") << nlohmann::json{{"oscCuePort", port}}.dump();
  auto run = std::make_unique<test::ChildProcess>(
      std::vector<std::string>{kVelmora}, std::vector<std::string>{"VELMORA_CONFIG_DIR=" + config.path().string(),
                                                                   "VELMORA_TRACKING_PORTS=" +
                                                                       std::to_string(test::freeUdpPort())});
  EXPECT_TRUE(run->started());
  return run;
}

TEST(VelmoraE2E, HeadlessRunTakesRemoteCuesFromOscsend) {
  if (::access("/usr/bin/oscsend", X_OK) != 0) GTEST_SKIP() << "oscsend (liblo-tools) is not installed";
  test::TempDir config;
  const std::uint16_t port = test::freeUdpPort();
  auto run = headlessOnCuePort(config, port);
  test::ChildProcess& velmora = *run;
  const std::string p = std::to_string(port);
  ASSERT_TRUE(velmora.waitForLine("[QLabOSCServer] QLab Remote Cue listener active on UDP port " + p, 20))
      << velmora.output();

  ASSERT_EQ(oscsend({"127.0.0.1", p, "/velmora/recentre"}), 0);
  EXPECT_TRUE(velmora.waitForLine("[OSC] /velmora/recentre []", 10)) << velmora.output();
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/Sensitivity", "f", "2.5"}), 0);
  EXPECT_TRUE(velmora.waitForLine("[OSC] /velmora/sensitivity [2.5]", 10)) << velmora.output();
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/velmora/lighting/preset", "s", "Top Light"}), 0);
  EXPECT_TRUE(velmora.waitForLine("[OSC] /velmora/lighting/preset [\"Top Light\"]", 10)) << velmora.output();
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/ghost/spook", "f", "3"}), 0);
  EXPECT_TRUE(velmora.waitForLine("[OSC] /velmora/ghost/spook [3]", 10)) << velmora.output();
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/velmora/no/such/thing"}), 0);
  // Unknown addresses are recorded, never dispatched: a known one after it still works.
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/ghost/stop"}), 0);
  EXPECT_TRUE(velmora.waitForLine("[OSC] /velmora/ghost/reset []", 10)) << velmora.output();

  velmora.signal(SIGINT);
  EXPECT_EQ(velmora.wait(20), 0) << velmora.output();
  EXPECT_TRUE(velmora.waitForLine("[Velmora] Stopped cleanly", 0)) << velmora.output();
  for (const auto& line : velmora.lines()) EXPECT_EQ(line.find("no/such"), std::string::npos) << line;

  // The commands' persisted effects: the look, and the ghost the cue switched to.
  const nlohmann::json settings = readSettings(config.path());
  ASSERT_TRUE(settings.is_object());
  EXPECT_EQ(settings["lightingSettings"]["preset"], "Top Light");
  EXPECT_EQ(settings["characterModel"], "cartoon_ghost");
  EXPECT_EQ(settings["oscCuePort"], port);
}

// The next OSC message `socket` receives within `seconds`, decoded.
std::optional<OSCMessage> receiveMessage(const test::UdpSocket& socket, double seconds = 10.0) {
  const auto bytes = socket.receive(seconds);
  if (!bytes) return std::nullopt;
  auto messages = OSCParser::parsePacket(*bytes);
  if (messages.empty()) return std::nullopt;
  return messages.front();
}

nlohmann::json replyData(const std::optional<OSCMessage>& reply, const std::string& address) {
  EXPECT_TRUE(reply && reply->address == "/reply" + address) << (reply ? reply->address : "no reply");
  if (!reply) return {};
  const auto body = nlohmann::json::parse(reply->stringValue().value_or(""), nullptr, false);
  EXPECT_EQ(body["status"], "ok") << body.dump();
  return body["data"];
}

TEST(VelmoraE2E, ZeroArgumentsArriveAndAControllerIsAnsweredAndFollowed) {
  if (::access("/usr/bin/oscsend", X_OK) != 0) GTEST_SKIP() << "oscsend (liblo-tools) is not installed";
  test::TempDir config;
  const std::uint16_t port = test::freeUdpPort();
  auto run = headlessOnCuePort(config, port);
  test::ChildProcess& velmora = *run;
  const std::string p = std::to_string(port);
  ASSERT_TRUE(velmora.waitForLine("[QLabOSCServer] QLab Remote Cue listener active on UDP port " + p, 20))
      << velmora.output();

  // Integer 0 and float 0.0 right after the type tags arrive as arguments.
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/velmora/ndi", "i", "0"}), 0);
  EXPECT_TRUE(velmora.waitForLine("[OSC] /velmora/ndi [0]", 10)) << velmora.output();
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/velmora/opacity", "f", "0"}), 0);
  EXPECT_TRUE(velmora.waitForLine("[OSC] /velmora/opacity [0]", 10)) << velmora.output();
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/velmora/lighting/preset", "i", "3"}), 0);
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/velmora/lighting/preset", "i", "0"}), 0);
  EXPECT_TRUE(velmora.waitForLine("[OSC] /velmora/lighting/preset [0]", 10)) << velmora.output();

  // A controller bound to its own port asks, and is answered from the cue port.
  const test::UdpSocket controller;
  controller.sendTo(port, test::oscMessage("/velmora/get", {std::string("ndi")}));
  EXPECT_EQ(replyData(receiveMessage(controller), "/velmora/get"), false);
  controller.sendTo(port, test::oscMessage("/velmora/get", {std::string("opacity")}));
  EXPECT_EQ(replyData(receiveMessage(controller), "/velmora/get"), 0.0);
  controller.sendTo(port, test::oscMessage("/velmora/state"));
  EXPECT_EQ(replyData(receiveMessage(controller), "/velmora/state")["lighting"]["preset"], "Theatrical");
  controller.sendTo(port, test::oscMessage("/velmora/bogus"));
  const auto error = receiveMessage(controller);
  ASSERT_TRUE(error);
  EXPECT_EQ(nlohmann::json::parse(error->stringValue().value_or(""), nullptr, false)["status"], "error");
  controller.sendTo(port, test::oscMessage("/reply/velmora/state", {std::string("{}")}));
  EXPECT_FALSE(controller.receive(1.0));

  // Subscribed, it hears a cue that oscsend (another sender) fires start and finish.
  controller.sendTo(port, test::oscMessage("/velmora/updates", {1.0f}));
  EXPECT_EQ(replyData(receiveMessage(controller), "/velmora/updates"), true);
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/velmora/mask/nod", "f", "0.5"}), 0);
  std::vector<std::string> cue;
  while (auto m = receiveMessage(controller)) {
    if (m->address == "/velmora/event/cue") cue.push_back(*m->arguments.at(1).get<std::string>());
    if (!cue.empty() && cue.back() != "started") break;
  }
  EXPECT_EQ(cue, (std::vector<std::string>{"started", "finished"}));

  velmora.signal(SIGINT);
  EXPECT_EQ(velmora.wait(20), 0) << velmora.output();
  for (const auto& line : velmora.lines()) EXPECT_EQ(line.rfind("[NDI]", 0), std::string::npos) << line;
  EXPECT_NE(readSettings(config.path())["ndiOutputEnabled"], true);
}

TEST(VelmoraE2E, HeadlessRunReportsAnOscPortInUse) {
  test::TempDir config;
  const test::UdpSocket squatter;
  ASSERT_TRUE(squatter.bound());
  const std::string p = std::to_string(squatter.port());
  std::ofstream(config.path() / "settings.json") << nlohmann::json{{"oscCuePort", squatter.port()}}.dump();
  test::ChildProcess velmora({kVelmora}, {"VELMORA_CONFIG_DIR=" + config.path().string(),
                             "VELMORA_TRACKING_PORTS=" + std::to_string(test::freeUdpPort())});
  ASSERT_TRUE(velmora.started());
  EXPECT_TRUE(velmora.waitForLine("[QLabOSCServer] Could not bind to port " + p + ": already in use by another app",
                                  20))
      << velmora.output();
  // A signal this early in start-up still ends the run cleanly.
  velmora.signal(SIGTERM);
  EXPECT_EQ(velmora.wait(20), 0) << velmora.output();
}

TEST(VelmoraE2E, RunTestsPrintsEveryCheckPassingAndExitsZero) {
  test::TempDir config;
  test::ChildProcess velmora({kVelmora, "--run-tests", "--snapshot", config.path().string()},
                {"VELMORA_CONFIG_DIR=" + config.path().string()});
  ASSERT_TRUE(velmora.started());
  EXPECT_EQ(velmora.wait(120), 0);
  const std::string out = velmora.output();

  int passes = 0, fails = 0;
  for (const auto& line : velmora.lines()) {
    if (line.rfind("  \xE2\x9C\x93 PASS: ", 0) == 0) ++passes;
    if (line.rfind("  \xE2\x9C\x97 FAIL: ", 0) == 0) ++fails;
  }
  EXPECT_EQ(fails, 0) << out;
  EXPECT_EQ(passes, 59) << out;
  EXPECT_NE(out.find("\n=== RUNNING VELMORA VERIFICATION SUITE ===\n"), std::string::npos) << out;
  EXPECT_NE(out.find("\n=== VERIFICATION RESULTS: 59 PASSED, 0 FAILED ===\n"), std::string::npos) << out;
  const char* headings[] = {"--- 1. UK English OSC Dispatch ---", "--- 2. Model Switching OSC Shortcuts ---",
                            "--- 3. Ghost Animation Cues & Auto-Selection ---",
                            "--- 4. Mask Gestures & Auto-Selection ---",
                            "--- 5. Graceful Blending & Return Verification ---",
                            "--- 6. Geometry & Holes Verification ---", "--- 7. OSC Master Toggle ---"};
  std::size_t at = 0;
  for (const char* h : headings) {
    const std::size_t found = out.find(std::string("\n\n") + h + "\n", at);
    EXPECT_NE(found, std::string::npos) << h;
    if (found != std::string::npos) at = found;
  }
  // A batch run starts no listener.
  EXPECT_EQ(out.find("[QLabOSCServer]"), std::string::npos) << out;
  // Measured values close their parenthesis.
  EXPECT_TRUE(std::regex_search(out, std::regex(R"(Ghost Spook Z offset stays <= 0\.35m \(body fully inside frame, actual: 0\.3[0-9]*\)\n)")))
      << out;
  EXPECT_TRUE(std::regex_search(out, std::regex(R"(Mask bow tilts head DOWN \(pitch > 0, actual: 0\.5\)\n)"))) << out;
  // The operator's persisted remote-control switch is left as it was.
  const nlohmann::json settings = readSettings(config.path());
  ASSERT_TRUE(settings.is_object());
  EXPECT_EQ(settings.value("isOSCEnabled", true), true);
}

}  // namespace
}  // namespace velmora
