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

using namespace test;  // the socket and OSC byte kit

// Seconds the server's clock runs ahead of uptime(), so that a test can let
// a subscription lapse; 0 while cues play (the cue player runs on uptime()).
double clockAhead = 0;

// The tests' cue server over the shared state and cue player, its
// isOSCEnabled switch wired as the application wires it (app/CueServerSwitch).
QLabOSCServer& server() {
  static CommandContext commands{FaceTrackingState::shared(), CharacterAnimationController::shared(),
                                 [] { return uptime() + clockAhead; }};
  static QLabOSCServer instance(commands, MainQueue::shared());
  [[maybe_unused]] static const int token = FaceTrackingState::shared().observe([](FaceTrackingState::Property p) {
    if (p == FaceTrackingState::Property::isOSCEnabled) instance.setEnabled(FaceTrackingState::shared().isOSCEnabled());
  });
  return instance;
}

class QLabServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    clockAhead = 0;
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

// Every outcome of a start, one after the other on one server: disabling
// closes and enabling rebinds, a new port releases the old one, a refused
// port closes the listener first.
TEST_F(QLabServerTest, EachStartShowsItsOutcome) {
  const std::uint16_t first = listen();
  EXPECT_TRUE(log.has("[QLabOSCServer] QLab Remote Cue listener active on UDP port " + std::to_string(first)));
  state().setIsOSCEnabled(false);
  EXPECT_EQ(state().oscStatus(), "OSC cues: disabled");
  server().waitForQueue();
  EXPECT_TRUE(UdpSocket(first).bound()) << "the socket is closed";
  server().startListening();  // a start while disabled only shows the status
  server().waitForQueue();
  MainQueue::shared().drain();
  EXPECT_EQ(state().oscStatus(), "OSC cues: disabled");

  state().setIsOSCEnabled(true);
  EXPECT_TRUE(waitFor([&] { return state().oscStatus() == "OSC cues: listening on UDP " + std::to_string(first); }));
  sender.sendTo(first, oscMessage("/velmora/recentre"));
  EXPECT_TRUE(waitFor([&] { return !commands.empty(); }));
  EXPECT_EQ(QLabOSCServer::bindFailureReason(EACCES), "bind failed (errno " + std::to_string(EACCES) + ")");
  UdpSocket squatter;
  ASSERT_TRUE(squatter.bound());
  const std::uint16_t second = freeUdpPort(), held = squatter.port();
  const std::string h = std::to_string(held), eacces = "bind failed (errno " + std::to_string(EACCES) + ")";
  struct Row {
    std::uint16_t port;
    std::string status, logLine;
    bool listens;
  };
  const Row rows[] = {
      {second, "listening on UDP " + std::to_string(second), "", true},
      {53000, "port 53000 is QLab's own port, choose another", "", false},
      {held, "port " + h + " already in use by another app",
       "[QLabOSCServer] Could not bind to port " + h + ": already in use by another app", false},
      {80, "port 80 " + eacces, "[QLabOSCServer] Could not bind to port 80: " + eacces, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.status);
    if (row.port == 80 && ::geteuid() == 0) continue;  // root may bind privileged ports
    state().setOscPort(row.port);
    startAndWait("OSC cues: " + row.status);
    EXPECT_EQ(server().listeningPort(), row.listens ? std::optional<std::uint16_t>(row.port) : std::nullopt);
    EXPECT_TRUE(row.logLine.empty() || log.has(row.logLine)) << row.logLine;
  }
  EXPECT_TRUE(UdpSocket(first).bound()) << "the first port is closed";
}

// Runs in a fresh process: every file descriptor is taken before the start,
// so creating the socket fails. Exits 0 when the status says so.
[[noreturn]] void startWithNoDescriptorsLeft() {
  FaceTrackingState& state = FaceTrackingState::shared();
  state.setOscPort(freeUdpPort());
  const rlimit limit{64, 64};
  ::setrlimit(RLIMIT_NOFILE, &limit);
  while (::open("/dev/null", O_RDONLY) >= 0) continue;
  server().startListening();
  server().waitForQueue();
  const std::string expected = "OSC cues: could not create socket";
  MainQueue::shared().runUntil([&] { return state.oscStatus() == expected; }, 5.0);
  std::fprintf(stderr, "status: %s\n", state.oscStatus().c_str());
  std::_Exit(state.oscStatus() == expected && !server().listeningPort() ? 0 : 1);
}

TEST(QLabServerSocketFailure, NoSocketLeftIsReported) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(startWithNoDescriptorsLeft(), ::testing::ExitedWithCode(0), "status: OSC cues: could not create socket");
}

// What waits is read in arrival order and a bundle's messages in bundle
// order, each datagram into a 4096-byte buffer. (Draining a long burst is the
// flood test's; short or empty datagrams are the parser's.)
TEST_F(QLabServerTest, DatagramsAreDispatchedInOrderAndRecorded) {
  const std::uint16_t port = listen();
  // Address (12 bytes with padding) + ",s" (4) + text: a datagram of exactly 4096 bytes arrives whole.
  const std::string fits(4096 - 16 - 4, 'a');
  const Bytes whole = oscMessage("/velmora/xx", {fits});
  ASSERT_EQ(whole.size(), 4096u);
  sender.sendTo(port, oscMessage("/Zero"));  // recorded as sent, not as its command
  sender.sendTo(port, oscMessage("/velmora/unknown", {1.5f, std::string("x")}));
  sender.sendTo(port, oscBundle({oscMessage("/velmora/sensitivity", {2.0f}), oscMessage("/velmora/opacity", {0.25f}),
                                 oscMessage("/velmora/sensitivity", {3.0f})}));
  sender.sendTo(port, whole);
  // A longer text is cut to 4096 bytes; the message still arrives.
  sender.sendTo(port, oscMessage("/velmora/xx", {std::string(6000, 'b')}));
  const std::vector<std::string> expected = {
      "/Zero []", "/velmora/unknown [1.5, \"x\"]  (unknown)", "/velmora/sensitivity [2]", "/velmora/opacity [0.25]",
      "/velmora/sensitivity [3]", "/velmora/xx [\"" + fits + "\"]  (unknown)",
      "/velmora/xx [\"" + std::string(4096 - 16, 'b') + "\"]  (unknown)"};  // the text up to the 4096th byte
  ASSERT_TRUE(waitFor([&] { return commands.size() >= expected.size(); })) << commands.size();
  EXPECT_EQ(commands, expected);
  // Dispatched, and the bundle's last one won.
  EXPECT_EQ(std::pair(state().globalSensitivity(), state().maskOpacity()), std::pair(3.0f, 0.25f));
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
  // Until the server has read every datagram that reached its socket (the
  // kernel may drop some of a flood): the drop count has stopped moving.
  // Under load the reading lags the sending, and a datagram read during the
  // drain below would land in a second hand-over.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (std::uint64_t seen = ~std::uint64_t{0}; std::chrono::steady_clock::now() < deadline;) {
    server().waitForQueue();
    const std::uint64_t now = server().droppedMessageCount();
    if (now == seen && now - droppedBefore >= count - QLabOSCServer::mailboxCapacity - 200) break;
    seen = now;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  // The messages wait in the bounded mailbox (one drain closure, the oldest
  // dropped: MainThreadMailbox.KeepsEverythingAtNormalRatesAndDropsTheOldestUnderAFlood).
  EXPECT_GT(server().droppedMessageCount(), droppedBefore);
  MainQueue::shared().drain();
  EXPECT_TRUE(log.hasPrefix("[QLabOSCServer] Main thread busy: dropped "));
  // Still serving afterwards.
  commands.clear();
  sender.sendTo(port, oscMessage("/velmora/recentre"));
  EXPECT_TRUE(waitFor([&] { return commands.size() == 1; }));
}

// ---------------------------------------------------------------------------
// Replies and following, on real sockets: the server's own socket answers.
// ---------------------------------------------------------------------------

// The next message `socket` receives whose address begins with `prefix`,
// while the main thread runs (and ticks the server and the cue player, as
// the application's tick does); none after `seconds`.
std::optional<OSCMessage> nextMessage(const UdpSocket& socket, double seconds = 5.0, const std::string& prefix = "") {
  std::optional<OSCMessage> got;
  MainQueue::shared().runUntil(
      [&] {
        server().tick();
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
// Sends `address` with `args` from `from`; the JSON of the reply that
// `answeredOn` (`from` when none) receives, checked to be the reply to `address`.
nlohmann::json ask(std::uint16_t port, const UdpSocket& from, const std::string& address,
                   const std::vector<test::OscArgument>& args = {}, const UdpSocket* answeredOn = nullptr) {
  from.sendTo(port, oscMessage(address, args));
  const auto reply = nextMessage(answeredOn ? *answeredOn : from, 5.0, "/reply");
  EXPECT_TRUE(reply) << "no reply to " << address;
  if (!reply) return {};
  EXPECT_EQ(reply->address, "/reply" + address);
  const auto body = nlohmann::json::parse(reply->stringValue().value_or(""), nullptr, false);
  EXPECT_EQ(body["address"], address);
  return body;
}

TEST_F(QLabServerTest, EveryMessageIsAnsweredExceptReplies) {
  const std::uint16_t port = listen();
  using J = nlohmann::json;
  EXPECT_EQ(ask(port, sender, "/Velmora/Sensitivity", {2.0f}),
            (J{{"address", "/Velmora/Sensitivity"}, {"status", "ok"}, {"data", 2.0}}));
  EXPECT_EQ(ask(port, sender, "/velmora/no/such"),
            (J{{"address", "/velmora/no/such"}, {"status", "error"}, {"data", "unknown address"}}));

  EXPECT_EQ(ask(port, sender, "/velmora/get", {"lighting"})["data"]["preset"], state().lighting().preset);

  // Another device's reply is never answered, nor is a reply to a reply.
  sender.sendTo(port, oscMessage("/reply/velmora/sensitivity", {std::string("{}")}));
  EXPECT_FALSE(nextMessage(sender, 0.5));
  EXPECT_EQ(state().lastQLabCommand(), "/reply/velmora/sensitivity [\"{}\"]  (unknown)");

  // A reply port sends what follows elsewhere; 0 brings it back.
  UdpSocket listener;
  ask(port, sender, "/velmora/replyport", {float(listener.port())}, &listener);
  EXPECT_EQ(ask(port, sender, "/velmora/thump", {}, &listener)["data"], "thump");
  ask(port, sender, "/velmora/replyport", {0.0f});

  // Switching remote control off from the network is answered, then closes.
  EXPECT_EQ(ask(port, sender, "/velmora/osc", {0.0f})["data"], false);
  server().waitForQueue();
  EXPECT_FALSE(server().listeningPort());
}

TEST_F(QLabServerTest, SubscriberFollowsCuesAndSettingsWhoeverChangesThem) {
  const std::uint16_t port = listen();
  UdpSocket controller;
  EXPECT_EQ(ask(port, controller, "/velmora/updates", {1.0f})["data"], true);

  // Another sender fires a short cue; the subscriber hears it start and end.
  sender.sendTo(port, oscMessage("/velmora/mask/nod", {0.3f}));
  std::vector<std::string> cueEvents;  // the first two, each within 5 s
  while (auto m = cueEvents.size() < 2 ? nextMessage(controller) : std::nullopt)
    if (m->address == "/velmora/event/cue") cueEvents.push_back(m->printedArguments());
  EXPECT_EQ(cueEvents, (std::vector<std::string>{"[\"Mask Nod\", \"started\"]", "[\"Mask Nod\", \"finished\"]"}));

  // The dashboard's slider writes the state's setter: a typed setting event
  // and the value again on its own address.
  state().setGlobalSensitivity(3.5f);
  std::vector<std::string> seen;
  while (auto m = nextMessage(controller, 1.0)) {
    seen.push_back(m->address + " " + m->printedArguments());
    if (m->address == "/velmora/sensitivity") break;
  }
  EXPECT_NE(std::find(seen.begin(), seen.end(), "/velmora/event/setting [\"sensitivity\", 3.5]"), seen.end());
  EXPECT_EQ(seen.back(), "/velmora/sensitivity [3.5]");


  // A subscription lapses 60 s after its sender's last message; the
  // heartbeat keeps one alive.
  UdpSocket lapsed;
  ask(port, lapsed, "/velmora/updates", {1.0f});
  clockAhead = 50.0;
  ask(port, controller, "/velmora/thump");
  clockAhead = 70.0;
  state().setMaskOpacity(state().maskOpacity() > 0.5f ? 0.25f : 0.75f);
  EXPECT_TRUE(nextMessage(controller));
  EXPECT_FALSE(nextMessage(lapsed, 0.5));
  EXPECT_EQ(ask(port, controller, "/velmora/updates", {0.0f})["data"], false);
}

}  // namespace
}  // namespace velmora
