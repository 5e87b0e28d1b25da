#pragma once
// A private, headless PipeWire session for one test: the pipewire daemon and
// wireplumber (for automatic linking) under a fresh 0700 XDG_RUNTIME_DIR, no
// D-Bus, no devices. While it lives, this process's XDG_RUNTIME_DIR points at
// it (so in-process PipeWire clients find it) and env() gives the same
// entries for child processes. Both daemons are always stopped (SIGTERM,
// then SIGKILL) when the object goes, also when a test fails.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/ScopedEnv.h"
#include "support/Spawn.h"
#include "support/TempDir.h"

namespace velmora::test {

class PrivatePipeWire {
 public:
  // Starts nothing: call start().
  PrivatePipeWire() {
    const auto& root = dir_.path();
    ::chmod(root.c_str(), 0700);
    std::filesystem::create_directories(root / "state");
    std::filesystem::create_directories(root / "config/wireplumber/main.lua.d");
    // wireplumber.conf without the bluetooth component (no D-Bus here).
    std::ifstream in("/usr/share/wireplumber/wireplumber.conf");
    std::ofstream out(root / "config/wireplumber/wireplumber.conf");
    for (std::string line; std::getline(in, line);)
      if (line.find("bluetooth.lua") == std::string::npos) out << line << '\n';
    // Sorts before 90-enable-all.lua, which reads these switches.
    std::ofstream(root / "config/wireplumber/main.lua.d/60-velmora-test.lua")
        << "default_access.properties[\"enable-flatpak-portal\"] = false\n"
           "alsa_monitor.enabled = false\n"
           "v4l2_monitor.enabled = false\n"
           "libcamera_monitor.enabled = false\n";
  }
  ~PrivatePipeWire() { stop(); }
  PrivatePipeWire(const PrivatePipeWire&) = delete;
  PrivatePipeWire& operator=(const PrivatePipeWire&) = delete;

  // Starts pipewire, waits for its socket, then wireplumber; true when the
  // daemon answers (pw-cli info 0).
  bool start() {
    const auto socket = dir_.path() / "pipewire-0";
    std::error_code ec;
    std::filesystem::remove(socket, ec);
    pipewire_ = spawn({"/usr/bin/pipewire"}, "pipewire.log");
    for (int i = 0; i < 100 && !std::filesystem::exists(socket); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    wireplumber_ = spawn({"/usr/bin/wireplumber"}, "wireplumber.log");
    for (int i = 0; i < 50; ++i) {
      if (run({"/usr/bin/pw-cli", "info", "0"}) == 0) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }
  // Kills both daemons at once (SIGKILL), as a crash would.
  void kill() {
    killOne(wireplumber_, SIGKILL);
    killOne(pipewire_, SIGKILL);
  }
  void stop() {
    killOne(wireplumber_, SIGTERM);
    killOne(pipewire_, SIGTERM);
  }

  // Entries for a child process that should use this session.
  std::vector<std::string> env() const {
    return {"XDG_RUNTIME_DIR=" + dir_.path().string(), "XDG_STATE_HOME=" + (dir_.path() / "state").string(),
            "XDG_CONFIG_HOME=" + (dir_.path() / "config").string()};
  }
  const std::filesystem::path& dir() const { return dir_.path(); }

  // Runs a command in this session and returns its exit status (-1 when it
  // could not run); its output is appended to `outputFile` (in dir()) or dropped.
  int run(const std::vector<std::string>& args, const std::string& outputFile = {}) const {
    const pid_t pid = spawn(args, outputFile);
    if (pid <= 0) return -1;
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // Waits until a node of this name is in the registry (pw-cli's listing, each in its own file).
  bool waitForNode(const std::string& name, double seconds) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
      const std::string file = "capture-" + std::to_string(++captures_) + ".txt";
      run({"/usr/bin/pw-cli", "ls", "Node"}, file);
      std::ifstream in(dir_.path() / file);
      if (std::string(std::istreambuf_iterator<char>(in), {}).find("node.name = \"" + name + "\"") != std::string::npos)
        return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }

  // Starts a command in this session without waiting (stdout and stderr to
  // `outputFile` in dir(), or dropped).
  pid_t spawn(const std::vector<std::string>& args, const std::string& outputFile = {}) const {
    const std::vector<std::string> environment = environmentWithout("XDG_", env());
    SpawnOptions options;
    options.environment = &environment;
    if (!outputFile.empty()) options.outputFile = (dir_.path() / outputFile).string();
    return spawnProcess(args, options);
  }
  // Signals a process started with spawn() and reaps it (SIGKILL after 2 s).
  static void killOne(pid_t& pid, int sig) { stopProcess(pid, sig); }

 private:
  TempDir dir_;
  ScopedEnv runtimeDir_{"XDG_RUNTIME_DIR", dir_.path().c_str()};  // put back when the object goes
  pid_t pipewire_ = -1;
  pid_t wireplumber_ = -1;
  mutable int captures_ = 0;
};

}  // namespace velmora::test
