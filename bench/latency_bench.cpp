// How far behind the performer the picture is, measured on the real thing:
// a running headless velmora in a private PipeWire session, fed by
// velmora-phone-sim at 60 packets/s, with a real consumer (gst-launch-1.0
// pipewiresrc ! fakesink) linked so that frames are rendered and delivered.
// Reports velmora's own figures from its status line (arrival to hand-off,
// p50 and p99 over the last second, and the median split into waiting for
// the tick and rendering) and the frames per second the consumer received.
// Budget: p99 <= one tick + one render.
#include <benchmark/benchmark.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

#include "support/ChildProcess.h"
#include "support/PrivatePipeWire.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

const std::string kVelmora = test::builtProgram("velmora");
const std::string kPhoneSim = test::builtProgram("velmora-phone-sim");

std::size_t buffersSeen(const std::filesystem::path& log) {
  std::ifstream in(log);
  std::size_t n = 0;
  for (std::string line; std::getline(in, line);)
    if (line.find("last-message = chain") != std::string::npos) ++n;
  return n;
}

void BM_ArrivalToOutputLatency(benchmark::State& st) {
  for (auto _ : st) {
    test::PrivatePipeWire session;
    if (!session.start()) {
      st.SkipWithError("pipewire could not be started");
      return;
    }
    test::TempDir config;
    const std::string port = std::to_string(test::freeUdpPort());
    std::ofstream(config.path() / "settings.json") << "{\"oscCuePort\": " << test::freeUdpPort() << "}";
    std::vector<std::string> env = session.env();
    env.push_back("VELMORA_CONFIG_DIR=" + config.path().string());
    env.push_back("VELMORA_TRACKING_PORTS=" + port);
    test::ChildProcess velmora({kVelmora}, env);
    if (!velmora.waitForLine("[Velmora] Syphon: ready, waiting for a client", 30) ||
        !session.waitForNode("Velmora", 10)) {
      st.SkipWithError("velmora did not publish");
      return;
    }
    pid_t consumer = session.spawn({"/usr/bin/gst-launch-1.0", "-v", "pipewiresrc", "target-object=Velmora", "!",
                                    "video/x-raw", "!", "fakesink", "silent=false"},
                                   "consumer.log");
    test::ChildProcess phone({kPhoneSim, "--port", port, "--rate", "60", "--duration", "30"}, env);
    std::this_thread::sleep_for(std::chrono::seconds(8));  // first frames, GL start-up, a full latency window
    const std::size_t before = buffersSeen(session.dir() / "consumer.log");
    const auto started = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(12));
    const std::size_t after = buffersSeen(session.dir() / "consumer.log");
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    // The newest status line that carries the latency.
    const std::regex figures(
        R"(output latency p50 ([0-9.]+) ms, p99 ([0-9.]+) ms \(tick wait ([0-9.]+) ms \+ render ([0-9.]+) ms\))");
    velmora.waitForLine([](const std::string&) { return false; }, 0.5);  // read what is there
    std::smatch m;
    bool found = false;
    for (const auto& line : velmora.lines())
      if (std::regex_search(line, m, figures)) {
        found = true;
        st.counters["p50 ms"] = std::stod(m[1]);
        st.counters["p99 ms"] = std::stod(m[2]);
        st.counters["tick wait p50 ms"] = std::stod(m[3]);
        st.counters["render p50 ms"] = std::stod(m[4]);
      }
    st.counters["consumer fps"] = static_cast<double>(after - before) / seconds;
    test::PrivatePipeWire::killOne(consumer, SIGTERM);
    velmora.stop(SIGTERM, 20);
    if (!found) st.SkipWithError("no latency in velmora's status lines");
  }
}
BENCHMARK(BM_ArrivalToOutputLatency)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace
}  // namespace velmora
