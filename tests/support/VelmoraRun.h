#pragma once
// The built velmora started by an end-to-end test as an operator would: its
// own settings folder holding the given settings (and a free cue port unless
// they name one), tracking on free ports, nothing inherited from the test's
// own VELMORA_* settings. oscsend() is liblo's command-line client.
#include <signal.h>

#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "support/UdpSocket.h"

namespace velmora::test {

struct VelmoraOptions {
  nlohmann::json settings = nlohmann::json::object();
  std::vector<std::string> env = {};      // "NAME=value", added
  std::vector<std::string> args = {};     // after the program's name
  std::vector<std::uint16_t> ports = {};  // for tracking; one free port when none are given
};

class VelmoraRun {
 public:
  explicit VelmoraRun(VelmoraOptions o = {}) : ports(o.ports.empty() ? std::vector<std::uint16_t>{freeUdpPort()} : o.ports) {
    std::string list;
    for (std::uint16_t port : ports) list += (list.empty() ? "" : ",") + std::to_string(port);
    if (!o.settings.contains("oscCuePort")) o.settings["oscCuePort"] = freeUdpPort();
    cuePort = o.settings["oscCuePort"].get<std::uint16_t>();
    std::ofstream(config.path() / "settings.json") << o.settings.dump();
    o.env.push_back("VELMORA_CONFIG_DIR=" + config.path().string());
    o.env.push_back("VELMORA_TRACKING_PORTS=" + list);
    o.args.insert(o.args.begin(), builtProgram("velmora"));
    process = std::make_unique<ChildProcess>(o.args, o.env);
  }

  // True once every tracking port and the cue port listen, in whatever order they open.
  bool ready(double seconds = 20.0) {
    std::set<std::string> opening{"[QLabOSCServer] QLab Remote Cue listener active on UDP port " + std::to_string(cuePort)};
    for (std::uint16_t port : ports)
      opening.insert("[TrackingReceiver] Listening for ARKit facial tracking on UDP port " + std::to_string(port));
    return process->waitForLine([&](const std::string& l) { return opening.erase(l) == 1 && opening.empty(); },
                                seconds);
  }
  // The signal ends the run with status 0 and its last words.
  bool stopsCleanly(int sig = SIGINT) {
    return process->stop(sig, 30.0) == 0 && process->printed("[Velmora] Stopped cleanly") == 1;
  }
  nlohmann::json settings() const {
    std::ifstream in(config.path() / "settings.json");
    return nlohmann::json::parse(in, nullptr, false);
  }
  ChildProcess* operator->() const { return process.get(); }

  TempDir config;
  const std::vector<std::uint16_t> ports;
  std::uint16_t cuePort = 0;
  std::unique_ptr<ChildProcess> process;
};

inline int oscsend(std::vector<std::string> args) {
  args.insert(args.begin(), "/usr/bin/oscsend");
  return runToEnd(args, {}, 10).status;
}

}  // namespace velmora::test
