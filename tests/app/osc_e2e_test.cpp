// The built velmora executable driven from outside: a headless run taking
// remote cues from oscsend (liblo-tools, a client nobody here wrote) and
// answering a controller on the cue port, and the verification suite behind
// "--run-tests". The port in use is qlab_osc_server_net_test's, each command's
// rules osc_command_catalog_test's.
#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "osc/OSCParser.h"
#include "support/OscBytes.h"
#include "support/VelmoraRun.h"

namespace velmora {
namespace {

// The next OSC message `socket` receives within ten seconds, decoded.
std::optional<OSCMessage> receiveMessage(const test::UdpSocket& socket) {
  const auto bytes = socket.receive(10.0);
  if (!bytes) return std::nullopt;
  auto messages = OSCParser::parsePacket(*bytes);
  if (messages.empty()) return std::nullopt;
  return messages.front();
}

// The "data" of a reply to `address` whose status is "ok".
nlohmann::json replyData(const test::UdpSocket& socket, const std::string& address) {
  const auto reply = receiveMessage(socket);
  EXPECT_TRUE(reply && reply->address == "/reply" + address) << (reply ? reply->address : "no reply");
  if (!reply) return {};
  const auto body = nlohmann::json::parse(reply->stringValue().value_or(""), nullptr, false);
  EXPECT_EQ(body["status"], "ok") << body.dump();
  return body["data"];
}

// oscsend's commands, each with the handled line it gives ("" for none).
struct Sent {
  std::vector<std::string> args;
  std::string line;
};

void sendAll(test::VelmoraRun& velmora, const std::vector<Sent>& rows) {
  for (const Sent& row : rows) {
    SCOPED_TRACE(row.args.front());
    std::vector<std::string> args{"127.0.0.1", std::to_string(velmora.cuePort)};
    args.insert(args.end(), row.args.begin(), row.args.end());
    ASSERT_EQ(test::oscsend(args), 0);
    EXPECT_TRUE(row.line.empty() || velmora->waitForLine(row.line, 10)) << velmora->output();
  }
}

TEST(VelmoraE2E, HeadlessRunTakesCuesFromOscsendAndAnswersAController) {
  if (::access("/usr/bin/oscsend", X_OK) != 0) GTEST_SKIP() << "oscsend (liblo-tools) is not installed";
  test::VelmoraRun velmora;
  ASSERT_TRUE(velmora.ready()) << velmora->output();
  // Integer 0 and float 0.0 right after the type tags arrive as arguments.
  sendAll(velmora, {{{"/velmora/ndi", "i", "0"}, "[OSC] /velmora/ndi [0]"},
                    {{"/velmora/opacity", "f", "0"}, "[OSC] /velmora/opacity [0]"}});
  // A controller bound to its own port asks, and is answered from the cue
  // port; what each request answers is qlab_osc_server_net_test's.
  const test::UdpSocket controller;
  controller.sendTo(velmora.cuePort, test::oscMessage("/velmora/get", {std::string("opacity")}));
  EXPECT_EQ(replyData(controller, "/velmora/get"), 0.0);
  // Subscribed, it hears a cue that oscsend (another sender) fires start and finish.
  controller.sendTo(velmora.cuePort, test::oscMessage("/velmora/updates", {1.0f}));
  EXPECT_EQ(replyData(controller, "/velmora/updates"), true);
  sendAll(velmora, {{{"/velmora/mask/nod", "f", "0.5"}, ""}});
  std::vector<std::string> cue;
  while (auto m = receiveMessage(controller)) {
    if (m->address == "/velmora/event/cue") cue.push_back(*m->arguments.at(1).get<std::string>());
    if (!cue.empty() && cue.back() != "started") break;
  }
  EXPECT_EQ(cue, (std::vector<std::string>{"started", "finished"}));

  // No arguments, a text, a cue by its alias that switches the character; an
  // unknown address is recorded, never dispatched: a known one after it still
  // works. The aliases themselves are osc_command_catalog_test's.
  sendAll(velmora, {{{"/velmora/recentre"}, "[OSC] /velmora/recentre []"},
                    {{"/velmora/lighting/preset", "s", "Top Light"}, "[OSC] /velmora/lighting/preset [\"Top Light\"]"},
                    {{"/ghost/spook", "f", "3"}, "[OSC] /velmora/ghost/spook [3]"},
                    {{"/velmora/no/such/thing"}, ""},
                    {{"/ghost/stop"}, "[OSC] /velmora/ghost/reset []"}});
  EXPECT_TRUE(velmora.stopsCleanly()) << velmora->output();
  EXPECT_EQ(velmora->printedStarting("[NDI]"), 0) << velmora->output();
  for (const auto& line : velmora->lines()) EXPECT_EQ(line.find("no/such"), std::string::npos) << line;
  // The commands' persisted effects: the look, and the ghost the cue switched to.
  const nlohmann::json settings = velmora.settings();
  ASSERT_TRUE(settings.is_object());
  EXPECT_EQ(settings["lightingSettings"]["preset"], "Top Light");
  EXPECT_EQ(settings["characterModel"], "cartoon_ghost");
  EXPECT_EQ(settings["oscCuePort"], velmora.cuePort);
  EXPECT_NE(settings["ndiOutputEnabled"], true);
}

TEST(VelmoraE2E, RunTestsPrintsEveryCheckPassingAndPutsTheSettingsBack) {
  // The operator's choices before the run, which the suite changes while it checks.
  const nlohmann::json before = {{"characterModel", "cartoon_ghost"}, {"isOSCEnabled", true},
                                 {"lightingSettings", {{"preset", "Custom"}, {"key", 0.3}, {"fill", 0.2}, {"rim", 0.1},
                                                       {"ambient", 0.05}, {"keyHeight", 0.4}, {"keySide", -0.3},
                                                       {"warmth", 0.6}, {"shadow", 0.7}}}};
  test::VelmoraRun velmora({.settings = before, .args = {"--run-tests"}});
  EXPECT_EQ(velmora->wait(120), 0);
  const std::string out = velmora->output();
  std::ptrdiff_t passes = 0, fails = 0;
  for (std::size_t at = 0; (at = out.find("\n  \xE2\x9C\x93 PASS: ", at)) != std::string::npos; ++at) ++passes;
  for (std::size_t at = 0; (at = out.find("\n  \xE2\x9C\x97 FAIL: ", at)) != std::string::npos; ++at) ++fails;
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
    at = out.find(std::string("\n\n") + h + "\n", at);
    ASSERT_NE(at, std::string::npos) << h;
  }
  // A batch run starts no listener.
  EXPECT_EQ(out.find("[QLabOSCServer]"), std::string::npos) << out;
  // Measured values close their parenthesis.
  EXPECT_TRUE(std::regex_search(out, std::regex(R"(Ghost Spook Z offset stays <= 0\.35m \(body fully inside frame, actual: 0\.3[0-9]*\)\n)")))
      << out;
  EXPECT_TRUE(std::regex_search(out, std::regex(R"(Mask bow tilts head DOWN \(pitch > 0, actual: 0\.5\)\n)"))) << out;
  const nlohmann::json after = velmora.settings();
  for (const auto& [key, value] : before.items()) EXPECT_EQ(after[key], value) << key;
}

}  // namespace
}  // namespace velmora
