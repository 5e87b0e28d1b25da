// Session recordings end to end: velmora --record with the phone simulator
// streaming, the file read by Debian's tshark (a reader nobody here wrote),
// the recording replayed by velmora-phone-sim --replay into a fresh receiver
// and state giving the live run's published blendshapes, and a disk that
// fills up stopping the recording while the show goes on.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <regex>
#include <thread>

#include "base/MainQueue.h"
#include "base/SettingsStore.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "tracking/FaceTrackingState.h"
#include "net/PcapReader.h"
#include "net/SessionRecorder.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {
namespace {

const std::string kVelmora = test::builtProgram("velmora");
const std::string kPhoneSim = test::builtProgram("velmora-phone-sim");

// Runs a program to completion on a helper thread while the test thread
// serves the main queue (the receiver's frames are ingested there); then
// lets the receiver hand over what it still holds.
int runServingMainQueue(TrackingReceiver& receiver, const std::vector<std::string>& args,
                        std::string* output = nullptr) {
  std::atomic<bool> done{false};
  int rc = -1;
  std::thread runner([&] {
    test::ChildProcess child(args, {});
    rc = child.started() ? child.wait(60) : -1;
    if (output) *output = child.output();
    done = true;
  });
  while (!done) MainQueue::shared().runUntil([&] { return done.load(); }, 0.05);
  runner.join();
  receiver.queue().sync([] {});
  MainQueue::shared().drain();
  return rc;
}

// Ingests every frame on the main thread, one posted call each, in order.
// The application's sink lets a newer frame from a sender replace one the
// main thread has not taken yet; comparing two runs frame by frame needs
// every frame, whenever this busy machine delays the test thread.
class EveryFrameSink final : public TrackingSink {
 public:
  explicit EveryFrameSink(FaceTrackingState& state) : state_(state) {}
  void deliver(DecodedFrame frame) override {
    MainQueue::shared().post([&s = state_, frame = std::move(frame)]() mutable {
      FaceFrame f = std::move(frame).completed(s.rawRotation(), s.rawPosition());
      s.ingestPacket(f.blendshapes, f.rotation, f.position, f.sender);
    });
  }
  void deliverUnknown(const std::string&) override {}

 private:
  FaceTrackingState& state_;
};

// An in-process Velmora's tracking side, keeping every published blendshape
// map.
struct TrackingSide {
  explicit TrackingSide(std::uint16_t port)
      : store(config.path()), state(store), sink(std::make_shared<EveryFrameSink>(state)), receiver(sink) {
    state.observe([this](FaceTrackingState::Property p) {
      if (p == FaceTrackingState::Property::blendshapes) published.push_back(state.blendshapes());
      if (p == FaceTrackingState::Property::rawBlendshapes) raw.push_back(state.rawBlendshapes());
    });
    receiver.setPorts({port});
    receiver.startListening();
    listening = receiver.listeningPorts() == std::vector<std::uint16_t>{port};
  }
  test::TempDir config;
  SettingsStore store;
  FaceTrackingState state;
  std::shared_ptr<EveryFrameSink> sink;
  TrackingReceiver receiver;
  bool listening = false;
  std::vector<BlendshapeMap> published, raw;
};

TEST(RecordingEndToEndTest, AReplayedRecordingGivesTheLiveRunsPublishedBlendshapes) {
  test::TempDir dir;
  const std::string file = (dir.path() / "live.pcap").string();
  const std::uint16_t port = test::freeUdpPort();
  std::vector<BlendshapeMap> live, liveRaw;
  {
    TrackingSide velmora(port);
    ASSERT_TRUE(velmora.listening);
    auto recorder = SessionRecorder::create(file);
    ASSERT_TRUE(recorder) << recorder.reason;
    std::shared_ptr<SessionRecorder> tap = std::move(recorder.value);
    velmora.receiver.addTap(tap);
    ASSERT_EQ(runServingMainQueue(velmora.receiver, {kPhoneSim, "--port", std::to_string(port), "--duration", "2"}), 0);
    velmora.receiver.removeTap(tap.get());
    tap->stop();
    live = velmora.published;
    liveRaw = velmora.raw;
  }
  ASSERT_GE(live.size(), 100u);

  TrackingSide fresh(port);  // a fresh state: new filters, same port
  ASSERT_TRUE(fresh.listening);
  // The replay is recorded too, to compare its timing with the original's.
  const std::string again = (dir.path() / "replayed.pcap").string();
  auto recorder = SessionRecorder::create(again);
  ASSERT_TRUE(recorder) << recorder.reason;
  std::shared_ptr<SessionRecorder> tap = std::move(recorder.value);
  fresh.receiver.addTap(tap);
  std::string output;
  ASSERT_EQ(runServingMainQueue(fresh.receiver, {kPhoneSim, "--replay", file}, &output), 0) << output;
  fresh.receiver.removeTap(tap.get());
  tap->stop();
  ASSERT_EQ(fresh.published.size(), live.size()) << output;

  // The raw values arrive bit for bit, in order.
  EXPECT_EQ(fresh.raw, liveRaw);
  // The replay keeps the recorded timing: on average each datagram lands
  // close to its recorded offset from the first, and the whole takes as
  // long (a loaded machine delays single datagrams, in both runs).
  const auto original = PcapReader::readFile(file), replayed = PcapReader::readFile(again);
  ASSERT_EQ(replayed.datagrams.size(), original.datagrams.size());
  const auto offset = [](const PcapReader::Result& r, std::size_t i) {
    return double(r.datagrams[i].envelope.arrivalMicroseconds - r.datagrams[0].envelope.arrivalMicroseconds) * 1e-6;
  };
  double worstTiming = 0.0, timingSum = 0.0;
  for (std::size_t i = 0; i < original.datagrams.size(); ++i) {
    const double off = std::fabs(offset(replayed, i) - offset(original, i));
    worstTiming = std::max(worstTiming, off);
    timingSum += off;
  }
  const double meanTiming = timingSum / double(original.datagrams.size());
  EXPECT_LT(meanTiming, 0.02);
  const std::size_t last = original.datagrams.size() - 1;
  EXPECT_NEAR(offset(replayed, last), offset(original, last), 0.1);

  // The published values differ only by how the filters saw the scheduling
  // of both runs (they are stamped when the main thread ingests a frame):
  // a small average. (Single values during a blink differ more when the
  // machine is busy; the worst is printed, not judged.)
  double worst = 0.0, sum = 0.0;
  std::size_t values = 0;
  std::string worstName;
  for (std::size_t i = 0; i < live.size(); ++i) {
    ASSERT_EQ(fresh.published[i].size(), live[i].size());
    for (const auto& [name, value] : live[i]) {
      const double d = std::fabs(fresh.published[i].at(name) - value);
      sum += d;
      ++values;
      if (d > worst) {
        worst = d;
        worstName = name;
      }
    }
  }
  const double mean = sum / double(values);
  std::printf("replay of %zu packets: timing off by %.1f ms on average, %.1f ms at worst; published values off by "
              "%.4f on average, %.4f at worst (%s)\n",
              live.size(), meanTiming * 1000.0, worstTiming * 1000.0, mean, worst, worstName.c_str());
  EXPECT_LT(mean, 0.01);
}

// The datagram count tshark reads from a capture file; -1 when it fails.
long tsharkCount(const std::string& file, std::string* ports = nullptr) {
  const std::string command = "tshark -r '" + file + "' -T fields -e udp.dstport 2>/dev/null";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return -1;
  long lines = 0;
  char line[256];
  while (std::fgets(line, sizeof line, pipe)) {
    ++lines;
    if (ports && ports->find(line) == std::string::npos) *ports += line;
  }
  return ::pclose(pipe) == 0 ? lines : -1;
}

TEST(RecordingEndToEndTest, VelmoraRecordsWhatArrivesAndTsharkReadsIt) {
  test::TempDir config, dir;
  const std::string file = (dir.path() / "show.pcap").string();
  const std::uint16_t a = test::freeUdpPort(), b = test::freeUdpPort();
  const std::string ports = std::to_string(a) + "," + std::to_string(b);
  test::ChildProcess velmora({kVelmora, "--record", file},
                             {"VELMORA_CONFIG_DIR=" + config.path().string(), "VELMORA_TRACKING_PORTS=" + ports});
  ASSERT_TRUE(velmora.waitForLine("[SessionRecorder] Recording tracking datagrams to " + file, 20.0))
      << velmora.output();
  ASSERT_TRUE(velmora.waitForLine("[TrackingReceiver] Listening for ARKit facial tracking on UDP port " +
                                      std::to_string(b), 20.0))
      << velmora.output();

  test::ChildProcess sim({kPhoneSim, "--format", "osc", "--port", std::to_string(b), "--duration", "1"}, {});
  ASSERT_EQ(sim.wait(30), 0) << sim.output();
  std::smatch m;
  const std::string simSaid = sim.lines().back();
  ASSERT_TRUE(std::regex_match(simSaid, m, std::regex(R"(\[phone-sim\] sent ([0-9]+) packets)"))) << simSaid;
  const long sent = std::stol(m[1].str());
  const test::UdpSocket stranger;
  stranger.sendTo(a, "not any format at all");  // unknown ones are recorded too
  ASSERT_TRUE(velmora.waitForLine([](const std::string& l) { return l.find("(Unknown format)") != std::string::npos; },
                                  6.0))
      << velmora.output();

  // Written as it goes: readable before velmora stops.
  EXPECT_EQ(tsharkCount(file), sent + 1);
  EXPECT_EQ(velmora.stop(SIGINT, 15.0), 0) << velmora.output();
  EXPECT_TRUE(velmora.waitForLine("[SessionRecorder] Recording stopped: " + std::to_string(sent + 1) +
                                      " datagrams in " + file, 1.0))
      << velmora.output();
  std::string seenPorts;
  EXPECT_EQ(tsharkCount(file, &seenPorts), sent + 1);
  EXPECT_NE(seenPorts.find(std::to_string(a)), std::string::npos) << seenPorts;
  EXPECT_NE(seenPorts.find(std::to_string(b)), std::string::npos) << seenPorts;

  // Replayed into a fresh velmora on the same ports: every datagram arrives.
  test::TempDir config2;
  test::ChildProcess again({kVelmora}, {"VELMORA_CONFIG_DIR=" + config2.path().string(), "VELMORA_TRACKING_PORTS=" + ports});
  ASSERT_TRUE(again.waitForLine("[TrackingReceiver] Listening for ARKit facial tracking on UDP port " +
                                    std::to_string(b), 20.0));
  test::ChildProcess replay({kPhoneSim, "--replay", file}, {});
  ASSERT_EQ(replay.wait(30), 0) << replay.output();
  EXPECT_EQ(replay.lines().back(), "[phone-sim] sent " + std::to_string(sent + 1) + " packets");
  const std::regex status(R"(\[Velmora\] tracking: .* ([0-9]+) received.*)");
  EXPECT_TRUE(again.waitForLine(
      [&](const std::string& l) { return std::regex_match(l, m, status) && std::stol(m[1].str()) == sent + 1; }, 6.0))
      << again.output();
  EXPECT_EQ(again.stop(SIGINT, 15.0), 0);
}

TEST(RecordingEndToEndTest, AFullDiskStopsTheRecordingNeverTheShow) {
  test::TempDir config, dir;
  const std::uint16_t port = test::freeUdpPort();
  const std::vector<std::string> env = {"VELMORA_CONFIG_DIR=" + config.path().string(),
                                        "VELMORA_TRACKING_PORTS=" + std::to_string(port)};
  // A disk that is full from the start: the show runs without a recording.
  {
    test::ChildProcess velmora({kVelmora, "--record", "/dev/full"}, env);
    EXPECT_TRUE(velmora.waitForLine("[Velmora] Not recording: could not write /dev/full: No space left on device", 20.0))
        << velmora.output();
    EXPECT_TRUE(velmora.waitForLine("[TrackingReceiver] Listening for ARKit facial tracking on UDP port " +
                                        std::to_string(port), 20.0));
    EXPECT_EQ(velmora.stop(SIGINT, 15.0), 0);
  }
  // A disk that fills up during the show (a 64 KiB file-size limit): the
  // recording stops with a message, tracking carries on.
  const std::string file = (dir.path() / "limited.pcap").string();
  test::ChildProcess velmora({"/bin/bash", "-c", "ulimit -f 64 && exec \"$0\" --record \"$1\"", kVelmora, file}, env);
  ASSERT_TRUE(velmora.waitForLine("[TrackingReceiver] Listening for ARKit facial tracking on UDP port " +
                                      std::to_string(port), 20.0))
      << velmora.output();
  test::ChildProcess sim({kPhoneSim, "--format", "json", "--port", std::to_string(port), "--duration", "4"}, {});
  std::string stopped;
  EXPECT_TRUE(velmora.waitForLine(
      [&](const std::string& l) {
        stopped = l;
        return l.rfind("[SessionRecorder] Recording stopped: could not write " + file + ": File too large (", 0) == 0;
      },
      10.0))
      << velmora.output();
  // The show goes on: packets keep arriving after the recording stopped.
  EXPECT_TRUE(velmora.waitForLine([](const std::string& l) { return l.rfind("[Velmora] tracking: ", 0) == 0; }, 5.0))
      << velmora.output();
  EXPECT_EQ(sim.wait(30), 0);
  EXPECT_EQ(velmora.stop(SIGINT, 15.0), 0) << velmora.output();
  // What was kept is a whole capture.
  const auto read = PcapReader::readFile(file);
  EXPECT_TRUE(read) << read.error;
  EXPECT_GT(read.datagrams.size(), 10u);
  EXPECT_NE(stopped.find("(" + std::to_string(read.datagrams.size()) + " datagrams kept)"), std::string::npos) << stopped;
}

}  // namespace
}  // namespace velmora
