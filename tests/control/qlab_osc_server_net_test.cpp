// The cue server on real loopback sockets, on ports chosen free by the test.
#include "control/QLabOSCServer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "animation/CharacterAnimationController.h"
#include "base/Clock.h"
#include "base/MainQueue.h"
#include "osc/OSCParser.h"
#include "support/LogCapture.h"
#include "support/OscBytes.h"
#include "support/UdpSocket.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {
namespace {

using test::Bytes;
using test::oscBundle;
using test::oscMessage;
using test::UdpSocket;
using test::freeUdpPort;

// The tests' cue server over the shared state and cue player, its
// isOSCEnabled switch wired as the application wires it (app/CueServerSwitch).
QLabOSCServer& cueServer() {
  static CommandContext commands{FaceTrackingState::shared(), CharacterAnimationController::shared(),
                                 [] { return uptime(); }};
  static QLabOSCServer server(commands, MainQueue::shared());
  static const int switchToken = FaceTrackingState::shared().observe([](FaceTrackingState::Property p) {
    if (p == FaceTrackingState::Property::isOSCEnabled) server.setEnabled(FaceTrackingState::shared().isOSCEnabled());
  });
  (void)switchToken;
  return server;
}

class QLabServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server();  // wires the switch
    state().setOscPort(freeUdpPort());
    if (!state().isOSCEnabled()) state().setIsOSCEnabled(true);  // starts through the switch
    token = state().observe([this](FaceTrackingState::Property p) {
      if (p == FaceTrackingState::Property::lastQLabCommand) commands.push_back(state().lastQLabCommand());
    });
  }
  void TearDown() override {
    state().unobserve(token);
    server().stopListening();
    server().waitForQueue();
    MainQueue::shared().drain();
  }

  static QLabOSCServer& server() { return cueServer(); }
  static FaceTrackingState& state() { return FaceTrackingState::shared(); }
  static bool waitFor(const std::function<bool()>& pred) { return MainQueue::shared().runUntil(pred, 5.0); }
  // Starts on the state's port and waits for the outcome's status.
  void startAndWait(const std::string& status) {
    server().startListening();
    server().waitForQueue();
    EXPECT_TRUE(waitFor([&] { return state().oscStatus() == status; })) << state().oscStatus();
  }
  std::uint16_t listen() {
    const auto port = static_cast<std::uint16_t>(state().oscPort());
    startAndWait("OSC cues: listening on UDP " + std::to_string(port));
    return port;
  }

  test::LogCapture log;
  std::vector<std::string> commands;  // lastQLabCommand, every write in order
  int token = 0;
  UdpSocket sender;
};

TEST_F(QLabServerTest, ListensOnTheStatesPortAndReportsIt) {
  const std::uint16_t port = listen();
  EXPECT_EQ(server().listeningPort(), port);
  EXPECT_TRUE(log.has("[QLabOSCServer] QLab Remote Cue listener active on UDP port " + std::to_string(port)));

  // A new port rebinds: the old one is released.
  const std::uint16_t second = freeUdpPort();
  state().setOscPort(second);
  startAndWait("OSC cues: listening on UDP " + std::to_string(second));
  EXPECT_EQ(server().listeningPort(), second);
  EXPECT_TRUE(UdpSocket(port).bound()) << "the first port is closed";
}

TEST_F(QLabServerTest, RefusesQLabsOwnPortBeforeCreatingASocket) {
  listen();
  state().setOscPort(53000);
  startAndWait("OSC cues: port 53000 is QLab's own port, choose another");
  EXPECT_FALSE(server().listeningPort());  // the previous listener went first
}

TEST_F(QLabServerTest, PortHeldByAnotherSocketIsReported) {
  UdpSocket squatter;
  ASSERT_TRUE(squatter.bound());
  const std::uint16_t port = squatter.port();
  state().setOscPort(port);
  const std::string p = std::to_string(port);
  startAndWait("OSC cues: port " + p + " already in use by another app");
  EXPECT_TRUE(log.has("[QLabOSCServer] Could not bind to port " + p + ": already in use by another app"));
  EXPECT_FALSE(server().listeningPort());
}

TEST_F(QLabServerTest, OtherBindErrorsShowTheErrorNumber) {
  EXPECT_EQ(QLabOSCServer::bindFailureReason(EADDRINUSE), "already in use by another app");
  EXPECT_EQ(QLabOSCServer::bindFailureReason(EACCES), "bind failed (errno " + std::to_string(EACCES) + ")");
  if (::geteuid() == 0) GTEST_SKIP() << "root may bind privileged ports";
  state().setOscPort(80);
  startAndWait("OSC cues: port 80 bind failed (errno " + std::to_string(EACCES) + ")");
  EXPECT_TRUE(log.has("[QLabOSCServer] Could not bind to port 80: bind failed (errno " + std::to_string(EACCES) + ")"));
}

// Runs in a fresh process: every file descriptor is taken before the start,
// so creating the socket fails. Exits 0 when the status says so.
[[noreturn]] void startWithNoDescriptorsLeft() {
  QLabOSCServer& server = cueServer();
  FaceTrackingState& state = FaceTrackingState::shared();
  state.setOscPort(freeUdpPort());
  const rlimit limit{64, 64};
  ::setrlimit(RLIMIT_NOFILE, &limit);
  while (::open("/dev/null", O_RDONLY) >= 0) {
  }
  server.startListening();
  server.waitForQueue();
  const std::string expected = "OSC cues: could not create socket";
  MainQueue::shared().runUntil([&] { return state.oscStatus() == expected; }, 5.0);
  std::fprintf(stderr, "status: %s\n", state.oscStatus().c_str());
  std::_Exit(state.oscStatus() == expected && !server.listeningPort() ? 0 : 1);
}

TEST(QLabServerSocketFailure, NoSocketLeftIsReported) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(startWithNoDescriptorsLeft(), ::testing::ExitedWithCode(0), "status: OSC cues: could not create socket");
}

TEST_F(QLabServerTest, DisableClosesAndEnableRebinds) {
  const std::uint16_t port = listen();
  state().setIsOSCEnabled(false);
  EXPECT_EQ(state().oscStatus(), "OSC cues: disabled");
  server().waitForQueue();
  EXPECT_FALSE(server().listeningPort());
  EXPECT_TRUE(UdpSocket(port).bound()) << "the socket is closed";
  server().startListening();  // a start while disabled only shows the status
  server().waitForQueue();
  MainQueue::shared().drain();
  EXPECT_EQ(state().oscStatus(), "OSC cues: disabled");
  EXPECT_FALSE(server().listeningPort());

  state().setIsOSCEnabled(true);
  EXPECT_TRUE(waitFor([&] { return state().oscStatus() == "OSC cues: listening on UDP " + std::to_string(port); }));
  sender.sendTo(port, oscMessage("/velmora/recentre"));
  EXPECT_TRUE(waitFor([&] { return !commands.empty(); }));
}

TEST_F(QLabServerTest, MessagesAreDispatchedAndRecorded) {
  const std::uint16_t port = listen();
  state().resetCalibration();
  sender.sendTo(port, Bytes{'/', 'a', 0});  // too short for a message: ignored
  sender.sendTo(port, Bytes{});
  sender.sendTo(port, oscMessage("/velmora/recentre"));
  sender.sendTo(port, oscMessage("/Sensitivity", {2.5f}));
  sender.sendTo(port, oscMessage("/velmora/unknown", {1.5f, std::string("x")}));
  ASSERT_TRUE(waitFor([&] { return commands.size() == 3; }));
  EXPECT_EQ(commands[0], "/velmora/recentre []");
  EXPECT_EQ(commands[1], "/Sensitivity [2.5]");
  EXPECT_EQ(commands[2], "/velmora/unknown [1.5, \"x\"]  (unknown)");
  EXPECT_TRUE(state().isCalibrated());
  EXPECT_EQ(state().globalSensitivity(), 2.5f);
  EXPECT_TRUE(log.has("[OSC] /velmora/sensitivity [2.5]"));
  server().waitForQueue();
  MainQueue::shared().drain();
  EXPECT_EQ(commands.size(), 3u);
}

TEST_F(QLabServerTest, BundleMessagesRunInBundleOrder) {
  const std::uint16_t port = listen();
  sender.sendTo(port, oscBundle({oscMessage("/velmora/sensitivity", {2.0f}),
                                 oscMessage("/velmora/opacity", {0.25f}),
                                 oscMessage("/velmora/sensitivity", {3.0f})}));
  ASSERT_TRUE(waitFor([&] { return commands.size() == 3; }));
  EXPECT_EQ(commands, (std::vector<std::string>{"/velmora/sensitivity [2]", "/velmora/opacity [0.25]",
                                                "/velmora/sensitivity [3]"}));
  EXPECT_EQ(state().globalSensitivity(), 3.0f);  // the last one won
  EXPECT_EQ(state().maskOpacity(), 0.25f);
}

TEST_F(QLabServerTest, ManyWaitingDatagramsAreAllDrainedInOrder) {
  const std::uint16_t port = listen();
  constexpr int count = 100;
  for (int i = 0; i < count; ++i) sender.sendTo(port, oscMessage("/x" + std::to_string(i)));
  ASSERT_TRUE(waitFor([&] { return commands.size() == count; })) << commands.size();
  for (int i = 0; i < count; ++i) EXPECT_EQ(commands[i], "/x" + std::to_string(i) + " []  (unknown)");
}

TEST_F(QLabServerTest, DatagramsAreReadIntoA4096ByteBuffer) {
  const std::uint16_t port = listen();
  // Address (12 bytes with padding) + ",s" (4) + text: a datagram of exactly 4096 bytes arrives whole.
  const std::string fits(4096 - 16 - 4, 'a');
  Bytes whole = oscMessage("/velmora/xx", {fits});
  ASSERT_EQ(whole.size(), 4096u);
  sender.sendTo(port, whole);
  // The same with a longer text is cut to 4096 bytes: the text loses its
  // terminator and is dropped, the message still arrives.
  sender.sendTo(port, oscMessage("/velmora/xx", {std::string(6000, 'b')}));
  sender.sendTo(port, oscMessage("/velmora/recentre"));
  ASSERT_TRUE(waitFor([&] { return commands.size() == 3; })) << commands.size();
  EXPECT_EQ(commands[0], "/velmora/xx [\"" + fits + "\"]  (unknown)");
  EXPECT_EQ(commands[1].rfind("/velmora/xx [", 0), 0u);
  EXPECT_LT(commands[1].size(), 4200u);
  EXPECT_EQ(commands[2], "/velmora/recentre []");
}

TEST_F(QLabServerTest, AFloodWhileTheMainThreadIsBusyStaysBounded) {
  const std::uint16_t port = listen();
  const std::uint64_t droppedBefore = server().droppedMessageCount();
  // The main thread (this test) does not run posted work while sending.
  constexpr int count = 3000;
  for (int i = 0; i < count; ++i) {
    sender.sendTo(port, oscMessage("/flood", {static_cast<float>(i)}));
    if (i % 50 == 49) std::this_thread::sleep_for(std::chrono::milliseconds(1));  // let the queue keep up
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (server().droppedMessageCount() - droppedBefore < count - QLabOSCServer::mailboxCapacity - 200 &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  server().waitForQueue();
  EXPECT_GT(server().droppedMessageCount(), droppedBefore);
  EXPECT_LE(MainQueue::shared().pendingCount(), 4u) << "one drain closure, not one per datagram";
  MainQueue::shared().drain();
  EXPECT_LE(commands.size(), QLabOSCServer::mailboxCapacity);
  ASSERT_FALSE(commands.empty());
  EXPECT_EQ(commands.back(), "/flood [" + std::to_string(count - 1) + "]  (unknown)");  // newest kept
  EXPECT_TRUE(log.hasPrefix("[QLabOSCServer] Main thread busy: dropped "));
  // Still serving afterwards.
  commands.clear();
  sender.sendTo(port, oscMessage("/velmora/recentre"));
  EXPECT_TRUE(waitFor([&] { return commands.size() == 1; }));
}

TEST_F(QLabServerTest, HandleRecordsTheArgumentsAndUnknownMarker) {
  server().handleQLabMessage(OSCMessage{"/zero", {}});
  EXPECT_EQ(state().lastQLabCommand(), "/zero []");
  server().handleQLabMessage(OSCMessage{"/velmora/model", {std::string("ghost"), std::int32_t(3)}});
  EXPECT_EQ(state().lastQLabCommand(), "/velmora/model [\"ghost\", 3]");
  server().handleQLabMessage(OSCMessage{"/velmora/recentre/", {}});
  EXPECT_EQ(state().lastQLabCommand(), "/velmora/recentre/ []  (unknown)");
  state().setCharacterModel(CharacterModelType::theatricalMask);
}


// ---------------------------------------------------------------------------
// Replies and following, on real sockets: the server's own socket answers.
// ---------------------------------------------------------------------------

// The next message `socket` receives whose address begins with `prefix`,
// while the main thread runs (and ticks the server and the cue player, as
// the application's tick does); none after `seconds`.
std::optional<OSCMessage> nextMessage(QLabOSCServer& server, const UdpSocket& socket, double seconds = 5.0,
                                      const std::string& prefix = "") {
  std::optional<OSCMessage> got;
  MainQueue::shared().runUntil(
      [&] {
        server.tick();
        CharacterAnimationController::shared().sample(uptime());
        if (auto bytes = socket.receive(0.005)) {
          auto messages = OSCParser::parsePacket(*bytes);
          if (!messages.empty() && messages.front().address.starts_with(prefix)) got = messages.front();
        }
        return got.has_value();
      },
      seconds);
  return got;
}
std::optional<OSCMessage> nextReply(QLabOSCServer& server, const UdpSocket& socket, double seconds = 5.0) {
  return nextMessage(server, socket, seconds, "/reply");
}

// The reply's JSON, checked to be the reply to `address`.
nlohmann::json replyTo(const std::optional<OSCMessage>& reply, const std::string& address) {
  EXPECT_TRUE(reply) << "no reply to " << address;
  if (!reply) return {};
  EXPECT_EQ(reply->address, "/reply" + address);
  const auto body = nlohmann::json::parse(reply->stringValue().value_or(""), nullptr, false);
  EXPECT_EQ(body["address"], address);
  return body;
}

TEST_F(QLabServerTest, EveryMessageIsAnsweredExceptReplies) {
  const std::uint16_t port = listen();
  sender.sendTo(port, oscMessage("/Velmora/Sensitivity", {2.0f}));
  auto body = replyTo(nextReply(server(), sender), "/Velmora/Sensitivity");
  EXPECT_EQ(body["status"], "ok");
  EXPECT_EQ(body["data"], 2.0);

  sender.sendTo(port, oscMessage("/velmora/no/such"));
  body = replyTo(nextReply(server(), sender), "/velmora/no/such");
  EXPECT_EQ(body["status"], "error");
  EXPECT_TRUE(body["data"].is_string());

  sender.sendTo(port, oscMessage("/velmora/get", {std::string("lighting")}));
  body = replyTo(nextReply(server(), sender), "/velmora/get");
  EXPECT_EQ(body["data"]["preset"], state().lighting().preset);

  // Another device's reply is never answered, nor is a reply to a reply.
  sender.sendTo(port, oscMessage("/reply/velmora/sensitivity", {std::string("{}")}));
  EXPECT_FALSE(nextMessage(server(), sender, 0.5));
  EXPECT_EQ(state().lastQLabCommand(), "/reply/velmora/sensitivity [\"{}\"]  (unknown)");

  // A reply port sends what follows elsewhere; 0 brings it back.
  UdpSocket listener;
  sender.sendTo(port, oscMessage("/velmora/replyport", {float(listener.port())}));
  replyTo(nextReply(server(), listener), "/velmora/replyport");
  sender.sendTo(port, oscMessage("/velmora/thump"));
  EXPECT_EQ(replyTo(nextReply(server(), listener), "/velmora/thump")["data"], "thump");
  sender.sendTo(port, oscMessage("/velmora/replyport", {0.0f}));
  replyTo(nextReply(server(), sender), "/velmora/replyport");

  // Switching remote control off from the network is answered, then closes.
  sender.sendTo(port, oscMessage("/velmora/osc", {0.0f}));
  EXPECT_EQ(replyTo(nextReply(server(), sender), "/velmora/osc")["data"], false);
  server().waitForQueue();
  EXPECT_FALSE(server().listeningPort());
}

TEST_F(QLabServerTest, SubscriberFollowsCuesAndSettingsWhoeverChangesThem) {
  const std::uint16_t port = listen();
  UdpSocket controller;
  controller.sendTo(port, oscMessage("/velmora/updates", {1.0f}));
  EXPECT_EQ(replyTo(nextReply(server(), controller), "/velmora/updates")["data"], true);

  // Another sender fires a short cue; the subscriber hears it start and end.
  sender.sendTo(port, oscMessage("/velmora/mask/nod", {0.3f}));
  std::vector<std::vector<std::string>> cueEvents;
  while (auto m = nextMessage(server(), controller)) {
    if (m->address != "/velmora/event/cue") continue;
    ASSERT_EQ(m->arguments.size(), 2u);
    cueEvents.push_back({*m->arguments[0].get<std::string>(), *m->arguments[1].get<std::string>()});
    if (cueEvents.back()[1] != "started") break;
  }
  const std::string nod = AnimationCue::name(AnimationCue::Kind::maskNod);
  EXPECT_EQ(cueEvents, (std::vector<std::vector<std::string>>{{nod, "started"}, {nod, "finished"}}));

  // The dashboard's slider writes the state's setter: a typed setting event
  // and the value again on its own address.
  state().setGlobalSensitivity(3.5f);
  std::vector<std::string> seen;
  while (auto m = nextMessage(server(), controller, 1.0)) {
    seen.push_back(m->address + " " + m->printedArguments());
    if (m->address == "/velmora/sensitivity") break;
  }
  EXPECT_NE(std::find(seen.begin(), seen.end(), "/velmora/event/setting [\"sensitivity\", 3.5]"), seen.end());
  EXPECT_EQ(seen.back(), "/velmora/sensitivity [3.5]");

  controller.sendTo(port, oscMessage("/velmora/updates", {0.0f}));
  EXPECT_EQ(replyTo(nextReply(server(), controller), "/velmora/updates")["data"], false);
}

TEST_F(QLabServerTest, ALapsedSubscriptionReceivesNothing) {
  // A server of its own whose clock the test moves.
  double now = 1000.0;
  CommandContext commands{state(), CharacterAnimationController::shared(), [&now] { return now; }};
  QLabOSCServer own(commands, MainQueue::shared());
  state().setOscPort(freeUdpPort());
  own.startListening();
  own.waitForQueue();
  const auto port = static_cast<std::uint16_t>(state().oscPort());
  ASSERT_TRUE(waitFor([&] { return own.listeningPort() == port; }));

  UdpSocket lapsed, kept;
  lapsed.sendTo(port, oscMessage("/velmora/updates", {1.0f}));
  replyTo(nextReply(own, lapsed), "/velmora/updates");
  kept.sendTo(port, oscMessage("/velmora/updates", {1.0f}));
  replyTo(nextReply(own, kept), "/velmora/updates");
  now += 50.0;
  kept.sendTo(port, oscMessage("/velmora/thump"));  // the heartbeat keeps one alive
  replyTo(nextReply(own, kept), "/velmora/thump");
  now += 20.0;  // 70 s after the other's last message

  state().setMaskOpacity(state().maskOpacity() > 0.5f ? 0.25f : 0.75f);
  EXPECT_TRUE(nextMessage(own, kept));
  EXPECT_FALSE(nextMessage(own, lapsed, 0.5));
  EXPECT_EQ(own.replies().peers().subscribers().size(), 1u);
  own.shutdown();
}

}  // namespace
}  // namespace velmora
