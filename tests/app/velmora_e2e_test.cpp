// The built velmora driven from outside as an operator drives it. One
// headless show serves every live path at once, with the safety settings an
// operator writes: remote cues from oscsend (liblo-tools, a client nobody
// here wrote) and a controller answered on the cue port, cues from a sender
// outside the allow-list refused, tracking heard on its bind address only and
// from allowed senders only, the relay passing on what was admitted byte for
// byte (and refusing a target on Velmora's own port), every wire format of
// the phone simulator reaching the state, and the recording of it all, read
// by Debian's tshark while it goes on and replayed into a second velmora
// whose disk fills up during the show. What each list admits is
// sender_allow_list_test's, each command's rules osc_command_catalog_test's,
// what the recorder writes and how a failed write is cut back pcap_test's.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "net/PcapReader.h"
#include "osc/OSCParser.h"
#include "support/OscBytes.h"
#include "support/VelmoraRun.h"

namespace velmora {
namespace {

using Clock = std::chrono::steady_clock;

const std::string kPhoneSim = test::builtProgram("velmora-phone-sim");
// The tracking listener's own loopback address, and one outside the allow-lists (host byte order).
constexpr std::uint32_t kBound = 0x7F000002, kStranger = 0x7F000003;

// The next OSC message `socket` receives within ten seconds, decoded.
std::optional<OSCMessage> receiveMessage(const test::UdpSocket& socket) {
  const auto messages = OSCParser::parsePacket(socket.receive(10.0).value_or(std::vector<std::uint8_t>{}));
  return messages.empty() ? std::nullopt : std::optional(messages.front());
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
void oscsendAll(test::VelmoraRun& velmora, const std::vector<std::pair<std::vector<std::string>, std::string>>& rows) {
  for (const auto& [command, line] : rows) {
    SCOPED_TRACE(command.front());
    std::vector<std::string> args{"127.0.0.1", std::to_string(velmora.cuePort)};
    args.insert(args.end(), command.begin(), command.end());
    ASSERT_EQ(test::oscsend(args), 0);
    EXPECT_TRUE(line.empty() || velmora->waitForLine(line, 10)) << velmora->output();
  }
}

// What tshark reads from a capture file: one destination port per line; the
// line count, -1 when it could not read the file.
test::Finished tshark(const std::string& file) {
  return test::shell("tshark -r \"$1\" -T fields -e udp.dstport 2>/dev/null", {file});
}
long lines(const test::Finished& f) { return f.status == 0 ? std::count(f.output.begin(), f.output.end(), '\n') : -1; }

bool isStatusLine(const std::string& l) { return l.starts_with("[Velmora] tracking: "); }

TEST(VelmoraE2E, OneHeadlessShowTakesCuesTrackingRelaysAndRecordsAndItsReplayOutlivesAFullDisk) {
  ASSERT_EQ(::access("/usr/bin/oscsend", X_OK), 0) << "oscsend (liblo-tools) is not installed; run scripts/setup";
  test::TempDir dir;
  const std::string file = (dir.path() / "show.pcap").string();
  const test::UdpSocket otherApplication;
  const std::vector<std::uint16_t> ports{test::freeUdpPort(), test::freeUdpPort(), test::freeUdpPort()};
  const std::string loop = "localhost:" + std::to_string(ports[0]);
  test::VelmoraRun velmora(
      {.settings = {{"oscAllowedSenders", {"127.0.0.1", "10.0.0.300"}},
                    {"trackingAllowedSenders", {"127.0.0.1/32"}},
                    {"trackingBindAddress", "127.0.0.2"},
                    {"relayTargets", {"127.0.0.1:" + std::to_string(otherApplication.port()), loop}}},
       .args = {"--record", file},
       .ports = ports});
  ASSERT_TRUE(velmora.ready()) << velmora->output();
  for (const char* line : {"[Velmora] Allowed senders for OSC cues: \"10.0.0.300\": not an IPv4 address; skipped",
                           "[Velmora] Tracking listens on 127.0.0.2 only",
                           "[Velmora] Accepting tracking only from: 127.0.0.1/32"})
    EXPECT_EQ(velmora->printed(line), 1) << line << "\n" << velmora->output();
  // The relay resolves its targets on its own thread: the line may follow the listeners'.
  const std::string refusedTarget = "[TrackingRelay] Refused relay target " + loop + ": this machine's port " +
                                    std::to_string(ports[0]) + " is one of Velmora's own listening ports (it would loop)";
  EXPECT_TRUE(velmora->printed(refusedTarget) || velmora->waitForLine(refusedTarget, 10)) << velmora->output();

  // Cues. Integer 0 and float 0.0 right after the type tags arrive as arguments.
  oscsendAll(velmora, {{{"/velmora/ndi", "i", "0"}, "[OSC] /velmora/ndi [0]"},
                       {{"/velmora/opacity", "f", "0"}, "[OSC] /velmora/opacity [0]"}});
  // A controller bound to its own port asks, and is answered from the cue
  // port; what each request answers is qlab_osc_server_net_test's.
  const test::UdpSocket controller;
  controller.sendTo(velmora.cuePort, test::oscMessage("/velmora/get", {std::string("opacity")}));
  EXPECT_EQ(replyData(controller, "/velmora/get"), 0.0);
  // Subscribed, it hears a cue that oscsend (another sender) fires start and finish.
  controller.sendTo(velmora.cuePort, test::oscMessage("/velmora/updates", {1.0f}));
  EXPECT_EQ(replyData(controller, "/velmora/updates"), true);
  oscsendAll(velmora, {{{"/velmora/mask/nod", "f", "0.5"}, ""}});
  std::vector<std::string> cue;
  while (auto m = receiveMessage(controller)) {
    if (m->address == "/velmora/event/cue") cue.push_back(*m->arguments.at(1).get<std::string>());
    if (!cue.empty() && cue.back() != "started") break;
  }
  EXPECT_EQ(cue, (std::vector<std::string>{"started", "finished"}));
  // A sender outside the list is refused, said once and counted after that.
  const test::UdpSocket stranger(0, kStranger);
  ASSERT_TRUE(stranger.bound());
  stranger.sendTo(velmora.cuePort, test::oscMessage("/velmora/sensitivity", {2.5f}));
  EXPECT_TRUE(velmora->waitForLine("[QLabOSCServer] Refused OSC from 127.0.0.3 (not in the allowed senders)", 10))
      << velmora->output();
  stranger.sendTo(velmora.cuePort, test::oscMessage("/velmora/sensitivity", {3.0f}));
  // No arguments, a text, a cue by its alias that switches the character. The
  // aliases themselves are osc_command_catalog_test's; an unknown address,
  // answered and never dispatched, is its and qlab_osc_server_net_test's.
  oscsendAll(velmora, {{{"/velmora/recentre"}, "[OSC] /velmora/recentre []"},
                       {{"/velmora/lighting/preset", "s", "Top Light"}, "[OSC] /velmora/lighting/preset [\"Top Light\"]"},
                       {{"/ghost/spook", "f", "3"}, "[OSC] /velmora/ghost/spook [3]"},
                       {{"/ghost/stop"}, "[OSC] /velmora/ghost/reset []"}});

  // Tracking to 127.0.0.1 finds nobody (the listener is bound to 127.0.0.2);
  // to 127.0.0.2 from 127.0.0.1 (allowed) it is received; from 127.0.0.3, refused.
  const auto firstSent = Clock::now();
  const test::UdpSocket phone;
  const std::string face = "jawOpen-100|";
  for (int i = 0; i < 5; ++i) phone.sendTo(ports[0], face);
  // The status line follows a burst within about a second; 4 s leaves room under load.
  EXPECT_FALSE(velmora->waitForLine(isStatusLine, 4.0)) << velmora->output();
  for (int i = 0; i < 5; ++i) phone.sendTo(ports[0], face, kBound);
  EXPECT_TRUE(velmora->waitForLine(isStatusLine, 10.0)) << velmora->output();
  // Refused (its text is receiver_net_test's): neither relayed nor recorded.
  for (int i = 0; i < 5; ++i) stranger.sendTo(ports[0], face, kBound);
  // The relay target got what was admitted, byte for byte and in order; a
  // datagram of no known format is relayed all the same.
  const std::vector<std::vector<std::uint8_t>> relayed = {{'j', 'a', 'w', 'O', 'p', 'e', 'n', '-', '4', '0', '|', '=', '1'},
                                                          {0x00, 0x01, 0xFE, 0xFF, 0x00}};
  for (const auto& d : relayed) phone.sendTo(ports[0], d, kBound);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(otherApplication.receive(5.0), std::vector<std::uint8_t>(face.begin(), face.end()));
  for (const auto& d : relayed) EXPECT_EQ(otherApplication.receive(5.0), d) << velmora->output();
  long sent = 5 + static_cast<long>(relayed.size());

  // Every format from the phone simulator: a status line counting well over a
  // second's worth of its packets, from the loopback sender, named after its app.
  const std::pair<const char*, const char*> formats[] = {
      {"livelink", "Live Link Face"}, {"ifacialmocap", "iFacialMocap"}, {"osc", "OSC"}, {"vmc", "VMC"}, {"json", "JSON"}};
  const std::regex status(R"(\[Velmora\] tracking: ([0-9]+\.[0-9]) packets/s from 127\.0\.0\.1:[0-9]+ \((.*)\), ([0-9]+) received.*)");
  const std::regex simSent(R"(\[phone-sim\] sent ([0-9]+) packets\n$)");
  unsigned long long received = 0;
  std::size_t i = 0;
  for (const auto& [format, app] : formats) {
    SCOPED_TRACE(format);
    const test::Finished sim = test::runToEnd({kPhoneSim, "--format", format, "--host", "127.0.0.2", "--port",
                                               std::to_string(ports[i++ % ports.size()]), "--duration", "2.5"},
                                              {}, 30);
    std::smatch m;
    ASSERT_EQ(sim.status, 0) << sim.output;
    ASSERT_TRUE(std::regex_search(sim.output, m, simSent)) << sim.output;
    sent += std::stol(m[1].str());
    std::string seen;
    EXPECT_TRUE(velmora->waitForLine(
        [&](const std::string& l) {
          if (!std::regex_match(l, m, status)) return false;
          seen = l;
          return m[2] == app && std::stod(m[1]) > 0.0 && std::stoull(m[3]) >= received + 100;
        },
        6.0))
        << "last status line \"" << seen << "\"\n" << velmora->output();
    if (std::regex_match(seen, m, status)) received = std::stoull(m[3]);
  }
  const double sending = std::chrono::duration<double>(Clock::now() - firstSent).count();

  // The recording is written as it goes: tshark reads all of it before velmora stops.
  EXPECT_TRUE(test::eventually([&] { return lines(tshark(file)) == sent; }, 10.0)) << lines(tshark(file));
  EXPECT_TRUE(velmora.stopsCleanly()) << velmora->output();
  EXPECT_EQ(velmora->printed("[SessionRecorder] Recording stopped: " + std::to_string(sent) + " datagrams in " + file), 1)
      << velmora->output();
  EXPECT_EQ(velmora->printedStarting("[OSC] /velmora/sensitivity"), 0) << velmora->output();
  // The commands' persisted effects: the look, and the ghost the cue switched to.
  nlohmann::json settings = velmora.settings();  // unreadable: reading a key throws, and the test fails
  EXPECT_EQ(settings["lightingSettings"]["preset"], "Top Light");
  EXPECT_EQ(settings["characterModel"], "cartoon_ghost");

  // Each datagram as it came, stamped when it came: the first allowed face
  // first, the last simulator's last one the better part of 12.5 s later.
  const auto recorded = PcapReader::readFile(file);
  ASSERT_EQ(recorded.datagrams.size(), static_cast<std::size_t>(sent)) << recorded.error;
  EXPECT_EQ(recorded.datagrams.front().payload, std::vector<std::uint8_t>(face.begin(), face.end()));
  EXPECT_EQ(recorded.datagrams.front().envelope.destinationPort, ports[0]);
  const double span = double(recorded.datagrams.back().envelope.arrivalMicroseconds -
                             recorded.datagrams.front().envelope.arrivalMicroseconds) * 1e-6;
  EXPECT_GT(span, 12.0);
  EXPECT_LT(span, sending);

  // Replayed into a fresh velmora on the same ports, as recorded, every
  // datagram arrives; that one's disk fills up during the show (a 64 KiB
  // file-size limit): its recording stops with a message, keeps a whole
  // capture, and the show goes on.
  const std::string limited = (dir.path() / "limited.pcap").string();
  test::VelmoraRun again({.args = {"--record", limited}, .ports = ports});
  ASSERT_TRUE(again.ready()) << again->output();
  const rlimit limit{64 * 1024, RLIM_INFINITY};
  ASSERT_EQ(::prlimit(again->pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
  const auto started = Clock::now();
  const test::Finished replay = test::runToEnd({kPhoneSim, "--replay", file}, {}, 120);
  EXPECT_GT(std::chrono::duration<double>(Clock::now() - started).count(), span * 0.9);
  ASSERT_EQ(replay.status, 0) << replay.output;
  EXPECT_NE(replay.output.find("[phone-sim] sent " + std::to_string(sent) + " packets\n"), std::string::npos);
  const std::regex total(R"(\[Velmora\] tracking: .* ([0-9]+) received.*)");
  std::string stopped;
  std::smatch m;
  EXPECT_TRUE(again->waitForLine(
      [&](const std::string& l) {
        if (l.starts_with("[SessionRecorder] Recording stopped: could not write " + limited + ": File too large (")) stopped = l;
        return std::regex_match(l, m, total) && std::stol(m[1].str()) == sent;
      },
      6.0))
      << again->output();
  EXPECT_TRUE(again.stopsCleanly()) << again->output();
  const auto kept = PcapReader::readFile(limited);
  EXPECT_TRUE(kept) << kept.error;
  EXPECT_GT(kept.datagrams.size(), 10u);
  EXPECT_NE(stopped.find("(" + std::to_string(kept.datagrams.size()) + " datagrams kept)"), std::string::npos)
      << again->output();
}

// A folder switch without its folder is no mistake and a recording that
// cannot start no reason to stop: the normal run starts, says why it does
// not record, and a signal early in its start ends it cleanly.
TEST(VelmoraE2E, ASwitchWithoutItsFolderStartsTheNormalRunEvenWithoutARecording) {
  test::VelmoraRun velmora({.env = {"DISPLAY="}, .args = {"--record", "/dev/full", "--snapshot"}});
  EXPECT_TRUE(velmora->waitForLine("[Velmora] Not recording: could not write /dev/full: No space left on device", 30))
      << velmora->output();
  EXPECT_TRUE(velmora.stopsCleanly(SIGTERM)) << velmora->output();
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
  // Each check's own line is self_test_runner_test's; the counts are the runner's.
  // The banner, each section's heading after a blank line, the totals, in this order.
  const char* headings[] = {"=== RUNNING VELMORA VERIFICATION SUITE ===", "\n--- 1. UK English OSC Dispatch ---",
                            "\n--- 2. Model Switching OSC Shortcuts ---", "\n--- 3. Ghost Animation Cues & Auto-Selection ---",
                            "\n--- 4. Mask Gestures & Auto-Selection ---",
                            "\n--- 5. Graceful Blending & Return Verification ---",
                            "\n--- 6. Geometry & Holes Verification ---", "\n--- 7. OSC Master Toggle ---",
                            "\n=== VERIFICATION RESULTS: 59 PASSED, 0 FAILED ==="};
  std::size_t at = 0;
  for (const char* h : headings) {
    at = out.find(std::string("\n") + h + "\n", at);
    ASSERT_NE(at, std::string::npos) << h << "\n" << out;
  }
  // A batch run starts no listener.
  EXPECT_EQ(out.find("[QLabOSCServer]"), std::string::npos) << out;
  // Measured values close their parenthesis.
  EXPECT_TRUE(std::regex_search(out, std::regex(R"(Ghost Spook Z offset stays <= 0\.35m \(body fully inside frame, actual: 0\.3[0-9]*\)\n)")))
      << out;
  EXPECT_TRUE(std::regex_search(out, std::regex(R"(Mask bow tilts head DOWN \(pitch > 0, actual: 0\.5\)\n)"))) << out;
  for (const auto& [key, value] : before.items()) EXPECT_EQ(velmora.settings()[key], value) << key;
}

}  // namespace
}  // namespace velmora
