// Resident memory of the built velmora, the way an operator runs it, after
// 20 s in each configuration:
//   0 headless, a PipeWire consumer linked;
//   1 headless, PipeWire consumer and NDI (the runtime double the tests build);
//   2 the main window (Xorg with the dummy driver, two monitors), no outputs;
//   3 the window with both outputs;
//   4 the window with both outputs and the projector (Ctrl+P through xdotool).
// The phone simulator streams a face at 60 packets/s throughout, so the
// character's expressions move and its morph targets are in use.
//
// Counters (MB, from /proc/<pid>/smaps, resident pages by mapping):
// "resident", and its causes: "anonymous" (malloc's mmap'd blocks, GL
// storage of software GL, thread stacks), "heap" (the brk heap),
// "pipewire shared" (the memfd buffers PipeWire maps into the producer),
// "llvm code" (libLLVM, which software GL compiles shaders with),
// "mesa code" (the GL driver), "other files" (every other library and file).
// Budgets: interactive with both outputs and the projector <= 400 MB;
// headless with both outputs < 300 MB.
//
// VELMORA_MEMORY_BENCH_PROGRAM=<path> measures another build of velmora
// (a copy of an older one, to compare); VELMORA_MEMORY_BENCH_SMAPS=<folder>
// keeps each configuration's smaps there (<configuration>.smaps), to look
// at mapping by mapping.
//
// Everything started here (PipeWire, wireplumber, the consumer, Xorg, the
// phone simulator, velmora) is stopped before the run ends, also on failure.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/PrivatePipeWire.h"
#include "support/TempDir.h"
#include "support/XorgDummy.h"

namespace velmora {
namespace {

const std::string kVelmora = getenv("VELMORA_MEMORY_BENCH_PROGRAM") ? getenv("VELMORA_MEMORY_BENCH_PROGRAM")
                                                                     : test::builtProgram("velmora");
const std::string kPhoneSim = test::builtProgram("velmora-phone-sim");
constexpr double kSettleSeconds = 20.0;

struct Configuration {
  const char* name;
  bool window, pipewire, ndi, projector;
};
const Configuration kConfigurations[] = {
    {"headless+pipewire", false, true, false, false},
    {"headless+pipewire+ndi", false, true, true, false},
    {"window", true, false, false, false},
    {"window+pipewire+ndi", true, true, true, false},
    {"window+pipewire+ndi+projector", true, true, true, true},
};

// Resident kB per cause, summed over the mappings of /proc/<pid>/smaps.
std::map<std::string, double> residentByCause(pid_t pid) {
  std::map<std::string, double> kb;
  std::ifstream in("/proc/" + std::to_string(pid) + "/smaps");
  std::string cause;
  for (std::string line; std::getline(in, line);) {
    if (line.empty()) continue;
    // A mapping's header: "start-end perms offset dev inode [path]".
    const bool header = line.find('-') < line.find(' ') && line.find(':') > line.find(' ');
    if (header) {
      std::istringstream fields(line);
      std::string range, perms, offset, dev, inode, path;
      fields >> range >> perms >> offset >> dev >> inode;
      std::getline(fields >> std::ws, path);
      if (path.empty() || path.rfind("[stack", 0) == 0 || path == "[anon]") cause = "anonymous";
      else if (path == "[heap]") cause = "heap";
      else if (path.find("memfd:pipewire") != std::string::npos) cause = "pipewire shared";
      else if (path.find("libLLVM") != std::string::npos) cause = "llvm code";
      else if (path.find("/dri/") != std::string::npos || path.find("libgallium") != std::string::npos) cause = "mesa code";
      else if (path.rfind("[", 0) == 0) cause = "other files";  // vdso, vvar
      else cause = "other files";
      continue;
    }
    if (line.rfind("Rss:", 0) == 0) {
      kb[cause] += std::stod(line.substr(4));
      kb["resident"] += std::stod(line.substr(4));
    }
  }
  return kb;
}

// Runs a command against a display; its output, trailing whitespace removed.
std::string runOn(const std::string& display, const std::string& command) {
  std::string out;
  if (FILE* p = ::popen(("DISPLAY=" + display + " " + command + " 2>/dev/null").c_str(), "r")) {
    char buffer[256];
    while (std::fgets(buffer, sizeof buffer, p)) out += buffer;
    ::pclose(p);
  }
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
  return out;
}

// Reads velmora's output for a while (so its pipe never fills) and sleeps.
void drain(test::ChildProcess& p, double seconds) {
  p.waitForLine([](const std::string&) { return false; }, seconds);
}

void BM_ResidentMemory(benchmark::State& st) {
  const Configuration& c = kConfigurations[st.range(0)];
  st.SetLabel(c.name);
  for (auto _ : st) {
    test::TempDir dir;
    std::unique_ptr<test::XorgDummy> xorg;
    if (c.window) {
      xorg = std::make_unique<test::XorgDummy>(dir.path(), 2);
      if (!xorg->ready()) {
        st.SkipWithError("Xorg with the dummy driver did not start");
        return;
      }
    }
    test::PrivatePipeWire session;  // started only when wanted; its folder keeps PipeWire out otherwise
    if (c.pipewire && !session.start()) {
      st.SkipWithError("pipewire could not be started");
      return;
    }
    const std::uint16_t trackingPort = test::freeUdpPort();
    std::ofstream(dir.path() / "settings.json")
        << nlohmann::json{{"oscCuePort", test::freeUdpPort()}, {"ndiOutputEnabled", c.ndi}}.dump();
    std::vector<std::string> env = session.env();
    env.push_back("VELMORA_CONFIG_DIR=" + dir.path().string());
    env.push_back("VELMORA_TRACKING_PORTS=" + std::to_string(trackingPort));
    env.push_back("NDI_RUNTIME_DIR_V6=" VELMORA_NDI_DOUBLE_DIR);
    env.push_back("NDI_DOUBLE_CONNECTIONS=1");
    if (xorg) env.push_back("DISPLAY=" + xorg->display());

    test::ChildProcess velmora({kVelmora}, env);
    test::ChildProcess phone({kPhoneSim, "--port", std::to_string(trackingPort), "--rate", "60", "--duration", "120"},
                             {});
    pid_t consumer = -1;
    auto stopAll = [&] {
      test::PrivatePipeWire::killOne(consumer, SIGTERM);
      velmora.stop(SIGTERM, 30);
      phone.stop(SIGTERM, 5);
    };
    const std::string ready = c.window ? "[Velmora] Main window open; close it (or press Ctrl-C) to stop"
                                       : "[Velmora] Running headless";
    if (!velmora.waitForLine([&](const std::string& l) { return l.rfind(ready, 0) == 0; }, 30)) {
      stopAll();
      st.SkipWithError("velmora did not start");
      return;
    }
    if (c.pipewire) {
      if (!session.waitForNode("Velmora", 15)) {
        stopAll();
        st.SkipWithError("no PipeWire node");
        return;
      }
      consumer = session.spawn(
          {"/usr/bin/gst-launch-1.0", "-q", "pipewiresrc", "target-object=Velmora", "!", "video/x-raw", "!", "fakesink"});
    }
    if (c.projector) {
      std::string window;
      for (int i = 0; i < 40 && window.empty(); ++i) {
        window = runOn(xorg->display(), "xdotool search --onlyvisible --name '^Velmora$' | head -1");
        if (window.empty()) drain(velmora, 0.25);
      }
      runOn(xorg->display(), "xdotool windowfocus --sync " + window);
      runOn(xorg->display(), "xdotool key ctrl+p");
      if (!velmora.waitForLine(
              [](const std::string& l) { return l.rfind("[ProjectorWindowController] Opened", 0) == 0; }, 20)) {
        stopAll();
        st.SkipWithError("the projector did not open");
        return;
      }
    }
    drain(velmora, kSettleSeconds);
    const auto kb = residentByCause(velmora.pid());
    if (const char* keep = getenv("VELMORA_MEMORY_BENCH_SMAPS")) {
      std::ifstream in("/proc/" + std::to_string(velmora.pid()) + "/smaps");
      std::ofstream(std::string(keep) + "/" + c.name + ".smaps") << in.rdbuf();
    }
    stopAll();
    for (const auto& [cause, value] : kb) st.counters[cause + " MB"] = value / 1024.0;
  }
}
BENCHMARK(BM_ResidentMemory)->DenseRange(0, 4)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace
}  // namespace velmora
